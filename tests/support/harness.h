// The real daemon on a simulated board, and a client of it: what the system tests stand on.
#ifndef TAVOR_TESTS_HARNESS_H
#define TAVOR_TESTS_HARNESS_H

#include "support/private_dir.h"
#include "support/wait.h"
#include "tavor/protocol.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

using Arguments = std::vector<std::string>;

struct RunResult {
    int status; // exit code, 128 + n when signal n ended it
    std::string out;
    std::string err;
};

// Runs a program to its end.
RunResult run_program(const Arguments& arguments, std::chrono::milliseconds limit = kWaitLimit);

// A child process, ended and reaped with its owner.
struct Child {
    explicit Child(const Arguments& arguments, const std::string& output_file = "");
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Sends the signal and waits for the end. Returns the exit code, 128 + n when a signal ended it.
    int end(int signal);
    bool running();

    pid_t pid = -1;
    int exit_code = -1;
};

// One simulated board in a private directory, without a program.
struct SimulatedBoard {
    explicit SimulatedBoard(const Arguments& options = {});
    ~SimulatedBoard();

    // Runs a control command on the board and returns what it printed; the test fails when the command does.
    std::string ctl(const Arguments& command) const;
    void fault(const std::string& name, const std::string& value) const {
        ctl({"fault", name, value});
    }
    // A number of the board's status.
    long long status(const std::string& key) const;
    // Writes one line "key=value" at the top of the daemon's configuration.
    void configure(const std::string& key, const std::string& value) const;
    std::string socket_path() const;

    PrivateDir directory;
    Child* process = nullptr;
};

// The daemon on a board; its log goes to a file of the board's directory.
struct DaemonOnBoard {
    explicit DaemonOnBoard(const SimulatedBoard& on, std::string daemon = TAVOR_PROGRAM);
    ~DaemonOnBoard() {
        delete process;
    }
    DaemonOnBoard(const DaemonOnBoard&) = delete;
    DaemonOnBoard& operator=(const DaemonOnBoard&) = delete;

    std::string log() const;
    bool wait_log(const std::string& text) const;
    // Entries below /proc/PID/task and /proc/PID/fd.
    size_t threads() const;
    size_t descriptors() const;
    // Private memory in KiB.
    long private_kib() const;
    void kill();
    void restart();

    const SimulatedBoard* board;
    std::string program;
    Child* process = nullptr;
};

// A client socket bound to an abstract address of the full length.
struct TestClient {
    explicit TestClient(std::string daemon_socket);
    ~TestClient();
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    // Sends a request; true when the daemon's socket took it.
    bool send(tavor_request_type type, const std::string& text = "") const;
    bool send_bytes(const void* data, size_t size) const;
    // The next datagram, none when the limit passed.
    std::optional<tavor_response> receive(std::chrono::milliseconds limit = kWaitLimit) const;
    // The next datagram with the code; others are dropped.
    std::optional<tavor_response> receive_code(uint32_t code,
                                               std::chrono::milliseconds limit = kWaitLimit) const;
    // Sends a request and returns the value of the reply with the code, -2 when there was none.
    int64_t ask(tavor_request_type type, uint32_t code, const std::string& text = "",
                std::chrono::milliseconds limit = kWaitLimit) const;

    int fd = -1;
    std::string daemon;
};

// A board, the daemon on it and a client.
struct BoardTest : testing::Test {
    explicit BoardTest(const Arguments& options = {"--rate", "10"},
                       const std::string& program = TAVOR_PROGRAM)
        : board(options), daemon(board, program), client(board.socket_path()) {}

    void start() const {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    }
    void stop() const {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    }
    // Starts anew and waits for a position.
    void expect_chip_works() const {
        start();
        EXPECT_TRUE(client.receive_code(TAVOR_CODE_POSITION)) << "the chip works again";
    }

    // Starts and stops again and again, with something done in each round, and expects that no thread and no
    // descriptor is left behind; then the board has no faults any more, and the chip works.
    void expect_nothing_left_behind(int cycles, const std::function<void(int cycle)>& between) const;

    SimulatedBoard board;
    DaemonOnBoard daemon;
    TestClient client;
};

// With a chip that sends nothing by itself.
struct SilentBoardTest : BoardTest {
    SilentBoardTest() : BoardTest({"--source", "none"}) {}
};

// Payload of a sentence as text.
std::string payload_text(const tavor_response& response);

#endif

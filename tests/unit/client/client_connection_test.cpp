// The client's end of the socket against a daemon that the test plays.
#include "client/connection.h"

#include "support/bound_socket.h"
#include "support/client_fake_daemon.h"
#include "support/nobody.h"
#include "support/private_dir.h"
#include "support/wait.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr double kLimitS = 60;

const FakeDaemon::Script kSilent = [](FakeDaemon&, const tavor_request&) {};

struct Pipe {
    Pipe() {
        EXPECT_EQ(pipe(ends.data()), 0);
    }
    ~Pipe() {
        close_end(0);
        close_end(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void close_end(size_t i) {
        if (ends.at(i) >= 0) {
            close(ends.at(i));
            ends.at(i) = -1;
        }
    }
    std::array<int, 2> ends = {-1, -1};
};

struct ConnectionTest : testing::Test {
    // Starts a daemon, in place of the one before; open also connects to it.
    void serve(const FakeDaemon::Script& script) {
        daemon.reset();
        daemon = std::make_unique<FakeDaemon>(path, script);
    }
    void open(const FakeDaemon::Script& script) {
        serve(script);
        ASSERT_TRUE(connection_open(connection, path)) << connection.error;
    }
    bool send(tavor_request_type type, const std::string& text = "") {
        return connection_send(connection, type, text, deadline_in(kLimitS));
    }
    Received receive() {
        return connection_receive(connection, response, deadline_in(kLimitS));
    }
    // Asks for a save, and has its first answer.
    void ask() {
        ASSERT_TRUE(send(TAVOR_REQUEST_SAVE_LOCATION)) << connection.error;
        ASSERT_EQ(receive(), Received::kResponse);
    }
    // From now on every wait is interrupted.
    void interrupt() {
        connection.interrupt = pipe.ends[0];
        ASSERT_EQ(write(pipe.ends[1], "x", 1), 1);
    }
    // Sends until the socket, which nobody reads, takes no more.
    void fill() {
        ASSERT_TRUE(connection_open(connection, path));
        for (int i = 0; i < 100000 && connection_send(connection, TAVOR_REQUEST_START, "", Clock::now());
             ++i) {
        }
    }

    PrivateDir directory;
    const std::string path = directory.path / "socket";
    std::unique_ptr<FakeDaemon> daemon;
    Pipe pipe;
    Connection connection;
    tavor_response response = {};
};

FakeDaemon::Script answer(uint32_t code, uint32_t value = 0) {
    return [=](FakeDaemon& d, const tavor_request&) { d.send(make_response(code, value)); };
}

} // namespace

TEST(Connection, TheRelayIsUsualWhenItAnswers) {
    const PrivateDir directory;
    const std::string relay = (directory.path / "relay").string();
    EXPECT_EQ(connection_usual_path(relay.c_str(), "/daemon"), "/daemon");
    {
        FakeDaemon answers(relay, [](FakeDaemon&, const tavor_request&) {});
        EXPECT_EQ(connection_usual_path(relay.c_str(), "/daemon"), relay);
    }
    directory.write("relay", "no socket");
    EXPECT_EQ(connection_usual_path(relay.c_str(), "/daemon"), "/daemon");
}

TEST_F(ConnectionTest, RequestHoldsTypeAndText) {
    open(answer(5));
    for (const std::string& text : {std::string("353,1"), std::string(600, 'x')}) {
        ASSERT_TRUE(send(TAVOR_REQUEST_COMMAND, text));
        ASSERT_EQ(receive(), Received::kResponse);
    }
    EXPECT_EQ(daemon->types(), (std::vector<uint32_t>{8, 8}));
    EXPECT_EQ(daemon->texts(), (std::vector<std::string>{"353,1", std::string(511, 'x')}));
}

TEST_F(ConnectionTest, SocketThatCanNotBeUsedSaysWhatToDo) {
    EXPECT_FALSE(connection_open(connection, path));
    EXPECT_EQ(connection.error,
              "no daemon at " + path + ": No such file or directory; start it or check --socket");

    { const BoundSocket stale(path); }
    EXPECT_FALSE(connection_open(connection, path));
    EXPECT_EQ(connection.error, "no daemon at " + path + ": Connection refused; start it or check --socket");

    const std::string other = directory.path / "stream";
    const BoundSocket stream(other, SOCK_STREAM);
    EXPECT_FALSE(connection_open(connection, other));
    EXPECT_EQ(connection.error.rfind("cannot reach the daemon at " + other, 0), 0U) << connection.error;

    EXPECT_FALSE(connection_open(connection, "/" + std::string(107, 'x')));
    EXPECT_NE(connection.error.find("File name too long"), std::string::npos) << connection.error;
}

TEST_F(ConnectionTest, MissingRightsNameTheGroup) {
    serve(kSilent);
    ASSERT_EQ(chmod(directory.path.c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    as_nobody([&] { EXPECT_FALSE(connection_open(connection, path)); });
    EXPECT_EQ(
        connection.error,
        "no access to the daemon at " + path +
            ": Permission denied; join group tavor ('sudo usermod -a -G tavor $USER') and log in again");
}

TEST(ConnectionErrorText, TellsOfTheSupervisorAndPrintsNoControlCharacters) {
    EXPECT_EQ(connection_error_text(TAVOR_SOCKET_PATH, ECONNREFUSED),
              "no daemon at /etc/default/tavor/tavor_sun_path: Connection refused; start it with "
              "'systemctl start tavor'");
    EXPECT_EQ(connection_error_text("/\x1b[2J", ENOENT).find('\x1b'), std::string::npos);
}

TEST_F(ConnectionTest, DatagramsOfOtherSizesAreMalformed) {
    open([](FakeDaemon& d, const tavor_request&) {
        const std::array<char, 600> bytes = {};
        for (const size_t size : {0U, 1U, 8U, 519U, 521U, 600U}) {
            d.send_bytes(bytes.data(), size);
        }
        d.send(make_response(3, 7));
    });
    ASSERT_TRUE(send(TAVOR_REQUEST_SAVE_LOCATION));
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(receive(), Received::kMalformed) << i;
    }
    ASSERT_EQ(receive(), Received::kResponse);
    EXPECT_EQ(response.value, 7U);
}

TEST_F(ConnectionTest, SilenceEndsAtTheDeadline) {
    open(kSilent);
    const auto begin = Clock::now();
    EXPECT_EQ(connection_receive(connection, response, deadline_in(0.05)), Received::kTimeout);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(ConnectionTest, DatagramThatHasComeIsReadAlsoAfterTheDeadline) {
    open([](FakeDaemon& d, const tavor_request&) {
        d.send(make_response(3, 1));
        d.send(make_response(3, 2));
    });
    ask();
    const auto past = Clock::now();
    while (connection_receive(connection, response, past) == Received::kTimeout) {
        ASSERT_LT(Clock::now() - past, std::chrono::seconds(60));
    }
    EXPECT_EQ(response.value, 2U);
}

TEST_F(ConnectionTest, StrangersCannotSendToIt) {
    open(answer(3));
    ask();
    const sockaddr_un address = daemon->sender();
    const int stranger = socket(AF_UNIX, SOCK_DGRAM, 0);
    const tavor_response forged = make_response(3, 0);
    EXPECT_EQ(sendto(stranger, &forged, sizeof forged, MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              -1);
    EXPECT_EQ(errno, EPERM);
    close(stranger);
}

TEST_F(ConnectionTest, InterruptEndsTheWaitForAnAnswer) {
    open(kSilent);
    interrupt();
    EXPECT_EQ(receive(), Received::kInterrupted);
}

TEST_F(ConnectionTest, InterruptEndsTheWaitForADaemon) {
    interrupt();
    EXPECT_FALSE(connection_open(connection, path));
    EXPECT_EQ(connection.error, "");
}

TEST_F(ConnectionTest, InterruptEndsTheWaitForADaemonThatReadsNoRequests) {
    const BoundSocket deaf(path);
    fill();
    interrupt();
    EXPECT_FALSE(send(TAVOR_REQUEST_START));
    EXPECT_EQ(connection.error, "");
}

TEST_F(ConnectionTest, DaemonThatReadsNoRequestsIsGivenUpAtTheDeadline) {
    const BoundSocket deaf(path);
    fill();
    EXPECT_FALSE(connection_send(connection, TAVOR_REQUEST_START, "", deadline_in(0.05)));
    EXPECT_TRUE(connection.busy);
    EXPECT_EQ(connection.error.rfind("no request is taken by the daemon at " + path, 0), 0U)
        << connection.error;
}

TEST_F(ConnectionTest, ReaderThatHasGoneEndsAWait) {
    open(kSilent);
    connection.output = pipe.ends[1];
    EXPECT_EQ(connection_receive(connection, response, Clock::now()), Received::kTimeout) << "still read";
    pipe.close_end(0);
    EXPECT_EQ(receive(), Received::kOutputClosed);
}

TEST_F(ConnectionTest, RestartedDaemonIsFoundAgain) {
    open(kSilent);
    serve(answer(3));
    ask();
}

TEST_F(ConnectionTest, DaemonThatIsBeingRestartedIsWaitedFor) {
    const std::string own = "@tavorctl-" + std::to_string(getpid()) + "-";
    std::thread restart([&] {
        EXPECT_TRUE(wait_until([&] { // its address stands before it connects
            std::ifstream sockets("/proc/net/unix");
            const std::string all(std::istreambuf_iterator<char>(sockets), {});
            return all.find(own) != std::string::npos;
        }));
        serve(kSilent);
    });
    EXPECT_TRUE(connection_open(connection, path)) << connection.error;
    restart.join();
}

TEST_F(ConnectionTest, PresenceIsToldWithoutARequest) {
    open(kSilent);
    EXPECT_EQ(connection_presence(connection), Presence::kSame);
    ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    EXPECT_EQ(connection_presence(connection), Presence::kSame) << "other rights make no other socket";
    EXPECT_TRUE(daemon->types().empty());
    daemon.reset();
    EXPECT_EQ(connection_presence(connection), Presence::kGone) << "no socket";
    { const BoundSocket dead(path); }
    EXPECT_EQ(connection_presence(connection), Presence::kGone) << "a socket that nobody serves";
}

TEST_F(ConnectionTest, PresenceTellsARestartedDaemon) {
    const BoundSocket before(path);
    ASSERT_TRUE(connection_open(connection, path));
    ASSERT_EQ(unlink(path.c_str()), 0);
    const BoundSocket after(path);
    EXPECT_EQ(connection_presence(connection), Presence::kRestarted);
    Connection anew;
    ASSERT_TRUE(connection_open(anew, path));
    EXPECT_EQ(connection_presence(anew), Presence::kSame);
}

TEST_F(ConnectionTest, RetakingTheOutputStartsOnlyARestartedDaemon) {
    open(answer(6));
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kSameDaemon);
    ASSERT_EQ(receive(), Received::kResponse);
    EXPECT_EQ(daemon->types(), std::vector<uint32_t>{0xFFFFFFFF});
    serve(answer(0));
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kNewDaemon);
    ASSERT_EQ(receive(), Received::kResponse);
    EXPECT_EQ(daemon->types(), std::vector<uint32_t>{TAVOR_REQUEST_START});
    daemon.reset();
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kFailed);
    EXPECT_EQ(connection.error.rfind("no daemon at ", 0), 0U) << connection.error;
}

TEST(Connection, NoSecondsMeanNoDeadline) {
    EXPECT_EQ(deadline_in(0), Clock::time_point::max());
    EXPECT_LT(deadline_in(366.0 * 24 * 60 * 60), Clock::time_point::max());
}

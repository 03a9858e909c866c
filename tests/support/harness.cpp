#include "support/harness.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

int decode_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<char*> argument_pointers(const Arguments& arguments) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Of the calls below a child may make only those that are safe after a fork.
void redirect(int descriptor, const char* path, int flags) {
    const int file = path == nullptr ? descriptor : open(path, flags, 0600);
    if (file != descriptor) {
        dup2(file, descriptor);
        close(file);
    }
}

// Ends with the thread that started it: a test that is killed leaves no program behind.
[[noreturn]] void become(char** argv, pid_t parent, const char* out, const char* err, int report) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(EXIT_FAILURE);
    }
    redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    redirect(STDOUT_FILENO, out, O_WRONLY | O_CREAT | O_APPEND);
    redirect(STDERR_FILENO, err, O_WRONLY | O_CREAT | O_APPEND);
    execvp(argv[0], argv);
    const int error = errno;
    static_cast<void>(write(report, &error, sizeof error) + 1);
    _exit(EXIT_FAILURE);
}

const char* or_null(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

pid_t spawn(const Arguments& arguments, const std::string& out, const std::string& err) {
    std::vector<char*> argv = argument_pointers(arguments);
    int report[2]; // closed by a good exec
    if (pipe2(report, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("can't make a pipe: ") + strerror(errno));
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become(argv.data(), parent, or_null(out), or_null(err), report[1]);
    }
    int error = pid < 0 ? errno : 0;
    close(report[1]);
    const bool failed = pid < 0 || read(report[0], &error, sizeof error) > 0;
    close(report[0]);
    if (failed) {
        throw std::runtime_error("can't start " + arguments[0] + ": " + strerror(error));
    }
    return pid;
}

std::string file_content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

size_t entries(const std::string& directory) {
    std::error_code error;
    size_t count = 0;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        ++count;
    }
    return count;
}

} // namespace

RunResult run_program(const Arguments& arguments, std::chrono::milliseconds limit) {
    const PrivateDir directory;
    const std::string out = directory.path / "out";
    const std::string err = directory.path / "err";
    const pid_t pid = spawn(arguments, out, err);
    int status = 0;
    if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
        ADD_FAILURE() << arguments[0] << " does not end";
        ::kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return {decode_status(status), file_content(out), file_content(err)};
}

Child::Child(const Arguments& arguments, const std::string& output_file)
    : pid(spawn(arguments, output_file, output_file)) {}

Child::~Child() {
    end(SIGKILL);
}

int Child::end(int signal) {
    if (pid > 0) {
        ::kill(pid, signal);
        int status = 0;
        if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
            ADD_FAILURE() << "process does not end on signal " << signal;
            ::kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        exit_code = decode_status(status);
        pid = -1;
    }
    return exit_code;
}

bool Child::running() {
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
        exit_code = decode_status(status);
        pid = -1;
    }
    return pid > 0;
}

SimulatedBoard::SimulatedBoard(const Arguments& options) {
    Arguments arguments = {TAVOR_BOARD_PROGRAM, "run", "--dir", directory.path.string()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::string output = directory.path / "board.log";
    process = new Child(arguments, output);
    const bool ready = wait_until([&] {
        return file_content(output).find("ready " + directory.path.string()) != std::string::npos ||
               !process->running();
    });
    if (!ready || !process->running()) {
        throw std::runtime_error("the board does not start: " + file_content(output));
    }
}

SimulatedBoard::~SimulatedBoard() {
    process->end(SIGTERM);
    delete process;
}

std::string SimulatedBoard::ctl(const Arguments& command) const {
    Arguments arguments = {TAVOR_BOARD_PROGRAM, "ctl", "--dir", directory.path.string()};
    arguments.insert(arguments.end(), command.begin(), command.end());
    const RunResult result = run_program(arguments);
    EXPECT_EQ(result.status, 0) << command[0] << ": " << result.err;
    return result.out;
}

long long SimulatedBoard::status(const std::string& key) const {
    const auto status = nlohmann::json::parse(ctl({"status", "--json"}), nullptr, false);
    return status.is_object() && status.contains(key) && status[key].is_number()
               ? status[key].get<long long>()
               : -1;
}

void SimulatedBoard::configure(const std::string& key, const std::string& value) const {
    const std::string name = "etc/default/tavor/tavor.conf";
    directory.write(name, key + "=" + value + "\n" + directory.read(name));
}

std::string SimulatedBoard::socket_path() const {
    return directory.path.string() + TAVOR_SOCKET_PATH;
}

DaemonOnBoard::DaemonOnBoard(const SimulatedBoard& on, std::string daemon)
    : board(&on), program(std::move(daemon)) {
    restart();
}

void DaemonOnBoard::restart() {
    delete process;
    const std::string output = board->directory.path / "daemon.log";
    const size_t before = file_content(output).size();
    process = new Child({TAVOR_BOARD_PROGRAM, "exec", "--dir", board->directory.path.string(), "--", program},
                        output);
    const bool started = wait_until([&] {
        return file_content(output).find("location_service_task_main", before) != std::string::npos ||
               !process->running();
    });
    if (!started || !process->running()) {
        throw std::runtime_error("the daemon does not start: " + file_content(output));
    }
}

std::string DaemonOnBoard::log() const {
    return board->directory.read("daemon.log");
}

bool DaemonOnBoard::wait_log(const std::string& text) const {
    return wait_until([&] { return log().find(text) != std::string::npos; });
}

size_t DaemonOnBoard::threads() const {
    return entries("/proc/" + std::to_string(process->pid) + "/task");
}

size_t DaemonOnBoard::descriptors() const {
    return entries("/proc/" + std::to_string(process->pid) + "/fd");
}

long DaemonOnBoard::private_kib() const {
    std::ifstream rollup("/proc/" + std::to_string(process->pid) + "/smaps_rollup");
    long total = 0;
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Private_", 0) == 0 && line.find("Hugetlb") == std::string::npos) {
            total += strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
        }
    }
    return total;
}

void DaemonOnBoard::kill() {
    process->end(SIGKILL);
}

TestClient::TestClient(std::string daemon_socket) : daemon(std::move(daemon_socket)) {
    static int number = 0;
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "tavor-test-%d-%d", getpid(), ++number);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("can't bind a client address");
    }
}

TestClient::~TestClient() {
    close(fd);
}

bool TestClient::send_bytes(const void* data, size_t size) const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", daemon.c_str());
    return sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           static_cast<ssize_t>(size);
}

bool TestClient::send(tavor_request_type type, const std::string& text) const {
    tavor_request request = {};
    request.type = type;
    memcpy(request.text, text.data(), std::min(text.size(), sizeof request.text));
    return send_bytes(&request, sizeof request);
}

std::optional<tavor_response> TestClient::receive(std::chrono::milliseconds limit) const {
    const Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd readable = {fd, POLLIN, 0};
        if (left.count() < 0 || poll(&readable, 1, static_cast<int>(left.count()) + 1) <= 0) {
            return std::nullopt;
        }
        tavor_response response = {};
        const ssize_t size = recv(fd, &response, sizeof response, MSG_TRUNC);
        EXPECT_EQ(size, static_cast<ssize_t>(sizeof response));
        return response;
    }
}

std::optional<tavor_response> TestClient::receive_code(uint32_t code, std::chrono::milliseconds limit) const {
    const Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        const std::optional<tavor_response> response = receive(std::max(left, std::chrono::milliseconds(0)));
        if (!response || response->code == code) {
            return response;
        }
    }
}

int64_t TestClient::ask(tavor_request_type type, uint32_t code, const std::string& text,
                        std::chrono::milliseconds limit) const {
    if (!send(type, text)) {
        return -2;
    }
    const std::optional<tavor_response> response = receive_code(code, limit);
    return response ? static_cast<int32_t>(response->value) : -2;
}

std::string payload_text(const tavor_response& response) {
    const char* text = reinterpret_cast<const char*>(response.payload);
    return {text, strnlen(text, sizeof response.payload)};
}

void BoardTest::expect_nothing_left_behind(int cycles, const std::function<void(int cycle)>& between) const {
    start();
    stop();
    const size_t threads = daemon.threads();
    const size_t descriptors = daemon.descriptors();
    for (int cycle = 0; cycle < cycles && !HasFatalFailure(); ++cycle) {
        SCOPED_TRACE(cycle);
        start();
        between(cycle);
        stop();
    }
    EXPECT_TRUE(wait_until([&] { return daemon.threads() <= threads; })) << "joined, but not yet gone";
    EXPECT_EQ(daemon.descriptors(), descriptors);
    board.fault("all", "off");
    expect_chip_works();
}

#include "debug_fixture.h"

#include "base/log_output.h"
#include "debug/location_debug.h"
#include "interpose/paths.h"
#include "mux/location_serial_port.h"
#include "support/capture.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <thread>
#include <unistd.h>

namespace {

// As in the daemon: a log line is written at once, and no task ends in it.
[[maybe_unused]] const bool log_is_the_daemons = (log_output_init(), true);

struct ChipState {
    std::mutex lock;
    std::vector<std::string> writes;
    std::atomic<bool> silent;
} chip;

void chip_forget() {
    const std::lock_guard guard(chip.lock);
    chip.writes.clear();
}

void record(const uint8_t* data, uint32_t length) {
    const std::lock_guard guard(chip.lock);
    chip.writes.emplace_back(reinterpret_cast<const char*>(data), length);
}

} // namespace

int32_t location_serial_port_gnss_write(const uint8_t* data, uint32_t length) {
    record(data, length);
    while (chip.silent) {
        usleep(1000);
    }
    return static_cast<int32_t>(length);
}

std::vector<std::string> chip_writes() {
    const std::lock_guard guard(chip.lock);
    return chip.writes;
}

std::string chip_received() {
    std::string all;
    for (const std::string& bytes : chip_writes()) {
        all += bytes;
    }
    return all;
}

void chip_silent(bool silent) {
    chip.silent = silent;
}

void handle_text(const std::string& bytes) {
    location_debug_handle(reinterpret_cast<const uint8_t*>(bytes.data()),
                          static_cast<uint32_t>(bytes.size()));
}

DescriptorLimit::DescriptorLimit(unsigned more) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(STDOUT_FILENO);
    close(next);
    const rlimit limit{.rlim_cur = static_cast<rlim_t>(next) + more, .rlim_max = before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

DescriptorLimit::~DescriptorLimit() {
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

namespace {

// Threads are counted: a sanitizer starts one of its own with the first, and a joined one is seen for a
// moment more.
void run_a_thread() {
    std::string entry;
    std::thread([&] { entry = "/proc/self/task/" + std::to_string(gettid()); }).join();
    ASSERT_TRUE(wait_until([&] { return !std::filesystem::exists(entry); }));
}

} // namespace

int debug_queue() {
    return msgget(1235, 0);
}

size_t messages_in_queue() {
    msqid_ds status{};
    return msgctl(debug_queue(), IPC_STAT, &status) == 0 ? status.msg_qnum : 0;
}

void DebugTest::SetUp() {
    interpose_set_root(directory.path.string());
    configure();
    chip_forget();
    run_a_thread();
    threads_before = running_threads();
    fflush(stdout);
    saved_stdout = dup(STDOUT_FILENO);
    const int file = open((directory.path / "stdout").c_str(), O_RDWR | O_CREAT | O_APPEND, 0600);
    dup2(file, STDOUT_FILENO);
    close(file);
    location_debug_init();
}

void DebugTest::TearDown() {
    location_debug_stop();
    location_debug_close(); // the sockets of the test's clients, which are gone by now
    chip_silent(false);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; })); // joined, but not yet gone
    EXPECT_EQ(debug_queue(), -1) << "the queue was left behind";
    if (HasFailure()) {
        fprintf(stderr, "%s", log().c_str());
    }
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
}

void DebugTest::configure() const {
    directory.write("/etc/default/tavor/tavor.conf",
                    "debug socket ip=127.0.0.1\ndebug socket port=" + std::to_string(port) +
                        "\ndebug port path=" + line_path +
                        "\ndebug port baudrate=115200\ndebug port flow control=" +
                        std::to_string(flow_control) + "\nLOG path=" + log_path + "\n");
}

std::string DebugTest::log() const {
    fflush(stdout);
    std::string text;
    char buffer[4096];
    for (ssize_t got = 0; // without a descriptor of its own: a test may have run out of them
         (got = pread(STDOUT_FILENO, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0;) {
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

std::vector<std::string> DebugTest::log_lines() const {
    std::vector<std::string> lines = lines_of(log());
    std::erase_if(lines, [](const std::string& text) { return text.find("[CFG]") != std::string::npos; });
    return lines;
}

size_t DebugTest::log_count(const std::string& text) const {
    const std::vector<std::string> lines = log_lines();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& entry) {
        return entry.find(text) != std::string::npos;
    }));
}

std::unique_ptr<TcpClient> DebugTest::connect_listed(int listed, int receive_buffer) {
    const size_t before = log_count("socket AT new client");
    auto client = std::make_unique<TcpClient>(port, receive_buffer);
    EXPECT_TRUE(wait_until([&] { return log_count("socket AT new client") == before + 1; }));
    const std::string text = log();
    const std::string ending = "list num=[" + std::to_string(listed) + "]\n";
    EXPECT_EQ(text.rfind("list num=["), text.rfind(ending));
    return client;
}

// The outlet with system calls that fail.
#include "debug/location_debug.h"
#include "debug/location_debug_tasks.h"
#include "device/location_epoll.h"
#include "device/location_socket_server.h"

#include "debug_fixture.h"
#include "interpose/fail.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

// The outlet's threads look at it too.
struct FailureState {
    std::atomic<bool> cancel = false;
    std::atomic<bool> epoll_create = false;
    std::atomic<bool> epoll_ctl = false;
    std::atomic<bool> epoll_interrupt = false; // once
    std::atomic<bool> short_writes = false;
    std::atomic<bool> malloc = false;
    std::atomic<bool> cancelled_accept = false; // once: the thread is cancelled when it has its client
    std::atomic<int> pauses = 0;
} failure;

template <class Function> Function next_of(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return failure.malloc ? nullptr : __real_malloc(size);
}

extern "C" ssize_t __real_write(int fd, const void* data, size_t length);
extern "C" ssize_t __wrap_write(int fd, const void* data, size_t length) {
    return __real_write(fd, data, failure.short_writes ? std::min<size_t>(length, 2) : length);
}

extern "C" int __real_epoll_wait(int set, epoll_event* events, int most, int timeout_ms);
extern "C" int __wrap_epoll_wait(int set, epoll_event* events, int most, int timeout_ms) {
    if (failure.epoll_interrupt.exchange(false)) {
        errno = EINTR;
        return -1;
    }
    return __real_epoll_wait(set, events, most, timeout_ms);
}

extern "C" int __real_usleep(useconds_t us);
extern "C" int __wrap_usleep(useconds_t us) {
    ++failure.pauses;
    return __real_usleep(us);
}

extern "C" int __real_accept4(int fd, sockaddr* address, socklen_t* size, int flags);
extern "C" int __wrap_accept4(int fd, sockaddr* address, socklen_t* size, int flags) {
    const int client = __real_accept4(fd, address, size, flags);
    if (client >= 0 && failure.cancelled_accept.exchange(false)) {
        pthread_cancel(pthread_self());
        pthread_testcancel();
    }
    return client;
}

extern "C" int pthread_cancel(pthread_t thread) {
    return failure.cancel ? ESRCH : next_of<decltype(&pthread_cancel)>("pthread_cancel")(thread);
}

extern "C" int epoll_create(int size) noexcept {
    if (failure.epoll_create) {
        errno = EMFILE;
        return -1;
    }
    return next_of<decltype(&epoll_create)>("epoll_create")(size);
}

extern "C" int epoll_ctl(int set, int operation, int fd, epoll_event* event) noexcept {
    if (failure.epoll_ctl) {
        errno = ENOSPC;
        return -1;
    }
    return next_of<decltype(&epoll_ctl)>("epoll_ctl")(set, operation, fd, event);
}

namespace {

const std::string kAlreadyOpen = "[LOCSERV] INF: [debug]location_debug_start, already open";
const std::string kCloseFail = "[LOCSERV] ERR: [IO]location_debug_close, fail";

// The descriptor on which this process has the file open, -1 when there is none.
int descriptor_of(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the one that lists the directory
        if (std::filesystem::read_symlink(entry.path(), gone) == path) {
            return std::stoi(entry.path().filename().string());
        }
    }
    return -1;
}

// A receive task of an outlet of the test's, ended with its owner.
struct ReceiveTask {
    explicit ReceiveTask(DebugOutlet* outlet) {
        EXPECT_EQ(pthread_create(&thread, nullptr, location_debug_rx_task, outlet), 0);
    }
    ~ReceiveTask() {
        pthread_cancel(thread);
        pthread_join(thread, nullptr);
    }
    ReceiveTask(const ReceiveTask&) = delete;
    ReceiveTask& operator=(const ReceiveTask&) = delete;

    pthread_t thread{};
};

struct DebugFailureTest : DebugTest {
    void TearDown() override {
        failure.cancel = failure.epoll_create = failure.epoll_ctl = failure.epoll_interrupt = false;
        failure.short_writes = failure.malloc = failure.cancelled_accept = false;
        interpose_fail_reset();
        DebugTest::TearDown();
    }
};

} // namespace

TEST_F(DebugFailureTest, FailedStepFailsTheStartAndALaterOneReusesWhatIsThere) {
    const struct {
        const char* function;
        int nth;
        uint32_t mode;
        std::string line;
        std::string reused;
    } rows[] = {
        {"epoll_create", 1, DEBUG_MODE_TCP, "ERR: [debug]location_debug_start epoll_create fail", ""},
        {"msgget", 2, DEBUG_MODE_SERIAL, "ERR: [debug]location_debug_start, msgid fail", ""},
        {"pthread_create", 1, DEBUG_MODE_TCP, "ERR: [debug]location_debug_start, tx thread create fail",
         "INF: [debug]location_debug_start, msgid exist"},
        {"pthread_create", 2, DEBUG_MODE_TCP, "ERR: [debug]location_debug_start, rx thread create fail",
         "INF: [debug]location_debug_start, tx tid exist"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        failure.epoll_create = row.function == std::string("epoll_create");
        if (!failure.epoll_create) {
            interpose_fail(row.function, row.nth, EAGAIN);
        }
        EXPECT_EQ(location_debug_set_mode(row.mode), -1);
        interpose_fail_reset();
        failure.epoll_create = false;
        EXPECT_EQ(log_count("[LOCSERV] " + row.line), 1U);
        EXPECT_TRUE(!row.reused.empty() || wait_until([&] { return running_threads() == threads_before; }));
        EXPECT_EQ(location_debug_start(), 0);
        EXPECT_GT(log_count("[LOCSERV] " + row.reused), 0U);
        const auto client = row.mode == DEBUG_MODE_TCP ? connect_listed(1) : nullptr;
        handle_text("$GPGGA");
        EXPECT_EQ(read_bytes(client ? client->fd : line.master, 6), "$GPGGA");
        EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
    }
}

TEST_F(DebugFailureTest, ServerThatDoesNotListenMakesNoBusyLoop) {
    interpose_fail("listen", 1, EADDRINUSE);
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    const std::string report = "[LOCSERV] ERR: [debug]unexpected fd=";
    ASSERT_TRUE(wait_until([&] { return log_count(report) > 0; }));
    const size_t before = log_count(report);
    std::this_thread::sleep_for(std::chrono::seconds(1)); // the span that is measured
    EXPECT_LE(log_count(report) - before, 10U);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
}

TEST_F(DebugFailureTest, EpollSetThatFailsToCloseIsReportedBehindAServerThatFailed) {
    const int holder = hold_port(port);
    interpose_fail("close", 2, EIO); // the first one closes the socket that could not be bound
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), -1);
    EXPECT_EQ(log_lines().back(), "[LOCSERV] ERR: [debug]location_debug_start close epfd fail");
    EXPECT_EQ(log_count("location_socket_server_create_tcp, bind fail"), 1U);
    close(holder);
}

TEST_F(DebugFailureTest, BlockWithoutMemoryIsReportedAndDropped) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    const auto client = connect_listed(1);
    failure.malloc = true;
    location_debug_handle(reinterpret_cast<const uint8_t*>("lost"), 4);
    failure.malloc = false;
    handle_text("kept");
    EXPECT_EQ(read_bytes(client->fd, 4), "kept");
    EXPECT_EQ(log_count("[LOCSERV] ERR: [debug] location_debug_handle, malloc fail"), 1U);
}

TEST_F(DebugFailureTest, LogFileThatFailsToCloseStaysOpenUntilACloseSucceeds) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    const size_t descriptors = open_descriptors();
    interpose_fail("close", 1, EIO);
    location_debug_close();
    EXPECT_EQ(open_descriptors(), descriptors);
    handle_text("still open,");
    EXPECT_EQ(location_debug_start(), 0);
    EXPECT_EQ(log_lines(), std::vector<std::string>{kAlreadyOpen});
    handle_text("started,");
    location_debug_close();
    EXPECT_EQ(open_descriptors(), descriptors - 1);
    handle_text("dropped,");
    EXPECT_EQ(location_debug_start(), 0);
    EXPECT_EQ(log_count(kAlreadyOpen), 1U);
    handle_text("opened");
    EXPECT_EQ(directory.read("log.dat"), "still open,started,opened");
}

TEST_F(DebugFailureTest, LogFileThatFailedToCloseWritesToNoOtherFileOfItsNumber) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    const int number = descriptor_of(log_path);
    ASSERT_GE(number, 0);
    interpose_fail("close", 1, EIO);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
    const std::string other = (directory.path / "other").string();
    const int lowest = open(other.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(dup2(lowest, number), number);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    handle_text("$GPGGA");
    EXPECT_EQ(directory.read("log.dat"), "$GPGGA");
    EXPECT_EQ(directory.read("other"), "");
    location_debug_close();
    EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(number)), other);
    close(number);
    if (lowest != number) {
        close(lowest);
    }
}

TEST_F(DebugFailureTest, LogFileIsClosedWithoutASpareDescriptor) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    const size_t descriptors = open_descriptors();
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    interpose_fail("close", 1, EIO);
    location_debug_close();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(open_descriptors(), descriptors - 1);
    EXPECT_EQ(location_debug_start(), 0);
    handle_text("$GPGGA");
    EXPECT_EQ(directory.read("log.dat"), "$GPGGA");
}

TEST_F(DebugFailureTest, LogFileWritesThatAreInterruptedOrTakeAPartOnlyGoOn) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    interpose_fail("write", 1, EINTR);
    handle_text("$GPGGA");
    failure.short_writes = true;
    handle_text("$GPGSV");
    failure.short_writes = false;
    EXPECT_EQ(directory.read("log.dat"), "$GPGGA$GPGSV");
    EXPECT_EQ(log_lines(), std::vector<std::string>{});
}

TEST_F(DebugFailureTest, ThreadsThatCantBeCancelledAreReportedAndLeft) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    failure.cancel = true;
    location_debug_close();
    EXPECT_EQ(log_count(kCloseFail), 2U);
    failure.cancel = false;
    location_debug_close();
    EXPECT_EQ(log_count(kCloseFail), 2U);
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; }));
}

TEST_F(DebugFailureTest, ReceiveTaskEndsWhenItsEpollSetFails) {
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP, .listen_fd = -1, .epoll_fd = -1};
    location_debug_rx_task(&outlet);
    EXPECT_EQ(log_lines(),
              (std::vector<std::string>{
                  "[LOCSERV] INF: [debug]location_debug_rx_task",
                  "[LOCSERV] ERR: [debug]location_debug_rx_task, epoll_wait failed reason=[Bad file "
                  "descriptor]9"}));
}

TEST_F(DebugFailureTest, InterruptedWaitForClientsIsTakenUpAgain) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    const auto client = connect_listed(1);
    client->send("abc");
    ASSERT_TRUE(wait_until([] { return chip_received() == "abc"; }));
    failure.epoll_interrupt = true; // the wait before or after the next input
    client->send("def");
    EXPECT_TRUE(wait_until([] { return chip_received() == "abcdef"; })) << chip_received();
    EXPECT_TRUE(wait_until([] { return !failure.epoll_interrupt; }));
    client->send("ghi");
    EXPECT_TRUE(wait_until([] { return chip_received() == "abcdefghi"; })) << chip_received();
    EXPECT_EQ(log_count("epoll_wait failed"), 0U);
}

TEST_F(DebugFailureTest, ClientThatIsAcceptedWhileTheTaskIsCancelledIsNotLost) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    failure.cancelled_accept = true;
    connect_listed(1)->close();
    const size_t before = open_descriptors();
    location_debug_close(); // server, epoll set and the client's socket
    EXPECT_EQ(open_descriptors(), before - 3);
}

TEST_F(DebugFailureTest, ClientThatCantBeWatchedIsClosedAndNotListed) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    failure.epoll_ctl = true;
    const TcpClient unwatched(port);
    EXPECT_TRUE(unwatched.ends());
    failure.epoll_ctl = false;
    EXPECT_EQ(log_count("socket AT new client"), 0U);
    connect_listed(1);
}

TEST_F(DebugFailureTest, EventOfAnUnknownDescriptorIsReported) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP, .listen_fd = -1, .epoll_fd = epoll_create(10)};
    ASSERT_EQ(location_epoll_add_fd(outlet.epoll_fd, ends[0], EPOLLIN), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    std::optional<ReceiveTask> task(&outlet);
    const std::string report = "[LOCSERV] ERR: [debug]unexpected fd=" + std::to_string(ends[0]) + " coming";
    EXPECT_TRUE(wait_until([&] { return log_count(report) > 0; }));
    task.reset();
    for (const int fd : {ends[0], ends[1], outlet.epoll_fd.load()}) {
        close(fd);
    }
}

TEST_F(DebugFailureTest, ReceiveTaskThatOutlivesItsModeForwardsNothingMore) {
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP,
                       .listen_fd = location_socket_server_create_tcp("127.0.0.1", port),
                       .epoll_fd = epoll_create(10)};
    ASSERT_EQ(location_epoll_add_fd(outlet.epoll_fd, outlet.listen_fd, EPOLLIN), 0);
    std::optional<ReceiveTask> task(&outlet);
    const auto client = connect_listed(1);
    outlet.mode = DEBUG_MODE_OFF;
    client->send("abc");
    EXPECT_TRUE(wait_until([] { return !chip_writes().empty(); }));
    const int before = failure.pauses;
    EXPECT_TRUE(wait_until([=] { return failure.pauses >= before + 2; }));
    EXPECT_EQ(chip_writes(), std::vector<std::string>{"abc"});
    task.reset();
    close(outlet.listen_fd);
    close(outlet.epoll_fd);
}

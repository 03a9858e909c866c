// The outlet with system calls that fail.
#include "debug/location_debug.h"
#include "debug/location_debug_tasks.h"
#include "debug/location_epoll.h"
#include "debug/location_socket_server.h"

#include "debug_fixture.h"
#include "interpose/fail.h"

#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <thread>
#include <unistd.h>

namespace {

struct FailureState {
    bool cancel = false;
    bool epoll_create = false;
} failure;

template <class Function> Function next_of(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

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

namespace {

const std::string kCloseFail = "[LOCSERV] ERR: [IO]location_debug_close, fail";

struct DebugFailureTest : DebugTest {
    void TearDown() override {
        failure = {};
        interpose_fail_reset();
        DebugTest::TearDown();
    }
};

} // namespace

TEST_F(DebugFailureTest, NoEpollSetFailsTheStart) {
    failure.epoll_create = true;
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), -1);
    EXPECT_EQ(log_lines(),
              std::vector<std::string>{"[LOCSERV] ERR: [debug]location_debug_start epoll_create fail"});
    failure.epoll_create = false;
    EXPECT_EQ(location_debug_start(), 0);
}

TEST_F(DebugFailureTest, NoQueueFailsTheStart) {
    interpose_fail("msgget", 2, ENOSPC); // the first one looks for a queue that is there
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), -1);
    EXPECT_EQ(log_lines(),
              std::vector<std::string>{"[LOCSERV] ERR: [debug]location_debug_start, msgid fail"});
    EXPECT_EQ(running_threads(), threads_before);
    EXPECT_EQ(location_debug_start(), 0);
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(line.master, 6), "$GPGGA");
}

TEST_F(DebugFailureTest, QueueFoundAtStartIsEmptiedBeforeATaskReadsIt) {
    const int queue = msgget(1235, IPC_CREAT | IPC_EXCL | 0666);
    const struct {
        long type;
        char body[16];
    } left_over{.type = 1, .body = {}};
    ASSERT_EQ(msgsnd(queue, &left_over, sizeof left_over.body, 0), 0);
    interpose_fail("pthread_create", 1, EAGAIN);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), -1);
    EXPECT_EQ(messages_in_queue(), 0U);
}

TEST_F(DebugFailureTest, FailedAcceptIsReportedAndTriedAgain) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    interpose_fail("accept", 1, ECONNABORTED);
    connect_listed(1);
    EXPECT_EQ(log_count("location_socket_server_accept_new_tcp_connect, accept fail, serverfd="), 1U);
    EXPECT_EQ(log_count("[LOCSERV] ERR: [debug]location_debug_rx_task, accept fail"), 1U);
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

TEST_F(DebugFailureTest, LogFileThatFailsToCloseIsForgotten) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    interpose_fail("fclose", 1, EIO);
    location_debug_close();
    handle_text("dropped");
    EXPECT_EQ(location_debug_start(), 0);
    handle_text("kept");
    EXPECT_EQ(directory.read("log.dat"), "kept");
}

TEST_F(DebugFailureTest, NoTransmitThreadFailsTheStartAndALaterOneReusesWhatIsThere) {
    interpose_fail("pthread_create", 1, EAGAIN);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), -1);
    EXPECT_EQ(log_lines().back(), "[LOCSERV] ERR: [debug]location_debug_start, tx thread create fail");
    EXPECT_EQ(location_debug_start(), 0);
    EXPECT_EQ(log_count("[LOCSERV] INF: [debug]location_debug_start, msgid exist"), 1U);
    const auto client = connect_listed(1);
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(client->fd, 6), "$GPGGA");
}

TEST_F(DebugFailureTest, NoReceiveThreadFailsTheStartAndALaterOneReusesWhatIsThere) {
    interpose_fail("pthread_create", 2, EAGAIN);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), -1);
    EXPECT_EQ(log_count("[LOCSERV] ERR: [debug]location_debug_start, rx thread create fail"), 1U);
    EXPECT_EQ(location_debug_start(), 0);
    EXPECT_EQ(log_count("[LOCSERV] INF: [debug]location_debug_start, tx tid exist"), 1U);
    connect_listed(1);
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
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP, .listen_fd = -1, .epoll_fd = -1, .taken = 0};
    location_debug_rx_task(&outlet);
    EXPECT_EQ(log_lines(),
              (std::vector<std::string>{
                  "[LOCSERV] INF: [debug]location_debug_rx_task",
                  "[LOCSERV] ERR: [debug]location_debug_rx_task, epoll_wait failed reason=[Bad file "
                  "descriptor]9"}));
}

TEST_F(DebugFailureTest, EventOfAnUnknownDescriptorIsReported) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP, .listen_fd = -1, .epoll_fd = epoll_create(10), .taken = 0};
    ASSERT_EQ(location_epoll_add_fd(outlet.epoll_fd, ends[0], EPOLLIN), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    pthread_t task{};
    ASSERT_EQ(pthread_create(&task, nullptr, location_debug_rx_task, &outlet), 0);
    const std::string report = "[LOCSERV] ERR: [debug]unexpected fd=" + std::to_string(ends[0]) + " coming";
    EXPECT_TRUE(wait_until([&] { return log_count(report) > 0; }));
    pthread_cancel(task);
    pthread_join(task, nullptr);
    for (const int fd : {ends[0], ends[1], outlet.epoll_fd.load()}) {
        close(fd);
    }
}

TEST_F(DebugFailureTest, ReceiveTaskThatOutlivesItsModeForwardsTheLastInputAgain) {
    DebugOutlet outlet{.mode = DEBUG_MODE_TCP,
                       .listen_fd = location_socket_server_create_tcp("127.0.0.1", port),
                       .epoll_fd = epoll_create(10),
                       .taken = 0};
    ASSERT_EQ(location_epoll_add_fd(outlet.epoll_fd, outlet.listen_fd, EPOLLIN), 0);
    pthread_t task{};
    ASSERT_EQ(pthread_create(&task, nullptr, location_debug_rx_task, &outlet), 0);
    const auto client = connect_listed(1);
    outlet.mode = DEBUG_MODE_OFF;
    client->send("abc");
    EXPECT_TRUE(wait_until([] { return chip_writes().size() >= 3; }));
    EXPECT_EQ(chip_writes()[0], "abc");
    EXPECT_EQ(chip_writes()[2], "abc");
    pthread_cancel(task);
    pthread_join(task, nullptr);
    close(outlet.listen_fd);
    close(outlet.epoll_fd);
}

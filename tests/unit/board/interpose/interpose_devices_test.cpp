// Device nodes of this process: a test's own functions stand behind them.
#include "interpose/backend.h"
#include "interpose/local.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kSpi[] = "/dev/spidev1.0";
constexpr unsigned long kRequest = 0x40046B04;

struct InterposeDevices : testing::Test {
    void SetUp() override {
        local_devices({
            .open =
                [this](const std::string& path, int flags) {
                    calls.push_back("open " + path + " " + std::to_string(flags));
                    return result_of_open;
                },
            .close = [this](const std::string& path) { calls.push_back("close " + path); },
            .read =
                [this](const std::string& path, void* buffer, size_t length) {
                    calls.push_back("read " + path);
                    memset(buffer, 'r', length);
                    return static_cast<ssize_t>(length);
                },
            .write =
                [this](const std::string& path, const void* data, size_t length) {
                    calls.push_back("write " + path + " " +
                                    std::string(static_cast<const char*>(data), length));
                    return static_cast<ssize_t>(length);
                },
            .ioctl =
                [this](const std::string& path, unsigned long request, void* argument) {
                    calls.push_back("ioctl " + path + " " + std::to_string(request));
                    *static_cast<int*>(argument) = 7;
                    return 3;
                },
            .access =
                [](const std::string& path) {
                    errno = EACCES;
                    return path == "/sys/class/gpio/gpio17" ? 0 : -1;
                },
        });
    }

    void TearDown() override {
        local_devices({});
    }

    std::vector<std::string> calls;
    int result_of_open = 0;
};

TEST_F(InterposeDevices, EachCallReachesTheNodesFunction) {
    const int fd = open(kSpi, O_RDWR);
    ASSERT_GE(fd, 0);
    const int value = open("/sys/class/gpio/gpio17/value", O_WRONLY);
    char buffer[4] = "";
    int number = 0;
    EXPECT_EQ(write(value, "1", 1), 1);
    EXPECT_EQ(close(value), 0);
    EXPECT_EQ(read(fd, buffer, 3), 3);
    EXPECT_STREQ(buffer, "rrr");
    EXPECT_EQ(write(fd, "abc", 3), 3);
    EXPECT_EQ(ioctl(fd, kRequest, &number), 3);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(close(fd), 0);

    const std::vector<std::string> expected = {"open /dev/spidev1.0 2",
                                               "open /sys/class/gpio/gpio17/value 1",
                                               "write /sys/class/gpio/gpio17/value 1",
                                               "close /sys/class/gpio/gpio17/value",
                                               "read /dev/spidev1.0",
                                               "write /dev/spidev1.0 abc",
                                               "ioctl /dev/spidev1.0 " + std::to_string(kRequest),
                                               "close /dev/spidev1.0"};
    EXPECT_EQ(calls, expected);
}

TEST_F(InterposeDevices, AClosedDescriptorIsNoLongerTheNodes) {
    const int fd = open(kSpi, O_RDWR);
    EXPECT_TRUE(backend_owns(fd));
    close(fd);
    EXPECT_FALSE(backend_owns(fd));
    EXPECT_EQ(write(fd, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EBADF);

    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], "x", 1), 1) << "the number is another's now";
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(calls.back(), "close /dev/spidev1.0");
}

TEST_F(InterposeDevices, AFailedOpenKeepsItsErrorAndNoDescriptor) {
    const int before = dup(STDERR_FILENO);
    close(before);
    result_of_open = -1;
    errno = ENODEV;
    EXPECT_EQ(open(kSpi, O_RDWR), -1);
    EXPECT_EQ(errno, ENODEV);
    const int after = dup(STDERR_FILENO);
    close(after);
    EXPECT_EQ(after, before);
}

TEST_F(InterposeDevices, AccessAsksTheNode) {
    EXPECT_EQ(access("/sys/class/gpio/gpio17", F_OK), 0);
    EXPECT_EQ(access("/sys/class/gpio/gpio18", F_OK), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(InterposeDevices, WithoutFunctionsThereAreNoNodes) {
    const int fd = open(kSpi, O_RDWR);
    local_devices({});
    char byte = 0;
    EXPECT_EQ(open(kSpi, O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(access(kSpi, F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(write(fd, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(ioctl(fd, kRequest, &byte), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(close(fd), 0);
}

TEST_F(InterposeDevices, TheHostsOwnNodesAreNotReached) {
    const int fd = open("/dev/null", O_RDWR);
    EXPECT_FALSE(backend_owns(fd));
    EXPECT_EQ(write(fd, "x", 1), 1);
    int pending = 0;
    EXPECT_EQ(ioctl(fd, 0x541B, &pending), -1) << "FIONREAD";
    EXPECT_EQ(errno, ENOTTY);
    close(fd);
    EXPECT_TRUE(calls.empty());
}

// What a cancelled thread does on a node.
struct CancelledCall {
    std::atomic<bool> inside = false;
    std::atomic<bool> let_go = false;
    std::atomic<bool> returned = false;
    int fd = -1;
};

void wait_for(const std::atomic<bool>& flag) {
    while (!flag) {
        std::this_thread::yield();
    }
}

// Holds the caller inside the node until it is released, with a cancellation point on the way.
ssize_t stay_inside(CancelledCall& call) {
    call.inside = true;
    wait_for(call.let_go);
    pthread_testcancel();
    return 0;
}

void* do_ioctl(void* argument) {
    auto& call = *static_cast<CancelledCall*>(argument);
    int number = 0;
    call.returned = ioctl(call.fd, kRequest, &number) == 0;
    pthread_testcancel();
    return nullptr;
}

void* do_read(void* argument) {
    auto& call = *static_cast<CancelledCall*>(argument);
    char byte = 0;
    call.returned = read(call.fd, &byte, 1) == 0;
    pthread_testcancel();
    return nullptr;
}

// Comes to the read when it has been cancelled.
void* do_late_read(void* argument) {
    auto& call = *static_cast<CancelledCall*>(argument);
    call.inside = true;
    while (!call.let_go) {
    }
    return do_read(argument);
}

struct InterposeCancellation : testing::Test {
    void SetUp() override {
        local_devices({
            .open = [](const std::string&, int) { return 0; },
            .close = {},
            .read = [this](const std::string&, void*, size_t) { return stay_inside(call); },
            .write = {},
            .ioctl = [this](const std::string&, unsigned long,
                            void*) { return static_cast<int>(stay_inside(call)); },
            .access = {},
        });
        call.fd = open(kSpi, O_RDWR);
    }

    void TearDown() override {
        close(call.fd);
        local_devices({});
    }

    // Cancels a thread that is inside the body and returns whether it ended by that.
    bool cancel_inside(void* (*body)(void*)) {
        pthread_t thread = {};
        EXPECT_EQ(pthread_create(&thread, nullptr, body, &call), 0);
        wait_for(call.inside);
        pthread_cancel(thread);
        call.let_go = true;
        void* result = nullptr;
        pthread_join(thread, &result);
        return result == PTHREAD_CANCELED;
    }

    CancelledCall call;
};

TEST_F(InterposeCancellation, ACallOnANodeRunsToItsEndOnceBegun) {
    for (const auto body : {do_ioctl, do_read}) {
        call.inside = call.let_go = call.returned = false;
        EXPECT_TRUE(cancel_inside(body));
        EXPECT_TRUE(call.returned);
    }
}

TEST_F(InterposeCancellation, AReadOnANodeIsACancellationPointAtItsEntry) {
    EXPECT_TRUE(cancel_inside(do_late_read));
    EXPECT_FALSE(call.returned);
}

} // namespace

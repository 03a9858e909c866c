// Calls that are made to fail.
#include "interpose/fail.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <pthread.h>
#include <semaphore.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct InterposeFail : testing::Test {
    void TearDown() override {
        interpose_fail_reset();
    }
};

TEST_F(InterposeFail, OnlyTheNthCallOfAFunctionFails) {
    interpose_fail("access", 3, EROFS);
    interpose_fail("socket", 2, EMFILE);
    EXPECT_EQ(access("/", F_OK), 0);
    close(socket(AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(socket(AF_UNIX, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(InterposeFail, ANewOrderOrAResetTakesTheOldOneBack) {
    interpose_fail("access", 1, EROFS);
    interpose_fail("access", 2, EIO);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EIO);
    interpose_fail("access", 1, EROFS);
    interpose_fail_reset();
    EXPECT_EQ(access("/", F_OK), 0);
}

TEST_F(InterposeFail, AnUnknownNameEndsTheProgram) {
    EXPECT_DEATH(interpose_fail("opne", 1, EIO), "interpose_fail: no function opne");
    EXPECT_DEATH(interpose_fail("open", 0, EIO), "or no call 0");
}

void* do_nothing(void*) {
    return nullptr;
}

// Each as a program calls it; true when it failed, as it would not have without an order.
struct FailingCall {
    const char* function;
    std::function<bool()> fails;
};

// What the calls need places for.
struct Places {
    struct stat status = {};
    char name[PATH_MAX];
    timer_t timer = nullptr;
    sem_t semaphore;
    pthread_mutex_t mutex;
    pthread_t thread = {};
    const long message[2] = {1, 0};
};

std::vector<FailingCall> descriptor_calls(int fd) {
    return {
        {"read", [fd] { return read(fd, nullptr, 0) == -1; }},
        {"write", [fd] { return write(fd, "", 0) == -1; }},
        {"close", [] { return close(dup(STDERR_FILENO)) == -1; }},
        {"ioctl", [fd] { return ioctl(fd, 0, nullptr) == -1; }},
        {"bind", [fd] { return bind(fd, nullptr, 0) == -1; }},
        {"connect", [fd] { return connect(fd, nullptr, 0) == -1; }},
        {"sendto", [fd] { return sendto(fd, "", 0, 0, nullptr, 0) == -1; }},
        {"listen", [fd] { return listen(fd, 1) == -1; }},
        {"accept", [fd] { return accept(fd, nullptr, nullptr) == -1; }},
        {"accept", [fd] { return accept4(fd, nullptr, nullptr, 0) == -1; }},
        {"setsockopt", [fd] { return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &fd, sizeof fd) == -1; }},
        {"socket", [] { return socket(AF_UNIX, SOCK_DGRAM, 0) == -1; }},
        {"fwrite", [] { return fwrite("", 1, 1, stdout) == 0; }},
        {"fclose", [] { return fclose(fopen("/dev/null", "r")) == EOF; }},
    };
}

std::vector<FailingCall> path_calls(const char* path, Places* places) {
    return {
        {"open", [path] { return open(path, O_RDONLY) == -1; }},
        {"openat", [path] { return openat(AT_FDCWD, path, O_RDONLY) == -1; }},
        {"fopen", [path] { return fopen(path, "r") == nullptr; }},
        {"access", [path] { return access(path, F_OK) == -1; }},
        {"stat", [path, places] { return stat(path, &places->status) == -1; }},
        {"lstat", [path, places] { return lstat(path, &places->status) == -1; }},
        {"unlink", [path] { return unlink(path) == -1; }},
        {"remove", [path] { return remove(path) == -1; }},
        {"rmdir", [path] { return rmdir(path) == -1; }},
        {"mkdir", [path] { return mkdir(path, 0700) == -1; }},
        {"chmod", [path] { return chmod(path, 0600) == -1; }},
        {"rename", [path] { return rename(path, path) == -1; }},
        {"realpath", [path, places] { return realpath(path, places->name) == nullptr; }},
    };
}

// Those of pthread return the error.
std::vector<FailingCall> system_calls(Places* places) {
    return {
        {"msgget", [] { return msgget(IPC_PRIVATE, 0600) == -1; }},
        {"msgsnd", [places] { return msgsnd(-1, places->message, 0, IPC_NOWAIT) == -1; }},
        {"timer_create", [places] { return timer_create(CLOCK_MONOTONIC, nullptr, &places->timer) == -1; }},
        {"sem_init", [places] { return sem_init(&places->semaphore, 0, 1) == -1; }},
        {"pthread_mutex_init",
         [places] { return (errno = pthread_mutex_init(&places->mutex, nullptr)) != 0; }},
        {"pthread_create",
         [places] { return (errno = pthread_create(&places->thread, nullptr, do_nothing, nullptr)) != 0; }},
    };
}

void expect_each_fails(const std::vector<FailingCall>& calls) {
    for (const FailingCall& call : calls) {
        interpose_fail(call.function, 1, ENOSPC);
        errno = 0;
        EXPECT_TRUE(call.fails()) << call.function;
        EXPECT_EQ(errno, ENOSPC) << call.function;
        EXPECT_EQ(interpose_fail_now(call.function), 0) << call.function << ": the order is used up";
    }
}

TEST_F(InterposeFail, EveryNamedFunctionFailsOnOrder) {
    const PrivateDir directory;
    const std::string file = directory.write("file", "x");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    Places places;
    expect_each_fails(descriptor_calls(fd));
    expect_each_fails(path_calls(file.c_str(), &places));
    expect_each_fails(system_calls(&places));
    EXPECT_EQ(directory.read("file"), "x") << "what fails does nothing";
    EXPECT_EQ(close(fd), 0);
}

TEST_F(InterposeFail, AFailedCloseHasGivenTheDescriptorBackUnlessThereWasNone) {
    const int fd = dup(STDERR_FILENO);
    interpose_fail("close", 1, EBADF);
    EXPECT_EQ(close(fd), -1);
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
    interpose_fail("close", 1, EIO);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(fclose(fopen("/dev/null", "r")), EOF);
    EXPECT_EQ(errno, EIO);
    const int after = dup(STDERR_FILENO);
    EXPECT_EQ(after, fd) << "the stream is closed";
    close(after);
}

TEST_F(InterposeFail, OneOfManyThreadsMeetsTheFailure) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 50;
    interpose_fail("access", kThreads * kCalls, EROFS);
    std::atomic<int> failed = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int call = 0; call < kCalls; ++call) {
                failed += access("/", F_OK) != 0 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failed, 1);
}

} // namespace

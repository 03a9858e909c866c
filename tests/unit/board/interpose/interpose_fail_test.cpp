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

TEST_F(InterposeFail, OnlyTheNthCallFails) {
    interpose_fail("access", 3, EROFS);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(access("/", F_OK), 0);
}

TEST_F(InterposeFail, OrdersOfSeveralFunctionsCountApart) {
    interpose_fail("access", 1, EROFS);
    interpose_fail("socket", 2, EMFILE);
    close(socket(AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(socket(AF_UNIX, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(InterposeFail, AResetTakesEveryOrderBack) {
    interpose_fail("access", 1, EROFS);
    interpose_fail_reset();
    EXPECT_EQ(access("/", F_OK), 0);
    interpose_fail("access", 1, EROFS);
    EXPECT_EQ(access("/", F_OK), -1);
}

TEST_F(InterposeFail, ANewOrderTakesThePlaceOfTheOld) {
    interpose_fail("access", 1, EROFS);
    interpose_fail("access", 2, EIO);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(InterposeFail, AnUnknownNameEndsTheProgram) {
    EXPECT_DEATH(interpose_fail("opne", 1, EIO), "interpose_fail: no function opne");
    EXPECT_DEATH(interpose_fail("open", 0, EIO), "or no call 0");
}

void* do_nothing(void*) {
    return nullptr;
}

// Each as a program calls it; true when it failed with ENOSPC and would not have without an order.
struct FailingCall {
    const char* function;
    std::function<bool()> fails;
};

bool told(bool failed) {
    return failed && errno == ENOSPC;
}

std::vector<FailingCall> descriptor_calls(int fd) {
    return {
        {"read", [fd] { return told(read(fd, nullptr, 0) == -1); }},
        {"write", [fd] { return told(write(fd, "", 0) == -1); }},
        {"close", [] { return told(close(dup(STDERR_FILENO)) == -1); }},
        {"ioctl", [fd] { return told(ioctl(fd, 0, nullptr) == -1); }},
        {"bind", [fd] { return told(bind(fd, nullptr, 0) == -1); }},
        {"connect", [fd] { return told(connect(fd, nullptr, 0) == -1); }},
        {"sendto", [fd] { return told(sendto(fd, "", 0, 0, nullptr, 0) == -1); }},
        {"listen", [fd] { return told(listen(fd, 1) == -1); }},
        {"accept", [fd] { return told(accept(fd, nullptr, nullptr) == -1); }},
        {"accept", [fd] { return told(accept4(fd, nullptr, nullptr, 0) == -1); }},
        {"setsockopt", [fd] { return told(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &fd, sizeof fd) == -1); }},
        {"socket", [] { return told(socket(AF_UNIX, SOCK_DGRAM, 0) == -1); }},
        {"fwrite", [] { return told(fwrite("", 1, 1, stdout) == 0); }},
        {"fclose", [] { return told(fclose(fopen("/dev/null", "r")) == EOF); }},
    };
}

std::vector<FailingCall> path_calls(const std::string& file) {
    const char* path = file.c_str();
    return {
        {"open", [path] { return told(open(path, O_RDONLY) == -1); }},
        {"openat", [path] { return told(openat(AT_FDCWD, path, O_RDONLY) == -1); }},
        {"fopen", [path] { return told(fopen(path, "r") == nullptr); }},
        {"access", [path] { return told(access(path, F_OK) == -1); }},
        {"stat",
         [path] {
             struct stat status = {};
             return told(stat(path, &status) == -1);
         }},
        {"lstat",
         [path] {
             struct stat status = {};
             return told(lstat(path, &status) == -1);
         }},
        {"unlink", [path] { return told(unlink(path) == -1); }},
        {"remove", [path] { return told(remove(path) == -1); }},
        {"rmdir", [path] { return told(rmdir(path) == -1); }},
        {"mkdir", [path] { return told(mkdir(path, 0700) == -1); }},
        {"chmod", [path] { return told(chmod(path, 0600) == -1); }},
        {"rename", [path] { return told(rename(path, path) == -1); }},
        {"realpath",
         [path] {
             char name[PATH_MAX];
             return told(realpath(path, name) == nullptr);
         }},
    };
}

std::vector<FailingCall> system_calls() {
    return {
        {"msgget", [] { return told(msgget(IPC_PRIVATE, 0600) == -1); }},
        {"msgsnd",
         [] {
             const long type[2] = {1, 0};
             return told(msgsnd(-1, type, 0, IPC_NOWAIT) == -1);
         }},
        {"timer_create",
         [] {
             timer_t timer = nullptr;
             return told(timer_create(CLOCK_MONOTONIC, nullptr, &timer) == -1);
         }},
        {"sem_init",
         [] {
             sem_t semaphore;
             return told(sem_init(&semaphore, 0, 1) == -1);
         }},
        {"pthread_mutex_init",
         [] {
             pthread_mutex_t mutex;
             return pthread_mutex_init(&mutex, nullptr) == ENOSPC;
         }},
        {"pthread_create",
         [] {
             pthread_t thread = {};
             return pthread_create(&thread, nullptr, do_nothing, nullptr) == ENOSPC;
         }},
    };
}

void expect_each_fails(const std::vector<FailingCall>& calls) {
    for (const FailingCall& call : calls) {
        interpose_fail(call.function, 1, ENOSPC);
        EXPECT_TRUE(call.fails()) << call.function;
        EXPECT_EQ(interpose_fail_now(call.function), 0) << call.function << ": the order is used up";
    }
}

TEST_F(InterposeFail, EveryNamedFunctionFailsOnOrder) {
    const PrivateDir directory;
    const std::string file = directory.write("file", "x");
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    expect_each_fails(descriptor_calls(fd));
    expect_each_fails(path_calls(file));
    expect_each_fails(system_calls());
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
}

TEST_F(InterposeFail, AFailedFcloseHasClosedTheStream) {
    const int before = dup(STDERR_FILENO);
    close(before);
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(fclose(fopen("/dev/null", "r")), EOF);
    EXPECT_EQ(errno, EIO);
    const int after = dup(STDERR_FILENO);
    close(after);
    EXPECT_EQ(after, before);
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

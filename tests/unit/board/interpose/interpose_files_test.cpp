// Calls with a path or a queue key reach the private directory; all others reach what they name.
#include "interpose/paths.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kFile[] = "/etc/default/tavor/file";
constexpr char kOther[] = "/etc/default/tavor/other";
constexpr mode_t kMode = 0640;

extern "C" {
// What a program built with source fortification calls in place of the plain functions.
int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
ssize_t __read_chk(int fd, void* buffer, size_t length, size_t room);
char* __realpath_chk(const char* path, char* resolved, size_t room);
}

struct InterposeFiles : testing::Test {
    void SetUp() override {
        interpose_set_root(directory.path.string());
        directory.write(kFile, "content");
    }

    void TearDown() override {
        interpose_set_root("");
    }

    bool exists(const char* path) const {
        return std::filesystem::exists(directory.path.string() + path);
    }

    PrivateDir directory;
};

std::string content_of(int fd) {
    char buffer[64] = "";
    const ssize_t size = read(fd, buffer, sizeof buffer);
    close(fd);
    return {buffer, size > 0 ? static_cast<size_t>(size) : 0};
}

TEST_F(InterposeFiles, EveryWayToOpenReadsThePrivateFile) {
    const std::function<int()> ways[] = {
        [] { return open(kFile, O_RDONLY); },
        [] { return open64(kFile, O_RDONLY); },
        [] { return openat(AT_FDCWD, kFile, O_RDONLY); },
        [] { return openat64(AT_FDCWD, kFile, O_RDONLY); },
        [] { return __open_2(kFile, O_RDONLY); },
        [] { return __open64_2(kFile, O_RDONLY); },
        [] { return dup(fileno(fopen(kFile, "r"))); },
        [] { return dup(fileno(fopen64(kFile, "r"))); },
    };
    for (const auto& way : ways) {
        const int fd = way();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(content_of(fd), "content");
    }
}

TEST_F(InterposeFiles, ANewFileGetsItsMode) {
    umask(0);
    close(open(kOther, O_WRONLY | O_CREAT, kMode));
    struct stat status = {};
    ASSERT_EQ(stat(kOther, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, kMode);

    ASSERT_EQ(chmod(kOther, 0600), 0);
    ASSERT_EQ(lstat(kOther, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    close(creat(kFile, kMode));
    EXPECT_EQ(directory.read(kFile), "") << "creat empties";
}

TEST_F(InterposeFiles, NamesAreMadeMovedAndRemovedInThePrivateDirectory) {
    EXPECT_EQ(access(kFile, F_OK), 0);
    EXPECT_EQ(rename(kFile, kOther), 0);
    EXPECT_TRUE(exists(kOther));
    EXPECT_EQ(access(kFile, F_OK), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(unlink(kOther), 0);
    EXPECT_FALSE(exists(kOther));

    EXPECT_EQ(mkdir("/etc/default/tavor/xod", 0755), 0);
    EXPECT_TRUE(exists("/etc/default/tavor/xod"));
    EXPECT_EQ(rmdir("/etc/default/tavor/xod"), 0);
}

TEST_F(InterposeFiles, StreamsOfTheLanguageAndTheHeaderFileGoTheSameWay) {
    std::filesystem::create_directory(directory.path / "tmp");
    std::ofstream("/tmp/head.out") << "x";
    EXPECT_EQ(directory.read("tmp/head.out"), "x");
    EXPECT_EQ(remove("/tmp/head.out"), 0);
    EXPECT_FALSE(exists("/tmp/head.out"));
}

TEST_F(InterposeFiles, RealPathsAreThoseOfThePrivateDirectory) {
    char resolved[PATH_MAX] = "";
    const std::string real = directory.path.string() + kFile;
    EXPECT_STREQ(realpath(kFile, resolved), real.c_str());
    EXPECT_STREQ(__realpath_chk(kFile, resolved, sizeof resolved), real.c_str());
    char* allocated = realpath(kFile, nullptr);
    EXPECT_STREQ(allocated, real.c_str());
    free(allocated);
}

TEST_F(InterposeFiles, OtherPathsAreNotTouched) {
    const std::string outside = directory.write("outside", "here");
    const int fd = open(outside.c_str(), O_RDONLY);
    char buffer[8] = "";
    EXPECT_EQ(__read_chk(fd, buffer, 4, sizeof buffer), 4);
    EXPECT_STREQ(buffer, "here");
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(open("/etc/default/tavorx/none", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(InterposeFiles, AWrongPointerIsTheKernelsToRefuse) {
    int (*volatile plain_access)(const char*, int) = access; // its declaration forbids what a program may do
    int (*volatile plain_open)(const char*, int, ...) = open;
    EXPECT_EQ(plain_access(nullptr, F_OK), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(plain_open(nullptr, O_RDONLY), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST_F(InterposeFiles, QueuesOfTheFixedKeysAreThisDirectorysOwn) {
    const int queue = msgget(1234, IPC_CREAT | 0600);
    ASSERT_GE(queue, 0);
    EXPECT_EQ(msgget(interpose_map_key(1234), 0), queue);
    EXPECT_NE(msgget(1235, IPC_CREAT | 0600), queue);

    const PrivateDir another;
    interpose_set_root(another.path.string());
    EXPECT_EQ(msgget(1234, 0), -1);
    EXPECT_EQ(errno, ENOENT);

    interpose_remove_queues();
    EXPECT_EQ(msgctl(queue, IPC_STAT, nullptr), -1) << "of every directory that this process has had";
}

TEST_F(InterposeFiles, AForkedProcessLeavesTheQueuesOfItsParent) {
    const int queue = msgget(1234, IPC_CREAT | 0600);
    const pid_t child = fork();
    if (child == 0) {
        interpose_remove_queues();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_EQ(msgget(1234, 0), queue);
    interpose_remove_queues();
}

} // namespace

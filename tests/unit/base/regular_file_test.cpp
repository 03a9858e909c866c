#include "base/regular_file.h"

#include "support/private_dir.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

TEST(RegularFile, IsReadAndWritten) {
    const PrivateDir directory;
    const std::string path = directory.write("file", "text");
    FILE* const stream = regular_file_read(path.c_str());
    ASSERT_NE(stream, nullptr);
    char text[8] = {};
    EXPECT_STREQ(fgets(text, sizeof text, stream), "text");
    fclose(stream);

    const int fd = regular_file_open((directory.path / "new").c_str(), O_WRONLY | O_CREAT, 0640);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, "new", 3), 3);
    close(fd);
    EXPECT_EQ(directory.read("new"), "new");
}

TEST(RegularFile, MissingFileSaysSo) {
    const PrivateDir directory;
    errno = 0;
    EXPECT_EQ(regular_file_read((directory.path / "none").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(RegularFile, FifoDeviceAndDirectoryAreRefusedAtOnce) {
    const PrivateDir directory;
    const std::string fifo = directory.path / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const char* path : {fifo.c_str(), "/dev/zero", directory.path.c_str()}) {
        errno = 0;
        EXPECT_EQ(regular_file_open(path, O_RDONLY), -1) << path;
        EXPECT_EQ(errno, ENODEV) << path;
    }
    EXPECT_EQ(regular_file_open(fifo.c_str(), O_RDWR), -1); // a FIFO that opens at once
    EXPECT_EQ(errno, ENODEV);
}

TEST(RegularFile, SymbolicLinkIsFollowedUnlessRefused) {
    const PrivateDir directory;
    const std::string target = directory.write("target", "text");
    const std::string link = directory.path / "link";
    std::filesystem::create_symlink(target, link);
    const int fd = regular_file_open(link.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(regular_file_open(link.c_str(), O_RDONLY | O_NOFOLLOW), -1);
    EXPECT_EQ(errno, ELOOP);
}

// The daemon's files as the client sees them.
#include "client/settings.h"

#include "support/private_dir.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(Settings, PlaceOfTheSocketTellsTheBoard) {
    EXPECT_EQ(settings_root("/etc/default/tavor/tavor_sun_path"), "");
    EXPECT_EQ(settings_root("/tmp/board/etc/default/tavor/tavor_sun_path"), "/tmp/board");
    EXPECT_FALSE(settings_root("/tmp/socket"));
    EXPECT_EQ(settings_root("/run/tavor/relay.sock"), "") << "the relay serves the usual daemon";
    EXPECT_EQ(settings_file("/tmp/board", "/etc/default/tavor/da/x"), "/tmp/board/etc/default/tavor/da/x");
    EXPECT_EQ(settings_file("/tmp/board", "/data/x"), "/data/x");
}

TEST(Settings, ValueIsBehindTheFirstPlaceOfTheKey) {
    EXPECT_EQ(settings_value("a=1\nDA path=/x y \nDA path=/z\n", "DA path=", "/d"), "/x y ");
    EXPECT_EQ(settings_value("#DA path=/in a comment\r\n", "DA path=", "/d"), "/in a comment");
    EXPECT_EQ(settings_value("DA path=/unended\r", "DA path=", "/d"), "/unended\r");
    EXPECT_EQ(settings_value("DA path=\n", "DA path=", "/d"), "");
    EXPECT_EQ(settings_value("", "DA path=", "/d"), "/d");
    EXPECT_EQ(settings_value(std::string(252, 'x') + "DA path=/x\n", "DA path=", "/d"), "/d")
        << "a line of 255 bytes ends in the middle of the key";
    EXPECT_EQ(settings_value(std::string("a\0DA path=/x\n", 13), "DA path=", "/d"), "/d");
}

TEST(Settings, OnlyRegularFilesAreRead) {
    const PrivateDir directory;
    EXPECT_EQ(settings_read(directory.write("file", "content"), 7), "content");
    EXPECT_FALSE(settings_read(directory.path / "file", 6));
    EXPECT_EQ(errno, EFBIG);
    EXPECT_FALSE(settings_read(directory.path, 100));
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(settings_read(directory.path / "none", 100));
    EXPECT_EQ(errno, ENOENT);
    const std::string fifo = directory.path / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(settings_read(fifo, 100)) << "must not wait for a writer";
}

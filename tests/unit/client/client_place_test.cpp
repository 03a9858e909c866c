// The daemon's files as the client sees them.
#include "client/place.h"

#include "support/private_dir.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(Place, PathOfTheSocketTellsWhereTheFilesAre) {
    const Place usual = place_of("/etc/default/tavor/tavor_sun_path");
    EXPECT_TRUE(usual.usual && usual.known);
    EXPECT_EQ(place_path(usual, "/etc/default/tavor/da/x"), "/etc/default/tavor/da/x");
    const Place board = place_of("/tmp/board/etc/default/tavor/tavor_sun_path");
    EXPECT_TRUE(!board.usual && board.known);
    EXPECT_EQ(place_config(board), "/tmp/board/etc/default/tavor/tavor.conf");
    EXPECT_EQ(place_path(board, "/etc/default/tavor/da/x"), "/tmp/board/etc/default/tavor/da/x");
    EXPECT_EQ(place_path(board, "/data/x"), "/data/x");
    const Place elsewhere = place_of("/tmp/socket");
    EXPECT_TRUE(!elsewhere.usual && !elsewhere.known);
    EXPECT_EQ(place_path(elsewhere, "/etc/default/tavor/da/x"), "/tmp/da/x");
    EXPECT_TRUE(place_of("/run/tavor/relay.sock").usual) << "the relay serves the usual daemon";
}

TEST(Place, ValueIsBehindTheFirstPlaceOfTheKey) {
    const auto agent = [](const std::string& content) {
        Place place;
        place.config = content;
        return place_text(place, CONFIG_DA_PATH);
    };
    const std::string usual = "/etc/default/tavor/da/qx7710_da.bin";
    EXPECT_EQ(agent("a=1\nDA path=/x y \nDA path=/z\n"), "/x y ");
    EXPECT_EQ(agent("#DA path=/in a comment\r\n"), "/in a comment");
    EXPECT_EQ(agent("DA path=\n"), "");
    EXPECT_EQ(agent(""), usual);
    EXPECT_EQ(agent(std::string(252, 'x') + "DA path=/x\n"), usual)
        << "a line of 255 bytes ends in the middle of the key";
    EXPECT_EQ(agent(std::string("a\0DA path=/x\n", 13)), usual);
}

TEST(Place, OnlyRegularFilesAreRead) {
    const PrivateDir directory;
    EXPECT_EQ(place_read(directory.write("file", "content"), 100), "content");
    EXPECT_EQ(place_read(directory.path / "file", 6), "conten");
    EXPECT_EQ(place_read_end(directory.path / "file", 6), "ontent");
    EXPECT_FALSE(place_read(directory.path / "none", 100));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(place_read(directory.path, 100));
    const std::string fifo = directory.path / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(place_read(fifo, 100)) << "must not wait for a writer";
    EXPECT_EQ(errno, ENODEV);
}

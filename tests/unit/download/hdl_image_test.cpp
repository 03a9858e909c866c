#include "download/hdl_image.h"

#include "download/crc32_calc.h"
#include "download/tool_file.h"
#include "hdl_image_faults.h"
#include "support/fake_clock.h"
#include "support/private_dir.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using std::string;

struct ImageFile : testing::Test {
    ImageFile() {
        fake_clock_start();
    }
    ~ImageFile() override {
        fake_clock_stop();
    }
    uint64_t size_of(const string& path) {
        uint64_t size = 99;
        log = log_of([&] { size = getFileSize(path.c_str()); });
        return size;
    }
    uint32_t crc_of_file(const string& path) {
        uint32_t crc = 99;
        log = log_of([&] { crc = image_crc32(path.c_str()); });
        return crc;
    }

    PrivateDir dir;
    Lines log;
};

string content(size_t n) {
    string text(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 256);
    }
    return text;
}

uint32_t crc_of(const string& text) {
    return crc32_calc(reinterpret_cast<const uint8_t*>(text.data()), static_cast<uint32_t>(text.size()));
}

const string kFilled = "[I] Fill up 4-byte. ( 0 )";

} // namespace

TEST_F(ImageFile, SizeIsThatOfTheFile) {
    EXPECT_EQ(size_of(dir.write("a", "12345")), 5U);
    EXPECT_EQ(size_of(dir.write("b", "")), 0U);
    EXPECT_EQ(log, Lines{});
}

TEST_F(ImageFile, WhatIsNoFileHasSizeZero) {
    EXPECT_EQ(getFileSize(nullptr), 0U);
    EXPECT_EQ(size_of(dir.path / "missing"), 0U);
    EXPECT_EQ(size_of(dir.path), 0U);
    const string pipe = dir.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(size_of(pipe), 0U);
    EXPECT_EQ(log, Lines{});
}

TEST_F(ImageFile, SizeNeedsAPositionAndAClose) {
    const string path = dir.write("a", "12345");
    image_faults.fseeko = 0;
    EXPECT_EQ(size_of(path), 0U);
    EXPECT_EQ(log, Lines{});
    image_faults.fclose = 0;
    EXPECT_EQ(size_of(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] The file(" + path + ") could not closed."}));
}

TEST_F(ImageFile, CrcCoversTheBytesThatFillTheLastWord) {
    EXPECT_EQ(crc_of_file(dir.write("a", "12345")), crc_of("12345\xFF\xFF\xFF"));
    EXPECT_EQ(log, (Lines{kFilled}));
    EXPECT_EQ(crc_of_file(dir.write("a", "1234567")), crc_of("1234567\xFF"));
    EXPECT_EQ(log, (Lines{kFilled}));
}

TEST_F(ImageFile, WholeWordsAreNotFilledUp) {
    for (const size_t size : {4U, 1020U, 1024U, 1028U, 2048U, 5000U}) {
        EXPECT_EQ(crc_of_file(dir.write("a", content(size))), crc_of(content(size))) << size;
        EXPECT_EQ(log, Lines{}) << size;
    }
}

TEST_F(ImageFile, OnlyTheLastChunkIsFilledUp) {
    for (const size_t size : {1U, 1023U, 1025U, 2047U, 4099U}) {
        const string filled = content(size) + string((4 - size % 4) % 4, '\xFF');
        EXPECT_EQ(crc_of_file(dir.write("a", content(size))), crc_of(filled)) << size;
        EXPECT_EQ(log, (Lines{kFilled})) << size;
    }
}

TEST_F(ImageFile, FileThatBecomesShorterInTheMiddleHasNoCrc) {
    const string path = dir.write("a", content(3072));
    image_faults.at_read = [&] { std::filesystem::resize_file(path, 1500); };
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, Lines{}) << "only the last chunk is filled up";
}

TEST_F(ImageFile, LastChunkIsFilledUpAlsoWhenItIsAWholeOne) {
    const string path = dir.write("a", content(2048));
    image_faults.at_read = [&] { std::filesystem::resize_file(path, 1500); };
    EXPECT_EQ(crc_of_file(path), crc_of(content(1500) + string(548, '\xFF')));
    EXPECT_EQ(log, (Lines{kFilled}));
}

TEST_F(ImageFile, EmptyFileHasCrcZero) {
    EXPECT_EQ(crc_of_file(dir.write("a", "")), 0U);
    EXPECT_EQ(log, Lines{});
}

TEST_F(ImageFile, FileThatCantBeOpenedIsLogged) {
    const string path = dir.path / "missing";
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] can not open " + path}));
    EXPECT_EQ(log_of([] { EXPECT_EQ(image_crc32(nullptr), 0U); }), (Lines{"[E] can not open "}));
}

TEST_F(ImageFile, DirectoryHasCrcZero) {
    EXPECT_EQ(crc_of_file(dir.path), 0U);
}

TEST_F(ImageFile, FailedPositioningGivesNoCrc) {
    const string path = dir.write("a", content(3000));
    for (const int call : {1, 2, 3}) { // the first is that of the size
        image_faults.fseeko = call;
        EXPECT_EQ(crc_of_file(path), 0U);
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(ImageFile, FailedReadGivesNoCrc) {
    const string path = dir.write("a", content(3001));
    for (const int call : {0, 1, 2}) {
        image_faults.fread = call;
        EXPECT_EQ(crc_of_file(path), 0U);
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(ImageFile, FailedCloseGivesNoCrc) {
    const string path = dir.write("a", "1234");
    image_faults.fclose = 1;
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] The file(" + path + ") could not closed."}));
    image_faults.fclose = 0; // that of the size: no byte is read then
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] The file(" + path + ") could not closed."}));
}

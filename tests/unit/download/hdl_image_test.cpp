#include "download/hdl_image.h"

#include "download/crc32_calc.h"
#include "download/tool_file.h"
#include "hdl_image_log.h"

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using std::string;

struct ImageFile : ImageTest {
    uint64_t size_of(const string& path) {
        uint64_t size = 99;
        run([&] { size = getFileSize(path.c_str()); });
        return size;
    }
    uint32_t crc_of_file(const string& path) {
        uint32_t crc = 99;
        run([&] { crc = image_crc32(path.c_str()); });
        return crc;
    }
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

TEST_F(ImageFile, SizeIsThatOfARegularFile) {
    EXPECT_EQ(size_of(dir.write("a", "12345")), 5U);
    EXPECT_EQ(log, Lines{});
    const string pipe = dir.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(getFileSize(nullptr), 0U);
    for (const string& none : {dir.write("empty", ""), dir.path.string(), pipe, dir.path.string() + "/no"}) {
        EXPECT_EQ(size_of(none), 0U) << none;
        EXPECT_EQ(log, Lines{}) << none;
    }
}

TEST_F(ImageFile, SizeNeedsAPositionAndAClose) {
    const string path = dir.write("a", "12345");
    faults.fseeko = 0;
    EXPECT_EQ(size_of(path), 0U);
    EXPECT_EQ(log, Lines{});
    faults.fclose = 0;
    EXPECT_EQ(size_of(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] The file(" + path + ") could not closed."}));
}

TEST_F(ImageFile, CrcCoversTheFileFilledUpToAWholeWord) {
    EXPECT_EQ(crc_of_file(dir.write("a", "12345")), crc_of("12345\xFF\xFF\xFF"));
    for (const size_t size : {1U, 1020U, 1023U, 1024U, 1025U, 1028U, 2047U, 2048U, 4099U, 5000U}) {
        const string filled = content(size) + string((4 - size % 4) % 4, '\xFF');
        EXPECT_EQ(crc_of_file(dir.write("a", content(size))), crc_of(filled)) << size;
        EXPECT_EQ(log, size % 4 == 0 ? Lines{} : Lines{kFilled}) << size;
    }
    EXPECT_EQ(crc_of_file(dir.write("a", "")), 0U);
    EXPECT_EQ(log, Lines{});
}

TEST_F(ImageFile, FileThatBecomesShorterInTheMiddleHasNoCrc) {
    const string path = dir.write("a", content(3072));
    faults.at_read = [&] { std::filesystem::resize_file(path, 1500); };
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, Lines{}) << "only the last chunk is filled up";
}

TEST_F(ImageFile, LastChunkIsFilledUpAlsoWhenItIsAWholeOne) {
    const string path = dir.write("a", content(2048));
    faults.at_read = [&] { std::filesystem::resize_file(path, 1500); };
    EXPECT_EQ(crc_of_file(path), crc_of(content(1500) + string(548, '\xFF')));
    EXPECT_EQ(log, (Lines{kFilled}));
}

TEST_F(ImageFile, FileThatCantBeOpenedIsLogged) {
    const string path = dir.path / "missing";
    EXPECT_EQ(crc_of_file(path), 0U);
    EXPECT_EQ(log, (Lines{"[E] can not open " + path}));
    run([] { EXPECT_EQ(image_crc32(nullptr), 0U); });
    EXPECT_EQ(log, (Lines{"[E] can not open "}));
    EXPECT_EQ(crc_of_file(dir.path), 0U);
}

TEST_F(ImageFile, FailedCallGivesNoCrc) {
    const string path = dir.write("a", content(3001));
    for (const int call : {0, 1, 2}) {
        faults.fseeko = call + 1; // the first is that of the size
        EXPECT_EQ(crc_of_file(path), 0U);
        EXPECT_EQ(log, Lines{});
        faults.fread = call;
        EXPECT_EQ(crc_of_file(path), 0U);
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(ImageFile, FailedCloseGivesNoCrc) {
    const string path = dir.write("a", "1234");
    for (const int call : {1, 0}) { // the first is that of the size: no byte is read then
        faults.fclose = call;
        EXPECT_EQ(crc_of_file(path), 0U);
        EXPECT_EQ(log, (Lines{"[E] The file(" + path + ") could not closed."}));
    }
}

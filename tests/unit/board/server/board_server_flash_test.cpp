// The chip's flash on disk.
#include "server/flash_file.h"
#include "support/private_dir.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace {

constexpr uint32_t kSize = 0x20000;
constexpr uint32_t kBase = 0x08000000;

struct FlashFile : testing::Test {
    FlashFile() {
        make(board);
    }
    void make(Board& made, uint32_t size = kSize) {
        BoardOptions options;
        options.chip.flash_size = size;
        board_init(made, options);
    }
    std::string keep() {
        return flash_file_keep(board, place.path);
    }
    bool exists(const char* name) {
        return std::filesystem::exists(place.path / name);
    }

    PrivateDir place;
    Board board;
};

TEST_F(FlashFile, UntouchedFlashHasNoFiles) {
    EXPECT_EQ(flash_file_load(board, place.path), "");
    EXPECT_EQ(keep(), "");
    EXPECT_FALSE(exists("flash.bin"));
    EXPECT_FALSE(exists("flash.state"));
    EXPECT_TRUE(board.chip.flash.bootable);
}

TEST_F(FlashFile, ContentIsKeptByteForByteAndTakenAgain) {
    ASSERT_EQ(chip_flash_erase(board.chip.flash, kBase, 4096), ChipFlashResult::ok);
    EXPECT_EQ(keep(), "");
    EXPECT_EQ(place.read("flash.bin"), std::string(kSize, '\xFF'));
    EXPECT_EQ(place.read("flash.state"), "no firmware\n");
    const uint8_t data[] = {1, 2, 3};
    ASSERT_EQ(chip_flash_write(board.chip.flash, kBase + 0x1FFFD, data, sizeof data), ChipFlashResult::ok);
    ASSERT_EQ(chip_flash_write(board.chip.flash, kBase + 5, data, sizeof data), ChipFlashResult::ok);
    EXPECT_EQ(keep(), "");
    std::string expected(kSize, '\xFF');
    expected.replace(5, 3, "\1\2\3").replace(0x1FFFD, 3, "\1\2\3");
    EXPECT_EQ(place.read("flash.bin"), expected);
    Board other;
    make(other);
    EXPECT_EQ(flash_file_load(other, place.path), "");
    EXPECT_EQ(other.chip.flash.bytes, board.chip.flash.bytes);
    EXPECT_FALSE(other.chip.flash.bootable);
}

TEST_F(FlashFile, OnlyWhatChangedIsWritten) {
    chip_flash_erase(board.chip.flash, kBase, 4096);
    keep();
    place.write("flash.bin", std::string(kSize, 'x'));
    chip_flash_erase(board.chip.flash, kBase + 4096, 4096);
    keep();
    EXPECT_EQ(place.read("flash.bin"),
              std::string(4096, 'x') + std::string(4096, '\xFF') + std::string(kSize - 8192, 'x'));
    const uint8_t data[] = {1};
    chip_flash_write(board.chip.flash, kBase, data, 1);
    chip_flash_checked(board.chip.flash, kBase, 1);
    ASSERT_TRUE(chip_flash_finish(board.chip.flash));
    EXPECT_EQ(keep(), "");
    EXPECT_EQ(place.read("flash.state"), "bootable\n");
}

TEST_F(FlashFile, FileOfAnotherSizeIsRefused) {
    place.write("flash.bin", "short");
    EXPECT_EQ(flash_file_load(board, place.path),
              (place.path / "flash.bin").string() +
                  " has 5 bytes, the flash 131072: remove it or choose --flash-size");
}

TEST_F(FlashFile, FileThatCantBeWrittenIsNamed) {
    std::filesystem::create_directory(place.path / "flash.bin");
    chip_flash_erase(board.chip.flash, kBase, 4096);
    EXPECT_EQ(keep(), "can't write " + (place.path / "flash.bin").string() + ": Is a directory");
    EXPECT_EQ(keep(), "") << "once";
}

} // namespace

// The I2C node as a program sees it.
#include "devices/board_devices.h"
#include "support/board_local.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr char kI2c[] = "/dev/i2c-1";

void power(Board& board) {
    for (const auto& [path, text] : std::vector<std::pair<std::string, std::string>>{
             {"export", "17"}, {"gpio17/direction", "out"}, {"gpio17/value", "1"}}) {
        BoardFile file;
        ASSERT_EQ(board_open(board, file, "/sys/class/gpio/" + path, O_WRONLY), 0);
        ASSERT_GT(board_node_write(board, file, text.data(), text.size()), 0);
    }
}

class BoardI2c : public testing::Test {
protected:
    BoardI2c() {
        BoardOptions options;
        options.chip.source = ChipSource::none;
        options.clock_us = [] { return uint64_t{0}; };
        board_init(board, options);
        power(board);
        board_local_connect(board);
    }
    ~BoardI2c() override {
        board_local_disconnect();
    }

    Board board;
};

} // namespace

TEST_F(BoardI2c, OnlyTheConfiguredNodeExists) {
    EXPECT_EQ(access(kI2c, F_OK), 0);
    EXPECT_EQ(open("/dev/i2c-2", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(BoardI2c, NodeTalksToTheSelectedAddress) {
    const int fd = open(kI2c, O_RDWR);
    ASSERT_GE(fd, 0);
    const uint8_t probe = 0;
    EXPECT_EQ(write(fd, &probe, 1), -1) << "nobody at address 0";
    EXPECT_EQ(errno, EREMOTEIO);
    EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x50), 0);
    EXPECT_EQ(write(fd, &probe, 1), 1);
    EXPECT_EQ(ioctl(fd, I2C_SLAVE, 0x80), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(write(fd, &probe, 1), 1) << "a refused address changes nothing";
    EXPECT_EQ(write(fd, &probe, 0), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    close(fd);
}

TEST_F(BoardI2c, NodesTakeTheirOwnRequestsOnly) {
    const int i2c = open(kI2c, O_RDWR);
    const int spi = open("/dev/spidev1.0", O_RDWR);
    uint32_t mode = 0;
    EXPECT_EQ(ioctl(i2c, SPI_IOC_WR_MODE32, &mode), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(ioctl(spi, I2C_SLAVE, 0x50), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(i2c);
    close(spi);
}

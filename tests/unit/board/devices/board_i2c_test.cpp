// The I2C node as a program sees it, and the daemon's multiplexer on it, down to the chip.
#include "devices/board_devices.h"
#include "mux/host_mux.h"
#include "support/board_local.h"
#include "support/capture.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

// The chip in this process needs no pauses.
extern "C" int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*) {
    return 0;
}

namespace {

constexpr char kI2c[] = "/dev/i2c-1";
constexpr size_t kLargest = 4095;

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

// The multiplexer on that board.
class MuxOnBoardI2c : public BoardI2c {
protected:
    void SetUp() override {
        const host_mux_i2c_port_config config = {0, "/dev/i2c-1"};
        ASSERT_EQ(host_mux_init(&handle, &config), 0);
    }
    void TearDown() override {
        EXPECT_EQ(host_mux_deinit(&handle), 0);
        EXPECT_EQ(board_status(board).violations, 0U) << board_status(board).last_violation;
    }
    std::string receive() {
        std::string bytes(kLargest, '\0');
        auto length = static_cast<uint32_t>(bytes.size());
        EXPECT_EQ(host_mux_rx(&handle, reinterpret_cast<uint8_t*>(bytes.data()), &length), 0);
        return bytes.substr(0, length);
    }
    uint32_t send(const std::string& bytes) {
        auto length = static_cast<uint32_t>(bytes.size());
        EXPECT_EQ(host_mux_tx(&handle, reinterpret_cast<const uint8_t*>(bytes.data()), &length), 0);
        return length;
    }

    host_mux_handle handle = {HOST_MUX_BUS_I2C, kHostMuxClosed};
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

TEST_F(MuxOnBoardI2c, EverySizeArrivesFromTheChip) {
    std::string bytes;
    while (bytes.size() < kLargest) {
        bytes += static_cast<char>(bytes.size() * 7 + bytes.size() / 256);
        ASSERT_EQ(board_queue(board, bytes), "");
        std::string got;
        capture_stdout([&] { got = receive(); });
        ASSERT_EQ(got, bytes) << bytes.size();
    }
}

TEST_F(MuxOnBoardI2c, EverySampleArrivesAtTheChip) {
    const std::string command = "$PZUL353,1*3B\r\n";
    for (const size_t size : {15, 16, 29, 30, 255, 256, 1023, 1024, 1025, 2048, 4080, 4094, 4095}) {
        const ChipStatus before = board_status(board);
        std::string data;
        while (data.size() + command.size() <= size) {
            data += command;
        }
        const size_t noise = size - data.size();
        capture_stdout([&] {
            EXPECT_EQ(send(data + std::string(noise, '~')), size);
            while (!receive().empty()) { // the acknowledgements
            }
        });
        const ChipStatus after = board_status(board);
        EXPECT_EQ(after.bytes_received - before.bytes_received, size);
        EXPECT_EQ(after.commands_good - before.commands_good, data.size() / command.size()) << size;
        EXPECT_EQ(after.bytes_noise - before.bytes_noise, noise) << size;
        EXPECT_EQ(after.commands_bad, 0U);
    }
}

TEST_F(MuxOnBoardI2c, FiveMissingAcknowledgesAtEachAddressAreOutlasted) {
    ASSERT_EQ(board_fault(board, "i2c-nack", "5"), "");
    ASSERT_EQ(board_queue(board, "abc"), "");
    capture_stdout([&] {
        EXPECT_EQ(receive(), "abc");
        EXPECT_EQ(send("~~~"), 3U);
    });
    EXPECT_TRUE(board_status(board).faults.empty());
}

TEST_F(MuxOnBoardI2c, HostileLengthsAreBoundedByTheCaller) {
    ASSERT_EQ(board_fault(board, "hostile-length", "on"), "");
    ASSERT_EQ(board_queue(board, "abc"), "");
    capture_stdout([&] {
        EXPECT_EQ(receive(), "abc" + std::string(kLargest - 3, '\xFF'));
        EXPECT_EQ(send(std::string(kLargest, '~')), kLargest);
    });
}

// What the module of board/kernel asks and the board answers, with a socket in the module's place.
#include "server/kernel_device.h"

#include "kernel/tavor_board.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spi.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uint8_t kPowerOn = 0x04; // commands and a status bit of the slave
constexpr uint8_t kReadStatus = 0x06;
constexpr uint8_t kPowered = 0x01;
constexpr uint8_t kNobody = 0xFF;

struct KernelDeviceTest : testing::Test {
    Board board;
    KernelDevice device;
    int module = -1;

    void SetUp() override {
        board_init(board, {});
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
        device.fd = ends[0];
        module = ends[1];
        board_open(board, device.spi, board.options.spi_path, O_RDWR);
        board_open(board, device.i2c, board.options.i2c_path, O_RDWR);
    }
    void TearDown() override {
        kernel_device_close(device);
        close(module);
    }

    // The answer's head, its bytes in data.
    tavor_board_answer ask(tavor_board_request request, std::vector<uint8_t> sent,
                           std::vector<uint8_t>* data) {
        request.number = request.number != 0 ? request.number : 7;
        request.length = static_cast<uint32_t>(sent.size());
        const auto* head = reinterpret_cast<const uint8_t*>(&request);
        sent.insert(sent.begin(), head, head + sizeof request);
        EXPECT_EQ(write(module, sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
        EXPECT_TRUE(kernel_device_take(device, board));
        kernel_device_give(device);
        tavor_board_answer answer = {};
        data->resize(sizeof answer + TAVOR_BOARD_DATA_MAX);
        const ssize_t size = read(module, data->data(), data->size());
        EXPECT_GE(size, static_cast<ssize_t>(sizeof answer));
        memcpy(&answer, data->data(), sizeof answer);
        data->erase(data->begin(), data->begin() + sizeof answer);
        data->resize(answer.length);
        EXPECT_EQ(answer.number, request.number);
        EXPECT_EQ(size, static_cast<ssize_t>(sizeof answer + answer.length));
        return answer;
    }

    void lines(uint32_t first, uint32_t outputs, uint32_t levels) {
        std::vector<uint8_t> none;
        EXPECT_EQ(ask({0, TAVOR_BOARD_LINES_SET, 0, 0, first, 0, levels, outputs}, {}, &none).status, 0);
    }

    std::vector<uint8_t> frame(uint32_t mode, std::vector<uint8_t> sent) {
        std::vector<uint8_t> data;
        const auto size = static_cast<uint32_t>(sent.size());
        EXPECT_EQ(ask({0, TAVOR_BOARD_SPI, 0, size, 0, mode, 0, 0}, std::move(sent), &data).status, 0);
        return data;
    }
};

TEST_F(KernelDeviceTest, TheLineOfThePowerPinPowersTheChip) {
    lines(0, 1U << 17, 1U << 17);
    EXPECT_TRUE(board_status(board).powered);
    lines(0, 1U << 17, 0);
    EXPECT_FALSE(board_status(board).powered);
    lines(0, 0, 1U << 17); // an input
    EXPECT_FALSE(board_status(board).powered);
    lines(16, 1U << 1, 1U << 1); // counted from the first line
    EXPECT_TRUE(board_status(board).powered);
    lines(100, 0, 0); // other lines
    EXPECT_TRUE(board_status(board).powered);
}

TEST_F(KernelDeviceTest, AFrameGoesToTheChipInTheModesBitOrder) {
    lines(0, 1U << 17, 1U << 17);
    frame(0, {kPowerOn}); // mirrored: no command of the slave
    EXPECT_FALSE(board_status(board).interface_powered);
    frame(SPI_LSB_FIRST, {kPowerOn});
    EXPECT_EQ(frame(SPI_LSB_FIRST, {kReadStatus, 0})[1] & kPowered, kPowered);
}

TEST_F(KernelDeviceTest, AChipWithoutPowerFloats) {
    EXPECT_EQ(frame(SPI_LSB_FIRST, {kReadStatus, 0}), (std::vector<uint8_t>{kNobody, kNobody}));
}

TEST_F(KernelDeviceTest, ATransferThatFailsGivesItsErrorAndNoBytes) {
    board_fault(board, "transfer-fail", "once");
    std::vector<uint8_t> data;
    EXPECT_EQ(ask({0, TAVOR_BOARD_SPI, 0, 2, 0, SPI_LSB_FIRST, 0, 0}, {kReadStatus, 0}, &data).status, -EIO);
    EXPECT_TRUE(data.empty());
}

TEST_F(KernelDeviceTest, AnI2cReadHasAllItsBytes) {
    lines(0, 1U << 17, 1U << 17);
    std::vector<uint8_t> data;
    const tavor_board_request probe = {0, TAVOR_BOARD_I2C_WRITE, 0, 0, 0x50, 0, 0, 0};
    EXPECT_EQ(ask(probe, {0x00}, &data).status, 0);
    EXPECT_EQ(ask(probe, {0x08, 0x00, 0x51, 0xAA, 4, 0, 0, 0}, &data).status, 0);
    EXPECT_EQ(ask({0, TAVOR_BOARD_I2C_READ, 0, 4, 0x54, 0, 0, 0}, {}, &data).status, 0);
    EXPECT_EQ(data.size(), 4U);
    EXPECT_EQ(ask({0, TAVOR_BOARD_I2C_READ, 0, 4, 0x33, 0, 0, 0}, {}, &data).status, -EREMOTEIO);
}

TEST_F(KernelDeviceTest, AnUnknownRequestIsRefused) {
    std::vector<uint8_t> data;
    EXPECT_EQ(ask({0, 99, 0, 0, 0, 0, 0, 0}, {}, &data).status, -EOPNOTSUPP);
}

TEST_F(KernelDeviceTest, AWithdrawnRequestIsNotAnswered) {
    EXPECT_FALSE(kernel_device_take(device, board));
}

TEST_F(KernelDeviceTest, TheLinesStateAtTheStartIsNotAnswered) {
    const tavor_board_request request = {0, TAVOR_BOARD_LINES_SET, 0, 0, 0, 0, 1U << 17, 1U << 17};
    ASSERT_EQ(write(module, &request, sizeof request), static_cast<ssize_t>(sizeof request));
    EXPECT_FALSE(kernel_device_take(device, board));
    EXPECT_TRUE(board_status(board).powered);
}

TEST(KernelDeviceOpenTest, TellsWhichDeviceIsMissing) {
    Board board;
    board_init(board, {});
    KernelDevice device;
    EXPECT_EQ(kernel_device_open(device, board, "/dev/no-such-board"),
              "can't open /dev/no-such-board: No such file or directory");
}

TEST(KernelDeviceOpenTest, ADeviceOfAnotherDriverIsRefused) {
    Board board;
    board_init(board, {});
    for (const char* path : {"/dev/null", "/proc/self/comm"}) { // comm is no device at all
        KernelDevice device;
        EXPECT_EQ(kernel_device_open(device, board, path),
                  std::string(path) + " is no device of the kernel module in board/kernel, as "
                                      "/dev/tavor-board is");
        EXPECT_EQ(device.fd, -1);
    }
}

} // namespace

// The device nodes as a program sees them: sysfs lines, spidev settings and messages.
#include "devices/board_devices.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>
#include <thread>

namespace {

constexpr char kSpi[] = "/dev/spidev1.0";
const std::string kGpio = "/sys/class/gpio/";

struct TestBoard {
    explicit TestBoard(BoardOptions options = {}) {
        options.clock_us = [this] { return now_us; };
        board_init(board, std::move(options));
    }
    // The errno of an open, 0 when it succeeds.
    int open_error(const std::string& path, int flags = O_RDWR) {
        BoardFile file;
        return board_open(board, file, path, flags) == 0 ? 0 : errno;
    }
    // The errno of writing a text to a node, 0 when all of it was taken.
    int write(const std::string& path, const std::string& text) {
        BoardFile file;
        if (board_open(board, file, path, O_WRONLY) != 0) {
            return errno;
        }
        const ssize_t count = board_node_write(board, file, text.data(), text.size());
        return count == static_cast<ssize_t>(text.size()) ? 0 : errno;
    }
    std::string read(const std::string& path) {
        BoardFile file;
        char text[64];
        EXPECT_EQ(board_open(board, file, path, O_RDONLY), 0);
        const ssize_t count = board_node_read(board, file, text, sizeof text);
        EXPECT_GE(count, 0);
        return std::string(text, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
    void power_on() {
        export_as_output(17);
        write(kGpio + "gpio17/value", "1");
    }
    void export_as_output(int pin) {
        EXPECT_EQ(write(kGpio + "export", std::to_string(pin)), 0);
        EXPECT_EQ(write(kGpio + "gpio" + std::to_string(pin) + "/direction", "out"), 0);
    }
    BoardFile open_spi(bool lsb_first = true) {
        BoardFile file;
        EXPECT_EQ(board_open(board, file, kSpi, O_RDWR), 0);
        EXPECT_EQ(board_spi_set(board, file, BoardSpiSetting::lsb_first, lsb_first ? 1 : 0), 0);
        return file;
    }
    std::vector<uint8_t> message(const BoardFile& file, const std::vector<uint8_t>& tx) {
        std::vector<uint8_t> rx(tx.size());
        const BoardTransfer transfer = {tx.data(), rx.data(), static_cast<uint32_t>(tx.size())};
        EXPECT_EQ(board_spi_message(board, file, &transfer, 1), static_cast<ssize_t>(tx.size()));
        return rx;
    }

    uint64_t now_us = 0;
    Board board;
};

} // namespace

TEST(BoardGpio, PinAppearsWithItsExport) {
    TestBoard board;
    EXPECT_EQ(board_access(board.board, kGpio + "gpio17"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(board.open_error(kGpio + "gpio17/value"), ENOENT);
    EXPECT_EQ(board.write(kGpio + "export", "17"), 0);
    for (const char* node : {"gpio17", "gpio17/value", "gpio17/direction", "gpio17/edge"}) {
        EXPECT_EQ(board_access(board.board, kGpio + node), 0) << node;
    }
    EXPECT_EQ(board.open_error(kGpio + "gpio17/colour"), ENOENT);
    EXPECT_EQ(board.write(kGpio + "unexport", "17\n"), 0);
    EXPECT_EQ(board_access(board.board, kGpio + "gpio17"), -1);
}

TEST(BoardGpio, ExportRefusesAsTheKernelDoes) {
    TestBoard board;
    EXPECT_EQ(board.write(kGpio + "export", "17"), 0);
    EXPECT_EQ(board.write(kGpio + "export", "17"), EBUSY);
    for (const char* text : {"999999", "512", "-1", "abc", "1 2", " 1"}) {
        EXPECT_EQ(board.write(kGpio + "export", text), EINVAL) << text;
    }
    EXPECT_EQ(board.write(kGpio + "export", "99999999999999999999"), ERANGE);
    EXPECT_EQ(board.write(kGpio + "export", "0x12"), 0) << "numbers are read as the kernel reads them";
    EXPECT_EQ(board_access(board.board, kGpio + "gpio18"), 0);
    EXPECT_EQ(board_access(board.board, kGpio + "gpio0x12"), -1) << "a name has one shape";
    EXPECT_EQ(board.write(kGpio + "unexport", "19"), EINVAL);
    EXPECT_EQ(board.open_error(kGpio + "export", O_RDWR), EACCES);
    EXPECT_EQ(board.open_error(kGpio + "unexport", O_RDONLY), EACCES);
    EXPECT_EQ(board.open_error(kGpio + "import"), ENOENT);
    EXPECT_EQ(board.open_error("/sys/class/gpio", O_RDWR), EISDIR);
}

TEST(BoardGpio, NewPinIsALowInputWhoseValueIsWrittenAsAnOutputOnly) {
    TestBoard board;
    board.write(kGpio + "export", "5");
    EXPECT_EQ(board.read(kGpio + "gpio5/direction"), "in\n");
    EXPECT_EQ(board.read(kGpio + "gpio5/value"), "0\n");
    EXPECT_EQ(board.read(kGpio + "gpio5/edge"), "none\n");
    const struct {
        const char* node;
        const char* text;
        int error;
        const char* value; // then
    } rows[] = {
        {"value", "1", EPERM, "0\n"},   {"direction", "out\n", 0, "0\n"},   {"value", "1\n", 0, "1\n"},
        {"value", "on", EINVAL, "1\n"}, {"value", "0", 0, "0\n"},           {"direction", "high", 0, "1\n"},
        {"direction", "out", 0, "0\n"}, {"direction", "up", EINVAL, "0\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(board.write(kGpio + "gpio5/" + row.node, row.text), row.error) << row.text;
        EXPECT_EQ(board.read(kGpio + "gpio5/value"), row.value) << row.text;
    }
    EXPECT_EQ(board.read(kGpio + "gpio5/direction"), "out\n");
}

TEST(BoardGpio, EdgeTakesTheFourWordsAndNoneOnOutputs) {
    TestBoard board;
    board.write(kGpio + "export", "5");
    for (const char* edge : {"rising", "falling", "both", "none"}) {
        EXPECT_EQ(board.write(kGpio + "gpio5/edge", edge), 0);
        EXPECT_EQ(board.read(kGpio + "gpio5/edge"), std::string(edge) + "\n");
    }
    EXPECT_EQ(board.write(kGpio + "gpio5/edge", "up"), EINVAL);
    board.write(kGpio + "gpio5/direction", "out");
    EXPECT_EQ(board.write(kGpio + "gpio5/edge", "rising"), EIO);
}

TEST(BoardGpio, ReadEndsSeekGoesBackAndAccessModeIsKept) {
    TestBoard board;
    board.write(kGpio + "export", "5");
    BoardFile file;
    ASSERT_EQ(board_open(board.board, file, kGpio + "gpio5/direction", O_RDONLY), 0);
    char text[9];
    EXPECT_EQ(board_node_read(board.board, file, text, 1), 1);
    EXPECT_EQ(board_node_read(board.board, file, text, sizeof text), 2);
    EXPECT_EQ(board_node_read(board.board, file, text, sizeof text), 0);
    EXPECT_EQ(board_node_seek(board.board, file, 0, SEEK_SET), 0);
    EXPECT_EQ(board_node_read(board.board, file, text, sizeof text), 3);
    EXPECT_EQ(board_node_seek(board.board, file, -9, SEEK_CUR), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(board_node_seek(board.board, file, 0, SEEK_CUR), 3);
    EXPECT_EQ(board_node_write(board.board, file, "out", 3), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(board_close(board.board, file), 0);
    EXPECT_EQ(board_close(board.board, file), -1);
}

TEST(BoardGpio, ActiveLowTurnsTheValueOverAndNotTheLine) {
    TestBoard board;
    board.power_on();
    EXPECT_EQ(board.write(kGpio + "gpio17/active_low", "1"), 0);
    EXPECT_EQ(board.read(kGpio + "gpio17/value"), "0\n");
    EXPECT_TRUE(board_status(board.board).powered);
    board.write(kGpio + "gpio17/value", "1");
    EXPECT_FALSE(board_status(board.board).powered);
    board.write(kGpio + "unexport", "17");
    board.write(kGpio + "export", "17");
    EXPECT_EQ(board.read(kGpio + "gpio17/active_low"), "0\n");
}

TEST(BoardGpio, NodeUnexportedWhileOpenIsGone) {
    TestBoard board;
    board.write(kGpio + "export", "5");
    BoardFile file;
    ASSERT_EQ(board_open(board.board, file, kGpio + "gpio5/value", O_RDWR), 0);
    board.write(kGpio + "unexport", "5");
    char text[9];
    EXPECT_EQ(board_node_read(board.board, file, text, sizeof text), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(board_node_write(board.board, file, "1", 1), -1);
    EXPECT_EQ(errno, ENODEV);
}

TEST(BoardPower, LineBootsTheChipAndOnlyTheConfiguredOne) {
    BoardOptions options;
    options.power_pin = 40;
    TestBoard board(options);
    board.power_on();
    EXPECT_FALSE(board_status(board.board).powered);
    board.export_as_output(40);
    EXPECT_FALSE(board_status(board.board).powered);
    board.write(kGpio + "gpio40/value", "1");
    EXPECT_TRUE(board_status(board.board).powered);
    board.write(kGpio + "gpio40/value", "1");
    EXPECT_EQ(board_status(board.board).cold_boots, 1U);
    board.write(kGpio + "gpio40/direction", "in");
    EXPECT_FALSE(board_status(board.board).powered);
}

TEST(BoardPower, LevelOutlivesTheExport) {
    TestBoard board;
    board.power_on();
    board.write(kGpio + "unexport", "17");
    EXPECT_TRUE(board_status(board.board).powered);
    board.write(kGpio + "export", "17");
    EXPECT_EQ(board.read(kGpio + "gpio17/direction"), "out\n");
    EXPECT_EQ(board_status(board.board).cold_boots, 1U);
}

TEST(BoardSpi, OnlyTheConfiguredNodeExists) {
    TestBoard board;
    EXPECT_EQ(board.open_error(kSpi), 0);
    EXPECT_EQ(board.open_error("/dev/spidev0.0"), ENOENT);
    EXPECT_EQ(board_access(board.board, kSpi), 0);
    EXPECT_EQ(board_access(board.board, "/dev/spidev0.0"), -1);
}

TEST(BoardSpi, SettingsAreKeptAsSpidevKeepsThem) {
    TestBoard board;
    const BoardFile file = board.open_spi();
    EXPECT_EQ(board_spi(board.board).mode, static_cast<uint32_t>(SPI_LSB_FIRST));
    EXPECT_EQ(board_spi_set(board.board, file, BoardSpiSetting::mode, SPI_MODE_3), 0);
    EXPECT_EQ(board_spi(board.board).mode, static_cast<uint32_t>(SPI_MODE_3))
        << "a new mode takes the bit order along";
    EXPECT_EQ(board_spi_set(board.board, file, BoardSpiSetting::speed_hz, 24000000), 0);
    uint32_t value = 0;
    EXPECT_EQ(board_spi_get(board.board, file, BoardSpiSetting::speed_hz, value), 0);
    EXPECT_EQ(value, 24000000U);
    EXPECT_EQ(board_spi_set(board.board, file, BoardSpiSetting::bits_per_word, 8), 0);
    for (const auto& [setting, bad] :
         std::vector<std::pair<BoardSpiSetting, uint32_t>>{{BoardSpiSetting::bits_per_word, 9},
                                                           {BoardSpiSetting::speed_hz, 0},
                                                           {BoardSpiSetting::mode, SPI_NO_CS},
                                                           {BoardSpiSetting::mode, 1U << 31}}) {
        EXPECT_EQ(board_spi_set(board.board, file, setting, bad), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(BoardSpi, TheLastCloseForgetsTheSpeedAndKeepsTheMode) {
    TestBoard board;
    BoardFile first = board.open_spi();
    BoardFile second = board.open_spi();
    board_spi_set(board.board, first, BoardSpiSetting::speed_hz, 1000);
    board_spi_set(board.board, first, BoardSpiSetting::mode, SPI_CPOL);
    board_close(board.board, first);
    EXPECT_EQ(board_spi(board.board).speed_hz, 1000U);
    board_close(board.board, second);
    EXPECT_EQ(board_spi(board.board).speed_hz, kBoardSpiSpeedHz);
    EXPECT_EQ(board_spi(board.board).mode, uint32_t{SPI_CPOL});
}

TEST(BoardSpi, MessageThatTheDriverRefusesMovesNothing) {
    TestBoard board;
    const BoardFile file = board.open_spi();
    EXPECT_EQ(board.message(file, std::vector<uint8_t>(4096)).size(), 4096U);
    const std::pair<std::vector<BoardTransfer>, int> refused[] = {
        {{{nullptr, nullptr, 2, 16}}, EINVAL}, // other words
        {{{nullptr, nullptr, 2, 8, 4}}, EINVAL},
        {{{nullptr, nullptr, 2, 8, 1, 2}}, EINVAL}, // other lines
        {{{nullptr, nullptr, 4097}}, EMSGSIZE},
        {{{nullptr, nullptr, 0xFFFFFFFF}, {nullptr, nullptr, 2}}, EMSGSIZE},
    };
    for (const auto& [parts, error] : refused) {
        EXPECT_EQ(board_spi_message(board.board, file, parts.data(), parts.size()), -1);
        EXPECT_EQ(errno, error);
    }
    EXPECT_EQ(board_status(board.board).transfers, 1U);
    EXPECT_EQ(board_fault(board.board, "transfer-fail", "once"), "");
    const BoardTransfer transfer = {nullptr, nullptr, 2};
    EXPECT_EQ(board_spi_message(board.board, file, &transfer, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(board_spi_message(board.board, file, &transfer, 1), 2);
}

TEST(BoardSpi, NodesTakeTheirOwnRequestsOnly) {
    TestBoard board;
    BoardFile file;
    BoardFile i2c;
    BoardFile spi = board.open_spi();
    ASSERT_EQ(board_open(board.board, file, kGpio + "export", O_WRONLY), 0);
    ASSERT_EQ(board_open(board.board, i2c, "/dev/i2c-1", O_RDWR), 0);
    const BoardTransfer transfer = {nullptr, nullptr, 1};
    EXPECT_EQ(board_spi_message(board.board, file, &transfer, 1), -1);
    EXPECT_EQ(errno, ENOTTY);
    for (const BoardFile& other : {file, i2c}) {
        EXPECT_EQ(board_spi_set(board.board, other, BoardSpiSetting::mode, 0), -1);
        EXPECT_EQ(errno, ENOTTY);
    }
    EXPECT_EQ(board_i2c_select(board.board, spi, 0x50), -1);
    EXPECT_EQ(errno, ENOTTY);
}

TEST(BoardI2c, NodeTalksToTheSelectedAddress) {
    TestBoard board;
    board.power_on();
    EXPECT_EQ(board_access(board.board, "/dev/i2c-1"), 0);
    EXPECT_EQ(board.open_error("/dev/i2c-2"), ENOENT);
    BoardFile file;
    ASSERT_EQ(board_open(board.board, file, "/dev/i2c-1", O_RDWR), 0);
    const uint8_t probe = 0;
    const auto write = [&](size_t length) { return board_node_write(board.board, file, &probe, length); };
    EXPECT_EQ(write(1), -1) << "nobody at address 0";
    EXPECT_EQ(errno, EREMOTEIO);
    EXPECT_EQ(board_i2c_select(board.board, file, 0x50), 0);
    EXPECT_EQ(write(1), 1);
    EXPECT_EQ(board_i2c_select(board.board, file, 0x80), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(write(1), 1) << "a refused address changes nothing";
    EXPECT_EQ(write(0), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST(BoardSpi, OtherBitOrderMirrorsEveryByte) {
    TestBoard board;
    board.power_on();
    const BoardFile right = board.open_spi();
    board.message(right, {0x04});
    EXPECT_EQ(board.message(right, {0x06, 0})[1], 0x01);
    const uint8_t opcode = 0x06;
    uint8_t status = 0xEE;
    const BoardTransfer parts[] = {{&opcode, nullptr, 1}, {nullptr, &status, 1}};
    EXPECT_EQ(board_spi_message(board.board, right, parts, 2), 2);
    EXPECT_EQ(status, 0x01) << "the parts of a message are one frame";
    const BoardFile wrong = board.open_spi(false);
    EXPECT_EQ(board.message(wrong, {0x60, 0})[1], 0x80);
    board.message(wrong, {0x06, 0});
    EXPECT_EQ(board_status(board.board).last_violation, "unknown opcode (0x60)");
}

TEST(BoardSpi, PlainReadAndWriteAreOneDirectionEach) {
    TestBoard board;
    board.power_on();
    BoardFile file = board.open_spi();
    const uint8_t power_on = 0x04;
    EXPECT_EQ(board_node_write(board.board, file, &power_on, 1), 1);
    EXPECT_EQ(board.message(file, {0x06, 0})[1], 0x01);
    std::vector<uint8_t> bytes(5000);
    EXPECT_EQ(board_node_read(board.board, file, bytes.data(), 2), 2);
    EXPECT_EQ(board_node_read(board.board, file, bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST(BoardClock, DefaultClockStartsAtZeroAndUtcIsTheHosts) {
    Board board;
    board_init(board, {});
    EXPECT_LT(board.options.clock_us(), 60000000U);
    const uint64_t utc_s = (board.options.chip.utc_at_zero_us + board.options.clock_us()) / 1000000;
    EXPECT_LE(std::abs(static_cast<long long>(utc_s) - static_cast<long long>(time(nullptr))), 1);
}

TEST(BoardThreads, NodesAndFaultsFromSeveralThreads) {
    BoardOptions options;
    options.chip.full_speed = true;
    TestBoard board(options);
    board.power_on();
    const BoardFile file = board.open_spi();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&board, &file, i] {
            for (int round = 0; round < 300; ++round) {
                board.message(file, {0x06, 0});
                board_status(board.board);
                board_fault(board.board, "silence", i % 2 == 0 ? "on" : "off");
                board.read(kGpio + "gpio17/value");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(board_status(board.board).transfers, 1200U);
}

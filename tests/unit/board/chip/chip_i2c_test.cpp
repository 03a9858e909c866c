// The multiplexer's slave on I2C: commands, phases, refusals and faults, from the wire.
#include "chip_wire.h"

#include <gtest/gtest.h>

namespace {

constexpr uint8_t kCommandPort = 0x50;
constexpr uint8_t kReadPort = 0x54;
constexpr uint8_t kWritePort = 0x58;

const Bytes kReadTxLen = {0x08, 0x00, 0x51, 0xAA, 4, 0, 0, 0};
const Bytes kReadRxLen = {0x04, 0x00, 0x51, 0xAA, 4, 0, 0, 0};

Bytes read_buffer(uint8_t count) {
    return {0x00, 0x20, 0x51, 0xAA, count, 0, 0, 0};
}

Bytes write_buffer(uint16_t count) {
    return {0x00, 0x10, 0x53, 0xAA, static_cast<uint8_t>(count), static_cast<uint8_t>(count >> 8), 0, 0};
}

Bytes bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

// The host's side on I2C, of a powered chip that sends nothing by itself.
struct I2cHost {
    I2cHost() {
        ChipOptions options = quiet();
        options.utc_at_zero_us = kNoonUs;
        chip_init(chip, options);
        chip_power(chip, true, 0);
        EXPECT_EQ(write(kCommandPort, {0x00}), 1);
    }
    // Bytes taken, -1 without acknowledge.
    int write(uint8_t address, const Bytes& bytes) {
        const auto count =
            chip_i2c_write(chip, address, bytes.data(), static_cast<uint32_t>(bytes.size()), 0);
        return count ? static_cast<int>(*count) : -1;
    }
    // Bytes given, -1 without acknowledge.
    int read(uint8_t address, size_t length) {
        data.assign(length, 0xEE);
        const auto count = chip_i2c_read(chip, address, data.data(), static_cast<uint32_t>(length), 0);
        return count ? static_cast<int>(*count) : -1;
    }
    uint32_t length(const Bytes& command) {
        EXPECT_EQ(write(kCommandPort, command), 8);
        EXPECT_EQ(read(kReadPort, 4), 4);
        return le_at(data, 0, 4);
    }
    void fault(const std::string& name, const std::string& value) {
        EXPECT_EQ(chip_fault(chip, name, value, 0), "") << name << " " << value;
    }
    void expect_works() {
        fault("all", "off");
        EXPECT_EQ(write(kCommandPort, {0x00}), 1);
        EXPECT_EQ(chip_queue(chip, "abc"), "");
        const uint32_t waiting = length(kReadTxLen);
        EXPECT_EQ(write(kCommandPort, read_buffer(static_cast<uint8_t>(waiting))), 8);
        EXPECT_EQ(read(kReadPort, waiting), static_cast<int>(waiting));
        EXPECT_EQ(chip_status(chip).violations, 0U) << chip_status(chip).last_violation;
    }

    Chip chip;
    Bytes data;
};

using Lines = std::vector<std::string>;

} // namespace

TEST(ChipI2c, OffChipAcknowledgesNothing) {
    I2cHost host;
    chip_power(host.chip, false, 0);
    EXPECT_EQ(host.write(kCommandPort, {0x00}), -1);
    EXPECT_EQ(host.read(kReadPort, 4), -1);
    EXPECT_EQ(chip_status(host.chip).violations, 0U);
}

TEST(ChipI2c, ProbeForgetsAPreparedPhase) {
    I2cHost host;
    host.write(kCommandPort, kReadTxLen);
    host.write(kCommandPort, {0x00});
    EXPECT_EQ(host.read(kReadPort, 4), -1);
    EXPECT_EQ(chip_status(host.chip).violations, 1U);
}

TEST(ChipI2c, FailedPhaseCanBeTriedAgain) {
    I2cHost host;
    chip_queue(host.chip, "hello");
    host.write(kCommandPort, kReadTxLen);
    host.fault("i2c-nack", "2:0x54");
    EXPECT_EQ(host.read(kReadPort, 4), -1);
    EXPECT_EQ(host.read(kReadPort, 4), -1);
    EXPECT_EQ(host.read(kReadPort, 4), 4);
    EXPECT_EQ(host.data, (Bytes{5, 0, 0, 0}));
}

TEST(ChipI2c, ViolationIsNotAcknowledgedAndCounted) {
    const struct {
        Bytes prepared; // after Tx_len and Rx_len have been read with 5 bytes waiting; empty: none
        uint8_t address;
        size_t read; // bytes; 0: data is written instead
        Bytes data;
        const char* text;
    } rows[] = {
        {{}, 0x50, 0, {0x01}, "I2C command is not 8 bytes (0x1)"},
        {{}, 0x50, 0, {8, 0, 0x51, 0xAA, 4, 0, 0}, "I2C command is not 8 bytes (0x7)"},
        {{}, 0x50, 0, {8, 0, 0x51, 0xAB, 4, 0, 0, 0}, "I2C command without its marker (0xab)"},
        {{}, 0x50, 0, read_buffer(0), "I2C command for no bytes (0x0)"},
        {{}, 0x50, 0, {0x0C, 0, 0x51, 0xAA, 4, 0, 0, 0}, "no such address for I2C (0xc)"},
        {{}, 0x50, 0, {8, 0, 0x53, 0xAA, 4, 0, 0, 0}, "no such address for I2C (0x8)"},
        {{}, 0x50, 0, {8, 0, 0x51, 0xAA, 3, 0, 0, 0}, "I2C register length is not 4 (0x8)"},
        {{}, 0x50, 0, read_buffer(6), "I2C read of more than Tx_len said (0x6)"},
        {{}, 0x50, 0, write_buffer(0x1001), "I2C write of more than Rx_len said (0x1001)"},
        {{}, 0x54, 4, {}, "I2C read without its command or of another length (0x4)"},
        {read_buffer(5), 0x54, 4, {}, "I2C read without its command or of another length (0x4)"},
        {{}, 0x58, 0, {1}, "I2C write without its command or of another length (0x1)"},
        {write_buffer(2), 0x58, 0, {1}, "I2C write without its command or of another length (0x1)"},
        {{}, 0x54, 0, {1}, "write to no I2C port for it (0x54)"},
        {{}, 0x50, 1, {}, "read at no I2C port for it (0x50)"},
        {{}, 0x51, 1, {}, "read at no I2C port for it (0x51)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        I2cHost host;
        chip_queue(host.chip, "hello");
        host.length(kReadRxLen);
        host.length(kReadTxLen);
        if (!row.prepared.empty()) {
            ASSERT_EQ(host.write(kCommandPort, row.prepared), 8);
        }
        ASSERT_EQ(chip_status(host.chip).violations, 0U);
        EXPECT_EQ(row.read > 0 ? host.read(row.address, row.read) : host.write(row.address, row.data), -1);
        EXPECT_EQ(chip_status(host.chip).violations, 1U);
        EXPECT_EQ(chip_status(host.chip).last_violation, row.text);
    }
}

TEST(ChipI2cFault, MissingAcknowledgesCountDownAtTheirAddressOnly) {
    I2cHost host;
    host.fault("i2c-nack", "2:0x50");
    EXPECT_EQ(chip_status(host.chip).faults, Lines{"i2c-nack 2:0x50"});
    EXPECT_EQ(host.write(kCommandPort, {0x00}), -1);
    EXPECT_EQ(host.write(kCommandPort, {0x00}), -1);
    EXPECT_EQ(host.write(kCommandPort, {0x00}), 1);
    host.fault("i2c-nack", "once");
    EXPECT_EQ(chip_status(host.chip).faults,
              (Lines{"i2c-nack 1:0x50", "i2c-nack 1:0x54", "i2c-nack 1:0x58"}));
    host.fault("i2c-nack", "off:0x54");
    EXPECT_EQ(chip_status(host.chip).faults, (Lines{"i2c-nack 1:0x50", "i2c-nack 1:0x58"}));
    host.fault("i2c-nack", "always:0x50");
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(host.write(kCommandPort, {0x00}), -1);
    }
    host.expect_works();
}

TEST(ChipI2cFault, ShortPhasesMoveHalfTheBytesAndKeepTheRest) {
    I2cHost host;
    chip_queue(host.chip, "hello!");
    host.fault("i2c-short", "read");
    EXPECT_EQ(host.write(kCommandPort, kReadTxLen), 8);
    EXPECT_EQ(host.read(kReadPort, 4), 2);
    EXPECT_EQ(host.data[0], 6);
    EXPECT_EQ(host.write(kCommandPort, read_buffer(6)), 8);
    EXPECT_EQ(host.read(kReadPort, 6), 3);
    EXPECT_EQ(Bytes(host.data.begin(), host.data.begin() + 3), bytes_of("hel"));
    EXPECT_EQ(chip_status(host.chip).bytes_queued, 3U);

    host.fault("i2c-short", "write");
    host.length(kReadRxLen);
    host.write(kCommandPort, write_buffer(1));
    EXPECT_EQ(host.write(kWritePort, {'x'}), 1) << "never less than one byte";
    host.write(kCommandPort, write_buffer(5));
    EXPECT_EQ(host.write(kWritePort, bytes_of("abcde")), 2);
    host.fault("i2c-short", "on");
    EXPECT_EQ(chip_status(host.chip).faults, Lines{"i2c-short on"});
    host.expect_works();
}

TEST(ChipI2cFault, LengthsThatLie) {
    I2cHost host;
    chip_queue(host.chip, "abc");
    host.fault("zero-length", "on");
    EXPECT_EQ(host.length(kReadTxLen), 0U);
    EXPECT_EQ(host.length(kReadRxLen), 0U);
    host.fault("zero-length", "rx");
    EXPECT_EQ(host.length(kReadTxLen), 3U);
    EXPECT_EQ(chip_status(host.chip).faults, Lines{"zero-length rx"});
    host.fault("all", "off");
    host.fault("hostile-length", "on");
    EXPECT_EQ(host.length(kReadRxLen), 0xFFFFFFFFU);
    EXPECT_EQ(host.length(kReadTxLen), 0xFFFFFFFFU);
    EXPECT_EQ(host.write(kCommandPort, read_buffer(5)), 8);
    EXPECT_EQ(host.read(kReadPort, 5), 5);
    EXPECT_EQ(host.data, (Bytes{'a', 'b', 'c', 0xFF, 0xFF}));
    host.expect_works();
}

TEST(ChipI2cFault, SilenceNeverReadyAndFailingTransfersAreNotAcknowledged) {
    I2cHost host;
    host.fault("silence", "on");
    EXPECT_EQ(host.write(kCommandPort, {0x00}), -1);
    host.fault("silence", "off");
    host.fault("never-ready", "on");
    EXPECT_EQ(host.write(kCommandPort, kReadTxLen), 8);
    EXPECT_EQ(host.read(kReadPort, 4), -1);
    host.fault("never-ready", "off");
    host.fault("transfer-fail", "once");
    EXPECT_EQ(host.write(kCommandPort, {0x00}), -1);
    EXPECT_EQ(host.write(kCommandPort, {0x00}), 1);
    host.expect_works();
}

TEST(ChipI2cFault, ZeroAndGarbageTakeEverythingAndDoNothing) {
    I2cHost host;
    host.fault("zero", "on");
    EXPECT_EQ(host.write(kWritePort, {1, 2, 3}), 3);
    EXPECT_EQ(host.read(kReadPort, 4), 4);
    EXPECT_EQ(host.data, Bytes(4));
    host.fault("all", "off");
    host.fault("garbage", "on");
    EXPECT_EQ(host.read(kReadPort, 64), 64);
    EXPECT_NE(host.data, Bytes(64, 0xEE));
    EXPECT_EQ(chip_status(host.chip).bytes_received, 0U);
    host.expect_works();
}

TEST(ChipI2cFault, LengthReadInGarbageExcusesItsDirectionUntilItIsReadAnew) {
    I2cHost host;
    host.fault("garbage", "data");
    host.length(kReadRxLen);
    host.fault("garbage", "off");
    EXPECT_EQ(host.write(kCommandPort, {0x00}), 1) << "the other direction's probe";
    EXPECT_EQ(host.length(kReadTxLen), 0U);
    const Bytes too_much = {0x00, 0x10, 0x53, 0xAA, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(host.write(kCommandPort, too_much), -1);
    EXPECT_EQ(chip_status(host.chip).violations, 0U) << chip_status(host.chip).last_violation;
    EXPECT_EQ(host.write(kCommandPort, read_buffer(1)), -1);
    EXPECT_EQ(chip_status(host.chip).violations, 1U) << "the direction that is in step";
    EXPECT_EQ(host.length(kReadRxLen), 4096U);
    EXPECT_EQ(host.write(kCommandPort, too_much), -1);
    EXPECT_EQ(chip_status(host.chip).violations, 2U);
}

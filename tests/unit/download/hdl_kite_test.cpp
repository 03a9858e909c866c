#include "download/hdl_kite.h"
#include "hdl_fakes.h"

#include <gtest/gtest.h>

namespace {

Bytes bytes_of(const KiteCommand& command) {
    return Bytes(command.bytes, command.bytes + command.size);
}

uint32_t noise(const Bytes& data) {
    return kite_noise(data.data(), static_cast<uint32_t>(data.size()));
}

} // namespace

TEST(KiteCommand, WithoutPayloadHoldsTheIdentifierOnly) {
    KiteCommand command;
    kite_begin(&command, KITE_FLASH_ADDRESS);
    kite_end(&command);
    EXPECT_EQ(bytes_of(command), (Bytes{0x05, 0x5A, 2, 0, 0x0E, 0x21}));
}

TEST(KiteCommand, FieldsAreLittleEndianInTheirOrder) {
    KiteCommand command;
    kite_begin(&command, 0x2105);
    kite_add_u8(&command, 0x11);
    kite_add_u16(&command, 0x2233);
    kite_add_u32(&command, 0x44556677);
    kite_end(&command);
    EXPECT_EQ(bytes_of(command),
              (Bytes{0x05, 0x5A, 9, 0, 0x05, 0x21, 0x11, 0x33, 0x22, 0x77, 0x66, 0x55, 0x44}));
}

TEST(KiteCommand, TheChecksumIsCountedByTheLengthThatItCovers) {
    KiteCommand command;
    kite_begin(&command, KITE_FORMAT);
    kite_add_u32(&command, 0x10000);
    kite_add_u32(&command, 0x1000);
    kite_end_with_crc(&command);
    EXPECT_EQ(bytes_of(command), with_crc({0x05, 0x5A, 14, 0, 0x04, 0x21, 0, 0, 1, 0, 0, 0x10, 0, 0}));
}

TEST(KiteCommand, TheLongestFrameIsABlock) {
    KiteCommand command;
    kite_begin(&command, KITE_WRITE_BLOCK);
    kite_add_u32(&command, 0x8000);
    kite_add_u16(&command, 4096);
    kite_add_bytes(&command, Bytes(4096, 0xAB).data(), 4096);
    kite_end_with_crc(&command);
    EXPECT_EQ(bytes_of(command), with_crc(Bytes{0x05, 0x5A, 0x0C, 0x10, 0x00, 0x21, 0, 0x80, 0, 0, 0, 0x10} +
                                          Bytes(4096, 0xAB)));
    EXPECT_EQ(command.size, 4112U);
}

TEST(KiteCommand, WhatDoesNotFitIsLeftOut) {
    KiteCommand command;
    kite_begin(&command, KITE_WRITE_BLOCK);
    kite_add_bytes(&command, Bytes(4107).data(), 4107);
    EXPECT_EQ(command.size, 6U);
    kite_add_bytes(&command, Bytes(4106).data(), 4106);
    kite_add_u8(&command, 1);
    EXPECT_EQ(command.size, 4112U);
}

TEST(KiteNoise, IsWhatStandsBeforeAStart) {
    EXPECT_EQ(noise({}), 0U);
    EXPECT_EQ(noise({0x05, '[', 3, 0, 1, 2}), 0U);
    EXPECT_EQ(noise({0x05, ']', 3, 0, 1, 2}), 0U);
    EXPECT_EQ(noise({0x05, 'Z', 3, 0, 1, 2}), 1U);
    EXPECT_EQ(noise({9, 9, 0x05, 0x05, '[', 3, 0, 1, 2}), 3U);
    EXPECT_EQ(noise({'[', 0x05, ']', 3, 0, 1, 2, 7}), 1U);
}

TEST(KiteNoise, TheLastFiveBytesAreNotLookedAt) {
    EXPECT_EQ(noise(Bytes(5, 9)), 0U);
    EXPECT_EQ(noise(Bytes(6, 9)), 1U);
    EXPECT_EQ(noise(Bytes(100, 9)), 95U);
    EXPECT_EQ(noise({9, 9, 0x05, '[', 3, 0}), 1U);
}

TEST(KiteFrame, AnnouncesItsLengthAndFourBytes) {
    EXPECT_EQ(kite_announced_size(Bytes{0x05, '[', 0, 0, 0, 0}.data()), 4U);
    EXPECT_EQ(kite_announced_size(Bytes{0x05, '[', 0x0C, 0x10, 0, 0}.data()), 4112U);
    EXPECT_EQ(kite_announced_size(Bytes{0x05, '[', 0xFF, 0xFF, 0, 0}.data()), 65539U);
}

TEST(KiteFrame, HasNoIdentifierWhenItEndsBeforeIt) {
    const Bytes frame = {0x05, ']', 0, 0, 0x10, 0x0F};
    EXPECT_TRUE(kite_has_id(frame.data(), 6, 0x0F10));
    EXPECT_FALSE(kite_has_id(frame.data(), 5, 0x0F10));
    EXPECT_FALSE(kite_has_id(frame.data(), 6, 0x0F11));
    EXPECT_TRUE(kite_is_log(frame.data(), 6));
    EXPECT_FALSE(kite_is_log(frame.data(), 4));
}

TEST(KiteFrame, AResponseIsNoLogWhateverItsIdentifier) {
    const Bytes frame = {0x05, '[', 2, 0, 0x10, 0x0F};
    EXPECT_FALSE(kite_is_log(frame.data(), 6));
}

TEST(KiteFrame, ALogsTextBeginsAtItsThirteenthByte) {
    EXPECT_EQ(kite_log_text_size(6), 0U);
    EXPECT_EQ(kite_log_text_size(11), 0U);
    EXPECT_EQ(kite_log_text_size(12), 0U);
    EXPECT_EQ(kite_log_text_size(13), 1U);
    EXPECT_EQ(kite_log_text_size(4112), 4100U);
}

TEST(KiteResponse, IsAsLongAsWhatItCarries) {
    for (const uint16_t id : std::initializer_list<uint16_t>{0x2100, 0x2104, 0x210E, 0x210F, 0x211A}) {
        EXPECT_EQ(kite_kind(id).least, 11U) << std::hex << id;
    }
    EXPECT_EQ(kite_kind(0x2110).least, 10U);
    EXPECT_EQ(kite_kind(0x211B).least, 8U);
    for (const uint16_t id : std::initializer_list<uint16_t>{0x2106, 0x2115, 0x2116, 0x211C, 0x1234}) {
        EXPECT_EQ(kite_kind(id).least, 7U) << std::hex << id;
    }
}

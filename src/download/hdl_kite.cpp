#include "download/hdl_kite.h"

#include "base/byte_order.h"
#include "download/crc32_calc.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr uint8_t kStart = 0x05;
constexpr uint8_t kCommand = 0x5A;
constexpr uint8_t kResponse = 0x5B;
constexpr uint8_t kNotification = 0x5D;

constexpr uint32_t kLengthAt = 2;
constexpr uint32_t kIdAt = 4; // and what the length counts from

constexpr uint32_t kPlain = kKitePayloadAt; // bytes of responses, by payload
constexpr uint32_t kWithDfu = kPlain + 1;
constexpr uint32_t kWithFlashId = kPlain + kFlashIdSize;
constexpr uint32_t kWithU32 = kPlain + 4;
constexpr uint32_t kWithData = kKiteDataAt;
constexpr uint32_t kAsItComes = 0; // Kept: an SPI link is asked for no byte of these

constexpr KiteKind kKinds[] = {
    {KITE_WRITE_BLOCK, KitePayload::u32, kWithU32, kWithU32},
    {KITE_READ_BACK, KitePayload::data, kWithData, kWithData + kReadbackSize},
    {KITE_FORMAT, KitePayload::u32, kWithU32, kWithU32},
    {KITE_FINISH, KitePayload::none, kPlain, kPlain},
    {KITE_READ_OTP, KitePayload::data, kWithData, kAsItComes},
    {KITE_FLASH_ADDRESS, KitePayload::u32, kWithU32, kWithU32},
    {KITE_FLASH_SIZE, KitePayload::u32, kWithU32, kWithU32},
    {KITE_FLASH_ID, KitePayload::flash_id, kWithFlashId, kWithFlashId},
    {KITE_LINE_SPEED, KitePayload::none, kPlain, kPlain},
    {KITE_FLOW_CONTROL, KitePayload::none, kPlain, kPlain},
    {KITE_IMAGE_CRC, KitePayload::u32, kWithU32, kWithU32},
    {KITE_DFU_START, KitePayload::dfu, kWithDfu, kAsItComes},
    {KITE_DFU_RESET, KitePayload::cleared, kPlain, kAsItComes},
};

constexpr KiteKind kNoCommand = {KITE_LOG, KitePayload::none, kPlain, kPlain};

bool starts_frame(const uint8_t* data) {
    return data[0] == kStart && (data[1] == kResponse || data[1] == kNotification);
}

} // namespace

const KiteKind& kite_kind(uint16_t id) {
    const auto* kind =
        std::find_if(std::begin(kKinds), std::end(kKinds), [id](const KiteKind& k) { return k.id == id; });
    return kind == std::end(kKinds) ? kNoCommand : *kind;
}

void kite_begin(KiteCommand* command, uint16_t id) {
    command->bytes[0] = kStart;
    command->bytes[1] = kCommand;
    store_le16(command->bytes + kLengthAt, 0);
    store_le16(command->bytes + kIdAt, id);
    command->size = kKiteHeadSize;
}

void kite_add_u8(KiteCommand* command, uint8_t value) {
    kite_add_bytes(command, &value, sizeof value);
}

void kite_add_u16(KiteCommand* command, uint16_t value) {
    uint8_t field[sizeof value];
    store_le16(field, value);
    kite_add_bytes(command, field, sizeof field);
}

void kite_add_u32(KiteCommand* command, uint32_t value) {
    uint8_t field[sizeof value];
    store_le32(field, value);
    kite_add_bytes(command, field, sizeof field);
}

void kite_add_bytes(KiteCommand* command, const uint8_t* data, uint32_t n) {
    if (n > kKiteFrameSize - command->size) {
        return;
    }
    memcpy(command->bytes + command->size, data, n);
    command->size += n;
}

void kite_end(KiteCommand* command) {
    store_le16(command->bytes + kLengthAt, static_cast<uint16_t>(command->size - kIdAt));
}

void kite_end_with_crc(KiteCommand* command) {
    constexpr uint32_t kCrcSize = 4;
    // The CRC covers the length, which counts the CRC.
    store_le16(command->bytes + kLengthAt, static_cast<uint16_t>(command->size + kCrcSize - kIdAt));
    kite_add_u32(command, crc32_calc(command->bytes, command->size));
}

uint32_t kite_noise(const uint8_t* data, uint32_t count) {
    uint32_t noise = 0;
    while (count - noise >= kKiteHeadSize && !starts_frame(data + noise)) {
        ++noise;
    }
    return noise;
}

uint32_t kite_announced_size(const uint8_t* data) {
    return load_le16(data + kLengthAt) + kIdAt;
}

bool kite_has_id(const uint8_t* frame, uint32_t size, uint16_t id) {
    return size >= kKiteHeadSize && load_le16(frame + kIdAt) == id;
}

bool kite_is_log(const uint8_t* frame, uint32_t size) {
    return frame[1] == kNotification && kite_has_id(frame, size, KITE_LOG);
}

uint32_t kite_log_text_size(uint32_t size) {
    return size > kKiteLogTextAt ? size - kKiteLogTextAt : 0;
}

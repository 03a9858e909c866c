#include "nmea/location_frame.h"

#include "base/byte_order.h"

#include <cstring>

namespace {

constexpr uint8_t kBinaryStart = 0x04;
constexpr uint8_t kSentenceStart = '$';

// Binary frame: 0x04 '$', two bytes of the chip's own, payload length (little-endian), payload, checksum,
// 0xAA 'D'.
constexpr uint32_t kBinaryStartSize = 2;
constexpr uint32_t kBinaryLengthOffset = 4;
constexpr uint32_t kBinaryHeaderSize = 6;
constexpr uint32_t kBinaryOverhead = 9; // all but the payload
constexpr uint8_t kBinaryTail0 = 0xAA;
constexpr uint8_t kBinaryTail1 = 'D';

constexpr uint32_t kSentenceMin = 11; // fewer bytes are not judged
constexpr uint32_t kSentenceTail = 5; // '*', two digits, CR LF
constexpr char kPzul[] = "PZUL";
constexpr char kTalkers[][3] = {"GP", "GL", "GB", "GA", "GI", "GN"};

uint8_t xor_of(const uint8_t* p, int32_t n) {
    uint8_t sum = 0;
    for (int32_t i = 0; i < n; ++i) {
        sum ^= p[i];
    }
    return sum;
}

bool is_start(const uint8_t* buffer, uint32_t length, uint32_t i) {
    if (buffer[i] == kSentenceStart) {
        return true;
    }
    return buffer[i] == kBinaryStart && i + 1 < length && buffer[i + 1] == kSentenceStart;
}

// The first start, or length when there is none. A 0x04 that is the last byte is no start: it goes with the
// noise.
uint32_t find_start(const uint8_t* buffer, uint32_t length) {
    uint32_t i = 0;
    while (i < length && !is_start(buffer, length, i)) {
        ++i;
    }
    return i;
}

uint32_t parse_binary(const uint8_t* buffer, uint32_t length, uint32_t* type) {
    if (length < kBinaryOverhead) {
        return 0;
    }
    const uint32_t payload = load_le16(buffer + kBinaryLengthOffset);
    if (payload + kBinaryOverhead > length) {
        return 0;
    }
    const uint8_t* after_payload = buffer + kBinaryHeaderSize + payload;
    if (after_payload[1] != kBinaryTail0 || after_payload[2] != kBinaryTail1) {
        return kBinaryStartSize;
    }
    const auto covered = static_cast<int32_t>(kBinaryHeaderSize - kBinaryStartSize + payload);
    if (after_payload[0] == location_binary_checksum(buffer + kBinaryStartSize, covered)) {
        *type = FRAME_BINARY;
    }
    return payload + kBinaryOverhead;
}

// The type that a sentence's address announces; at least four bytes are readable.
uint32_t sentence_type(const uint8_t* address) {
    if (memcmp(address, kPzul, sizeof kPzul - 1) == 0) {
        return FRAME_PZUL;
    }
    for (const auto& talker : kTalkers) {
        if (memcmp(address, talker, sizeof talker - 1) == 0) {
            return FRAME_NMEA;
        }
    }
    return FRAME_NONE;
}

// Value of an upper-case hexadecimal digit, -1 for anything else: the chip writes no lower-case ones.
int32_t hex_digit(uint8_t c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

uint32_t parse_sentence(const uint8_t* buffer, uint32_t length, uint32_t* type) {
    if (length < kSentenceMin) {
        return 0;
    }
    const uint32_t announced = sentence_type(buffer + 1);
    if (announced == FRAME_NONE) {
        return 1;
    }
    const auto* star = static_cast<const uint8_t*>(memchr(buffer, '*', length));
    if (star == nullptr) {
        return 0;
    }
    const auto before_star = static_cast<uint32_t>(star - buffer);
    if (before_star + kSentenceTail > length) {
        return 0;
    }
    const int32_t high = hex_digit(star[1]);
    const int32_t low = hex_digit(star[2]);
    if (star[3] != '\r' || star[4] != '\n' || high < 0 || low < 0) {
        return 1;
    }
    if (high * 16 + low == location_nmea_checksum(buffer + 1, static_cast<int32_t>(before_star) - 1)) {
        *type = announced;
    }
    return before_star + kSentenceTail;
}

} // namespace

uint32_t location_io_frame_parse(const uint8_t* buffer, uint32_t length, uint32_t* type) {
    *type = FRAME_NONE;
    const uint32_t start = find_start(buffer, length);
    if (start == length) {
        return length < 2 ? 0 : length;
    }
    if (start > 0) {
        return start;
    }
    return buffer[0] == kSentenceStart ? parse_sentence(buffer, length, type)
                                       : parse_binary(buffer, length, type);
}

uint8_t location_nmea_checksum(const uint8_t* p, int32_t n) {
    return xor_of(p, n);
}

uint8_t location_binary_checksum(const uint8_t* p, int32_t n) {
    return p == nullptr ? uint8_t{0} : xor_of(p, n);
}

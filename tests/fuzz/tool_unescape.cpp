// Unescape of the firmware download against a model that follows each byte on its own. The input's first byte
// cuts the rest into calls of that many bytes, so that the escape flag is carried over at every place.
#include "download/tool_text.h"
#include "support/bytes.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t kCanarySize = 16;
constexpr uint8_t kCanary = 0xA5;

void check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "tool unescape: %s\n", what);
        abort();
    }
}

// Which byte a pair stands for, or -1.
int pair_value(uint8_t partner) {
    switch (partner) {
    case 0x88:
        return 0x77;
    case 0xEE:
        return 0x11;
    case 0xEC:
        return 0x13;
    default:
        return -1;
    }
}

// Slots are what each byte but the escape leaves behind; a slot without a value keeps its old content.
struct Model {
    bool escaped = false;

    size_t decode(Bytes* buffer) {
        Bytes decoded = *buffer;
        size_t slot = 0;
        size_t pairs = 0;
        for (const uint8_t byte : *buffer) {
            if (byte == 0x77) {
                escaped = true;
                continue;
            }
            const int value = escaped ? pair_value(byte) : byte;
            if (value >= 0) {
                decoded[slot] = static_cast<uint8_t>(value);
            }
            pairs += escaped && value >= 0 ? 1 : 0;
            escaped = false;
            ++slot;
        }
        const size_t length = decoded.size() - pairs;
        std::fill(decoded.begin() + static_cast<std::ptrdiff_t>(length), decoded.end(), uint8_t{0});
        *buffer = decoded;
        return length;
    }
};

uint32_t unescape(Bytes* bytes) {
    Bytes guarded(bytes->size() + 2 * kCanarySize, kCanary);
    const auto begin = guarded.begin() + kCanarySize;
    const auto end = std::copy(bytes->begin(), bytes->end(), begin);
    const uint32_t length =
        tool_unescape_flow_control(guarded.data() + kCanarySize, static_cast<uint32_t>(bytes->size()));
    const auto is_canary = [](uint8_t byte) { return byte == kCanary; };
    check(std::all_of(guarded.begin(), begin, is_canary), "wrote before the buffer");
    check(std::all_of(end, guarded.end(), is_canary), "wrote behind the buffer");
    bytes->assign(begin, end);
    return length;
}

void check_call(Bytes bytes, Model* model) {
    Bytes expected = bytes;
    const size_t expected_length = model->decode(&expected);
    check(unescape(&bytes) == expected_length, "length differs");
    check(bytes == expected, "bytes differ");
}

void check_round_trip(const Bytes& plain) {
    Bytes escaped(kToolEscapeSize);
    const uint32_t length =
        tool_escape_flow_control(plain.data(), static_cast<uint32_t>(plain.size()), escaped.data());
    if (length > kToolEscapeSize) {
        return;
    }
    escaped.resize(length);
    check(unescape(&escaped) == plain.size(), "a round trip changes the length");
    check(std::equal(plain.begin(), plain.end(), escaped.begin()), "a round trip changes bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
    check(quiet, "can't silence the log");
    if (size == 0) {
        return 0;
    }
    const size_t call_size = std::max<size_t>(data[0], 1);
    Model model;
    for (size_t at = 1; at < size; at += call_size) {
        check_call(Bytes(data + at, data + std::min(size, at + call_size)), &model);
    }
    check_call({0x88}, &model); // leaves no flag behind
    check_round_trip(Bytes(data, data + size));
    return 0;
}

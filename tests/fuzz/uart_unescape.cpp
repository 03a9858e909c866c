// UART unescape against a model that follows each byte on its own. The input's first byte cuts the rest into
// reads of that many bytes, so that the escape state is carried over at every place.
#include "device/location_uart_escape.h"
#include "fuzz.h"
#include "support/bytes.h"

namespace {

constexpr size_t kCanarySize = 16;
constexpr uint8_t kCanary = 0xA5;

// A read as the model decodes it: a slot without a value keeps its old content.
struct Model {
    bool escaped = false;

    size_t decode(Bytes* buffer) {
        Bytes decoded = *buffer;
        size_t counted = 0; // bytes that count as delivered
        size_t slot = 0;
        counted += escaped ? 1 : 0;
        for (const uint8_t byte : *buffer) {
            ++counted;
            const bool partner = escaped && byte != 0x77;
            const bool known = byte == 0x88 || byte == 0xEE || byte == 0xEC;
            if (byte == 0x77) {
                escaped = true;
                continue;
            }
            if (partner && known) {
                decoded[slot] = byte == 0x88 ? 0x77 : byte == 0xEE ? 0x11 : 0x13;
                --counted;
            } else if (!partner) {
                decoded[slot] = byte;
            }
            ++slot;
            escaped = false;
        }
        counted -= escaped ? 1 : 0;
        for (size_t i = counted; i < decoded.size(); ++i) {
            decoded[i] = 0;
        }
        *buffer = decoded;
        return counted;
    }
};

// Unescapes one read between canaries.
uint32_t unescape(Bytes* bytes, uint32_t* state) {
    Bytes guarded(bytes->size() + 2 * kCanarySize, kCanary);
    const auto begin = guarded.begin() + kCanarySize;
    const auto end = std::copy(bytes->begin(), bytes->end(), begin);
    const uint32_t count =
        location_uart_unescape(guarded.data() + kCanarySize, static_cast<uint32_t>(bytes->size()), state);
    const auto is_canary = [](uint8_t byte) { return byte == kCanary; };
    require(std::all_of(guarded.begin(), begin, is_canary), "wrote before the buffer");
    require(std::all_of(end, guarded.end(), is_canary), "wrote behind the buffer");
    bytes->assign(begin, end);
    return count;
}

void check_read(Bytes bytes, Model* model, uint32_t* state) {
    Bytes expected = bytes;
    const bool carried_over = *state == 1;
    const size_t expected_count = model->decode(&expected);
    const uint32_t count = unescape(&bytes, state);
    require(count == expected_count, "count differs");
    require(count <= bytes.size() + (carried_over ? 1 : 0), "count exceeds what was read");
    require(bytes == expected, "bytes differ");
    require(*state == (model->escaped ? 1U : 0U), "state differs");
}

void check_round_trip(const Bytes& plain) {
    Bytes escaped(2 * plain.size());
    escaped.resize(location_uart_escape(plain.data(), static_cast<uint32_t>(plain.size()), escaped.data()));
    uint32_t state = 0;
    const uint32_t count = unescape(&escaped, &state);
    require(count == plain.size() && state == 0, "a round trip changes the length");
    require(std::equal(plain.begin(), plain.end(), escaped.begin()), "a round trip changes bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const size_t read_size = std::max<size_t>(data[0], 1);
    Model model;
    uint32_t state = 0;
    for (size_t at = 1; at < size; at += read_size) {
        check_read(Bytes(data + at, data + std::min(size, at + read_size)), &model, &state);
    }
    check_round_trip(Bytes(data, data + size));
    return 0;
}

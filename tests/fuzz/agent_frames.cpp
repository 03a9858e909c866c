// The download agent's receiver and waiters on hostile bytes, against a model that cuts the whole stream into
// frames anew: codes, payloads and what stays in the pool agree, no byte beside an area is touched, and every
// wait ends. Input: the link, then for each round a waiter and what arrives meanwhile, in pieces of given
// length (0: silence).
#include "download/hdl_da.h"
#include "download/hdl_pool.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_time.h"
#include "fuzz.h"
#include "support/bytes.h"

#include <cstdarg>
#include <cstddef>

namespace {

constexpr int64_t kWaitMs = 1000;
constexpr int64_t kSilenceMs = 100;
constexpr uint8_t kUntouched = 0xA5;

struct World {
    const uint8_t* next;
    const uint8_t* end;
    int64_t now;
    Bytes stream; // what came since the pool was emptied, less what was taken
} world;

uint8_t take_byte() {
    return world.next < world.end ? *world.next++ : 0;
}

// Takes the next frame that is no log from the stream; empty when there is none.
Bytes model_frame() {
    Bytes& stream = world.stream;
    for (size_t at = 0; at + 6 <= stream.size();) {
        if (stream[at] != 0x05 || (stream[at + 1] != 0x5B && stream[at + 1] != 0x5D)) {
            ++at;
            continue;
        }
        const size_t size = le_at(stream, at + 2, 2) + 4;
        if (size > 4112) {
            at += 2;
            continue;
        }
        if (at + size > stream.size()) {
            return {};
        }
        const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(at);
        const Bytes frame(begin, begin + static_cast<std::ptrdiff_t>(size));
        at += size;
        if (frame[1] == 0x5B || size < 6 || le_at(frame, 4, 2) != 0x0F10) {
            stream.erase(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(at));
            return frame;
        }
    }
    return {};
}

// What a waiter for this identifier says to the frame when it needs this many bytes and takes no more.
uint32_t model_code(const Bytes& frame, uint16_t id, size_t least, size_t most) {
    if (frame.size() < 6 || le_at(frame, 4, 2) != id) {
        return HDL_DA_FOREIGN;
    }
    const bool fits = frame.size() >= least && frame.size() <= most && frame.size() > 6;
    return fits && frame[6] == 0 ? HDL_DA_OK : HDL_DA_FAILED;
}

void check_pool() {
    const ToolRxBuffer* pool = tool_rx_buffer_get();
    require(pool->count < kToolRxBufferSize, "a pool filled to its end");
    require(pool->count <= world.stream.size() &&
                std::equal(pool->data, pool->data + pool->count, world.stream.end() - pool->count),
            "a pool that is not the end of the stream");
}

// After a wait: the frame that was taken, empty after a time-out.
Bytes taken_frame(uint32_t code, int64_t start) {
    require(code <= HDL_DA_FAILED, "an unknown code");
    require(world.now - start <= kWaitMs + kSilenceMs, "a wait that does not end");
    check_pool();
    if (code == HDL_DA_TIMEOUT) {
        require(world.now - start >= kWaitMs, "a wait that ends early");
        return {};
    }
    Bytes frame = model_frame();
    require(!frame.empty(), "a frame that never came");
    require(world.stream.size() == tool_rx_buffer_get()->count, "a frame that was not taken whole");
    return frame;
}

// The area is exactly as long as its kind.
void run_response(uint16_t id, uint32_t expected, size_t payload_at, size_t payload_size) {
    Bytes out(payload_size, kUntouched);
    const int64_t start = world.now;
    const uint32_t code = hdl_da_wait_response(id, payload_size == 0 ? nullptr : out.data(), expected);
    const Bytes frame = taken_frame(code, start);
    if (code != HDL_DA_TIMEOUT) {
        require(code == model_code(frame, id, payload_at + payload_size, 4112),
                "another code for a response");
    }
    if (code != HDL_DA_OK) {
        require(out == Bytes(payload_size, kUntouched), "a payload without success");
        return;
    }
    require(std::equal(out.begin(), out.end(), frame.begin() + static_cast<std::ptrdiff_t>(payload_at)),
            "another payload");
}

void run_flash_id() {
    Bytes id(kFlashIdSize, kUntouched);
    const int64_t start = world.now;
    const uint32_t code = hdl_da_wait_flash_id(0x2110, id.data());
    const Bytes frame = taken_frame(code, start);
    require(code == HDL_DA_TIMEOUT || code == model_code(frame, 0x2110, 10, 4112), "another code for an id");
    require(code != HDL_DA_OK || std::equal(id.begin(), id.end(), frame.begin() + 7), "another id");
}

void run_data(uint32_t room, uint32_t expected) {
    Bytes data(room, kUntouched);
    uint32_t address = 0;
    uint32_t crc = 0;
    const int64_t start = world.now;
    const uint32_t code = hdl_da_wait_data(0x2101, &address, &crc, data.data(), room, expected);
    const Bytes frame = taken_frame(code, start);
    if (code != HDL_DA_TIMEOUT) {
        require(code == model_code(frame, 0x2101, 15, 15 + size_t{room}), "another code for data");
    }
    if (code != HDL_DA_OK) {
        require(data == Bytes(room, kUntouched), "data without success");
        return;
    }
    require(address == le_at(frame, 7, 4) && crc == le_at(frame, 11, 4), "another address or checksum");
    require(std::equal(frame.begin() + 15, frame.end(), data.begin()), "other data");
}

// Questions one after the other; the pool is emptied first.
void run_flash_info() {
    world.stream.clear();
    FlashInfo info = {};
    const int64_t start = world.now;
    hdl_da_get_flash_info(&info);
    require(world.now - start <= 6 * (kWaitMs + kSilenceMs), "questions that do not end");
    check_pool();
    const ToolRxBuffer* pool = tool_rx_buffer_get();
    world.stream.assign(pool->data, pool->data + pool->count);
}

void run_round() {
    switch (take_byte() % 8) {
    case 0:
        return run_response(0x2104, 11, 7, 4);
    case 1:
        return run_response(0x2100, 4112, 7, 4);
    case 2:
        return run_response(0x2106, 7, 7, 0);
    case 3:
        return run_response(0x211B, 8, 6, 2);
    case 4:
        return run_flash_id();
    case 5:
        return run_data(take_byte(), 4112);
    case 6:
        return run_data(2048, 2063);
    default:
        return run_flash_info();
    }
}

} // namespace

bool hdl_transport_send(const uint8_t*, uint32_t, uint32_t) {
    return true;
}

bool hdl_transport_set_speed(uint32_t) {
    return true;
}

void hdl_transport_link_hook(uint32_t) {}

uint32_t hdl_transport_receive(uint8_t* buffer, uint32_t n) {
    const uint32_t piece = take_byte() * 16U; // up to about a frame
    const auto left = static_cast<size_t>(world.end - world.next);
    const auto count = static_cast<uint32_t>(std::min<size_t>({piece, n, left}));
    world.now += count == 0 ? kSilenceMs : 1;
    if (count > 0) {
        memcpy(buffer, world.next, count);
        world.stream.insert(world.stream.end(), world.next, world.next + count);
        world.next += count;
    }
    return count;
}

void tool_log_error(const char* format, ...) {
    if (strstr(format, "overflow") != nullptr) {
        world.stream.clear();
    }
}

void tool_log_info(const char* format, ...) {
    char text[8192];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
}

int64_t tool_time_now_ms() {
    return world.now;
}

int64_t tool_time_passed_ms() {
    return world.now;
}

void tool_sleep_ms(int64_t ms) {
    world.now += ms;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    world = {bytes, bytes + size, 0, {}};
    tool_rx_buffer_clear();
    g_download_settings.link_type = take_byte() % 3;
    while (world.next < world.end) {
        run_round();
    }
    return 0;
}

// The frame parser on hostile bytes: every result lies inside the data, the stream is consumed, and what is
// taken as a frame is one by the rules written down here anew.
#include "fuzz.h"
#include "nmea/location_frame.h"

#include <string_view>

namespace {

constexpr size_t kBufferSize = 15360; // of the receive thread
constexpr std::string_view kGood = "$GPGGA,1,2,3*4A\r\n";

unsigned xor_of(std::string_view bytes) {
    unsigned sum = 0;
    for (const char c : bytes) {
        sum ^= static_cast<uint8_t>(c);
    }
    return sum;
}

bool is_sentence(std::string_view frame, uint32_t type) {
    constexpr std::string_view kTalkers = "GP GL GB GA GI GN";
    const bool talker_fits = type == FRAME_PZUL
                                 ? frame.substr(0, 5) == "$PZUL"
                                 : kTalkers.find(frame.substr(1, 2)) % 3 == 0 && frame[0] == '$';
    const size_t star = frame.find('*');
    if (!talker_fits || star + 5 != frame.size() || frame.substr(star + 3) != "\r\n") {
        return false;
    }
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", xor_of(frame.substr(1, star - 1)) & 0xFF);
    return frame.substr(star + 1, 2) == digits;
}

bool is_binary(std::string_view frame) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(frame[i]); };
    if (frame.size() < 9 || byte(0) != 0x04 || byte(1) != '$') {
        return false;
    }
    const size_t payload = byte(4) + byte(5) * size_t{256};
    return frame.size() == payload + 9 && byte(payload + 6) == xor_of(frame.substr(2, payload + 4)) &&
           byte(payload + 7) == 0xAA && byte(payload + 8) == 'D';
}

void check_frame(std::string_view frame, uint32_t type) {
    switch (type) {
    case FRAME_NONE:
        break;
    case FRAME_NMEA:
    case FRAME_PZUL:
        require(is_sentence(frame, type), "a sentence that is none");
        break;
    case FRAME_BINARY:
        require(is_binary(frame), "a binary frame that is none");
        break;
    default:
        require(false, "unknown type");
    }
}

// Takes everything from the data; returns the frames that are not dropped, one after the other, and leaves
// what waits.
std::string take_frames(std::string* data) {
    std::string taken;
    for (;;) {
        // An exact copy, so that a sanitizer sees every read past it.
        const std::string exact(*data);
        uint32_t type = 99;
        const uint32_t used = location_io_frame_parse(reinterpret_cast<const uint8_t*>(exact.data()),
                                                      static_cast<uint32_t>(exact.size()), &type);
        require(used <= exact.size(), "more bytes than there are");
        require(used > 0 || type == FRAME_NONE, "a type without a frame");
        if (used == 0) {
            return taken;
        }
        const std::string frame = exact.substr(0, used);
        check_frame(frame, type);
        taken += type == FRAME_NONE ? "" : frame;
        data->erase(0, used);
    }
}

// What waits may be nothing, one byte, or the head of a frame.
void check_waiting(std::string_view waiting) {
    const bool head = waiting.substr(0, 1) == "$" || waiting.substr(0, 2) == std::string_view("\x04$", 2);
    require(waiting.size() < 2 || head, "noise that is not dropped");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string data(reinterpret_cast<const char*>(bytes), size < kBufferSize ? size : kBufferSize);
    take_frames(&data);
    check_waiting(data);

    // A good sentence after it is found, or belongs to the frame that waits for its end; 0x04 makes a start
    // of its '$'.
    const bool swallowed = data.size() >= 2 || data == "\x04";
    const std::string taken = take_frames(&(data += kGood));
    require(swallowed || taken == kGood, "a good sentence was lost");
    return 0;
}

#include "chip/chip_agent.h"

#include "chip/chip_bytes.h"
#include "chip/chip_crc32.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr uint8_t kFrameStart = 0x05;
constexpr uint8_t kCommandType = 0x5A;
constexpr size_t kHeadSize = 6;       // start, type, length, identifier
constexpr size_t kLengthFrom = 4;     // what the length field counts begins there
constexpr uint32_t kMaxLength = 4108; // of the length field
constexpr size_t kCrcSize = 4;
constexpr uint32_t kReadSize = 2048; // bytes of a readback, and at most of the OTP area at once
constexpr uint32_t kOtpSize = 4096;
constexpr uint32_t kMinLength = 2; // the identifier
constexpr size_t kGarbageSize = 8; // bytes
constexpr uint16_t kForeignIdentifier = 0x21FF;
constexpr uint16_t kLogIdentifier = 0x0F10;
constexpr size_t kLogHeadSize = 6; // bytes between identifier and text

struct Request {
    uint16_t identifier;
    const uint8_t* payload;
};

struct Shape {
    uint16_t identifier;
    uint16_t payload; // bytes
    bool crc;
};

constexpr Shape kShapes[] = {
    {kChipAgentWrite, 4 + 2 + kChipFlashBlock, true},
    {kChipAgentRead, 4 + 2, true},
    {kChipAgentErase, 4 + 4, true},
    {kChipAgentFinish, 1, false},
    {kChipAgentReadOtp, 4 + 4, true},
    {kChipAgentFlashAddress, 0, false},
    {kChipAgentFlashSize, 0, false},
    {kChipAgentFlashId, 0, false},
    {kChipAgentSpeed, 4, false},
    {kChipAgentFlowControl, 1, false},
    {kChipAgentCheck, 4 + 4 + 4, true},
    {kChipAgentStart, 1, true},
    {kChipAgentReset, 1, true},
};

using Payload = std::vector<uint8_t>;

uint8_t status_of(ChipFlashResult result) {
    if (result == ChipFlashResult::ok) {
        return kChipAgentGood;
    }
    return result == ChipFlashResult::misplaced ? kChipAgentBadPlace : kChipAgentUnerased;
}

uint8_t erase(const ChipAgentParts& chip, const uint8_t* request, Payload& response) {
    const uint32_t address = chip_load_le(request, 4);
    chip_append_le(response, address, 4);
    const uint8_t status = status_of(chip_flash_erase(chip.flash, address, chip_load_le(request + 4, 4)));
    chip.status.download.blocks_erased += status == kChipAgentGood ? 1 : 0;
    return status;
}

uint8_t write(const ChipAgentParts& chip, const uint8_t* request, Payload& response) {
    const uint32_t address = chip_load_le(request, 4);
    chip_append_le(response, address, 4);
    if (chip_load_le(request + 4, 2) != kChipFlashBlock) {
        return kChipAgentBadRequest;
    }
    const uint8_t status = status_of(chip_flash_write(chip.flash, address, request + 6, kChipFlashBlock));
    if (status == kChipAgentGood) {
        ++chip.status.download.blocks_written;
        chip.status.download.bytes_written += kChipFlashBlock;
    }
    return status;
}

// The CRC covers the image and what fills it up to a multiple of 4.
uint8_t check(const ChipAgentParts& chip, const uint8_t* request, Payload& response) {
    const uint32_t address = chip_load_le(request, 4);
    const uint32_t size = chip_load_le(request + 4, 4);
    if (size > chip.options.flash_size || !chip_flash_holds(chip.flash, address, (size + 3) / 4 * 4)) {
        chip_append_le(response, 0, 4);
        return kChipAgentBadPlace;
    }
    const Payload image = chip_flash_read(chip.flash, address, (size + 3) / 4 * 4);
    const uint32_t crc = chip_crc32(image.data(), image.size());
    chip_append_le(response, crc, 4);
    if (crc != chip_load_le(request + 8, 4)) {
        return kChipAgentBadImage;
    }
    ++chip.status.download.images_checked;
    chip_flash_checked(chip.flash, address, size);
    return kChipAgentGood;
}

void append_data(Payload& response, uint32_t address, const Payload& data) {
    chip_append_le(response, address, 4);
    chip_append_le(response, chip_crc32(data.data(), data.size()), 4);
    response.insert(response.end(), data.begin(), data.end());
}

uint8_t read_back(const ChipAgentParts& chip, const uint8_t* request, Payload& response) {
    const uint32_t address = chip_load_le(request, 4);
    const uint32_t size = chip_load_le(request + 4, 2);
    if (size != kReadSize || !chip_flash_holds(chip.flash, address, size)) {
        return size != kReadSize ? kChipAgentBadRequest : kChipAgentBadPlace;
    }
    append_data(response, address, chip_flash_read(chip.flash, address, size));
    return kChipAgentGood;
}

// The area holds the low byte of each place's address.
uint8_t read_otp(const uint8_t* request, Payload& response) {
    const uint32_t address = chip_load_le(request, 4);
    const uint32_t size = chip_load_le(request + 4, 4);
    if (size > kReadSize || address > kOtpSize - size) {
        return kChipAgentBadPlace;
    }
    Payload data;
    for (uint32_t i = 0; i < size; ++i) {
        data.push_back(static_cast<uint8_t>(address + i));
    }
    append_data(response, address, data);
    return kChipAgentGood;
}

uint8_t finish(const ChipAgentParts& chip) {
    const bool complete = chip_flash_finish(chip.flash);
    chip.agent.finished = true;
    chip.status.download.completed += complete ? 1 : 0;
    chip.status.download.result = complete ? "complete" : "unchecked";
    return complete ? kChipAgentGood : kChipAgentUnchecked;
}

uint8_t act(const ChipAgentParts& chip, const Request& request, Payload& response) {
    switch (request.identifier) {
    case kChipAgentWrite:
        return write(chip, request.payload, response);
    case kChipAgentRead:
        return read_back(chip, request.payload, response);
    case kChipAgentErase:
        return erase(chip, request.payload, response);
    case kChipAgentFinish:
        return finish(chip);
    case kChipAgentReadOtp:
        return read_otp(request.payload, response);
    case kChipAgentFlashAddress:
        chip_append_le(response, chip.options.flash_base, 4);
        return kChipAgentGood;
    case kChipAgentFlashSize:
        chip_append_le(response, chip.options.flash_size, 4);
        return kChipAgentGood;
    case kChipAgentFlashId:
        chip_append_le(response, chip.options.flash_id, 3);
        return kChipAgentGood;
    case kChipAgentCheck:
        return check(chip, request.payload, response);
    case kChipAgentStart:
        response.push_back(0); // high byte of a word whose low byte is the status
        return kChipAgentGood;
    default:
        return kChipAgentGood; // line speed, flow control, reset: nothing to do on SPI
    }
}

// One frame: type "[" (response) or "]" (notification), identifier, and what follows it.
Payload frame_of(char type, uint16_t identifier, const Payload& body) {
    Payload frame = {kFrameStart, static_cast<uint8_t>(type)};
    chip_append_le(frame, static_cast<uint32_t>(sizeof identifier + body.size()), 2);
    chip_append_le(frame, identifier, sizeof identifier);
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

Payload log_frame(uint16_t command) {
    const std::string text = std::string("done: 0x") + "0123456789ABCDEF"[command & 0xF];
    Payload body(kLogHeadSize);
    body.insert(body.end(), text.begin(), text.end());
    return frame_of(']', kLogIdentifier, body);
}

Payload garbage(std::mt19937& random) {
    Payload bytes(kGarbageSize);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    std::replace(bytes.begin(), bytes.end(), kFrameStart, uint8_t{0}); // it might swallow the frame after it
    return bytes;
}

// Sends a response as the faults in force want it: other bytes before it, late, twice, or not at all. The
// status in it is the caller's affair.
void send_with_faults(const ChipAgentParts& chip, const ChipAnswerFaultSet& faults, uint16_t identifier,
                      const Payload& frame, uint64_t now_us) {
    const auto send = [&](bool wanted, const Payload& bytes) {
        if (wanted) {
            chip_spim_send(chip.spim, bytes, now_us + faults.late_us);
        }
    };
    const auto& on = faults.on;
    send(on[kChipAnswerGarbage], on[kChipAnswerGarbage] ? garbage(chip.random) : Payload{});
    send(on[kChipAnswerLog], log_frame(identifier));
    send(on[kChipAnswerForeign], frame_of('[', kForeignIdentifier, {0, 0, 0, 0, 0}));
    send(!on[kChipAnswerLost], frame);
    send(on[kChipAnswerTwice], frame);
}

void send_response(const ChipAgentParts& chip, uint16_t identifier, uint8_t status, const Payload& payload,
                   uint64_t now_us) {
    Payload body = {status};
    body.insert(body.end(), payload.begin(), payload.end());
    const ChipAnswerFaultSet faults = chip_fault_answer(chip.faults, identifier);
    if (faults.on[kChipAnswerStatus]) {
        body[0] = kChipAgentToldToFail;
    }
    chip.status.download.commands_failed += body[0] == kChipAgentGood ? 0 : 1;
    send_with_faults(chip, faults, identifier, frame_of('[', identifier, body), now_us);
}

void take_command(const ChipAgentParts& chip, const Shape* shape, const Payload& frame, uint64_t now_us) {
    const auto identifier = static_cast<uint16_t>(chip_load_le(frame.data() + kLengthFrom, 2));
    Payload payload;
    uint8_t status = kChipAgentBadRequest;
    if (shape != nullptr && frame.size() == kHeadSize + shape->payload + (shape->crc ? kCrcSize : 0)) {
        const size_t end = frame.size() - kCrcSize;
        const bool intact =
            !shape->crc || chip_load_le(frame.data() + end, kCrcSize) == chip_crc32(frame.data(), end);
        status =
            intact ? act(chip, {identifier, frame.data() + kHeadSize}, payload) : uint8_t{kChipAgentBadCrc};
    }
    send_response(chip, identifier, status, payload, now_us);
}

const Shape* shape_of(uint16_t identifier) {
    const auto* found = std::find_if(std::begin(kShapes), std::end(kShapes),
                                     [&](const Shape& shape) { return shape.identifier == identifier; });
    return found == std::end(kShapes) ? nullptr : found;
}

// Drops what can't begin a command.
void find_start(Payload& input) {
    const auto is_start = [&](size_t at) {
        return input[at] == kFrameStart && (at + 1 == input.size() || input[at + 1] == kCommandType);
    };
    size_t at = 0;
    while (at < input.size() && !is_start(at)) {
        ++at;
    }
    input.erase(input.begin(), input.begin() + static_cast<ptrdiff_t>(at));
}

// The first complete frame; empty: none yet.
Payload next_frame(Payload& input) {
    for (;;) {
        find_start(input);
        if (input.size() < kHeadSize) {
            return {};
        }
        const uint32_t length = chip_load_le(input.data() + 2, 2);
        if (length > kMaxLength || length < kMinLength) {
            input.erase(input.begin(), input.begin() + 2);
            continue;
        }
        if (input.size() < kLengthFrom + length) {
            return {};
        }
        const auto end = input.begin() + static_cast<ptrdiff_t>(kLengthFrom + length);
        Payload frame(input.begin(), end);
        input.erase(input.begin(), end);
        return frame;
    }
}

// The power fails in the middle of it: a block is written by half.
ChipLoaderEnd fail_power(const ChipAgentParts& chip, const Payload& frame) {
    if (chip_load_le(frame.data() + kLengthFrom, 2) == kChipAgentWrite && frame.size() > kChipFlashBlock) {
        chip_flash_write(chip.flash, chip_load_le(frame.data() + kHeadSize, 4), frame.data() + kHeadSize + 6,
                         kChipFlashBlock / 2);
    }
    return ChipLoaderEnd::power_lost;
}

} // namespace

ChipLoaderEnd chip_agent_receive(const ChipAgentParts& chip, const uint8_t* data, size_t length,
                                 uint64_t now_us) {
    if (chip.agent.finished) {
        return ChipLoaderEnd::none;
    }
    chip.agent.input.insert(chip.agent.input.end(), data, data + length);
    for (Payload frame = next_frame(chip.agent.input); !frame.empty(); frame = next_frame(chip.agent.input)) {
        const auto identifier = static_cast<uint16_t>(chip_load_le(frame.data() + kLengthFrom, 2));
        ++chip.status.download.commands;
        if (chip_fault_power(chip.faults, identifier)) {
            return fail_power(chip, frame);
        }
        take_command(chip, shape_of(identifier), frame, now_us);
        if (chip.agent.finished) {
            break;
        }
    }
    return ChipLoaderEnd::none;
}

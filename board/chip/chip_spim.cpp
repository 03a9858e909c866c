#include "chip/chip_spim.h"

#include "chip/chip_bytes.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr uint8_t kOpConfigRead = 0x02;
constexpr uint8_t kOpConfigWrite = 0x04;
constexpr uint8_t kOpWriteData = 0x06;
constexpr uint8_t kOpClearError = 0x08;
constexpr uint8_t kOpReadStatus = 0x0A;
constexpr uint8_t kOpWakeStart = 0x0C;
constexpr uint8_t kOpWakePoll = 0x0E;
constexpr uint8_t kOpReadData = 0x81;

constexpr uint8_t kStatusAwake = 0x01;
constexpr uint8_t kStatusAsleep = 0x81;
constexpr uint8_t kStatusConfigDone = 0x04;
constexpr uint8_t kStatusError = 0x08;
constexpr uint8_t kStatusErrors = 0x18;
constexpr uint8_t kStatusDataDone = 0x20;

constexpr uint32_t kBlockAddress = 0x55AA0000;
constexpr uint32_t kConfigFrameSize = 9; // opcode, address, length - 1
constexpr uint32_t kStatusFrameSize = 2;
constexpr uint32_t kMaxDataSize = 4095; // bytes of one data phase

// Like the multiplexer's slave: an error bit, and a violation unless the host is excused.
void refuse(const ChipSpimParts& chip, const char* what, uint32_t number) {
    chip.spim.errors |= kStatusError;
    if (chip.spim.excused) {
        return;
    }
    std::array<char, 128> text{};
    snprintf(text.data(), text.size(), "download: %s (0x%x)", what, number);
    ++chip.status.violations;
    chip.status.last_violation = text.data();
}

void end_phase(ChipSpimState& spim) {
    spim.phase = ChipSpimPhase::idle;
    spim.config_done = false;
    spim.data_done = false;
    spim.busy = 0;
    spim.received.clear();
    spim.offered = 0;
}

void start_wake_up(const ChipSpimParts& chip) {
    end_phase(chip.spim);
    chip.spim.awake = false;
    chip.spim.sleepy_polls = chip.options.sleepy_polls;
    chip.spim.excused = chip_fault_disturbs(chip.faults);
    ++chip.status.download.wake_ups;
}

void poll_wake_up(const ChipSpimParts& chip) {
    ChipSpimState& spim = chip.spim;
    if (spim.sleepy_polls > 0) {
        --spim.sleepy_polls;
    } else {
        spim.awake = spim.awake || !chip.faults.asleep;
    }
}

void drop_front(ChipSpimState& spim, uint32_t count) {
    while (count > 0 && !spim.queue.empty()) {
        std::vector<uint8_t>& bytes = spim.queue.front().bytes;
        const auto part = static_cast<ptrdiff_t>(std::min<size_t>(count, bytes.size()));
        bytes.erase(bytes.begin(), bytes.begin() + part);
        count -= static_cast<uint32_t>(part);
        if (bytes.empty()) {
            spim.queue.pop_front();
        }
    }
}

// The host has seen the data phase done.
void confirm(ChipSpimState& spim) {
    if (spim.phase == ChipSpimPhase::read) {
        drop_front(spim, spim.offered);
    } else if (spim.phase == ChipSpimPhase::write) {
        spim.taken = std::move(spim.received);
    }
    end_phase(spim);
}

uint8_t read_status(const ChipSpimParts& chip) {
    ChipSpimState& spim = chip.spim;
    uint8_t status = spim.errors | chip_fault_status(chip.faults);
    if (!spim.awake) {
        return status | kStatusAsleep;
    }
    status |= kStatusAwake;
    if (spim.busy > 0) {
        --spim.busy;
    } else if (!chip.faults.never_ready) {
        status |= spim.config_done ? kStatusConfigDone : 0;
        status |= spim.data_done ? kStatusDataDone : 0;
    }
    if ((status & kStatusDataDone) != 0 && (status & kStatusErrors) == 0) {
        confirm(spim);
    }
    return status;
}

bool is_config_frame(const uint8_t* tx, uint32_t length) {
    return length == kConfigFrameSize && chip_load_le(tx + 1, 4) == kBlockAddress;
}

void configure(const ChipSpimParts& chip, const uint8_t* tx, uint32_t length) {
    if (!is_config_frame(tx, length)) {
        return refuse(chip, "configuration frame is not 9 bytes with the block's address", length);
    }
    const uint32_t last = chip_load_le(tx + 5, 4); // length - 1
    if (last >= kMaxDataSize) {
        return refuse(chip, "length field too large", last);
    }
    ChipSpimState& spim = chip.spim;
    end_phase(spim);
    spim.phase = tx[0] == kOpConfigRead ? ChipSpimPhase::read : ChipSpimPhase::write;
    spim.length = last + 1;
    spim.config_done = true;
    spim.busy = chip.options.busy_polls;
}

bool data_phase_right(const ChipSpimParts& chip, ChipSpimPhase phase, uint32_t length) {
    const ChipSpimState& spim = chip.spim;
    if (spim.phase != phase) {
        refuse(chip, "data phase without its command", length);
    } else if (chip.faults.never_ready || (spim.busy > 0 && !spim.data_done)) {
        refuse(chip, "data phase before the command was done", length);
    } else if (length != spim.length + 1) {
        refuse(chip, "data phase of another length than its command", length);
    } else {
        return true;
    }
    return false;
}

void data_phase_done(const ChipSpimParts& chip) {
    chip.spim.data_done = true;
    chip.spim.busy = chip.options.busy_polls;
}

// Shows what is due, without taking it from the queue.
uint32_t show(const ChipSpimState& spim, uint8_t* out, uint32_t room, uint64_t now_us) {
    uint32_t shown = 0;
    for (const ChipSpimBlock& block : spim.queue) {
        if (block.due_us > now_us || shown == room) {
            break;
        }
        const size_t part = std::min<size_t>(room - shown, block.bytes.size());
        std::copy_n(block.bytes.begin(), part, out + shown);
        shown += static_cast<uint32_t>(part);
    }
    return shown;
}

void read_data(const ChipSpimParts& chip, uint8_t* rx, uint32_t length, uint64_t now_us) {
    if (!data_phase_right(chip, ChipSpimPhase::read, length)) {
        return;
    }
    chip.spim.offered = show(chip.spim, rx + 1, chip.spim.length, now_us);
    if (chip.faults.garbage == ChipGarbage::data) {
        std::generate_n(rx + 1, chip.spim.length, [&] { return static_cast<uint8_t>(chip.random()); });
    }
    data_phase_done(chip);
}

void write_data(const ChipSpimParts& chip, const uint8_t* tx, uint32_t length) {
    if (!data_phase_right(chip, ChipSpimPhase::write, length)) {
        return;
    }
    chip.spim.received.assign(tx + 1, tx + length);
    data_phase_done(chip);
}

void awake_frame(const ChipSpimParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                 uint64_t now_us) {
    if (!chip.spim.awake) {
        return; // nothing is taken; the status tells
    }
    switch (tx[0]) {
    case kOpConfigRead:
    case kOpConfigWrite:
        return configure(chip, tx, length);
    case kOpReadData:
        return read_data(chip, rx, length, now_us);
    case kOpWriteData:
        return write_data(chip, tx, length);
    default:
        return refuse(chip, "unknown opcode", tx[0]);
    }
}

void status_frame(const ChipSpimParts& chip, uint8_t* rx, uint32_t length) {
    if (length != kStatusFrameSize) {
        return refuse(chip, "status frame is not 2 bytes", length);
    }
    rx[1] = read_status(chip);
    if (chip.faults.garbage == ChipGarbage::status) {
        rx[1] = static_cast<uint8_t>(chip.random());
    }
}

void clear_frame(const ChipSpimParts& chip, const uint8_t* tx, uint32_t length) {
    if (length != kStatusFrameSize || (tx[1] & ~uint32_t{kStatusErrors}) != 0) {
        return refuse(chip, "error bits to clear are not 0x08 or 0x10", length > 1 ? tx[1] : length);
    }
    chip.spim.errors &= static_cast<uint8_t>(~uint32_t{tx[1]});
}

} // namespace

bool chip_spim_is_first_frame(const uint8_t* tx, uint32_t length) {
    switch (tx[0]) {
    case kOpConfigRead:
    case kOpConfigWrite:
        return is_config_frame(tx, length);
    case kOpReadStatus:
        return length == kStatusFrameSize;
    case kOpWakeStart:
    case kOpWakePoll:
        return length == 1;
    default:
        return false;
    }
}

void chip_spim_frame(const ChipSpimParts& chip, const uint8_t* tx, uint8_t* rx, uint32_t length,
                     uint64_t now_us) {
    switch (tx[0]) {
    case kOpReadStatus:
        return status_frame(chip, rx, length);
    case kOpClearError:
        return clear_frame(chip, tx, length);
    case kOpWakeStart:
    case kOpWakePoll:
        if (length != 1) {
            return refuse(chip, "wake-up frame is not 1 byte", length);
        }
        return tx[0] == kOpWakeStart ? start_wake_up(chip) : poll_wake_up(chip);
    default:
        return awake_frame(chip, tx, rx, length, now_us);
    }
}

void chip_spim_send(ChipSpimState& spim, const std::vector<uint8_t>& bytes, uint64_t due_us) {
    spim.queue.push_back({due_us, bytes});
}

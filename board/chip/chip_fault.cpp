#include "chip/chip_fault.h"

#include "chip/chip.h"

#include <cstring>
#include <optional>

namespace {

constexpr uint64_t kMaxBacklog = 16U << 20; // bytes
constexpr uint8_t kDefaultErrorMask = 0x08;

std::optional<uint8_t> mask_of(std::string_view text) {
    if (text == "0x08") {
        return 0x08;
    }
    if (text == "0x10") {
        return 0x10;
    }
    return text == "0x18" ? std::optional<uint8_t>(0x18) : std::nullopt;
}

bool set_status_error(ChipFaultState& faults, std::string_view value) {
    const size_t colon = value.find(':');
    const auto times = chip_fault_repetition(value.substr(0, colon));
    const auto mask =
        colon == std::string_view::npos ? std::optional(kDefaultErrorMask) : mask_of(value.substr(colon + 1));
    if (!times || !mask) {
        return false;
    }
    faults.status_errors = *times;
    faults.status_mask = *mask;
    return true;
}

bool set_transfer_fail(ChipFaultState& faults, std::string_view value) {
    constexpr std::string_view kEvery = "every:";
    const bool every = value.starts_with(kEvery);
    const auto number = every ? chip_fault_count(value.substr(kEvery.size())) : chip_fault_repetition(value);
    if (!number) {
        return false;
    }
    faults.transfer_fails = every ? 0 : *number;
    faults.transfer_fail_every = every ? *number : 0;
    faults.transfer_count = 0;
    return true;
}

bool set_garbage(ChipFaultState& faults, std::string_view value) {
    if (value == "off") {
        faults.garbage = ChipGarbage::off;
    } else if (value == "on") {
        faults.garbage = ChipGarbage::all;
    } else if (value == "status") {
        faults.garbage = ChipGarbage::status;
    } else if (value == "data") {
        faults.garbage = ChipGarbage::data;
    } else {
        return false;
    }
    return true;
}

// A lie of one length register or of both.
bool set_lengths(bool& tx, bool& rx, std::string_view value) {
    if (value != "on" && value != "tx" && value != "rx" && value != "off") {
        return false;
    }
    tx = value == "on" || value == "tx";
    rx = value == "on" || value == "rx";
    return true;
}

bool set_unpowered(Chip& chip, const std::string& value) {
    const bool valid = chip_fault_switch(chip.faults.unpowered, value);
    chip.slave.powered = chip.slave.powered && !chip.faults.unpowered;
    return valid;
}

bool set_all(ChipFaultState& faults, std::string_view value) {
    if (value != "off") {
        return false;
    }
    faults = {};
    return true;
}

bool set_fault(Chip& chip, const std::string& name, const std::string& value) {
    ChipFaultState& faults = chip.faults;
    if (name == "status-error") {
        return set_status_error(faults, value);
    }
    if (name == "silence") {
        return chip_fault_switch(faults.silence, value);
    }
    if (name == "zero") {
        return chip_fault_switch(faults.zero, value);
    }
    if (name == "garbage") {
        return set_garbage(faults, value);
    }
    if (name == "unpowered") {
        return set_unpowered(chip, value);
    }
    if (name == "never-ready") {
        return chip_fault_switch(faults.never_ready, value);
    }
    if (name == "transfer-fail") {
        return set_transfer_fail(faults, value);
    }
    if (name == "bytewise") {
        return chip_fault_switch(faults.bytewise, value);
    }
    if (name == "hostile-length") {
        return set_lengths(faults.hostile_tx, faults.hostile_rx, value);
    }
    if (name == "zero-length") {
        return set_lengths(faults.zero_tx, faults.zero_rx, value);
    }
    return set_all(faults, value);
}

bool set_any(Chip& chip, const std::string& name, const std::string& value) {
    if (chip_i2c_fault_known(name)) {
        return chip_i2c_fault_set(chip.faults.i2c, name, value);
    }
    return chip_download_fault_known(name) ? chip_download_fault_set(chip.faults.download, name, value)
                                           : set_fault(chip, name, value);
}

std::string queue_backlog(Chip& chip, const std::string& value, uint64_t now_us) {
    const auto bytes = chip_fault_count(value);
    if (!bytes || *bytes > kMaxBacklog) {
        return "fault backlog: \"" + value + "\" is not a number of bytes up to " +
               std::to_string(kMaxBacklog);
    }
    if (chip.mode != ChipMode::firmware) {
        return "the chip's firmware does not run: nothing can wait in it";
    }
    chip_source_backlog(chip, static_cast<size_t>(*bytes), now_us);
    return "";
}

std::vector<ChipFaultInfo> make_table() {
    std::vector<ChipFaultInfo> table = {
        {"status-error", "once|N|always|off[:0x08|:0x10|:0x18]",
         "error bits in the next status reads (0x08 without a mask)"},
        {"silence", "on|off", "0xFF on everything, no acknowledge on I2C; nothing is taken"},
        {"zero", "on|off", "0x00 on everything; nothing is taken"},
        {"garbage", "on|status|data|off",
         "random answers: to everything, in the status, in lengths and data"},
        {"unpowered", "on|off", "the SPI interface stays unpowered"},
        {"never-ready", "on|off", "no command and no data phase is ever done"},
        {"transfer-fail", "once|N|always|every:N|off", "the next transfers fail, or every N-th"},
        {"bytewise", "on|off", "never more than one byte to read at once"},
        {"hostile-length", "on|tx|rx|off", "length registers say 0xFFFFFFFF"},
        {"zero-length", "on|tx|rx|off", "length registers say 0"},
        {"backlog", "BYTES", "sentences of this many bytes wait at once"},
    };
    for (const auto* more : {&chip_i2c_fault_table(), &chip_download_fault_table()}) {
        table.insert(table.end(), more->begin(), more->end());
    }
    table.push_back({"all", "off", "ends every fault"});
    return table;
}

const ChipFaultInfo* info_of(const std::string& name) {
    for (const ChipFaultInfo& info : chip_fault_table()) {
        if (name == info.name) {
            return &info;
        }
    }
    return nullptr;
}

void add_switch(std::vector<std::string>& active, const char* name, bool on) {
    if (on) {
        active.push_back(std::string(name) + " on");
    }
}

const char* garbage_text(ChipGarbage garbage) {
    if (garbage == ChipGarbage::all) {
        return "garbage on";
    }
    return garbage == ChipGarbage::status ? "garbage status" : "garbage data";
}

void add_lengths(std::vector<std::string>& active, const char* name, bool tx, bool rx) {
    if (tx || rx) {
        active.push_back(std::string(name) + (tx && rx ? " on" : tx ? " tx" : " rx"));
    }
}

const char* mask_text(uint8_t mask) {
    return mask == 0x08 ? ":0x08" : mask == 0x10 ? ":0x10" : ":0x18";
}

} // namespace

const std::vector<ChipFaultInfo>& chip_fault_table() {
    static const std::vector<ChipFaultInfo> table = make_table();
    return table;
}

std::string chip_fault(Chip& chip, const std::string& name, const std::string& value, uint64_t now_us) {
    const ChipFaultInfo* info = info_of(name);
    if (info == nullptr) {
        return "no fault is called \"" + name + "\"";
    }
    if (name == "backlog") {
        return queue_backlog(chip, value, now_us);
    }
    if (!set_any(chip, name, value)) {
        const bool commands = strstr(info->values, "COMMAND") != nullptr;
        return "fault " + name + ": \"" + value + "\" is none of " + info->values +
               (commands ? "; COMMAND is one of " + chip_download_fault_commands() : "");
    }
    chip.slave.excused = true;
    chip_i2c_excuse(chip.i2c);
    chip.spim.excused = true;
    return "";
}

std::vector<std::string> chip_fault_active(const ChipFaultState& faults) {
    std::vector<std::string> active;
    if (faults.status_errors > 0) {
        active.push_back("status-error " + chip_fault_repetition_text(faults.status_errors) +
                         mask_text(faults.status_mask));
    }
    add_switch(active, "silence", faults.silence);
    add_switch(active, "zero", faults.zero);
    if (faults.garbage != ChipGarbage::off) {
        active.emplace_back(garbage_text(faults.garbage));
    }
    add_switch(active, "unpowered", faults.unpowered);
    add_switch(active, "never-ready", faults.never_ready);
    if (faults.transfer_fails > 0) {
        active.push_back("transfer-fail " + chip_fault_repetition_text(faults.transfer_fails));
    }
    if (faults.transfer_fail_every > 0) {
        active.push_back("transfer-fail every:" + std::to_string(faults.transfer_fail_every));
    }
    add_switch(active, "bytewise", faults.bytewise);
    add_lengths(active, "hostile-length", faults.hostile_tx, faults.hostile_rx);
    add_lengths(active, "zero-length", faults.zero_tx, faults.zero_rx);
    chip_i2c_fault_active(faults.i2c, active);
    chip_download_fault_active(faults.download, active);
    return active;
}

bool chip_fault_disturbs(const ChipFaultState& faults) {
    return faults.silence || faults.zero || faults.garbage != ChipGarbage::off || faults.unpowered;
}

bool chip_fault_transfer(ChipFaultState& faults) {
    if (faults.transfer_fail_every > 0) {
        return ++faults.transfer_count % faults.transfer_fail_every == 0;
    }
    return chip_fault_use_up(faults.transfer_fails);
}

uint8_t chip_fault_status(ChipFaultState& faults) {
    return chip_fault_use_up(faults.status_errors) ? faults.status_mask : 0;
}

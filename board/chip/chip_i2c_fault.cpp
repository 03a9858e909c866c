#include "chip/chip_i2c_fault.h"

#include <algorithm>

namespace {

struct Port {
    uint8_t address;
    const char* text;
};

constexpr std::array<Port, 3> kPorts = {
    {{kChipI2cCommandPort, "0x50"}, {kChipI2cReadPort, "0x54"}, {kChipI2cWritePort, "0x58"}}};

bool set_nack(ChipI2cFaults& faults, std::string_view value) {
    const size_t colon = value.find(':');
    const auto times = chip_fault_repetition(value.substr(0, colon));
    if (!times) {
        return false;
    }
    if (colon == std::string_view::npos) {
        faults.nacks_left.fill(*times);
        return true;
    }
    for (size_t i = 0; i < kPorts.size(); ++i) {
        if (value.substr(colon + 1) == kPorts[i].text) {
            faults.nacks_left[i] = *times;
            return true;
        }
    }
    return false;
}

bool set_short(ChipI2cFaults& faults, std::string_view value) {
    if (value != "on" && value != "read" && value != "write" && value != "off") {
        return false;
    }
    faults.short_read = value == "on" || value == "read";
    faults.short_write = value == "on" || value == "write";
    return true;
}

const char* short_text(const ChipI2cFaults& faults) {
    if (faults.short_read && faults.short_write) {
        return "i2c-short on";
    }
    return faults.short_read ? "i2c-short read" : "i2c-short write";
}

} // namespace

const std::vector<ChipFaultInfo>& chip_i2c_fault_table() {
    static const std::vector<ChipFaultInfo> table = {
        {"i2c-nack", "once|N|always|off[:0x50|:0x54|:0x58]",
         "the next attempts at an I2C address, or at each, are not acknowledged"},
        {"i2c-short", "on|read|write|off", "I2C reads and data writes move half their bytes"},
    };
    return table;
}

bool chip_i2c_fault_known(const std::string& name) {
    const std::vector<ChipFaultInfo>& table = chip_i2c_fault_table();
    return std::any_of(table.begin(), table.end(),
                       [&](const ChipFaultInfo& fault) { return name == fault.name; });
}

bool chip_i2c_fault_set(ChipI2cFaults& faults, const std::string& name, const std::string& value) {
    return name == "i2c-nack" ? set_nack(faults, value) : set_short(faults, value);
}

void chip_i2c_fault_active(const ChipI2cFaults& faults, std::vector<std::string>& active) {
    for (size_t i = 0; i < kPorts.size(); ++i) {
        if (faults.nacks_left[i] > 0) {
            active.push_back("i2c-nack " + chip_fault_repetition_text(faults.nacks_left[i]) + ":" +
                             kPorts[i].text);
        }
    }
    if (faults.short_read || faults.short_write) {
        active.emplace_back(short_text(faults));
    }
}

bool chip_i2c_fault_nack(ChipI2cFaults& faults, uint8_t address) {
    for (size_t i = 0; i < kPorts.size(); ++i) {
        if (kPorts[i].address == address) {
            return chip_fault_use_up(faults.nacks_left[i]);
        }
    }
    return false;
}

#include "chip/chip_fault_value.h"

#include <charconv>

namespace {

constexpr uint64_t kMaxCount = 1000000000;

} // namespace

std::optional<uint64_t> chip_fault_count(std::string_view text) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 1 || value > kMaxCount) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint64_t> chip_fault_repetition(std::string_view text) {
    if (text == "off") {
        return 0;
    }
    if (text == "once") {
        return 1;
    }
    return text == "always" ? kChipAlways : chip_fault_count(text);
}

std::string chip_fault_repetition_text(uint64_t left) {
    return left == kChipAlways ? "always" : std::to_string(left);
}

bool chip_fault_use_up(uint64_t& left) {
    if (left == 0) {
        return false;
    }
    left -= left == kChipAlways ? 0 : 1;
    return true;
}

bool chip_fault_switch(bool& fault, std::string_view value) {
    fault = value == "on" || (value != "off" && fault);
    return value == "on" || value == "off";
}

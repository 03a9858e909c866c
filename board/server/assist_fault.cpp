#include "server/assist_fault.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr uint64_t kMostRequests = 1000000;
constexpr uint64_t kMostBytesPerSecond = 1000000000;
constexpr uint64_t kMostHours = 100000;

size_t index_of(const std::string& name) {
    const std::vector<ChipFaultInfo>& table = assist_fault_table();
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const ChipFaultInfo& info) { return info.name == name; });
    return static_cast<size_t>(found - table.begin());
}

bool is_quantity(size_t index) {
    return index >= static_cast<size_t>(AssistFault::slow);
}

uint64_t most(size_t index) {
    if (!is_quantity(index)) {
        return kMostRequests;
    }
    return index == static_cast<size_t>(AssistFault::slow) ? kMostBytesPerSecond : kMostHours;
}

// A number of 1 to most; 0 when it is none.
uint64_t number(const std::string& text, uint64_t limit) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end && value <= limit ? value : 0;
}

} // namespace

const std::vector<ChipFaultInfo>& assist_fault_table() {
    static const std::vector<ChipFaultInfo> table = {
        {"assist-no-etag", "on|N|off", "the assistance server's next answers have no ETag"},
        {"assist-upper-etag", "on|N|off", "their ETag has upper-case digits"},
        {"assist-wrong-content", "on|N|off", "their ETag is another content's"},
        {"assist-not-found", "on|N|off", "status 404"},
        {"assist-reset", "on|N|off", "the connection breaks in mid-body"},
        {"assist-stall", "on|N|off", "nothing comes any more in mid-body, until off"},
        {"assist-slow", "BYTES|off", "bytes a second of the host"},
        {"assist-stale", "HOURS|off", "the files start so many hours too early"},
    };
    return table;
}

bool assist_fault_is(const std::string& name) {
    return index_of(name) < kAssistFaults;
}

std::string assist_fault_set(AssistFaultState& faults, const std::string& name, const std::string& value) {
    if (name == "all" && value == "off") {
        faults = {};
        return "";
    }
    const size_t index = index_of(name);
    if (index >= kAssistFaults) {
        return "no fault is called \"" + name + "\"";
    }
    if (value == "off") {
        faults.value[index] = 0;
        return "";
    }
    const bool always = value == "on" && !is_quantity(index);
    const uint64_t wanted = always ? kChipAlways : number(value, most(index));
    if (wanted == 0) {
        return name + " takes " + assist_fault_table()[index].values + ", not \"" + value + "\"";
    }
    faults.value[index] = wanted;
    return "";
}

std::vector<std::string> assist_fault_active(const AssistFaultState& faults) {
    std::vector<std::string> active;
    for (size_t i = 0; i < kAssistFaults; ++i) {
        if (faults.value[i] != 0) {
            active.push_back(std::string(assist_fault_table()[i].name) + " " +
                             (faults.value[i] == kChipAlways ? "on" : std::to_string(faults.value[i])));
        }
    }
    return active;
}

AssistFaultState assist_fault_next(AssistFaultState& faults) {
    const AssistFaultState now = faults;
    for (size_t i = 0; i < kAssistFaults; ++i) {
        if (!is_quantity(i) && faults.value[i] != 0 && faults.value[i] != kChipAlways) {
            --faults.value[i];
        }
    }
    return now;
}

#include "server/assist_fault.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr uint64_t kMostRequests = 1000000;
constexpr uint64_t kMostBytesPerSecond = 1000000000;
constexpr uint64_t kMostHours = 100000;

// One fault, in the order of AssistFault. Of a fault that befalls requests the value counts them, and "on" is
// for all; that of another is a quantity.
struct Row {
    ChipFaultInfo info;
    bool counts;
    uint64_t most;
};

constexpr std::array<Row, kAssistFaults> kRows = {{
    {{"assist-no-etag", "on|N|off", "the assistance server's next answers have no ETag"},
     true,
     kMostRequests},
    {{"assist-upper-etag", "on|N|off", "their ETag has upper-case digits"}, true, kMostRequests},
    {{"assist-wrong-content", "on|N|off", "their ETag is another content's"}, true, kMostRequests},
    {{"assist-not-found", "on|N|off", "status 404"}, true, kMostRequests},
    {{"assist-reset", "on|N|off", "the connection breaks in mid-body"}, true, kMostRequests},
    {{"assist-stall", "on|N|off", "nothing comes any more in mid-body, until off"}, true, kMostRequests},
    {{"assist-slow", "BYTES|off", "bytes a second of the host"}, false, kMostBytesPerSecond},
    {{"assist-stale", "HOURS|off", "the files start so many hours too early"}, false, kMostHours},
}};

size_t index_of(const std::string& name) {
    const auto* const found =
        std::find_if(kRows.begin(), kRows.end(), [&](const Row& row) { return row.info.name == name; });
    return static_cast<size_t>(found - kRows.begin());
}

// A number of 1 to most; 0 when it is none.
uint64_t number(const std::string& text, uint64_t limit) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end && value <= limit ? value : 0;
}

} // namespace

std::vector<ChipFaultInfo> assist_fault_list() {
    std::vector<ChipFaultInfo> list(kRows.size());
    std::transform(kRows.begin(), kRows.end(), list.begin(), [](const Row& row) { return row.info; });
    return list;
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
    const Row& row = kRows[index];
    const uint64_t wanted = value == "on" && row.counts ? kChipAlways : number(value, row.most);
    if (wanted == 0) {
        return name + " takes " + row.info.values + ", not \"" + value + "\"";
    }
    faults.value[index] = wanted;
    return "";
}

std::vector<std::string> assist_fault_active(const AssistFaultState& faults) {
    std::vector<std::string> active;
    for (size_t i = 0; i < kAssistFaults; ++i) {
        if (faults.value[i] != 0) {
            active.push_back(std::string(kRows[i].info.name) + " " +
                             (faults.value[i] == kChipAlways ? "on" : std::to_string(faults.value[i])));
        }
    }
    return active;
}

AssistFaultState assist_fault_next(AssistFaultState& faults) {
    const AssistFaultState now = faults;
    for (size_t i = 0; i < kAssistFaults; ++i) {
        if (kRows[i].counts && faults.value[i] != 0 && faults.value[i] != kChipAlways) {
            --faults.value[i];
        }
    }
    return now;
}

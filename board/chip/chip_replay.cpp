#include "chip/chip_replay.h"

#include "chip/chip_sentence.h"

#include <optional>
#include <string_view>

namespace {

constexpr size_t kMaxEpochLines = 200; // a log without GGA and RMC comes in pieces of this many lines
constexpr size_t kFormatterAt = 3;     // after '$' and a talker of two letters

std::string_view line_at(const std::string& log, size_t position) {
    const size_t end = log.find('\n', position);
    const size_t size = end == std::string::npos ? std::string::npos : end + 1 - position;
    return std::string_view(log).substr(position, size);
}

// The time of a GGA or RMC sentence, empty when it has none; nothing for any other line.
std::optional<std::string> time_of(std::string_view line, bool& is_gga) {
    if (line.size() < kFormatterAt + 4 || line[0] != '$') {
        return std::nullopt;
    }
    const std::string_view formatter = line.substr(kFormatterAt, 4);
    is_gga = formatter == "GGA,";
    if (!is_gga && formatter != "RMC,") {
        return std::nullopt;
    }
    const std::string_view rest = line.substr(kFormatterAt + 4);
    return std::string(rest.substr(0, rest.find(',')));
}

struct EpochMark {
    std::string time;
    bool has_gga = false;
    bool has_rmc = false;
};

// Whether the line opens another epoch than the one that the mark has seen. Without times (a receiver that
// knows none yet), the second sentence of the same kind does.
bool opens_another(EpochMark& mark, std::string_view line) {
    bool is_gga = false;
    const auto time = time_of(line, is_gga);
    if (!time) {
        return false;
    }
    bool& has_kind = is_gga ? mark.has_gga : mark.has_rmc;
    const bool timed = !time->empty() && !mark.time.empty();
    if (timed ? *time != mark.time : has_kind) {
        return true;
    }
    has_kind = true;
    if (mark.time.empty()) {
        mark.time = *time;
    }
    return false;
}

} // namespace

void chip_replay_epoch(const std::string& log, size_t& position, std::vector<std::string>& lines) {
    EpochMark mark;
    for (size_t count = 0; position < log.size() && count < kMaxEpochLines;) {
        const std::string_view line = line_at(log, position);
        if (line[0] != '#') {
            if (opens_another(mark, line)) {
                return;
            }
            lines.emplace_back(line);
            ++count;
        }
        position += line.size();
    }
}

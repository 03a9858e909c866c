#include "chrony/chrony_sample.h"

#include "sentence/sentence.h"

namespace {

constexpr int32_t kMagic = 0x534f434b;             // "SOCK"
constexpr std::string_view kOtherSources = "EMNS"; // modes: dead reckoning, by hand, no fix, simulator
constexpr size_t kModeField = 12;
constexpr std::chrono::sys_days kEarliest{std::chrono::year{2025} / 1 / 1};
constexpr std::chrono::weeks kRollover{1024}; // of the number of the week that satellites send

bool is_leap_second(std::string_view time) {
    return time.substr(4, 2) == "60";
}

} // namespace

std::optional<Utc> chrony_sample_time(std::string_view sentence) {
    const Sentence rmc = sentence_split(sentence);
    const std::string_view mode = rmc.fields[kModeField].substr(0, 1);
    if (rmc.type != "RMC" || rmc.fields[2] != "A" ||
        (!mode.empty() && kOtherSources.find(mode) != std::string_view::npos)) {
        return std::nullopt;
    }
    const auto time = utc_time(rmc.fields[1]);
    const auto day = utc_day(rmc.fields[9]);
    if (!time || !day || is_leap_second(rmc.fields[1])) {
        return std::nullopt;
    }
    return *day + *time;
}

bool chrony_sample_is_plausible(Utc time) {
    return time >= kEarliest && time < kEarliest + kRollover;
}

ChronySample chrony_sample_make(Utc time, HubTime arrived) {
    const auto moment = std::chrono::floor<std::chrono::microseconds>(arrived);
    const auto second = std::chrono::floor<std::chrono::seconds>(moment);
    ChronySample sample = {};
    sample.time.seconds = static_cast<SystemTimeField>(second.time_since_epoch().count());
    sample.time.microseconds = static_cast<SystemTimeField>((moment - second).count());
    sample.offset = std::chrono::duration<double>(time - moment).count();
    sample.magic = kMagic;
    return sample;
}

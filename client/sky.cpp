#include "client/sky.h"

#include "sentence/sentence.h"

#include <algorithm>
#include <array>
#include <utility>

namespace {

constexpr std::chrono::seconds kViewHolds{12};       // some chips tell the sky every ten seconds
constexpr std::chrono::milliseconds kUseHolds{1500}; // a fix a second, and a late one
constexpr size_t kViewMax = 64;                      // satellites of one system
constexpr size_t kUsedMax = 512;
constexpr int kNumberMax = 999;
constexpr int kSignalMax = 15;

// Numbers of the fields in their sentences.
constexpr size_t kGsvCount = 1, kGsvNumber = 2, kGsvFirst = 4, kGsvEach = 4;
constexpr size_t kGsaFirst = 3, kGsaEnd = 15, kGsaSystem = 18;

struct SystemRow {
    std::string_view talkers; // two letters each
    const char* name;
    char letter;
    int first, last; // numbers where no talker tells
};

constexpr SystemRow kSystems[] = {
    {"GP", "GPS", 'G', 1, 64},         {"GL", "GLONASS", 'R', 65, 96},    {"GA", "Galileo", 'E', 301, 336},
    {"GBBD", "BeiDou", 'C', 401, 463}, {"GQQZPQ", "QZSS", 'J', 193, 202}, {"GI", "NavIC", 'I', 501, 514},
};
static_assert(std::size(kSystems) == kSkySystems);

std::optional<SkySystem> system_of_talker(std::string_view talker) {
    for (size_t i = 0; i < kSkySystems; ++i) {
        for (size_t at = 0; at < kSystems[i].talkers.size(); at += 2) {
            if (kSystems[i].talkers.substr(at, 2) == talker) {
                return static_cast<SkySystem>(i);
            }
        }
    }
    return std::nullopt;
}

std::optional<SkySystem> system_of_number(int number) {
    for (size_t i = 0; i < kSkySystems; ++i) {
        if (number >= kSystems[i].first && number <= kSystems[i].last) {
            return static_cast<SkySystem>(i);
        }
    }
    return std::nullopt;
}

// The system's own number of a GSA sentence, from 1 on in the order above but NavIC's, which is last there
// too.
std::optional<SkySystem> system_of_id(std::string_view id) {
    const auto number = sentence_count(id);
    const bool known = number && *number >= 1 && *number <= static_cast<int>(kSkySystems);
    return known ? std::optional(static_cast<SkySystem>(*number - 1)) : std::nullopt;
}

std::optional<int> within(std::string_view text, int most) {
    const auto value = sentence_count(text);
    return value && *value <= most ? value : std::nullopt;
}

int signal_of(const Sentence& gsv) {
    const bool told = gsv.count > kGsvFirst && (gsv.count - kGsvFirst) % kGsvEach == 1;
    return told ? within(gsv.fields.at(gsv.count - 1), kSignalMax).value_or(0) : 0;
}

void take_group(std::vector<Satellite>& satellites, SkySystem system, const Sentence& gsv) {
    for (size_t at = kGsvFirst; at + kGsvEach <= gsv.count && satellites.size() < kViewMax; at += kGsvEach) {
        const auto number = within(gsv.fields.at(at), kNumberMax);
        if (number.value_or(0) > 0) {
            satellites.push_back({system, *number, within(gsv.fields.at(at + 1), 90),
                                  within(gsv.fields.at(at + 2), 359), within(gsv.fields.at(at + 3), 99),
                                  false});
        }
    }
}

void take_gsv(Sky& sky, const Sentence& gsv, SkyTime now) {
    const auto system = system_of_talker(gsv.talker);
    const auto count = sentence_count(gsv.fields[kGsvCount]);
    const auto number = sentence_count(gsv.fields[kGsvNumber]);
    if (!system || !count || !number) {
        return;
    }
    SkyView& view = sky.views[{*system, signal_of(gsv)}];
    if (*number == 1) {
        view.coming.clear();
    }
    take_group(view.coming, *system, gsv);
    if (number == count) {
        view.whole = std::exchange(view.coming, {});
        view.told = now;
    }
}

void take_gsa(Sky& sky, const Sentence& gsa, SkyTime now) {
    const auto told =
        gsa.count > kGsaSystem ? system_of_id(gsa.fields[kGsaSystem]) : system_of_talker(gsa.talker);
    std::erase_if(sky.used, [&](const auto& entry) { return now - entry.second > kUseHolds; });
    for (size_t at = kGsaFirst; at < kGsaEnd; ++at) {
        const int number = within(gsa.fields.at(at), kNumberMax).value_or(0);
        const auto system = told ? told : system_of_number(number);
        if (number > 0 && system && sky.used.size() < kUsedMax) {
            sky.used[{*system, number}] = now;
        }
    }
}

// Adds one signal's view of a satellite to those of its others.
void merge(std::vector<Satellite>& satellites, const Satellite& one) {
    const auto same = std::find_if(satellites.begin(), satellites.end(), [&](const Satellite& other) {
        return other.system == one.system && other.number == one.number;
    });
    if (same == satellites.end()) {
        satellites.push_back(one);
    } else {
        same->signal = std::max(same->signal, one.signal); // none is less than any
    }
}

} // namespace

void sky_take(Sky& sky, std::string_view text, SkyTime now) {
    const Sentence sentence = sentence_split(text);
    if (sentence.type == "GSV") {
        take_gsv(sky, sentence, now);
    } else if (sentence.type == "GSA") {
        take_gsa(sky, sentence, now);
    }
}

std::vector<Satellite> sky_satellites(const Sky& sky, SkyTime now) {
    std::vector<Satellite> satellites;
    for (const auto& [key, view] : sky.views) {
        if (now - view.told <= kViewHolds) {
            for (const Satellite& one : view.whole) {
                merge(satellites, one);
            }
        }
    }
    for (Satellite& one : satellites) {
        const auto use = sky.used.find({one.system, one.number});
        one.used = use != sky.used.end() && now - use->second <= kUseHolds;
    }
    std::sort(satellites.begin(), satellites.end(), [](const Satellite& a, const Satellite& b) {
        return std::pair(a.system, a.number) < std::pair(b.system, b.number);
    });
    return satellites;
}

const char* sky_name(SkySystem system) {
    return kSystems[static_cast<size_t>(system)].name;
}

char sky_letter(SkySystem system) {
    return kSystems[static_cast<size_t>(system)].letter;
}

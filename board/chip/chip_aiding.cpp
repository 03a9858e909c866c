#include "chip/chip_aiding.h"

#include "chip/chip_sentence.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>

namespace {

constexpr uint64_t kRepeatUs = 5000000;
constexpr uint64_t kUsPerSecond = 1000000;
constexpr char kTimeRequest[] = "PZUL010,1,0";
constexpr char kPositionRequest[] = "PZUL010,2,0";
constexpr char kReferenceTime[] = "590";
constexpr size_t kTimeFields = 6;
constexpr size_t kPositionFields = 7;

struct NumberRule {
    const char* name;
    size_t decimals;
    double low;
    double high;
};

constexpr std::array<NumberRule, kPositionFields> kPositionRules = {{
    {"latitude", 6, -90, 90},
    {"longitude", 6, -180, 180},
    {"height", 1, -1000, 20000},
    {"major axis", 1, 0, 1e7},
    {"minor axis", 1, 0, 1e7},
    {"orientation", 1, -360, 360},
    {"vertical uncertainty", 1, 0, 1e7},
}};

bool all_digits(const std::string& text) {
    return !text.empty() &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// An optional minus sign, digits, a point and exactly this many decimals.
bool is_decimal(const std::string& text, size_t decimals) {
    const size_t start = !text.empty() && text[0] == '-' ? 1 : 0;
    const size_t point = text.find('.', start);
    return point != std::string::npos && all_digits(text.substr(start, point - start)) &&
           all_digits(text.substr(point + 1)) && text.size() == point + 1 + decimals;
}

int number(const std::string& text) {
    return atoi(text.c_str()); // at most four digits, all checked
}

void ask(ChipFifo& transmit, const char* body, uint64_t& due_us, ChipAidingStatus& status, uint64_t now_us) {
    chip_fifo_offer(transmit, chip_sentence(body));
    ++status.requests;
    due_us = now_us + kRepeatUs;
}

bool judge(ChipAidingStatus& status, bool& known, const std::string& error) {
    const bool good = error.empty();
    ++(good ? status.good : status.bad);
    status.verdict = good ? "good" : error;
    known = known || good;
    return good;
}

} // namespace

void chip_aiding_boot(ChipAidingState& aiding, ChipStatus& status, uint64_t now_us) {
    aiding = {};
    status.assisted = false;
    aiding.next_time_us = now_us;
    aiding.next_position_us = now_us;
}

void chip_aiding_run(const ChipAidingParts& chip, uint64_t now_us) {
    const bool orbits_known = chip.orbits.of[static_cast<size_t>(ChipConstellation::gps)].known;
    if (!chip.status.assisted && chip.aiding.time_known && orbits_known) {
        chip.status.assisted = true;
        chip.aiding.assisted_us = now_us;
    }
    if (!chip.options.aiding_requests) {
        return;
    }
    ChipAidingState& aiding = chip.aiding;
    if (!aiding.time_known && now_us >= aiding.next_time_us) {
        ask(chip.transmit, kTimeRequest, aiding.next_time_us, chip.status.aiding_time, now_us);
    }
    if (!aiding.position_known && now_us >= aiding.next_position_us) {
        ask(chip.transmit, kPositionRequest, aiding.next_position_us, chip.status.aiding_position, now_us);
    }
}

bool chip_aiding_answer(const ChipAidingParts& chip, const std::vector<std::string>& fields,
                        uint64_t now_us) {
    const std::vector<std::string> values(fields.begin() + 1, fields.end());
    if (fields[0] == kReferenceTime) {
        const uint64_t utc = chip_utc_us(chip.options, now_us);
        return judge(chip.status.aiding_time, chip.aiding.time_known,
                     chip_time_error(values, utc, chip.options.aiding_tolerance_s));
    }
    return judge(chip.status.aiding_position, chip.aiding.position_known, chip_position_error(values));
}

std::string chip_time_error(const std::vector<std::string>& fields, uint64_t utc_us, uint32_t tolerance_s) {
    using namespace std::chrono;
    if (fields.size() != kTimeFields) {
        return std::to_string(fields.size()) + " fields, not 6";
    }
    for (size_t i = 0; i < kTimeFields; ++i) {
        if (!all_digits(fields[i]) || fields[i].size() != (i == 0 ? 4 : 2)) {
            return "field " + std::to_string(i + 1) + " is not " + (i == 0 ? "four" : "two") + " digits";
        }
    }
    const year_month_day date(year(number(fields[0])), month(static_cast<unsigned>(number(fields[1]))),
                              day(static_cast<unsigned>(number(fields[2]))));
    if (!date.ok() || number(fields[3]) > 23 || number(fields[4]) > 59 || number(fields[5]) > 60) {
        return "no such date or time";
    }
    const sys_seconds given =
        sys_days(date) + hours(number(fields[3])) + minutes(number(fields[4])) + seconds(number(fields[5]));
    const auto off = given.time_since_epoch().count() - static_cast<int64_t>(utc_us / kUsPerSecond);
    return std::abs(off) > tolerance_s ? "off by " + std::to_string(off) + " s" : "";
}

std::string chip_position_error(const std::vector<std::string>& fields) {
    if (fields.size() != kPositionFields) {
        return std::to_string(fields.size()) + " fields, not 7";
    }
    for (size_t i = 0; i < kPositionFields; ++i) {
        const NumberRule& rule = kPositionRules[i];
        if (!is_decimal(fields[i], rule.decimals)) {
            return std::string(rule.name) + " is not a number with " + std::to_string(rule.decimals) +
                   " decimals";
        }
        const double value = strtod(fields[i].c_str(), nullptr);
        if (value < rule.low || value > rule.high) {
            return std::string(rule.name) + " is out of range";
        }
    }
    return "";
}

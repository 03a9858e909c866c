#include "assist/xod_schedule.h"

#include <chrono>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

std::string name_of(uint32_t type, uint32_t index) {
    char name[kXodNameSize] = "as it was";
    xod_download_file_name(type, index, name);
    return name;
}

// The calendar of the standard library, which knows nothing of the formula.
int64_t hours_by_calendar(int year, unsigned month, unsigned day, int hour) {
    using namespace std::chrono;
    const sys_days first = sys_days{year_month_day{1980y, January, 6d}};
    const sys_days at =
        sys_days{year_month_day{std::chrono::year{year}, std::chrono::month{month}, std::chrono::day{day}}};
    return (at - first).count() * 24 + hour;
}

// Valid hours of each type, and which types were asked for.
struct Stock {
    std::map<uint32_t, int32_t> valid;
    std::vector<uint32_t> asked;
    uint32_t count;
} stock;

int32_t read_stock(uint32_t type, uint32_t count, uint32_t* end_out) {
    stock.asked.push_back(type);
    stock.count = count;
    *end_out = 1000 + type;
    return stock.valid[type];
}

constexpr uint32_t kUntouched = 77;

using Types = std::vector<uint32_t>;

// Selects with this mask from types with this many valid hours, two numbered files each.
void expect_selection(uint32_t mask, const std::map<uint32_t, int32_t>& hours, const XodSelection& expected,
                      const Types& asked) {
    stock = {hours, {}, 0};
    XodSelection selection = {kUntouched, kUntouched, kUntouched};
    xod_select_type(mask, 2, read_stock, &selection);
    EXPECT_EQ(selection.type, expected.type);
    EXPECT_EQ(selection.valid, expected.valid);
    EXPECT_EQ(selection.end, expected.end);
    EXPECT_EQ(stock.asked, asked);
}

constexpr uint32_t kAll = 15;

} // namespace

TEST(XodFileName, KnowsEveryTypeAndLeavesTheNameOfOthers) {
    const char* const names[] = {"XOD_GR_3_12.DAT", "XOD_GPS_3_12.DAT", "XOD_BDS_3.DAT", "XOD_GAL_3.DAT",
                                 "ZG_R.DAT",        "ZGPS.DAT",         "ZBD2.DAT",      "ZGA.DAT"};
    for (uint32_t type = 0; type < std::size(names); ++type) {
        EXPECT_EQ(name_of(type, 12), names[type]);
    }
    EXPECT_EQ(name_of(1, static_cast<uint32_t>(std::numeric_limits<int32_t>::min())),
              "XOD_GPS_3_-2147483648.DAT");
    EXPECT_EQ(name_of(8, 1), "as it was");
    EXPECT_EQ(name_of(0xFFFFFFFF, 1), "as it was");
}

TEST(GpsHour, BeforeItsStartIsNegative) {
    EXPECT_EQ(gps_hour_from_utc(1980, 1, 6, 0), 0);
    EXPECT_EQ(gps_hour_from_utc(1970, 1, 1, 0), -(10 * 365 + 5) * 24); // a clock that nobody has set
}

TEST(GpsHour, IsTheCalendarsOnEveryDayTo2101) {
    using namespace std::chrono;
    for (sys_days at = sys_days{1980y / January / 1}; at < sys_days{2101y / January / 1}; at += days{1}) {
        const year_month_day date(at);
        const int year = static_cast<int>(date.year());
        const auto month = static_cast<unsigned>(date.month());
        const auto day = static_cast<unsigned>(date.day());
        ASSERT_EQ(gps_hour_from_utc(year, static_cast<int32_t>(month), static_cast<int32_t>(day), 17),
                  hours_by_calendar(year, month, day, 17))
            << year << '-' << month << '-' << day;
    }
}

TEST(GpsHour, FarthestYearIsCutToItsLow32Bits) {
    constexpr int64_t kYear = 2147483647;
    constexpr int64_t kLeapYears = kYear / 4 - kYear / 100 + kYear / 400 - 479;
    EXPECT_EQ(gps_hour_from_utc(kYear, 1, 1, 0),
              static_cast<int32_t>(((kYear - 1980) * 365 + 1 + kLeapYears - 6) * 24));
}

TEST(XodStartHour, IsTheLow24Bits) {
    EXPECT_EQ(xod_start_hour(0xFF0643A5), 0x0643A5U);
    EXPECT_EQ(xod_start_hour(0x01000000), 0U);
}

TEST(XodValidHours, AreThreeDaysFromTheStart) {
    const struct {
        uint32_t start;
        int32_t now;
        int32_t valid;
        uint32_t end;
    } rows[] = {{410000, 410000, 72, 410072},
                {410000, 410071, 1, 410072},
                {410000, 410072, 0, 0}, // has run out
                {0, 410072, 0, 0},
                {410028, 410000, 100, 410100}, // begins in the future
                {0xFFFFFF, -87000, 16777215 + 72 + 87000, 16777215 + 72}};
    for (const auto& row : rows) {
        uint32_t end = 99;
        EXPECT_EQ(xod_valid_hours(row.start, row.now, &end), row.valid) << row.start << ' ' << row.now;
        EXPECT_EQ(end, row.end) << row.start << ' ' << row.now;
    }
}

TEST(XodSelect, TakesTheTypeThatRunsOutFirstAndOnATieTheEarlier) {
    expect_selection(kAll, {{0, 60}, {2, 50}, {3, 55}}, {2, 50, 1002}, {0, 2, 3});
    expect_selection(kAll, {{0, 60}, {2, 50}, {3, 49}}, {3, 49, 1003}, {0, 2, 3});
    expect_selection(kAll, {{0, 40}, {2, 50}, {3, 49}}, {0, 40, 1000}, {0, 2, 3});
    EXPECT_EQ(stock.count, 2U);
    expect_selection(kAll, {{0, 60}, {2, 60}, {3, 60}}, {0, 60, 1000}, {0, 2, 3});
    expect_selection(kAll, {{0, 61}, {2, 60}, {3, 60}}, {2, 60, 1002}, {0, 2, 3});
}

TEST(XodSelect, TypeThatHasRunOutEndsTheSearch) {
    expect_selection(kAll, {{0, 0}, {2, 50}, {3, 55}}, {0, kUntouched, 1000}, {0});
    expect_selection(kAll, {{0, 20}, {2, 0}, {3, 55}}, {2, kUntouched, 1002}, {0, 2});
    expect_selection(kAll, {{0, 20}, {2, 30}, {3, 0}}, {3, kUntouched, 1003}, {0, 2, 3});
}

TEST(XodSelect, LooksOnlyAtEnabledTypesAndGlonassWinsOverGps) {
    expect_selection(XOD_MASK_GPS | XOD_MASK_GPS_GLONASS, {{0, 60}, {1, 10}}, {0, 60, 1000}, {0});
    expect_selection(XOD_MASK_GPS, {{0, 60}, {1, 10}}, {1, 10, 1001}, {1});
    expect_selection(XOD_MASK_GPS_GLONASS, {{0, 60}, {1, 10}}, {0, 60, 1000}, {0});
    expect_selection(XOD_MASK_BEIDOU, {{2, 33}}, {2, 33, 1002}, {2});
    expect_selection(XOD_MASK_GALILEO, {{3, 44}}, {3, 44, 1003}, {3});
    expect_selection(XOD_MASK_GPS | XOD_MASK_BEIDOU, {{1, 10}, {2, 33}}, {1, 10, 1001}, {1, 2});
    expect_selection(0, {}, {kUntouched, kUntouched, kUntouched}, {});
    expect_selection(0xF0, {}, {kUntouched, kUntouched, kUntouched}, {});
}

TEST(XodDelay, CountsFromTwoDaysLeftAndWrapsAroundBelow) {
    const struct {
        uint32_t valid;
        uint32_t end;
        uint32_t retries;
        int32_t ms;
    } rows[] = {{0, 1000, 0, 3000}, // hours are missing
                {60, 0, 0, 3000},
                {0, 0, 3, 3000},
                {60, 1000, 0, 62912000},
                {72, 16, 0, 90000000},  // (72 - 47) * 3600 + 0 + 0, (x & 7) + r = 0
                {48, 15, 0, 18060000},  // 3600 + 0 + 15 * 4 = 3660, & 7 = 4: 3660 + 4 * 3600
                {47, 32, 0, 42540000},  // 7 * 420 = 2940, & 7 = 4: 2940 + 11 * 3600
                {44, 16, 0, 5280000},   // -3 * 3600 + 4 * 420 = -9120, & 7 = 0: -9120 + 4 * 3600
                {43, 1, 0, -2336000},   // -4 * 3600 + 3 * 420 + 4 = -13136, & 7 = 0: + 3 * 3600
                {40, 16, 0, -25200000}, // -7 * 3600, & 7 = 0
                {1, 15, 0, -161520000}, // -46 * 3600 + 420 + 60 = -165120, & 7 = 0: + 3600
                // No 72 hours come to it: (255311991 - 47) * 3600 + 7 * 420 + 4 is 2^32 times something.
                {255311991, 1, 0, 300000},
                {255311991, 1, 2, 1200000}};
    for (const auto& row : rows) {
        EXPECT_EQ(xod_next_download_ms(row.valid, row.end, row.retries), static_cast<uint32_t>(row.ms))
            << row.valid << ' ' << row.end;
    }
}

// What arms the timer relies on: what does not fit is negative as the timer sees it and so refused, nothing
// is 0, which would disarm it.
TEST(XodDelay, EitherFitsTheTimerOrIsNegative) {
    for (uint32_t valid = 1; valid <= 72; ++valid) {
        for (uint32_t end = 1; end <= 16; ++end) {
            const auto delay = static_cast<int32_t>(xod_next_download_ms(valid, end, 0));
            EXPECT_NE(delay, 0) << valid << ' ' << end;
            if (valid >= 44) {
                EXPECT_GT(delay, 0) << valid << ' ' << end;
                EXPECT_LE(delay, 144000000) << valid << ' ' << end;
            }
        }
    }
}

TEST(XodDelay, TakesNoMoreThan72Hours) {
    EXPECT_EQ(xod_clamped_hours(72), 72U);
    EXPECT_EQ(xod_clamped_hours(73), 72U);
    EXPECT_EQ(xod_clamped_hours(0xFFFFFFFF), 72U);
    EXPECT_EQ(xod_clamped_hours(0), 0U);
}

TEST(XodRetry, DoublesFromFiveMinutesToAnHour) {
    const std::vector<uint32_t> expected = {300000, 600000, 1200000, 2400000, 3600000, 3600000};
    for (uint32_t retries = 0; retries < expected.size(); ++retries) {
        EXPECT_EQ(xod_retry_ms(retries), expected[retries]) << retries;
    }
    EXPECT_EQ(xod_retry_ms(32), 3600000U);
    EXPECT_EQ(xod_retry_ms(0xFFFFFFFF), 3600000U);
}

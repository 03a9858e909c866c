// The refresh over weeks of simulated time, with the real calculations.
#include "xod_download_fixture.h"

#include "assist/xod_schedule.h"

#include <algorithm>
#include <set>
#include <string>

namespace {

constexpr int64_t kMsPerHour = 3600000;
constexpr int32_t kFirstHour = 410004; // GPS hour at which the simulation starts
constexpr int64_t kFortnight = 14 * 24 * kMsPerHour;
constexpr uint32_t kTypes[] = {0, 2, 3};

int32_t gps_hour() {
    return kFirstHour + static_cast<int32_t>(xod_fakes.now / kMsPerHour);
}

// A server whose files start at the last full segment, and the local copies.
struct Files {
    std::map<uint32_t, uint32_t> start;
    bool server_up = true;

    void download(uint32_t type) {
        if (server_up) {
            start[type] = static_cast<uint32_t>(gps_hour() / 6 * 6);
        } else {
            start[type] = 0; // what a broken transfer leaves
        }
    }
    FakeHours hours(uint32_t type) {
        FakeHours hours = {};
        hours.valid = xod_valid_hours(start[type], gps_hour(), &hours.end);
        return hours;
    }
    int32_t least_valid() {
        int32_t least = 72;
        for (const uint32_t type : kTypes) {
            least = std::min(least, hours(type).valid);
        }
        return least;
    }
} files;

struct XodDownloadCycle : XodDownload {
    XodDownloadCycle() {
        files = {};
        xod_fakes.read_hours = [](uint32_t type) { return files.hours(type); };
        xod_fakes.during_transfer = [](uint32_t type) { files.download(type); };
    }
};

} // namespace

TEST_F(XodDownloadCycle, KeepsAllTypesFreshForAFortnight) {
    init();
    bool refused = false;
    int32_t least = 72;
    for (int firings = 0; xod_fakes.now < kFortnight; ++firings) {
        ASSERT_LT(firings, 14 * 24 * 3) << "the refresh turns too fast";
        refused = fire().find("next download timer refused") != std::string::npos || refused;
        if (firings >= 3) {
            least = std::min(least, files.least_valid());
        }
    }
    EXPECT_TRUE(refused) << "a delay that no timer takes did not come up";
    EXPECT_GE(least, 12);
    for (const uint32_t type : kTypes) {
        EXPECT_GE(std::count(xod_fakes.transfers.begin(), xod_fakes.transfers.end(), std::pair{type, 1U}), 5)
            << type;
    }
}

TEST_F(XodDownloadCycle, SeveralNumberedFilesAreRefreshedTogether) {
    init(15, 3);
    while (xod_fakes.now < kFortnight) {
        fire();
    }
    const auto fetched = [](uint32_t type, uint32_t index) {
        return std::count(xod_fakes.transfers.begin(), xod_fakes.transfers.end(), std::pair{type, index});
    };
    EXPECT_GT(fetched(0, 1), 0);
    EXPECT_EQ(fetched(0, 1), fetched(0, 2));
    EXPECT_EQ(fetched(0, 1), fetched(0, 3));
    EXPECT_EQ(fetched(2, 2) + fetched(3, 2), 0);
}

TEST_F(XodDownloadCycle, RecoversFromAServerThatWasAwayForDays) {
    init();
    while (xod_fakes.now < kFortnight / 2) {
        fire();
    }
    files.server_up = false;
    xod_fakes.during_transfer = [](uint32_t type) {
        files.download(type);
        xod_fakes.results = {files.server_up ? 0 : -1};
    };
    xod_fakes.results = {-1};
    while (xod_fakes.now < kFortnight) {
        fire();
    }
    files.server_up = true;
    xod_fakes.results = {0};
    const int64_t back = xod_fakes.now;
    while (xod_fakes.now < back + 3 * kMsPerHour) {
        fire();
    }
    EXPECT_GE(files.least_valid(), 40);
}

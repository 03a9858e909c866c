// Everything below the download's state machine, replaced: timers on a simulated clock, transfers by a
// script, the hours of local files from a table.
#ifndef TAVOR_TESTS_XOD_DOWNLOAD_FIXTURE_H
#define TAVOR_TESTS_XOD_DOWNLOAD_FIXTURE_H

#include "assist/xod_download.h"
#include "device/location_timer.h"

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct FakeTimer {
    location_timer_callback callback;
    int64_t due; // ms of the simulated clock, -1 when disarmed
    bool deleted;
};

struct FakeHours {
    int32_t valid;
    uint32_t end;
};

struct FakeMessage {
    uint32_t id;
    uint32_t length;
    uint32_t value;
    int64_t retry_in; // as it was when the message came
};

struct XodDownloadWorld {
    int64_t now = 0; // ms
    std::vector<FakeTimer> timers;
    std::vector<int> failing_creates; // numbers of the calls that fail, from 1
    int creates = 0;
    std::vector<int32_t> starts; // times that timers were started with
    std::map<uint32_t, FakeHours> hours;
    std::function<FakeHours(uint32_t type)> read_hours;   // instead of the table, when set
    std::vector<std::pair<uint32_t, uint32_t>> transfers; // type and index
    std::vector<int32_t> results;                         // of the next transfers, then 0
    std::function<void(uint32_t type)> during_transfer;
    std::vector<FakeMessage> messages;
};

struct XodDownloadFakes : XodDownloadWorld {
    std::recursive_mutex lock;
};

extern XodDownloadFakes xod_fakes;

// The n-th next malloc fails, from 1; 0 takes it back.
void fake_malloc_fails(int n);

struct XodDownload : testing::Test {
    XodDownload();
    ~XodDownload() override;

    // All run the function and return what it printed.
    static std::string init(uint8_t mask = 15, int32_t count = 1);
    static std::string deinit();
    static std::string enqueue();
    static std::string handle();
    // Advances the clock to the next armed timer and fires it, on this thread.
    static std::string fire();

    // The timers that exist, armed or not; the times left of the armed ones by their callback.
    static size_t timers_alive();
    static int64_t retry_in();
    static int64_t next_in();
};

#endif

// A boot ROM below the download's boot ROM operations: the functions of the link and of the power line.
#ifndef TAVOR_TESTS_BROM_LINK_H
#define TAVOR_TESTS_BROM_LINK_H

#include "support/bytes.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Times = std::vector<int64_t>;

inline constexpr uint32_t kNever = UINT32_MAX;
inline constexpr int64_t kHourMs = 3'600'000;

struct BromLink {
    std::vector<Bytes> sent;
    std::deque<Bytes> arriving;  // one a receive; empty: nothing arrives
    std::vector<uint32_t> asked; // bytes of each receive
    std::function<void()> at_receive = [] {};
    std::map<size_t, std::vector<Bytes>> answers; // by the number of what was sent; else its echo
    uint32_t failing_send = kNever;               // number of the send that fails
    bool silent = false;                          // nothing is answered
    bool taken = true;                            // what is sent reaches the chip
    std::vector<uint32_t> speeds;
    bool speed_result = true;

    std::vector<std::string> power; // "off at 0 ms": time since the test's start
    int32_t power_result = 0;
    std::function<void()> at_power_on = [] {};
};

extern BromLink brom_link;

struct BromTest : testing::Test {
    BromTest();
    ~BromTest() override;

    // Runs the operation with the log captured, and returns its result.
    bool run(const std::function<bool()>& operation);

    Lines log; // without stamps
};

// The sends, each as hexadecimal digits.
Lines sent_as_text();

#endif

#include "debug/location_debug.h"

#include "debug_fixture.h"
#include "support/test_limit.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

const std::string kSendFail = "[LOCSERV] ERR: [debug]location_debug_handle, send Fail!";
const std::string kDropped = " blocks dropped";
const std::string kMoreThanTheLineHolds(200'000, 'm');

struct DebugSerialTest : DebugTest {
    void open_line(int32_t wanted_flow_control = 0) {
        flow_control = wanted_flow_control;
        configure();
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), 0);
    }

    void fill_until_dropped(const std::string& block) const {
        EXPECT_TRUE(wait_until([&] {
            handle_text(block);
            return log_count(kSendFail) > 0;
        }));
    }
};

std::string escaped(const std::string& plain) {
    std::string out;
    for (const char c : plain) {
        if (c == '\x77') {
            out += "\x77\x88";
        } else if (c == '\x11') {
            out += "\x77\xEE";
        } else if (c == '\x13') {
            out += "\x77\xEC";
        } else {
            out += c;
        }
    }
    return out;
}

double processor_seconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

} // namespace

TEST_F(DebugSerialTest, StreamAndInputPassByteForByteInEachFlowControl) {
    for (const int32_t setting : {0, 1, 2}) {
        open_line(setting);
        const std::string on_the_line = setting == 1 ? escaped(binary_data()) : binary_data();
        const size_t before = chip_received().size();
        handle_text(binary_data());
        EXPECT_EQ(read_bytes(line.master, on_the_line.size()), on_the_line) << setting;
        line.write(on_the_line);
        EXPECT_TRUE(wait_until([&] { return chip_received().size() >= before + binary_data().size(); }))
            << setting;
        EXPECT_EQ(chip_received().substr(before), binary_data()) << setting;
        ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
    }
}

TEST_F(DebugSerialTest, ReopenedLineStartsWithoutAPendingEscape) {
    open_line(1);
    line.write("A\x77");
    ASSERT_TRUE(wait_until([] { return chip_received() == "A"; }));
    location_debug_close();
    ASSERT_EQ(location_debug_start(), 0);
    line.write("B");
    EXPECT_TRUE(wait_until([] { return chip_received() == "AB"; }));
    EXPECT_EQ(log_count("unrecognized"), 0U);
}

TEST_F(DebugSerialTest, LineThatCantBeOpenedFailsWithoutThreads) {
    line_path = " ";
    configure();
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), -1);
    handle_text("dropped");
    EXPECT_EQ(log_lines(),
              (std::vector<std::string>{"[LOCSERV] ERR: [UART]location_uart_init, open fail: ",
                                        "[LOCSERV] ERR: [debug] location_debug_handle, msgid is -1"}));
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; })); // joined, but not yet gone
}

TEST_F(DebugSerialTest, SecondStartLeavesTheRunningOutletAlone) {
    open_line();
    ASSERT_TRUE(wait_until([&] { return log_lines().size() == 3; }));
    EXPECT_EQ(location_debug_start(), 0);
    const std::vector<std::string> lines = log_lines();
    EXPECT_EQ(std::vector<std::string>(lines.begin() + 3, lines.end()),
              (std::vector<std::string>{"[LOCSERV] ERR: [UART]location_uart_init, uart exist",
                                        "[LOCSERV] INF: [debug]location_debug_start, msgid exist",
                                        "[LOCSERV] INF: [debug]location_debug_start, tx tid exist",
                                        "[LOCSERV] INF: [debug]location_debug_start, rx tid exist"}));
    handle_text("still here");
    EXPECT_EQ(read_bytes(line.master, 10), "still here");
}

TEST_F(DebugSerialTest, LineThatHangsUpMakesNoBusyLoop) {
    open_line();
    const double before = processor_seconds();
    line.hang_up();
    std::this_thread::sleep_for(std::chrono::seconds(1)); // the span that is measured
    EXPECT_LT(processor_seconds() - before, 0.05);
    handle_text("lost");
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_OFF), 0);
}

TEST_F(DebugSerialTest, LongBlockPassesWholeWhenEachByteIsEscaped) {
    open_line(1);
    const std::string block(20'000, '\x77');
    handle_text(block);
    EXPECT_EQ(read_bytes(line.master, 2 * block.size()), escaped(block));
}

TEST_F(DebugSerialTest, WhatTheLineCantTakeIsDroppedInWholeBlocksAndToldOnce) {
    const TestLimit limit; // a send that waits for room would wait for ever
    open_line();
    limit_queue(debug_queue(), 4);
    handle_text(kMoreThanTheLineHolds);
    std::string seen;
    ASSERT_TRUE(wait_until([&] { // the outlet writes it, so that nothing waits any more
        seen += read_now(line.master);
        return !seen.empty();
    }));
    const auto start = Clock::now();
    const std::string block(10'000, 'b');
    for (int i = 0; i < 300; ++i) { // the first six wait: 64 KiB hold no more
        handle_text(block);
    }
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(log_count(kSendFail), 1U);

    ASSERT_TRUE(wait_until([&] { // room again, but blocks still wait
        seen += read_bytes(line.master, 1000);
        return seen.size() > kMoreThanTheLineHolds.size();
    }));
    handle_text("[too early]");
    const size_t before_last = kMoreThanTheLineHolds.size() + 6 * block.size();
    ASSERT_TRUE(wait_until([&] {
        seen += read_now(line.master);
        return seen.size() >= before_last;
    }));
    EXPECT_EQ(log_count(kDropped), 0U);
    handle_text("[last]");
    seen += read_until(line.master, "[last]");
    EXPECT_EQ(seen.size(), before_last + 6);
    EXPECT_EQ(seen.find('['), before_last);
    EXPECT_EQ(log_count(kSendFail), 1U);
    EXPECT_EQ(log_count("[LOCSERV] INF: [debug]location_debug_handle, 295" + kDropped), 1U);
}

TEST_F(DebugSerialTest, LossThatLastsIsToldWhenTheOutletCloses) {
    open_line();
    fill_until_dropped(kMoreThanTheLineHolds);
    handle_text("dropped too");
    EXPECT_EQ(log_count(kDropped), 0U);
    const auto start = Clock::now();
    location_debug_close();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(5)) << "waits for the line";
    EXPECT_EQ(log_count("[LOCSERV] INF: [debug]location_debug_handle, 2" + kDropped), 1U);
    ASSERT_EQ(location_debug_start(), 0);
    handle_text("new"); // a new outlet starts without the loss of the one before
    EXPECT_EQ(log_count(kDropped), 1U);
    EXPECT_EQ(log_count(kSendFail), 1U);
}

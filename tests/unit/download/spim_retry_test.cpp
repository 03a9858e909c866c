#include "base/stop_request.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/spim.h"
#include "spim_slave.h"
#include "support/fake_clock.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using std::string;

const string kConfigureRead2 = "02 00 00 AA 55 01 00 00 00";
const string kConfigureWrite2 = "04 00 00 AA 55 01 00 00 00";
const string kWrite2 = "06 41 42";
const string kRead2 = "81 00 00";
const Lines kWoken = {"0C", "0E"};
const string kGivenUp = "[E] download given up: another request waits and the chip makes no progress";

struct SpimRetry : SpimTest {
    void write() {
        const uint8_t data[] = {0x41, 0x42};
        run([&] { spim_write(data, sizeof data); });
    }
    void read() {
        run([&] { spim_read(buffer.data(), 2); });
    }
    // Writes, then reads in the same state of things, and returns the frames of each.
    std::pair<Lines, Lines> both(const std::deque<int>& statuses) {
        start();
        spim_slave.statuses = statuses;
        write();
        Lines written = frames_as_text();
        spim_slave.frames.clear();
        spim_slave.statuses = statuses;
        read();
        return {written, frames_as_text()};
    }
    // Statuses of a slave that takes each configuration at the 22nd try, when it has been woken, and reports
    // an error at each data phase.
    static void queue_rounds(int n) {
        for (int round = 0; round < n; ++round) {
            spim_slave.statuses.insert(spim_slave.statuses.end(), 21 * 5 + 1, 0x01); // the last: it is awake
            spim_slave.statuses.insert(spim_slave.statuses.end(), {0x04, 0x10, 0x01});
        }
    }
    Bytes buffer = {0x55, 0x55};
};

Lines times(uint32_t n, const Lines& frames) {
    Lines all;
    for (uint32_t i = 0; i < n; ++i) {
        all.insert(all.end(), frames.begin(), frames.end());
    }
    return all;
}

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace

TEST_F(SpimRetry, TransactionIsConfigurationAndData) {
    chip_sends({0x61, 0x62});
    write();
    EXPECT_EQ(frames_as_text(), (Lines{kConfigureWrite2, kWrite2}));
    EXPECT_EQ(spim_slave.has_rx, (std::vector<bool>{false, false}));
    EXPECT_EQ(fake_clock.slept, (Times{3, 3}));
    EXPECT_EQ(log, Lines{});
    read();
    EXPECT_EQ(frames_as_text(), (Lines{kConfigureWrite2, kWrite2, kConfigureRead2, kRead2}));
    EXPECT_EQ(buffer, (Bytes{0x61, 0x62}));
    EXPECT_EQ(fake_clock.slept, (Times{3, 3, 80, 1}));
    EXPECT_EQ(log, Lines{});
    EXPECT_EQ(violations(), 0U);
}

TEST_F(SpimRetry, LengthTravelsLessOne) {
    Bytes data(4095, 0x42);
    run([&] {
        spim_write(data.data(), 1);
        spim_write(data.data(), 4095);
        spim_read(data.data(), 257);
    });
    EXPECT_EQ(frames_as_text()[0], "04 00 00 AA 55 00 00 00 00");
    EXPECT_EQ(frames_as_text()[2], "04 00 00 AA 55 FE 0F 00 00");
    EXPECT_EQ(frames_as_text()[4], "02 00 00 AA 55 00 01 00 00");
}

TEST_F(SpimRetry, WhatFitsNoTransactionIsNotSent) {
    uint8_t byte = 1;
    run([&] {
        spim_write(&byte, 0);
        spim_write(&byte, 4096);
        spim_write(nullptr, 1);
        spim_read(&byte, 0);
        spim_read(&byte, 4096);
        spim_read(nullptr, 1);
    });
    EXPECT_TRUE(spim_slave.frames.empty());
}

TEST_F(SpimRetry, FramesAreBuiltAnewInBothBitOrders) {
    for (const uint32_t order : {0U, 1U}) {
        start(order);
        chip_sends({0x01, 0x02});
        spim_slave.statuses = {0x80, 0x04, 0x80, 0x20, 0x80, 0x04, 0x80, 0x20};
        write();
        read();
        EXPECT_EQ(frames_as_text(), (Lines{kConfigureWrite2, kConfigureWrite2, kWrite2, kWrite2,
                                           kConfigureRead2, kConfigureRead2, kRead2, kRead2}))
            << order;
        EXPECT_EQ(buffer, (Bytes{0x01, 0x02})) << order;
    }
}

TEST_F(SpimRetry, FailedFrameEndsTheOperation) {
    const struct {
        uint8_t opcode;
        Lines frames;
        const char* line;
    } rows[] = {
        {0x04, {kConfigureWrite2}, "[E] [SPIM] SPI master send CWR command failed"},
        {0x06, {kConfigureWrite2, kWrite2}, "[E] [SPIM] SPI master send WR command failed"},
        {0x02, {kConfigureRead2}, "[E] [SPIM] SPI master send CR command failed"},
        {0x81, {kConfigureRead2, kRead2}, "[E] [SPIM] SPI master send dma failed"},
    };
    for (const auto& row : rows) {
        start();
        buffer = {0x55, 0x55};
        spim_slave.fails = [&row](const Bytes& frame) { return frame[0] == row.opcode; };
        row.frames[0] == kConfigureWrite2 ? write() : read();
        EXPECT_EQ(frames_as_text(), row.frames);
        EXPECT_EQ(log, Lines{row.line});
        EXPECT_EQ(buffer, row.opcode == 0x81 ? (Bytes{0, 0}) : (Bytes{0x55, 0x55}));
    }
}

TEST_F(SpimRetry, ConfigurationIsRepeatedUntilItIsTaken) {
    spim_slave.statuses = std::deque<int>(5 * 20, 0x01);
    write();
    EXPECT_EQ(frames_as_text(), (times(21, {kConfigureWrite2}) + Lines{kWrite2}));
    EXPECT_EQ(fake_clock_slept(), 20 * 5 * 3 + 3 + 3);
}

TEST_F(SpimRetry, ConfigurationMissed21TimesWakesTheSlave) {
    const auto [written, read_frames] = both(std::deque<int>(5 * 21, 0x01));
    EXPECT_EQ(written, (times(21, {kConfigureWrite2}) + kWoken + Lines{kConfigureWrite2, kWrite2}));
    EXPECT_EQ(read_frames, (times(21, {kConfigureRead2}) + kWoken + Lines{kConfigureRead2, kRead2}));
}

TEST_F(SpimRetry, AWriteGivesUpBehind11WakeupsAReadBehindOne) {
    chip_has("never-ready", "on");
    write();
    EXPECT_EQ(frames_as_text(), (times(11, times(21, {kConfigureWrite2}) + kWoken)));
    EXPECT_EQ(log, (Lines{"[E] [SPIM] 1. SPI master CWR retry timeout, write failed\r", ""}));

    start();
    chip_has("never-ready", "on");
    read();
    EXPECT_EQ(frames_as_text(), (times(21, {kConfigureRead2}) + kWoken + times(21, {kConfigureRead2})));
    EXPECT_EQ(fake_clock_slept(), 42 * 5 * 80 + 1 + 1 + 10);
    EXPECT_EQ(log, (Lines{"[E] 1. SPI master CRD retry timeout, read failed\r", ""}));
}

TEST_F(SpimRetry, ErrorsAndFaultsOfAConfigurationAreMisses) {
    spim_slave.statuses = {0x08, 0x01, 0x80, 0x01, 0x01, 0x01, 0x01, 0x01};
    write();
    EXPECT_EQ(frames_as_text(), (Lines{kConfigureWrite2, "08 08", "0C", "0E", kConfigureWrite2,
                                       kConfigureWrite2, kConfigureWrite2, kWrite2}));
}

TEST_F(SpimRetry, DataIsRepeatedFiveTimesThenTheSlaveIsWoken) {
    const auto [written, read_frames] = both({0x04, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01});
    EXPECT_EQ(written,
              (Lines{kConfigureWrite2} + times(6, {kWrite2}) + kWoken + Lines{kConfigureWrite2, kWrite2}));
    EXPECT_EQ(read_frames,
              (Lines{kConfigureRead2} + times(6, {kRead2}) + kWoken + Lines{kConfigureRead2, kRead2}));
    EXPECT_EQ(log, Lines{});
}

TEST_F(SpimRetry, DataPhaseIsAwaited100Times) {
    const auto [written, read_frames] = both(std::deque<int>(101, 0x04));
    EXPECT_EQ(written, (Lines{kConfigureWrite2, kWrite2, kWrite2}));
    EXPECT_EQ(read_frames, (Lines{kConfigureRead2, kRead2, kRead2}));
    EXPECT_EQ(fake_clock_slept(), (3 + 100 * 3 + 3) + (80 + 100 * 1 + 1));
}

TEST_F(SpimRetry, MissesStartAnewWithTheCommand) {
    spim_slave.statuses = std::deque<int>(5 * 20, 0x01);
    for (const int status : {0x04, 0x10, 0x01}) { // taken at last; then the data phase fails
        spim_slave.statuses.push_back(status);
    }
    for (int i = 0; i < 5 * 20; ++i) {
        spim_slave.statuses.push_back(0x01);
    }
    write();
    EXPECT_EQ(frames_with(0x04), 21U + 21U);
    EXPECT_EQ(frames_with(0x0C), 1U); // of the error only
}

TEST_F(SpimRetry, FailedDataCountsOnBehindAnErrorThatCountsForNone) {
    spim_slave.statuses = {0x04, 0x80, 0x80, 0x80, 0x80, 0x10, 0x01, 0x04, 0x80, 0x80, 0x01};
    write();
    EXPECT_EQ(frames_as_text(),
              (Lines{kConfigureWrite2} + times(5, {kWrite2}) + Lines{"08 10"} + kWoken +
               Lines{kConfigureWrite2} + times(2, {kWrite2}) + kWoken + Lines{kConfigureWrite2, kWrite2}));
}

TEST_F(SpimRetry, WakeupsCountOverTheRestarts) {
    queue_rounds(11);
    write();
    EXPECT_EQ(frames_with(0x04), 10U * 22 + 21);
    EXPECT_EQ(log.at(0), "[E] [SPIM] 1. SPI master CWR retry timeout, write failed\r");
    start();
    queue_rounds(2);
    read();
    EXPECT_EQ(frames_with(0x02), 22U + 21);
    EXPECT_EQ(log.at(0), "[E] 1. SPI master CRD retry timeout, read failed\r");
}

TEST_F(SpimRetry, AnErrorThatPassesIsOvercomeWhileAStopWaits) {
    const StopRequest stop;
    for (const uint8_t data : Bytes{0x06, 0x81}) {
        start();
        spim_slave.data_status = 0x10;
        spim_slave.at_frame = [data] {
            if (frames_with(data) == 10) {
                spim_slave.data_status = std::nullopt;
            }
        };
        data == 0x06 ? write() : read();
        EXPECT_EQ(frames_with(data), 10U);
        EXPECT_TRUE(data == 0x81 || spim_write_taken());
        EXPECT_EQ(log, Lines{});
    }
}

TEST_F(SpimRetry, EveryLoopEndsTwoSecondsAfterTheLastProgressWhenAStopWaits) {
    const StopRequest stop;
    const struct {
        const char* name;
        const char* fault; // of the chip
        std::optional<int> data_status;
    } slaves[] = {
        {"nobody", "silence=on", {}},
        {"never configured", "never-ready=on", {}},
        {"errors all the time", "status-error=always:0x08", {}},
        {"never awake again", "asleep=on", 0x08},
        {"errors", nullptr, 0x08},
        {"data never done", nullptr, 0x04},
        {"data at fault", nullptr, 0x80},
    };
    for (const auto& slave : slaves) {
        for (const bool writes : {true, false}) {
            start();
            if (slave.fault != nullptr) {
                const string fault = slave.fault;
                chip_has(fault.substr(0, fault.find('=')), fault.substr(fault.find('=') + 1));
            }
            spim_slave.data_status = slave.data_status;
            writes ? write() : read();
            EXPECT_GE(fake_clock_slept(), 2000) << slave.name << writes;
            EXPECT_LE(fake_clock_slept(), 2100) << slave.name << writes;
            EXPECT_EQ(log.back(), kGivenUp) << slave.name << writes;
            EXPECT_FALSE(spim_write_taken());
            fake_clock.slept.clear();
            read(); // ends at its first miss from then on
            EXPECT_LE(fake_clock_slept(), 110) << slave.name << writes;
        }
    }
}

TEST_F(SpimRetry, AWriteIsTakenOrNotWhateverBecameOfTheOneBefore) {
    write();
    EXPECT_TRUE(spim_write_taken());
    spim_slave.fails = [](const Bytes&) { return true; };
    write();
    EXPECT_FALSE(spim_write_taken());
}

TEST_F(SpimRetry, WithoutAStopNothingIsGivenUp) {
    spim_slave.data_status = 0x80;
    spim_slave.at_frame = [] {
        if (frames_with(0x06) == 600) {
            spim_slave.data_status = std::nullopt;
        }
    };
    write();
    EXPECT_EQ(frames_with(0x06), 600U);
    EXPECT_EQ(frames_with(0x04), 100U);
    EXPECT_EQ(frames_with(0x0C), 99U);
    EXPECT_EQ(log, Lines{});
}

TEST_F(SpimRetry, AFailingCallIsLoggedOnceASecondWithTheCountOfThoseLeftOut) {
    const string failed = "[E] [SPIM] SPI master send CWR command failed";
    spim_slave.fails = [](const Bytes&) { return true; };
    const uint8_t byte = 0;
    const auto write_for = [&byte](int64_t ms) {
        for (int64_t i = 0; i < ms; ++i) {
            spim_write(&byte, 1);
            ++fake_clock.now_ms;
        }
    };
    run([&] {
        write_for(1);
        fake_clock.set_ms -= 3'600'000; // who sets the time of day moves no line
        write_for(2499);
    });
    EXPECT_EQ(log, (Lines{failed, failed + " (999 left out)", failed + " (999 left out)"}));

    // The first success of the call tells the rest and ends the row.
    spim_slave.fails = [](const Bytes&) { return false; };
    run([&] { write_for(2); });
    EXPECT_EQ(log, (Lines{failed + " (499 left out)"}));
    spim_slave.fails = [](const Bytes&) { return true; };
    run([&] { write_for(1); });
    EXPECT_EQ(log, (Lines{failed}));
}

TEST_F(SpimRetry, ClosingTellsWhatWasLeftOutAndEndsTheRows) {
    const string failed = "[E] [SPIM] SPI master send CWR command failed";
    const string failed_read = "[E] [SPIM] SPI master send CR command failed";
    spim_slave.fails = [](const Bytes&) { return true; };
    const uint8_t byte = 0;
    uint8_t read = 0;
    run([&] {
        for (int i = 0; i < 4; ++i) {
            spim_write(&byte, 1);
        }
        spim_read(&read, 1);
        spim_read(&read, 1);
    });
    EXPECT_EQ(log, (Lines{failed, failed_read}));
    run([] { spim_close(); });
    EXPECT_EQ(log, (Lines{failed_read + " (1 left out)", failed + " (3 left out)"}));
    spim_open(spim_slave.port);
    run([&] { spim_write(&byte, 1); });
    EXPECT_EQ(log, (Lines{failed})) << "the next download tells its first failure";
    run([] { spim_close(); });
    EXPECT_EQ(log, Lines{});
}

TEST_F(SpimRetry, LinkMovesBytesThroughTheTransport) {
    start(1);
    spim_close();
    DownloadSettings settings = {};
    settings.spi_frequency = 1000;
    settings.spi_bit_order = 1;
    strcpy(settings.io_path, "/dev/spidev3.0");
    EXPECT_TRUE(hdl_transport_open(settings));
    EXPECT_STREQ(spim_slave.opened.back().path, "/dev/spidev3.0");
    EXPECT_EQ(spim_slave.opened.back().max_speed_hz, 1000U);
    EXPECT_EQ(spim_slave.opened.back().lsb_first, 0);
    const uint8_t data[] = {0x41, 0x42};
    EXPECT_TRUE(hdl_transport_send(data, 2, 0));
    chip_sends({0x61, 0x62});
    EXPECT_EQ(hdl_transport_receive(buffer.data(), 2), 2U);
    EXPECT_EQ(buffer, (Bytes{0x61, 0x62}));
    EXPECT_EQ(frames_as_text(), (Lines{kConfigureWrite2, kWrite2, kConfigureRead2, kRead2}));

    spim_slave.closed.clear();
    hdl_transport_close();
    hdl_transport_close();
    EXPECT_EQ(spim_slave.closed.size(), 1U);
}

TEST_F(SpimRetry, LinkTellsWhatCantBeMovedAndItsHooksDoNothing) {
    EXPECT_TRUE(hdl_transport_prepare());
    EXPECT_TRUE(hdl_transport_set_speed(921600));
    hdl_transport_link_hook(1);
    EXPECT_FALSE(hdl_transport_send(nullptr, 2, 1));
    EXPECT_FALSE(hdl_transport_send(buffer.data(), 0, 1));
    EXPECT_EQ(hdl_transport_receive(nullptr, 2), 0U);
    EXPECT_EQ(hdl_transport_receive(buffer.data(), 0), 0U);
    EXPECT_TRUE(spim_slave.frames.empty());
    spim_close();
    spim_slave.open_result = -1;
    EXPECT_FALSE(hdl_transport_open(DownloadSettings{}));
}

// Status polling, error recovery and power of the slave's interface.
#include "host_mux_fixture.h"

#include <optional>

namespace {

const std::string kQuery = "portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY";

struct HostMuxPower : HostMux {
    // The first `times` answers to a status query are this status; then comes the other, or the true one.
    void answer_with(uint8_t status, size_t times, std::optional<uint8_t> then = {}) {
        slave.status_answer = [status, then, left = times](uint8_t honest) mutable {
            if (left == 0) {
                return then.value_or(honest);
            }
            --left;
            return status;
        };
    }

    // The answer to the n-th query, counted from 1, is this status.
    void answer_nth_with(size_t n, uint8_t status) {
        slave.status_answer = [status, n, count = size_t{0}](uint8_t honest) mutable {
            return ++count == n ? status : honest;
        };
    }

    int32_t query(uint8_t mask, uint8_t expected) {
        int32_t result = -1;
        lines = lines_of(capture_stdout([&] {
            result = portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(handle.id, mask, expected);
        }));
        return result;
    }
};

void append(Frames& frames, size_t times, const Frames& more) {
    for (size_t i = 0; i < times; ++i) {
        frames.insert(frames.end(), more.begin(), more.end());
    }
}

} // namespace

TEST_F(HostMuxPower, StatusIsPolledEvery5MsAndTheRetriesAreCounted) {
    for (const size_t retries : {7, 99}) {
        reset_sleeps();
        answer_with(0x01, retries, 0x05);
        EXPECT_EQ(query(0x04, 0x04), 0);
        EXPECT_EQ(lines.back(), kQuery + " OK, retry counter:" + std::to_string(retries) + ",\r");
        EXPECT_EQ(times_printed(kQuery + "  Status receive: 0x1\r"), retries);
        EXPECT_EQ(sleeps_of(5000), retries);
    }
    slave.frames.clear();
    answer_with(0x00, 2, 0x01);
    EXPECT_EQ(query(0x01, 0x01), 0) << "power is not checked while it is waited for";
    EXPECT_EQ(slave.frames, Frames(3, kStatusFrame));
}

TEST_F(HostMuxPower, StatusThatIsNeverReachedEndsAfter100Polls) {
    answer_with(0x01, 200);
    EXPECT_EQ(query(0x20, 0x20), 1);
    EXPECT_EQ(lines.back(), kQuery + ", retry counter:100,\r");
    EXPECT_EQ(slave.frames, Frames(100, kStatusFrame));
    EXPECT_EQ(sleeps_of(5000), 100U);
}

TEST_F(HostMuxPower, SilentSlaveFailsAWaitAtOnceAndCountsAsOff) {
    const std::pair<uint8_t, uint8_t> waits[] = {{0x04, 0x04}, {0x20, 0x20}, {0x01, 0x01}, {0x01, 0x00}};
    for (const auto& [mask, expected] : waits) {
        answer_with(0xFF, 1);
        EXPECT_EQ(query(mask, expected), expected == 0x00 ? 0 : 1);
        EXPECT_EQ(lines, Lines({kQuery + "  Status receive: 0xff\r"}));
    }
    EXPECT_EQ(slave.frames.size(), 4U);
}

TEST_F(HostMuxPower, UnpoweredSlaveIsSwitchedOffAndOn) {
    EXPECT_EQ(query(0x04, 0x04), 1);
    EXPECT_EQ(lines, joined({{kQuery + "  Status receive: 0x0\r", kQuery + " spi slave is power off!!!!!!\r"},
                             answered_at_once("0x0"),
                             {"portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER success!!!\r"},
                             answered_at_once("0x1"),
                             {"portable_HAL_SPI_POWER_ON_WITHOUT_COUNTER success!!!\r"}}));
    EXPECT_EQ(slave.frames, Frames({kStatusFrame, kOffFrame, kStatusFrame, kOnFrame, kStatusFrame}));
}

TEST_F(HostMuxPower, ErrorStatusIsClearedAndTheSlaveReset) {
    for (const uint8_t status : {uint8_t{0x0D}, uint8_t{0x15}, uint8_t{0x18}}) {
        slave.frames.clear();
        reset_sleeps();
        answer_with(status, 1);
        EXPECT_EQ(query(0x04, 0x04), 1);
        EXPECT_EQ(slave.frames,
                  Frames({kStatusFrame, {0x08, status}, kOffFrame, kStatusFrame, kOnFrame, kStatusFrame}));
        EXPECT_EQ(sleeps_of(100), 1U);
    }
    EXPECT_EQ(lines, joined({{kQuery + "  Status receive: 0x18\r",
                              kQuery + ",Slave tansfer Error:0x18, need reset Slave \r",
                              "Transfer error, now Master reset Slave!!!\r"},
                             answered_at_once("0x0"),
                             {"portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER success!!!\r"},
                             answered_at_once("0x1"),
                             {"portable_HAL_SPI_POWER_ON_WITHOUT_COUNTER success!!!\r"}}));
}

TEST_F(HostMuxPower, ErrorOfTheSlaveBeingResetBringsAnotherReset) {
    answer_with(0x09, 2);
    EXPECT_EQ(query(0x04, 0x04), 1);
    EXPECT_EQ(slave.frames, Frames({kStatusFrame,
                                    {0x08, 0x09},
                                    kOffFrame,
                                    kStatusFrame,
                                    {0x08, 0x09},
                                    kOffFrame,
                                    kStatusFrame,
                                    kOnFrame,
                                    kStatusFrame,
                                    kOffFrame,
                                    kStatusFrame,
                                    kOnFrame,
                                    kStatusFrame}));
}

TEST_F(HostMuxPower, ErrorThatCanNotBeClearedResetsNothing) {
    answer_with(0x09, 1);
    slave.failing_transfer = 2;
    EXPECT_EQ(query(0x04, 0x04), 1);
    EXPECT_EQ(lines, Lines({kQuery + "  Status receive: 0x9\r",
                            kQuery + ",Slave tansfer Error:0x9, need reset Slave \r", kTransferFailed,
                            kQuery + ": transfer fail 1\r"}));
    EXPECT_EQ(slave.frames, Frames({kStatusFrame}));
}

TEST_F(HostMuxPower, ErrorComesBeforeTheExpectedStatus) {
    answer_with(0x2D, 1);
    EXPECT_EQ(query(0x20, 0x20), 1);
    EXPECT_TRUE(printed(kQuery + ",Slave tansfer Error:0x2d, need reset Slave \r"));
}

TEST_F(HostMuxPower, EachErrorBringsAPowerCycleOfWhichAtMost16WaitForEachOther) {
    for (const size_t errors : {size_t{1}, size_t{2}, size_t{16}, size_t{17}, size_t{100}}) {
        slave.frames.clear();
        answer_with(0x09, errors);
        capture_stdout([&] { EXPECT_EQ(host_mux_spi_power_on_without_counter(handle.id), 0); });
        Frames expected = {kOnFrame};
        append(expected, errors, {kStatusFrame, {0x08, 0x09}, kOffFrame});
        append(expected, 1, {kStatusFrame, kOnFrame, kStatusFrame});
        append(expected, std::min<size_t>(errors, 16) - 1, {kOffFrame, kStatusFrame, kOnFrame, kStatusFrame});
        append(expected, 1, {kOnFrame, kStatusFrame});
        EXPECT_EQ(slave.frames, expected) << errors;
    }
}

TEST_F(HostMuxPower, PowerOnRepeatsUntilTheSlaveAnswers) {
    answer_with(0xFF, 50);
    capture_stdout([&] { EXPECT_EQ(host_mux_spi_power_on_without_counter(handle.id), 0); });
    Frames expected;
    append(expected, 51, {kOnFrame, kStatusFrame});
    EXPECT_EQ(slave.frames, expected);
}

TEST_F(HostMuxPower, PauseBetweenRoundsGrowsFrom5To300MsAndStartsAnew) {
    for (int i = 0; i < 2; ++i) {
        reset_sleeps();
        answer_with(0xFF, 1);
        capture_stdout([&] { EXPECT_EQ(host_mux_spi_power_on_without_counter(handle.id), 0); });
        EXPECT_EQ(slept_us(), 5000U);
        reset_sleeps();
        answer_with(0xFF, 10);
        capture_stdout([&] { EXPECT_EQ(host_mux_spi_power_on_without_counter(handle.id), 0); });
        EXPECT_EQ(slept_us(), (5 + 10 + 20 + 40 + 80 + 160 + 4 * 300) * 1000U);
    }
}

TEST_F(HostMuxPower, PowerOffRepeatsUntilTheSlaveIsOff) {
    answer_with(0x01, 250);
    capture_stdout([&] { EXPECT_EQ(portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(handle.id), 0); });
    EXPECT_EQ(frames_of(0x02), 3U);
    EXPECT_EQ(frames_of(0x06), 251U);
}

TEST_F(HostMuxPower, OnlyTheFirstOnAndTheLastOffReachTheSlave) {
    lines = lines_of(capture_stdout([&] {
        host_mux_spi_power_on(handle.id);
        host_mux_spi_power_on(handle.id);
        portable_HAL_SPI_POWER_OFF(handle.id);
        portable_HAL_SPI_POWER_OFF(handle.id);
    }));
    EXPECT_EQ(slave.frames, Frames({kOnFrame, kStatusFrame, kOffFrame, kStatusFrame}));
    EXPECT_EQ(lines, joined({kPoweredOn,
                             {"host_mux_spi_power_on: success!!! counter=2\r",
                              "portable_HAL_SPI_POWER_OFF: success!!!, counter=1\r"},
                             kPoweredOff}));
    EXPECT_EQ(host_mux_spi_power_counter(), 0);
}

TEST_F(HostMuxPower, PowerOffAtCounterZeroIsAnError) {
    lines = lines_of(capture_stdout([&] { portable_HAL_SPI_POWER_OFF(handle.id); }));
    EXPECT_EQ(lines, Lines({"portable_HAL_SPI_POWER_OFF: error!!!"}));
    EXPECT_TRUE(slave.frames.empty());
    EXPECT_EQ(host_mux_spi_power_counter(), 0);
}

TEST_F(HostMuxPower, FailedSwitchLeavesTheCounter) {
    slave.failing_transfer = 1;
    capture_stdout([&] { host_mux_spi_power_on(handle.id); });
    EXPECT_EQ(host_mux_spi_power_counter(), 0);
    capture_stdout([&] { host_mux_spi_power_on(handle.id); });
    slave.failing_transfer = slave.transfers + 1;
    lines = lines_of(capture_stdout([&] { portable_HAL_SPI_POWER_OFF(handle.id); }));
    EXPECT_EQ(lines, Lines({kTransferFailed, "portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER: transfer fail\r"}));
    EXPECT_EQ(host_mux_spi_power_counter(), 1);
}

namespace {

// A wait of an operation: the number of its status query, and the step that its failure names.
struct Wait {
    bool sending;
    size_t query;
    std::string step;
};

const Wait kWaits[] = {{false, 2, "receive-Step1_b"}, {false, 3, "receive-Step2_b"},
                       {false, 4, "receive-Step2_d"}, {true, 2, "send-Step1_b"},
                       {true, 3, "send-Step1_d"},     {true, 4, "send-Step1_d"},
                       {true, 5, "receive-Step2_d"}};

// Each makes the wait fail: nobody there, an error, power lost.
constexpr uint8_t kFailingStatus[] = {0xFF, 0x09, 0x11, 0x00};

} // namespace

TEST_F(HostMuxPower, EveryWaitFailsTheOperation) {
    for (const Wait& wait : kWaits) {
        for (const uint8_t status : kFailingStatus) {
            slave.give({'a', 'b'});
            answer_nth_with(wait.query, status);
            EXPECT_FALSE(wait.sending ? send({'a', 'b'}) : receive());
            EXPECT_EQ(times_printed("mux_spi_master_demo_" + wait.step +
                                    ": #### too many ERROR, now go to restart!!!!!\r"),
                      1U)
                << wait.query << " " << int{status};
            expect_usable();
        }
    }
}

TEST_F(HostMuxPower, ResetInsideAnOperationLeavesThePowerOffToItsEnd) {
    slave.give({'a'});
    answer_nth_with(2, 0x09);
    EXPECT_FALSE(receive());
    EXPECT_EQ(frames_of(0x08), 1U);
    EXPECT_EQ(frames_of(0x02), 2U);
    EXPECT_EQ(frames_of(0x04), 2U);
    EXPECT_EQ(lines.back(), "portable_HAL_SPI_POWER_OFF: success!!!, counter=0\r");
    expect_usable();
}

// Both operations: what goes over the wire, what is printed, and how each step fails.
#include "host_mux_fixture.h"

namespace {

struct HostMuxReceive : HostMux {};

const Bytes kAskTxLen = {0x0A, 0x08, 0, 0, 0, 3, 0, 0, 0};
const Bytes kReadRegister = {0x81, 0, 0, 0, 0};

const Lines kLengthAsked =
    joined({{"mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r",
             "mux_spi_master_demo_receive-Step1_a: Master want to send 9B\r",
             "mux_spi_master_demo_receive-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r",
             "mux_spi_master_demo_receive-Step1_b: wait slave CR done...\r"},
            answered_at_once("0x5"),
            {"mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value. \r",
             "mux_spi_master_demo_receive-Step1_c: Master want to receive 4B.\r"}});

struct HostMuxSend : HostMux {};

const Bytes kAskRxLen = {0x0A, 0x04, 0, 0, 0, 3, 0, 0, 0};

const Lines kRoomAsked = joined({{"mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r",
                                  "mux_spi_master_demo_send-Step1_a: Master want to send 9B cmd.\r",
                                  "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r",
                                  "mux_spi_master_demo_send-Step1_b: wait slave CR done...\r"},
                                 answered_at_once("0x5"),
                                 {"mux_spi_master_demo_send-Step1_c: receive SPI slave Tx_len Reg value.\r",
                                  "mux_spi_master_demo_send-Step1_c: Master want to receive 4B.\r"},
                                 answered_at_once("0x21")});

} // namespace

TEST_F(HostMuxReceive, WholeReceiveInTheLog) {
    slave.give({'a', 'b', 'c'});
    ASSERT_TRUE(receive());
    EXPECT_EQ(
        lines,
        joined({kPoweredOn,
                kLengthAsked,
                {"mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value:0x3. success!!!\r",
                 "mux_spi_master_demo_receive-Step2_a: send VG_SPI_SLAVE_RD_CMD.\r",
                 "mux_spi_master_demo_receive-Step2_a: Master want to send 9B cmd.\r",
                 "mux_spi_master_demo_receive-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r",
                 "mux_spi_master_demo_receive-Step2_b: wait slave CR done...\r"},
                answered_at_once("0x5"),
                {"mux_spi_master_demo_receive-Step2_c: Master want to receive:3\r"},
                answered_at_once("0x21"),
                {"mux_spi_master_demo_receive-Step2_c: Receive Tx_buff data. success\r"},
                kPoweredOff}));
}

TEST_F(HostMuxReceive, NothingToReceiveEndsWithLengthZeroAfterOnePowerCycle) {
    ASSERT_TRUE(receive());
    EXPECT_TRUE(received.empty());
    EXPECT_EQ(slave.frames, Frames({kOnFrame, kStatusFrame, kAskTxLen, kStatusFrame, kReadRegister, kOffFrame,
                                    kStatusFrame}));
    EXPECT_EQ(
        lines,
        joined({kPoweredOn,
                kLengthAsked,
                {"mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value:0x0. success!!!\r"},
                kPoweredOff}));
    expect_usable();
}

TEST_F(HostMuxReceive, MoreThanTheCapacityIsReadInPieces) {
    slave.give(counted_bytes(10));
    ASSERT_TRUE(receive(6));
    EXPECT_TRUE(
        printed("mux_spi_master_demo_receive-Step1_c: slave data len too big, request 6 B firstly;\r"));
    EXPECT_EQ(slave.frames[5], Bytes({0x0A, 0x00, 0x20, 0, 0, 5, 0, 0, 0}));
    Bytes all = received;
    ASSERT_TRUE(receive(6));
    EXPECT_FALSE(
        printed("mux_spi_master_demo_receive-Step1_c: slave data len too big, request 6 B firstly;\r"));
    all.insert(all.end(), received.begin(), received.end());
    EXPECT_EQ(all, counted_bytes(10));
}

TEST_F(HostMuxReceive, HostileLengthIsBoundedByTheCapacity) {
    slave.chip.faults.hostile_tx = true;
    slave.give(counted_bytes(4096));
    ASSERT_TRUE(receive(100));
    EXPECT_EQ(received.size(), 100U);
    EXPECT_TRUE(printed(
        "mux_spi_master_demo_receive-Step1_c: Receive SPI slave Tx_len Reg value:0xffffffff. success!!!\r"));
    EXPECT_TRUE(
        printed("mux_spi_master_demo_receive-Step1_c: slave data len too big, request 100 B firstly;\r"));
}

TEST_F(HostMuxReceive, OneDataPhaseMovesAtMost4095Bytes) {
    slave.chip.faults.hostile_tx = true;
    slave.give(counted_bytes(6000));
    ASSERT_TRUE(receive(15360));
    EXPECT_EQ(received.size(), 4095U);
    EXPECT_EQ(slave.frames[7].size(), 4096U);
}

TEST_F(HostMuxReceive, WhatIsTooLongForTheDeviceIsReadInShorterPieces) {
    slave.longest = 1024;
    slave.give(counted_bytes(4095));
    EXPECT_FALSE(receive()) << "4096 bytes";
    EXPECT_FALSE(receive()) << "2048 bytes";
    Bytes all;
    while (all.size() < 4095) {
        ASSERT_TRUE(receive());
        EXPECT_LE(received.size(), 1023U);
        all.insert(all.end(), received.begin(), received.end());
    }
    EXPECT_EQ(all, counted_bytes(4095));
    EXPECT_TRUE(send(counted_bytes(1023)));
    EXPECT_FALSE(send(counted_bytes(1024))) << "not cut";
}

TEST_F(HostMuxReceive, LongReadsAreTriedAgainOnAReopenedBus) {
    slave.longest = 1024;
    slave.give(counted_bytes(4095));
    EXPECT_FALSE(receive());
    EXPECT_EQ(host_mux_deinit(&handle), 0);
    slave.longest = 4096;
    SetUp();
    EXPECT_TRUE(receive());
    EXPECT_EQ(received, counted_bytes(4095));
}

TEST_F(HostMuxReceive, BytesThatTheDeviceLeavesOutAreZero) {
    slave.give({'a', 'b', 'c'});
    ASSERT_TRUE(receive());
    slave.give({'a', 'b', 'c'});
    slave.empty_transfer = slave.transfers + 5; // the register
    ASSERT_TRUE(receive());
    EXPECT_EQ(received, Bytes());
    slave.empty_transfer = slave.transfers + 8; // the data
    slave.status_answer = [](uint8_t honest) { return static_cast<uint8_t>(honest | (honest & 1) * 0x24); };
    ASSERT_TRUE(receive());
    EXPECT_EQ(received, Bytes({0, 0, 0}));
}

TEST_F(HostMuxReceive, BytesBehindAnOpcodeAreZeroAlsoAfterASend) {
    ASSERT_TRUE(send(counted_bytes(4095)));
    slave.give(counted_bytes(4095));
    slave.frames.clear();
    ASSERT_TRUE(receive());
    Bytes expected(4096, 0);
    expected[0] = 0x81;
    EXPECT_EQ(slave.frames[7], expected);
}

TEST_F(HostMuxReceive, NoMemoryForTheFrameFails) {
    slave.give({'a'});
    fail_allocations(true);
    EXPECT_FALSE(receive());
    fail_allocations(false);
    EXPECT_TRUE(printed("mux_spi_master_demo_receive-Step2_C: malloc buffer fail\r"));
    EXPECT_EQ(slave.frames.back(), kStatusFrame);
    EXPECT_EQ(slave.frames[slave.frames.size() - 2], kOffFrame);
    expect_usable();
}

namespace {

// A transfer of an operation that fails, and what is printed about it.
struct FailingTransfer {
    bool sending;
    size_t number; // counted from 1
    std::string text;
    bool fails = true;   // the operation
    int32_t counter = 0; // power-on requests afterwards
};

const std::string kQueryFail = "portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY: transfer fail 0\r";
const std::string kOffFail = "portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER: transfer fail\r";
const std::string kOff = "portable_HAL_SPI_POWER_OFF: success!!!, counter=0\r";
const std::string kOnFail = "host_mux_spi_power_on_without_counter: transfer fail\r";
const std::string kReceiveStep = "mux_spi_master_demo_receive-Step";
const std::string kSendStep = "mux_spi_master_demo_send-Step";
const std::string kTooMany = ": #### too many ERROR, now go to restart!!!!!\r";

const FailingTransfer kFailingTransfers[] = {
    {false, 1, kOnFail},
    {false, 2, kQueryFail, false},
    {false, 3, kReceiveStep + "1_a:: SPI master send err, status:0 \r"},
    {false, 4, kReceiveStep + "1_b" + kTooMany},
    {false, 5, kReceiveStep + "1_c : SPI master receive err,status:0\r"},
    {false, 6, kReceiveStep + "2_a: SPI master send err, try again...status:0 \r"},
    {false, 7, kReceiveStep + "2_b" + kTooMany},
    {false, 8, kReceiveStep + "2_a: SPI master send err, try again...status:0 \r"},
    {false, 9, kReceiveStep + "2_d" + kTooMany},
    {false, 10, kOffFail, false, 1},
    {false, 11, kQueryFail, false},
    {false, 12, kOff, false},
    {true, 1, kOnFail},
    {true, 2, kQueryFail, false},
    {true, 3, kSendStep + "1_a: SPI master send err, try again...status:0 \r"},
    {true, 4, kSendStep + "1_b" + kTooMany},
    {true, 5, kSendStep + "1_c: SPI master receive err, try again...status:0\r"},
    {true, 6, kSendStep + "1_d" + kTooMany},
    {true, 7, kSendStep + "2_a: SPI master send err, try again...status:0 \r"},
    {true, 8, kSendStep + "1_d" + kTooMany},
    {true, 9, kSendStep + "2_c: send fail!!!status:0\r"},
    {true, 10, kReceiveStep + "2_d" + kTooMany},
    {true, 11, kOffFail, false, 1},
    {true, 12, kQueryFail, false},
    {true, 13, kOff, false},
};

} // namespace

TEST_F(HostMuxReceive, FailureOfATransferEndsItsStepOnlyInBothDirections) {
    for (const FailingTransfer& row : kFailingTransfers) {
        SCOPED_TRACE(testing::Message() << (row.sending ? "send " : "receive ") << row.number);
        TearDown();
        SetUp();
        slave.give({'a', 'b'});
        slave.failing_transfer = slave.transfers + row.number;
        EXPECT_EQ(row.sending ? send({'a', 'b'}) : receive(), !row.fails);
        EXPECT_TRUE(printed(row.text));
        expect_usable(row.counter);
        if (row.counter > 0) {
            capture_stdout([&] { portable_HAL_SPI_POWER_OFF(handle.id); });
        }
    }
}

TEST_F(HostMuxReceive, FailedStepIsFollowedByThePowerOffAlone) {
    slave.give({'a', 'b'});
    slave.failing_transfer = 5;
    EXPECT_FALSE(receive());
    EXPECT_EQ(slave.frames,
              Frames({kOnFrame, kStatusFrame, kAskTxLen, kStatusFrame, kOffFrame, kStatusFrame}));
    EXPECT_EQ(lines, joined({kPoweredOn,
                             kLengthAsked,
                             {kTransferFailed,
                              "mux_spi_master_demo_receive-Step1_c : SPI master receive err,status:0\r"},
                             kPoweredOff}));
}

TEST_F(HostMuxReceive, SlaveThatNeverTookThePowerOnFailsTheNextStepAndIsReset) {
    slave.give({'a'});
    slave.failing_transfer = 1;
    EXPECT_FALSE(receive());
    EXPECT_EQ(lines.back(), "portable_HAL_SPI_POWER_OFF: error!!!");
    EXPECT_EQ(
        slave.frames,
        Frames({kAskTxLen, kStatusFrame, {0x08, 0x08}, kOffFrame, kStatusFrame, kOnFrame, kStatusFrame}));
}

TEST_F(HostMuxSend, WholeSendInTheLog) {
    ASSERT_TRUE(send({'x', 'y'}));
    EXPECT_EQ(
        lines,
        joined(
            {kPoweredOn,
             kRoomAsked,
             {"mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:0x1000. success!!!\r",
              "mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:4096, but master just want "
              "to send:2\r",
              "mux_spi_master_demo_send-Step2_a: send VG_SPI_SLAVE_WD_CMD.\r",
              "mux_spi_master_demo_send-Step2_a:Master want to send 8B \r",
              "mux_spi_master_demo_send-Step2_a: Send VG_SPI_SLAVE_RD_CMD. success!!!\r",
              "mux_spi_master_demo_send-Step2_b: wait slave CR done...\r"},
             answered_at_once("0x5"),
             answered_at_once("0x21"),
             {"mux_spi_master_demo_send-Step2_c: receive Tx_buff data. success\r"},
             kPoweredOff}));
}

TEST_F(HostMuxSend, NoMoreThanTheSlaveTakesIsSent) {
    slave.chip.options.rx_window = 3;
    ASSERT_TRUE(send({'a', 'b', 'c', 'd', 'e'}));
    EXPECT_EQ(sent, 3U);
    EXPECT_EQ(slave.taken(), Bytes({'a', 'b', 'c'}));
    EXPECT_TRUE(
        printed("mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:0x3. success!!!\r"));
    EXPECT_EQ(slave.frames[6], Bytes({0x0C, 0x00, 0x10, 0, 0, 2, 0, 0, 0}));
}

TEST_F(HostMuxSend, SlaveThatTakesNothingEndsWithLengthZero) {
    slave.chip.options.rx_window = 0;
    ASSERT_TRUE(send({'a'}));
    EXPECT_EQ(sent, 0U);
    EXPECT_EQ(slave.frames, Frames({kOnFrame, kStatusFrame, kAskRxLen, kStatusFrame, kReadRegister,
                                    kStatusFrame, kOffFrame, kStatusFrame}));
    EXPECT_EQ(
        lines,
        joined({kPoweredOn,
                kRoomAsked,
                {"mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:0x0. success!!!\r"},
                kPoweredOff}));
    expect_usable();
}

TEST_F(HostMuxSend, HostileLengthIsBoundedByWhatIsSent) {
    slave.chip.faults.hostile_rx = true;
    ASSERT_TRUE(send({'a'}));
    EXPECT_EQ(sent, 1U);
    EXPECT_TRUE(
        printed("mux_spi_master_demo_send-Step1_c: Receive SPI slave Rx_len Reg value:-1, but master just "
                "want to send:1\r"));
}

TEST_F(HostMuxSend, OneDataPhaseMovesAtMost4095Bytes) {
    slave.chip.faults.hostile_rx = true;
    ASSERT_TRUE(send(counted_bytes(5000)));
    EXPECT_EQ(sent, 4095U);
    const Bytes data = counted_bytes(5000);
    EXPECT_EQ(slave.taken(), Bytes(data.begin(), data.begin() + 4095));
}

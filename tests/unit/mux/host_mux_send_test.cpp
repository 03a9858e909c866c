// The send operation: what goes over the wire, what is printed, and how each step fails.
#include "host_mux_fixture.h"

namespace {

struct HostMuxSend : HostMux {};

const Bytes kAskRxLen = {0x0A, 0x04, 0, 0, 0, 3, 0, 0, 0};
const Bytes kReadRegister = {0x81, 0, 0, 0, 0};

const Lines kLengthAsked =
    joined({{"mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD.\r",
             "mux_spi_master_demo_send-Step1_a: Master want to send 9B cmd.\r",
             "mux_spi_master_demo_send-Step1_a: Send VG_SPI_SLAVE_CRD_CMD success!!!\r",
             "mux_spi_master_demo_send-Step1_b: wait slave CR done...\r"},
            answered_at_once("0x5"),
            {"mux_spi_master_demo_send-Step1_c: receive SPI slave Tx_len Reg value.\r",
             "mux_spi_master_demo_send-Step1_c: Master want to receive 4B.\r"},
            answered_at_once("0x21")});

} // namespace

TEST_F(HostMuxSend, WholeSendInTheLog) {
    ASSERT_TRUE(send({'x', 'y'}));
    EXPECT_EQ(
        lines,
        joined(
            {kPoweredOn,
             kLengthAsked,
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
                kLengthAsked,
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

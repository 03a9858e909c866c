#include "download/hdl_settings.h"
#include "hdl_da_fixture.h"

namespace {

using Command = Agent;
using FlashInfoTest = Agent;

} // namespace

TEST_F(Command, DfuStart) {
    answer(agent_frame(0x211B, 0, {0x12, 0}));
    g_download_settings.link_type = HDL_LINK_UART; // an SPI link is asked for no byte
    uint16_t result = 0;
    EXPECT_EQ(hdl_dfu_start_kite(5, &result), 0U);
    EXPECT_EQ(result, 0x1200);
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{with_crc({0x05, 0x5A, 7, 0, 0x1B, 0x21, 5})});
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_dfu_start_kite start\n"});
}

TEST_F(Command, DfuReset) {
    answer(agent_frame(0x211C, 0));
    g_download_settings.link_type = HDL_LINK_UART;
    uint8_t result = 9;
    EXPECT_EQ(hdl_dfu_reset_kite(1, &result), 0U);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{with_crc({0x05, 0x5A, 7, 0, 0x1C, 0x21, 1})});
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_dfu_reset_kite start\n"});
}

TEST_F(Command, DfuAsksAnSpiLinkForNothing) {
    uint8_t result = 9;
    EXPECT_EQ(hdl_dfu_reset_kite(1, &result), 1U);
    EXPECT_EQ(g_fakes.calls.at(1), "receive 0");
}

TEST_F(Command, FlashAddress) {
    answer(agent_frame(0x210E, 0, le32(0x10000000)));
    EXPECT_EQ(hdl_da_get_flash_address(&out), 0U);
    EXPECT_EQ(out, 0x10000000U);
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{{0x05, 0x5A, 2, 0, 0x0E, 0x21}}));
    EXPECT_EQ(g_fakes.calls, (Texts{"send 6 flag 1", "receive 11"}));
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_da_get_flash_address start\n"});
}

TEST_F(Command, FlashSize) {
    answer(agent_frame(0x210F, 0, le32(0x400000)));
    EXPECT_EQ(hdl_da_get_flash_size(&out), 0U);
    EXPECT_EQ(out, 0x400000U);
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{{0x05, 0x5A, 2, 0, 0x0F, 0x21}}));
    EXPECT_EQ(g_fakes.calls, (Texts{"send 6 flag 1", "receive 11"}));
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_da_get_flash_size start\n"});
}

TEST_F(Command, FlashId) {
    answer(agent_frame(0x2110, 0, {1, 2, 3}));
    uint8_t id[3] = {};
    EXPECT_EQ(hdl_da_get_flash_id(id), 0U);
    EXPECT_EQ(Bytes(id, id + 3), (Bytes{1, 2, 3}));
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{{0x05, 0x5A, 2, 0, 0x10, 0x21}}));
    EXPECT_EQ(g_fakes.calls, (Texts{"send 6 flag 1", "receive 10"}));
    EXPECT_EQ(g_fakes.log, Texts{"[I] hdl_da_get_flash_id start\n"});
}

TEST_F(Command, FlashQuestionsWithoutAnAreaSendNothing) {
    EXPECT_EQ(hdl_da_get_flash_address(nullptr), 0U);
    EXPECT_EQ(hdl_da_get_flash_size(nullptr), 0U);
    EXPECT_EQ(hdl_da_get_flash_id(nullptr), 0U);
    EXPECT_EQ(g_fakes.calls, Texts{});
}

TEST_F(Command, FailuresOfTheFlashQuestionsAreTheWaitersCodes) {
    EXPECT_EQ(hdl_da_get_flash_address(&out), 1U);
    answer(agent_frame(0x2106, 0));
    EXPECT_EQ(hdl_da_get_flash_size(&out), 2U);
    answer(agent_frame(0x2110, 1, {1, 2, 3}));
    uint8_t id[3] = {9, 9, 9};
    EXPECT_EQ(hdl_da_get_flash_id(id), 3U);
    EXPECT_EQ(out, kUntouched);
}

TEST_F(Command, SpeedUp) {
    answer(agent_frame(0x2115, 0));
    EXPECT_TRUE(hdl_speedup_slave_baudrate(921600));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{(Bytes{0x05, 0x5A, 6, 0, 0x15, 0x21} + le32(921600))});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 10 flag 1", "receive 7"}));
    EXPECT_EQ(g_fakes.log,
              (Texts{"[I] hdl_speedup_slave_baudrate start\n", "[I] hdl_speedup_slave_baudrate res done\n"}));
}

TEST_F(Command, SpeedUpTellsTheCodeOfItsFailure) {
    answer(agent_frame(0x2115, 1));
    EXPECT_FALSE(hdl_speedup_slave_baudrate(921600));
    EXPECT_EQ(g_fakes.log, (Texts{"[I] hdl_speedup_slave_baudrate start\n",
                                  "[E] hdl_speedup_slave_baudrate error, ErrorCode:3\n"}));
}

TEST_F(Command, FinishSucceedsSilently) {
    answer(agent_frame(0x2106, 0));
    EXPECT_TRUE(hdl_finish_kite(0));
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{{0x05, 0x5A, 3, 0, 0x06, 0x21, 0}}));
    EXPECT_EQ(g_fakes.calls, (Texts{"send 7 flag 1", "receive 7"}));
    EXPECT_EQ(g_fakes.log, Texts{});
}

TEST_F(Command, FinishTellsTheCodeOfItsFailure) {
    answer(agent_frame(0x2104, 0, le32(0)));
    EXPECT_FALSE(hdl_finish_kite(0));
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_finish_kite error, ErrorCode:2\n"});
}

TEST_F(Command, FlowControl) {
    answer(agent_frame(0x2116, 0));
    EXPECT_TRUE(hdl_open_slave_flow_ctrl());
    EXPECT_EQ(g_fakes.sent, (std::vector<Bytes>{{0x05, 0x5A, 3, 0, 0x16, 0x21, 1}}));
    EXPECT_EQ(g_fakes.calls, (Texts{"send 7 flag 0", "receive 7"}));
    EXPECT_EQ(g_fakes.log,
              (Texts{"[I] hdl_open_slave_flow_ctrl start\n", "[I] hdl_open_slave_flow_ctrl res done\n"}));
}

TEST_F(Command, FlowControlIsToldBehindItsSendAndSpeedBeforeIt) {
    Texts told;
    g_fakes.on_send = [&](const Bytes&) { told = g_fakes.log; };
    hdl_open_slave_flow_ctrl();
    EXPECT_EQ(told, Texts{});
    g_fakes.log.clear();
    hdl_speedup_slave_baudrate(921600);
    EXPECT_EQ(told, Texts{"[I] hdl_speedup_slave_baudrate start\n"});
}

TEST_F(Command, FlowControlTellsTheCodeOfItsFailure) {
    EXPECT_FALSE(hdl_open_slave_flow_ctrl());
    EXPECT_EQ(g_fakes.log, (Texts{"[I] hdl_open_slave_flow_ctrl start\n",
                                  "[E] hdl_open_slave_flow_ctrl error, ErrorCode:1\n"}));
}

TEST_F(Command, ARefusedSendEndsInATimeOut) {
    g_fakes.accepts = [](const Bytes&) { return false; };
    EXPECT_FALSE(hdl_finish_kite(0));
    EXPECT_EQ(g_fakes.sent.size(), 1U);
    EXPECT_EQ(g_fakes.log, Texts{"[E] hdl_finish_kite error, ErrorCode:1\n"});
}

namespace {

// An agent with a small flash; the command with this identifier is refused.
void flash_agent(uint16_t refused = 0) {
    g_fakes.on_send = [refused](const Bytes& frame) {
        const auto id = static_cast<uint16_t>(frame[4] | frame[5] << 8);
        const Bytes payload = id == 0x210E   ? le32(0x1000)
                              : id == 0x210F ? le32(0x80000)
                              : id == 0x2110 ? Bytes{0xC2, 0x05, 0x36}
                                             : Bytes{};
        g_fakes.arrives.push_back(agent_frame(id, id == refused ? 1 : 0, payload));
    };
}

const Texts kFlashLines = {
    "[I] hdl_da_get_flash_address start\n", "[I] hdl_da_get_flash_size start\n",
    "[I] hdl_da_get_flash_id start\n",      "[I] ########## Flash address: 0x1000\n",
    "[I] ########## Flash size: 0x80000\n", "[I] ########## Flash id: 0xC2536\n",
};

} // namespace

TEST_F(FlashInfoTest, OnSpiAsksAddressSizeAndIdentifier) {
    flash_agent();
    pool_holds(kDone);
    FlashInfo info = {};
    EXPECT_TRUE(hdl_da_get_flash_info(&info));
    EXPECT_EQ(info.address, 0x1000U);
    EXPECT_EQ(info.size, 0x80000U);
    EXPECT_EQ(Bytes(info.id, info.id + 3), (Bytes{0xC2, 0x05, 0x36}));
    EXPECT_EQ(g_fakes.calls, (Texts{"sleep 100", "send 6 flag 1", "receive 11", "send 6 flag 1", "receive 11",
                                    "send 6 flag 1", "receive 10"}));
    EXPECT_EQ(g_fakes.log, kFlashLines);
}

TEST_F(FlashInfoTest, WithoutAnAreaFailsUntouched) {
    pool_holds(kDone);
    EXPECT_FALSE(hdl_da_get_flash_info(nullptr));
    EXPECT_EQ(g_fakes.calls, Texts{});
    EXPECT_EQ(pool(), kDone);
}

TEST_F(FlashInfoTest, TheThirdLinkCallsItsHookFirst) {
    flash_agent();
    g_download_settings.link_type = HDL_LINK_OTHER;
    FlashInfo info = {};
    EXPECT_TRUE(hdl_da_get_flash_info(&info));
    EXPECT_EQ(Texts(g_fakes.calls.begin(), g_fakes.calls.begin() + 3),
              (Texts{"sleep 100", "hook 1", "send 6 flag 1"}));
}

TEST_F(FlashInfoTest, ASerialLineIsMadeFasterOnBothSides) {
    flash_agent();
    g_download_settings.link_type = HDL_LINK_UART;
    g_download_settings.baudrate = 921600;
    FlashInfo info = {};
    EXPECT_TRUE(hdl_da_get_flash_info(&info));
    EXPECT_EQ(g_fakes.sent.at(0), (Bytes{0x05, 0x5A, 6, 0, 0x15, 0x21} + le32(921600)));
    EXPECT_EQ(Texts(g_fakes.calls.begin(), g_fakes.calls.begin() + 6),
              (Texts{"sleep 100", "send 10 flag 1", "receive 4112", "set_speed 921600", "sleep 100",
                     "send 6 flag 1"}));
}

TEST_F(FlashInfoTest, ASerialLineThatStaysSlowFails) {
    g_download_settings.link_type = HDL_LINK_UART;
    FlashInfo info = {};
    flash_agent(0x2115);
    EXPECT_FALSE(hdl_da_get_flash_info(&info));
    EXPECT_EQ(g_fakes.sent.size(), 1U);
    EXPECT_EQ(hdl_fakes_log_with("[E]"), Texts{"[E] hdl_speedup_slave_baudrate error, ErrorCode:3\n"});

    flash_agent();
    g_fakes.set_speed_result = false;
    g_fakes.log.clear();
    EXPECT_FALSE(hdl_da_get_flash_info(&info));
    EXPECT_EQ(g_fakes.sent.size(), 2U);
    EXPECT_EQ(hdl_fakes_log_with("[E]"), Texts{});
}

TEST_F(FlashInfoTest, EachFailedQuestionEndsItWithItsOwnLine) {
    const struct {
        uint16_t refused;
        size_t sent;
        const char* line;
    } rows[] = {
        {0x210E, 1, "[E] hdl_flash_address_kite error, ErrorCode:3\n"},
        {0x210F, 2, "[E] hdl_flash_size_kite error, ErrorCode:3\n"},
        {0x2110, 3, "[E] hdl_flash_id_kite error, ErrorCode:3\n"},
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        flash_agent(row.refused);
        FlashInfo info = {};
        EXPECT_FALSE(hdl_da_get_flash_info(&info));
        EXPECT_EQ(g_fakes.sent.size(), row.sent);
        EXPECT_EQ(g_fakes.log.back(), row.line);
    }
}

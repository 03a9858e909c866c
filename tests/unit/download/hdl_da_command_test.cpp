#include "base/stop_request.h"
#include "download/hdl_kite.h"
#include "download/hdl_settings.h"
#include "hdl_da_fixture.h"

#include <functional>

namespace {

using Command = Agent;
using FlashInfoTest = Agent;

} // namespace

TEST_F(Command, EachHasItsFrameItsResponseAndItsLines) {
    uint16_t dfu = 0;
    uint8_t cleared = 9;
    uint8_t id[3] = {};
    const struct {
        std::function<bool()> run; // returns whether it did what it should
        Bytes answer;
        Bytes frame;
        const char* receive;
        Texts log;
    } rows[] = {
        {[&] { return hdl_da_get_flash_address(&out) == 0 && out == 0x10000000; },
         agent_frame(0x210E, 0, le32(0x10000000)),
         {0x05, 0x5A, 2, 0, 0x0E, 0x21},
         "receive 11",
         {"[I] hdl_da_get_flash_address start\n"}},
        {[&] { return hdl_da_get_flash_size(&out) == 0 && out == 0x400000; },
         agent_frame(0x210F, 0, le32(0x400000)),
         {0x05, 0x5A, 2, 0, 0x0F, 0x21},
         "receive 11",
         {"[I] hdl_da_get_flash_size start\n"}},
        {[&] {
             return hdl_da_get_flash_id(id) == 0 && Bytes(id, id + 3) == Bytes{1, 2, 3};
         },
         agent_frame(0x2110, 0, {1, 2, 3}),
         {0x05, 0x5A, 2, 0, 0x10, 0x21},
         "receive 10",
         {"[I] hdl_da_get_flash_id start\n"}},
        {[] { return hdl_speedup_slave_baudrate(921600); },
         agent_frame(0x2115, 0),
         Bytes{0x05, 0x5A, 6, 0, 0x15, 0x21} + le32(921600),
         "receive 7",
         {"[I] hdl_speedup_slave_baudrate start\n", "[I] hdl_speedup_slave_baudrate res done\n"}},
        {[] { return !hdl_speedup_slave_baudrate(1); },
         agent_frame(0x2115, 1),
         Bytes{0x05, 0x5A, 6, 0, 0x15, 0x21} + le32(1),
         "receive 7",
         {"[I] hdl_speedup_slave_baudrate start\n", "[E] hdl_speedup_slave_baudrate error, ErrorCode:3\n"}},
        {[] { return hdl_finish_kite(0); },
         agent_frame(0x2106, 0),
         {0x05, 0x5A, 3, 0, 0x06, 0x21, 0},
         "receive 7",
         {}},
        {[] { return !hdl_finish_kite(0); },
         agent_frame(0x2104, 0),
         {0x05, 0x5A, 3, 0, 0x06, 0x21, 0},
         "receive 7",
         {"[E] hdl_finish_kite error, ErrorCode:2\n"}},
        {[] { return hdl_open_slave_flow_ctrl(); },
         agent_frame(0x2116, 0),
         {0x05, 0x5A, 3, 0, 0x16, 0x21, 1},
         "receive 7",
         {"[I] hdl_open_slave_flow_ctrl start\n", "[I] hdl_open_slave_flow_ctrl res done\n"}},
        {[] { return !hdl_open_slave_flow_ctrl(); },
         agent_frame(0x2116, 1),
         {0x05, 0x5A, 3, 0, 0x16, 0x21, 1},
         "receive 7",
         {"[I] hdl_open_slave_flow_ctrl start\n", "[E] hdl_open_slave_flow_ctrl error, ErrorCode:3\n"}},
        // An SPI link is asked for no byte of these two; what is in the pool counts all the same.
        {[&] { return hdl_dfu_start_kite(5, &dfu) == 0 && dfu == 0x1200; },
         agent_frame(0x211B, 0, {0x12, 0}),
         with_crc({0x05, 0x5A, 7, 0, 0x1B, 0x21, 5}),
         "receive 0",
         {"[I] hdl_dfu_start_kite start\n"}},
        {[&] { return hdl_dfu_reset_kite(1, &cleared) == 0 && cleared == 0; },
         agent_frame(0x211C, 0),
         with_crc({0x05, 0x5A, 7, 0, 0x1C, 0x21, 1}),
         "receive 0",
         {"[I] hdl_dfu_reset_kite start\n"}},
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        g_fakes.on_send = [&row](const Bytes&) {
            if (row.receive == std::string("receive 0")) {
                pool_holds(row.answer);
            } else {
                g_fakes.arrives.push_back(row.answer);
            }
        };
        EXPECT_TRUE(row.run()) << row.frame[4];
        EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{row.frame});
        const char* flag = row.frame[4] == 0x16 ? " flag 0" : " flag 1"; // of the flow control
        EXPECT_EQ(g_fakes.calls, (Texts{"send " + std::to_string(row.frame.size()) + flag, row.receive}));
        EXPECT_EQ(g_fakes.log, row.log);
    }
}

TEST_F(Command, WhatDoesNotFitItsFrameIsLeftOut) {
    KiteCommand command;
    kite_begin(&command, KITE_WRITE_BLOCK);
    kite_add_bytes(&command, Bytes(4107).data(), 4107);
    EXPECT_EQ(command.size, 6U);
    kite_add_bytes(&command, Bytes(4106).data(), 4106);
    kite_add_u8(&command, 1);
    EXPECT_EQ(command.size, 4112U);
}

TEST_F(Command, FlashQuestionsWithoutAnAreaSendNothingAndLeaveThePool) {
    pool_holds(kDone);
    EXPECT_EQ(hdl_da_get_flash_address(nullptr), 0U);
    EXPECT_EQ(hdl_da_get_flash_size(nullptr), 0U);
    EXPECT_EQ(hdl_da_get_flash_id(nullptr), 0U);
    EXPECT_FALSE(hdl_da_get_flash_info(nullptr));
    EXPECT_EQ(g_fakes.calls, Texts{});
    EXPECT_EQ(pool(), kDone);
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

TEST_F(Command, FlowControlIsToldBehindItsSendAndSpeedBeforeIt) {
    Texts told;
    g_fakes.on_send = [&](const Bytes&) { told = g_fakes.log; };
    hdl_open_slave_flow_ctrl();
    EXPECT_EQ(told, Texts{});
    g_fakes.log.clear();
    hdl_speedup_slave_baudrate(921600);
    EXPECT_EQ(told, Texts{"[I] hdl_speedup_slave_baudrate start\n"});
}

TEST_F(Command, IsAwaitedWhileAStopWaitsHoweverLongAgoTheLastProgressWas) {
    g_fakes.now += 3000;
    g_fakes.on_receive = [receives = 0]() mutable {
        if (++receives == 2) {
            g_fakes.arrives.push_back(agent_frame(0x2106, 0));
        }
    };
    const StopRequest stop;
    EXPECT_TRUE(hdl_finish_kite(0));
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
        const auto id = static_cast<uint16_t>(le_at(frame, 4, 2));
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

TEST_F(FlashInfoTest, OtherLinksAreMadeReadyFirst) {
    const std::pair<uint32_t, Texts> links[] = {
        {HDL_LINK_OTHER, {"sleep 100", "hook 1", "send 6 flag 1"}},
        {HDL_LINK_UART,
         {"sleep 100", "send 10 flag 1", "receive 4112", "set_speed 921600", "sleep 100", "send 6 flag 1"}},
    };
    for (const auto& [link, calls] : links) {
        hdl_fakes_reset();
        flash_agent();
        g_download_settings.link_type = link;
        g_download_settings.baudrate = 921600;
        FlashInfo info = {};
        EXPECT_TRUE(hdl_da_get_flash_info(&info));
        g_fakes.calls.resize(calls.size());
        EXPECT_EQ(g_fakes.calls, calls);
    }
    EXPECT_EQ(g_fakes.sent.at(0), (Bytes{0x05, 0x5A, 6, 0, 0x15, 0x21} + le32(921600)));
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

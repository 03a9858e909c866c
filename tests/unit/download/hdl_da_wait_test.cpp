#include "download/hdl_settings.h"
#include "hdl_da_fixture.h"

namespace {

using Waiter = Agent;
using DataWaiter = Agent;

} // namespace

TEST_F(Waiter, TellsWhyThereIsNoAnswer) {
    const Bytes half = {0x05, '[', 7};
    const struct {
        const char* what;
        Bytes arrives;
        uint32_t code;
        Bytes left;
    } rows[] = {
        {"silence leaves the pool", half, HDL_DA_TIMEOUT, half},
        {"another identifier is taken", agent_frame(0x2100, 0, le32(1)) + kDone, HDL_DA_FOREIGN, kDone},
        {"another status too", agent_frame(kFormat, 1, le32(1)) + kDone, HDL_DA_FAILED, kDone},
        {"no identifier", raw_frame('[', 0, le16(kFormat)), HDL_DA_FOREIGN, le16(kFormat)},
        {"half of one", raw_frame('[', 1, le16(kFormat)), HDL_DA_FOREIGN, {kFormat >> 8}},
    };
    for (const auto& row : rows) {
        hdl_fakes_reset();
        arrive(row.arrives);
        EXPECT_EQ(wait(), row.code) << row.what;
        EXPECT_EQ(pool(), row.left) << row.what;
        EXPECT_EQ(out, kUntouched) << row.what;
    }
}

TEST_F(Waiter, AResponseShorterThanItsKindIsAFailure) {
    const std::pair<uint16_t, uint16_t> least[] = {
        // bytes after the length field
        {0x2100, 7}, {0x2104, 7}, {0x210E, 7}, {0x210F, 7}, {0x211A, 7}, {0x2110, 6},
        {0x211B, 4}, {0x2106, 3}, {0x2115, 3}, {0x2116, 3}, {0x211C, 3}, {0x1234, 3},
    };
    for (const auto& [id, size] : least) {
        for (uint16_t length = 2; length <= size; ++length) {
            hdl_fakes_reset();
            out = kUntouched;
            arrive(raw_frame('[', length, le16(id) + Bytes(length - 2U)));
            EXPECT_EQ(wait(id), length < size ? 3U : 0U) << std::hex << id << " " << length;
            EXPECT_EQ(pool(), Bytes{}) << id << " " << length;
            EXPECT_TRUE(length == size || out == kUntouched) << id << " " << length;
        }
    }
}

TEST_F(Waiter, AStatusOutsideTheFrameIsNotTaken) {
    // The byte after the frame is 0 and would be a success.
    arrive(raw_frame('[', 2, le16(0x2106) + Bytes{0, 0}));
    EXPECT_EQ(wait(0x2106), 3U);
}

TEST_F(Waiter, ALogComesFirstAndTheWaitGoesOn) {
    g_fakes.receive_ms = 400;
    arrive(agent_log("erasing"));
    g_fakes.on_receive = [] {
        if (g_fakes.now == 1'000'801) { // the log came at once and cost a pause
            g_fakes.arrives.push_back(kDone);
        }
    };
    EXPECT_EQ(wait(), 0U);
    EXPECT_EQ(g_fakes.log, Texts{"[I] [DA Log] erasing\n"});
}

TEST_F(Waiter, LogsDoNotProlongTheWait) {
    const int64_t start = g_fakes.now;
    g_fakes.on_receive = [] {
        g_fakes.now += 250;
        g_fakes.arrives.push_back(agent_log("busy"));
    };
    EXPECT_EQ(wait(), 1U);
    EXPECT_EQ(g_fakes.now - start, 1000);
    EXPECT_EQ(g_fakes.log, Texts(4, "[I] [DA Log] busy\n"));
}

TEST_F(Waiter, EveryAddressSizeAndChecksumIsFourBytes) {
    for (const uint16_t id : std::initializer_list<uint16_t>{0x2100, 0x2104, 0x210E, 0x210F, 0x211A}) {
        arrive(agent_frame(id, 0, le32(0xA0B0C0D0) + Bytes{1, 2}));
        EXPECT_EQ(wait(id), 0U);
        EXPECT_EQ(out, 0xA0B0C0D0);
        out = kUntouched;
    }
}

TEST_F(Waiter, TheFlashIdIsThreeBytes) {
    arrive(agent_frame(0x2110, 0, {1, 2, 3, 4}));
    uint8_t id[4] = {9, 9, 9, 9};
    EXPECT_EQ(hdl_da_wait_response(0x2110, id, 11), 0U);
    EXPECT_EQ(Bytes(id, id + 4), (Bytes{1, 2, 3, 9}));
}

TEST_F(Waiter, TheDfuResponsesCarryWhatTheyDo) {
    arrive(agent_frame(0x211B, 0, {0x12, 0x34}));
    uint16_t result = 0xFFFF;
    EXPECT_EQ(hdl_da_wait_response(0x211B, &result, 9), 0U);
    EXPECT_EQ(result, 0x1200) << "it begins with the status";
    arrive(agent_frame(0x211C, 0));
    uint8_t cleared[2] = {9, 9};
    EXPECT_EQ(hdl_da_wait_response(0x211C, cleared, 7), 0U);
    EXPECT_EQ(Bytes(cleared, cleared + 2), (Bytes{0, 9}));
}

TEST_F(Waiter, OtherResponsesCarryNothing) {
    arrive(agent_frame(0x2106, 0, le32(5)));
    EXPECT_EQ(wait(0x2106), 0U);
    EXPECT_EQ(out, kUntouched);
    arrive(agent_frame(0x2106, 0));
    EXPECT_EQ(hdl_da_wait_response(0x2106, nullptr, 7), 0U);
}

TEST_F(Waiter, TheFlashIdWaiterHasTheSameCodes) {
    uint8_t id[3] = {9, 9, 9};
    EXPECT_EQ(hdl_da_wait_flash_id(0x2110, id), 1U);
    arrive(agent_frame(0x210F, 0, {1, 2, 3}));
    EXPECT_EQ(hdl_da_wait_flash_id(0x2110, id), 2U);
    arrive(agent_frame(0x2110, 7, {1, 2, 3}));
    EXPECT_EQ(hdl_da_wait_flash_id(0x2110, id), 3U);
    arrive(agent_frame(0x2110, 0, {1, 2}));
    EXPECT_EQ(hdl_da_wait_flash_id(0x2110, id), 3U);
    EXPECT_EQ(Bytes(id, id + 3), Bytes(3, 9));
    EXPECT_EQ(pool(), Bytes{});
}

TEST_F(Waiter, TheFlashIdWaiterWritesThreeBytesWhateverItWaitsFor) {
    uint8_t id[4] = {9, 9, 9, 9};
    arrive(agent_frame(0x210E, 0, {1, 2, 3, 4}));
    EXPECT_EQ(hdl_da_wait_flash_id(0x210E, id), 0U);
    EXPECT_EQ(Bytes(id, id + 4), (Bytes{1, 2, 3, 9}));
}

namespace {

struct Data {
    uint32_t address = kUntouched;
    uint32_t crc = kUntouched;
    Bytes data = Bytes(8, 9); // exactly the room
    uint32_t wait() {
        return hdl_da_wait_data(0x2101, &address, &crc, data.data(), 8, 23);
    }
    bool untouched() const {
        return address == kUntouched && crc == kUntouched && data == Bytes(8, 9);
    }
};

Bytes data_frame(const Bytes& data, uint8_t status = 0) {
    return agent_frame(0x2101, status, le32(0x11223344) + le32(0x55667788) + data);
}

} // namespace

TEST_F(DataWaiter, HandsOverAddressChecksumAndData) {
    arrive(data_frame({1, 2, 3, 4, 5, 6, 7, 8}));
    Data got;
    EXPECT_EQ(got.wait(), 0U);
    EXPECT_EQ(g_fakes.calls, Texts{"receive 23"});
    EXPECT_EQ(got.address, 0x11223344U);
    EXPECT_EQ(got.crc, 0x55667788U);
    EXPECT_EQ(got.data, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(pool(), Bytes{});
}

TEST_F(DataWaiter, FewerDataFillTheFront) {
    arrive(data_frame({1, 2}));
    Data got;
    EXPECT_EQ(got.wait(), 0U);
    EXPECT_EQ(got.data, (Bytes{1, 2, 9, 9, 9, 9, 9, 9}));
    arrive(data_frame({}));
    EXPECT_EQ(got.wait(), 0U);
}

TEST_F(DataWaiter, MoreDataThanTheRoomAreRefused) {
    g_download_settings.link_type = HDL_LINK_UART;
    for (const size_t n : {9, 4000, 4097}) {
        arrive(data_frame(Bytes(n, 1)));
        Data got;
        EXPECT_EQ(got.wait(), 3U) << n;
        EXPECT_TRUE(got.untouched()) << n;
        EXPECT_EQ(pool(), Bytes{}) << n;
    }
}

TEST_F(DataWaiter, FramesTooShortForTheirFieldsAreRefused) {
    for (uint16_t length = 2; length < 11; ++length) {
        arrive(raw_frame('[', length, le16(0x2101) + Bytes(length - 2U)));
        Data got;
        EXPECT_EQ(got.wait(), 3U) << length;
        EXPECT_TRUE(got.untouched()) << length;
        EXPECT_EQ(pool(), Bytes{}) << length;
    }
    arrive(raw_frame('[', 1, le16(0x2101)));
    EXPECT_EQ(Data().wait(), 2U);
}

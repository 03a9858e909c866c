#include "download/hdl_window.h"

#include "base/stop_request.h"
#include "hdl_fakes.h"
#include "interpose/fail.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace {

constexpr size_t kImageSize = 0x10000;
constexpr uint32_t kFirst = 0x1A000; // address of block 0; the others follow

// One of the two users of the window.
struct User {
    const char* name;
    uint16_t id;
    const char* send;
    const char* response;
    const char* resend;
    const char* timeout;
    Texts exhausted; // what a flow says when nothing is left to try
};

const User kErase = {"Erase",
                     0x2104,
                     "[I] ########## Format send address(0x%X)\n",
                     "[I] Format resp address(0x%X)\n",
                     "[I] FORMAT Re-Send: count = %d\n",
                     "[E] format_sliding_window_flow TIMEOUT\n",
                     {"[E] FORMAT_TIMEOUT\n"}};
const User kWrite = {"Write",
                     0x2100,
                     "[I] ########## Download send address(0x%X)\n",
                     "[I] Download resp address(0x%X)\n",
                     "[I] DOWNLOAD Re-Send: count = %d\n",
                     "[E] download_sliding_window_flow TIMEOUT\n",
                     {}};

const std::string kGivenUp = "[E] download given up: another request waits and the chip makes no progress\n";

uint32_t address_of(uint32_t index) {
    return kFirst + index * 0x1000;
}

// A log line with its address (%X) or count (%d).
std::string text_of(std::string pattern, uint32_t value) {
    char number[16];
    snprintf(number, sizeof number, pattern.find("%X") == std::string::npos ? "%u" : "%X", value);
    return pattern.replace(pattern.find('%'), 2, number);
}

struct Flow : testing::TestWithParam<const User*> {
    void SetUp() override {
        hdl_fakes_reset();
        g_fakes.receive_ms = 1000; // one receive in silence is a whole wait
        const std::string path = dir.write("image.bin", std::string(kImageSize, 'i'));
        strcpy(image.name, path.c_str());
        image.begin_address = kFirst;
        answer_with({});
    }

    const User& user() const {
        return *GetParam();
    }
    // A response for the block with this index.
    Bytes response(uint32_t index) const {
        return agent_frame(user().id, 0, le32(address_of(index)));
    }
    Bytes failure(uint32_t index) const {
        return agent_frame(user().id, 1, le32(address_of(index)));
    }
    // What the agent sends upon its first commands, in their order; upon all others the right response.
    void answer_with(const std::vector<std::vector<Bytes>>& first) {
        g_fakes.on_send = [this, first](const Bytes& frame) {
            const size_t nth = commands++;
            const std::vector<Bytes> right = {agent_frame(user().id, 0, le32(le_at(frame, 6, 4)))};
            for (const Bytes& answer : nth < first.size() ? first[nth] : right) {
                g_fakes.arrives.push_back(answer);
            }
        };
    }
    void answer_nothing() {
        g_fakes.on_send = [](const Bytes&) {};
    }
    bool run(uint32_t count) {
        blocks.assign(count, FlashBlock{});
        for (uint32_t i = 0; i < count; ++i) {
            blocks[i] = {address_of(i), 0x1000, 0, 0};
        }
        return run_blocks();
    }
    bool run_blocks() {
        const auto count = static_cast<uint32_t>(blocks.size());
        return GetParam() == &kErase ? format_sliding_window_flow(blocks.data(), count)
                                     : download_sliding_window_flow(blocks.data(), count, &image, kImageSize);
    }
    // "s0 r0 R2 T X" as log lines: send, response, re-send count, time-out, nothing left to try.
    Texts lines(const std::string& short_form) const {
        Texts made;
        for (size_t at = 0; at < short_form.size(); at = short_form.find_first_not_of(' ', at)) {
            const size_t end = std::min(short_form.find(' ', at), short_form.size());
            add_line(short_form[at], short_form.substr(at + 1, end - at - 1), &made);
            at = end;
        }
        return made;
    }
    void add_line(char kind, const std::string& number, Texts* made) const {
        const auto value = static_cast<uint32_t>(number.empty() ? 0 : std::stoul(number));
        if (kind == 's') {
            made->push_back(text_of(user().send, address_of(value)));
        } else if (kind == 'r') {
            made->push_back(text_of(user().response, address_of(value)));
        } else if (kind == 'R') {
            made->push_back(text_of(user().resend, value));
        } else if (kind == 'T') {
            made->push_back(user().timeout);
        } else {
            made->insert(made->end(), user().exhausted.begin(), user().exhausted.end());
        }
    }
    void expect_acked(const std::string& marks) const {
        std::string acked;
        for (const FlashBlock& block : blocks) {
            acked += block.acked != 0 ? '1' : '0';
        }
        EXPECT_EQ(acked, marks);
    }

    PrivateDir dir;
    ImageEntry image = {};
    std::vector<FlashBlock> blocks;
    size_t commands = 0;
};

const std::vector<Bytes> kLost = {};
const std::vector<Bytes> kForeign = {agent_frame(0x2106, 0, le32(kFirst))};

const auto name_of_row = [](const auto& row) { return row.param->name; };

INSTANTIATE_TEST_SUITE_P(Window, Flow, testing::Values(&kErase, &kWrite), name_of_row);

} // namespace

TEST_P(Flow, ResponsesMoveTheWindow) {
    const auto r = [this](uint32_t index) { return response(index); };
    const auto f = [this](uint32_t index) { return failure(index); };
    const struct {
        const char* what;
        std::vector<std::vector<Bytes>> answers; // to the first commands; the others are answered well
        const char* log;
        const char* acked; // all of them: success
    } rows[] = {
        {"each response sends the next block", {}, "s0 r0 s1 r1 s2 r2", "111"},
        {"one block is one command", {}, "s0 r0", "1"},
        {"a lost response lets the next block go and is repeated in the end",
         {kLost},
         "s0 s1 r1 s2 r2 R1 s0 r0",
         "111"},
        {"the last response lost is repeated", {{r(0)}, {r(1)}, kLost}, "s0 r0 s1 r1 s2 R1 s2 r2", "111"},
        // The third wait meets block 1; block 2's response is met only after it was sent again.
        {"a late response keeps two blocks in flight",
         {kLost, {r(0), r(1)}},
         "s0 s1 r0 s2 r1 R1 s2 r2",
         "111"},
        {"a duplicate uses up a wait and sends nothing", {{r(0), r(0)}}, "s0 r0 s1 r0 r1 s2 R1 s2 r2", "111"},
        {"a foreign frame sends the next block", {kForeign}, "s0 s1 r1 s2 r2 R1 s0 r0", "111"},
        {"a failure of the agent sends the next block", {{f(0)}}, "s0 s1 r1 s2 r2 R1 s0 r0", "111"},
        {"unknown addresses send nothing and all is repeated",
         {{r(7), r(7), r(7)}},
         "s0 r7 r7 r7 R3 s0 r0 s1 r1 s2 r2",
         "111"},
        {"a block that was not sent is not acknowledged", {{r(1), r(0)}}, "s0 r1 r0 s1 R1 s1 r1", "11"},
        {"the second pass sends nothing after a lost response",
         {{r(0)}, kLost, kLost, kLost},
         "s0 r0 s1 s2 R2 s1 X",
         "100"},
        {"nor after foreign frames and failures",
         {{f(0)}, {f(1)}, {kForeign[0], f(0)}},
         "s0 s1 R2 s0 X",
         "00"},
        {"it takes no duplicates",
         {{r(0)}, {f(1)}, {f(2)}, {r(0), r(1)}},
         "s0 r0 s1 s2 R2 s1 r0 r1 s2 X",
         "110"},
        {"nor a late response before its block went out again",
         {{f(0)}, {f(1)}, {r(1), r(0)}},
         "s0 s1 R2 s0 r1 r0 s1 X",
         "10"},
        {"nor unknown addresses", {{f(0)}, {r(5)}}, "s0 R1 s0 r5 X", "0"},
        {"it ends with its last acknowledgement",
         {{f(0)}, {f(1)}, {f(2)}},
         "s0 s1 s2 R3 s0 r0 s1 r1 s2 r2",
         "111"},
        {"there is no third pass", {{f(0)}, {f(0)}}, "s0 R1 s0 X", "0"},
    };
    for (const auto& row : rows) {
        SetUp();
        commands = 0;
        answer_with(row.answers);
        const std::string acked = row.acked;
        EXPECT_EQ(run(static_cast<uint32_t>(acked.size())), acked.find('0') == std::string::npos) << row.what;
        EXPECT_EQ(g_fakes.log, lines(row.log)) << row.what;
        expect_acked(acked);
    }
}

TEST_P(Flow, ATableMayComeWithBlocksThatAreSentOrAcknowledged) {
    const struct {
        const char* what;
        std::vector<FlashBlock> blocks;
        std::deque<Bytes> arrives;
        bool result;
        const char* log;
    } rows[] = {
        {"all acknowledged", {{kFirst, 0x1000, 1, 1}}, {}, true, ""},
        {"a response acknowledges nothing more", {{kFirst, 0x1000, 1, 1}}, {response(0)}, false, "r0 X"},
        {"a block that was sent is waited for",
         {{kFirst, 0x1000, 1, 0}, {address_of(1), 0x1000, 0, 0}},
         {response(0)},
         true,
         "r0 s1 r1"},
        {"the first of equal addresses is acknowledged",
         {{kFirst, 0x1000, 0, 0}, {kFirst, 0x1000, 0, 0}},
         {},
         true,
         "s0 r0 s0 r0"},
    };
    for (const auto& row : rows) {
        SetUp();
        blocks = row.blocks;
        g_fakes.arrives = row.arrives;
        EXPECT_EQ(run_blocks(), row.result) << row.what;
        EXPECT_EQ(g_fakes.log, lines(row.log)) << row.what;
    }
}

TEST_P(Flow, TheFirstSendIsTriedThreeTimes) {
    int attempts = 0;
    g_fakes.accepts = [&](const Bytes&) { return ++attempts == 3; };
    EXPECT_TRUE(run(1));
    EXPECT_EQ(g_fakes.log, lines("s0 r0"));
    ASSERT_EQ(g_fakes.sent.size(), 3U);
    EXPECT_EQ(g_fakes.sent[0], g_fakes.sent[2]);
}

TEST_P(Flow, AFirstSendThatFailsEndsTheFlow) {
    g_fakes.accepts = [](const Bytes&) { return false; };
    EXPECT_FALSE(run(2));
    EXPECT_EQ(g_fakes.sent.size(), 3U);
    Texts expected = lines("s0");
    if (GetParam() == &kWrite) {
        expected.push_back("[E] ########## Download send address(0x1A000) fail\n");
    }
    EXPECT_EQ(g_fakes.log, expected);
    EXPECT_EQ(blocks[0].sent, 0);
}

TEST_P(Flow, ALaterSendThatFailsLeavesItsBlockUnsent) {
    g_fakes.accepts = [](const Bytes&) { return g_fakes.sent.size() < 2 || g_fakes.sent.size() > 4; };
    EXPECT_TRUE(run(2));
    // Block 1 is refused three times; the time-out after it sends it again, its response ends the second
    // pass.
    EXPECT_EQ(g_fakes.log, lines("s0 r0 s1 s1 R1 s1 r1"));
    EXPECT_EQ(g_fakes.sent.size(), 6U);
}

TEST_P(Flow, AFailedSendInTheSecondPassUsesUpItsWaits) {
    answer_with({{failure(0)}});
    g_fakes.accepts = [](const Bytes&) { return g_fakes.sent.size() < 2; };
    EXPECT_FALSE(run(1));
    EXPECT_EQ(g_fakes.log, lines("s0 R1 s0 X"));
    EXPECT_EQ(g_fakes.sent.size(), 4U);
}

TEST_P(Flow, NoBlocksFail) {
    EXPECT_FALSE(run(0));
    EXPECT_EQ(g_fakes.log, lines("X"));
    EXPECT_EQ(g_fakes.calls, Texts{});
}

namespace {

// The n-th response takes so long.
void delay_response(size_t n, int64_t ms) {
    g_fakes.on_receive = [n, ms, receives = size_t{0}]() mutable { g_fakes.now += receives++ == n ? ms : 0; };
}

struct EraseFlow : Flow {};
struct WriteFlow : Flow {};

INSTANTIATE_TEST_SUITE_P(Window, EraseFlow, testing::Values(&kErase), name_of_row);
INSTANTIATE_TEST_SUITE_P(Window, WriteFlow, testing::Values(&kWrite), name_of_row);

} // namespace

TEST_P(EraseFlow, HasFortyFiveSecondsInAll) {
    delay_response(0, 45000);
    EXPECT_TRUE(run(2));
    delay_response(0, 45001);
    g_fakes.log.clear();
    EXPECT_FALSE(run(2));
    EXPECT_EQ(g_fakes.log, lines("s0 r0 s1 T"));
    SetUp();
    delay_response(1, 50000);
    EXPECT_TRUE(run(2)) << "the limit holds before a wait only";
}

TEST_P(EraseFlow, SilenceEndsInEitherPass) {
    for (const uint32_t count : {100U, 40U}) {
        SetUp();
        answer_nothing();
        const int64_t start = g_fakes.now;
        EXPECT_FALSE(run(count));
        EXPECT_EQ(g_fakes.now - start, 46000);
        EXPECT_EQ(g_fakes.sent.size(), count == 100 ? 47U : 41U);
        EXPECT_EQ(Texts(g_fakes.log.end() - 3, g_fakes.log.end()),
                  lines(count == 100 ? "s45 s46 T" : "R40 s0 T"));
    }
}

TEST_P(EraseFlow, TheClockBeginsBehindTheFirstSend) {
    g_fakes.on_send = [](const Bytes& frame) {
        g_fakes.now += 46000;
        g_fakes.arrives.push_back(agent_frame(0x2104, 0, le32(le_at(frame, 6, 4))));
    };
    EXPECT_TRUE(run(1));
}

TEST_P(EraseFlow, LastsAsLongWhenTheClockIsSet) {
    for (const int64_t step_ms : {-3'600'000, 3'600'000}) {
        SetUp();
        g_fakes.on_receive = [step_ms, receives = 0]() mutable {
            g_fakes.set += receives++ == 2 ? step_ms : 0;
        };
        answer_nothing();
        const int64_t start = g_fakes.now;
        EXPECT_FALSE(run(100));
        EXPECT_EQ(g_fakes.now - start, 46000) << step_ms;
        EXPECT_EQ(g_fakes.log.back(), "[E] format_sliding_window_flow TIMEOUT\n");
    }
}

TEST_P(Flow, AClockThatIsSetForwardIsNoLackOfProgress) {
    const StopRequest stop;
    g_fakes.receive_ms = 50;
    answer_nothing();
    g_fakes.on_receive = [this, receives = uint32_t{0}]() mutable {
        if (++receives % 2 == 0) { // each response comes after a receive without bytes
            g_fakes.arrives.push_back(response(receives / 2 - 1));
        }
        g_fakes.set += receives == 3 ? 3000 : 0;
    };
    EXPECT_TRUE(run(8));
    EXPECT_EQ(hdl_fakes_log_with(kGivenUp), Texts{});
}

TEST_P(Flow, ASilentAgentIsGivenUpTwoSecondsAfterItsLastAcknowledgementWhenAStopWaits) {
    answer_with({{response(0)}, {response(1)}, kLost, kLost, kLost, kLost});
    const StopRequest stop;
    g_fakes.receive_ms = 300; // a wait is four of them
    const int64_t start = g_fakes.now;
    EXPECT_FALSE(run(8));
    EXPECT_EQ(g_fakes.now - start, 2100);
    EXPECT_EQ(g_fakes.log.back(), kGivenUp);
    EXPECT_EQ(g_fakes.sent.size(), 4U) << "the third, and the next one behind its second";
}

TEST_P(Flow, AnAgentThatAnswersIsNeverGivenUp) {
    const StopRequest stop;
    g_fakes.on_receive = [] { g_fakes.now += 1900; };
    g_fakes.receive_ms = 0;
    EXPECT_TRUE(run(8) || GetParam() == &kWrite) << "the limit of a write is shorter";
    EXPECT_EQ(hdl_fakes_log_with(kGivenUp), Texts{});
}

TEST_P(Flow, DuplicatesAreNoProgress) {
    const StopRequest stop;
    g_fakes.on_send = [](const Bytes&) {};
    g_fakes.on_receive = [this] {
        g_fakes.now += 300;
        g_fakes.arrives = {response(0)};
    };
    EXPECT_FALSE(run(50));
    EXPECT_EQ(g_fakes.log.back(), kGivenUp);
}

TEST_P(EraseFlow, SendsAddressLengthAndChecksum) {
    blocks = {{0x10000, 0x10000, 0, 0}};
    EXPECT_TRUE(run_blocks());
    EXPECT_EQ(g_fakes.sent,
              std::vector<Bytes>{with_crc({0x05, 0x5A, 14, 0, 0x04, 0x21, 0, 0, 1, 0, 0, 0, 1, 0})});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 18 flag 1", "receive 11"}));
}

TEST_P(WriteFlow, HasOneSecondForEachBlock) {
    delay_response(0, 3000);
    EXPECT_TRUE(run(3));
    delay_response(0, 3001);
    g_fakes.log.clear();
    EXPECT_FALSE(run(3));
    EXPECT_EQ(g_fakes.log, lines("s0 r0 s1 T"));
}

TEST_P(WriteFlow, SilenceEndsInTheSecondPass) {
    answer_nothing();
    const int64_t start = g_fakes.now;
    EXPECT_FALSE(run(3));
    EXPECT_EQ(g_fakes.now - start, 4000);
    EXPECT_EQ(g_fakes.log, lines("s0 s1 s2 R3 s0 T"));
}

TEST_P(WriteFlow, AFileThatChangesEndsItAtOnceAndIsNamed) {
    const std::string path = dir.path / "image.bin";
    const std::function<void()> changes[] = {
        [&] { std::filesystem::resize_file(path, 0); },
        [&] { std::filesystem::resize_file(path, kImageSize - 1); },
        [&] { std::filesystem::resize_file(path, kImageSize + 1); },
        [&] { std::filesystem::remove(path); },
        [&] {
            std::filesystem::remove(path);
            ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        },
    };
    for (const auto& change : changes) {
        for (const size_t at : {1, 3}) { // in the middle; after the last block
            SetUp();
            g_fakes.on_receive = [&, receives = size_t{0}]() mutable {
                if (++receives == at) {
                    change();
                }
            };
            EXPECT_FALSE(run(3));
            EXPECT_LE(g_fakes.sent.size(), at + 1);
            EXPECT_EQ(g_fakes.log.back(), "[E] image file changed during the download: " + path + "\n");
            std::filesystem::remove(path);
        }
    }
}

TEST_P(WriteFlow, AFileThatCantBeLookedAtForTheMomentEndsNoWriteButItsEnd) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
        for (const bool at_the_end : {false, true}) {
            SetUp();
            // After the first response the next block is read, then the file is looked at.
            g_fakes.on_receive = [error, at_the_end, receives = 0]() mutable {
                if (++receives == (at_the_end ? 3 : 1)) {
                    interpose_fail("open", at_the_end ? 1 : 2, error);
                }
            };
            EXPECT_EQ(run(3), !at_the_end) << error;
            Texts expected = lines("s0 r0 s1 r1 s2 r2");
            if (at_the_end) {
                expected.push_back("[E] image file can't be looked at: " + (dir.path / "image.bin").string() +
                                   "\n");
            }
            EXPECT_EQ(g_fakes.log, expected) << error;
        }
    }
}

TEST_P(WriteFlow, SendsTheImagesBytes) {
    EXPECT_TRUE(run(1));
    EXPECT_EQ(g_fakes.sent, std::vector<Bytes>{with_crc(
                                Bytes{0x05, 0x5A, 0x0C, 0x10, 0x00, 0x21, 0x00, 0xA0, 0x01, 0, 0, 0x10} +
                                Bytes(4096, 'i'))});
    EXPECT_EQ(g_fakes.calls, (Texts{"send 4112 flag 1", "receive 11"}));
}

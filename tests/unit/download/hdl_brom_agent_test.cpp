#include "base/stop_request.h"
#include "brom_link.h"
#include "download/hdl_brom.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "support/call_fault.h"
#include "support/fake_clock.h"
#include "support/private_dir.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

namespace {

using std::string;

// Numbers of the sends.
constexpr size_t kAddressSend = 1;
constexpr size_t kSignatureSend = 3;
constexpr size_t kFirstChunkSend = 4;

auto open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

struct SendAgent : BromTest {
    void use_file(const string& content) {
        const string path = dir.write("da.bin", content);
        snprintf(g_download_settings.da_path, sizeof g_download_settings.da_path, "%s", path.c_str());
        chunks = (content.size() + 1023) / 1024;
        checksum = bromChecksum(reinterpret_cast<const uint8_t*>(content.data()),
                                static_cast<uint32_t>(content.size()));
    }
    // The boot ROM's words: status, checksum, last status.
    void answer(const std::vector<Bytes>& announced, const std::vector<Bytes>& sent) const {
        brom_link.answers[kSignatureSend] = {le32(0)};
        auto& first = brom_link.answers[kSignatureSend];
        first.insert(first.end(), announced.begin(), announced.end());
        for (size_t i = 0; i < chunks; ++i) {
            brom_link.answers[kFirstChunkSend + i] = {};
        }
        brom_link.answers[kFirstChunkSend + chunks - 1] = sent;
    }
    void answer_well() const {
        answer({le16(0)}, {le16(checksum), le16(0)});
    }
    bool send() {
        const auto open_before = open_descriptors();
        const bool result = run([this] {
            call_faults = faults;
            const bool sent = hdl_brom_send_da();
            call_faults = {};
            return sent;
        });
        EXPECT_EQ(open_descriptors(), open_before);
        return result;
    }
    string last() const {
        return log.empty() ? "" : log.back();
    }
    string path() const {
        return dir.path / "da.bin";
    }

    PrivateDir dir;
    CallFaults faults;
    size_t chunks = 0;
    uint16_t checksum = 0;
};

string content(size_t n) {
    string text(n, '\0');
    for (size_t i = 0; i < n; ++i) {
        text[i] = static_cast<char>(i * 31 + i / 100 + 5);
    }
    return text;
}

string as_text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

} // namespace

TEST_F(SendAgent, AnnouncesAndSendsTheFile) {
    use_file("abcde");
    answer_well();
    EXPECT_TRUE(send());
    EXPECT_EQ(sent_as_text(), (Lines{"D7", "00002004", "05000000", "00000000", "6162636465"}));
    EXPECT_EQ(checksum, (0x6261 ^ 0x6463 ^ 0x65));
    EXPECT_EQ(fake_clock.slept, (Times{20, 10, 10}));
    EXPECT_EQ(log, (Lines{"[I] echoU8 Send 0xD7", "[I] echoU8 receiveChar 0xD7", "[I] echoU32 Send 0x4200000",
                          "[I] echoU32 Send 0x5", "[I] echoU32 Send 0x0", "[I] SEND 5 bytes OK,total 5",
                          "[I] btrom response checksum 0x667", "[I] send DA successful"}));
}

TEST_F(SendAgent, SerialLineTurnsWordsButNoData) {
    g_download_settings.link_type = HDL_LINK_UART;
    use_file("abcde");
    answer({{0, 0}}, {{0x06, 0x67}, {0, 0}});
    EXPECT_TRUE(send());
    EXPECT_EQ(sent_as_text(), (Lines{"D7", "04200000", "00000005", "00000000", "6162636465"}));
}

TEST_F(SendAgent, FileGoesInChunks) {
    struct Sizes {
        size_t file;
        std::vector<size_t> chunks;
    };
    for (const Sizes& sizes : std::vector<Sizes>{
             {1024, {1024}}, {1025, {1024, 1}}, {2048, {1024, 1024}}, {2501, {1024, 1024, 453}}}) {
        brom_link = {};
        use_file(content(sizes.file));
        answer_well();
        EXPECT_TRUE(send()) << sizes.file;
        std::vector<size_t> sent;
        string data;
        for (size_t i = kFirstChunkSend; i < brom_link.sent.size(); ++i) {
            sent.push_back(brom_link.sent[i].size());
            data += as_text(brom_link.sent[i]);
        }
        EXPECT_EQ(sent, sizes.chunks);
        EXPECT_EQ(data, content(sizes.file));
    }
    EXPECT_EQ(Lines(log.begin() + 5, log.begin() + 8),
              (Lines{"[I] SEND 1024 bytes OK,total 1024", "[I] SEND 1024 bytes OK,total 2048",
                     "[I] SEND 453 bytes OK,total 2501"}));
}

TEST_F(SendAgent, GivenUpUploadIsNoSuccessAlthoughTheLinkReadsZeros) {
    use_file("abcd");
    answer({{0, 0}, {0, 0}, {0, 0}}, {}); // the status, and what a checksum and a last status would be
    brom_link.at_receive = [] {
        if (brom_link.arriving.size() == 3) { // the status comes late
            fake_clock.now_ms += 2100;
        }
    };
    const StopRequest stop;
    EXPECT_FALSE(send());
    EXPECT_EQ(std::count(log.begin(), log.end(), "[I] send DA successful"), 0);
}

TEST_F(SendAgent, WhatIsNoFileWithBytesIsNotAnnounced) {
    for (const string& no_agent : {path(), dir.write("empty", ""), dir.path.string()}) {
        snprintf(g_download_settings.da_path, sizeof g_download_settings.da_path, "%s", no_agent.c_str());
        EXPECT_FALSE(send());
        EXPECT_EQ(log, (Lines{"[E] DA len is zero!"}));
    }
    EXPECT_TRUE(brom_link.sent.empty());
}

TEST_F(SendAgent, FileThatCantBeOpenedIsLogged) {
    use_file("abcde");
    faults.fdopen = 1; // the first is that of the size
    EXPECT_FALSE(send());
    EXPECT_EQ(log, (Lines{"[E] Open da file " + path() + " fail"}));
    EXPECT_TRUE(brom_link.sent.empty());
}

TEST_F(SendAgent, EachStepOfTheAnnouncementCanFail) {
    use_file("abcde");
    const Lines texts = {"echoU8(0xD7)", "echoU32(0x4200000)", "echoU32(0x5)", "echoU32(0x0)"};
    for (uint32_t step = 0; step < texts.size(); ++step) {
        brom_link = {};
        brom_link.failing_send = step;
        EXPECT_FALSE(send());
        EXPECT_EQ(last(), "[E] hdl_brom_send_da " + texts[step] + " error");
        EXPECT_EQ(brom_link.sent.size(), step + 1);
    }
}

// Kept: the result is whether the last status word that was read is not 0; an error there counts as success.
TEST_F(SendAgent, StatusWordsAndChecksumDecide) {
    use_file("abcde");
    const Bytes good = le16(0);
    const Bytes highest = le16(0x0FFF); // of the good ones
    const Bytes sum = le16(checksum);
    const string unread = "[E] hdl_brom_send_da readU16 error";
    const string mismatch = "[E] btrom checksum fail, 0x667/0x668";
    const struct {
        std::vector<Bytes> announced;
        std::vector<Bytes> sent;
        bool result;
        string last;
        size_t sends;
    } rows[] = {
        {{}, {}, false, unread, 4},
        {{le16(0x1000)}, {}, true, "[E] hdl_brom_send_da get status error 4096 (0x1000)", 4},
        {{good}, {}, false, "[E] hdl_brom_send_da read btrom_crc error", 5},
        {{good}, {le16(0x0668), good}, false, mismatch, 5},
        {{le16(1)}, {le16(0x0668), good}, true, mismatch, 5},
        {{good}, {sum}, false, unread, 5},
        {{le16(1)}, {sum}, true, unread, 5},
        {{good}, {sum, le16(0x1000)}, true, "[E] hdl_brom_send_da get status error 4096", 5},
        {{highest}, {sum, highest}, true, "[I] send DA successful", 5},
    };
    for (const auto& row : rows) {
        brom_link = {};
        answer(row.announced, row.sent);
        EXPECT_EQ(send(), row.result) << row.last;
        EXPECT_EQ(last(), row.last);
        EXPECT_EQ(brom_link.sent.size(), row.sends) << row.last;
        EXPECT_EQ(brom_link.arriving.size(), row.last == mismatch ? 1U : 0U) << "the status is not read then";
    }
}

TEST_F(SendAgent, ChunkThatCantBeReadIsSentAnyway) {
    use_file("abcde");
    faults.fread = kEachCall;
    answer({le16(0)}, {le16(0), le16(0)});
    EXPECT_TRUE(send());
    EXPECT_EQ(as_text(brom_link.sent[kFirstChunkSend]), string(5, '\0'));
    EXPECT_EQ(log[5], "[E] Reading error ( 0 )");
    EXPECT_EQ(log[6], "[I] SEND 5 bytes OK,total 5");
}

TEST_F(SendAgent, LostChunkShowsInTheChecksum) {
    use_file("abcde" + content(1024));
    ASSERT_EQ(chunks, 2U);
    const auto other = static_cast<uint16_t>(checksum ^ 1U);
    answer({le16(0)}, {le16(other), le16(0)});
    brom_link.failing_send = kFirstChunkSend;
    EXPECT_FALSE(send());
    char expected[64];
    snprintf(expected, sizeof expected, "[E] btrom checksum fail, 0x%x/0x%x", checksum, other);
    EXPECT_EQ(last(), expected);
}

TEST_F(SendAgent, OnlyAnUploadThatIsNotTakenIsGivenUp) {
    for (const bool taken : {true, false}) {
        brom_link = {};
        use_file(content(300 * 1024)); // without an echo for more than three seconds
        answer_well();
        brom_link.taken = taken;
        const StopRequest stop;
        EXPECT_EQ(send(), taken);
        EXPECT_TRUE(taken || brom_link.sent.size() <= kFirstChunkSend + 201) << "200 chunks take two seconds";
        hdl_progress_start();
    }
}

// Logs of receivers and generated floods through the whole chain: every valid sentence once, in order, byte
// for byte.
#include "support/harness.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace {

constexpr std::array<const char*, 6> kTalkers = {"GP", "GL", "GB", "GA", "GI", "GN"};

bool is_standard(const std::string& line) {
    return line.size() > 6 && line[0] == '$' &&
           std::any_of(kTalkers.begin(), kTalkers.end(),
                       [&](const char* talker) { return line.compare(1, 2, talker) == 0; });
}

std::vector<std::string> standard_sentences(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::string> sentences;
    for (std::string line; std::getline(file, line);) {
        if (is_standard(line)) {
            sentences.push_back(line + "\n");
        }
    }
    return sentences;
}

// The next sentences of the chip.
std::vector<std::string> receive_sentences(const TestClient& client, size_t count) {
    std::vector<std::string> sentences;
    while (sentences.size() < count) {
        const auto response = client.receive();
        if (!response) {
            ADD_FAILURE() << "no more datagrams after " << sentences.size() << " sentences";
            break;
        }
        if (response->code == TAVOR_CODE_NMEA && response->payload[0] == '$') {
            sentences.push_back(payload_text(*response));
        }
    }
    return sentences;
}

} // namespace

class ReplayLog : public testing::TestWithParam<const char*> {};

TEST_P(ReplayLog, EverySentenceReachesTheClientOnceInOrder) {
    const std::string log = std::string(TAVOR_NMEA_LOGS) + "/" + GetParam() + ".nmea";
    if (!std::ifstream(log)) {
        GTEST_SKIP() << "no log " << GetParam() << ".nmea in TAVOR_NMEA_LOGS";
    }
    const std::vector<std::string> expected = standard_sentences(log);
    ASSERT_FALSE(expected.empty());
    const SimulatedBoard board({"--source", "replay", log, "--full-speed"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_TRUE(client.send(TAVOR_REQUEST_START));
    EXPECT_EQ(receive_sentences(client, expected.size()), expected);
}

INSTANTIATE_TEST_SUITE_P(Logs, ReplayLog,
                         testing::Values("five-talkers", "south-east-moving", "cold-start", "fast-moving",
                                         "gst-west", "negative-altitude"),
                         [](const auto& log) {
                             std::string name = log.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(Flood, HundredThousandSentencesArriveAndMemoryStaysFlat) {
    constexpr size_t kSentences = 100000;
    const SimulatedBoard board({"--full-speed", "--sentences", std::to_string(kSentences)});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_TRUE(client.send(TAVOR_REQUEST_START));
    const size_t first = receive_sentences(client, kSentences / 10).size();
    [[maybe_unused]] const long early = daemon.private_kib();
    const size_t rest = receive_sentences(client, kSentences - first).size();
    [[maybe_unused]] const long late = daemon.private_kib();

    EXPECT_EQ(first + rest, kSentences);
    EXPECT_EQ(board.status("sentences_produced"), static_cast<long long>(kSentences));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LE(late, early + 256) << "KiB";
#endif
}

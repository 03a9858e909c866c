// What the chip produces and when: trajectory, replay, pacing, limits.
#include "chip_wire.h"

#include "chip/chip_replay.h"
#include "chip/chip_trajectory.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <gtest/gtest.h>
#include <set>

namespace {

std::vector<std::string> epoch_at(uint64_t utc_us, const ChipOptions& options = {}, double seconds = 0) {
    std::vector<std::string> sentences;
    chip_trajectory_epoch(options, {utc_us, seconds, true, true}, sentences);
    return sentences;
}

std::string first_with(const std::vector<std::string>& sentences, const std::string& formatter) {
    const auto found = std::find_if(sentences.begin(), sentences.end(), [&](const std::string& sentence) {
        return sentence.compare(3, 3, formatter) == 0;
    });
    return found == sentences.end() ? "" : *found;
}

std::string all_of(const std::vector<std::string>& sentences) {
    std::string text;
    for (const std::string& sentence : sentences) {
        text += sentence;
    }
    return text;
}

ChipOptions replay_of(const std::string& log) {
    ChipOptions options;
    options.source = ChipSource::replay;
    options.replay = log;
    return options;
}

// Four lines in two epochs.
constexpr char kLog[] = "$GPRMC,100000.00,A,1,N,2,E,0,0,010124,,*00\r\n"
                        "$GPGGA,100000.00,1,N,2,E,1,4,1,1,M,1,M,,*00\r\n"
                        "$GPRMC,100001.00,A,1,N,2,E,0,0,010124,,*00\r\n"
                        "$GPGGA,100001.00,1,N,2,E,1,4,1,1,M,1,M,,*00\r\n";

std::vector<std::vector<std::string>> epochs_of(const std::string& log) {
    std::vector<std::vector<std::string>> epochs;
    for (size_t position = 0; position < log.size();) {
        epochs.emplace_back();
        chip_replay_epoch(log, position, epochs.back());
    }
    return epochs;
}

} // namespace

TEST(ChipTrajectory, EverySentenceIsValidAndFitsTheStandardLength) {
    ChipOptions options;
    options.longitude = -179.999999;
    options.latitude = -89.9;
    options.speed_mps = 515;
    for (int second = 0; second < 5000; second += 7) {
        for (const std::string& sentence :
             epoch_at(kNoonUs + static_cast<uint64_t>(second) * kSecondUs, options, second)) {
            ASSERT_TRUE(is_valid_sentence(sentence)) << sentence;
            ASSERT_LE(sentence.size(), 82U) << sentence;
        }
    }
}

TEST(ChipTrajectory, EpochHoldsEveryFormatterAndAllSixTalkers) {
    const auto sentences = epoch_at(kNoonUs);
    for (const char* formatter : {"RMC", "GGA", "GST", "EPE"}) {
        EXPECT_EQ(count_formatter(sentences, formatter), 1U) << formatter;
    }
    EXPECT_EQ(count_formatter(sentences, "GSA"), 5U);
    EXPECT_EQ(count_formatter(sentences, "GSV"), 9U);
    std::set<std::string> talkers;
    for (const std::string& sentence : sentences) {
        talkers.insert(sentence.substr(1, 2));
    }
    EXPECT_EQ(talkers, (std::set<std::string>{"GA", "GB", "GI", "GL", "GN", "GP"}));
}

TEST(ChipTrajectory, FirstEpochIsAtTheStartPosition) {
    const auto sentences = epoch_at(kNoonUs);
    EXPECT_EQ(first_with(sentences, "GGA").substr(0, 73),
              "$GNGGA,120000.00,4317.70780,N,00521.91680,E,1,20,0.72,12.0,M,49.8,M,,*79\r");
    EXPECT_EQ(first_with(sentences, "RMC").substr(0, 68),
              "$GNRMC,120000.00,A,4317.70780,N,00521.91680,E,15.551,45.00,120624,,,");
    EXPECT_EQ(fields_of(first_with(sentences, "EPE")), (std::vector<std::string>{"$GNEPE", "1.85", "2.80"}));
    EXPECT_EQ(fields_of(first_with(sentences, "GST"))[3], "1.9");
}

TEST(ChipTrajectory, PositionIsDegreesMinutesAndHemispheres) {
    ChipOptions options;
    options.latitude = -33.5;
    options.longitude = -70.25;
    const auto fields = fields_of(first_with(epoch_at(kNoonUs, options), "GGA"));
    EXPECT_EQ(fields[2] + fields[3] + fields[4] + fields[5], "3330.00000S07015.00000W");
    options.latitude = 47.99999999;
    EXPECT_EQ(fields_of(first_with(epoch_at(kNoonUs, options), "GGA"))[2], "4800.00000") << "not 60 minutes";
}

TEST(ChipTrajectory, SpeedIsTheDistanceBetweenSeconds) {
    ChipOptions options;
    for (const double turn : {0.0, 0.5, -3.0}) {
        options.turn_deg_per_s = turn;
        const ChipPosition before = chip_trajectory_position(options, 1000);
        const ChipPosition after = chip_trajectory_position(options, 1001);
        const double north = (after.latitude - before.latitude) * 111320;
        const double east =
            (after.longitude - before.longitude) * 111320 * std::cos(options.latitude * M_PI / 180);
        EXPECT_NEAR(std::hypot(north, east), options.speed_mps, 0.1) << turn;
        const double course = std::atan2(east, north) * 180 / M_PI;
        EXPECT_NEAR(std::remainder(course - before.course_deg - turn / 2, 360), 0, 0.1) << turn;
    }
}

TEST(ChipTrajectory, LongStraightWayStaysOnTheGlobe) {
    ChipOptions options;
    options.latitude = 89.0;
    options.longitude = 10.0;
    options.course_deg = 0;
    options.turn_deg_per_s = 0;
    options.speed_mps = 111.32;
    const ChipPosition over_the_pole = chip_trajectory_position(options, 3000); // three degrees on
    EXPECT_NEAR(over_the_pole.latitude, 88.0, 1e-6);
    EXPECT_NEAR(over_the_pole.longitude, -170.0, 1e-6);
    options.course_deg = ChipOptions{}.course_deg;
    options.speed_mps = 515;
    for (int seconds = 0; seconds < 1000000; seconds += 997) {
        const ChipPosition position = chip_trajectory_position(options, seconds);
        ASSERT_LE(std::abs(position.latitude), 90) << seconds;
        ASSERT_LE(std::abs(position.longitude), 180) << seconds;
    }
}

TEST(ChipSource, OneEpochASecondFromTheFirstFullSecondOn) {
    Host host({}, false);
    host.now_us = 400000;
    chip_power(host.chip, true, host.now_us);
    host.interface_on();
    EXPECT_EQ(host.read_all(), "");
    host.now_us = kSecondUs;
    const auto first = sentences_of(host.read_all());
    EXPECT_EQ(first.size(), 18U);
    EXPECT_EQ(fields_of(first[0])[1], "120001.00");
    host.now_us = 2 * kSecondUs - 1;
    EXPECT_EQ(host.read_all(), "");
    host.now_us = 2 * kSecondUs;
    EXPECT_EQ(fields_of(sentences_of(host.read_all())[0])[1], "120002.00");
    EXPECT_EQ(host.seen().sentences_produced, 36U);
    EXPECT_EQ(host.seen().sentences_delivered, 36U);
    EXPECT_EQ(host.seen().violations, 0U);
}

TEST(ChipSource, BeforeTheFirstFixGgaHasNoPosition) {
    ChipOptions options;
    options.time_to_first_fix_ms = 1500;
    Host host(options);
    host.now_us = kSecondUs;
    const auto before = sentences_of(host.read_all());
    const auto gga = fields_of(first_with(before, "GGA"));
    EXPECT_EQ(gga[2] + gga[3] + gga[4] + gga[5], "");
    EXPECT_EQ(gga[6], "0");
    EXPECT_EQ(fields_of(first_with(before, "RMC"))[2], "V");
    EXPECT_EQ(count_formatter(before, "GST") + count_formatter(before, "EPE"), 0U);
    host.now_us = 2 * kSecondUs;
    EXPECT_EQ(fields_of(first_with(sentences_of(host.read_all()), "GGA"))[6], "1");
    host.now_us = 10 * kSecondUs;
    chip_power(host.chip, false, host.now_us);
    chip_power(host.chip, true, host.now_us);
    host.interface_on();
    EXPECT_EQ(fields_of(first_with(sentences_of(host.read_all()), "GGA"))[6], "0") << "a cold boot";
}

TEST(ChipSource, SentenceThatDoesNotFitIsDroppedWhole) {
    ChipOptions options;
    options.tx_fifo_size = 256;
    Host host(options);
    const std::string text = host.read_all();
    EXPECT_LE(text.size(), 256U);
    for (const std::string& sentence : sentences_of(text)) {
        EXPECT_TRUE(is_valid_sentence(sentence)) << sentence;
    }
    EXPECT_EQ(host.seen().sentences_produced, 18U);
    EXPECT_GT(host.seen().sentences_dropped, 0U);
    EXPECT_EQ(host.seen().sentences_delivered + host.seen().sentences_dropped, 18U);
}

TEST(ChipSource, TenHertzGivesTenFixesAndOneSkyASecondOfTheLastMinute) {
    ChipOptions options;
    options.tx_fifo_size = 1U << 20;
    options.rate_hz = 10;
    Host host(options);
    host.read_all();
    host.now_us = kSecondUs;
    auto sentences = sentences_of(host.read_all());
    EXPECT_EQ(count_formatter(sentences, "GGA"), 10U);
    EXPECT_EQ(count_formatter(sentences, "GSV"), 9U);
    EXPECT_EQ(fields_of(first_with(sentences, "GGA"))[1], "120000.10");
    host.now_us = 3600 * kSecondUs; // a host that slept
    sentences = sentences_of(host.read_all());
    EXPECT_EQ(count_formatter(sentences, "GGA"), 601U);
    EXPECT_EQ(fields_of(first_with(sentences, "GGA"))[1], "125900.00");
}

TEST(ChipSource, LimitEndsInTheMiddleOfAnEpoch) {
    for (const bool full_speed : {false, true}) {
        ChipOptions options;
        options.sentence_limit = 25;
        options.full_speed = full_speed;
        Host host(options);
        host.now_us = 10 * kSecondUs;
        EXPECT_EQ(sentences_of(host.read_all()).size(), 25U);
        EXPECT_EQ(host.seen().sentences_produced, 25U);
        EXPECT_TRUE(host.seen().finished);
        chip_power(host.chip, false, host.now_us);
        chip_power(host.chip, true, host.now_us);
        host.interface_on();
        EXPECT_EQ(host.read_all(), "") << "the limit holds for all boots together";
    }
}

TEST(ChipSource, FullSpeedDropsNothingWhateverTheBufferSize) {
    for (const uint32_t size : {256U, 65536U}) {
        ChipOptions options;
        options.full_speed = true;
        options.sentence_limit = 5000;
        options.tx_fifo_size = size;
        Host host(options);
        const auto sentences = sentences_of(host.read_all());
        EXPECT_EQ(sentences.size(), 5000U);
        EXPECT_TRUE(std::all_of(sentences.begin(), sentences.end(), is_valid_sentence));
        EXPECT_EQ(host.seen().sentences_dropped, 0U);
        EXPECT_EQ(host.seen().sentences_delivered, 5000U);
    }
}

TEST(ChipReplay, EpochsAreCutWhereTheTimeChanges) {
    const auto epochs = epochs_of(kLog);
    ASSERT_EQ(epochs.size(), 2U);
    EXPECT_EQ(epochs[0].size(), 2U);
    EXPECT_EQ(all_of(epochs[0]) + all_of(epochs[1]), kLog);
    EXPECT_EQ(epochs_of("$GPGGA,1,\r\n$GNGGA,1,\r\n$GNRMC,1,\r\n$GPGGA,2,\r\n").size(), 2U)
        << "two talkers, one time";
}

TEST(ChipReplay, WithoutTimesTheSecondOfAKindOpensAnEpoch) {
    const std::string empty =
        "$GPGGA,,,,,,0,,,,M,,M,,*66\r\n$GPGLL,,,,,,V,N*64\r\n$GPRMC,,V,,,,,,,,,,N*53\r\n";
    const auto epochs = epochs_of(empty + empty + kLog);
    ASSERT_EQ(epochs.size(), 4U);
    EXPECT_EQ(all_of(epochs[1]), empty);
    std::string log; // of no kind that has a time: in pieces
    for (int i = 0; i < 450; ++i) {
        log += "$GPTXT,01*00\r\n";
    }
    EXPECT_EQ(epochs_of(log).size(), 3U);
}

TEST(ChipReplay, BytesAreSentAsTheyAreWithoutComments) {
    const std::string noise = std::string("noise\0\xFF\n", 8) + "\r\n" + "$GPGGA,broken*zz\n";
    const std::string end = "last line without an end";
    ChipOptions options = replay_of("# where it is from\n" + noise + "#\n" + kLog + end);
    options.full_speed = true;
    Host host(options);
    EXPECT_EQ(host.read_all(), noise + kLog + end);
    EXPECT_TRUE(host.seen().finished);
}

TEST(ChipReplay, IsPacedByEpochs) {
    ChipOptions options = replay_of(kLog);
    options.rate_hz = 2;
    Host host(options);
    const std::string log = kLog;
    const size_t half = log.size() / 2;
    EXPECT_EQ(host.read_all(), log.substr(0, half));
    host.now_us = 499999;
    EXPECT_EQ(host.read_all(), "");
    host.now_us = 500000;
    EXPECT_EQ(host.read_all(), log.substr(half));
    host.now_us = 10 * kSecondUs;
    EXPECT_EQ(host.read_all(), "");
}

TEST(ChipReplay, LoopsUntilTheLimit) {
    ChipOptions options = replay_of(kLog);
    options.full_speed = true;
    options.loop = true;
    options.sentence_limit = 10;
    Host host(options);
    const std::string log = kLog;
    EXPECT_EQ(host.read_all(), log + log + log.substr(0, log.size() / 2));
    options.replay = "# nothing\n# here\n";
    Host nothing(options);
    EXPECT_EQ(nothing.read_all(), "");
    EXPECT_TRUE(nothing.seen().finished);
}

TEST(ChipReplay, ColdBootPlaysFromTheBeginning) {
    ChipOptions options = replay_of(kLog);
    options.full_speed = true;
    Host host(options);
    EXPECT_EQ(host.read_some(10), std::string(kLog).substr(0, 10));
    chip_power(host.chip, false, 0);
    chip_power(host.chip, true, 0);
    host.interface_on();
    EXPECT_EQ(host.read_all(), kLog);
}

TEST(ChipOptionsCheck, NamesWhatIsWrong) {
    using Options = ChipOptions;
    EXPECT_EQ(chip_options_error({}), "");
    const std::pair<void (*)(Options&), const char*> wrong[] = {
        {[](Options& o) { o.rate_hz = 11; }, "rate is not within 1 to 10 Hz"},
        {[](Options& o) { o.source = ChipSource::replay; }, "the log to replay is empty"},
        {[](Options& o) { o.latitude = std::nan(""); }, "latitude is not within -90 to 90 degrees"},
        {[](Options& o) { o.tx_fifo_size = 255; }, ""},
        {[](Options& o) { o.flash_size = 0; }, "flash size"},
        {[](Options& o) { o.flash_size = 5000; }, "flash size"},
        {[](Options& o) { o.flash_size = (64U << 20) + 4096; }, "flash size"},
        {[](Options& o) { o.flash_base = 0x1000; }, "flash"},
        {[](Options& o) { o.flash_base = 0xFFFF0000; }, "flash"},
        {[](Options& o) { o.flash_id = 0x1000000; }, "flash"},
        {[](Options& o) { o.boot_window_ms = 3600001; }, ""},
    };
    for (const auto& [change, text] : wrong) {
        ChipOptions options;
        change(options);
        const std::string error = chip_options_error(options);
        EXPECT_NE(error, "") << text;
        EXPECT_EQ(error.rfind(text, 0), 0U) << error;
    }
}

TEST(ChipFifo, KeepsOrderAndCountsSentencesAcrossCompaction) {
    ChipFifo fifo;
    std::string expected;
    std::string read;
    uint64_t ended = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string sentence = "sentence " + std::to_string(i) + "\n";
        chip_fifo_push(fifo, sentence, true);
        expected += sentence;
        std::string part(13, '\0');
        uint64_t sentences = 0;
        part.resize(chip_fifo_pop(fifo, reinterpret_cast<uint8_t*>(part.data()), part.size(), sentences));
        read += part;
        ended += sentences;
    }
    std::string rest(chip_fifo_size(fifo) + 5, '\0');
    uint64_t sentences = 0;
    rest.resize(chip_fifo_pop(fifo, reinterpret_cast<uint8_t*>(rest.data()), rest.size(), sentences));
    EXPECT_EQ(read + rest, expected);
    EXPECT_EQ(ended + sentences, 20000U);
    EXPECT_EQ(chip_fifo_size(fifo), 0U);
    EXPECT_LE(fifo.bytes.capacity(), expected.size()) << "what was read is given back";
    EXPECT_TRUE(fifo.sentence_ends.empty());
}

// Orbit data: the files as their layout asks for, and the chip's check of what a host makes of them.
#include "chip_wire.h"

#include "chip/chip_orbit_file.h"

#include <gtest/gtest.h>

#include <bit>

namespace {

constexpr uint32_t kNoonHour = 389508; // GPS hour of kNoonUs, the first of a segment
constexpr uint32_t kStartHour = kNoonHour;
constexpr uint32_t kSeed = 1;
constexpr size_t kRecord = 72;

uint32_t word_at(const std::string& file, size_t offset) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i) {
        word |= static_cast<uint32_t>(static_cast<uint8_t>(file.at(offset + i))) << 8 * i;
    }
    return word;
}

std::string file_of(ChipOrbitFile file, uint32_t hour = kStartHour) {
    return chip_orbit_file(file, hour, kSeed);
}

// The command for the record at an offset, as a host sends it.
std::string command(int constellation, uint32_t satellite, const std::string& file, size_t offset) {
    char text[352];
    int length =
        snprintf(text, sizeof text, "PZUL471,%X,%X", static_cast<unsigned>(constellation), satellite);
    for (size_t i = 0; i < kRecord; i += 4) {
        length += snprintf(text + length, sizeof text - static_cast<size_t>(length), ",%X",
                           word_at(file, offset + i));
    }
    return chip_sentence(text);
}

size_t header_count(const std::string& file) {
    return static_cast<size_t>(std::popcount(word_at(file, 4)) + std::popcount(word_at(file, 16)));
}

// The commands of one constellation's answer, in order, for a segment.
std::vector<std::string> answer_of(int constellation, size_t segment = 0, uint32_t hour = kStartHour) {
    std::vector<std::string> commands;
    const auto add = [&](const std::string& file, size_t offset, size_t count, auto number) {
        for (size_t i = 0; i < count; ++i) {
            const size_t at = offset + i * kRecord;
            commands.push_back(command(constellation, number(word_at(file, at) >> 24), file, at));
        }
    };
    if (constellation < 2) {
        const std::string file = file_of(ChipOrbitFile::gps_glonass, hour);
        if (constellation == 0) {
            add(file, segment * 4032, 32, [](uint32_t b) { return b; });
        } else {
            add(file, segment * 4032 + 2304, 24, [](uint32_t b) { return b - 64; });
        }
        return commands;
    }
    const std::string file =
        file_of(constellation == 2 ? ChipOrbitFile::galileo : ChipOrbitFile::beidou, hour);
    const auto number = [&](uint32_t b) {
        if (constellation == 2) {
            return b == 254 ? b : b - 100;
        }
        return b == 255 ? b : b >= 190 && b <= 198 ? b - 135 : b - 200;
    };
    add(file, 0, 1, number);
    add(file, kRecord + segment * header_count(file) * kRecord, header_count(file), number);
    return commands;
}

// A chip that asks for orbits only, at noon.
struct Asking {
    Asking() : host(options()) {}

    static ChipOptions options() {
        ChipOptions options = quiet();
        options.orbit_requests = true;
        options.utc_at_zero_us = kNoonUs;
        options.seed = kSeed;
        return options;
    }
    void send(const std::vector<std::string>& commands) {
        for (const std::string& text : commands) {
            host.write(text);
        }
    }
    const ChipAidingStatus seen(int constellation) {
        return host.seen().aiding_orbits.at(static_cast<size_t>(constellation));
    }

    Host host;
};

const std::string kRequests[] = {
    chip_sentence("PZUL010,0,0,2318,302400"), chip_sentence("PZUL010,0,1,2318,302400"),
    chip_sentence("PZUL010,0,2,2318,302400"), chip_sentence("PZUL010,0,3,2318,302400")};

} // namespace

TEST(ChipOrbitFile, GpsAloneHasTheSameRecords) {
    const std::string both = file_of(ChipOrbitFile::gps_glonass);
    const std::string alone = file_of(ChipOrbitFile::gps);
    ASSERT_EQ(alone.size(), 12U * 2304);
    for (size_t segment = 0; segment < 12; ++segment) {
        EXPECT_EQ(alone.substr(segment * 2304, 2304), both.substr(segment * 4032, 2304));
    }
}

TEST(ChipOrbitFile, HeadersTellTheSatellitesOfEachSegment) {
    for (const auto& [kind, header] :
         {std::pair{ChipOrbitFile::galileo, 254U}, {ChipOrbitFile::beidou, 255U}}) {
        const std::string file = file_of(kind);
        const size_t count = header_count(file);
        EXPECT_EQ(word_at(file, 0), header << 24 | kStartHour);
        ASSERT_EQ(file.size(), kRecord + 12 * count * kRecord);
        EXPECT_EQ(word_at(file, kRecord) & 0xFFFFFF, kStartHour);
        EXPECT_EQ(word_at(file, kRecord + 11 * count * kRecord) & 0xFFFFFF, kStartHour + 66);
        for (size_t i = 0; i < count; ++i) {
            const uint32_t number = word_at(file, kRecord + i * kRecord) >> 24;
            const uint32_t satellite = kind == ChipOrbitFile::galileo   ? number - 100
                                       : number >= 190 && number <= 198 ? number - 135
                                                                        : number - 200;
            const uint32_t mask = word_at(file, satellite <= 32 ? 4 : 16);
            EXPECT_NE(mask >> ((satellite - 1) % 32) & 1, 0U) << number;
        }
    }
}

TEST(ChipOrbitFile, BeidouHasSatellitesOfBothNumberRanges) {
    const std::vector<uint32_t> satellites = chip_orbit_satellites(ChipConstellation::beidou, kSeed);
    EXPECT_NE(std::find(satellites.begin(), satellites.end(), 54U), satellites.end());
    EXPECT_NE(std::find(satellites.begin(), satellites.end(), 55U), satellites.end());
    EXPECT_EQ(satellites.back(), 63U);
}

TEST(ChipOrbitFile, ContentDependsOnSeedTypeAndHourOnly) {
    EXPECT_EQ(file_of(ChipOrbitFile::galileo), file_of(ChipOrbitFile::galileo));
    EXPECT_NE(file_of(ChipOrbitFile::gps), chip_orbit_file(ChipOrbitFile::gps, kStartHour, kSeed + 1));
    EXPECT_NE(file_of(ChipOrbitFile::gps).substr(4, 68),
              file_of(ChipOrbitFile::gps, kStartHour + 6).substr(4, 68));
    const std::string early = file_of(ChipOrbitFile::gps);
    EXPECT_EQ(early.substr(2304), file_of(ChipOrbitFile::gps, kStartHour + 6).substr(0, 11 * 2304))
        << "a later file says the same about the same hours";
}

TEST(ChipOrbits, AreAskedForOneConstellationAfterTheOther) {
    Asking chip;
    EXPECT_EQ(chip.host.read_all(), kRequests[0]);
    chip.host.now_us = 2 * kSecondUs;
    EXPECT_EQ(chip.host.read_all(), chip_sentence("PZUL010,0,1,2318,302402")) << "nothing came for the first";
    chip.host.now_us = 4 * kSecondUs;
    EXPECT_EQ(chip.host.read_all(), chip_sentence("PZUL010,0,2,2318,302404"));
    chip.host.now_us = 6 * kSecondUs;
    EXPECT_EQ(chip.host.read_all(), chip_sentence("PZUL010,0,0,2318,302406")) << "and again";
    EXPECT_EQ(chip.seen(0).requests, 2U);
    EXPECT_EQ(chip.seen(0).verdict, "");
}

TEST(ChipOrbits, WholeAnswersAreGoodAndEndTheRequests) {
    Asking chip;
    EXPECT_EQ(chip.host.read_all(), kRequests[0]);
    for (int constellation = 0; constellation < 4; ++constellation) {
        chip.send(answer_of(constellation));
        EXPECT_EQ(chip.seen(constellation).good, 1U);
        EXPECT_EQ(chip.seen(constellation).verdict, "good");
        const std::string acknowledged = chip.host.read_all();
        EXPECT_NE(acknowledged.find(chip_sentence("PZUL001,471,0")), std::string::npos);
        if (constellation < 3) {
            EXPECT_NE(acknowledged.find(kRequests[constellation + 1]), std::string::npos)
                << "the next at once";
        }
        EXPECT_EQ(acknowledged.find("001,471,2"), std::string::npos);
        EXPECT_EQ(sentences_of(acknowledged).size(),
                  answer_of(constellation).size() + (constellation < 3 ? 1 : 0));
    }
    chip.host.now_us = 60 * kSecondUs;
    EXPECT_EQ(chip.host.read_all(), "");
}

TEST(ChipOrbits, TheSegmentMustCoverTheTimeAsked) {
    Asking chip;
    chip.host.read_all();
    chip.send(answer_of(0, 1));
    EXPECT_EQ(chip.seen(0).bad, 1U);
    EXPECT_EQ(chip.seen(0).verdict, "record 1: of hour " + std::to_string(kStartHour + 6) + ", asked for " +
                                        std::to_string(kNoonHour));
    Asking other;
    other.host.read_all();
    other.send(answer_of(0, 3, kStartHour - 18));
    EXPECT_EQ(other.seen(0).verdict, "good") << "an older file will do";
}

TEST(ChipOrbits, EveryFaultOfARecordIsTold) {
    const std::vector<std::string> good = answer_of(1);
    struct Fault {
        size_t record;
        std::string text;
        std::string verdict;
    };
    const std::string file = file_of(ChipOrbitFile::gps_glonass);
    std::string spoiled = file;
    spoiled[2304 + 5 * kRecord + 71] ^= 1;
    const uint32_t last = word_at(file, 2304 + 5 * kRecord + 68);
    char words[64];
    snprintf(words, sizeof words, "record 6: word 17 is %X, not %X", last ^ 0x1000000, last);
    for (const Fault& fault : {Fault{0, command(1, 65, file, 2304), "record 1: satellite 41, not 1"},
                               Fault{5, command(1, 6, spoiled, 2304 + 5 * kRecord), words},
                               Fault{23, good[22], "record 24: satellite 17, not 18"}}) {
        Asking chip;
        chip.host.read_all();
        chip.host.now_us = 2 * kSecondUs;
        chip.host.read_all();
        std::vector<std::string> commands = good;
        commands[fault.record] = fault.text;
        chip.send(commands);
        EXPECT_EQ(chip.seen(1).bad, 1U);
        EXPECT_EQ(chip.seen(1).verdict, fault.verdict);
    }
}

TEST(ChipOrbits, AnAnswerThatBreaksOffIsBadAndAskedForAgain) {
    Asking chip;
    chip.host.read_all();
    std::vector<std::string> commands = answer_of(0);
    commands.resize(12);
    chip.send(commands);
    EXPECT_EQ(chip.seen(0).verdict, "");
    for (const uint64_t second : {2, 4, 6}) {
        chip.host.now_us = second * kSecondUs;
        chip.host.read_all();
    }
    EXPECT_EQ(chip.seen(0).bad, 1U);
    EXPECT_EQ(chip.seen(0).verdict, "12 of 32 records");
    chip.send(answer_of(0));
    EXPECT_EQ(chip.seen(0).verdict, "good");
}

TEST(ChipOrbits, RecordsNobodyAskedForAreCounted) {
    Asking chip;
    chip.host.read_all();
    chip.host.write(answer_of(3)[0]);
    chip.host.write(chip_sentence("PZUL471,0,1"));
    chip.host.write(chip_sentence("PZUL471,4,1,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0"));
    EXPECT_EQ(chip.host.seen().orbits_stray, 3U);
    EXPECT_EQ(chip.seen(3).bad, 0U);
    EXPECT_EQ(chip.host.read_all().find(chip_sentence("PZUL001,471,2")), 0U);
}

TEST(ChipFirstFix, ComesEarlierWithTimeAndOrbits) {
    ChipOptions options = Asking::options();
    options.source = ChipSource::trajectory;
    options.aiding_requests = true;
    options.time_to_first_fix_ms = 30000;
    options.assisted_first_fix_ms = 5000;
    for (const bool assisted : {false, true}) {
        Host host(options);
        if (assisted) {
            host.write(chip_sentence("PZUL590,2024,06,12,12,00,00"));
            for (const std::string& text : answer_of(0)) {
                host.write(text);
            }
        }
        for (host.now_us = 0; host.now_us <= 40 * kSecondUs; host.now_us += kSecondUs) {
            host.read_all();
            const uint64_t second = host.now_us / kSecondUs;
            EXPECT_EQ(host.seen().first_fix_ms.has_value(), second >= (assisted ? 5 : 30)) << second;
        }
        EXPECT_EQ(host.seen().first_fix_ms, assisted ? 5000U : 30000U);
        EXPECT_EQ(host.seen().assisted, assisted);
    }
}

TEST(ChipFirstFix, WaitsForAssistanceThatComesLate) {
    ChipOptions options = Asking::options();
    options.source = ChipSource::trajectory;
    options.aiding_requests = true;
    options.time_to_first_fix_ms = 30000;
    Host host(options);
    host.read_all();
    host.now_us = 12 * kSecondUs;
    host.write(chip_sentence("PZUL590,2024,06,12,12,00,12"));
    for (const std::string& text : answer_of(0)) {
        host.write(text);
    }
    host.read_all();
    host.now_us = 13 * kSecondUs;
    host.read_all();
    EXPECT_EQ(host.seen().first_fix_ms, 13000U);
    chip_power(host.chip, false, host.now_us);
    chip_power(host.chip, true, host.now_us);
    EXPECT_FALSE(host.seen().first_fix_ms) << "a cold boot forgets everything";
    EXPECT_FALSE(host.seen().assisted);
}

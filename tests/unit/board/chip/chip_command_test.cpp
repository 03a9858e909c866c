// Sentences from the host: acknowledgements, the log of them, aiding requests and the check of their answers.
#include "chip_wire.h"

#include <gtest/gtest.h>

TEST(ChipCommands, GoodCommandIsAcknowledgedAndLogged) {
    for (const bool in_pieces : {false, true}) {
        Host host(quiet());
        const std::string command = "$PZUL353,1*3B\r\n";
        for (size_t at = 0; at < command.size(); at += in_pieces ? 1 : command.size()) {
            host.write(in_pieces ? command.substr(at, 1) : command);
        }
        EXPECT_EQ(host.read_all(), "$PZUL001,353,0*27\r\n");
        EXPECT_EQ(host.seen().commands_good, 1U);
        EXPECT_EQ(host.seen().commands_bad, 0U);
        EXPECT_EQ(host.seen().bytes_noise, 0U);
        EXPECT_EQ(host.seen().last_command, "$PZUL353,1*3B");
        const auto log = chip_commands(host.chip);
        ASSERT_EQ(log.size(), 1U);
        EXPECT_TRUE(log[0].good);
        EXPECT_EQ(log[0].text, "$PZUL353,1*3B");
        host.write("$PZUL353,1*3B\r\n$PZUL000*23\r\n");
        EXPECT_EQ(host.read_all(), "$PZUL001,353,0*27\r\n$PZUL001,000,0*22\r\n");
    }
}

TEST(ChipCommands, CommandWithoutANumberIsAnsweredAsUnknown) {
    Host host(quiet());
    host.write(chip_sentence("PZULhello,1"));
    EXPECT_EQ(host.read_all(), chip_sentence("PZUL001,000,1"));
    EXPECT_EQ(host.seen().commands_bad, 1U);
}

TEST(ChipCommands, BadSentenceIsCountedAndNotAnswered) {
    for (const char* sentence : {"$PZUL353,1*3A\r\n",  // wrong checksum
                                 "$PZUL353,1*3b\r\n",  // lower case
                                 "$PZUL353,1*3B\n",    // no CR
                                 "$PZUL353,1_3B\r\n",  // no star
                                 "$PZUL353,1\r\n",     // no checksum
                                 "$PZUL353,1*3B \r\n", // not at the end of the line
                                 "$GPZDA*48\r\n",      // another talker
                                 "$\n"}) {
        Host host(quiet());
        host.write(sentence);
        EXPECT_EQ(host.read_all(), "") << sentence;
        EXPECT_EQ(host.seen().commands_bad, 1U) << sentence;
        EXPECT_EQ(host.seen().commands_good, 0U) << sentence;
        EXPECT_FALSE(chip_commands(host.chip).back().good) << sentence;
    }
}

TEST(ChipCommands, NoiseIsSkippedAndADollarOpensANewSentence) {
    Host host(quiet());
    host.write("abc\r\n$PZUL353,1*3B\r\n\r\n");
    EXPECT_EQ(host.seen().bytes_noise, 7U);
    EXPECT_EQ(host.seen().commands_good, 1U);
    host.write("$PZUL35$PZUL353,1*3B\r\n");
    EXPECT_EQ(host.seen().commands_good, 2U);
    EXPECT_EQ(host.seen().commands_bad, 1U);
}

TEST(ChipCommands, EndlessSentenceIsCutAndUnprintableBytesAreEscaped) {
    Host host(quiet());
    host.write("$" + std::string(599, '\xFF') + "$PZUL353,1*3B\r\n");
    const auto log = chip_commands(host.chip);
    ASSERT_EQ(log.size(), 2U);
    EXPECT_EQ(log[0].text.substr(0, 9), "$\\xFF\\xFF");
    EXPECT_EQ(log[0].text.size(), 1U + 511 * 4);
    EXPECT_EQ(host.seen().bytes_noise, 88U);
    EXPECT_TRUE(log[1].good);
}

TEST(ChipCommands, LogKeepsTheLastThousand) {
    Host host(quiet());
    for (int i = 0; i < 1200; ++i) {
        host.write(chip_sentence("PZUL100," + std::to_string(i)));
        host.read_all();
    }
    const auto log = chip_commands(host.chip);
    ASSERT_EQ(log.size(), kChipCommandLogSize);
    EXPECT_EQ(log.front().text.substr(0, 13), "$PZUL100,200*");
    EXPECT_EQ(host.seen().commands_good, 1200U);
}

TEST(ChipCommands, ColdBootForgetsTheUnfinishedSentence) {
    Host host(quiet());
    host.write("$PZUL353");
    chip_power(host.chip, false, 0);
    chip_power(host.chip, true, 0);
    host.interface_on();
    host.write(",1*2B\r\n");
    EXPECT_EQ(host.seen().commands_good + host.seen().commands_bad, 0U);
}

TEST(ChipAiding, IsNotAskedForUnlessEnabledNorIsThereASentence) {
    Host host(quiet());
    host.now_us = 100 * kSecondUs;
    EXPECT_EQ(host.read_all(), "");
}

TEST(ChipAiding, RequestsRepeatUntilEachIsAnsweredWell) {
    ChipOptions options = quiet();
    options.aiding_requests = true;
    Host host(options);
    const std::string time_request = "$PZUL010,1,0*23\r\n";
    const std::string position_request = "$PZUL010,2,0*20\r\n";
    EXPECT_EQ(host.read_all(), time_request + position_request);
    host.now_us = 4999999;
    EXPECT_EQ(host.read_all(), "");
    host.now_us = 5 * kSecondUs;
    EXPECT_EQ(host.read_all(), time_request + position_request);

    host.write(chip_sentence("PZUL590,2024,06,12,12,00,06"));
    EXPECT_EQ(host.read_all(), chip_sentence("PZUL001,590,0"));
    host.now_us = 10 * kSecondUs;
    EXPECT_EQ(host.read_all(), position_request);

    host.write(chip_sentence("PZUL600,43.295130,-5.365280,61.8,1.9,1.2,45.0,2.8"));
    EXPECT_EQ(host.read_all(), chip_sentence("PZUL001,600,0"));
    host.now_us = 60 * kSecondUs;
    EXPECT_EQ(host.read_all(), "");

    const ChipStatus seen = host.seen();
    EXPECT_EQ(seen.aiding_time.requests, 2U);
    EXPECT_EQ(seen.aiding_time.good, 1U);
    EXPECT_EQ(seen.aiding_time.verdict, "good");
    EXPECT_EQ(seen.aiding_position.requests, 3U);
    EXPECT_EQ(seen.aiding_position.verdict, "good");
}

TEST(ChipAiding, BadAnswerIsAcknowledgedAsSuchAndAskedForAgain) {
    ChipOptions options = quiet();
    options.aiding_requests = true;
    Host host(options);
    host.read_all();
    host.write(chip_sentence("PZUL590,2024,06,12,12,00,10"));
    EXPECT_EQ(host.read_all(), chip_sentence("PZUL001,590,2"));
    EXPECT_EQ(host.seen().aiding_time.bad, 1U);
    EXPECT_EQ(host.seen().aiding_time.verdict, "off by 10 s");
    host.now_us = 5 * kSecondUs;
    EXPECT_EQ(sentences_of(host.read_all())[0], "$PZUL010,1,0*23\r\n");
}

TEST(ChipAiding, ColdBootAsksAgain) {
    ChipOptions options = quiet();
    options.aiding_requests = true;
    Host host(options);
    host.write(chip_sentence("PZUL590,2024,06,12,12,00,00"));
    chip_power(host.chip, false, 0);
    chip_power(host.chip, true, 0);
    host.interface_on();
    EXPECT_EQ(sentences_of(host.read_all()).size(), 2U);
}

struct Answer {
    std::string values;
    std::string error;
};

TEST(ChipAiding, ReferenceTimeIsCheckedToTheLetter) {
    const std::vector<Answer> table = {
        {"2024,06,12,12,00,03", ""},
        {"2024,06,12,11,59,57", ""},
        {"2024,06,12,12,00,04", "off by 4 s"},
        {"2024,06,12,11,59,56", "off by -4 s"},
        {"0000,00,00,00,00,00", "no such date or time"},
        {"2024,02,30,12,00,00", "no such date or time"},
        {"2024,06,12,24,00,00", "no such date or time"},
        {"2024,6,12,12,00,00", "field 2 is not two digits"},
        {"24,06,12,12,00,00", "field 1 is not four digits"},
        {"2024,06,12,12,00,-1", "field 6 is not two digits"},
        {"2024,06,12,12,00", "5 fields, not 6"},
        {"2024,06,12,12,00,00,00", "7 fields, not 6"},
    };
    for (const Answer& answer : table) {
        EXPECT_EQ(chip_time_error(fields_of(answer.values), kNoonUs, 3), answer.error) << answer.values;
    }
}

TEST(ChipAiding, ReferencePositionIsCheckedToTheLetter) {
    const std::vector<Answer> table = {
        {"43.295130,-5.365280,61.8,1.9,1.2,45.0,2.8", ""},
        {"0.000000,0.000000,-0.5,0.0,0.0,0.0,0.0", ""},
        {"90.000001,0.000000,0.0,0.0,0.0,0.0,0.0", "latitude is out of range"},
        {"0.000000,-180.000001,0.0,0.0,0.0,0.0,0.0", "longitude is out of range"},
        {"0.000000,0.000000,0.0,-1.0,0.0,0.0,0.0", "major axis is out of range"},
        {"0.00000,0.000000,0.0,0.0,0.0,0.0,0.0", "latitude is not a number with 6 decimals"},
        {"0.000000,0.000000,0,0.0,0.0,0.0,0.0", "height is not a number with 1 decimals"},
        {"0.000000,nan,0.0,0.0,0.0,0.0,0.0", "longitude is not a number with 6 decimals"},
        {"0.000000,0.000000,0.0,0.0,0.0,0.0,", "vertical uncertainty is not a number with 1 decimals"},
        {"0.000000,0.000000,0.0,0.0,0.0,0.0", "6 fields, not 7"},
    };
    for (const Answer& answer : table) {
        EXPECT_EQ(chip_position_error(fields_of(answer.values)), answer.error) << answer.values;
    }
}

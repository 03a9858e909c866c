// The command line of tavor-board.
#include "server/options.h"
#include "support/capture.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

namespace {

constexpr int kGoOn = -1;
constexpr int kUsageError = 2;

struct BoardOptionsTest : testing::Test {
    // The line's words stand between blanks; "_" is a blank within a word.
    int read(const std::string& line, const std::vector<char*>& last = {}) {
        std::istringstream stream("tavor-board " + line);
        std::vector<std::string> words((std::istream_iterator<std::string>(stream)), {});
        std::vector<char*> arguments;
        for (std::string& word : words) {
            std::replace(word.begin(), word.end(), '_', ' ');
            arguments.push_back(word.data());
        }
        arguments.insert(arguments.end(), last.begin(), last.end());
        options = {};
        testing::internal::CaptureStderr();
        int code = 0;
        out = capture_stdout(
            [&] { code = read_options(static_cast<int>(arguments.size()), arguments.data(), &options); });
        err = testing::internal::GetCapturedStderr();
        return code;
    }

    Options options;
    std::string out;
    std::string err;
};

TEST_F(BoardOptionsTest, TheDefaultsAreTheBoardsOwn) {
    ASSERT_EQ(read("run"), kGoOn) << err;
    EXPECT_EQ(options.action, Options::Action::kRun);
    EXPECT_EQ(options.run.board.spi_path, "/dev/spidev1.0");
    EXPECT_EQ(options.run.board.power_pin, 17);
    EXPECT_EQ(options.run.board.chip.source, ChipSource::trajectory);
    EXPECT_EQ(options.run.board.chip.rate_hz, 1U);
    EXPECT_TRUE(options.run.board.lsb_first);
    EXPECT_TRUE(options.run.assistance);
    EXPECT_TRUE(options.run.directory.empty());
    EXPECT_TRUE(options.run.program.empty());
}

TEST_F(BoardOptionsTest, ChipOptionsReachTheChip) {
    ASSERT_EQ(read("run --flash-size 0x40000 --flash-base 0x10000000 --flash-id 0x123456 --flash-empty "
                   "--boot-window 50 --sleepy-polls 7 --msb-first --fault power-loss=3@write --sentences 9 "
                   "--rx-window 64 --busy-polls 3 --seed 4 --aiding --first-fix 500 --latitude -33.5 "
                   "--longitude -70.25 --altitude 520 --ground-speed 1.5 --course 90 --no-assist"),
              kGoOn)
        << err;
    const ChipOptions& chip = options.run.board.chip;
    EXPECT_EQ(chip.flash_size, 0x40000U);
    EXPECT_EQ(chip.flash_base, 0x10000000U);
    EXPECT_EQ(chip.flash_id, 0x123456U);
    EXPECT_TRUE(chip.flash_empty);
    EXPECT_EQ(chip.boot_window_ms, 50U);
    EXPECT_EQ(chip.sleepy_polls, 7U);
    EXPECT_FALSE(options.run.board.lsb_first);
    EXPECT_EQ(chip.sentence_limit, 9U);
    EXPECT_EQ(chip.rx_window, 64U);
    EXPECT_EQ(chip.busy_polls, 3U);
    EXPECT_EQ(chip.seed, 4U);
    EXPECT_TRUE(chip.aiding_requests);
    EXPECT_EQ(chip.time_to_first_fix_ms, 500U);
    EXPECT_EQ(chip.latitude, -33.5);
    EXPECT_EQ(chip.longitude, -70.25);
    EXPECT_EQ(chip.altitude_m, 520.0);
    EXPECT_EQ(chip.speed_mps, 1.5);
    EXPECT_EQ(chip.course_deg, 90.0);
    EXPECT_FALSE(options.run.assistance);
}

TEST_F(BoardOptionsTest, EverythingBehindTheDashesIsTheProgram) {
    ASSERT_EQ(read("run --rate 5 -- prog --rate 7 -x"), kGoOn) << err;
    EXPECT_EQ(options.run.board.chip.rate_hz, 5U);
    EXPECT_EQ(options.run.program, (std::vector<std::string>{"prog", "--rate", "7", "-x"}));

    ASSERT_EQ(read("exec --dir /d -- prog --help"), kGoOn) << err;
    EXPECT_EQ(options.action, Options::Action::kExec);
    EXPECT_EQ(options.exec.program, (std::vector<std::string>{"prog", "--help"}));
}

TEST_F(BoardOptionsTest, TheSourceIsATrajectoryALogOrNothing) {
    const PrivateDir place;
    const std::string log = place.write("log.nmea", "$GPGGA*00\r\n");
    ASSERT_EQ(read("run --source replay " + log + " --loop --full-speed -- prog"), kGoOn) << err;
    EXPECT_EQ(options.run.board.chip.source, ChipSource::replay);
    EXPECT_EQ(options.run.board.chip.replay, "$GPGGA*00\r\n");
    EXPECT_TRUE(options.run.board.chip.loop);
    EXPECT_TRUE(options.run.board.chip.full_speed);
    EXPECT_EQ(options.run.program.size(), 1U);

    ASSERT_EQ(read("run --source none"), kGoOn) << err;
    EXPECT_EQ(options.run.board.chip.source, ChipSource::none);
    ASSERT_EQ(read("run --source trajectory -- prog"), kGoOn) << err;
    EXPECT_EQ(options.run.board.chip.source, ChipSource::trajectory);
}

TEST_F(BoardOptionsTest, FaultsAndConfigurationMayBeRepeated) {
    ASSERT_EQ(read("run --fault silence=on --fault transfer-fail=every:3 --conf A_b=1=2 --conf C="), kGoOn)
        << err;
    ASSERT_EQ(options.run.faults.size(), 2U);
    EXPECT_EQ(options.run.faults[1], std::make_pair(std::string("transfer-fail"), std::string("every:3")));
    EXPECT_EQ(options.run.configuration, (std::vector<std::string>{"A b=1=2", "C="}));
}

TEST_F(BoardOptionsTest, WrongOptionsSayWhatIsWrong) {
    const std::pair<const char*, const char*> wrong[] = {
        {"", "A command is required"},
        {"walk", "walk"},
        {"run --rate 0", "rate is not within 1 to 10 Hz"},
        {"run --rate 11", "rate is not within 1 to 10 Hz"},
        {"run --rate x", "--rate"},
        {"run --nope", "--nope"},
        {"run --source replay", "replay takes a file"},
        {"run --source replay /missing", "can't read /missing"},
        {"run --source moon", "\"moon\" is none of trajectory, replay FILE, none"},
        {"run --source none file", "replay takes a file"},
        {"run --fault silence", "\"silence\" is not NAME=VALUE"},
        {"run --fault =on", "is not NAME=VALUE"},
        {"run --fault nope=on", "no fault is called \"nope\""},
        {"run --fault silence=maybe", "silence"},
        {"run --log /log", "--log: it takes a program's output, and there is no program"},
        {"run --conf x", "\"x\" is not NAME=VALUE"},
        {"run --spi-path /dev/null", "must begin with /dev/spidev"},
        {"run --power-gpio 512", "--power-gpio"},
        {"run --power-gpio -1", "--power-gpio"},
        {"run --latitude 91", "latitude"},
        {"run --sentences -1", "--sentences"},
        {"run --sleepy-polls 10001", "wake-up polls are more than 10000"},
        {"run --boot-window 3600001", "boot window is more than an hour"},
        {"run --flash-size 1000", "flash size"},
        {"exec -- prog", "--dir is required"},
        {"exec --dir /d", "program"},
        {"ctl status", "--dir is required"},
        {"ctl --dir /d", "A command is required"},
        {"ctl --dir /d nope", "nope"},
    };
    for (const auto& [line, text] : wrong) {
        EXPECT_EQ(read(line), kUsageError) << line;
        EXPECT_NE(err.find(text), std::string::npos) << line << err;
        EXPECT_EQ(out, "") << line;
        EXPECT_EQ(err.rfind("tavor-board: ", 0), 0U) << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << "one line: " << err;
    }
}

TEST_F(BoardOptionsTest, WrongOptionsLeadToTheHelpOfTheirCommand) {
    const std::pair<const char*, const char*> wrong[] = {
        {"walk", "no command is called \"walk\"; see 'tavor-board --help'"},
        {"--dri /d run", "not expected: --dri /d; see 'tavor-board run --help'"},
        {"run --latitude 91", "latitude is not within -90 to 90 degrees; see 'tavor-board run --help'"},
        {"ctl --dir /d power up", "not expected: up; see 'tavor-board ctl power --help'"},
        {"ctl --dir /d time --advance 0",
         "--advance: Value 0 not in range 1 to 31622400; see 'tavor-board ctl time --help'"},
    };
    for (const auto& [line, text] : wrong) {
        EXPECT_EQ(read(line), kUsageError) << line;
        EXPECT_EQ(err, std::string("tavor-board: ") + text + "\n");
    }
}

// The parser itself does without a value, or takes the next word for it.
TEST_F(BoardOptionsTest, AnOptionWithoutItsValueOrWithOneTooManyIsToldWithWhatToWrite) {
    const std::pair<const char*, const char*> wrong[] = {
        {"run --rate= 2", "--rate= has no value: write --rate=HZ; see 'tavor-board run --help'"},
        {"run --rate -- prog", "--rate has no value: write --rate=HZ; see 'tavor-board run --help'"},
        {"run --dir= --keep", "--dir= has no value: write --dir=DIR; see 'tavor-board run --help'"},
        {"run --log --keep -- prog", "--log has no value: write --log=FILE; see 'tavor-board run --help'"},
        {"run --source= none",
         "--source= has no value: write --source=KIND [FILE]; see 'tavor-board run --help'"},
        {"run --keep=false", "--keep=false takes no value: write --keep; see 'tavor-board run --help'"},
        {"ctl --dir /d status --json=",
         "--json= takes no value: write --json; see 'tavor-board ctl status --help'"},
        {"ctl --dir /d time --speed=",
         "--speed= has no value: write --speed=N; see 'tavor-board ctl time --help'"},
        {"exec --dir -- prog", "--dir has no value: write --dir=DIR; see 'tavor-board exec --help'"},
        {"ctl status --dir", "--dir has no value: write --dir=DIR; see 'tavor-board ctl status --help'"},
    };
    for (const auto& [line, text] : wrong) {
        EXPECT_EQ(read(line), kUsageError) << line;
        EXPECT_EQ(err, std::string("tavor-board: ") + text + "\n");
    }
    EXPECT_EQ(read("run -- prog --rate= --keep=1"), kGoOn) << "the program's own";
}

TEST_F(BoardOptionsTest, AnEmptyWordIsNoValue) {
    char empty[] = "";
    for (const std::string line : {"run --rate", "run --dir", "run --log", "run --latitude", "ctl --dir"}) {
        EXPECT_EQ(read(line, {empty}), kUsageError) << line;
        EXPECT_NE(err.find(" has no value: write --"), std::string::npos) << err;
    }
    for (const std::string line : {"ctl --dir /d send", "ctl --dir /d rate", "run --", "exec --dir /d --"}) {
        EXPECT_EQ(read(line, {empty}), kUsageError) << line;
        EXPECT_NE(err.find("is empty"), std::string::npos) << line << err;
    }
}

TEST_F(BoardOptionsTest, OfAnOptionThatIsGivenTwiceTheLastCounts) {
    ASSERT_EQ(read("run --rate 1 --rate 2 --dir /a --dir /b --source none --source trajectory --keep --keep"),
              kGoOn)
        << err;
    EXPECT_EQ(options.run.board.chip.rate_hz, 2U);
    EXPECT_EQ(options.run.directory, "/b");
    EXPECT_EQ(options.run.board.chip.source, ChipSource::trajectory);
    ASSERT_EQ(read("ctl --dir /d time --speed 2 --speed 3"), kGoOn) << err;
    EXPECT_EQ(options.control.speed, 3U);
}

TEST_F(BoardOptionsTest, TheDirectoryOfCtlMayStandBeforeAndAfterTheCommand) {
    ASSERT_EQ(read("ctl status --dir /d --json"), kGoOn) << err;
    EXPECT_EQ(options.control.directory, "/d");
    EXPECT_EQ(options.control.command, "status");
    EXPECT_TRUE(options.control.json);
    EXPECT_EQ(read("ctl --dir /d status power"), kUsageError);
    EXPECT_EQ(err, "tavor-board: not expected: power; see 'tavor-board ctl status --help'\n");
}

TEST_F(BoardOptionsTest, HelpHasExamplesEverywhereAndNamesEveryFault) {
    for (const char* line : {"--help", "run --help", "exec --help", "ctl --help"}) {
        EXPECT_EQ(read(line), 0) << line;
        EXPECT_NE(out.find("Examples:"), std::string::npos) << line << out;
        EXPECT_EQ(err, "");
    }
    EXPECT_EQ(read("ctl send --help"), 0);
    EXPECT_NE(out.find("--hex"), std::string::npos) << out;
    EXPECT_EQ(read("--version"), 0);
    EXPECT_EQ(out.rfind("tavor-board ", 0), 0U) << out;

    ASSERT_EQ(read("run --help"), 0);
    EXPECT_EQ(out.find('{'), std::string::npos) << "a default of a flag stands in the help: " << out;
    for (const ChipFaultInfo& fault : chip_fault_list()) {
        EXPECT_NE(out.find(std::string("  ") + fault.name + " "), std::string::npos) << fault.name;
    }
    EXPECT_NE(out.find("COMMAND is one of address, size"), std::string::npos) << out;
}

} // namespace

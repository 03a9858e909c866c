// A board and programs on it, from the command line.
#include "interpose/paths.h"
#include "server/control_client.h"
#include "server/launch.h"
#include "support/harness.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/msg.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kUsageError = 2;
constexpr int kNoBoard = 3;
constexpr int kNotStarted = 127;

RunResult tool(const Arguments& arguments) {
    Arguments all = {TAVOR_BOARD_PROGRAM};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return run_program(all);
}

RunResult run_probe(const Arguments& probe, const Arguments& options = {}) {
    Arguments all = {"run"};
    all.insert(all.end(), options.begin(), options.end());
    all.insert(all.end(), {"--", TAVOR_PROBE_PROGRAM});
    all.insert(all.end(), probe.begin(), probe.end());
    return tool(all);
}

RunResult exec_probe(const SimulatedBoard& board, const std::string& probe) {
    return tool({"exec", "--dir", board.directory.path, "--", TAVOR_PROBE_PROGRAM, probe});
}

// What a shell writes that goes on after the export of the power line, whose level is at $value.
std::string shell_at_the_power_line(const SimulatedBoard& board, const std::string& script) {
    const RunResult result = tool({"exec", "--dir", board.directory.path, "--", "/bin/sh", "-ec",
                                   "gpio=/sys/class/gpio value=/sys/class/gpio/gpio17/value; "
                                   "echo 17 >$gpio/export; echo out >$gpio/gpio17/direction; " +
                                       script});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
}

// Directory that a run told it uses.
std::string ready_directory(const std::string& text) {
    const size_t at = text.find("ready ");
    return at == std::string::npos ? "" : text.substr(at + 6, text.find('\n', at) - at - 6);
}

bool queue_exists(const std::string& directory) {
    interpose_set_root(directory);
    const bool exists = msgget(interpose_map_key(1234), 0) >= 0;
    interpose_set_root("");
    return exists;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A program that waits on the board, and its output.
struct Waiting {
    Waiting(const PrivateDir& place, const Arguments& arguments)
        : output(place.path / "waiting.log"), process(arguments, output) {
        EXPECT_TRUE(wait_until([&] { return contains(place.read("waiting.log"), "waiting "); }))
            << place.read("waiting.log");
    }

    std::string output;
    Child process;
};

TEST(BoardRun, AProgramTalksToTheChip) {
    const RunResult result = run_probe({"spi"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "mode 3\nbits 8\nspeed 12000000\ntransfer 4\nfirst 255\nrefused 22\nunknown 25\n")
        << "255: the chip is off";
}

TEST(BoardRun, WithoutItsLibraryItIsNeverReady) {
    const PrivateDir elsewhere;
    std::filesystem::create_directory(elsewhere.path / "bin");
    const std::string alone = elsewhere.path / "bin" / "tavor-board";
    std::filesystem::copy_file(TAVOR_BOARD_PROGRAM, alone);
    for (const Arguments& program : {Arguments{}, Arguments{"--", "/bin/true"}}) {
        Arguments line = {alone, "run", "--dir", elsewhere.path / "board"};
        line.insert(line.end(), program.begin(), program.end());
        const RunResult result = run_program(line);
        EXPECT_EQ(result.status, kNotStarted);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  "tavor-board: libtavor_board.so is neither beside this program nor installed\n");
        EXPECT_FALSE(std::filesystem::exists(elsewhere.path / "board"));
    }
}

TEST(BoardRun, AProgramDrivesTheLines) {
    const SimulatedBoard board;
    EXPECT_EQ(board.ctl({"power"}), "off\n");
    EXPECT_EQ(exec_probe(board, "gpio").out,
              "before -1\n/sys/class/gpio/export 2\nafter 0\n/sys/class/gpio/gpio17/direction 3\n"
              "/sys/class/gpio/gpio17/value 1\nread 4\ndirection out\npipe 0\nsent by the kernel -1\n");
    EXPECT_EQ(board.ctl({"power"}), "on\n") << "the level outlives the program";
}

TEST(BoardRun, AShellDrivesTheLines) {
    const SimulatedBoard board;
    EXPECT_EQ(
        shell_at_the_power_line(board, "echo 1 >$value && echo written && read level <$value && echo $level"),
        "written\n1\n");
    EXPECT_EQ(board.ctl({"power"}), "on\n");
}

TEST(BoardRun, AProgramOfAShellDrivesTheLinesItIsRedirectedTo) {
    const SimulatedBoard board;
    EXPECT_EQ(shell_at_the_power_line(board, "echo 1 | timeout 20 cat >$value && timeout 20 cat <$value"),
              "1\n");
    EXPECT_EQ(board.ctl({"power"}), "on\n");
}

TEST(BoardRun, TheConfigurationFollowsTheOptions) {
    const RunResult result =
        run_probe({"files"}, {"--spi-path", "/dev/spidev3.1", "--power-gpio", "5", "--conf",
                              "LOG path=/tmp/x", "--conf", "debug socket port=7105", "--no-assist"});
    EXPECT_EQ(result.out, "LOG path=/tmp/x\ndebug socket port=7105\nSPI port path=/dev/spidev3.1\n"
                          "Power control gpio=5\ndebug socket ip=127.0.0.1\n");
}

TEST(BoardRun, WhereTheDebugOutletListensIsToldBesideTheProgramsOutput) {
    const RunResult result = run_probe({"exit", "0"}, {"--conf", "debug socket ip=127.0.0.2", "--conf",
                                                       "debug socket port=7105", "--no-assist"});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "ready " + ready_directory(result.err) +
                  "\ndebug outlet over TCP:  127.0.0.2:7105, once 'tavorctl debug tcp' has opened it\n");

    const SimulatedBoard alone({"--conf", "debug socket port=7106"});
    const std::string outlet =
        "debug outlet over TCP:  127.0.0.1:7106, once 'tavorctl debug tcp' has opened it\n";
    const auto told = [&] { return contains(alone.directory.read("board.log"), outlet); };
    EXPECT_TRUE(wait_until(told));
}

TEST(BoardRun, AnExistingConfigurationIsKeptButForWhatContradicts) {
    const PrivateDir place;
    const std::string file = "etc/default/tavor/tavor.conf";
    const std::string mine = "SPI port path=/dev/spidev1.0\nSPI frequency=1000000\nPower control gpio=17\n";
    place.write(file, mine);

    ASSERT_EQ(run_probe({"exit", "0"}, {"--no-assist", "--dir", place.path}).status, 0);
    EXPECT_EQ(place.read(file), mine);
    ASSERT_EQ(run_probe({"exit", "0"}, {"--no-assist", "--dir", place.path, "--power-gpio", "4"}).status, 0);
    ASSERT_EQ(run_probe({"exit", "0"}, {"--no-assist", "--dir", place.path, "--power-gpio", "4"}).status, 0);
    EXPECT_EQ(place.read(file), "Power control gpio=4\n" + mine) << "once";
}

TEST(BoardRun, TheAssistanceServerIsToldAndConfigured) {
    const PrivateDir place;
    const std::string file = "etc/default/tavor/tavor.conf";
    std::string port;
    for (int start = 0; start < 2; ++start) { // the second finds the first one's configuration
        const RunResult result = run_probe({"exit", "0"}, {"--dir", place.path});
        const std::string told = "assistance server:      127.0.0.1:";
        ASSERT_TRUE(contains(result.err, told)) << result.err;
        port = result.err.substr(result.err.find(told) + told.size());
        EXPECT_EQ(place.read(file).rfind("XOD host=127.0.0.1:" + port +
                                             "XOD vendor=tavor\nXOD project=board\n"
                                             "XOD device id=0001\n",
                                         0),
                  0U)
            << place.read(file);
    }
    EXPECT_EQ(place.read(file).rfind("XOD host="), 0U) << "one line only";
    EXPECT_TRUE(std::filesystem::is_directory(place.path / "etc/default/tavor/xod"));
    const RunResult mine = run_probe({"files"}, {"--conf", "XOD host=example.test"});
    EXPECT_EQ(mine.out.rfind("XOD host=example.test\n", 0), 0U) << "an option wins";
}

TEST(BoardRun, TheExitCodeIsTheProgramsOwn) {
    EXPECT_EQ(run_probe({"exit", "0"}).status, 0);
    EXPECT_EQ(run_probe({"exit", "42"}).status, 42);
    EXPECT_EQ(tool({"run", "--", "sh", "-c", "kill -9 $$"}).status, 128 + SIGKILL);
}

TEST(BoardRun, TheProgramsOutputIsPassedThroughOrLogged) {
    const PrivateDir place;
    EXPECT_EQ(tool({"run", "--", "echo", "hello"}).out, "hello\n");
    const std::string log = place.write("log", "before\n");
    const RunResult logged = tool({"run", "--log", log, "--", "echo", "hello"});
    EXPECT_EQ(logged.out, "");
    EXPECT_EQ(place.read("log"), "before\nhello\n");
}

TEST(BoardRun, WhatCantBeUsedIsToldBeforeItIsReady) {
    const PrivateDir place;
    const std::pair<Arguments, std::string> wrong[] = {
        {{"--log", place.path, "--", "true"}, "can't write " + place.path.string() + ": Is a directory"},
        {{"--log", "/missing/log", "--", "true"}, "can't write /missing/log: No such file or directory"},
        {{"--", "/missing/program"}, "can't start /missing/program: No such file or directory"},
        {{"--", "missing-program"}, "can't start missing-program: No such file or directory"},
        {{"--", place.path}, "can't start " + place.path.string() + ": Permission denied"},
        {{"--", place.write("no-program", "")},
         "can't start " + place.path.string() + "/no-program: Permission denied"},
    };
    for (const auto& [options, told] : wrong) {
        Arguments line = {"run", "--dir", place.path / "board"};
        line.insert(line.end(), options.begin(), options.end());
        const RunResult result = tool(line);
        EXPECT_EQ(result.status, kNotStarted);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "tavor-board: " + told + "\n");
    }
    for (const Arguments& program : {Arguments{}, Arguments{"--", "true"}}) {
        Arguments line = {"run", "--kernel-device", "/dev/null"};
        line.insert(line.end(), program.begin(), program.end());
        const RunResult result = tool(line);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(contains(result.err, "tavor-board: /dev/null is no device of the kernel module"))
            << result.err;
    }
}

TEST(BoardRun, AProgramIsFoundWhereTheKernelsCallerLooks) {
    const PrivateDir place; // the current directory, which an empty element of PATH means
    place.write("in/ours", "#!/bin/sh\necho found\n");
    std::filesystem::permissions(place.path / "in/ours", std::filesystem::perms::owner_all);
    place.write("first/ours", "");
    const auto run = [&](const std::string& path) {
        return run_program({"/bin/sh", "-c", "cd \"$0\" && PATH=\"$1\" exec \"$2\" run -- ours",
                            place.path / "in", path, TAVOR_BOARD_PROGRAM});
    };
    for (const std::string path : {"", "/missing:", ":/missing", "/missing::/missing"}) {
        EXPECT_TRUE(contains(run(path).out, "found\n")) << path;
    }
    EXPECT_TRUE(contains(run(place.path / "first:/missing").err, "can't start ours: Permission denied"));
}

TEST(BoardRun, APipeAsLogNeedsAReader) {
    const PrivateDir place;
    const std::string pipe = place.path / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(tool({"run", "--log", pipe, "--", "true"}).err,
              "tavor-board: can't write " + pipe + ": nobody reads this pipe\n");
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(tool({"run", "--log", pipe, "--", "/bin/sh", "-c", "echo hello"}).status, 0);
    std::array<char, 5> got = {};
    EXPECT_EQ(read(reader, got.data(), got.size()), 5);
    EXPECT_EQ(std::string(got.data(), got.size()), "hello");
    close(reader);
}

TEST(BoardRun, ASignalReachesTheProgramAndNothingIsLeft) {
    for (const int signal : {SIGINT, SIGTERM}) {
        const PrivateDir place;
        Waiting run(place, {TAVOR_BOARD_PROGRAM, "run", "--", TAVOR_PROBE_PROGRAM, "wait"});
        const std::string text = place.read("waiting.log");
        const std::string directory = ready_directory(text);
        const pid_t program = std::stoi(text.substr(text.find("waiting ") + 8));
        ASSERT_TRUE(queue_exists(directory));
        ASSERT_EQ(::kill(program, 0), 0);
        EXPECT_EQ(run.process.end(signal), 128 + signal);
        EXPECT_FALSE(std::filesystem::exists(directory));
        EXPECT_FALSE(queue_exists(directory));
        EXPECT_EQ(::kill(program, 0), -1);
    }
}

TEST(BoardRun, AKilledBoardTakesItsProgramWithIt) {
    const PrivateDir place;
    Waiting run(place, {TAVOR_BOARD_PROGRAM, "run", "--dir", place.path, "--", TAVOR_PROBE_PROGRAM, "wait"});
    const std::string text = place.read("waiting.log");
    const std::string stat =
        "/proc/" + std::to_string(std::stoi(text.substr(text.find("waiting ") + 8))) + "/stat";
    run.process.end(SIGKILL);
    EXPECT_TRUE(wait_until([&] {
        std::ifstream file(stat);
        std::string pid, name, state;
        return !(file >> pid >> name >> state) || state == "Z";
    }));
    ASSERT_TRUE(queue_exists(place.path));
    EXPECT_EQ(run_probe({"exit", "5"}, {"--dir", place.path}).status, 5) << "the directory can be used again";
    EXPECT_FALSE(queue_exists(place.path));
}

TEST(BoardRun, AGivenOrKeptDirectoryStays) {
    const PrivateDir place;
    ASSERT_EQ(run_probe({"files"}, {"--dir", place.path / "board"}).status, 0);
    EXPECT_EQ(place.read("board/tmp/head.out"), "header");
    EXPECT_FALSE(std::filesystem::exists(place.path / "board/board.sock"));

    const RunResult kept = run_probe({"files"}, {"--keep"});
    const std::filesystem::path directory = ready_directory(kept.err);
    ASSERT_FALSE(directory.empty());
    EXPECT_TRUE(std::filesystem::exists(directory / "tmp/head.out"));
    std::filesystem::remove_all(directory);
}

TEST(BoardRun, TwoBoardsRunSideBySide) {
    const SimulatedBoard left;
    const SimulatedBoard right;
    exec_probe(left, "gpio");
    EXPECT_EQ(left.ctl({"power"}), "on\n");
    EXPECT_EQ(right.ctl({"power"}), "off\n");

    exec_probe(left, "queue");
    EXPECT_TRUE(queue_exists(left.directory.path));
    EXPECT_FALSE(queue_exists(right.directory.path));
}

TEST(BoardRun, OneDirectoryHasOneBoard) {
    const SimulatedBoard board;
    exec_probe(board, "queue");
    const RunResult second = tool({"run", "--dir", board.directory.path, "--conf", "SPI frequency=1"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "tavor-board: a board runs in " + board.directory.path.string() +
                              " already: choose another directory\n");
    EXPECT_EQ(board.ctl({"power"}), "off\n") << "the first goes on";
    EXPECT_TRUE(queue_exists(board.directory.path));
    EXPECT_FALSE(contains(board.directory.read("etc/default/tavor/tavor.conf"), "SPI frequency"));
}

TEST(BoardRun, AKilledProgramLeavesTheBoardForTheNext) {
    const SimulatedBoard board;
    for (int round = 0; round < 3; ++round) {
        const std::string path = board.directory.path;
        Waiting program(board.directory,
                        {TAVOR_BOARD_PROGRAM, "exec", "--dir", path, "--", TAVOR_PROBE_PROGRAM, "wait"});
        EXPECT_TRUE(
            contains(board.directory.read("waiting.log"), "waiting " + std::to_string(program.process.pid)))
            << "exec becomes the program";
        EXPECT_EQ(program.process.end(SIGKILL), 128 + SIGKILL);
        std::filesystem::remove(program.output);
    }
    EXPECT_TRUE(contains(exec_probe(board, "spi").out, "transfer 4\n"));
    EXPECT_EQ(board.status("transfers"), 4);
}

TEST(BoardRun, ExecNeedsABoard) {
    const PrivateDir place;
    const RunResult result = tool({"exec", "--dir", place.path, "--", "true"});
    EXPECT_EQ(result.status, kNoBoard);
    EXPECT_EQ(result.err, "tavor-board: no board runs in " + place.path.string() +
                              ": start one with 'tavor-board run --dir " + place.path.string() + "'\n");
    EXPECT_EQ(tool({"ctl", "--dir", place.path, "status"}).status, kNoBoard);
}

// Root may enter everywhere.
void give_up_root() {
    constexpr uid_t kNobody = 65534;
    if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) {
        abort();
    }
}

TEST(BoardRun, ABoardThatMayNotBeReachedIsToldApart) {
    const PrivateDir place;
    std::filesystem::permissions(place.path, std::filesystem::perms::none);
    ControlOptions ctl;
    ctl.directory = place.path;
    ctl.command = "status";
    ExecOptions exec;
    exec.directory = place.path;
    exec.program = {"true"};
    const std::string told = "tavor-board: may not reach the board in .*: Permission denied";
    EXPECT_EXIT((give_up_root(), std::_Exit(control_run(ctl))), testing::ExitedWithCode(kNoBoard), told);
    EXPECT_EXIT((give_up_root(), std::_Exit(launch_exec(exec))), testing::ExitedWithCode(kNoBoard), told);
    std::filesystem::permissions(place.path, std::filesystem::perms::owner_all);
}

TEST(BoardRun, ACancelledThreadLeavesTheNodeInStep) {
    EXPECT_EQ(run_probe({"cancel"}).out, "cancelled 50\n");
}

TEST(BoardRun, NodesOfABoardThatIsGoneFail) {
    SimulatedBoard board;
    const std::string path = board.directory.path;
    // The shell is started while the board runs; its second command meets no board.
    const RunResult result = tool(
        {"exec", "--dir", path, "--", "sh", "-c",
         "\"$0\" ctl --dir \"$1\" quit; while \"$0\" ctl --dir \"$1\" power 2>&1; do :; done; \"$2\" missing",
         TAVOR_BOARD_PROGRAM, path, TAVOR_PROBE_PROGRAM});
    EXPECT_TRUE(contains(result.out, "open -1\nerror 2\n")) << result.out << result.err;
    EXPECT_TRUE(wait_until([&] { return !board.process->running(); }));
    EXPECT_EQ(board.process->exit_code, 0);
}

TEST(BoardRun, QuitEndsTheProgramToo) {
    const PrivateDir place;
    for (const auto& [probe, status] :
         {std::pair{"wait", 128 + SIGTERM}, std::pair{"stubborn", 128 + SIGKILL}}) {
        Waiting run(place,
                    {TAVOR_BOARD_PROGRAM, "run", "--dir", place.path, "--", TAVOR_PROBE_PROGRAM, probe});
        EXPECT_EQ(tool({"ctl", "--dir", place.path, "quit"}).status, 0);
        EXPECT_TRUE(wait_until([&] { return !run.process.running(); }));
        EXPECT_EQ(run.process.exit_code, status) << probe;
        std::filesystem::remove(run.output);
    }
}

TEST(BoardRun, ThePathOfADirectoryMustLeaveRoomForSockets) {
    const std::string path = "/tmp/" + std::string(70, 'd');
    const RunResult result = tool({"run", "--dir", path, "--", "true"});
    std::filesystem::remove(path);
    EXPECT_EQ(result.status, kUsageError);
    EXPECT_EQ(result.err, "tavor-board: directory " + path +
                              " has 75 characters, sockets in it allow 74: choose a shorter path\n");
}

TEST(BoardRun, ThePreloadLibraryRefusesAProgramWithoutABoard) {
    const SimulatedBoard board;
    const RunResult result =
        tool({"exec", "--dir", board.directory.path, "--", "env", "-u", "TAVOR_BOARD_DIR", "true"});
    EXPECT_EQ(result.status, kNotStarted);
    EXPECT_TRUE(contains(
        result.err, "tavor_board: TAVOR_BOARD_DIR is \"\", it must name the directory of a running board\n"));
}

TEST(BoardControl, FaultsBeginAndEnd) {
    const SimulatedBoard board({"--fault", "silence=on"});
    EXPECT_TRUE(contains(board.ctl({"status"}), "silence on"));
    EXPECT_TRUE(contains(board.ctl({"status"}), "\ndownload.state            off\n"));
    board.fault("silence", "off");
    EXPECT_FALSE(contains(board.ctl({"status"}), "silence on"));
    EXPECT_TRUE(contains(board.ctl({"fault", "--list"}), "never-ready"));

    const RunResult wrong = tool({"ctl", "--dir", board.directory.path, "fault", "nope", "on"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.err, "tavor-board: no fault is called \"nope\"\n");
}

TEST(BoardOutput, WhatCanNotBeWrittenIsNoSuccess) {
    const SimulatedBoard board;
    const std::string ctl = "ctl --dir " + board.directory.path.string() + " ";
    for (const std::string& line :
         {std::string("--help"), std::string("--version"), std::string("run --help"),
          std::string("exec --help"), ctl + "--help", ctl + "status --json"}) {
        const RunResult full =
            run_program({"/bin/sh", "-c", "exec \"$0\" " + line + " >/dev/full", TAVOR_BOARD_PROGRAM});
        EXPECT_EQ(full.status, 1) << line;
        EXPECT_EQ(full.err, "tavor-board: can't write the output: No space left on device\n") << line;
    }
}

TEST(BoardOutput, ABoardThatCanNotSayWhereItIsEnds) {
    for (const auto& [redirection, reason] :
         {std::pair("run >/dev/full", "No space left on device"), {"run <&- >&-", "Bad file descriptor"}}) {
        const RunResult result =
            run_program({"/bin/sh", "-c", std::string("exec \"$0\" ") + redirection, TAVOR_BOARD_PROGRAM});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  std::string("tavor-board: can't write where the board is reached: ") + reason + "\n");
    }
}

TEST(BoardRun, FilesThatCanNotBeReadAreNamed) {
    const PrivateDir place;
    const std::string directory = place.path;
    place.write("kept/etc/default/tavor/tavor.conf/file", "");
    place.write("flash/flash.bin/file", "");
    const std::pair<Arguments, std::string> rows[] = {
        {{"run", "--source", "replay", directory}, directory},
        {{"run", "--dir", directory + "/kept"}, directory + "/kept/etc/default/tavor/tavor.conf"},
        {{"run", "--dir", directory + "/flash"}, directory + "/flash/flash.bin"},
        {{"ctl", "--dir", directory, "send", "--file", directory}, directory},
    };
    for (const auto& [arguments, path] : rows) {
        const RunResult result = tool(arguments);
        EXPECT_TRUE(result.status == 1 || result.status == kUsageError) << result.status;
        EXPECT_TRUE(contains(result.err, "can't read " + path + ": Is a directory")) << result.err;
    }
}

TEST(BoardControl, SentencesAreInjected) {
    const SimulatedBoard board({"--source", "none"});
    const std::string file = board.directory.write("bytes", std::string("\x04\x24\0\xFF", 4));
    exec_probe(board, "gpio"); // power
    board.ctl({"send", "GNTXT,01,01,02,hello"});
    EXPECT_EQ(board.status("bytes_queued"), 26);
    board.ctl({"send", "--hex", "04240aFF"});
    EXPECT_EQ(board.status("bytes_queued"), 30);
    board.ctl({"send", "--file", file});
    EXPECT_EQ(board.status("bytes_queued"), 34);
}

TEST(BoardTime, ExecCanChangeTheSpeedOfTheBoard) {
    const SimulatedBoard board;
    const RunResult result = tool(
        {"exec", "--dir", board.directory.path, "--speed", "100000", "--", TAVOR_PROBE_PROGRAM, "hours"});
    EXPECT_TRUE(contains(result.out, "timer 1\nsleep 1\n")) << result.out;
    EXPECT_EQ(nlohmann::json::parse(board.ctl({"time", "--json"}))["speed"], 100000);
}

TEST(BoardTime, ARunningProgramsClockCanBePutForward) {
    const SimulatedBoard board;
    const std::string log = board.directory.path / "hours.log";
    Child program(
        {TAVOR_BOARD_PROGRAM, "exec", "--dir", board.directory.path, "--", TAVOR_PROBE_PROGRAM, "hours"},
        log);
    ASSERT_TRUE(wait_until([&] { return contains(board.directory.read("hours.log"), "begin "); }));
    EXPECT_TRUE(wait_until([&] {
        board.ctl({"time", "--advance", "3600"}); // again and again: it may not wait yet
        return !program.running();
    }));
    EXPECT_TRUE(contains(board.directory.read("hours.log"), "timer 1\nsleep 1\n"));
}

#if defined(__SANITIZE_ADDRESS__)
TEST(BoardSanitizer, AProgramsFaultIsFoundOnTheBoardToo) {
    const RunResult result = run_probe({"overrun"});
    EXPECT_NE(result.status, 0);
    EXPECT_TRUE(contains(result.err, "heap-buffer-overflow")) << result.err;
}
#endif

TEST(BoardSanitizer, PlainProgramsRunBesideTheLibrary) {
    const RunResult result = tool({"run", "--", "cat", "/etc/default/tavor/tavor.conf"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(contains(result.out, "Power control gpio=17\n"));
}

} // namespace

// The daemon as a program: its arguments, its second instance, and what becomes of its queue.
#include "support/harness.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

TEST(Daemon, VersionSaysHowItIsBuiltAndHelpNamesTheManual) {
    const RunResult version = run_program({TAVOR_PROGRAM, "--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out.rfind("tavor " TAVOR_VERSION ", ", 0), 0U) << version.out;
    EXPECT_NE(version.out.find(std::to_string(sizeof(void*) * 8) + " bit"), std::string::npos) << version.out;
    EXPECT_EQ(version.err, "");
    const RunResult help = run_program({TAVOR_PROGRAM, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("tavor(8)"), std::string::npos) << help.out;
}

TEST(Daemon, VersionAndHelpThatCanNotBeWrittenAreNoSuccess) {
    for (const char* argument : {"--version", "--help"}) {
        const RunResult full =
            run_program({"/bin/sh", "-c", "exec \"$0\" $1 >/dev/full", TAVOR_PROGRAM, argument});
        EXPECT_EQ(full.status, 255) << argument;
        EXPECT_EQ(full.err, "tavor: can't write the output: No space left on device\n");
    }
}

TEST(Daemon, AnyOtherArgumentIsRefusedAndNothingStarts) {
    for (const Arguments& arguments : {Arguments{"-d"}, Arguments{""}, Arguments{"--version", "--help"},
                                       Arguments{"--versions"}, Arguments{"start"}}) {
        Arguments command = {TAVOR_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        const RunResult result = run_program(command);
        EXPECT_EQ(result.status, 2) << arguments[0];
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
}

using DaemonOnce = BoardTest;

TEST_F(DaemonOnce, SecondOneLeavesTheFirstAlone) {
    start();
    const RunResult second = run_program(
        {TAVOR_BOARD_PROGRAM, "exec", "--dir", board.directory.path.string(), "--", TAVOR_PROGRAM});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "tavor is already running\n");
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(client.receive_code(TAVOR_CODE_POSITION)) << "sentences flow";
    stop();
    daemon.kill();
    daemon.restart();
    start();
}

// The daemon as a program: its arguments, its second instance, and what becomes of its queue.
#include "support/harness.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

TEST(Daemon, VersionSaysHowItIsBuilt) {
    const RunResult result = run_program({TAVOR_PROGRAM, "--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("tavor " TAVOR_VERSION ", ", 0), 0U) << result.out;
    EXPECT_NE(result.out.find(std::to_string(sizeof(void*) * 8) + " bit"), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "");
}

TEST(Daemon, HelpNamesTheManual) {
    const RunResult result = run_program({TAVOR_PROGRAM, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("tavor(8)"), std::string::npos) << result.out;
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

TEST(Daemon, SecondOneLeavesTheFirstAlone) {
    const SimulatedBoard board({"--rate", "10"});
    DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);

    const RunResult second = run_program(
        {TAVOR_BOARD_PROGRAM, "exec", "--dir", board.directory.path.string(), "--", TAVOR_PROGRAM});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "tavor is already running\n");
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(client.receive_code(TAVOR_CODE_POSITION)) << "sentences flow";
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);

    daemon.kill();
    daemon.restart();
    EXPECT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
}

TEST(Daemon, StopSwitchesTheChipOffWithoutItsConfiguration) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    const auto powered = [&] {
        return board.ctl({"status", "--json"}).find("\"powered\":true") != std::string::npos;
    };
    ASSERT_TRUE(powered());
    std::filesystem::remove(board.directory.path / "etc/default/tavor/tavor.conf");
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_FALSE(powered());
}

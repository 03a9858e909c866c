// Requests, replies and the flow of sentences, from the client's side.
#include "support/harness.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

using Spine = BoardTest;

TEST_F(Spine, CommandReachesTheChipAndItsAnswerComesBack) {
    EXPECT_EQ(client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1"), -1) << "no link before start";
    start();
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1"), 0);
    const auto answer = client.receive_code(TAVOR_CODE_CHIP);
    ASSERT_TRUE(answer);
    EXPECT_EQ(payload_text(*answer).rfind("$PZUL001,353,", 0), 0U) << payload_text(*answer);
    EXPECT_NE(board.ctl({"commands"}).find("$PZUL353,1*"), std::string::npos);
    stop();
    stop(); // again
}

TEST_F(Spine, SavedLocationIsGivenToTheChipAndDeletedAtTheNextDaemonStart) {
    start();
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    std::string file;
    ASSERT_TRUE(wait_until([&] { // once an EPE sentence has come, every value is there
        EXPECT_EQ(client.ask(TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION), 0);
        file = board.directory.read("etc/default/tavor/location.dat");
        return file.find("=\n") == std::string::npos;
    })) << file;
    EXPECT_NE(file.find("heightType=AGL\n"), std::string::npos);

    board.ctl({"send", "PZUL010,2,0"});
    EXPECT_TRUE(wait_until([&] { return board.ctl({"commands"}).find("$PZUL600,") != std::string::npos; }));

    daemon.kill();
    daemon.restart();
    EXPECT_FALSE(std::filesystem::exists(board.directory.path / "etc/default/tavor/location.dat"));
}

TEST(Harness, KilledTestLeavesNoProgramBehind) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t test = fork();
    if (test == 0) {
        const SimulatedBoard board;
        while (write(ends[1], &board.process->pid, sizeof(pid_t)) > 0) {
            pause();
        }
        _exit(EXIT_FAILURE);
    }
    close(ends[1]);
    pid_t program = 0;
    EXPECT_EQ(read(ends[0], &program, sizeof program), static_cast<ssize_t>(sizeof program));
    close(ends[0]);
    kill(test, SIGKILL);
    waitpid(test, nullptr, 0);
    ASSERT_GT(program, 0);
    EXPECT_TRUE(wait_until([&] { return kill(program, 0) == -1 && errno == ESRCH; }));
}

// The example clients of docs/examples, as a reader would run them.
#include "support/harness.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

void expect_ten_sentences(const RunResult& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 10) << result.out;
    EXPECT_NE(result.out.find("$GNGGA,"), std::string::npos) << result.out;
}

} // namespace

// One after the other: the daemon receives the address of each with the length of the one before.
TEST(Example, ClientsInCAndPythonGetSentences) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);

    expect_ten_sentences(run_program({TAVOR_EXAMPLE_PROGRAM, board.socket_path()}));
    if (std::string(TAVOR_PYTHON).empty()) {
        GTEST_SKIP() << "no python3";
    }
    expect_ten_sentences(run_program({TAVOR_PYTHON, TAVOR_EXAMPLE_SCRIPT, board.socket_path()}));
    expect_ten_sentences(run_program({TAVOR_EXAMPLE_PROGRAM, board.socket_path()}));
}

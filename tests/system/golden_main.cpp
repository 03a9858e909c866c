// Prints what a client gets for the replay of a log, one datagram a line: for scripts/golden.sh.
#include "system/golden.h"

#include <cstdio>
#include <exception>
#include <gtest/gtest.h>

namespace {

void print_replay(const char* log_path) {
    for (const std::string& line : golden_replay(log_path)) {
        puts(line.c_str());
    }
}

// What the harness reports without an exception, a datagram of a wrong size for instance.
bool harness_failed() {
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc != 2) {
        fprintf(stderr, "usage: %s LOG\n", argv[0]);
        return 2;
    }
    try {
        print_replay(argv[1]);
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", argv[1], error.what());
        return 1;
    }
    return harness_failed() || fflush(stdout) != 0 ? 1 : 0;
}

// A bound of a test that could hang: it ends the program instead.
#ifndef TAVOR_TESTS_TEST_LIMIT_H
#define TAVOR_TESTS_TEST_LIMIT_H

#include <unistd.h>

struct TestLimit {
    TestLimit() {
        alarm(kSeconds);
    }
    ~TestLimit() {
        alarm(0);
    }
    TestLimit(const TestLimit&) = delete;
    TestLimit& operator=(const TestLimit&) = delete;

    static constexpr unsigned kSeconds = 60;
};

#endif

#include "base/log_output.h"

#include "support/capture.h"
#include "support/thread_end.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

static size_t most_bytes = SIZE_MAX; // that one write takes

extern "C" {
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return __real_write(fd, data, std::min(size, most_bytes));
}
}

// Bytes that have reached the file behind standard output.
static off_t bytes_written() {
    struct stat status = {};
    EXPECT_EQ(fstat(STDOUT_FILENO, &status), 0);
    return status.st_size;
}

class LogOutput : public testing::Test {
protected:
    static void SetUpTestSuite() {
        log_output_init();
    }
};

TEST_F(LogOutput, LineIsWrittenWhenItEnds) {
    off_t unfinished = -1;
    off_t finished = -1;
    const std::string out = capture_stdout([&] {
        printf("%s", "half");
        unfinished = bytes_written();
        puts(" and half");
        finished = bytes_written();
    });
    EXPECT_EQ(unfinished, 0);
    EXPECT_EQ(finished, 14);
    EXPECT_EQ(out, "half and half\n");
}

// A write to a full pipe ends so when the process is stopped and continued, or the system suspended.
TEST_F(LogOutput, LineThatIsTakenInPiecesIsWrittenWhole) {
    const std::string out = capture_stdout([] {
        most_bytes = 3;
        puts("a line in pieces");
        most_bytes = SIZE_MAX;
    });
    EXPECT_EQ(out, "a line in pieces\n");
}

TEST_F(LogOutput, CancelledThreadWritesItsLineAndEndsBehindIt) {
    bool came_back = false;
    void* end = nullptr;
    const std::string out = capture_stdout([&] {
        end = end_of_thread([&] {
            pthread_cancel(pthread_self());
            puts("line");
            came_back = true;
            pthread_testcancel();
        });
    });
    EXPECT_TRUE(came_back);
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(out, "line\n");
}

// Standard descriptors and output of a process, tried in a child.
#include "process/process.h"

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Exit status of a child that does this.
int status_of(const std::function<bool()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(work() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool is_pipe(int descriptor) {
    struct stat own = {};
    return fstat(descriptor, &own) == 0 && S_ISFIFO(own.st_mode);
}

bool is_null_for_reading(int descriptor) {
    struct stat own = {};
    struct stat null = {};
    return fstat(descriptor, &own) == 0 && stat("/dev/null", &null) == 0 && own.st_rdev == null.st_rdev &&
           (fcntl(descriptor, F_GETFL) & O_ACCMODE) == O_RDONLY;
}

// Bit 0 of the mask: standard input, and so on.
bool closed_ones_are_held(unsigned closed) {
    int ends[2] = {};
    bool good = pipe(ends) == 0;
    for (int one = 0; one < 3; ++one) {
        good = dup2(ends[1], one) == one && good;
    }
    for (int one = 0; one < 3; ++one) {
        good = ((closed >> one & 1) == 0 || close(one) == 0) && good;
    }
    good = process_hold_standard_descriptors() && good;
    for (int one = 0; one < 3; ++one) {
        good = ((closed >> one & 1) == 0 ? is_pipe(one) : is_null_for_reading(one)) && good;
    }
    return good;
}

} // namespace

TEST(Process, ClosedStandardDescriptorsAreHeldAndOpenOnesStay) {
    for (unsigned closed = 0; closed < 8; ++closed) {
        EXPECT_EQ(status_of([&] { return closed_ones_are_held(closed); }), 0) << closed;
    }
}

TEST(Process, OutputThatWasNotWrittenIsTold) {
    testing::internal::CaptureStderr();
    const int status = status_of([] {
        const bool full = freopen("/dev/full", "w", stdout) != nullptr && fputs("text\n", stdout) >= 0;
        return full && !process_output_written("program");
    });
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "program: can't write the output: No space left on device\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(status_of([] { return process_output_written("program"); }), 0);
}

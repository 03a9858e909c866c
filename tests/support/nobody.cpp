#include "support/nobody.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;

} // namespace

void as_nobody(const std::function<void()>& body) {
    std::thread([&] {
        if (geteuid() == 0) { // by system calls: the C library's functions change every thread
            ASSERT_EQ(syscall(SYS_setgroups, 0, nullptr), 0);
            ASSERT_EQ(syscall(SYS_setresgid, kNobody, kNobody, kNobody), 0);
            ASSERT_EQ(syscall(SYS_setresuid, kNobody, kNobody, kNobody), 0);
        }
        body();
    }).join();
}

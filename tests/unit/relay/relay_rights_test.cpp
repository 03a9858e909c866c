#include "system/rights.h"

#include "system/seldom.h"

#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr uid_t kNobody = 65534;

int asked = 0;
size_t needed = 0; // bytes of an entry
long ahead = 0;    // seconds that the steady clock is put forward

struct LongTime {
    long seconds;
    long ns;
};

} // namespace

// Stands before the C library's.
extern "C" int getgrnam_r(const char* name, group* entry, char* text, size_t size, group** found) {
    static const auto ask = reinterpret_cast<decltype(&getgrnam_r)>(dlsym(RTLD_NEXT, "getgrnam_r"));
    ++asked;
    return size < needed ? ERANGE : ask(name, entry, text, size, found);
}

// Asked by the library behind std::chrono, whose times have the size of a long.
extern "C" int library_clock_gettime(clockid_t clock, LongTime* time) noexcept __asm__("clock_gettime");
extern "C" int library_clock_gettime(clockid_t clock, LongTime* time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    time->seconds += clock == CLOCK_MONOTONIC ? ahead : 0;
    return result;
}

namespace {

TEST(RelayRights, AChangeOfTheDatabaseIsNoticedWithinTenSeconds) {
    const group* const admins = getgrnam("adm");
    ASSERT_NE(admins, nullptr);
    constexpr uid_t kSomebody = kNobody - 2;
    needed = size_t{64} * 1024 * 1024; // more than is read: as if there were no such group
    EXPECT_FALSE(rights_admin(kSomebody, admins->gr_gid, "adm"));
    needed = 0;
    ahead = 8;
    EXPECT_FALSE(rights_admin(kSomebody, admins->gr_gid, "adm"));
    ahead = 11;
    EXPECT_TRUE(rights_admin(kSomebody, admins->gr_gid, "adm"));
    ahead = 0;
}

TEST(RelayRights, TheDatabaseIsAskedOnceForManyRequests) {
    asked = 0;
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(rights_admin(kNobody, 54321, "adm"));
    }
    EXPECT_LE(asked, 3); // once in ten seconds
    const int before = asked;
    EXPECT_FALSE(rights_admin(kNobody, 54322, "adm"));
    EXPECT_GT(asked, before);
}

TEST(RelayRights, AnEntryMayBeLarge) {
    const group* const admins = getgrnam("adm");
    ASSERT_NE(admins, nullptr);
    needed = size_t{1024} * 1024;
    EXPECT_TRUE(rights_admin(kNobody - 1, admins->gr_gid, "adm"));
    needed = 0;
}

TEST(RelaySeldom, IsToldOnceASecondWithTheCount) {
    Seldom line;
    const std::chrono::steady_clock::time_point start;
    EXPECT_EQ(seldom(line, start), 0);
    EXPECT_EQ(seldom(line, start), std::nullopt);
    EXPECT_EQ(seldom(line, start + std::chrono::milliseconds(999)), std::nullopt);
    EXPECT_EQ(seldom(line, start + std::chrono::seconds(1)), 2);
    EXPECT_EQ(seldom(line, start + std::chrono::seconds(2)), 0);
}

TEST(RelayRights, RootHasThemWithoutAnyGroup) {
    EXPECT_TRUE(rights_admin(0, 0, "no-such-group"));
}

TEST(RelayRights, WithoutTheGroupNobodyElseHasThem) {
    EXPECT_FALSE(rights_admin(kNobody, kNobody, "no-such-group"));
}

TEST(RelayRights, TheGroupOfTheProcessCounts) {
    const group* const admins = getgrnam("adm");
    ASSERT_NE(admins, nullptr);
    EXPECT_TRUE(rights_admin(kNobody, admins->gr_gid, "adm"));
    EXPECT_FALSE(rights_admin(kNobody, kNobody, "adm"));
}

TEST(RelayRights, AGroupOfTheUserCounts) {
    const passwd* const user = getpwnam("nobody");
    ASSERT_NE(user, nullptr);
    const group* const own = getgrgid(user->pw_gid);
    ASSERT_NE(own, nullptr);
    EXPECT_TRUE(rights_admin(user->pw_uid, 12345, own->gr_name));
    EXPECT_FALSE(rights_admin(4000123, 12345, own->gr_name)); // no such user
}

} // namespace

#include "system/rights.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>

namespace {

constexpr uid_t kNobody = 65534;

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

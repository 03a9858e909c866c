#include "system/rights.h"

#include <algorithm>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <string>
#include <vector>

namespace {

constexpr size_t kEntrySize = size_t{64} * 1024; // bytes of one entry of the user database
constexpr int kGroupsMax = 65536;                // of one user, by the kernel

std::optional<gid_t> group_of_name(const char* name) {
    std::vector<char> text(kEntrySize);
    struct group entry = {};
    struct group* found = nullptr;
    const int error = getgrnam_r(name, &entry, text.data(), text.size(), &found);
    return error == 0 && found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

std::vector<gid_t> groups_of(uid_t user) {
    std::vector<char> text(kEntrySize);
    struct passwd entry = {};
    struct passwd* found = nullptr;
    if (getpwuid_r(user, &entry, text.data(), text.size(), &found) != 0 || found == nullptr) {
        return {};
    }
    int count = kGroupsMax;
    std::vector<gid_t> groups(kGroupsMax);
    if (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
        return {};
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

} // namespace

bool rights_admin(uid_t user, gid_t group, const char* admins) {
    if (user == 0) {
        return true;
    }
    const std::optional<gid_t> wanted = group_of_name(admins);
    if (!wanted || group == *wanted) {
        return wanted.has_value();
    }
    const std::vector<gid_t> groups = groups_of(user);
    return std::find(groups.begin(), groups.end(), *wanted) != groups.end();
}

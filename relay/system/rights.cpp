#include "system/rights.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <grp.h>
#include <map>
#include <optional>
#include <pwd.h>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr size_t kEntrySize = size_t{64} * 1024;           // bytes of most entries of the user database
constexpr size_t kEntrySizeMax = size_t{16} * 1024 * 1024; // of a group with very many members
constexpr int kGroupsMax = 65536;                          // of one user, by the kernel
constexpr std::chrono::seconds kKept{10};                  // a change of the database is noticed within
constexpr size_t kKeptMax = 1024;

struct Kept {
    bool admin;
    std::chrono::steady_clock::time_point asked;
};

std::map<std::tuple<uid_t, gid_t, std::string>, Kept> kept;

// Asks the user database, with more room as long as the entry needs it. Whether it answered.
template <typename Ask> bool ask_with_room(std::vector<char>& text, const Ask& ask) {
    int error = ERANGE;
    for (size_t size = kEntrySize; error == ERANGE && size <= kEntrySizeMax; size *= 2) {
        text.resize(size);
        error = ask();
    }
    return error == 0;
}

std::optional<gid_t> group_of_name(const char* name) {
    std::vector<char> text;
    struct group entry = {};
    struct group* found = nullptr;
    const bool answered =
        ask_with_room(text, [&] { return getgrnam_r(name, &entry, text.data(), text.size(), &found); });
    return answered && found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

std::vector<gid_t> groups_of(uid_t user) {
    std::vector<char> text;
    struct passwd entry = {};
    struct passwd* found = nullptr;
    const bool answered =
        ask_with_room(text, [&] { return getpwuid_r(user, &entry, text.data(), text.size(), &found); });
    if (!answered || found == nullptr) {
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

bool is_admin(uid_t user, gid_t group, const char* admins) {
    const std::optional<gid_t> wanted = group_of_name(admins);
    if (!wanted || group == *wanted) {
        return wanted.has_value();
    }
    const std::vector<gid_t> groups = groups_of(user);
    return std::find(groups.begin(), groups.end(), *wanted) != groups.end();
}

} // namespace

bool rights_admin(uid_t user, gid_t group, const char* admins) {
    if (user == 0) {
        return true;
    }
    const auto now = std::chrono::steady_clock::now();
    const std::tuple key(user, group, std::string(admins));
    const auto known = kept.find(key);
    if (known != kept.end() && now - known->second.asked < kKept) {
        return known->second.admin;
    }
    if (kept.size() >= kKeptMax) {
        kept.clear();
    }
    return (kept[key] = {is_admin(user, group, admins), now}).admin;
}

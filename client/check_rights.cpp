#include "client/check_rights.h"

#include "client/check.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <grp.h>
#include <pwd.h>
#include <sstream>
#include <unistd.h>

namespace {

constexpr char kSubject[] = "rights";
constexpr gid_t kNoGroup = static_cast<gid_t>(-1);

struct State {
    bool daemons = false; // the process has the rights of the service's user
};

State state;

const passwd* find_user(const std::string& name) {
    const passwd* by_name = getpwnam(name.c_str());
    char* end = nullptr;
    const unsigned long number = strtoul(name.c_str(), &end, 10);
    return by_name != nullptr || *end != '\0' ? by_name : getpwuid(static_cast<uid_t>(number));
}

gid_t find_group(const std::string& name) {
    if (const group* entry = getgrnam(name.c_str())) {
        return entry->gr_gid;
    }
    char* end = nullptr;
    const unsigned long number = strtoul(name.c_str(), &end, 10);
    return name.empty() || *end != '\0' ? kNoGroup : static_cast<gid_t>(number);
}

std::vector<gid_t> groups_of(const passwd& user) {
    int count = 0;
    getgrouplist(user.pw_name, user.pw_gid, nullptr, &count);
    std::vector<gid_t> groups(static_cast<size_t>(std::max(count, 0)));
    getgrouplist(user.pw_name, user.pw_gid, groups.data(), &count);
    return groups;
}

bool can_be_taken(const std::string& properties) {
    const DaemonRights rights(properties);
    return state.daemons;
}

} // namespace

std::optional<ServiceUser> check_rights_user(const std::string& properties) {
    const std::string name = check_unit_property(properties, "User");
    if (name.empty() || name == "root") {
        return ServiceUser{"root", 0, 0, {}}; // also on a system without a list of users
    }
    const passwd* entry = find_user(name);
    if (entry == nullptr) {
        return std::nullopt;
    }
    ServiceUser user = {entry->pw_name, entry->pw_uid, entry->pw_gid, {}};
    user.groups = groups_of(*entry);
    const gid_t own = find_group(check_unit_property(properties, "Group"));
    user.gid = own != kNoGroup ? own : user.gid;
    std::istringstream more(check_unit_property(properties, "SupplementaryGroups"));
    for (std::string group; more >> group;) {
        if (const gid_t number = find_group(group); number != kNoGroup) {
            user.groups.push_back(number);
        }
    }
    return user;
}

void check_rights(std::vector<Finding>& findings, const std::string& properties) {
    const std::optional<ServiceUser> user = check_rights_user(properties);
    if (!user) {
        findings.push_back(
            {Grade::kBad, kSubject,
             "there is no user " + check_unit_property(properties, "User") + ", as whom tavor.service runs",
             "'systemd-sysusers' makes user tavor; or correct User= ('systemctl edit tavor')"});
    } else if (geteuid() == 0 && !can_be_taken(properties)) {
        findings.push_back({Grade::kDoubtful, kSubject,
                            "the look is made as root: the rights of " + user->name +
                                ", as whom the daemon runs, can't be taken here",
                            "try outside of a container, or with CAP_SETUID and CAP_SETGID"});
    } else if (geteuid() == 0 && user->uid != 0) {
        findings.push_back({Grade::kGood, kSubject,
                            "settings, devices and directories are looked at as user " + user->name +
                                ", as whom tavor.service runs; not looked at: DeviceAllow= of the unit, and "
                                "who gives that user the power line"});
    } else if (geteuid() != user->uid) {
        findings.push_back({Grade::kSkipped, kSubject,
                            "this user's count here, not those of " + user->name +
                                ", as whom the daemon runs: what may not be done is doubtful only",
                            "use sudo"});
    }
}

DaemonRights::DaemonRights(const std::string& properties) {
    const std::optional<ServiceUser> user = check_rights_user(properties);
    if (!user || user->uid == 0 || geteuid() != 0) {
        state.daemons = user && geteuid() == user->uid;
        return;
    }
    groups.resize(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    groups.resize(
        static_cast<size_t>(std::max(getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
    // The saved ids stay root's: by them the own rights come back. access() asks the real ones.
    taken = setgroups(user->groups.size(), user->groups.data()) == 0;
    state.daemons =
        taken && setresgid(user->gid, user->gid, 0) == 0 && setresuid(user->uid, user->uid, 0) == 0;
}

DaemonRights::~DaemonRights() {
    if (taken && (setresuid(0, 0, 0) != 0 || setresgid(0, 0, 0) != 0 ||
                  setgroups(groups.size(), groups.data()) != 0)) {
        abort(); // with another's rights nothing that follows would be true
    }
    state.daemons = false;
}

Grade check_denied(int error) {
    const bool denied = error == EACCES || error == EPERM;
    return denied && geteuid() != 0 && !state.daemons ? Grade::kDoubtful : Grade::kBad;
}

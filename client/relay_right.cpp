#include "client/relay_right.h"

#include "client/place.h"

#include <algorithm>
#include <grp.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kGroup[] = "tavor-admin";

bool has_right() {
    const struct group* const admins = getgrnam(kGroup);
    if (geteuid() == 0 || admins == nullptr) {
        return geteuid() == 0;
    }
    std::vector<gid_t> groups(static_cast<size_t>(std::max(0, getgroups(0, nullptr))));
    groups.resize(
        static_cast<size_t>(std::max(0, getgroups(static_cast<int>(groups.size()), groups.data()))));
    groups.push_back(getegid());
    return std::find(groups.begin(), groups.end(), admins->gr_gid) != groups.end();
}

} // namespace

std::string relay_right_hint(const std::string& socket) {
    if (has_right() || place_daemon_socket(socket) == socket) {
        return "";
    }
    return "through the relay it takes root or group tavor-admin: use sudo, or join the group ('sudo usermod -a -G "
           "tavor-admin $USER') and log in again";
}

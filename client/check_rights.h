// The rights that the daemon will have: those of the user that its service names.
#ifndef TAVOR_CLIENT_CHECK_RIGHTS_H
#define TAVOR_CLIENT_CHECK_RIGHTS_H

#include "base/non_copyable.h"
#include "client/finding.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct ServiceUser {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups; // all of them
};

// The user of a service with these properties (of 'systemctl show'); root where they name none. None for a
// user that this machine does not know.
std::optional<ServiceUser> check_rights_user(const std::string& properties);

// Tells as whom the check is made, when that is not simply root for a service of root.
void check_rights(std::vector<Finding>& findings, const std::string& properties);

// While it lives a process of root has the rights of the service's user, so that the kernel itself judges
// what the daemon may open. Others keep their own.
struct DaemonRights : private NonCopyable {
    explicit DaemonRights(const std::string& properties);
    ~DaemonRights();
    bool taken = false;        // all of them or a part: something must be given back
    std::vector<gid_t> groups; // those from before
};

// What can't be used is bad when it was tried with the daemon's rights or root's; else the daemon may have
// more rights.
Grade check_denied(int error);

#endif

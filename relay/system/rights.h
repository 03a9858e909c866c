// Who may do what disturbs others.
#ifndef TAVOR_RELAY_RIGHTS_H
#define TAVOR_RELAY_RIGHTS_H

#include <sys/types.h>

// Members may stop positioning for all, write firmware, send commands to the chip and switch the debug
// outlet.
inline constexpr char kRightsGroup[] = "tavor-admin";

// Whether the user, with this group of its process, is root or a member of the group of that name. Asks the
// user database, and keeps what it said for ten seconds. Waits for its answer without a bound: that
// comes at once where it lies in files, and may not where it lies on the network.
bool rights_admin(uid_t user, gid_t group, const char* admins = kRightsGroup);

#endif

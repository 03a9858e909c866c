// The relay's end of the daemon's datagram socket.
#ifndef TAVOR_RELAY_UPSTREAM_SOCKET_H
#define TAVOR_RELAY_UPSTREAM_SOCKET_H

#include "endpoint/endpoint.h"
#include "hub/hub.h"
#include "tavor/protocol.h"

#include <ctime>
#include <string>
#include <sys/socket.h>

enum class UpstreamPresence {
    kSame,  // the daemon that was reached before
    kOther, // another one: it is reached now
    kGone
};

// A socket that does not wait, bound to an address of its own, which the daemon never cuts.
// -1 with errno set on failure.
int upstream_socket_open();

// Connects to the socket at the path, also again: costs nothing while the same daemon is there. `reached`
// says what was reached before, and is set to what is reached now.
UpstreamPresence upstream_socket_reach(int fd, const std::string& path, EndpointFile& reached);

// Room for what the kernel reports with a datagram.
union UpstreamControl {
    cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(timespec))];
};

// When the daemon sent a datagram that was received with such room: by the kernel, or now where it says
// nothing.
HubTime upstream_socket_arrival(const msghdr& message);

#endif

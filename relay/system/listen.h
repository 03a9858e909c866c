// Sockets that others connect to.
#ifndef TAVOR_RELAY_LISTEN_H
#define TAVOR_RELAY_LISTEN_H

#include <string>

// A TCP socket at a place "[ADDRESS:]PORT", by default of the host itself. -1 with errno set on failure,
// EINVAL when the place is none.
int listen_tcp(const std::string& place);

// A Unix socket at a path, of type SOCK_DGRAM or SOCK_STREAM, replacing what an earlier relay has left there;
// its directory is made too. -1 with errno set on failure, EADDRINUSE when another relay answers there, or is
// just starting there.
int listen_path(const std::string& path, int type);

#endif

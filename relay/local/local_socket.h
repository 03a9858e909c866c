// The Unix datagram socket of the local clients.
#ifndef TAVOR_RELAY_LOCAL_SOCKET_H
#define TAVOR_RELAY_LOCAL_SOCKET_H

#include "tavor/protocol.h"

#include <optional>
#include <string>
#include <sys/types.h>

struct LocalRequest {
    tavor_request request;     // what was not sent is zero; the text ends with a NUL
    std::string address;       // of the sender: family and name, a path without NUL; empty: it has none
    std::optional<uid_t> user; // none when the kernel did not say
    gid_t group;
};

enum class LocalReceived { kRequest, kMalformed, kNothing };
enum class LocalSent { kDone, kFull, kGone };

// Prepares a socket for use: senders tell who they are, and much may be unread.
void local_socket_prepare(int fd);

// Takes one datagram, without waiting. One of fewer than 4 bytes has no type and is malformed; one longer
// than a request is cut, as the daemon does.
LocalReceived local_socket_receive(int fd, LocalRequest& received);

// Sends without waiting.
LocalSent local_socket_send(int fd, const std::string& address, const tavor_response& response);

// Whether nobody has this address any more.
bool local_socket_is_gone(const std::string& address);

#endif

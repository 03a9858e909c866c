// Which sockets have something unread, by the kernel's sock_diag(7).
//
// The kernel bounds what waits for a client that is not connected. For one that is connected to the sender
// there is no bound but the sender's buffer, which is everybody's: one that does not read would take it all.
#ifndef TAVOR_RELAY_LOCAL_UNREAD_H
#define TAVOR_RELAY_LOCAL_UNREAD_H

#include <optional>
#include <string>
#include <unordered_set>

// Bytes that were sent through the socket and are not read, with what the kernel adds to each datagram.
int local_unread_bytes(int fd);

// Addresses of datagram sockets with something unread, as local_socket_receive gives them. None when the
// kernel does not say.
std::optional<std::unordered_set<std::string>> local_unread_addresses();

#endif

// A listening TCP socket and its clients.
#ifndef TAVOR_LOCATION_SOCKET_SERVER_H
#define TAVOR_LOCATION_SOCKET_SERVER_H

#include <cstdint>

// Listens on the IPv4 address ip (dotted text) and port. Returns the socket, which accepts without blocking,
// or -1.
int32_t location_socket_server_create_tcp(const char* ip, uint16_t port);

// Takes the next waiting client of a listening socket. Returns its socket or -1.
int32_t location_socket_server_accept_new_tcp_connect(int32_t fd);

#endif

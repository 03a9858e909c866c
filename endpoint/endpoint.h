// A client's end of the daemon's datagram socket: its own address, and which file the daemon's socket is.
#ifndef TAVOR_ENDPOINT_H
#define TAVOR_ENDPOINT_H

#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

// Binds the socket to an abstract address that begins with the name and fills all 110 bytes: the daemon
// receives each address with the length of the previous sender's, so one after a shorter address would get
// its own cut, and its answer lost. Nothing is left behind however the process ends. False with errno set.
bool endpoint_bind(int socket, const char* name);

// Which file a socket is. File systems give inode numbers out again, so the time of its making counts too.
struct EndpointFile {
    dev_t device = 0;
    ino_t number = 0;
    timespec made = {};
};

// The file at the path, none when there is none or it can't be looked at.
std::optional<EndpointFile> endpoint_file(const std::string& path);

bool endpoint_same_file(const EndpointFile& a, const EndpointFile& b);

#endif

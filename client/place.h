// Where the files of a daemon are, and its settings: read here, never asked for.
#ifndef TAVOR_CLIENT_PLACE_H
#define TAVOR_CLIENT_PLACE_H

#include "config/location_config_keys.h"

#include <optional>
#include <string>

struct Place {
    std::string socket;    // the daemon's own, also for a client of the relay
    std::string directory; // of the socket: stands for that of the usual daemon
    bool usual = true;     // the daemon of this machine: the devices seen here are its own
    bool known = true;     // by the socket's path, the usual one or that of a simulated board; else assumed
    std::string config;    // content of the settings file
    int config_error = 0;  // error number; 0: it was read
    std::string hidden;    // why it is not known which daemon and whose files these are; empty: it is
};

// The socket of the daemon behind one that a client talks to: a relay there is asked, 0.4 seconds at most;
// for the relay at its usual place that does not say, it is the usual one; for any other that doesn't, it is
// not known, and the relay's own socket is returned.
std::string place_daemon_socket(const std::string& socket);

// Reads the settings beside the socket. A relay's stands for that of its daemon; any other
// that lies elsewhere has all of the daemon's files beside it.
Place place_of(const std::string& socket);

// The path under which a file of the daemon is found from here.
std::string place_path(const Place& place, const std::string& path);

// Path of the settings file.
std::string place_config(const Place& place);

// A setting as the daemon takes it, its default when there is none.
std::string place_text(const Place& place, location_config_id id);
int32_t place_number(const Place& place, location_config_id id);

// At most this many bytes of a regular file, its first or its last; none with errno set when it can't be
// read.
std::optional<std::string> place_read(const std::string& path, size_t most);
std::optional<std::string> place_read_end(const std::string& path, size_t most);

// Why that failed, from its error number.
std::string place_failure(int error);

#endif

// Where the daemon's files are and what its configuration says, seen from the client's side.
#ifndef TAVOR_CLIENT_SETTINGS_H
#define TAVOR_CLIENT_SETTINGS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// The socket of the daemon behind one that a client talks to: the relay of this machine has its own,
// elsewhere, and serves the usual daemon.
std::string settings_daemon_socket(const std::string& socket);

// The directory that a simulated board puts in front of the daemon's fixed paths, told by the path of its
// socket; empty for a daemon of the system. None when the socket stands elsewhere: then nobody knows.
std::optional<std::string> settings_root(const std::string& socket);

// The file that the daemon finds at a path.
std::string settings_file(const std::string& root, const std::string& path);

// What the daemon takes for a key: the text behind its first appearance in the content of tavor.conf.
std::string settings_value(std::string_view content, std::string_view key, std::string_view otherwise);

// The next line of a text as the daemon's readers take it: up to its line end, at most 255 bytes. Moves at
// behind it. None at the end.
std::optional<std::string_view> settings_line(std::string_view content, size_t& at);

// Content of a regular file, none with errno set when it can't be read or is larger than max bytes (EFBIG).
std::optional<std::string> settings_read(const std::string& path, size_t max);

#endif

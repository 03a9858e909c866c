// The daemon's log while it is written: a file, or the service's journal.
#ifndef TAVOR_CLIENT_LOG_SOURCE_H
#define TAVOR_CLIENT_LOG_SOURCE_H

#include "base/non_copyable.h"

#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>

// For journalctl: the service's own journal, and the system's, where a service without one logs.
inline constexpr char kLogSourceNamespace[] = "--namespace=+tavor";

// What lets a user read that journal.
inline constexpr char kLogSourceRights[] =
    "use sudo, or join group tavor or systemd-journal ('sudo usermod -a -G tavor $USER') and log in again";

struct LogSource : private NonCopyable {
    LogSource() = default;
    ~LogSource(); // closes, and ends a journal reader

    int fd = -1;        // -1: nothing is read
    pid_t reader = -1;  // of the journal; -1 for a file
    std::string begun;  // a line whose end has not come
    bool skips = false; // the rest of a line that is too long
};

// Follows the file from its present end. False, with the error number in errno, when it can't be read.
bool log_source_open_file(LogSource& source, const std::string& path);

// Follows the journal of the service from now on. Without a journal nothing ever comes.
void log_source_open_journal(LogSource& source);

// Whether this user may read the service's journal: root, a member of a group that reads every journal, or
// one of group tavor, to whom the service's own is given where it has one.
bool log_source_journal_is_readable();

// Gives the visitor each whole line that has come, without waiting.
void log_source_read(LogSource& source, const std::function<void(std::string_view line)>& visit);

#endif

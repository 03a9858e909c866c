#include "client/log_source.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <glob.h>
#include <grp.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kJournalGroups[] = {"systemd-journal", "adm", "wheel"}; // as systemd sets it up
constexpr const char* kNamespacePatterns[] = {"/run/log/journal/*.tavor", "/var/log/journal/*.tavor"};
constexpr size_t kLineMax = 4096;
constexpr size_t kReadMax = size_t{1} << 20; // of one call: an endless log must not hold the tool up

// A log that was emptied or replaced by a shorter one is read from its start.
void follow_truncation(const LogSource& source) {
    struct stat status = {};
    const off_t at = lseek(source.fd, 0, SEEK_CUR);
    if (source.reader < 0 && fstat(source.fd, &status) == 0 && status.st_size < at) {
        lseek(source.fd, 0, SEEK_SET);
    }
}

void take_byte(LogSource& source, char byte, const std::function<void(std::string_view)>& visit) {
    if (byte != '\n') {
        source.skips = source.skips || source.begun.size() == kLineMax;
        if (!source.skips) {
            source.begun += byte;
        }
        return;
    }
    visit(source.begun);
    source.begun.clear();
    source.skips = false;
}

// Seconds since 1970 with their microseconds. The journal's reader takes a moment to start, and what is
// logged meanwhile is found by this time; whole seconds would bring older lines too.
std::string present_time() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%lld.%06lld", static_cast<long long>(us / 1000000),
             static_cast<long long>(us % 1000000));
    return text.data();
}

// A member of one of the groups may read every journal.
bool is_journal_reader() {
    std::vector<gid_t> groups(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<size_t>(std::max(count, 0)));
    groups.push_back(getegid());
    return geteuid() == 0 ||
           std::any_of(std::begin(kJournalGroups), std::end(kJournalGroups), [&](const char* name) {
               const group* entry = getgrnam(name);
               return entry != nullptr &&
                      std::find(groups.begin(), groups.end(), entry->gr_gid) != groups.end();
           });
}

// The service's own journal is there, and its directory gives this user the right.
bool namespace_is_readable() {
    return std::any_of(std::begin(kNamespacePatterns), std::end(kNamespacePatterns), [](const char* pattern) {
        glob_t found = {};
        const bool any = glob(pattern, 0, nullptr, &found) == 0 &&
                         std::any_of(found.gl_pathv, found.gl_pathv + found.gl_pathc,
                                     [](const char* path) { return access(path, R_OK | X_OK) == 0; });
        globfree(&found);
        return any;
    });
}

} // namespace

LogSource::~LogSource() {
    if (fd >= 0) {
        close(fd);
    }
    if (reader > 0) {
        kill(reader, SIGTERM);
        waitpid(reader, nullptr, 0);
    }
}

bool log_source_open_file(LogSource& source, const std::string& path) {
    source.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (source.fd < 0) {
        return false;
    }
    struct stat status = {};
    if (fstat(source.fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        close(source.fd);
        source.fd = -1;
        errno = EISDIR;
        return false;
    }
    lseek(source.fd, 0, SEEK_END);
    return true;
}

void log_source_open_journal(LogSource& source) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    std::string since = "--since=@" + present_time();
    std::string journalctl = "journalctl";
    std::string names = kLogSourceNamespace;
    std::string unit = "--unit=tavor";
    std::string follow = "--follow";
    std::string all = "--no-tail";
    std::string plain = "--output=cat";
    std::array<char*, 8> argv = {journalctl.data(), names.data(), unit.data(),  follow.data(),
                                 all.data(),        since.data(), plain.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none); // the tool holds its own signals back
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (posix_spawnp(&source.reader, "journalctl", &actions, &attributes, argv.data(), environ) != 0) {
        source.reader = -1;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    source.fd = ends[0];
}

bool log_source_journal_is_readable() {
    return is_journal_reader() || namespace_is_readable();
}

void log_source_read(LogSource& source, const std::function<void(std::string_view line)>& visit) {
    if (source.fd < 0) {
        return;
    }
    follow_truncation(source);
    std::array<char, 4096> bytes = {};
    for (size_t total = 0; total < kReadMax;) {
        const ssize_t count = read(source.fd, bytes.data(), bytes.size());
        if (count <= 0) {
            return;
        }
        total += static_cast<size_t>(count);
        for (const char byte : std::string_view(bytes.data(), static_cast<size_t>(count))) {
            take_byte(source, byte, visit);
        }
    }
}

#include "client/daemon_probe.h"

#include "base/descriptor_guard.h"
#include "client/print.h"
#include "client/tool_output.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kVersionLimit{300};
constexpr size_t kProcFileMax = size_t{4} << 20; // bytes
constexpr int kStartTimeField = 20;              // of /proc/PID/stat, counted after the name
constexpr char kUsage[] = "tavor ";              // before the version

std::string proc_path(pid_t pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// Connecting a datagram socket sends nothing. Returns 0 or an error number.
int try_connect(const std::string& path) {
    const DescriptorGuard spare(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (spare.fd < 0 || path.size() >= sizeof address.sun_path) {
        return spare.fd < 0 ? errno : ENAMETOOLONG;
    }
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return connect(spare.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

// Whether a socket is bound to the path, as the kernel's list tells everybody.
bool is_listed(const std::string& path) {
    std::istringstream sockets(place_read("/proc/net/unix", kProcFileMax).value_or(""));
    for (std::string line; std::getline(sockets, line);) {
        if (line.size() > path.size() &&
            line.compare(line.size() - path.size() - 1, std::string::npos, " " + path) == 0) {
            return true;
        }
    }
    return false;
}

std::optional<pid_t> lock_holder(const std::string& directory) {
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return daemon_probe_lock_holder(place_read("/proc/locks", kProcFileMax).value_or(""), status.st_dev,
                                    status.st_ino);
}

std::optional<std::chrono::system_clock::time_point> start_of(pid_t pid) {
    const std::string stat_text = place_read(proc_path(pid, "stat"), kProcFileMax).value_or("");
    const size_t name_end = stat_text.rfind(')'); // the name may hold anything
    std::istringstream fields(name_end == std::string::npos ? "" : stat_text.substr(name_end + 1));
    std::string field;
    for (int i = 0; i < kStartTimeField; ++i) {
        fields >> field;
    }
    const double ticks = strtod(field.c_str(), nullptr);
    timespec up = {};
    if (!fields || ticks <= 0 || clock_gettime(CLOCK_BOOTTIME, &up) != 0) {
        return std::nullopt;
    }
    const double age_s = static_cast<double>(up.tv_sec) + static_cast<double>(up.tv_nsec) / 1e9 -
                         ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    const auto age =
        std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(age_s));
    return std::chrono::system_clock::now() - age;
}

// Empty for who may not read the link. The word that a process was started with is not asked: it may be
// anything.
std::string program_of(pid_t pid) {
    std::array<char, PATH_MAX> path = {};
    return readlink(proc_path(pid, "exe").c_str(), path.data(), path.size() - 1) > 0 ? path.data() : "";
}

// What may be started in order to ask for its version: a program of root or of this user, which nobody else
// can have written.
bool is_trusted(const struct stat& file) {
    const bool owner = file.st_uid == 0 || file.st_uid == geteuid();
    const bool group = (file.st_mode & S_IWGRP) == 0 || file.st_gid == 0 || file.st_gid == getegid();
    return S_ISREG(file.st_mode) && owner && group && (file.st_mode & S_IWOTH) == 0;
}

// Asks the executable of the process. The link is opened once and that very file judged and started: it leads
// elsewhere as soon as the process executes another one. It leads to a file that was replaced, too.
void find_version(DaemonProbe& probe) {
    const DescriptorGuard program(open(proc_path(probe.pid, "exe").c_str(), O_RDONLY | O_CLOEXEC));
    struct stat file = {};
    if (program.fd < 0 || fstat(program.fd, &file) != 0) {
        probe.version_why = "its executable can't be seen; ask as root";
        return;
    }
    if (!is_trusted(file)) {
        probe.version_why = "its executable can be written by others and is not started";
        return;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(program.fd);
    const std::string answer = tool_output({path, "--version"}, kVersionLimit).text;
    const size_t comma = answer.find(',');
    const size_t begin = sizeof kUsage - 1;
    const bool is_answer = answer.compare(0, begin, kUsage) == 0 && comma != std::string::npos;
    probe.version = is_answer ? print_safe(answer.substr(begin, comma - begin)) : "";
    probe.version_why = is_answer ? "" : "its executable does not tell a version";
}

} // namespace

std::optional<pid_t> daemon_probe_lock_holder(std::string_view locks, dev_t device, ino_t inode) {
    std::array<char, 64> place = {};
    snprintf(place.data(), place.size(), "%02x:%02x:%llu", major(device), minor(device),
             static_cast<unsigned long long>(inode));
    std::istringstream lines{std::string(locks)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string advice;
        std::string access;
        std::string file;
        pid_t pid = -1;
        words >> number >> kind >> advice >> access >> pid >> file;
        if (words && kind == "FLOCK" && access == "WRITE" && file == place.data() && pid > 0) {
            return pid;
        }
    }
    return std::nullopt;
}

DaemonProbe daemon_probe(const Place& place) {
    DaemonProbe probe;
    if (!place.hidden.empty()) {
        probe.running_why = place.hidden;
        probe.version_why = "which process it is can't be told";
        return probe;
    }
    const std::optional<pid_t> holder = lock_holder(place.directory);
    const int error = try_connect(place.socket);
    probe.reachable = error == 0 || (error == EACCES && is_listed(place.socket));
    if (holder || probe.reachable) {
        probe.running = true;
    } else if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) {
        probe.running = false;
    } else {
        probe.running_why = std::string("its socket can't be reached: ") + strerror(error) +
                            (error == EACCES ? "; join group tavor and log in again" : "");
    }
    if (!holder) {
        probe.version_why = "which process it is can't be told";
        return probe;
    }
    probe.pid = *holder;
    probe.since = start_of(probe.pid);
    probe.program = program_of(probe.pid);
    find_version(probe);
    return probe;
}

// Where the daemon writes, and whether files and clock agree.
#include "client/check.h"
#include "client/daemon_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr char kClock[] = "clock";
constexpr uint64_t kRoomMin = uint64_t{1} << 20; // bytes: twice the assistance files, and more
constexpr int64_t kFirstTime = 1704067200;       // 2024-01-01: no clock that is set is before it
constexpr int64_t kLastTime = 2335219200;        // 2044-01-01: damage tells nearly always a later time
constexpr int64_t kDayS = 86400;
constexpr int64_t kHourS = 3600;
constexpr int kLastsH = 72; // a file of predictions
constexpr int kStaleH = 24; // after its end
constexpr char kSetClock[] =
    "set the clock, and order the service after time-sync.target; see troubleshooting.md in "
    "/usr/share/doc/tavor";

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
}

// A directory, and what it is for.
struct DirectoryRow {
    const char* subject;
    std::string path;
    const char* setting; // that names it; null for none
};

Finding judge_directory(const DirectoryRow& row) {
    struct stat status = {};
    const std::string setting =
        row.setting == nullptr ? "" : ", or correct '" + std::string(row.setting) + "'";
    if (stat(row.path.c_str(), &status) != 0) {
        return {errno == ENOENT ? Grade::kBad : check_denied(errno), row.subject,
                row.path + ": " + strerror(errno),
                "make the directory ('systemd-tmpfiles --create' makes the usual ones)" + setting};
    }
    if (!S_ISDIR(status.st_mode)) {
        return {Grade::kBad, row.subject, row.path + " is no directory",
                "remove what stands there" + setting};
    }
    if (access(row.path.c_str(), W_OK | X_OK) != 0) {
        return {check_denied(errno), row.subject, row.path + " may not be written: " + strerror(errno),
                "look at its rights and how it is mounted, or use sudo"};
    }
    struct statvfs room = {};
    if (statvfs(row.path.c_str(), &room) == 0 && uint64_t{room.f_bavail} * room.f_frsize < kRoomMin) {
        return {Grade::kDoubtful, row.subject, row.path + " has less than 1 MiB of room", "make room"};
    }
    return {Grade::kGood, row.subject, row.path + " may be written"};
}

std::string hours_text(int hours) {
    return std::to_string(hours) + " h";
}

bool is_possible(int age_h) {
    const int64_t begin = time(nullptr) - int64_t{age_h} * kHourS;
    return begin >= kFirstTime && begin < kLastTime;
}

bool is_current(const AssistanceFile& file) {
    return file.age_h && *file.age_h >= 0 && *file.age_h <= kLastsH + kStaleH;
}

// Why it can't be a file of the server, whatever the clock says; empty when it may be one. A file that is
// ahead of the clock is a fault of its own while another one agrees with the clock.
std::string damage_of(const AssistanceFile& file, const std::vector<AssistanceFile>& files) {
    if (!file.size || (file.age_h && is_current(file))) {
        return "";
    }
    if (!file.age_h) {
        return "is too short";
    }
    const bool other_agrees = std::any_of(files.begin(), files.end(), is_current);
    return !is_possible(*file.age_h) || (*file.age_h < 0 && other_agrees)
               ? "begins at an hour that can't be its own"
               : "";
}

// Takes the damaged ones out.
void judge_damage(Findings& findings, std::vector<AssistanceFile>& files) {
    const std::vector<AssistanceFile> all = files;
    std::erase_if(files, [&](const AssistanceFile& file) {
        const std::string damage = damage_of(file, all);
        if (!damage.empty()) {
            findings.push_back({Grade::kDoubtful, "assistance file",
                                file.name + " " + damage + ": it is damaged",
                                "remove it: the daemon fetches another"});
        }
        return !damage.empty();
    });
}

// What the assistance files tell of the clock; none when they tell nothing bad.
std::optional<Finding> judge_hours(const std::vector<AssistanceFile>& files) {
    std::optional<int> youngest;
    for (const AssistanceFile& file : files) {
        if (file.age_h && (!youngest || *file.age_h < *youngest)) {
            youngest = file.age_h;
        }
    }
    if (youngest && *youngest < 0) {
        return Finding{Grade::kBad, kClock,
                       "an assistance file begins " + hours_text(-*youngest) + " ahead of it", kSetClock};
    }
    if (youngest && *youngest > kLastsH + kStaleH) {
        return Finding{Grade::kDoubtful, kClock,
                       "every assistance file ran out " + hours_text(*youngest - kLastsH) +
                           " ago: they are old, or the clock is ahead",
                       "look at the clock; 'tavorctl assist' fetches new files"};
    }
    return std::nullopt;
}

} // namespace

void check_directories(Findings& findings, const Place& place) {
    const auto directory = [&](location_config_id id) {
        return directory_of(place_path(place, place_text(place, id)));
    };
    const DirectoryRow rows[] = {
        {"socket", place.directory, nullptr},
        {"location file", directory(CONFIG_NMEA_PATH), "NMEA file path="},
        {"outlet's log file", directory(CONFIG_LOG_PATH), "LOG path="},
        {"assistance files", place_path(place, place_text(place, CONFIG_XOD_PATH)), "XOD file path="},
        {"temporary files", "/tmp", nullptr},
    };
    for (const DirectoryRow& row : rows) {
        findings.push_back(judge_directory(row));
    }
}

void check_clock(Findings& findings, const Place& place, int64_t now) {
    struct stat config = {};
    const bool known = stat(place_config(place).c_str(), &config) == 0;
    if (now < kFirstTime) {
        findings.push_back({Grade::kBad, kClock, "it is not set: it tells a time before 2024", kSetClock});
        return;
    }
    if (known && config.st_mtime > now + kDayS) {
        findings.push_back(
            {Grade::kBad, kClock, place_config(place) + " was written later than now", kSetClock});
        return;
    }
    auto files = daemon_files_assistance(place);
    if (files) {
        judge_damage(findings, *files);
    }
    const auto finding = files ? judge_hours(*files) : std::nullopt;
    findings.push_back(finding ? *finding : Finding{Grade::kGood, kClock, "it agrees with the files"});
}

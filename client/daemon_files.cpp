#include "client/daemon_files.h"

#include "assist/xod_file.h"
#include "assist/xod_schedule.h"
#include "base/byte_order.h"
#include "base/descriptor_guard.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kRecordSize = 72; // bytes of an assistance file's records, and of the header of some
constexpr size_t kLocationMax = 4096;
constexpr size_t kOutletPart = 16384;
constexpr size_t kSocketsMax = size_t{4} << 20;
constexpr double kFreshS = 30;
constexpr int kYearBase = 1900;

struct FileRow {
    xod_file_type type;
    bool kept; // the daemon fetches it
    bool headed;
    const char* content;
};

// Where the file of GPS and GLONASS is kept, that of GPS alone is not.
constexpr FileRow kFiles[] = {
    {XOD_GPS_GLONASS, true, false, "GPS and GLONASS"},
    {XOD_GPS, false, false, "GPS"},
    {XOD_BEIDOU, true, true, "BeiDou"},
    {XOD_GALILEO, true, true, "Galileo"},
};

int32_t gps_hour_now() {
    const time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    return gps_hour_from_utc(utc.tm_year + kYearBase, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour);
}

void read_hours(AssistanceFile& file, const std::string& path, bool headed) {
    const size_t at = headed ? kRecordSize : 0;
    const auto begin = place_read(path, at + sizeof(uint32_t));
    if (!begin || begin->size() < at + sizeof(uint32_t)) {
        return;
    }
    std::array<uint8_t, sizeof(uint32_t)> word = {};
    memcpy(word.data(), begin->data() + at, word.size());
    uint32_t end = 0;
    const uint32_t start = xod_start_hour(load_le32(word.data()));
    file.hours = xod_valid_hours(start, gps_hour_now(), &end);
    file.age_h = gps_hour_now() - static_cast<int32_t>(start);
}

double age_of(const timespec& time) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec - time.tv_sec) +
           static_cast<double>(now.tv_nsec - time.tv_nsec) / 1e9;
}

std::optional<double> number_of(const std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    return result.ec == std::errc() && result.ptr == end && !text.empty() ? std::optional(value)
                                                                          : std::nullopt;
}

struct LocationRow {
    const char* key;
    std::optional<double> Position::*value;
};

constexpr LocationRow kLocationRows[] = {
    {"longitude", &Position::longitude},
    {"latitude", &Position::latitude},
    {"majorAxis", &Position::majorAxis},
    {"minorAxis", &Position::minorAxis},
    {"orientation", &Position::orientation},
    {"height", &Position::height},
    {"verticalUncertainty", &Position::verticalUncertainty},
};

void take_location_line(Position& position, const std::string& line) {
    const size_t equals = line.find('=');
    const std::string key = line.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : line.substr(equals + 1);
    if (key == "UTC" && !value.empty()) {
        position.utc = value;
    }
    for (const LocationRow& row : kLocationRows) {
        if (key == row.key) {
            position.*row.value = number_of(value);
        }
    }
}

// A word of the line's node.
std::optional<std::string> read_node(const std::string& path) {
    const DescriptorGuard file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 16> text = {};
    const ssize_t count = file.fd < 0 ? -1 : read(file.fd, text.data(), text.size());
    if (count < 0) {
        return std::nullopt;
    }
    const std::string word(text.data(), static_cast<size_t>(count));
    return word.substr(0, word.find('\n'));
}

struct CloseDirectory {
    void operator()(DIR* directory) const {
        closedir(directory);
    }
};

// Where the descriptors of the process lead.
std::set<std::string> open_files(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/fd";
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(path.c_str()));
    std::set<std::string> files;
    if (directory == nullptr) {
        return files;
    }
    while (const dirent* entry = readdir(directory.get())) {
        std::array<char, PATH_MAX> target = {};
        if (readlink((path + "/" + entry->d_name).c_str(), target.data(), target.size() - 1) > 0) {
            files.insert(target.data());
        }
    }
    return files;
}

bool has_listener(const std::set<std::string>& files) {
    constexpr int kState = 3, kInode = 9; // fields of the kernel's list
    std::istringstream sockets(place_read("/proc/net/tcp", kSocketsMax).value_or(""));
    for (std::string line; std::getline(sockets, line);) {
        std::istringstream words(line);
        std::array<std::string, kInode + 1> fields;
        for (std::string& field : fields) {
            words >> field;
        }
        if (fields[kState] == "0A" && files.count("socket:[" + fields[kInode] + "]") > 0) {
            return true;
        }
    }
    return false;
}

std::string real_path(const std::string& path) {
    std::array<char, PATH_MAX> real = {};
    return realpath(path.c_str(), real.data()) != nullptr ? real.data() : path;
}

} // namespace

std::optional<std::vector<AssistanceFile>> daemon_files_assistance(const Place& place) {
    const std::string directory = place_path(place, place_text(place, CONFIG_XOD_PATH));
    if (access((directory + "/.").c_str(), R_OK | X_OK) != 0) {
        return std::nullopt;
    }
    std::vector<AssistanceFile> files;
    for (const FileRow& row : kFiles) {
        std::array<char, kXodNameSize> name = {};
        xod_download_file_name(row.type, 1, name.data());
        AssistanceFile file = {name.data(), row.content, std::nullopt, std::nullopt, std::nullopt, {}};
        const std::string path = directory + "/" + file.name;
        struct stat status = {};
        if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
            file.size = static_cast<uint64_t>(status.st_size);
            read_hours(file, path, row.headed);
            file.written = status.st_mtim;
        }
        if (file.size || row.kept) {
            files.push_back(file);
        }
    }
    return files;
}

std::optional<SavedLocation> daemon_files_location(const Place& place) {
    SavedLocation saved;
    saved.path = place_path(place, place_text(place, CONFIG_NMEA_PATH));
    const auto text = place_read(saved.path, kLocationMax);
    if (!text) {
        return std::nullopt;
    }
    std::istringstream lines(*text);
    for (std::string line; std::getline(lines, line);) {
        take_location_line(saved.position, line);
    }
    struct stat status = {};
    if (stat(saved.path.c_str(), &status) == 0) {
        saved.age_s = age_of(status.st_mtim);
    }
    return saved;
}

std::optional<Fix> daemon_files_fix(const Place& place) {
    const std::string path = place_path(place, place_text(place, CONFIG_LOG_PATH));
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || age_of(status.st_mtim) > kFreshS) {
        return std::nullopt;
    }
    Fix fix;
    std::istringstream lines(place_read_end(path, kOutletPart).value_or(""));
    for (std::string line; std::getline(lines, line) && !lines.eof();) { // the last one may be cut
        nmea_take(fix, line);
    }
    return fix.quality ? std::optional(fix) : std::nullopt;
}

std::optional<bool> daemon_files_power(const Place& place, std::string& why) {
    const int32_t pin = place_number(place, CONFIG_POWER_GPIO);
    const std::string node = "/sys/class/gpio/gpio" + std::to_string(pin);
    if (!place.usual) {
        why = "the devices of a daemon at another place are not seen from here";
    } else if (pin == kGpioNotConfigured) {
        why = "'Power control gpio=' names no line";
    } else if (access(node.c_str(), F_OK) != 0) {
        return false; // the daemon makes the node with its first start
    } else if (const auto value = read_node(node + "/value")) {
        return *value == "1";
    } else {
        why = "line " + std::to_string(pin) + " can't be read: " + strerror(errno);
    }
    return std::nullopt;
}

std::string daemon_files_log(pid_t pid) {
    std::array<char, PATH_MAX> target = {};
    struct stat status = {};
    const std::string link = "/proc/" + std::to_string(pid) + "/fd/1";
    const bool seen = readlink(link.c_str(), target.data(), target.size() - 1) > 0;
    return seen && stat(target.data(), &status) == 0 && S_ISREG(status.st_mode) ? target.data() : "";
}

std::optional<Outlet> daemon_files_outlet(const Place& place, pid_t pid) {
    const std::set<std::string> files = open_files(pid);
    if (files.count(real_path(place_path(place, place_text(place, CONFIG_LOG_PATH)))) > 0) {
        return Outlet::kFile;
    }
    if (files.count(real_path(place_text(place, CONFIG_DEBUG_PORT_PATH))) > 0) {
        return Outlet::kSerial;
    }
    return has_listener(files) ? std::optional(Outlet::kTcp) : std::nullopt;
}

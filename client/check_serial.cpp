// The serial line of the debug outlet, where the settings name one. Positioning does without it, so that what
// is wrong with it is a doubt.
#include "client/check.h"

#include "base/descriptor_guard.h"
#include "base/non_copyable.h"
#include "config/location_config.h"
#include "config/serial_speed.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char kSubject[] = "serial line";
constexpr char kWithout[] = "; only 'tavorctl debug serial' needs it";

// Gives the line its settings back.
struct LineRestore : private NonCopyable {
    LineRestore(int line, const termios& settings) : fd(line), before(settings) {}
    ~LineRestore() {
        tcsetattr(fd, TCSANOW, &before);
    }
    int fd;
    termios before;
};

// The daemon's reading of the number.
const SerialSpeed& speed_of(int32_t baud) {
    const SerialSpeed* known = std::find_if(std::begin(kSerialSpeeds), std::end(kSerialSpeeds),
                                            [&](const SerialSpeed& row) { return row.baud == baud; });
    return known == std::end(kSerialSpeeds) ? kSerialSpeeds[0] : *known;
}

// A driver may take another speed without a word.
bool takes_speed(int fd, termios settings, speed_t speed) {
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    return tcsetattr(fd, TCSANOW, &settings) == 0 && tcgetattr(fd, &settings) == 0 &&
           cfgetospeed(&settings) == speed;
}

Finding judge_line(int fd, const std::string& path, int32_t baud) {
    termios before = {};
    if (tcgetattr(fd, &before) != 0) {
        return {Grade::kDoubtful, kSubject, path + " is no serial line: " + strerror(errno),
                "correct 'debug port path='"};
    }
    const LineRestore restore(fd, before);
    const SerialSpeed& speed = speed_of(baud);
    const std::string text = std::to_string(speed.baud) + " bits a second";
    if (!takes_speed(fd, before, speed.speed)) {
        return {Grade::kDoubtful, kSubject, path + " does not take " + text, "change 'debug port baudrate='"};
    }
    if (speed.baud != baud) {
        return {Grade::kDoubtful, kSubject,
                "the daemon has no speed of " + std::to_string(baud) + ": it counts as " + text,
                "correct 'debug port baudrate='"};
    }
    return {Grade::kGood, kSubject, path + " takes " + text};
}

Finding judge_unopened(int error, const std::string& path) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return {Grade::kDoubtful, kSubject, path + " is not there" + kWithout,
                "connect it, or correct 'debug port path='"};
    case EBUSY:
        return {Grade::kDoubtful, kSubject, path + " is in use by a program that lets nobody else in",
                "'fuser -v " + path +
                    "' names it, a login or a terminal program as a rule: end it, or name "
                    "another line"};
    default:
        return {
            Grade::kDoubtful, kSubject, path + " can't be opened: " + strerror(error),
            "look at its rights (a sample of udev rules: /usr/share/doc/tavor/examples/tavor.rules), or use sudo"};
    }
}

} // namespace

void check_serial(Findings& findings, const Place& place, bool daemon_runs) {
    const std::string path = place_text(place, CONFIG_DEBUG_PORT_PATH);
    if (path.find_first_not_of(' ') == std::string::npos) {
        return;
    }
    if (daemon_runs && access(path.c_str(), F_OK) == 0) { // its outlet may be this line
        findings.push_back({Grade::kSkipped, kSubject,
                            path + " is there; its speed is left out: a daemon runs and may use it"});
        return;
    }
    const DescriptorGuard line(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    findings.push_back(line.fd < 0
                           ? judge_unopened(errno, path)
                           : judge_line(line.fd, path, place_number(place, CONFIG_DEBUG_PORT_BAUD_RATE)));
}

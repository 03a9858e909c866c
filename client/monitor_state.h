// What the monitor knows and what a key does: pure, no I/O.
#ifndef TAVOR_CLIENT_MONITOR_STATE_H
#define TAVOR_CLIENT_MONITOR_STATE_H

#include "client/connection.h"
#include "client/nmea.h"
#include "client/records.h"
#include "client/sky.h"

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

// One standard deviation of the position.
struct Ellipse {
    std::optional<double> major, minor; // metres
    std::optional<double> orientation;  // degrees from true north
    std::optional<double> vertical;     // metres
};

inline constexpr size_t kRateSeconds = 5; // that a rate is the mean of

// What came within one second.
struct RateSlot {
    int64_t second = -1;
    uint32_t fixes = 0;
    uint32_t sentences = 0;
    uint32_t bytes = 0;
};

struct Rates {
    double fixes = 0; // a second, as the others
    double sentences = 0;
    double bytes = 0;
};

// What keys mean at the moment.
enum class MonitorMode { kKeys, kCommand, kOutlet };

inline constexpr double kMonitorSilenceS = 5; // the first that is broken

struct Monitor {
    Clock::time_point begin = {};
    Fix fix;
    std::optional<Position> position;
    std::optional<Clock::time_point> position_at;
    Ellipse gst;
    std::optional<Clock::time_point> gst_at;
    std::optional<Clock::time_point> heard; // last sentence
    Sky sky;
    std::array<RateSlot, kRateSeconds + 1> slots; // the present second, and those that count
    std::deque<std::string> lines;                // answers of the chip and the daemon, the latest last
    bool stopped = false;                         // by its key: silence is what was asked for
    Clock::time_point listening = {};             // since the last datagram or the last try to get some
    double silence_s = kMonitorSilenceS;
    MonitorMode mode = MonitorMode::kKeys;
    std::string input; // command that is being typed
};

// Takes what came from the daemon.
void monitor_take(Monitor& monitor, const Record& record, Clock::time_point now);

// A datagram has come, whatever it holds.
void monitor_hear(Monitor& monitor, Clock::time_point now);

// Whether it is time to take the output back: another client's request has made that one the receiver, or
// positioning is off; nothing tells which. Each time doubles the wait for the next, so that two tools don't
// take the output from each other all the time.
bool monitor_breaks_silence(Monitor& monitor, Clock::time_point now);

// Adds a line to those that are shown last.
void monitor_line(Monitor& monitor, const std::string& text);

// Means of the last full seconds.
Rates monitor_rates(const Monitor& monitor, Clock::time_point now);

// The ellipse of GST while that comes, else the position block's.
Ellipse monitor_ellipse(const Monitor& monitor, Clock::time_point now);

// What a key asks for; a request has its text. Key 0 is one that means nothing anywhere.
struct MonitorAction {
    bool quit = false;
    std::optional<tavor_request_type> request;
    std::string text;
};

inline constexpr int kKeyEnter = '\n';
inline constexpr int kKeyEscape = 27;
inline constexpr int kKeyBackspace = 8;

MonitorAction monitor_key(Monitor& monitor, int key);

#endif

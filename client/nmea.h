// What the chip's sentences say besides the position block: pure parsing, no I/O. Every byte of them may be
// hostile; what is no good value is absent.
#ifndef TAVOR_CLIENT_NMEA_H
#define TAVOR_CLIENT_NMEA_H

#include "sentence/utc.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

// What the latest sentences of each kind have said.
struct Fix {
    std::optional<int> quality;    // GGA, GNS: 0 without a fix
    std::optional<int> satellites; // GGA, GNS: used
    std::optional<double> pdop, hdop, vdop;
    std::optional<double> speed;  // RMC: metres a second
    std::optional<double> course; // RMC: degrees
    std::optional<Utc> dated;     // RMC, ZDA: its time with its date
    bool by_gga = false;          // one has come: GNS no longer counts
};

// kFix is GGA, or GNS where no GGA comes.
enum class SentenceKind { kOther, kFix, kGsa, kRmc, kZda };

// Takes a sentence, line end included or not.
SentenceKind nmea_take(Fix& fix, std::string_view text);

// The moment of a time hhmmss.sss, which is less than half a day away from that of the latest date.
std::optional<Utc> nmea_moment(const Fix& fix, const std::string& time);

// Seconds since that moment by the clock of this host, not below 0; none when they are more than a day apart,
// for then the clock is not set, or the chip plays another day.
std::optional<double> nmea_age(const std::optional<Utc>& moment, std::chrono::system_clock::time_point now);

// Seconds since a time hhmmss.sss that has no date, by the clock of this host. None when it is more than a
// few seconds ahead of the clock on the day where it is nearest: then it is of another day, 12 hours old or
// more, or the clock is not set.
std::optional<double> nmea_age_undated(const std::string& time, std::chrono::system_clock::time_point now);

#endif

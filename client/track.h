// A track made of sentences: points with date and time, in segments. Pure: no I/O. Any line may be hostile;
// memory is bounded whatever comes.
#ifndef TAVOR_CLIENT_TRACK_H
#define TAVOR_CLIENT_TRACK_H

#include "client/nmea.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string_view>

inline constexpr double kTrackGapS = 10;

struct TrackPoint {
    double latitude = 0;            // degrees, south negative
    double longitude = 0;           // degrees, west negative
    std::optional<double> altitude; // metres above the geoid
    std::optional<double> geoid;    // metres of the geoid above the ellipsoid
    Fix fix;                        // quality, satellites, DOP, speed and course
    std::optional<Utc> time;        // none: no date was known
    bool begins = false;            // a new segment
    std::optional<std::chrono::milliseconds> of_day;
    std::optional<Utc> stamp; // when it was recorded
};

struct Track {
    double gap_s = kTrackGapS; // points that lie farther apart are of two segments
    double every_s = 0;        // of a segment's points only those that lie at least this far after the last
    double every_m = 0;        // one told, in time and in metres
    uint64_t points = 0;       // told
    uint64_t segments = 0;
    uint64_t sentences = 0; // good ones
    uint64_t refused = 0;   // lines with a bad checksum

    // The moment that is being put together, of the sentences with one time of day.
    TrackPoint epoch;
    bool open = false;
    bool placed = false;                      // has a place
    bool by_fix = false;                      // GGA or GNS has told whether there is one
    std::optional<std::chrono::sys_days> day; // of ZDA; counts with a place
    std::optional<Utc> dated;                 // latest moment whose date is known
    std::optional<Utc> stamp;                 // latest stamp of the recording
    std::deque<TrackPoint> waiting;           // for a date, kTrackWaiting at most
    std::optional<TrackPoint> last;           // latest, told or not
    std::optional<TrackPoint> told;           // told last
};

inline constexpr size_t kTrackWaiting = 600;

using TrackVisitor = std::function<void(const TrackPoint& point)>;

// Takes one line of a recording, without its line end; the visitor gets the points that are complete. Lines
// that are no sentences are passed over, but "# " with a moment as utc_iso writes it is a stamp.
void track_line(Track& track, std::string_view line, const TrackVisitor& visit);

// Gives the visitor what is left.
void track_end(Track& track, const TrackVisitor& visit);

#endif

// A track as text of a format that other programs read: pure. The text is made while the track comes; what is
// kept back is bounded.
#ifndef TAVOR_CLIENT_TRACK_FORMAT_H
#define TAVOR_CLIENT_TRACK_FORMAT_H

#include "client/options.h"
#include "client/track.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct TrackText {
    TrackFormat format = TrackFormat::kGpx;
    uint64_t segments = 0;
    std::optional<TrackPoint> last = {}; // written last, or kept in the line
    uint64_t lines = 0;                  // KML, GeoJSON: written
    std::vector<TrackPoint> line = {};   // KML, GeoJSON: points of the line that is not written yet
};

// What stands before the points.
std::string track_format_begin(TrackText& text);

// What one more point adds; may be empty.
std::string track_format_point(TrackText& text, const TrackPoint& point);

// What follows the points.
std::string track_format_end(TrackText& text);

#endif

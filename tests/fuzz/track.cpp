// Recordings made of any bytes: the track has only places of the earth, its segments follow each other, and
// every format stays one that its readers take.
#include "client/track_format.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

void check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "track: %s\n", what);
        abort();
    }
}

void check_point(const TrackPoint& point, const Track& track) {
    check(std::fabs(point.latitude) <= 90 && std::fabs(point.longitude) <= 180, "a place beyond the earth");
    check(track.points > 1 || point.begins, "the first point begins no segment");
}

// Every opened element is closed, in order; text between them holds no angle bracket.
void check_xml(const std::string& text) {
    std::vector<std::string> open;
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
        const size_t end = text.find_first_of("> ", at);
        check(end != std::string::npos, "an element does not end");
        const std::string name = text.substr(at + 1, end - at - 1);
        if (name[0] == '/') {
            check(!open.empty() && open.back() == name.substr(1), "elements end in another order");
            open.pop_back();
        } else if (name[0] != '?') {
            open.push_back(name);
        }
    }
    check(open.empty(), "an element stays open");
}

std::string run(const std::string& input, TrackFormat format) {
    Track track;
    TrackText text = {.format = format};
    std::string output = track_format_begin(text);
    const TrackVisitor visit = [&](const TrackPoint& point) {
        check_point(point, track);
        output += track_format_point(text, point);
    };
    for (size_t at = 0; at < input.size();) {
        const size_t end = std::min(input.find('\n', at), input.size());
        track_line(track, std::string_view(input).substr(at, end - at), visit);
        check(track.waiting.size() <= kTrackWaiting, "too many points wait");
        at = end + 1;
    }
    track_end(track, visit);
    return output + track_format_end(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    check_xml(run(input, TrackFormat::kGpx));
    check_xml(run(input, TrackFormat::kKml));
    check(nlohmann::json::accept(run(input, TrackFormat::kGeoJson)), "GeoJSON is no JSON");
    const std::string csv = run(input, TrackFormat::kCsv);
    check(csv.find_first_not_of("0123456789.,:TZ-\n", csv.find('\n')) == std::string::npos,
          "a table holds something else than numbers and times");
    return 0;
}

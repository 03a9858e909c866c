#include "client/track_format.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

// Longer lines of KML and GeoJSON, whose times stand apart from their places, are written in pieces.
constexpr size_t kLinePoints = 1000;

constexpr char kGpxBegin[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<gpx version=\"1.1\" creator=\"tavorctl " TAVOR_VERSION "\" "
                             "xmlns=\"http://www.topografix.com/GPX/1/1\">\n<trk>\n";
constexpr char kGpxEnd[] = "</trk>\n</gpx>\n";
constexpr char kKmlBegin[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<kml xmlns=\"http://www.opengis.net/kml/2.2\" "
                             "xmlns:gx=\"http://www.google.com/kml/ext/2.2\">\n<Document>\n";
constexpr char kKmlEnd[] = "</Document>\n</kml>\n";
constexpr char kCsvBegin[] = "time,latitude,longitude,altitude,geoid,quality,satellites,hdop,vdop,pdop,speed,"
                             "course,segment\n";

std::string fixed(double value, int decimals) {
    std::array<char, 64> text = {};
    snprintf(text.data(), text.size(), "%.*f", decimals, value);
    return text.data();
}

std::string degrees(double value) {
    return fixed(value, 8); // about a millimetre
}

// GPX knows the meridian of 180 degrees as west only.
std::string gpx_longitude(double value) {
    const std::string text = degrees(value);
    return text == "180.00000000" ? "-" + text : text;
}

// Whether the way between two points is the shorter one over the meridian of 180 degrees.
bool crosses(const TrackPoint& from, const TrackPoint& to) {
    return std::fabs(to.longitude - from.longitude) > 180;
}

std::string element(const char* name, const std::string& value) {
    return std::string("<") + name + ">" + value + "</" + name + ">";
}

std::string element(const char* name, const std::optional<double>& value, int decimals) {
    return value ? element(name, fixed(*value, decimals)) : "";
}

// Of the qualities only these have a name in GPX that says the same.
std::string gpx_fix(const std::optional<int>& quality) {
    switch (quality.value_or(0)) {
    case 2:
        return element("fix", "dgps");
    case 3:
        return element("fix", "pps");
    default:
        return "";
    }
}

std::string gpx_point(const TrackPoint& point, const std::optional<TrackPoint>& last) {
    std::string text;
    if (point.begins || !last || crosses(*last, point)) {
        text = last ? "</trkseg>\n<trkseg>\n" : "<trkseg>\n";
    }
    text += "<trkpt lat=\"" + degrees(point.latitude) + "\" lon=\"" + gpx_longitude(point.longitude) + "\">";
    text += element("ele", point.altitude, 2);
    text += point.time ? element("time", utc_iso(*point.time)) : "";
    text += element("geoidheight", point.geoid, 2) + gpx_fix(point.fix.quality);
    text += point.fix.satellites ? element("sat", std::to_string(*point.fix.satellites)) : "";
    text += element("hdop", point.fix.hdop, 2) + element("vdop", point.fix.vdop, 2);
    return text + element("pdop", point.fix.pdop, 2) + "</trkpt>\n";
}

std::string csv_number(const std::optional<double>& value, int decimals) {
    return "," + (value ? fixed(*value, decimals) : "");
}

std::string csv_count(const std::optional<int>& value) {
    return "," + (value ? std::to_string(*value) : "");
}

std::string csv_point(const TrackPoint& point, uint64_t segment) {
    const Fix& fix = point.fix;
    return (point.time ? utc_iso(*point.time) : "") + "," + degrees(point.latitude) + "," +
           degrees(point.longitude) + csv_number(point.altitude, 2) + csv_number(point.geoid, 2) +
           csv_count(fix.quality) + csv_count(fix.satellites) + csv_number(fix.hdop, 2) +
           csv_number(fix.vdop, 2) + csv_number(fix.pdop, 2) + csv_number(fix.speed, 3) +
           csv_number(fix.course, 2) + "," + std::to_string(segment) + "\n";
}

std::string kml_coordinates(const TrackPoint& point, char between) {
    return degrees(point.longitude) + between + degrees(point.latitude) +
           (point.altitude ? between + fixed(*point.altitude, 2) : "");
}

std::string kml_altitude_mode(const TrackPoint& point) {
    return element("altitudeMode", point.altitude ? "absolute" : "clampToGround");
}

std::string kml_track(const std::vector<TrackPoint>& line) {
    std::string text = "<Placemark><gx:Track>" + kml_altitude_mode(line.front()) + "\n";
    for (const TrackPoint& point : line) {
        text += element("when", utc_iso(*point.time)) + "\n";
    }
    for (const TrackPoint& point : line) {
        text += element("gx:coord", kml_coordinates(point, ' ')) + "\n";
    }
    return text + "</gx:Track></Placemark>\n";
}

// Places without times.
std::string kml_places(const std::vector<TrackPoint>& line) {
    const char* shape = line.size() > 1 ? "LineString" : "Point";
    std::string coordinates;
    for (const TrackPoint& point : line) {
        coordinates += kml_coordinates(point, ',') + "\n";
    }
    return "<Placemark>" +
           element(shape, kml_altitude_mode(line.front()) + element("coordinates", coordinates)) +
           "</Placemark>\n";
}

// Degrees as they are written in the other formats; heights are those above the ellipsoid.
Json json_place(const TrackPoint& point) {
    const auto rounded = [](double value) { return strtod(degrees(value).c_str(), nullptr); };
    Json place = {rounded(point.longitude), rounded(point.latitude)};
    if (point.altitude && point.geoid) {
        place.push_back(strtod(fixed(*point.altitude + *point.geoid, 2).c_str(), nullptr));
    }
    return place;
}

std::string json_line(const std::vector<TrackPoint>& line, bool first) {
    Json times = Json::array();
    Json places = Json::array();
    for (const TrackPoint& point : line) {
        times.push_back(point.time ? Json(utc_iso(*point.time)) : Json(nullptr));
        places.push_back(json_place(point));
    }
    const bool lone = line.size() == 1;
    Json feature;
    feature["type"] = "Feature";
    feature["geometry"]["type"] = lone ? "Point" : "LineString";
    feature["geometry"]["coordinates"] = lone ? places[0] : places;
    feature["properties"]["coordTimes"] = times;
    return (first ? "" : ",\n") + feature.dump();
}

// Writes the points that were kept back.
std::string end_line(TrackText& text) {
    if (text.line.empty()) {
        return "";
    }
    const bool first = text.lines++ == 0;
    const bool timed = text.line.front().time.has_value();
    std::string written = text.format == TrackFormat::kGeoJson ? json_line(text.line, first)
                          : timed                              ? kml_track(text.line)
                                                               : kml_places(text.line);
    text.line.clear();
    return written;
}

// From's value at a share of the way to the other.
std::optional<double> at_share(const std::optional<double>& from, const std::optional<double>& to,
                               double share) {
    return from && to ? std::optional(*from + share * (*to - *from)) : from;
}

// Where the straight way between two points meets the meridian of 180 degrees, on the side of the first; it
// has a height and a time as that has.
TrackPoint at_edge(const TrackPoint& from, const TrackPoint& to) {
    const double side = from.longitude < 0 ? -180 : 180;
    const double way = to.longitude + 2 * side - from.longitude;
    const double share = way == 0 ? 0 : (side - from.longitude) / way;
    TrackPoint edge = from;
    edge.longitude = side;
    edge.latitude = from.latitude + share * (to.latitude - from.latitude);
    edge.altitude = at_share(from.altitude, to.altitude, share);
    edge.geoid = at_share(from.geoid, to.geoid, share);
    if (from.time && to.time) {
        *edge.time += std::chrono::milliseconds(
            std::llround(share * static_cast<double>((*to.time - *from.time).count())));
    }
    return edge;
}

// Heights of GeoJSON are above the ellipsoid, so they take the geoid's.
bool has_height(const TrackText& text, const TrackPoint& point) {
    return point.altitude && (text.format != TrackFormat::kGeoJson || point.geoid);
}

TrackPoint without_height(TrackPoint point) {
    point.altitude.reset();
    return point;
}

// Ends the line at its last point or one after it, and begins the next one.
std::string cut(TrackText& text, const std::optional<TrackPoint>& end,
                const std::optional<TrackPoint>& begin) {
    if (end) {
        text.line.push_back(*end);
    }
    std::string written = end_line(text);
    if (begin) {
        text.line.push_back(*begin);
    }
    return written;
}

// A line ends with its segment, where times end or begin, and when it is long. It is cut at the meridian of
// 180 degrees, and where heights end or begin, for a height that is missing would be read as none above the
// sea. Pieces of a segment meet.
std::string line_point(TrackText& text, const TrackPoint& point) {
    std::string written;
    if (!text.line.empty()) {
        const TrackPoint last = text.line.back();
        if (point.begins || last.time.has_value() != point.time.has_value()) {
            written = end_line(text);
        } else if (crosses(last, point)) {
            written = cut(text, at_edge(last, point), at_edge(point, last));
        } else if (has_height(text, last) != has_height(text, point)) {
            written = has_height(text, last) ? cut(text, std::nullopt, without_height(last))
                                             : cut(text, without_height(point), std::nullopt);
        } else if (text.line.size() >= kLinePoints) {
            written = cut(text, std::nullopt, last);
        }
    }
    text.line.push_back(point);
    return written;
}

} // namespace

std::string track_format_begin(TrackText& text) {
    switch (text.format) {
    case TrackFormat::kGpx:
        return kGpxBegin;
    case TrackFormat::kKml:
        return kKmlBegin;
    case TrackFormat::kGeoJson:
        return "{\"type\":\"FeatureCollection\",\"features\":[\n";
    default:
        return kCsvBegin;
    }
}

std::string track_format_point(TrackText& text, const TrackPoint& point) {
    text.segments += point.begins ? 1 : 0;
    const std::optional<TrackPoint> last = std::exchange(text.last, point);
    switch (text.format) {
    case TrackFormat::kGpx:
        return gpx_point(point, last);
    case TrackFormat::kCsv:
        return csv_point(point, text.segments);
    default:
        return line_point(text, point);
    }
}

std::string track_format_end(TrackText& text) {
    switch (text.format) {
    case TrackFormat::kGpx:
        return (text.segments > 0 ? "</trkseg>\n" : "") + std::string(kGpxEnd);
    case TrackFormat::kKml:
        return end_line(text) + kKmlEnd;
    case TrackFormat::kGeoJson:
        return end_line(text) + "\n]}\n";
    default:
        return "";
    }
}

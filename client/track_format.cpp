#include "client/track_format.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

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

std::string gpx_point(const TrackPoint& point, bool first) {
    std::string text = !point.begins ? "" : first ? "<trkseg>\n" : "</trkseg>\n<trkseg>\n";
    text += "<trkpt lat=\"" + degrees(point.latitude) + "\" lon=\"" + degrees(point.longitude) + "\">";
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

// A line ends with its segment, where times end or begin, and when it is long; the next piece of a segment
// begins with the last point of this one.
std::string line_point(TrackText& text, const TrackPoint& point) {
    std::string written;
    if (!text.line.empty()) {
        const TrackPoint last = text.line.back();
        const bool changes = last.time.has_value() != point.time.has_value();
        if (point.begins || changes || text.line.size() >= kLinePoints) {
            written = end_line(text);
            if (!point.begins && !changes) {
                text.line.push_back(last);
            }
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
    switch (text.format) {
    case TrackFormat::kGpx:
        return gpx_point(point, text.segments == 1);
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

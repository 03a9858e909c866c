// Tracks as text of other programs.
#include "client/track_format.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;
using std::string;

TrackPoint point(double latitude, bool begins, bool timed = true);

TrackPoint at(double latitude, double longitude, bool begins = false) {
    TrackPoint made = point(latitude, begins);
    made.longitude = longitude;
    return made;
}

TrackPoint point(double latitude, bool begins, bool timed) {
    TrackPoint made;
    made.latitude = latitude;
    made.longitude = -5.25;
    made.altitude = 12.2;
    made.geoid = 49.8;
    made.fix.quality = 2;
    made.fix.satellites = 20;
    made.fix.hdop = 0.72;
    made.fix.speed = 8;
    made.begins = begins;
    if (timed) {
        made.time = Utc(std::chrono::seconds(1795273980));
    }
    return made;
}

string format(TrackFormat kind, const std::vector<TrackPoint>& points) {
    TrackText text = {.format = kind};
    string whole = track_format_begin(text);
    for (const TrackPoint& one : points) {
        whole += track_format_point(text, one);
    }
    return whole + track_format_end(text);
}

size_t count(const string& text, const string& part) {
    size_t found = 0;
    for (size_t at = text.find(part); at != string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

} // namespace

TEST(TrackFormat, GpxHasASegmentForEachPiece) {
    const string gpx = format(TrackFormat::kGpx, {point(43.5, true), point(43.6, false), point(43.7, true)});
    EXPECT_NE(gpx.find("<trkpt lat=\"43.50000000\" lon=\"-5.25000000\"><ele>12.20</ele>"
                       "<time>2026-11-21T15:13:00.000Z</time><geoidheight>49.80</geoidheight><fix>dgps</fix>"
                       "<sat>20</sat><hdop>0.72</hdop></trkpt>\n"),
              string::npos)
        << gpx;
    EXPECT_EQ(count(gpx, "<trkseg>"), 2U);
    EXPECT_EQ(count(gpx, "</trkseg>"), 2U);
    const string none = format(TrackFormat::kGpx, {});
    EXPECT_EQ(none.substr(none.find("<trk>")), "<trk>\n</trk>\n</gpx>\n");
}

TEST(TrackFormat, UnknownValuesAreLeftOut) {
    TrackPoint bare;
    bare.begins = true;
    EXPECT_NE(format(TrackFormat::kGpx, {bare}).find("<trkpt lat=\"0.00000000\" lon=\"0.00000000\"></trkpt>"),
              string::npos);
    EXPECT_NE(format(TrackFormat::kCsv, {bare}).find("\n,0.00000000,0.00000000,,,,,,,,,,1\n"), string::npos);
    EXPECT_NE(format(TrackFormat::kKml, {bare}).find("<Point><altitudeMode>clampToGround</altitudeMode>"),
              string::npos);
}

TEST(TrackFormat, CsvNamesItsColumnsAndNumbersSegments) {
    EXPECT_EQ(
        format(TrackFormat::kCsv, {point(43.5, true), point(43.6, true, false)}),
        "time,latitude,longitude,altitude,geoid,quality,satellites,hdop,vdop,pdop,speed,course,segment\n"
        "2026-11-21T15:13:00.000Z,43.50000000,-5.25000000,12.20,49.80,2,20,0.72,,,8.000,,1\n"
        ",43.60000000,-5.25000000,12.20,49.80,2,20,0.72,,,8.000,,2\n");
}

TEST(TrackFormat, GeoJsonTellsHeightsAboveTheEllipsoid) {
    const Json json = Json::parse(
        format(TrackFormat::kGeoJson, {point(43.5, true), point(43.6, false), point(43.7, true, false)}));
    EXPECT_EQ(json["type"], "FeatureCollection");
    ASSERT_EQ(json["features"].size(), 2U);
    const Json& line = json["features"][0];
    EXPECT_EQ(line["geometry"]["type"], "LineString");
    EXPECT_EQ(line["geometry"]["coordinates"][1], Json({-5.25, 43.6, 62.0}));
    EXPECT_EQ(line["properties"]["coordTimes"][0], "2026-11-21T15:13:00.000Z");
    const Json& lone = json["features"][1];
    EXPECT_EQ(lone["geometry"]["type"], "Point");
    EXPECT_TRUE(lone["properties"]["coordTimes"][0].is_null());
    EXPECT_EQ(Json::parse(format(TrackFormat::kGeoJson, {}))["features"].size(), 0U);
}

TEST(TrackFormat, KmlHasTimesInFrontOfTheirPlaces) {
    const string kml = format(TrackFormat::kKml, {point(43.5, true), point(43.6, false)});
    EXPECT_NE(kml.find("<when>2026-11-21T15:13:00.000Z</when>\n<when>2026-11-21T15:13:00.000Z</when>\n"
                       "<gx:coord>-5.25000000 43.50000000 12.20</gx:coord>\n"),
              string::npos)
        << kml;
}

TEST(TrackFormat, LongLinesAreWrittenInPiecesThatMeet) {
    std::vector<TrackPoint> points;
    for (int i = 0; i < 2500; ++i) {
        points.push_back(point(i / 100.0, i == 0));
    }
    TrackText text = {.format = TrackFormat::kGeoJson};
    size_t most = 0;
    for (const TrackPoint& one : points) {
        track_format_point(text, one);
        most = std::max(most, text.line.size());
    }
    EXPECT_LE(most, 1000U);
    const Json json = Json::parse(format(TrackFormat::kGeoJson, points));
    ASSERT_EQ(json["features"].size(), 3U);
    const auto places = [&](size_t i) -> const Json& {
        return json["features"][i]["geometry"]["coordinates"];
    };
    EXPECT_EQ(places(0).size() + places(1).size() + places(2).size(), 2502U);
    EXPECT_EQ(places(0).back(), places(1).front());
    const string kml = format(TrackFormat::kKml, points);
    EXPECT_EQ(count(kml, "<when>"), 2502U);
}

TEST(TrackFormat, HeightsOfALineAreAllThereOrNone) {
    TrackPoint flat = point(43.6, false);
    flat.altitude.reset();
    const std::vector<TrackPoint> points = {point(43.5, true), flat, flat, point(43.7, false),
                                            point(43.8, false)};
    const string kml = format(TrackFormat::kKml, points);
    EXPECT_EQ(count(kml, "<gx:Track>"), 3U);
    EXPECT_EQ(count(kml, "<gx:Track><altitudeMode>clampToGround</altitudeMode>"), 1U);
    EXPECT_EQ(count(kml, "<gx:coord>-5.25000000 43.50000000</gx:coord>\n"
                         "<gx:coord>-5.25000000 43.60000000</gx:coord>\n"
                         "<gx:coord>-5.25000000 43.60000000</gx:coord>\n"
                         "<gx:coord>-5.25000000 43.70000000</gx:coord>\n</gx:Track>"),
              1U)
        << kml;
    const Json json = Json::parse(format(TrackFormat::kGeoJson, points));
    ASSERT_EQ(json["features"].size(), 3U);
    for (const Json& place : json["features"][1]["geometry"]["coordinates"]) {
        EXPECT_EQ(place.size(), 2U);
    }
}

TEST(TrackFormat, LinesAreCutAtTheMeridianOf180Degrees) {
    TrackPoint later = at(11, -179);
    *later.time += std::chrono::seconds(4);
    *later.altitude += 4;
    const std::vector<TrackPoint> east = {at(10, 177, true), later};
    const Json json = Json::parse(format(TrackFormat::kGeoJson, east));
    ASSERT_EQ(json["features"].size(), 2U);
    const auto line = [&](size_t i) { return json["features"][i]["geometry"]["coordinates"].dump(); };
    EXPECT_EQ(line(0), "[[177.0,10.0,62.0],[180.0,10.75,65.0]]");
    EXPECT_EQ(line(1), "[[-180.0,10.75,65.0],[-179.0,11.0,66.0]]");
    EXPECT_EQ(json["features"][1]["properties"]["coordTimes"][0], "2026-11-21T15:13:03.000Z");
    const string kml = format(TrackFormat::kKml, {at(10, -177, true), at(11, 179)});
    EXPECT_EQ(count(kml, "<gx:coord>-180.00000000 10.75000000 12.20</gx:coord>\n</gx:Track>"), 1U) << kml;
    EXPECT_EQ(count(kml, "<gx:coord>180.00000000 10.75000000 12.20</gx:coord>\n<gx:coord>179.0"), 1U) << kml;
    const string gpx = format(TrackFormat::kGpx, east);
    EXPECT_EQ(count(gpx, "</trkseg>\n<trkseg>\n"), 1U) << gpx;
    EXPECT_EQ(count(gpx, "<trkpt"), 2U) << "only points that were measured";
    EXPECT_EQ(count(format(TrackFormat::kGeoJson, {at(10, 90, true), at(10, -90)}), "Feature\""), 1U)
        << "half around the earth is one way or the other";
    EXPECT_EQ(count(format(TrackFormat::kGeoJson, {at(10, 180, true), at(10, -180)}), "null"), 0U);
}

TEST(TrackFormat, GpxHasNoLongitudeOf180East) {
    const string gpx = format(TrackFormat::kGpx, {at(10, 180, true), at(10, 179.999999999), at(10, -180)});
    EXPECT_EQ(count(gpx, "lon=\"-180.00000000\""), 3U) << gpx;
    EXPECT_NE(format(TrackFormat::kCsv, {at(10, 180, true)}).find(",180.00000000,"), string::npos);
}

// What is published, when, and what waits: without a broker.
#include "mqtt/mqtt_place.h"
#include "mqtt/mqtt_queue.h"
#include "mqtt/mqtt_rate.h"
#include "mqtt/mqtt_report.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;
using std::chrono::milliseconds;

GnssEpoch fix_at(double latitude, double longitude) {
    GnssEpoch epoch;
    epoch.mode = GnssMode::k3d;
    epoch.latitude = latitude;
    epoch.longitude = longitude;
    return epoch;
}

std::string host_of(const std::string& place, uint16_t port = 1883) {
    std::string host;
    return mqtt_place_parse(place, host, port) ? host + " " + std::to_string(port) : "none";
}

TEST(RelayMqttPlace, HasAHostAndMayHaveAPort) {
    EXPECT_EQ(host_of("broker.example"), "broker.example 1883");
    EXPECT_EQ(host_of("broker.example:8000"), "broker.example 8000");
    EXPECT_EQ(host_of("192.0.2.1:1"), "192.0.2.1 1");
    EXPECT_EQ(host_of("[::1]:65535"), "::1 65535");
    EXPECT_EQ(host_of("[::1]"), "::1 1883");
    EXPECT_EQ(host_of("2001:db8::1"), "2001:db8::1 1883");
    for (const char* place : {"", ":1883", "host:", "host:0", "host:65536", "host:x", "[::1", "[::1]1883",
                              "[]:1", "a b", "host:-1", "mqtt://host", "[a]b]:1"}) {
        EXPECT_EQ(host_of(place), "none") << place;
    }
    EXPECT_EQ(host_of(std::string(253, 'a')), std::string(253, 'a') + " 1883");
    EXPECT_EQ(host_of(std::string(254, 'a')), "none");
}

TEST(RelayMqttPlace, AnIdIsOneLevelOfATopic) {
    for (const char* id : {"a", "board-7", "00:11:22.example_x"}) {
        EXPECT_TRUE(mqtt_place_is_id(id)) << id;
    }
    for (const char* id : {"", "a/b", "+", "a#", "a b", "\x7f", "\xc3\xa4", "a\n"}) {
        EXPECT_FALSE(mqtt_place_is_id(id)) << id;
    }
    EXPECT_TRUE(mqtt_place_is_id(std::string(64, 'a')));
    EXPECT_FALSE(mqtt_place_is_id(std::string(65, 'a')));
}

TEST(RelayMqttPlace, ATopicHasLevels) {
    for (const char* topic : {"tavor", "fleet/north/7", "a$"}) {
        EXPECT_TRUE(mqtt_place_is_topic(topic)) << topic;
    }
    for (const char* topic : {"", "/", "/a", "a/", "a//b", "a/+", "#", "$SYS", "a b"}) {
        EXPECT_FALSE(mqtt_place_is_topic(topic)) << topic;
    }
    EXPECT_TRUE(mqtt_place_is_topic(std::string(128, 'a')));
    EXPECT_FALSE(mqtt_place_is_topic(std::string(129, 'a')));
}

TEST(RelayMqttReport, APositionHasEachMember) {
    GnssEpoch epoch = fix_at(48.1173, -11.516666666789);
    epoch.time = Utc(milliseconds(1774267201000));
    epoch.altitude = 545.4;
    epoch.speed = 5.14444;
    epoch.course = 84.4;
    epoch.quality = 2;
    epoch.pdop = 2.5;
    epoch.hdop = 1.3;
    epoch.vdop = 2.1;
    epoch.satellites.resize(3);
    epoch.satellites[1].used = true;
    EXPECT_EQ(mqtt_report_position(epoch),
              R"({"time":"2026-03-23T12:00:01.000Z","latitude":48.1173,"longitude":-11.516666667,)"
              R"("altitude":545.4,"speed":5.1444,"course":84.4,"mode":3,"quality":2,"satellites":1,)"
              R"("pdop":2.5,"hdop":1.3,"vdop":2.1})");
}

TEST(RelayMqttReport, WhatIsNotKnownIsNull) {
    EXPECT_EQ(mqtt_report_position(fix_at(1, 2)),
              R"({"time":null,"latitude":1.0,"longitude":2.0,"altitude":null,"speed":null,"course":null,)"
              R"("mode":3,"quality":null,"satellites":null,"pdop":null,"hdop":null,"vdop":null})");
}

TEST(RelayMqttReport, TheStatusTellsCountersAndTheAgeOfTheFix) {
    MqttStatus status;
    status.daemon = status.positioning = true;
    status.published = 5;
    status.queued = 4;
    status.dropped_positions = 3;
    status.dropped_sentences = 2;
    status.dropped_by_clients = 1;
    Json report = Json::parse(mqtt_report_status(status));
    EXPECT_EQ(report.at("fix_age"), nullptr);
    status.fix_age = 7;
    report = Json::parse(mqtt_report_status(status));
    EXPECT_EQ(report,
              Json::parse(R"({"state":"online","time":"1970-01-01T00:00:00.000Z","version":")" +
                          report.at("version").get<std::string>() +
                          R"(","daemon":true,"positioning":true,"fix_age":7,"published":5,"queued":4,)"
                          R"("dropped_positions":3,"dropped_sentences":2,"dropped_by_clients":1})"));
    EXPECT_EQ(mqtt_report_offline(), R"({"state":"offline"})");
}

struct RelayMqttRate : testing::Test {
    bool due(int after_ms, double latitude = 1, double longitude = 2) {
        return mqtt_rate_due(rate, fix_at(latitude, longitude), start + milliseconds(after_ms));
    }
    const std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    MqttRate rate{10, 0, {}, 0, 0};
};

TEST_F(RelayMqttRate, TheFirstFixIsPublishedAndThenOneInTenSeconds) {
    EXPECT_TRUE(due(0));
    EXPECT_FALSE(due(9000));
    EXPECT_TRUE(due(9950)); // ten epochs of a second, the last a little early
    EXPECT_FALSE(due(19000));
    EXPECT_TRUE(due(19950));
}

TEST_F(RelayMqttRate, AShortTimeIsNotTakenForOver) {
    rate.every_s = 0.1;
    EXPECT_TRUE(due(0));
    EXPECT_FALSE(due(40));
    EXPECT_TRUE(due(60));
}

TEST_F(RelayMqttRate, OfManyEpochsASecondOneInASecondIsPublished) {
    rate.every_s = 1;
    int published = 0;
    for (int epoch = 0; epoch < 100; ++epoch) {
        published += due(100 * epoch) ? 1 : 0;
    }
    EXPECT_EQ(published, 1 + 10); // the first, and the early one of each second
    EXPECT_TRUE(due(30000));
    EXPECT_FALSE(due(30800)); // late ones are not caught up
}

TEST_F(RelayMqttRate, TheWayCountsFromTheLatestThatWasPublished) {
    rate.distance_m = 100;
    EXPECT_TRUE(due(0, 10, 20));
    EXPECT_FALSE(due(1000, 10.0008, 20)); // 89 m
    EXPECT_TRUE(due(2000, 10.0009, 20));  // 100.07 m
    EXPECT_FALSE(due(3000, 10.0010, 20));
    EXPECT_TRUE(due(12000, 10.0010, 20)); // by the time
}

TEST_F(RelayMqttRate, ZeroIsNoReason) {
    rate.every_s = 0;
    rate.distance_m = 5;
    EXPECT_TRUE(due(0));
    EXPECT_FALSE(due(86400000));
    EXPECT_TRUE(due(86400001, 1.001));
}

TEST_F(RelayMqttRate, WithoutAFixNothingIsPublished) {
    GnssEpoch epoch = fix_at(1, 2);
    epoch.mode = GnssMode::kNoFix;
    EXPECT_FALSE(mqtt_rate_due(rate, epoch, start));
    epoch.mode = GnssMode::k2d;
    epoch.longitude.reset();
    EXPECT_FALSE(mqtt_rate_due(rate, epoch, start));
    EXPECT_TRUE(due(0));
}

TEST(RelayMqttDistance, IsThatOfASphere) {
    EXPECT_NEAR(mqtt_rate_distance(0, 0, 1, 0), 111195, 1);
    EXPECT_NEAR(mqtt_rate_distance(60, 0, 60, 1), 55597, 5);
    EXPECT_NEAR(mqtt_rate_distance(0, 179.9999, 0, -179.9999), 22.24, 0.01);
    EXPECT_NEAR(mqtt_rate_distance(90, 0, -90, 0), 20015114, 100);
}

struct RelayMqttQueue : testing::Test {
    void put(int first, int last) {
        for (int i = first; i <= last; ++i) {
            mqtt_queue_put(queue, std::to_string(i));
        }
    }
    // Sends what may be sent, under the number of its text, and tells it.
    std::string send() {
        std::string sent;
        while (const MqttMessage* const next = mqtt_queue_next(queue)) {
            sent += next->payload + " ";
            mqtt_queue_sent(queue, std::stoi(next->payload));
        }
        return sent;
    }
    MqttQueue queue{5, {}, 0, 0};
};

TEST_F(RelayMqttQueue, BeyondTheBoundTheOldestIsDroppedAndCounted) {
    put(1, 5);
    EXPECT_EQ(queue.dropped, 0U);
    put(6, 7);
    EXPECT_EQ(queue.dropped, 2U);
    EXPECT_EQ(send(), "3 4 5 6 7 ");
}

TEST_F(RelayMqttQueue, WhatIsOnItsWayStaysUntilItIsAcknowledged) {
    put(1, 3);
    EXPECT_EQ(send(), "1 2 3 ");
    EXPECT_EQ(send(), "");
    EXPECT_TRUE(mqtt_queue_acknowledged(queue, 2));
    EXPECT_FALSE(mqtt_queue_acknowledged(queue, 2));
    EXPECT_FALSE(mqtt_queue_acknowledged(queue, 4));
    mqtt_queue_lost(queue);
    EXPECT_FALSE(mqtt_queue_acknowledged(queue, 1));
    EXPECT_EQ(send(), "1 3 ");
}

TEST_F(RelayMqttQueue, WhatIsOnItsWayIsNotDropped) {
    put(1, 3);
    send();
    put(4, 8);
    EXPECT_EQ(queue.dropped, 3U);
    EXPECT_EQ(send(), "7 8 ");
    put(9, 9); // all others are on their way
    EXPECT_EQ(queue.dropped, 4U);
    EXPECT_EQ(queue.messages.size(), 5U);
    EXPECT_TRUE(mqtt_queue_acknowledged(queue, 1));
}

TEST_F(RelayMqttQueue, TwentyAtMostAreOnTheirWay) {
    queue.max = 100;
    put(1, 30);
    send();
    EXPECT_EQ(queue.in_flight, 20U);
    EXPECT_TRUE(mqtt_queue_acknowledged(queue, 5));
    EXPECT_EQ(send(), "21 ");
}

} // namespace

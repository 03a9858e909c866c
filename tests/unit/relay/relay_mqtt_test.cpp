// A device and the broker that the test plays.
#include "mqtt/mqtt_device.h"

#include "hub/hub.h"
#include "support/capture.h"
#include "support/mqtt_broker.h"
#include "support/relay_loop.h"
#include "unit/relay/suspend.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

namespace {

using Json = nlohmann::json;

struct RelayMqtt : testing::Test {
    RelayMqtt() {
        mosquitto_lib_init();
        loop.open(false);
        settings.host = "127.0.0.1";
        settings.port = static_cast<uint16_t>(broker.port);
        settings.id = "seven";
        settings.every_s = 0.001;
        settings.second = kShortSecond;
        settings.queue = 50;
        testing::internal::CaptureStdout();
    }
    ~RelayMqtt() override {
        mqtt_device_close(device);
        fflush(stdout);
        const std::string said = testing::internal::GetCapturedStdout();
        if (HasFailure()) { // it has told there why
            fputs(said.c_str(), stdout);
        }
    }

    void open() {
        mqtt_device_open(device, loop.base.get(), settings);
    }
    bool until(const std::function<bool()>& condition) {
        return loop.until([&] {
            broker.turn();
            return condition();
        });
    }
    bool connected() {
        return until([&] { return mqtt_connection_is_up(device.connection); });
    }
    // Fixes with these latitudes.
    void fix(int first, int last) {
        for (int i = first; i <= last; ++i) {
            GnssEpoch epoch;
            epoch.mode = GnssMode::k3d;
            epoch.latitude = i;
            epoch.longitude = 0;
            device.rate.published.reset(); // each is due
            mqtt_device_take(device, epoch);
        }
    }
    // Latitudes of the positions that the broker has got.
    std::vector<int> got() const {
        std::vector<int> latitudes;
        for (const std::string& one : broker.payloads("/position")) {
            latitudes.push_back(Json::parse(one).at("latitude"));
        }
        return latitudes;
    }
    Json status() const {
        const auto all = broker.payloads("/status");
        return all.empty() ? Json() : Json::parse(all.back());
    }
    static std::vector<int> range(int first, int last) {
        std::vector<int> all;
        for (int i = first; i <= last; ++i) {
            all.push_back(i);
        }
        return all;
    }
    bool all_acknowledged() {
        return until([&] { return device.queue.messages.empty() && device.status_number == 0; });
    }

    RelayLoop loop;
    MqttBroker broker;
    MqttSettings settings;
    MqttDevice device;
};

TEST_F(RelayMqtt, ConnectsWithAWillAndPublishesWhatTheBrokerKeeps) {
    settings.topic = "fleet/north";
    settings.user = "me";
    settings.password = "secret";
    settings.keepalive_s = 300;
    open();
    ASSERT_TRUE(connected());
    fix(1, 1);
    ASSERT_TRUE(all_acknowledged());
    using namespace std::string_literals;
    EXPECT_EQ(broker.greeting, "\0\4MQTT\4\xee\x01\x2c\0\5seven\0\x18"
                               "fleet/north/seven/status\0\x13{\"state\":\"offline\"}\0\2me\0\6secret"s);
    ASSERT_EQ(broker.messages.size(), 2U);
    EXPECT_EQ(broker.messages[0].topic, "fleet/north/seven/status");
    EXPECT_EQ(broker.messages[1].topic, "fleet/north/seven/position");
    for (const MqttBrokerMessage& one : broker.messages) {
        EXPECT_EQ(one.qos, 1);
        EXPECT_TRUE(one.retain);
    }
    EXPECT_EQ(status().at("state"), "online");
    EXPECT_EQ(hub_counters().published_mqtt, 1U);
}

TEST_F(RelayMqtt, NothingIsLostUpToTheBoundWhileTheBrokerIsAway) {
    open();
    fix(1, 50);
    EXPECT_EQ(hub_counters().dropped_mqtt, 0U);
    ASSERT_TRUE(connected());
    ASSERT_TRUE(all_acknowledged());
    EXPECT_EQ(got(), range(1, 50));
    EXPECT_EQ(device.published, 50U);
}

TEST_F(RelayMqtt, BeyondTheBoundTheOldestIsDroppedCountedAndTold) {
    open();
    fix(1, 57);
    ASSERT_TRUE(connected());
    ASSERT_TRUE(all_acknowledged());
    EXPECT_EQ(got(), range(8, 57));
    EXPECT_EQ(hub_counters().dropped_mqtt, 7U);
    EXPECT_EQ(status().at("dropped_positions"), 7);
    EXPECT_EQ(status().at("queued"), 50);
}

TEST_F(RelayMqtt, WhatIsNotAcknowledgedIsSentAgainInOrder) {
    broker.acknowledges = false;
    open();
    ASSERT_TRUE(connected());
    fix(1, 30);
    ASSERT_TRUE(until([&] { return got().size() == 20; }));
    loop.turn_for(2 * kShortSecond);
    broker.turn();
    EXPECT_EQ(got().size(), 20U); // no more are on their way
    broker.hang_up();
    ASSERT_TRUE(until([&] { return !mqtt_connection_is_up(device.connection); }));
    broker.messages.clear();
    broker.acknowledges = true;
    ASSERT_TRUE(connected());
    ASSERT_TRUE(all_acknowledged());
    EXPECT_EQ(got(), range(1, 30));
}

TEST_F(RelayMqtt, ABrokerThatAcknowledgesNothingIsLeft) {
    broker.acknowledges = false;
    open();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(until([&] { return broker.connections == 2; }));
    EXPECT_EQ(broker.payloads("/status").size(), 1U);
    EXPECT_EQ(device.connection.told, "it acknowledges nothing for 60 s");
}

TEST_F(RelayMqtt, TheStateIsToldWhenPositioningComesAndEachMinute) {
    open();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(all_acknowledged());
    EXPECT_EQ(status().at("positioning"), false);
    EXPECT_EQ(status().at("daemon"), false);
    loop.start_daemon();
    positioning_want(1);
    ASSERT_TRUE(until([&] { return status().value("positioning", false); }));
    EXPECT_EQ(status().at("daemon"), true);
    const size_t told = broker.payloads("/status").size();
    const auto began = std::chrono::steady_clock::now();
    ASSERT_TRUE(until([&] { return broker.payloads("/status").size() > told; }));
    EXPECT_GE(std::chrono::steady_clock::now() - began, 50 * kShortSecond);
}

TEST_F(RelayMqtt, TheAgeOfAFixGoesOnWhileTheSystemSleeps) {
    open();
    ASSERT_TRUE(connected());
    fix(1, 1);
    slept_s = 3600;
    ASSERT_TRUE(until([&] { return status().at("fix_age").is_number(); }));
    slept_s = 0;
    EXPECT_GE(status().at("fix_age"), 3600);
}

TEST_F(RelayMqtt, WhoSaysNothingIsLeftAfterTwentySeconds) {
    broker.consent = -1;
    open();
    const auto began = std::chrono::steady_clock::now();
    ASSERT_TRUE(until([&] { return broker.connections == 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - began, 19 * kShortSecond);
    EXPECT_EQ(device.connection.told, "no answer within 20 s");
}

TEST_F(RelayMqtt, WhoRefusesIsAskedAgainAndTheReasonIsToldOnce) {
    broker.consent = 5;
    open();
    ASSERT_TRUE(until([&] { return broker.connections == 3; }));
    fflush(stdout);
    const std::string log = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    EXPECT_EQ(log, "tavor-relay: MQTT broker 127.0.0.1: Connection Refused: not authorised.\n");
    broker.consent = 0;
    EXPECT_TRUE(connected());
}

TEST_F(RelayMqtt, TheWaitForTheNextAttemptDoublesUpToAMinute) {
    broker.hang_up();
    settings.port = 1; // nobody is there
    settings.second = std::chrono::milliseconds(1);
    open();
    ASSERT_TRUE(loop.until([&] { return device.connection.attempts == 8; }));
    EXPECT_EQ(device.connection.told, "Connection refused");
    ASSERT_TRUE(loop.until([&] { return device.connection.wait == std::chrono::milliseconds(60); }));
}

TEST_F(RelayMqtt, NobodyThereEndsAnAttemptWithTlsAtOnce) {
    settings.port = 1;
    settings.ca = "/"; // a directory without authorities
    open();
    ASSERT_TRUE(loop.until([&] { return device.connection.attempts == 2; }));
    EXPECT_EQ(device.connection.told, "no connection could be made");
}

TEST_F(RelayMqtt, AUserThatIsNoTextIsToldAsSuch) {
    settings.user = "\xff";
    open();
    ASSERT_TRUE(loop.until([&] { return !device.connection.told.empty(); }));
    EXPECT_EQ(device.connection.told, mosquitto_strerror(MOSQ_ERR_MALFORMED_UTF8));
}

TEST_F(RelayMqtt, GarbageIsNoBroker) {
    broker.consent = -1;
    open();
    for (const std::string& bytes : {std::string("SSH-2.0-OpenSSH\r\n"), std::string("\x20\x02\x00\x09", 4),
                                     std::string("\x20\x00", 2), std::string("\xff\xff\xff\xff\xff\xff", 6),
                                     std::string("\x82\x02\x00\x01", 4), std::string(1000, '\0')}) {
        const int before = broker.connections;
        ASSERT_TRUE(until([&] { return broker.connections > before && !broker.greeting.empty(); }));
        broker.greeting.clear();
        ASSERT_TRUE(broker.send(bytes));
        ASSERT_TRUE(until([&] { return !broker.connected; })) << bytes;
        EXPECT_FALSE(device.connection.up);
    }
    broker.consent = 0;
    EXPECT_TRUE(connected());
}

TEST_F(RelayMqtt, AnEndlessPacketIsCutOff) {
    open();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(all_acknowledged());
    ASSERT_TRUE(broker.send(std::string("\x30\xff\xff\xff\x7f\x00\x01x", 8))); // a message of 256 MiB
    size_t sent = 0;
    const std::string more(1024, 'x');
    ASSERT_TRUE(until([&] {
        sent += broker.send(more) ? more.size() : 0;
        return !mqtt_connection_is_up(device.connection);
    }));
    EXPECT_LT(sent, 512U * 1024); // with what the kernel's buffers took
    EXPECT_EQ(device.connection.told, "it sends more than answers");
}

// 85 bytes are the longest record of an acknowledgement: TLS 1.2, CBC and SHA-384.
TEST_F(RelayMqtt, ABrokerWhoseAnswersAreLongRecordsOfTlsIsKept) {
    settings.second = std::chrono::minutes(1); // so only messages are answered
    open();
    ASSERT_TRUE(connected());
    device.connection.expected -= 61440; // of what a greeting may take: else it took 3,200 answers
    const std::string rest = std::string("\x30\x4f\x00\x01x", 5) + std::string(76, 'x');
    for (int sent = 0; sent < 400; sent += 20) {
        fix(1, 20);
        ASSERT_TRUE(until([&] { return device.queue.messages.empty() || !device.connection.up; }));
        ASSERT_EQ(device.connection.told, "connected") << "behind " << sent << " positions";
        for (int answer = 0; answer < 20; ++answer) {
            ASSERT_TRUE(broker.send(rest));
        }
    }
    EXPECT_EQ(broker.connections, 1);
}

TEST_F(RelayMqtt, MessagesOfTheBrokerAreIgnored) {
    open();
    ASSERT_TRUE(connected());
    ASSERT_TRUE(broker.send(std::string("\x30\x08\x00\x05seven!", 10)));
    ASSERT_TRUE(broker.send(std::string("\x40\x02\x7f\xff", 4))); // acknowledges what was never sent
    fix(1, 3);
    ASSERT_TRUE(all_acknowledged());
    EXPECT_EQ(device.published, 3U);
    EXPECT_EQ(broker.connections, 1);
    EXPECT_EQ(broker.count(0x82), 0U); // nothing is subscribed to
    EXPECT_TRUE(loop.daemon == nullptr);
}

TEST_F(RelayMqtt, AnswersByteByByteWillDo) {
    broker.consent = -1;
    open();
    ASSERT_TRUE(until([&] { return !broker.greeting.empty(); }));
    for (const char byte : std::string("\x20\x02\x00\x00", 4)) {
        ASSERT_TRUE(broker.send(std::string(1, byte)));
        loop.turn_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(connected());
}

TEST_F(RelayMqtt, ANameIsLookedUpInTheHostsFileToo) {
    settings.host = "localhost";
    open();
    EXPECT_TRUE(connected());
}

TEST_F(RelayMqtt, AnEndWhileANameIsLookedUpLeavesNothing) {
    settings.host = "broker.invalid";
    open();
    event_base_loop(loop.base.get(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
    EXPECT_TRUE(device.connection.resolving);
    mqtt_device_close(device);
    loop.turn_for(kShortSecond);
}

} // namespace

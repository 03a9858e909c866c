#include "gpsd/gpsd_command.h"

#include <gtest/gtest.h>

namespace {

TEST(RelayGpsdCommand, EndsWithASemicolonOrALineEnd) {
    std::string input = "?VERSION;?DEVICES\r\n?POLL;\n?WATCH={\"enable\":tr";
    EXPECT_EQ(gpsd_command_next(input)->name, "?VERSION");
    EXPECT_EQ(gpsd_command_next(input)->name, "?DEVICES");
    EXPECT_EQ(gpsd_command_next(input)->name, "?POLL");
    EXPECT_FALSE(gpsd_command_next(input));
    input += "ue};";
    const auto watch = gpsd_command_next(input);
    ASSERT_TRUE(watch);
    EXPECT_EQ(watch->name, "?WATCH");
    EXPECT_EQ(watch->argument, "{\"enable\":true}");
    EXPECT_EQ(input, "");
}

TEST(RelayGpsdCommand, ASemicolonInAStringIsNoEnd) {
    std::string input = R"(?WATCH={"device":"a;\"b;"};?VERSION;)";
    EXPECT_EQ(gpsd_command_next(input)->argument, R"({"device":"a;\"b;"})");
    EXPECT_EQ(gpsd_command_next(input)->name, "?VERSION");
}

TEST(RelayGpsdCommand, WhatIsNoRequestHasNoName) {
    std::string input = "GET / HTTP/1.1\r\n?VERSION;";
    EXPECT_EQ(gpsd_command_next(input)->name, "");
    EXPECT_EQ(gpsd_command_next(input)->name, "?VERSION");
}

TEST(RelayGpsdCommand, AWatchIsEnabledUnlessItSaysOtherwise) {
    GpsdWatch watch;
    EXPECT_EQ(gpsd_command_watch(watch, R"({"json":true,"raw":1,"pps":true})"), "");
    EXPECT_TRUE(watch.enable && watch.json && watch.pps);
    EXPECT_EQ(watch.raw, 1);
    EXPECT_FALSE(watch.nmea);
    EXPECT_EQ(gpsd_command_watch(watch, R"({"nmea":1})"), "");
    EXPECT_TRUE(watch.json && watch.nmea);
    EXPECT_EQ(gpsd_command_watch(watch, std::nullopt), ""); // a question only
    EXPECT_TRUE(watch.enable);
    EXPECT_EQ(gpsd_command_watch(watch, R"({"enable":false})"), "");
    EXPECT_FALSE(watch.enable || watch.json || watch.nmea || watch.raw != 0);
}

TEST(RelayGpsdCommand, ADeviceThatThereIsNotCantBeWatched) {
    GpsdWatch watch;
    EXPECT_EQ(gpsd_command_watch(watch, R"({"json":true,"device":"/dev/ttyS0"})"),
              "No such device as /dev/ttyS0");
    EXPECT_FALSE(watch.enable);
    EXPECT_EQ(gpsd_command_watch(watch, R"({"device":1})").substr(0, 13), "Invalid WATCH");
    EXPECT_EQ(gpsd_command_watch(watch, R"({"json":true,"device":"tavor"})"), "");
    EXPECT_TRUE(watch.json && watch.device);
    EXPECT_EQ(gpsd_command_watch(watch, R"({"enable":false,"device":"/dev/ttyS0"})"), "");
    EXPECT_FALSE(watch.enable || watch.device);
}

TEST(RelayGpsdCommand, OfAKeyThatComesTwiceTheLastOneCounts) {
    GpsdWatch watch;
    EXPECT_EQ(gpsd_command_watch(watch, R"({"json":true,"unknown":{"a":[1]},"json":false})"), "");
    EXPECT_TRUE(watch.enable);
    EXPECT_FALSE(watch.json);
}

TEST(RelayGpsdCommand, AWrongWatchChangesNothing) {
    GpsdWatch watch;
    for (const std::string wrong : {"", "1", "[]", "{", R"({"json":"yes"})", R"({"raw":3})", R"({"raw":-1})",
                                    R"({"enable":null})", R"({"json":true,"nmea":{}})"}) {
        EXPECT_EQ(gpsd_command_watch(watch, wrong).substr(0, 13), "Invalid WATCH") << wrong;
        EXPECT_FALSE(watch.enable || watch.json) << wrong;
    }
}

} // namespace

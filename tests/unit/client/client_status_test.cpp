// What the log tells of the daemon's state, and how the state is shown.
#include "client/status_log.h"
#include "client/status_view.h"

#include "support/capture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;
using Lines = std::vector<std::string>;

const std::string kHandle = "[LOCSERV] INF: location_service_message_handle:";
const std::string kStamp = "2024-05-01 12:00:00.123 [I][   1.234] ";

// The state after these lines, one second apart from second 100 on.
LogState state_after(const Lines& lines) {
    LogState state;
    double at = 100;
    for (const std::string& line : lines) {
        status_log_line(state, line, at++);
    }
    return state;
}

// A daemon whose state is known in full.
Status known() {
    Status status;
    status.place.socket = "/x/socket";
    status.daemon.running = true;
    status.daemon.reachable = true;
    status.daemon.pid = 42;
    status.daemon.version = "1.2.3";
    status.positioning = true;
    status.power = true;
    status.power_line = 17;
    status.sentence_age_s = 0.42;
    status.fix = Fix{};
    status.fix->quality = 1;
    status.fix->satellites = 8;
    status.fix_age_s = 1.2;
    status.outlet = Outlet::kTcp;
    status.assistance = {{"XOD_BDS_3.DAT", "BeiDou", 30312, 61, 11, {}}};
    status.downloads = false;
    status.log = "journal";
    return status;
}

std::string row_of(const std::string& text, const std::string& label) {
    for (const std::string& line : lines_of(text)) {
        if (line.rfind(label, 0) == 0) {
            return line.substr(14);
        }
    }
    return "no such row";
}

} // namespace

TEST(StatusLog, KnowsNothingBeforeALineThatTells) {
    const LogState state = state_after({"[LOCSERV] INF: [binary data]3", "noise", kHandle + "x", ""});
    EXPECT_FALSE(state.positioning || state.outlet || state.sentence);
    EXPECT_FALSE(status_log_downloads(state));
}

TEST(StatusLog, StartAndStopTellPositioningAndADownloadEndsIt) {
    EXPECT_EQ(state_after({kHandle + "0"}).positioning, true);
    EXPECT_EQ(state_after({kHandle + "0", kHandle + "1"}).positioning, false);
    EXPECT_EQ(state_after({kHandle + "0", kHandle + "2"}).positioning, false);
    const LogState begun = state_after({kHandle + "0", "[LOCSERV] INF: location_service_task_main"});
    EXPECT_EQ(begun.positioning, false) << "a daemon that has just started";
    EXPECT_EQ(begun.outlet, Outlet::kOff);
}

TEST(StatusLog, SentencesAreCountedButNotTheDaemonsOwnLineBehindAStart) {
    const LogState banner = state_after({kHandle + "0", kHandle + "11"});
    EXPECT_FALSE(banner.sentence);
    EXPECT_EQ(banner.sentences, 0U);
    const LogState state =
        state_after({kHandle + "0", kHandle + "11", kHandle + "11", kHandle + "12", "noise"});
    EXPECT_EQ(state.sentence, 103.0);
    EXPECT_EQ(state.sentences, 2U);
}

TEST(StatusLog, LastChoiceOfTheOutletCounts) {
    EXPECT_EQ(state_after({kHandle + "5"}).outlet, Outlet::kFile);
    EXPECT_EQ(state_after({kHandle + "5", kHandle + "6"}).outlet, Outlet::kSerial);
    EXPECT_EQ(state_after({kHandle + "6", kHandle + "15"}).outlet, Outlet::kTcp);
    EXPECT_EQ(state_after({kHandle + "15", kHandle + "4"}).outlet, Outlet::kOff);
}

TEST(StatusLog, DownloadRunsFromItsStartToItsEndAlsoBehindAnotherOne) {
    const std::string start = kStamp + "========== Download start ========";
    const std::string end = kStamp + "========== Download Finish ========";
    EXPECT_TRUE(status_log_downloads(state_after({start})));
    EXPECT_FALSE(status_log_downloads(state_after({start, end})));
    const LogState second = state_after({start, end, start, kStamp + "Please reboot chip again:"});
    EXPECT_TRUE(status_log_downloads(second));
    EXPECT_EQ(second.download.phase, DownloadPhase::kHandshake);
    EXPECT_FALSE(status_log_downloads(state_after({start, "[LOCSERV] INF: location_service_task_main"})));
}

TEST(StatusView, KnownStateIsShownInARowEach) {
    const std::string text = status_view_text(known());
    EXPECT_EQ(row_of(text, "daemon"), "running, version 1.2.3, process 42");
    EXPECT_EQ(row_of(text, "positioning"), "on");
    EXPECT_EQ(row_of(text, "chip power"), "on (line 17)");
    EXPECT_EQ(row_of(text, "chip  "), "talks, last sentence 0.4 s ago");
    EXPECT_EQ(row_of(text, "fix"), "autonomous, 8 satellites, 1.2 s old");
    EXPECT_EQ(row_of(text, "debug outlet"), "tcp");
    EXPECT_EQ(row_of(text, "assistance"), "XOD_BDS_3.DAT, BeiDou: 61 h left, 30312 bytes");
    EXPECT_EQ(row_of(text, "download"), "not running");
    EXPECT_EQ(row_of(text, "log"), "the journal of tavor.service");
}

TEST(StatusView, ARelayIsShownWithWhatItTells) {
    Status status = known();
    EXPECT_EQ(row_of(status_view_text(status), "relay"), "no such row");
    EXPECT_TRUE(Json::parse(status_view_json(status)).at("relay").is_null());
    status.relay = RelayStatus{};
    status.relay->socket = "/r";
    status.relay->version = "1.3";
    status.relay->local_consumers = 2;
    status.relay->gpsd_consumers = 1;
    status.relay->dropped = 5;
    status.relay->let_go = 1;
    status.relay->daemon_restarts = 3;
    EXPECT_EQ(row_of(status_view_text(status), "relay"),
              "answers, version 1.3, consumers: 2 local, 1 of gpsd's protocol; 5 dropped, "
              "1 let go, 3 restarts of the daemon");
    EXPECT_EQ(Json::parse(status_view_json(status)).at("relay"),
              (Json{{"socket", "/r"},
                    {"answers", true},
                    {"version", "1.3"},
                    {"consumers", {{"local", 2}, {"gpsd", 1}}},
                    {"dropped", 5},
                    {"letGo", 1},
                    {"daemonRestarts", 3}}));
    status.relay->why = "it does not answer\x1b";
    EXPECT_EQ(row_of(status_view_text(status), "relay").find('\x1b'), std::string::npos);
    EXPECT_EQ(Json::parse(status_view_json(status)).at("relay"),
              (Json{{"socket", "/r"}, {"answers", false}}));
}

TEST(StatusView, ContradictionsAreTold) {
    Status status = known();
    status.power = false;
    EXPECT_NE(row_of(status_view_text(status), "chip power").find("the chip has no power"),
              std::string::npos);
    status.sentence_age_s = 5.1;
    EXPECT_EQ(row_of(status_view_text(status), "chip  "), "silent, last sentence 5.1 s ago");
    status.positioning = false;
    EXPECT_EQ(row_of(status_view_text(status), "debug outlet"), "tcp, closed while positioning is off");
    status.daemon.reachable = false;
    EXPECT_NE(row_of(status_view_text(status), "daemon").find("restart it"), std::string::npos);
    status.daemon.running = false;
    status.power = true;
    EXPECT_NE(row_of(status_view_text(status), "chip power").find("without a daemon"), std::string::npos);
}

TEST(StatusView, WhatIsNotKnownSaysWhyAndIsNullInJson) {
    Status status;
    for (const char* key : {"daemon", "positioning", "power", "sentenceAge", "fix", "location", "outlet",
                            "assistance", "download", "log"}) {
        status.unknown[key] = std::string("why ") + key + "\x1b";
    }
    const std::string text = status_view_text(status);
    for (const char* label : {"daemon", "positioning", "chip power", "chip  ", "fix", "location file",
                              "debug outlet", "assistance", "download", "log"}) {
        EXPECT_EQ(row_of(text, label).rfind("unknown: why ", 0), 0U) << label;
    }
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    const Json json = Json::parse(status_view_json(status));
    EXPECT_EQ(json.at("type"), "status");
    EXPECT_TRUE(json.at("daemon").at("running").is_null());
    for (const char* key : {"positioning", "power", "talks", "sentenceAge", "fix", "location", "outlet",
                            "assistance", "download", "log"}) {
        EXPECT_TRUE(json.at(key).is_null()) << key;
    }
    EXPECT_EQ(json.at("unknown").at("fix"), "why fix\x1b");
}

TEST(StatusView, JsonHasTheValues) {
    const Json json = Json::parse(status_view_json(known()));
    EXPECT_EQ(json.at("daemon").at("version"), "1.2.3");
    EXPECT_EQ(json.at("talks"), true);
    EXPECT_EQ(json.at("sentenceAge"), 0.4);
    EXPECT_EQ(json.at("fix"), (Json{{"quality", 1}, {"satellites", 8}, {"age", 1.2}}));
    EXPECT_EQ(json.at("outlet"), "tcp");
    EXPECT_EQ(json.at("assistance").at(0).at("hoursLeft"), 61);
    EXPECT_TRUE(json.at("unknown").empty());
}

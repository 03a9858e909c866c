#include "metrics/metrics_report.h"

#include "gnss/gnss.h"
#include "hub/hub.h"
#include "system/boot_clock.h"
#include "upstream/positioning.h"
#include "upstream/upstream.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace {

struct ReportState {
    std::string daemon;
    double begun_s = 0; // Unix time
    std::optional<BootClock::time_point> sentence;
    std::optional<BootClock::time_point> fix;
};

ReportState state;

double count(uint64_t value) {
    return static_cast<double>(value);
}

// Ages rather than times: the clock of a device may be wrong until its first fix.
double age(const std::optional<BootClock::time_point>& since) {
    return since ? std::chrono::duration<double>(BootClock::now() - *since).count() : NAN;
}

double quality() {
    const std::optional<int>& told = gnss_latest().quality;
    return told ? static_cast<double>(*told) : NAN;
}

double satellites(bool used_only) {
    const GnssEpoch& epoch = gnss_latest();
    const auto& all = epoch.satellites;
    if (all.empty() && epoch.mode == GnssMode::kUnknown) {
        return NAN;
    }
    return static_cast<double>(
        std::count_if(all.begin(), all.end(), [&](const auto& one) { return one.used || !used_only; }));
}

// One sample. Those of one metric stand together; the first tells its type and help.
struct Row {
    std::string_view name;
    std::string_view type;
    std::string_view help; // without backslash and line end
    std::string_view labels;
    double (*value)();
};

constexpr std::string_view kGauge = "gauge";
constexpr std::string_view kCounter = "counter";

constexpr Row kRows[] = {
    {"process_start_time_seconds", kGauge, "Start of the relay, as Unix time.", "",
     [] { return state.begun_s; }},
    {"tavor_relay_build_info", kGauge, "The relay's version.", "version=\"" TAVOR_VERSION "\"",
     [] { return 1.0; }},
    {"tavor_relay_daemon_up", kGauge, "Whether the daemon is there.", "",
     [] { return upstream_connected() ? 1.0 : 0.0; }},
    {"tavor_relay_daemon_restarts_total", kCounter, "Daemons found after the first one.", "",
     [] { return count(hub_counters().daemon_restarts); }},
    {"tavor_relay_positioning", kGauge, "Whether positioning is on.", "",
     [] { return positioning_is_on() ? 1.0 : 0.0; }},
    {"tavor_relay_sentences_total", kCounter, "Sentences of the chip taken in.", "",
     [] { return count(hub_counters().sentences); }},
    {"tavor_relay_sentence_age_seconds", kGauge, "Since the latest sentence; NaN before the first.", "",
     [] { return age(state.sentence); }},
    {"tavor_relay_positions_total", kCounter, "Positions taken in.", "",
     [] { return count(hub_counters().positions); }},
    {"tavor_relay_fix_age_seconds", kGauge, "Since the latest epoch with a fix; NaN before the first.", "",
     [] { return age(state.fix); }},
    {"tavor_relay_fix_mode", kGauge, "Of the present epoch: 0 unknown, 1 no fix, 2 in 2D, 3 in 3D.", "",
     [] { return static_cast<double>(gnss_latest().mode); }},
    {"tavor_relay_fix_quality", kGauge, "As the GGA or GNS sentence of the present epoch tells it, or NaN.",
     "", [] { return quality(); }},
    {"tavor_relay_satellites", kGauge, "Satellites in view and of these used, at present, or NaN.",
     "state=\"visible\"", [] { return satellites(false); }},
    {"tavor_relay_satellites", kGauge, "", "state=\"used\"", [] { return satellites(true); }},
    {"tavor_relay_consumers", kGauge,
     "Clients that get sentences, positions or reports: of the local socket, and of gpsd's protocol.",
     "kind=\"local\"", [] { return count(hub_counters().local_consumers); }},
    {"tavor_relay_consumers", kGauge, "", "kind=\"gpsd\"",
     [] { return count(hub_counters().tcp_consumers); }},
    {"tavor_relay_dropped_total", kCounter,
     "Sentences, positions and reports lost: on their way to all, and by clients that did not read.",
     "reason=\"backlog\"", [] { return count(hub_counters().dropped_in); }},
    {"tavor_relay_dropped_total", kCounter, "", "reason=\"local_client\"",
     [] { return count(hub_counters().dropped_local); }},
    {"tavor_relay_dropped_total", kCounter, "", "reason=\"gpsd_client\"",
     [] { return count(hub_counters().dropped_tcp); }},
    {"tavor_relay_dropped_total", kCounter, "", "reason=\"mqtt_broker\"",
     [] { return count(hub_counters().dropped_mqtt); }},
    {"tavor_relay_mqtt_published_total", kCounter, "Positions that the MQTT broker has acknowledged.", "",
     [] { return count(hub_counters().published_mqtt); }},
    {"tavor_relay_clients_let_go_total", kCounter,
     "Clients let go: they read or asked nothing for too long, or made way for others.", "",
     [] { return count(hub_counters().let_go); }},
    {"tavor_relay_requests_total", kCounter, "Requests of local clients.", "",
     [] { return count(hub_counters().requests); }},
    {"tavor_relay_requests_failed_total", kCounter, "Of these: answered with failure.", "",
     [] { return count(hub_counters().requests_failed); }},
    {"tavor_relay_requests_refused_total", kCounter, "Of the failed ones: refused, without the right.", "",
     [] { return count(hub_counters().refused); }},
    {"tavor_relay_requests_ignored_total", kCounter,
     "Requests not heard: of local clients with too many open ones, and of clients beyond the bound.", "",
     [] { return count(hub_counters().ignored); }},
    {"tavor_relay_malformed_total", kCounter, "Datagrams and lines that mean nothing.", "",
     [] { return count(hub_counters().malformed); }},
};

void append_value(std::string& text, double value) {
    std::array<char, 32> number = {};
    snprintf(number.data(), number.size(), "%.15g", value);
    text += std::isnan(value) ? " NaN\n" : " " + std::string(number.data()) + "\n";
}

void append_head(std::string& text, std::string_view name, std::string_view type, std::string_view help) {
    text.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
    text.append(name).append(" ").append(type).append("\n");
}

void append_row(std::string& text, const Row& row) {
    if (!row.help.empty()) {
        append_head(text, row.name, row.type, row.help);
    }
    text += row.name;
    if (!row.labels.empty()) {
        text.append("{").append(row.labels).append("}");
    }
    append_value(text, row.value());
}

// With U+FFFD for each byte that is no UTF-8: a Prometheus refuses a whole page that holds one.
std::string as_utf8(const std::string& text) {
    using Json = nlohmann::json;
    return Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
}

// Text of a label: a path may hold any byte.
std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : as_utf8(text)) {
        const bool special = c == '\\' || c == '"' || c == '\n';
        out += special ? "\\" : "";
        out += c == '\n' ? 'n' : c;
    }
    return out;
}

} // namespace

void metrics_report_open(const std::string& daemon) {
    state = {};
    state.daemon = daemon;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    state.begun_s = static_cast<double>(std::chrono::floor<std::chrono::milliseconds>(now).count()) / 1000;
    hub_take([](const HubItem& item) {
        if (item.kind == HubKind::kSentence) {
            state.sentence = BootClock::now();
        }
    });
    gnss_take([](const GnssEpoch& epoch) {
        if (epoch.mode >= GnssMode::k2d) {
            state.fix = BootClock::now();
        }
    });
}

void metrics_report_close() {
    state = {};
}

std::string metrics_report() {
    std::string text;
    for (const Row& row : kRows) {
        append_row(text, row);
    }
    append_head(text, "tavor_relay_daemon_info", kGauge, "Where the daemon's socket is.");
    text += "tavor_relay_daemon_info{socket=\"" + escaped(state.daemon) + "\"} 1\n";
    return text;
}

#include "client/status_view.h"

#include "client/print.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

std::string row(const std::string& label, const std::string& value) {
    constexpr size_t kLabelWidth = 14;
    std::string line = label;
    line.resize(kLabelWidth, ' ');
    return line + value + "\n";
}

std::string why(const Status& status, const std::string& key) {
    const auto reason = status.unknown.find(key);
    return "unknown: " + (reason == status.unknown.end() ? "no source tells" : print_safe(reason->second));
}

// "0.4 s", "12 s", "3 h".
std::string age_text(double seconds) {
    constexpr double kMinuteS = 60, kHourS = 3600, kDayS = 86400;
    std::array<char, 32> text = {};
    if (seconds < 2 * kMinuteS) {
        snprintf(text.data(), text.size(), seconds < 10 ? "%.1f s" : "%.0f s", seconds);
    } else if (seconds < 2 * kHourS) {
        snprintf(text.data(), text.size(), "%.0f min", seconds / kMinuteS);
    } else {
        snprintf(text.data(), text.size(), seconds < 2 * kDayS ? "%.0f h" : "%.0f days",
                 seconds < 2 * kDayS ? seconds / kHourS : seconds / kDayS);
    }
    return text.data();
}

Utc utc_of(std::chrono::system_clock::time_point time) {
    return std::chrono::floor<std::chrono::milliseconds>(time);
}

std::string daemon_text(const Status& status) {
    const DaemonProbe& daemon = status.daemon;
    if (!daemon.running) {
        return why(status, "daemon");
    }
    if (!*daemon.running) {
        return "not running";
    }
    std::string text = "running";
    text += daemon.version.empty() ? ", version " + why(status, "version") : ", version " + daemon.version;
    text += daemon.pid > 0 ? ", process " + std::to_string(daemon.pid) : "";
    text += daemon.since ? ", since " + utc_iso(utc_of(*daemon.since)) : "";
    return text + (daemon.reachable ? ""
                                    : "; no socket of it at the path: it starts or ends, or the file was "
                                      "removed: restart it");
}

// Empty without one.
std::string relay_row(const Status& status) {
    if (!status.relay) {
        return "";
    }
    const RelayStatus& relay = *status.relay;
    if (!relay.why.empty()) {
        return row("relay", "silent: " + print_safe(relay.why) + " (" + print_safe(relay.socket) + ")");
    }
    return row("relay", "answers, version " + print_safe(relay.version) +
                            ", consumers: " + std::to_string(relay.local_consumers) + " local, " +
                            std::to_string(relay.gpsd_consumers) + " of gpsd's protocol; " +
                            std::to_string(relay.dropped) + " dropped, " + std::to_string(relay.let_go) +
                            " let go, " + std::to_string(relay.daemon_restarts) + " restarts of the daemon");
}

std::string power_text(const Status& status) {
    if (!status.power) {
        return why(status, "power");
    }
    const std::string line = " (line " + std::to_string(status.power_line) + ")";
    if (*status.power && status.daemon.running == false) {
        return "on" + line + ", without a daemon: the chip was left powered";
    }
    if (!*status.power && status.positioning == true) {
        return "off" + line + ": the chip has no power, see 'tavorctl check' and the log";
    }
    return (*status.power ? "on" : "off") + line;
}

std::string chip_text(const Status& status) {
    if (status.positioning == false) {
        return "off";
    }
    if (!status.sentence_age_s) {
        return why(status, "sentenceAge");
    }
    return std::string(status_talks(status) == true ? "talks" : "silent") + ", last sentence " +
           age_text(*status.sentence_age_s) + " ago";
}

std::string fix_text(const Status& status) {
    if (!status.fix) {
        return why(status, "fix");
    }
    std::string text = print_quality(status.fix->quality);
    text += status.fix->satellites ? ", " + std::to_string(*status.fix->satellites) + " satellites" : "";
    if (status.fix->quality == 0) {
        return text;
    }
    return text + (status.fix_age_s ? ", " + age_text(*status.fix_age_s) + " old"
                                    : ", age " + why(status, "fixAge"));
}

bool holds_position(const SavedLocation& saved) {
    return saved.position.latitude && saved.position.longitude;
}

std::string saved_text(const Status& status) {
    if (!status.saved) {
        return why(status, "location");
    }
    const std::string age = status.saved->age_s ? ", written " + age_text(*status.saved->age_s) + " ago" : "";
    return (holds_position(*status.saved) ? "a position" : "empty values") + age + " (" +
           print_safe(status.saved->path) + ")";
}

std::string outlet_text(const Status& status) {
    if (!status.outlet) {
        return why(status, "outlet");
    }
    const bool closed = *status.outlet != Outlet::kOff && status.positioning == false;
    return std::string(outlet_name(*status.outlet)) + (closed ? ", closed while positioning is off" : "");
}

std::string file_text(const AssistanceFile& file) {
    if (!file.size) {
        return file.name + ", " + file.content + ": missing";
    }
    const std::string hours =
        file.hours ? std::to_string(*file.hours) + " h left" : "hours left unknown: too short";
    return file.name + ", " + file.content + ": " + hours + ", " + std::to_string(*file.size) + " bytes";
}

std::string assistance_rows(const Status& status) {
    if (!status.assistance) {
        return row("assistance", why(status, "assistance"));
    }
    std::string rows;
    for (const AssistanceFile& file : *status.assistance) {
        rows += row(rows.empty() ? "assistance" : "", file_text(file));
    }
    return rows;
}

std::string download_text(const Status& status) {
    if (!status.downloads) {
        return why(status, "download");
    }
    return *status.downloads ? "running: " + status.download_phase : "not running";
}

std::string log_text(const Status& status) {
    if (status.log.empty()) {
        return why(status, "log");
    }
    return status.log == "journal" ? "the journal of tavor.service" : print_safe(status.log);
}

template <class Value> Json json_of(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json text_or_null(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json rounded(const std::optional<double>& seconds) {
    return seconds ? Json(std::round(*seconds * 10) / 10) : Json(nullptr);
}

Json daemon_json(const DaemonProbe& daemon) {
    Json object;
    object["running"] = json_of(daemon.running);
    object["reachable"] = daemon.reachable;
    object["version"] = text_or_null(daemon.version);
    object["pid"] = daemon.pid > 0 ? Json(daemon.pid) : Json(nullptr);
    object["program"] = text_or_null(daemon.program);
    object["since"] = daemon.since ? Json(utc_iso(utc_of(*daemon.since))) : Json(nullptr);
    return object;
}

Json relay_json(const Status& status) {
    if (!status.relay) {
        return nullptr;
    }
    const RelayStatus& relay = *status.relay;
    Json object = {{"socket", relay.socket}, {"answers", relay.why.empty()}};
    if (relay.why.empty()) {
        object["version"] = relay.version;
        object["consumers"] = {{"local", relay.local_consumers}, {"gpsd", relay.gpsd_consumers}};
        object["dropped"] = relay.dropped;
        object["letGo"] = relay.let_go;
        object["daemonRestarts"] = relay.daemon_restarts;
    }
    return object;
}

Json fix_json(const Status& status) {
    if (!status.fix) {
        return nullptr;
    }
    return {{"quality", json_of(status.fix->quality)},
            {"satellites", json_of(status.fix->satellites)},
            {"age", rounded(status.fix_age_s)}};
}

Json location_json(const Status& status) {
    if (!status.saved) {
        return nullptr;
    }
    return {{"path", status.saved->path},
            {"position", holds_position(*status.saved)},
            {"age", rounded(status.saved->age_s)}};
}

Json assistance_json(const Status& status) {
    if (!status.assistance) {
        return nullptr;
    }
    Json files = Json::array();
    for (const AssistanceFile& file : *status.assistance) {
        files.push_back({{"file", file.name},
                         {"content", file.content},
                         {"bytes", json_of(file.size)},
                         {"hoursLeft", json_of(file.hours)}});
    }
    return files;
}

} // namespace

std::string status_view_text(const Status& status) {
    return row("daemon", daemon_text(status)) + relay_row(status) +
           row("positioning",
               status.positioning ? (*status.positioning ? "on" : "off") : why(status, "positioning")) +
           row("chip power", power_text(status)) + row("chip", chip_text(status)) +
           row("fix", fix_text(status)) + row("location file", saved_text(status)) +
           row("debug outlet", outlet_text(status)) + assistance_rows(status) +
           row("download", download_text(status)) + row("socket", print_safe(status.place.socket)) +
           row("log", log_text(status));
}

std::string status_view_json(const Status& status) {
    Json object;
    object["type"] = "status";
    object["daemon"] = daemon_json(status.daemon);
    object["relay"] = relay_json(status);
    object["positioning"] = json_of(status.positioning);
    object["power"] = json_of(status.power);
    object["powerLine"] = status.power_line == kGpioNotConfigured ? Json(nullptr) : Json(status.power_line);
    object["talks"] = json_of(status_talks(status));
    object["sentenceAge"] = rounded(status.sentence_age_s);
    object["fix"] = fix_json(status);
    object["location"] = location_json(status);
    object["outlet"] = status.outlet ? Json(outlet_name(*status.outlet)) : Json(nullptr);
    object["assistance"] = assistance_json(status);
    object["download"] = json_of(status.downloads);
    object["downloadPhase"] = text_or_null(status.download_phase);
    object["socket"] = status.place.socket;
    object["log"] = text_or_null(status.log);
    object["unknown"] = Json::object();
    for (const auto& [key, reason] : status.unknown) {
        object["unknown"][key] = reason;
    }
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

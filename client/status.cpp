#include "client/status.h"

#include "client/log_source.h"
#include "client/status_view.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>

namespace {

constexpr double kTalksS = 5;
constexpr std::chrono::milliseconds kListenEnd{1600}; // since the beginning
constexpr std::chrono::milliseconds kLook{50};

constexpr char kNoFixSource[] =
    "sentences go to the daemon's one receiver; 'tavorctl position' asks for one and takes the output over";

double unix_now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The relay, where it knows of a daemon; null: others must tell.
const RelayStatus* status_relay(const Status& status) {
    return status.relay && status.relay->daemon_up ? &*status.relay : nullptr;
}

// Looks at what a log without times gets from now on, until a sentence comes. Returns whether one came.
bool listen(LogSource& source, LogState& state, int interrupt, Clock::time_point end) {
    const uint64_t before = state.sentences;
    while (state.sentences == before && Clock::now() < end) {
        pollfd wait = {interrupt, POLLIN, 0};
        if (poll(&wait, 1, static_cast<int>(kLook.count())) > 0) {
            break;
        }
        log_source_read(source, [&](std::string_view line) { status_log_line(state, line, unix_now()); });
    }
    return state.sentences != before;
}

// What the log told.
struct LogView {
    LogState state;
    bool timed = false; // its lines have times
};

// The journal holds the lines of the service only; another supervisor may write them to a file.
PastLog past_of(const Status& status, const std::string& file) {
    if (!file.empty()) {
        return log_past_file(file);
    }
    return status.place.usual
               ? log_past_journal(status.daemon.since)
               : PastLog{{}, false, "where a daemon at another place logs is not known: name it with --log"};
}

LogView read_log(Status& status, const Options& options, int interrupt, Clock::time_point begun) {
    LogView view;
    LogSource source;
    const std::string file = options.log.empty() ? daemon_files_log(status.daemon.pid) : options.log;
    const bool is_file = !file.empty();
    const bool follows = is_file && log_source_open_file(source, file); // before the past is read
    const PastLog past = past_of(status, file);
    if (past.whole) {
        status_log_begin(view.state);
    }
    for (const PastLine& line : past.lines) {
        status_log_line(view.state, line.text, line.at);
    }
    view.timed = !is_file;
    if (past.why.empty()) {
        status.log = is_file ? file : "journal";
    } else {
        status.unknown["log"] = past.why;
    }
    if (follows && !status_relay(status) && view.state.positioning.value_or(true) &&
        !status_log_downloads(view.state)) {
        listen(source, view.state, interrupt, begun + kListenEnd);
    }
    return view;
}

std::string log_reason(const Status& status) {
    const auto why = status.unknown.find("log");
    return why == status.unknown.end() ? "the log does not reach back to it" : why->second;
}

void decide_positioning(Status& status, const LogState& log) {
    if (const RelayStatus* relay = status_relay(status)) {
        status.positioning = relay->positioning;
        return;
    }
    status.positioning = log.positioning;
    if (!status.positioning && status.power == false) {
        status.positioning = false;
    }
    if (!status.positioning) {
        const std::string powered =
            status.power ? "the chip has power, for positioning or for a firmware download: " : "";
        status.unknown["positioning"] = powered + log_reason(status);
    }
}

void decide_sentence(Status& status, const LogView& log) {
    if (const RelayStatus* relay = status_relay(status)) {
        status.sentence_age_s = relay->sentence_age_s;
        if (!relay->sentence_age_s) {
            status.unknown["sentenceAge"] = "none has come since the relay's start";
        }
    } else if (log.state.sentence) {
        status.sentence_age_s = std::max(0.0, unix_now() - *log.state.sentence);
    } else if (status.positioning == false) {
        status.unknown["sentenceAge"] = "positioning is off";
    } else if (status.log.empty()) {
        status.unknown["sentenceAge"] = log_reason(status);
    } else {
        status.unknown["sentenceAge"] = log.timed
                                            ? "the log holds no sentence since the last start"
                                            : "none came while this tool looked, and the log has no times";
    }
}

void decide_outlet(Status& status, const LogState& log) {
    status.outlet = log.outlet;
    if (!status.outlet && status.daemon.pid > 0) {
        status.outlet = daemon_files_outlet(status.place, status.daemon.pid);
    }
    if (!status.outlet) {
        status.unknown["outlet"] = log_reason(status);
    }
}

void decide_download(Status& status, const LogState& log) {
    const bool known = log.positioning || log.download.begun;
    if (known) {
        status.downloads = status_log_downloads(log);
        status.download_phase = *status.downloads ? download_phase_name(log.download.phase) : "";
    } else if (status.power == false) {
        status.downloads = false; // it runs with the power on
    } else {
        status.unknown["download"] = log_reason(status);
    }
}

// As the relay tells it.
void take_fix(Status& status, const RelayStatus& relay) {
    if (!relay.quality) {
        status.unknown["fix"] = "the chip has told none within ten seconds";
        return;
    }
    status.fix = Fix{};
    status.fix->quality = relay.quality;
    if (relay.satellites_used > 0) { // the first epochs have no whole sky
        status.fix->satellites = relay.satellites_used;
    }
    status.fix_age_s = relay.quality > 0 ? relay.fix_age_s : std::nullopt;
    if (!status.fix_age_s) {
        status.unknown["fixAge"] = "the chip has none at present";
    }
}

void find_fix(Status& status) {
    if (status.positioning == false) {
        status.unknown["fix"] = "positioning is off";
        return;
    }
    if (const RelayStatus* relay = status_relay(status)) {
        return take_fix(status, *relay);
    }
    status.fix = daemon_files_fix(status.place);
    if (!status.fix) {
        status.unknown["fix"] = kNoFixSource;
        return;
    }
    status.fix_age_s = nmea_age(status.fix->dated, std::chrono::system_clock::now());
    if (!status.fix_age_s) {
        status.unknown["fixAge"] = "the chip tells no date, or one more than a day from this host's clock";
    }
}

// Nothing is on without a daemon, whatever an old log says.
void tell_absent(Status& status) {
    status.positioning = false;
    status.outlet = Outlet::kOff;
    status.downloads = false;
    status.unknown["sentenceAge"] = status.unknown["fix"] = "no daemon runs";
    status.unknown["version"] = "no daemon runs";
    status.unknown["log"] = "no daemon runs";
}

void tell_present(Status& status, const Session& session, Clock::time_point begun) {
    const LogView log = read_log(status, session.options, session.connection.interrupt, begun);
    decide_positioning(status, log.state);
    decide_sentence(status, log);
    decide_outlet(status, log.state);
    decide_download(status, log.state);
    find_fix(status);
}

// Power line, location file and assistance files.
void find_files(Status& status) {
    status.power_line = place_number(status.place, CONFIG_POWER_GPIO);
    std::string why;
    status.power = daemon_files_power(status.place, why);
    if (!status.power) {
        status.unknown["power"] = why;
    }
    status.saved = daemon_files_location(status.place);
    if (!status.saved) {
        status.unknown["location"] = errno == ENOENT ? "nothing has been saved since the daemon's start"
                                                     : "the file can't be read: " + place_failure(errno);
    }
    status.assistance = daemon_files_assistance(status.place);
    if (!status.assistance) {
        status.unknown["assistance"] = std::string("their directory can't be read: ") + strerror(errno);
    }
}

Status look(const Session& session) {
    const Clock::time_point begun = Clock::now();
    Status status;
    status.relay = relay_status_ask(session.options.socket);
    status.place = place_of(session.options.socket);
    status.daemon = daemon_probe(status.place);
    if (!status.daemon.running) {
        status.unknown["daemon"] = status.daemon.running_why;
    }
    if (status.daemon.version.empty()) {
        status.unknown["version"] = status.daemon.version_why;
    }
    if (status.place.hidden.empty()) {
        find_files(status);
    } else {
        status.unknown["power"] = status.unknown["location"] = status.unknown["assistance"] =
            status.place.hidden;
    }
    if (status.daemon.running.value_or(true)) {
        tell_present(status, session, begun);
    } else {
        tell_absent(status);
    }
    return status;
}

} // namespace

std::optional<bool> status_talks(const Status& status) {
    if (status.positioning == false) {
        return false;
    }
    return status.sentence_age_s ? std::optional(*status.sentence_age_s <= kTalksS) : std::nullopt;
}

int status_run(Session& session) {
    const Status status = look(session);
    session_emit(session, session.options.json ? status_view_json(status) : status_view_text(status));
    const int output = session_output_status(session);
    return output == kExitSuccess && status.daemon.running != true ? static_cast<int>(kExitNoDaemon) : output;
}

#include "client/monitor_state.h"

#include "client/options.h"
#include "client/print.h"
#include "sentence/sentence.h"

#include <algorithm>
#include <utility>

namespace {

constexpr size_t kLinesMax = 100;
constexpr size_t kInputMax = 347; // characters; the daemon takes no longer command
constexpr std::chrono::seconds kGstHolds{5};
constexpr double kLongestSilenceS = 60;
constexpr size_t kGnsPlace = 2, kGnsAltitude = 9, kGnsGeoid = 10;
constexpr size_t kGstMajor = 3, kGstMinor = 4, kGstOrientation = 5, kGstVertical = 8;

int64_t second_of(const Monitor& monitor, Clock::time_point now) {
    return std::chrono::duration_cast<std::chrono::seconds>(now - monitor.begin).count();
}

RateSlot& slot_of(Monitor& monitor, Clock::time_point now) {
    const int64_t second = std::max<int64_t>(second_of(monitor, now), 0);
    RateSlot& slot = monitor.slots.at(static_cast<size_t>(second) % monitor.slots.size());
    if (slot.second != second) {
        slot = {second, 0, 0, 0};
    }
    return slot;
}

void take_gst(Monitor& monitor, const Sentence& gst, Clock::time_point now) {
    monitor.gst = {sentence_number(gst.fields[kGstMajor]), sentence_number(gst.fields[kGstMinor]),
                   sentence_number(gst.fields[kGstOrientation]), sentence_number(gst.fields[kGstVertical])};
    monitor.gst_at = now;
}

// The daemon has a position block for GGA only.
void take_place(Monitor& monitor, const Sentence& gns) {
    const auto place = sentence_place(gns, kGnsPlace);
    if (!place) {
        return;
    }
    const auto altitude = sentence_signed(gns.fields[kGnsAltitude]);
    const auto geoid = sentence_signed(gns.fields[kGnsGeoid]);
    monitor.position = Position{};
    monitor.position->latitude = place->latitude;
    monitor.position->longitude = place->longitude;
    monitor.position->height = altitude && geoid ? std::optional(*altitude + *geoid) : std::nullopt;
}

void take_sentence(Monitor& monitor, const std::string& text, Clock::time_point now) {
    RateSlot& slot = slot_of(monitor, now);
    ++slot.sentences;
    slot.bytes += static_cast<uint32_t>(text.size());
    monitor.heard = now;
    sky_take(monitor.sky, text, now);
    const Sentence sentence = sentence_split(text);
    if (sentence.type == "GST") {
        take_gst(monitor, sentence, now);
    }
    if (nmea_take(monitor.fix, text) == SentenceKind::kFix && monitor.fix.quality.value_or(0) > 0) {
        ++slot.fixes;
        monitor.position_at = now;
        if (!monitor.fix.by_gga) {
            take_place(monitor, sentence);
        }
    }
}

// Two requests that mean the same with another text on the way.
struct KeyRow {
    int key;
    tavor_request_type request;
    const char* told;
};

constexpr KeyRow kKeys[] = {
    {'s', TAVOR_REQUEST_START, "asked to start positioning"},
    {'x', TAVOR_REQUEST_STOP, "asked to stop positioning"},
    {'v', TAVOR_REQUEST_SAVE_LOCATION, "asked to save the location"},
};

constexpr KeyRow kOutlets[] = {
    {'o', TAVOR_REQUEST_DEBUG_OFF, "asked to switch the debug outlet off"},
    {'f', TAVOR_REQUEST_DEBUG_FILE, "asked for the debug outlet to the file"},
    {'s', TAVOR_REQUEST_DEBUG_SERIAL, "asked for the debug outlet to the serial line"},
    {'t', TAVOR_REQUEST_DEBUG_TCP, "asked for the debug outlet to TCP"},
};

template <size_t Size> MonitorAction choose(Monitor& monitor, const KeyRow (&rows)[Size], int key) {
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [&](const KeyRow& candidate) { return candidate.key == key; });
    if (row == std::end(rows)) {
        return {};
    }
    monitor_line(monitor, row->told);
    if (row->request == TAVOR_REQUEST_START || row->request == TAVOR_REQUEST_STOP) {
        monitor.stopped = row->request == TAVOR_REQUEST_STOP;
    }
    return {false, row->request, ""};
}

MonitorAction send_input(Monitor& monitor) {
    const std::string body = std::exchange(monitor.input, "");
    monitor.mode = MonitorMode::kKeys;
    const std::string problem = body.empty() ? "" : options_check_body(body);
    if (body.empty() || !problem.empty()) {
        monitor_line(monitor, problem.empty() ? "nothing sent" : "not sent: " + problem);
        return {};
    }
    monitor_line(monitor, "sent: $PZUL" + body);
    return {false, TAVOR_REQUEST_COMMAND, body};
}

MonitorAction command_key(Monitor& monitor, int key) {
    if (key == kKeyEnter) {
        return send_input(monitor);
    }
    if (key == kKeyEscape) {
        monitor.input.clear();
        monitor.mode = MonitorMode::kKeys;
    } else if (key == kKeyBackspace && !monitor.input.empty()) {
        monitor.input.pop_back();
    } else if (key >= ' ' && key <= '~' && monitor.input.size() < kInputMax) {
        monitor.input += static_cast<char>(key);
    }
    return {};
}

} // namespace

void monitor_take(Monitor& monitor, const Record& record, Clock::time_point now) {
    if (record.kind == RecordKind::kNmea) {
        take_sentence(monitor, record.text, now);
    } else if (record.kind == RecordKind::kPosition) {
        monitor.position = record.position;
    } else {
        monitor.heard = record.kind == RecordKind::kChip ? now : monitor.heard;
        monitor_line(monitor, print_line(record));
    }
}

void monitor_hear(Monitor& monitor, Clock::time_point now) {
    monitor.listening = now;
    monitor.silence_s = kMonitorSilenceS;
}

bool monitor_breaks_silence(Monitor& monitor, Clock::time_point now) {
    if (monitor.stopped) {
        monitor.listening = now;
    }
    if (std::chrono::duration<double>(now - monitor.listening).count() < monitor.silence_s) {
        return false;
    }
    monitor.listening = now;
    monitor.silence_s = std::min(2 * monitor.silence_s, kLongestSilenceS);
    return true;
}

void monitor_line(Monitor& monitor, const std::string& text) {
    monitor.lines.push_back(text.substr(0, text.find('\n')));
    if (monitor.lines.size() > kLinesMax) {
        monitor.lines.pop_front();
    }
}

Rates monitor_rates(const Monitor& monitor, Clock::time_point now) {
    const int64_t present = second_of(monitor, now);
    const auto seconds = static_cast<double>(std::clamp<int64_t>(present, 1, kRateSeconds));
    Rates rates;
    for (const RateSlot& slot : monitor.slots) {
        if (slot.second >= 0 && slot.second < present &&
            present - slot.second <= static_cast<int64_t>(kRateSeconds)) {
            rates.fixes += slot.fixes / seconds;
            rates.sentences += slot.sentences / seconds;
            rates.bytes += slot.bytes / seconds;
        }
    }
    return rates;
}

Ellipse monitor_ellipse(const Monitor& monitor, Clock::time_point now) {
    if (monitor.gst_at && now - *monitor.gst_at <= kGstHolds) {
        return monitor.gst;
    }
    const Position block = monitor.position.value_or(Position{});
    return {block.majorAxis, block.minorAxis, block.orientation, block.verticalUncertainty};
}

MonitorAction monitor_key(Monitor& monitor, int key) {
    if (monitor.mode == MonitorMode::kCommand) {
        return command_key(monitor, key);
    }
    if (monitor.mode == MonitorMode::kOutlet) {
        monitor.mode = MonitorMode::kKeys;
        return choose(monitor, kOutlets, key);
    }
    if (key == 'q') {
        return {true, std::nullopt, ""};
    }
    if (key == ':' || key == 'o') {
        monitor.mode = key == ':' ? MonitorMode::kCommand : MonitorMode::kOutlet;
        return {};
    }
    return choose(monitor, kKeys, key);
}

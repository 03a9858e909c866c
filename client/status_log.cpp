#include "client/status_log.h"

#include <charconv>

namespace {

constexpr std::string_view kService = "[LOCSERV] INF: ";
constexpr std::string_view kHandle = "location_service_message_handle:";

// Numbers of the messages that the service handles.
constexpr int kStart = 0, kStop = 1, kDownload = 2;
constexpr int kDebugOff = 4, kDebugFile = 5, kDebugSerial = 6, kDebugTcp = 15;
constexpr int kSentence = 11, kChipAnswer = 12;

bool begins_with(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

void take_sentence(LogState& state, std::optional<double> at) {
    if (state.banner_due) {
        state.banner_due = false;
        return;
    }
    ++state.sentences;
    state.sentence = at ? at : state.sentence;
}

void take_message(LogState& state, int message, std::optional<double> at) {
    switch (message) {
    case kStart:
        state.positioning = true;
        state.banner_due = true;
        return;
    case kStop:
    case kDownload: // it ends with a chip that is switched off
        state.positioning = false;
        return;
    case kDebugOff:
        state.outlet = Outlet::kOff;
        return;
    case kDebugFile:
        state.outlet = Outlet::kFile;
        return;
    case kDebugSerial:
        state.outlet = Outlet::kSerial;
        return;
    case kDebugTcp:
        state.outlet = Outlet::kTcp;
        return;
    case kSentence:
        return take_sentence(state, at);
    case kChipAnswer:
        ++state.sentences;
        state.sentence = at ? at : state.sentence;
        return;
    default:
        return;
    }
}

} // namespace

std::string_view outlet_name(Outlet outlet) {
    constexpr std::string_view kNames[] = {"off", "file", "serial", "tcp"};
    return kNames[static_cast<size_t>(outlet)];
}

bool status_log_downloads(const LogState& state) {
    return state.download.begun && !download_log_ended(state.download);
}

void status_log_begin(LogState& state) {
    state = {};
    state.positioning = false;
    state.outlet = Outlet::kOff;
}

void status_log_line(LogState& state, std::string_view line, std::optional<double> at) {
    const auto no_size = [](const std::string&) { return std::optional<uint64_t>(); };
    if (!begins_with(line, kService)) {
        if (line.find("= Download start =") != std::string_view::npos) {
            state.download = {};
        }
        download_log_line(state.download, line, no_size);
        return;
    }
    line.remove_prefix(kService.size());
    if (begins_with(line, "location_service_task_main")) {
        return status_log_begin(state);
    }
    int message = -1;
    if (begins_with(line, kHandle) &&
        std::from_chars(line.data() + kHandle.size(), line.data() + line.size(), message).ec == std::errc()) {
        take_message(state, message, at);
    }
}

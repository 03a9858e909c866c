#include "client/assist_log.h"

#include "assist/xod_file.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr std::string_view kService = "[LOCSERV] ";
constexpr size_t kLevelSize = 5; // "ERR: "
constexpr size_t kCauseMax = 400;
constexpr size_t kEndedMax = 1000;

struct CauseRow {
    std::string_view begin; // after the level
    std::string_view advice;
};

constexpr std::string_view kStorage =
    "see that 'XOD file path=' is a directory with room that the service may write";
constexpr std::string_view kLibrary = "install libcurl4, 7.87 or later";

constexpr CauseRow kCauses[] = {
    {"[XOD]xod_download_http get etag fail",
     "the server has no such file for this identity: check 'XOD host=' and the "
     "identity; head.out in the service's /tmp holds its answer"},
    {"[XOD]xod_download_http MD5 check fail",
     "what came is not what the server has: look for a proxy on the way"},
    {"[XOD]xod_download_http open fail", kStorage},
    {"[XOD]xod_download_http replace fail", kStorage},
    {"[XOD]xod_download_http fail", "remove what lies at /tmp/head.out in the service's /tmp"},
    {"[XOD]xod_download_http get url fail", "shorten identity and host"},
    {"[XOD]xod_download_http curl_easy", kLibrary},
    {"[XOD]xod_curl", kLibrary},
};

struct StatusRow {
    int64_t status; // of libcurl
    std::string_view advice;
};

constexpr StatusRow kStatuses[] = {
    {3, "the address holds a blank: set 'XOD vendor=', 'XOD project=' and 'XOD device id='"},
    {6, "the host has no address: check 'XOD host=', network and name service"},
    {7, "nobody listens there: check 'XOD host=' and the network"},
    {23, "the file could not be written: make room, and look at 'XOD file path='"},
    {28, "too slow: look at the network"},
};

bool begins_with(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

// The number after the text, which is moved past the number.
std::optional<int64_t> number_after(std::string_view& text, std::string_view begin) {
    const size_t at = text.find(begin);
    int64_t value = 0;
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const char* const from = text.data() + at + begin.size();
    const auto result = std::from_chars(from, text.data() + text.size(), value);
    if (result.ec != std::errc()) {
        return std::nullopt;
    }
    text.remove_prefix(static_cast<size_t>(result.ptr - text.data()));
    return value;
}

void take_cause(AssistLog& log, std::string_view text) {
    constexpr std::string_view kTransfer = "[XOD]xod_download_http download fail";
    std::string_view rest = text;
    if (begins_with(text, kTransfer)) {
        const auto status = number_after(rest, ", status: ");
        const auto* row = std::find_if(std::begin(kStatuses), std::end(kStatuses),
                                       [&](const StatusRow& one) { return one.status == status; });
        log.cause =
            "the transfer failed" + (status ? ", status " + std::to_string(*status) + " of libcurl" : "");
        log.advice = row == std::end(kStatuses) ? "look at the network" : row->advice;
        return;
    }
    const auto* row = std::find_if(std::begin(kCauses), std::end(kCauses),
                                   [&](const CauseRow& one) { return begins_with(text, one.begin); });
    if (row != std::end(kCauses)) {
        log.cause = text.substr(text.find(']') + 1, kCauseMax);
        log.advice = row->advice;
    }
}

void take_end(AssistLog& log, std::string_view text) {
    const auto type = number_after(text, "_result:[");
    const auto index = number_after(text, ",");
    const auto result = number_after(text, "] ");
    if (!type || !index || !result || log.ended.size() == kEndedMax) {
        return;
    }
    std::array<char, kXodNameSize> name = {};
    xod_download_file_name(static_cast<uint32_t>(*type), static_cast<uint32_t>(*index), name.data());
    const bool verified = *result == 0;
    log.ended.push_back(
        {name.data(), verified, verified ? "" : log.cause, verified ? "" : log.advice, std::nullopt});
    log.cause.clear();
    log.advice.clear();
}

void take_event(AssistLog& log, std::string_view text) {
    if (begins_with(text, "[XOD]xod_download_handle_result:")) {
        take_end(log, text);
    } else if (const auto retry_ms = number_after(text, "start retry timer:")) {
        if (!log.ended.empty()) {
            log.ended.back().retry_ms = retry_ms;
        }
    } else if (const auto next_ms = number_after(text, "start next download timer:")) {
        log.next_ms = next_ms;
    } else if (text.find("already init") != std::string_view::npos) {
        log.waits = true;
    }
}

} // namespace

void assist_log_line(AssistLog& log, std::string_view line) {
    if (!begins_with(line, kService) || line.size() < kService.size() + kLevelSize) {
        return;
    }
    const std::string_view text = line.substr(kService.size() + kLevelSize);
    if (begins_with(line, "[LOCSERV] ERR: ")) {
        take_cause(log, text);
    } else if (begins_with(text, "[XOD]")) {
        take_event(log, text);
    }
}

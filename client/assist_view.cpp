#include "client/assist_view.h"

#include "client/print.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

Json text_or_null(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

} // namespace

std::string print_duration(double seconds) {
    constexpr double kMinuteS = 60, kHourS = 3600;
    if (seconds < 2 * kMinuteS) {
        return print_seconds(std::round(seconds)) + " s";
    }
    return seconds < 2 * kHourS ? print_seconds(std::round(seconds / kMinuteS)) + " min"
                                : print_seconds(std::round(seconds / kHourS)) + " h";
}

std::string print_assist_file(const DownloadedFile& file) {
    const std::string size = file.size ? ", " + std::to_string(*file.size) + " bytes" : "";
    return "assistance data downloaded: " + print_safe(file.name) + size +
           (file.verified ? ", verified" : "") + "\n";
}

std::string print_assist_failure(const DownloadedFile& file) {
    const std::string cause =
        file.cause.empty() ? "the log does not tell why" : "'" + print_safe(file.cause) + "'";
    const std::string advice = file.advice.empty() ? "" : "; " + print_safe(file.advice);
    const std::string retry =
        file.retry_ms ? "; it is tried again in " + print_duration(static_cast<double>(*file.retry_ms) / 1000)
                      : "; it is tried again with the next refresh";
    return print_safe(file.name) + " could not be downloaded: " + cause + advice + retry;
}

std::string print_assist_json(const DownloadedFile& file) {
    Json object;
    object["type"] = "assist-file";
    object["file"] = text_or_null(file.name);
    object["bytes"] = file.size ? Json(*file.size) : Json(nullptr);
    object["verified"] = file.verified;
    object["cause"] = text_or_null(file.cause);
    object["advice"] = text_or_null(file.advice);
    object["retry"] = file.retry_ms ? Json(static_cast<double>(*file.retry_ms) / 1000) : Json(nullptr);
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

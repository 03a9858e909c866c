#include "client/download_view.h"

#include "client/print.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kBarWidth = 24;
constexpr double kRateFromS = 1; // before that a rate means nothing
constexpr double kLongestLeftS = 99 * 60;

std::string dump(const Json& object) {
    return object.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

std::string clock_text(double seconds) {
    const auto whole = static_cast<long>(std::max(0.0, seconds));
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%ld:%02ld", whole / 60, whole % 60);
    return text.data();
}

std::string rate_text(double bytes_per_s) {
    std::array<char, 32> text = {};
    snprintf(text.data(), text.size(), "%.1f kB/s", bytes_per_s / 1000);
    return text.data();
}

// Nothing past the end is drawn, whatever the counts say.
std::string bar_text(uint64_t done, uint64_t total) {
    const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    const auto filled = static_cast<size_t>(share * kBarWidth);
    std::array<char, 16> percent = {};
    snprintf(percent.data(), percent.size(), "%3d %%", static_cast<int>(share * 100));
    return "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " + percent.data();
}

std::string base_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// Rate and time left, which need a while to mean something; nothing in a second pass, which counts no new
// bytes.
std::string speed_text(const DownloadProgress& progress, double step_s) {
    if (progress.done == 0 || progress.again > 0 || step_s < kRateFromS) {
        return "";
    }
    const double rate = static_cast<double>(progress.done) / step_s;
    std::string text = "  " + rate_text(rate);
    if (progress.total) {
        const double left_s =
            static_cast<double>(*progress.total - std::min(progress.done, *progress.total)) / rate;
        text += left_s <= kLongestLeftS ? "  " + clock_text(left_s) + " left" : "";
    }
    return text;
}

std::optional<double> write_rate(const DownloadSummary& summary) {
    const bool known = summary.bytes && summary.write_s.value_or(0) > 0;
    return known ? std::optional(static_cast<double>(*summary.bytes) / *summary.write_s) : std::nullopt;
}

double rounded(double value) {
    return std::round(value * 1000) / 1000;
}

} // namespace

std::string download_view_step(const DownloadProgress& progress) {
    if (progress.phase == DownloadPhase::kWaiting) {
        return "writing firmware";
    }
    std::string text(download_phase_name(progress.phase));
    if (progress.image > 0) {
        text += " image " + std::to_string(progress.image) + " of " + std::to_string(progress.images);
        if (progress.image <= progress.list.size()) {
            text += " (" + print_safe(base_name(progress.list[progress.image - 1].path)) + ")";
        }
    }
    if (progress.again > 0) {
        text +=
            ", second pass: " + std::to_string(progress.again) + (progress.again == 1 ? " block" : " blocks");
    }
    return text;
}

std::string download_view_bar(const DownloadProgress& progress, const DownloadTimes& times, size_t width) {
    std::string text = download_view_step(progress);
    if (progress.total && *progress.total > 0) {
        text += "  " + bar_text(progress.done, *progress.total);
    }
    text += speed_text(progress, times.step_s) + "  " + clock_text(times.all_s);
    return text.substr(0, width);
}

std::string download_view_json(const DownloadProgress& progress, const DownloadTimes& times) {
    Json object;
    object["type"] = "progress";
    object["phase"] = download_phase_name(progress.phase);
    object["image"] = progress.image > 0 ? Json(progress.image) : Json(nullptr);
    object["images"] = progress.images > 0 ? Json(progress.images) : Json(nullptr);
    object["done"] = progress.done;
    object["total"] = progress.total ? Json(*progress.total) : Json(nullptr);
    object["again"] = progress.again;
    object["elapsed"] = rounded(times.all_s);
    return dump(object);
}

std::string download_view_failure(const DownloadProgress& progress) {
    const std::string cause(download_log_cause(progress));
    std::string text = "'" + print_safe(cause) + "'";
    if (cause != progress.error) {
        text += " (" + std::to_string(progress.device_errors) + " times), then '" +
                print_safe(progress.error) + "'";
    }
    return text + "; " + std::string(download_advice(cause));
}

std::string download_view_failure_json(const DownloadProgress& progress) {
    Json object;
    object["type"] = "failure";
    object["error"] = download_log_cause(progress);
    object["advice"] = download_advice(download_log_cause(progress));
    return dump(object);
}

std::string download_view_summary(const DownloadSummary& summary) {
    std::string text = std::to_string(summary.images) + (summary.images == 1 ? " image" : " images");
    text += summary.bytes ? ", " + std::to_string(*summary.bytes) + " bytes" : "";
    std::array<char, 32> seconds = {};
    snprintf(seconds.data(), seconds.size(), " in %.1f s", summary.all_s);
    text += seconds.data();
    if (const auto rate = write_rate(summary)) {
        text += ", written at " + rate_text(*rate);
    }
    if (summary.flash) {
        std::array<char, 64> flash = {};
        snprintf(flash.data(), flash.size(), "; the flash is 0x%08llx+0x%llx",
                 static_cast<unsigned long long>(summary.flash->begin),
                 static_cast<unsigned long long>(summary.flash->size));
        text += flash.data();
    }
    return text + "\n";
}

std::string download_view_summary_json(const DownloadSummary& summary) {
    const auto rate = write_rate(summary);
    Json object;
    object["type"] = "summary";
    object["images"] = summary.images > 0 ? Json(summary.images) : Json(nullptr);
    object["bytes"] = summary.bytes ? Json(*summary.bytes) : Json(nullptr);
    object["seconds"] = rounded(summary.all_s);
    object["rate"] = rate ? Json(rounded(*rate)) : Json(nullptr);
    object["flashBegin"] = summary.flash ? Json(summary.flash->begin) : Json(nullptr);
    object["flashSize"] = summary.flash ? Json(summary.flash->size) : Json(nullptr);
    return dump(object);
}

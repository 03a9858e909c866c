#include "metrics/metrics_request.h"

#include <algorithm>

namespace {

constexpr std::string_view kVersion = "HTTP/1.";
constexpr std::string_view kPath = "/metrics";

bool is_version(std::string_view word) {
    return word.size() == kVersion.size() + 1 && word.starts_with(kVersion) && word.back() >= '0' &&
           word.back() <= '9';
}

// Of "METHOD TARGET VERSION".
MetricsAsked read_line(std::string_view line) {
    const size_t first = line.find(' ');
    const size_t second = line.rfind(' ');
    if (first == 0 || first == std::string_view::npos || second <= first + 1 ||
        !is_version(line.substr(second + 1))) {
        return MetricsAsked::kMalformed;
    }
    const std::string_view target = line.substr(first + 1, second - first - 1);
    if (target.substr(0, target.find('?')) != kPath) {
        return MetricsAsked::kNotFound;
    }
    return line.substr(0, first) == "GET" ? MetricsAsked::kMetrics : MetricsAsked::kNotAllowed;
}

} // namespace

MetricsAsked metrics_request_read(std::string_view head) {
    const size_t end = std::min(head.find("\n\r\n"), head.find("\n\n"));
    if (end == std::string_view::npos || end + 2 > kMetricsHeadMax) {
        return head.size() < kMetricsHeadMax ? MetricsAsked::kMore : MetricsAsked::kMalformed;
    }
    const std::string_view line = head.substr(0, head.find('\n'));
    return read_line(line.ends_with('\r') ? line.substr(0, line.size() - 1) : line);
}

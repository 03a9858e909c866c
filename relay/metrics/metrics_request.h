// The head of an HTTP request: pure. Every byte of it may be hostile.
#ifndef TAVOR_RELAY_METRICS_REQUEST_H
#define TAVOR_RELAY_METRICS_REQUEST_H

#include <string_view>

inline constexpr size_t kMetricsHeadMax = 4096; // bytes, the empty line included

enum class MetricsAsked {
    kMore, // the head has not come in full
    kMetrics,
    kNotFound,
    kNotAllowed, // another method than GET
    kMalformed   // also one that is too long
};

// What the bytes that have come so far ask for.
MetricsAsked metrics_request_read(std::string_view head);

#endif

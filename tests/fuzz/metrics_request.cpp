// Heads of HTTP requests: what has been decided stays so whatever follows, and the bound holds.
#include "metrics/metrics_request.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "metrics_request: %s\n", what);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string head(reinterpret_cast<const char*>(bytes), size);
    const MetricsAsked asked = metrics_request_read(head);
    require(asked != MetricsAsked::kMetrics || head.starts_with("GET /metrics"),
            "metrics for another request");
    require(asked != MetricsAsked::kMore || size < kMetricsHeadMax, "a head without an end");
    if (asked != MetricsAsked::kMore) {
        require(metrics_request_read(head + "\n\nGET / HTTP/1.1\n\n") == asked,
                "another answer for what follows");
        return 0;
    }
    head.resize(kMetricsHeadMax, 'x');
    require(metrics_request_read(head) != MetricsAsked::kMore, "a head without an end");
    return 0;
}

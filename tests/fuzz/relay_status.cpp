// Metrics of a relay: numbers stay in their bounds, and a whole text after any other is found.
#include "client/relay_status.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "relay_status: %s\n", what);
        abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    if (const auto status = relay_status_parse(text)) {
        require(std::isfinite(status->fix_age_s.value_or(0)), "an age without end");
        require(status->quality.value_or(0) >= 0 && status->quality.value_or(0) <= 9,
                "a quality that is none");
        require(status->satellites_used >= 0, "fewer satellites than none");
    }
    const auto whole = relay_status_parse(text + "\ntavor_relay_build_info{version=\"1\"} 1\n"
                                                 "tavor_relay_daemon_info{socket=\"/\"} 1\n");
    require(whole.has_value(), "a whole text that was not found");
    return 0;
}

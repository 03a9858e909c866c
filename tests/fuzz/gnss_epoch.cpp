// Sentences of the chip on their way to reports: every value that is told is a good one, and what is kept
// stays small.
#include "gnss/gnss_epoch.h"

#include "gpsd/gpsd_report.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace {

constexpr size_t kReportMax = 10240; // what readers of gpsd's protocol take

void require(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "gnss_epoch: %s\n", what);
        abort();
    }
}

void check(void* /*unused*/, const GnssEpoch& epoch) {
    const bool fix = epoch.mode == GnssMode::k2d || epoch.mode == GnssMode::k3d;
    require(fix == epoch.latitude.has_value(), "a fix without a position, or a position without a fix");
    require(std::fabs(epoch.latitude.value_or(0)) <= 90 && std::fabs(epoch.longitude.value_or(0)) <= 180,
            "a position that is not on Earth");
    require(std::isfinite(epoch.speed.value_or(0)) && std::isfinite(epoch.hdop.value_or(0)), "no number");
    for (const std::string& report : {gpsd_report_tpv(epoch), gpsd_report_sky(epoch)}) {
        require(report.size() <= kReportMax && nlohmann::json::accept(report), "a report that nobody reads");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string input(reinterpret_cast<const char*>(bytes), size);
    GnssReader reader;
    for (size_t at = 0; at < input.size();) {
        const size_t end = std::min(input.find('\n', at), input.size());
        // An exact copy, so that a sanitizer sees every read past it.
        const std::string sentence = input.substr(at, end - at);
        gnss_reader_take(reader, sentence, check, nullptr);
        require(reader.keys.size() <= 64 && reader.epoch.satellites.size() <= 90, "too much is kept");
        at = end + 1;
    }
    return 0;
}

#include "chip/chip_options.h"

#include "chip/chip_flash.h"

#include <cmath>

namespace {

constexpr uint32_t kMaxRateHz = 10;
constexpr uint32_t kMinFifoSize = 256; // holds the longest sentence
constexpr uint32_t kMaxFifoSize = 64U << 20;
constexpr uint32_t kMaxBusyPolls = 10000;
constexpr uint32_t kMaxFlashSize = 64U << 20;
constexpr uint32_t kMaxFlashId = 0xFFFFFF;
constexpr uint32_t kMaxBootWindowMs = 3600000;
constexpr double kMaxSpeed = 515.0; // m/s, where receivers stop by rule

bool within(double value, double low, double high) {
    return std::isfinite(value) && value >= low && value <= high;
}

std::string flash_error(const ChipOptions& options) {
    if (options.flash_size < kChipFlashBlock || options.flash_size > kMaxFlashSize ||
        options.flash_size % kChipFlashBlock != 0) {
        return "flash size is not within 4096 bytes to 64 MiB in steps of 4096";
    }
    if (options.flash_base % kChipFlashLargeBlock != 0 ||
        options.flash_base > UINT32_MAX - options.flash_size) {
        return "flash base is no multiple of 65536 or the flash ends above 32 bits";
    }
    if (options.flash_id > kMaxFlashId) {
        return "flash id has more than 3 bytes";
    }
    if (options.boot_window_ms > kMaxBootWindowMs) {
        return "boot window is more than an hour";
    }
    if (options.sleepy_polls > kMaxBusyPolls) {
        return "wake-up polls are more than 10000";
    }
    return "";
}

std::string motion_error(const ChipOptions& options) {
    if (!within(options.latitude, -90, 90)) {
        return "latitude is not within -90 to 90 degrees";
    }
    if (!within(options.longitude, -180, 180)) {
        return "longitude is not within -180 to 180 degrees";
    }
    if (!within(options.altitude_m, -500, 18000) || !within(options.geoid_m, -200, 200)) {
        return "altitude is not within -500 to 18000 m or geoid not within -200 to 200 m";
    }
    if (!within(options.speed_mps, 0, kMaxSpeed)) {
        return "speed is not within 0 to 515 m/s";
    }
    if (!within(options.course_deg, 0, 360) || !within(options.turn_deg_per_s, -90, 90)) {
        return "course is not within 0 to 360 degrees or turn not within -90 to 90 degrees a second";
    }
    return "";
}

} // namespace

uint64_t chip_utc_us(const ChipOptions& options, uint64_t now_us) {
    return options.utc_at_zero_us + now_us;
}

std::string chip_options_error(const ChipOptions& options) {
    if (options.rate_hz < 1 || options.rate_hz > kMaxRateHz) {
        return "rate is not within 1 to 10 Hz";
    }
    if (options.tx_fifo_size < kMinFifoSize || options.tx_fifo_size > kMaxFifoSize) {
        return "transmit buffer is not within 256 bytes to 64 MiB";
    }
    if (options.busy_polls > kMaxBusyPolls) {
        return "busy polls are more than 10000";
    }
    if (options.source == ChipSource::replay && options.replay.empty()) {
        return "the log to replay is empty";
    }
    const std::string error = flash_error(options);
    return error.empty() ? motion_error(options) : error;
}

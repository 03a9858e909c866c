// The model's own movement and the sentences that report it.
#ifndef TAVOR_BOARD_CHIP_TRAJECTORY_H
#define TAVOR_BOARD_CHIP_TRAJECTORY_H

#include "chip/chip_options.h"

#include <cstdint>
#include <string>
#include <vector>

struct ChipPosition {
    double latitude;  // degrees
    double longitude; // degrees
    double altitude_m;
    double course_deg; // 0 up to 360
};

// One moment that is reported.
struct ChipEpoch {
    uint64_t utc_us; // since 1970
    double seconds;  // of movement since the start position
    bool fix;
    bool with_sky; // satellites in view are reported once a second
};

ChipPosition chip_trajectory_position(const ChipOptions& options, double seconds);

// Appends the sentences of the epoch: RMC, GGA, GSA of each system, GSV of each system when asked for, with a
// fix also GST and EPE.
void chip_trajectory_epoch(const ChipOptions& options, const ChipEpoch& epoch,
                           std::vector<std::string>& sentences);

#endif

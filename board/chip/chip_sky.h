// The satellites: GSA and GSV sentences of five systems.
#ifndef TAVOR_BOARD_CHIP_SKY_H
#define TAVOR_BOARD_CHIP_SKY_H

#include <cstdint>
#include <string>
#include <vector>

// Satellites used for a fix.
uint32_t chip_sky_used();

// Appends one GSA sentence of each system.
void chip_sky_gsa(bool fix, std::vector<std::string>& sentences);

// Appends the GSV sentences of each system at this second; none in view before the fix. seed: of the signal
// strengths.
void chip_sky_gsv(bool fix, uint64_t second, uint32_t seed, std::vector<std::string>& sentences);

#endif

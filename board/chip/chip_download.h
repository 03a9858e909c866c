// Who has the chip: its normal firmware, the boot ROM or the download agent. After power-up the boot ROM
// listens for a moment; a frame of the download transport in it keeps the chip there, a frame of the
// multiplexer ends it at once. What the firmware does by itself begins with the power, so that a listening
// boot ROM delays nothing.
#ifndef TAVOR_BOARD_CHIP_DOWNLOAD_H
#define TAVOR_BOARD_CHIP_DOWNLOAD_H

#include <cstdint>

struct Chip;

enum class ChipMode : uint8_t {
    off,
    firmware,
    empty, // nothing in the flash starts: nobody answers
    boot_rom,
    agent,
    lost, // the power failed inside; the line must go low and high again
};

// The power line went low to high, or high to low.
void chip_download_power(Chip& chip, bool high, uint64_t now_us);

// A frame is about to come: decides who gets it.
void chip_download_notice(Chip& chip, const uint8_t* tx, uint32_t length, uint64_t now_us);

// A frame of the download transport, in the multiplexer's order of bits; rx holds length bytes, all zero at
// entry.
void chip_download_frame(Chip& chip, const uint8_t* tx, uint8_t* rx, uint32_t length, uint64_t now_us);

// Name of the mode.
const char* chip_download_mode_text(ChipMode mode);

#endif

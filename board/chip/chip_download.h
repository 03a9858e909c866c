// Who has the chip: its normal firmware, the boot ROM or the download agent. After power-up the boot ROM
// listens for a moment; a frame of the download transport in it keeps the chip there, a frame of the
// multiplexer ends it at once. What the firmware does by itself begins with the power, so that a listening
// boot ROM delays nothing. The frames of a download are answered here; chip.cpp switches the modes.
#ifndef TAVOR_BOARD_CHIP_DOWNLOAD_H
#define TAVOR_BOARD_CHIP_DOWNLOAD_H

#include "chip/chip_agent.h"
#include "chip/chip_boot_rom.h"
#include "chip/chip_options.h"
#include "chip/chip_spim.h"

#include <cstdint>

enum class ChipMode : uint8_t {
    off,
    firmware,
    empty, // nothing in the flash starts: nobody answers
    boot_rom,
    agent,
    lost, // the power failed inside; the line must go low and high again
};

// The parts of the chip that this works on.
struct ChipDownloadParts {
    ChipMode mode; // boot_rom or agent: who gets the frame's block
    const ChipOptions& options;
    ChipSpimParts spim;
    ChipBootRomParts boot_rom;
    ChipAgentParts agent;
};

// Whether the boot ROM or the agent has the chip.
bool chip_download_has_chip(ChipMode mode);

// Whether a frame of the host, in the multiplexer's order of bits, is one that a download begins with.
bool chip_download_begins(const ChipOptions& options, const uint8_t* tx, uint32_t length);

// A frame of the download transport, in the multiplexer's order of bits; rx holds length bytes, all zero at
// entry. Returns what becomes of the chip.
ChipLoaderEnd chip_download_frame(const ChipDownloadParts& chip, const uint8_t* tx, uint8_t* rx,
                                  uint32_t length, uint64_t now_us);

// Name of the mode.
const char* chip_download_mode_text(ChipMode mode);

#endif

// What the simulated chip is and does, chosen once when it is made.
#ifndef TAVOR_BOARD_CHIP_OPTIONS_H
#define TAVOR_BOARD_CHIP_OPTIONS_H

#include <cstdint>
#include <string>

enum class ChipSource : uint8_t {
    trajectory, // the model's own position, moving on a circle or a straight line
    replay,     // an NMEA log
    none,       // the chip sends nothing by itself
};

struct ChipOptions {
    ChipSource source = ChipSource::trajectory;
    // The log as it stands in its file. Bytes are sent as they are; only lines that begin with '#' are left
    // out. Each cold boot plays it from its beginning.
    std::string replay;
    bool loop = false;    // the replay starts again at its end
    uint32_t rate_hz = 1; // epochs a second, 1 to 10
    bool full_speed =
        false; // no pacing: the transmit buffer is filled again whenever it runs low, nothing is dropped
    uint64_t sentence_limit = 0; // sentences produced in all, then silence; 0: no limit

    uint32_t tx_fifo_size =
        65536;                 // bytes that wait for the host; a sentence that does not fit is dropped whole
    uint32_t rx_window = 4096; // bytes that the chip takes in one data phase
    uint32_t busy_polls = 0;   // status reads before a command or a data phase counts as done
    uint32_t seed = 1;         // of everything random

    bool flash_empty = false;         // no firmware in the flash at first
    bool boot_mirrored = false;       // the boot ROM reads bits in the other order than the multiplexer
    uint32_t flash_base = 0x08000000; // address
    uint32_t flash_size = 0x200000;   // bytes, whole blocks of 4096
    uint32_t flash_id = 0x15605A;     // manufacturer, type and capacity, from the lowest byte on
    uint32_t boot_window_ms = 500;    // how long the boot ROM listens from power-up on
    uint32_t sleepy_polls = 1;        // wake-up polls that find the download's slave asleep

    bool aiding_requests = false;          // ask the host for time and position after each cold boot
    bool orbit_requests = false;           // ask it for orbit data of all constellations, too
    uint32_t aiding_tolerance_s = 3;       // how far a reference time may be off the board's clock
    uint32_t time_to_first_fix_ms = 0;     // from cold boot; until then GGA has no position
    uint32_t assisted_first_fix_ms = 5000; // with time and GPS orbits from the host it comes as early as this
    uint64_t utc_at_zero_us =
        0; // UTC (microseconds since 1970) at the moment that the passed-in clock calls 0
    double latitude = 43.295130; // degrees, south negative
    double longitude = 5.365280; // degrees, west negative
    double altitude_m = 12.0;    // above the geoid
    double geoid_m = 49.8;       // geoid above the ellipsoid
    double speed_mps = 8.0;      // over ground
    double course_deg = 45.0;    // at the start
    double turn_deg_per_s = 0.5; // 0: straight on
};

// UTC in microseconds since 1970 at a moment of the passed-in clock.
uint64_t chip_utc_us(const ChipOptions& options, uint64_t now_us);

// Says what is wrong with the options in one line; empty when nothing is.
std::string chip_options_error(const ChipOptions& options);

#endif

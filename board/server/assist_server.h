// The assistance server of a board: hands out predicted orbits for the board's time over HTTP, on a port of
// 127.0.0.1.
#ifndef TAVOR_BOARD_ASSIST_SERVER_H
#define TAVOR_BOARD_ASSIST_SERVER_H

#include "chip/chip_orbit_file.h"
#include "interpose/board_clock.h"
#include "server/assist_fault.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

struct MHD_Daemon;

struct AssistServer {
    const BoardClock* clock = nullptr;
    uint32_t seed = 0;
    int listener = -1; // until assist_start
    uint16_t port = 0;
    MHD_Daemon* daemon = nullptr;

    std::mutex mutex; // guards all below
    std::condition_variable changed;
    std::array<uint64_t, kChipOrbitFiles> requests = {}; // for files, by kind
    uint64_t refused = 0;                                // unknown names, incomplete queries
    std::string last_url;                                // with its query
    AssistFaultState faults;
    bool closing = false;
};

// Listens; connections wait until assist_start. Returns what went wrong, else empty.
std::string assist_open(AssistServer& server, const BoardClock& clock, uint32_t seed);

// Serves on threads of its own. Returns what went wrong, else empty.
std::string assist_start(AssistServer& server);

// Ends every transfer and releases everything.
void assist_close(AssistServer& server);

// "127.0.0.1:PORT", empty when it does not listen.
std::string assist_address(const AssistServer& server);

// Starts, changes or ends a fault (assist_fault.h). Returns what is wrong with name or value, else empty.
std::string assist_fault(AssistServer& server, const std::string& name, const std::string& value);

// The kind of file that a name stands for, and the GPS hour that the file of this number starts with when now
// is the current one. False: the server has no such file.
bool assist_file_of(const std::string& name, uint32_t now_hour, ChipOrbitFile* file, uint32_t* start_hour);

// The MD5 sum as lower-case hexadecimal text.
std::string assist_md5(const std::string& content);

#endif

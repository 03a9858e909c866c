// Cuts an NMEA log into epochs.
#ifndef TAVOR_BOARD_CHIP_REPLAY_H
#define TAVOR_BOARD_CHIP_REPLAY_H

#include <cstddef>
#include <string>
#include <vector>

// Appends the lines of the next epoch, byte for byte with their line ends, and moves position past them. An
// epoch begins with a GGA or RMC sentence of another time than those before it; lines that begin with '#' are
// left out. Nothing is appended at the end.
void chip_replay_epoch(const std::string& log, size_t& position, std::vector<std::string>& lines);

#endif

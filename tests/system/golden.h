// Golden replays: what a client gets while the chip plays a log, as text that a diff shows well.
#ifndef TAVOR_TESTS_GOLDEN_H
#define TAVOR_TESTS_GOLDEN_H

#include "tavor/protocol.h"

#include <string>
#include <vector>

using GoldenLines = std::vector<std::string>;

// The datagram as one line: code, value (signed), payload. A position is shown by its fields. Texts stand in
// quotes, without the zeros at the end of their place; other bytes than printable ASCII are \r, \n or \xNN.
// No two datagrams give the same line.
std::string golden_line(const tavor_response& response);

// Plays the log to a daemon on a board of its own. Returns every datagram from the start request to the reply
// to a stop request after the log's last line, which must be a sentence that stands nowhere else in it.
// Throws std::runtime_error when that fails.
GoldenLines golden_replay(const std::string& log_path);

// The lines of a text file. Throws std::runtime_error when it can't be read.
GoldenLines golden_read(const std::string& path);

// The first lines that differ ("-" expected, "+" actual) with their context; empty when none do.
std::string golden_difference(const GoldenLines& expected, const GoldenLines& actual);

#endif

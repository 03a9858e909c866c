// What the daemon's datagrams say: pure parsing, no I/O. Every byte of them may be hostile.
#ifndef TAVOR_CLIENT_RECORDS_H
#define TAVOR_CLIENT_RECORDS_H

#include "tavor/protocol.h"

#include <cstdint>
#include <optional>
#include <string>

enum class RecordKind {
    kResult,   // answer to a request, or the result of an assistance download
    kNmea,     // NMEA sentence of the chip
    kBanner,   // line of the daemon itself
    kChip,     // $PZUL sentence of the chip
    kPosition, // position block
    kUnknown   // code that the protocol has no meaning for
};

// A position; what the chip has not sent is absent.
struct Position {
    std::optional<std::string> utc;            // hhmmss.ss as the chip sent it
    std::optional<double> latitude;            // degrees, south negative
    std::optional<double> longitude;           // degrees, west negative
    std::optional<double> height;              // metres above the ellipsoid
    std::optional<double> majorAxis;           // metres
    std::optional<double> minorAxis;           // metres
    std::optional<double> orientation;         // degrees from true north
    std::optional<double> verticalUncertainty; // metres
};

struct Record {
    RecordKind kind = RecordKind::kUnknown;
    uint32_t code = 0;
    uint32_t value = 0;
    std::string text;  // kNmea, kBanner, kChip: the bytes as sent, line end included
    Position position; // kPosition
};

// Reads one datagram. Never fails: what has no meaning is kUnknown, a field that is no number is absent.
Record record_parse(const tavor_response& response);

// Reads the fields of a position record.
//
// A height of ten or more characters runs on into majorAxis, and a huge one further: it is read whole when
// the text has the six decimals that a height always has, and the fields under it are absent. When the text
// after the first ten characters is something else, majorAxis has been rewritten since: the height is then
// what is left of it, or absent when its decimal point is lost, for its size is lost with it.
Position record_position(const tavor_location_record& record);

// True when an answer reports success.
bool record_ok(const Record& record);

#endif

// Requests and responses by their numbers on both sides: one row each.
#ifndef TAVOR_TAVOR_ROWS_H
#define TAVOR_TAVOR_ROWS_H

#include "queue/service_queue.h"
#include "tavor/protocol.h"

#include <cstdint>
#include <optional>

struct TavorRow {
    std::optional<uint32_t> type; // of the request; none for what no request asks for
    uint32_t id;                  // of the service message and of its reply
    uint32_t code;                // of the response
};

// Ids that stand in no row get no response.
inline constexpr TavorRow kTavorRows[] = {
    {TAVOR_REQUEST_START, SERVICE_START, TAVOR_CODE_START},
    {TAVOR_REQUEST_STOP, SERVICE_STOP, TAVOR_CODE_STOP},
    {TAVOR_REQUEST_DOWNLOAD, SERVICE_DOWNLOAD, TAVOR_CODE_DOWNLOAD},
    {TAVOR_REQUEST_SAVE_LOCATION, SERVICE_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION},
    {TAVOR_REQUEST_DEBUG_OFF, SERVICE_DEBUG_OFF, TAVOR_CODE_DEBUG},
    {TAVOR_REQUEST_DEBUG_FILE, SERVICE_DEBUG_FILE, TAVOR_CODE_DEBUG},
    {TAVOR_REQUEST_DEBUG_SERIAL, SERVICE_DEBUG_SERIAL, TAVOR_CODE_DEBUG},
    {TAVOR_REQUEST_DEBUG_TCP, SERVICE_DEBUG_TCP, TAVOR_CODE_DEBUG},
    {TAVOR_REQUEST_COMMAND, SERVICE_COMMAND, TAVOR_CODE_CHIP},
    {TAVOR_REQUEST_ASSIST, SERVICE_ASSIST, TAVOR_CODE_ASSIST},
    {std::nullopt, SERVICE_ASSIST_RESULT, TAVOR_CODE_ASSIST_RESULT},
    {std::nullopt, SERVICE_FRAME_NMEA, TAVOR_CODE_NMEA},
    {std::nullopt, SERVICE_POSITION, TAVOR_CODE_POSITION},
};

// Return null when there is none.
inline const TavorRow* tavor_row_of_type(uint32_t type) {
    for (const TavorRow& row : kTavorRows) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

inline const TavorRow* tavor_row_of_id(uint32_t id) {
    for (const TavorRow& row : kTavorRows) {
        if (row.id == id) {
            return &row;
        }
    }
    return nullptr;
}

#endif

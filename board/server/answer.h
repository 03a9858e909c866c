// What the board answers to one request of a program or of a control client.
#ifndef TAVOR_BOARD_ANSWER_H
#define TAVOR_BOARD_ANSWER_H

#include "devices/board_devices.h"
#include "interpose/wire.h"
#include "server/control.h"

#include <cstdint>
#include <vector>

// One connection: an open node of a program, or a control client.
struct ServerConnection {
    bool open = false;
    BoardFile file;
};

// One request as it came, checked for size only.
struct ServerRequest {
    WireRequest header;
    const uint8_t* payload;
};

struct ServerReply {
    WireReply header = {};
    std::vector<uint8_t> payload;
};

// Carries the request out. What contradicts itself or does not fit the connection gets an error number.
void server_answer(ControlTarget& target, ServerConnection& connection, const ServerRequest& request,
                   ServerReply& reply);

#endif

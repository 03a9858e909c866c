// Waiting for a position, or for the chip to send.
#ifndef TAVOR_CLIENT_POSITION_H
#define TAVOR_CLIENT_POSITION_H

#include "client/print.h"
#include "client/session.h"

// What the sentences add to a position that came with them.
PositionDetails position_details(const Fix& fix, const Position& position);

// The next position. Returns an exit status.
int position_run(Session& session);

// A start that is a success only when the chip sends, or has a fix. Returns an exit status.
int position_run_start(Session& session);

#endif

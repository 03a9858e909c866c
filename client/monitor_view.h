// The monitor's picture: pure, drawn anew for each size.
#ifndef TAVOR_CLIENT_MONITOR_VIEW_H
#define TAVOR_CLIENT_MONITOR_VIEW_H

#include "client/grid.h"
#include "client/monitor_state.h"

inline constexpr int kMonitorWidth = 80; // in which everything has room
inline constexpr int kMonitorHeight = 24;

// Draws all that is known into a grid of this size; what has no room is left out.
Grid monitor_draw(const Monitor& monitor, int width, int height, Clock::time_point now);

#endif

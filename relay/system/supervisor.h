// The supervisor that started the program, by the protocols of sd_notify(3) and sd_listen_fds(3). Without one
// nothing happens.
#ifndef TAVOR_RELAY_SUPERVISOR_H
#define TAVOR_RELAY_SUPERVISOR_H

#include <chrono>

// Tells it a state: "READY=1", "WATCHDOG=1", "STOPPING=1". It is lost when there is no room for it after the
// wait.
void supervisor_tell(const char* state, std::chrono::seconds wait = std::chrono::seconds(0));

// How often it wants to hear "WATCHDOG=1": half of its limit. 0: never.
std::chrono::milliseconds supervisor_watchdog();

// The first Unix socket of this type (SOCK_DGRAM, SOCK_STREAM) that it hands over, -1 when there is none.
// Children don't inherit it.
int supervisor_socket(int type);

#endif

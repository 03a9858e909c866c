// The TCP clients: connections, and what waits for them.
//
// Reports wait until all that has come from the daemon is handed out, then one call of the kernel takes them:
// one for each client and epoch as a rule. An answer goes with the next turn of the loop, and the next
// request is read after it, so a client that asks without end gets one turn among all others.
//
// For a client that does not read, 64 KiB of reports wait, then the oldest are dropped. Answers to requests
// are never dropped; while one waits, no further request is read. A client that has taken nothing for 30
// seconds while something waits is let go, and so is one that watches nothing and has said nothing for 15
// minutes: the places are few. The kernel keeps 32 KiB each way, and ends within two minutes a connection
// whose other end has vanished.
#ifndef TAVOR_RELAY_GPSD_CLIENTS_H
#define TAVOR_RELAY_GPSD_CLIENTS_H

#include "gpsd/gpsd_report.h"
#include "system/event_guard.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

struct GpsdLine {
    std::shared_ptr<const std::string> text; // shared by all whom it waits for
    bool is_answer = false;
};

struct GpsdClient {
    int fd = -1;
    GpsdWatch watch;
    std::string input;
    bool skipping = false;        // up to the end of a line that was too long
    std::deque<GpsdLine> waiting; // the oldest first
    size_t sent = 0;              // bytes of the oldest
    size_t waiting_size = 0;      // bytes of all
    int answers = 0;              // of what waits
    bool full = false; // what waits goes with another turn: the kernel took no more, or an answer waits
    bool gone = false;
    std::chrono::steady_clock::time_point taken; // the latest byte that it took, or what waited first
    std::chrono::steady_clock::time_point heard; // the latest byte that it sent, or its coming
    EventPtr readable;
    EventPtr writable;
};

// Is called for each client that may have said something more.
using GpsdReader = std::function<void(GpsdClient& client)>;

void gpsd_clients_open(event_base* base, std::chrono::milliseconds second, GpsdReader reader,
                       size_t clients_max);
void gpsd_clients_close();

// Takes over a connection. When there are too many already, one makes way: the oldest that watches nothing,
// or else the newest.
GpsdClient& gpsd_clients_add(int fd);

// Queues a line for one client. An answer goes with the next turn, with what waits before it.
void gpsd_clients_send(GpsdClient& client, GpsdLine line);

// Calls for each client.
void gpsd_clients_each(const std::function<void(GpsdClient& client)>& call);

// Sends what waits, as far as it is taken, and forgets those that are gone.
void gpsd_clients_flush();

// Changes what a client watches; positioning is told when it becomes or is no longer a consumer.
void gpsd_clients_watch(GpsdClient& client, const GpsdWatch& watch);

// Forgets those that are gone. References to clients end here.
void gpsd_clients_tidy();

size_t gpsd_clients_count();

#endif

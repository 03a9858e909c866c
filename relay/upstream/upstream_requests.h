// The requests to the daemon: one is out at a time, so each answer has one asker.
//
// A stop does not wait for that: the daemon ends a command that hangs only for a stop that it knows of. It
// goes out beside what is out and before what waits, one stop at a time; the next request follows its answer.
// A start that it passes is answered with failure: after the stop it would undo it. No other request is
// answered with its code, so its answer is not taken for another.
//
// 256 requests wait at most, and one start besides. Each may wait for its turn, and then for its answer, as
// long as the limit of its kind; then it is answered with failure. The one that is out stays out for as long
// again, or until its late answer comes: that must not be taken for the answer to the next one.
// A stop beside a download that goes on may take longer than that, 90 s: it is carried out although its asker
// was told failure, and its answer is taken for the next stop's when one is out by then.
#ifndef TAVOR_RELAY_UPSTREAM_REQUESTS_H
#define TAVOR_RELAY_UPSTREAM_REQUESTS_H

#include "tavor/protocol.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

using RelayClock = std::chrono::steady_clock;

// Is told the value of the answer, TAVOR_VALUE_FAILED when none came.
using UpstreamAnswer = std::function<void(uint32_t value)>;

// Forgets all requests without an answer. `second`: the length of a second of the limits; tests shorten it.
void upstream_requests_open(std::chrono::milliseconds second);

// Code of the answer to a request of this type; none for types that the protocol does not have.
std::optional<uint32_t> upstream_requests_code(uint32_t type);

// Lets a request wait for its turn. False when too many wait, or the type is unknown: it is not answered
// then.
bool upstream_requests_add(uint32_t type, std::string_view text, UpstreamAnswer answer);

// The request whose turn it is, null when there is none. Once it is sent it is out.
const tavor_request* upstream_requests_next();
void upstream_requests_sent();

// Takes a datagram of the daemon. True when it was the answer to a request that is out.
bool upstream_requests_answered(const tavor_response& datagram);

// Answers with failure what has waited too long. Without a daemon a request waits for two seconds only.
void upstream_requests_expire(bool connected);

// Answers what is out with failure: its daemon has ended.
void upstream_requests_lost();

// Whether a request is out or waits.
bool upstream_requests_busy();

#endif

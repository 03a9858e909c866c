// How long a reply may wait for a client that does not read: pure bookkeeping, the clock is passed in.
//
// A full receive queue blocks the sender. Each client has a budget of waiting time; once a client that does
// not read has used it up, its replies fail at once and nobody else waits for it any more. The budget comes
// back while the client reads.
#ifndef TAVOR_TAVOR_REPLY_H
#define TAVOR_TAVOR_REPLY_H

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

// Clients whose budgets are remembered, so that a client which asks on and on without reading gets no new one
// each time.
inline constexpr size_t kReplyClients = 8;
// What a client may make the sender wait in all before it has read again, µs.
inline constexpr uint32_t kReplyBudgetUs = 1000000;
// Waits are multiples of this, µs.
inline constexpr uint32_t kReplyWaitStepUs = 100000;
// What each send that succeeds gives back, µs, beside a tenth of the time since the one before: a client that
// reads behind a fast stream, or on a busy machine, is never taken for one that has stopped.
inline constexpr uint32_t kReplySentCreditUs = 2000;
inline constexpr uint32_t kReplyElapsedCreditPart = 10;

// Address of a client as received, at most sizeof(sockaddr_un) bytes of it in use.
struct TavorPeer {
    sockaddr_un address;
    socklen_t length;
};

struct ReplyBudget {
    TavorPeer peer;
    uint32_t left_us;
    uint64_t since_us; // end of the last send
    bool failing;      // the last send failed
};

// All zero at start. The client of the latest send comes first.
struct ReplyBudgets {
    ReplyBudget clients[kReplyClients];
    size_t count;
};

// The client's budget, a full one for a client that is not remembered; the client that was sent to the
// longest time ago is then forgotten. Valid until the next call.
ReplyBudget* tavor_reply_budget(ReplyBudgets* budgets, const TavorPeer& peer, uint64_t now_us);

// How long the next send may wait, µs; 0 when it must not wait at all.
uint32_t tavor_reply_wait(const ReplyBudget& budget);

// Accounts for a send that lasted from started_us to ended_us.
void tavor_reply_done(ReplyBudget* budget, uint64_t started_us, uint64_t ended_us, bool sent);

#endif

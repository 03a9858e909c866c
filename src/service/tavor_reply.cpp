#include "service/tavor_reply.h"

#include <algorithm>
#include <cstring>

namespace {

bool same_peer(const TavorPeer& a, const TavorPeer& b) {
    return a.length == b.length &&
           memcmp(&a.address, &b.address, std::min<size_t>(a.length, sizeof a.address)) == 0;
}

uint64_t time_between(uint64_t from_us, uint64_t to_us) {
    return to_us > from_us ? to_us - from_us : 0;
}

// Moves the client at this place to the front; the order of the others stays.
ReplyBudget* bring_to_front(ReplyBudgets* budgets, size_t place) {
    ReplyBudget* first = budgets->clients;
    std::rotate(first, first + place, first + place + 1);
    return first;
}

ReplyBudget* add_client(ReplyBudgets* budgets, const TavorPeer& peer, uint64_t now_us) {
    budgets->count = std::min(budgets->count + 1, kReplyClients);
    ReplyBudget* added = bring_to_front(budgets, budgets->count - 1);
    *added = {.peer = peer, .left_us = kReplyBudgetUs, .since_us = now_us, .failing = false};
    return added;
}

} // namespace

ReplyBudget* tavor_reply_budget(ReplyBudgets* budgets, const TavorPeer& peer, uint64_t now_us) {
    for (size_t i = 0; i < budgets->count; i++) {
        if (same_peer(budgets->clients[i].peer, peer)) {
            return bring_to_front(budgets, i);
        }
    }
    return add_client(budgets, peer, now_us);
}

uint32_t tavor_reply_wait(const ReplyBudget& budget) {
    return (budget.left_us + kReplyWaitStepUs / 2) / kReplyWaitStepUs * kReplyWaitStepUs;
}

void tavor_reply_done(ReplyBudget* budget, uint64_t started_us, uint64_t ended_us, bool sent) {
    uint64_t left = budget->left_us - std::min<uint64_t>(budget->left_us, time_between(started_us, ended_us));
    if (sent) {
        const uint64_t succeeding = budget->failing ? 0 : time_between(budget->since_us, ended_us);
        left += kReplySentCreditUs + succeeding / kReplyElapsedCreditPart;
    }
    budget->left_us = static_cast<uint32_t>(std::min<uint64_t>(left, kReplyBudgetUs));
    budget->since_us = ended_us;
    budget->failing = !sent;
}

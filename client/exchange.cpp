#include "client/exchange.h"

#include <algorithm>

namespace {

constexpr double kLongestRepeatS = 2.5;
constexpr double kLongestSilenceS = 60;
// Once output has flowed for this many silence limits, the limit starts again from its first value.
constexpr int kStableLimits = 4;
// Datagrams still read after a deadline: enough for what was queued while the process was not running, few
// enough that a steady stream can't hold it up.
constexpr int kLateDatagrams = 16;

// State of one exchange_follow.
struct Watch {
    double limit_s;              // present limit of a silence
    int silences;                // in a row, without a datagram between them
    Clock::time_point heard;     // last datagram or try
    Clock::time_point taken;     // last try
    Clock::time_point silent_at; // end of the present limit
};

Outcome outcome_of(Received received) {
    switch (received) {
    case Received::kInterrupted:
        return Outcome::kInterrupted;
    case Received::kOutputClosed:
        return Outcome::kOutputClosed;
    case Received::kFailed:
        return Outcome::kUnreachable;
    default:
        return Outcome::kTimeout;
    }
}

Outcome send_failed(const Connection& connection) {
    return connection.error.empty() ? Outcome::kInterrupted : Outcome::kUnreachable;
}

bool ends_wait(Received received) {
    return received != Received::kResponse && received != Received::kMalformed;
}

void listen_from(Watch& watch, Clock::time_point now) {
    watch.heard = now;
    watch.silent_at = watch.limit_s > 0 ? deadline_in(watch.limit_s) : Clock::time_point::max();
}

void note_datagram(Watch& watch, const Follow& follow) {
    const auto now = Clock::now();
    watch.silences = 0;
    if (std::chrono::duration<double>(now - watch.taken).count() > kStableLimits * watch.limit_s) {
        watch.limit_s = follow.silence_s;
    }
    listen_from(watch, now);
}

// Takes the output back. False when the daemon can't be reached.
bool break_silence(Connection& connection, Watch& watch, const Follow& follow) {
    const double silent_s = std::chrono::duration<double>(Clock::now() - watch.heard).count();
    const Retaken retaken = connection_retake(connection, deadline_in(watch.limit_s));
    if (retaken == Retaken::kFailed) {
        return false;
    }
    follow.silent(silent_s, ++watch.silences, retaken == Retaken::kNewDaemon);
    watch.limit_s = std::max(follow.silence_s, std::min(2 * watch.limit_s, kLongestSilenceS));
    watch.taken = Clock::now();
    listen_from(watch, watch.taken);
    return true;
}

} // namespace

Outcome exchange_ask(Connection& connection, const Request& request, const Visitor& other,
                     std::optional<Record>& answer) {
    const auto deadline = deadline_in(request.timeout_s);
    const Visitor visit = [&](const Record& record) {
        if (record.kind != RecordKind::kResult || record.code != static_cast<uint32_t>(request.code)) {
            return other(record);
        }
        answer = record;
        return false;
    };
    const double half_s = request.timeout_s > 0 ? request.timeout_s / 2 : kLongestRepeatS;
    const auto first_deadline =
        request.repeatable ? deadline_in(std::min(half_s, kLongestRepeatS)) : deadline;

    if (!connection_send(connection, request.type, request.text, deadline)) {
        return send_failed(connection);
    }
    const Outcome outcome = exchange_collect(connection, first_deadline, visit);
    if (outcome != Outcome::kTimeout || !request.repeatable) {
        return outcome;
    }
    if (!connection_send(connection, request.type, request.text, deadline)) {
        return send_failed(connection);
    }
    return exchange_collect(connection, deadline, visit);
}

Outcome exchange_collect(Connection& connection, Clock::time_point deadline, const Visitor& visit) {
    for (int late = 0; late < kLateDatagrams; late += Clock::now() < deadline ? 0 : 1) {
        tavor_response response = {};
        const Received received = connection_receive(connection, response, deadline);
        if (ends_wait(received)) {
            return outcome_of(received);
        }
        if (received == Received::kResponse && !visit(record_parse(response))) {
            return Outcome::kDone;
        }
    }
    return Outcome::kTimeout;
}

Outcome exchange_follow(Connection& connection, const Follow& follow, const Visitor& visit) {
    Watch watch = {follow.silence_s, 0, Clock::now(), Clock::now(), {}};
    listen_from(watch, watch.heard);
    while (Clock::now() < follow.end) {
        tavor_response response = {};
        const Received received =
            connection_receive(connection, response, std::min(follow.end, watch.silent_at));
        if (received == Received::kResponse) {
            note_datagram(watch, follow);
            if (!visit(record_parse(response))) {
                return Outcome::kDone;
            }
            continue;
        }
        if (ends_wait(received) && received != Received::kTimeout) {
            return outcome_of(received);
        }
        const auto now = Clock::now();
        if (now >= watch.silent_at && now < follow.end && !break_silence(connection, watch, follow)) {
            return send_failed(connection);
        }
    }
    return Outcome::kTimeout;
}

// Waiting for what the daemon sends: for one answer, for a while, or for as long as the user likes.
#ifndef TAVOR_CLIENT_EXCHANGE_H
#define TAVOR_CLIENT_EXCHANGE_H

#include "client/connection.h"
#include "client/records.h"

#include <functional>
#include <optional>
#include <string>

enum class Outcome {
    kDone,         // the answer came, or the visitor had enough
    kTimeout,      // nothing more within the limit
    kInterrupted,  // a signal is pending
    kOutputClosed, // nobody reads the output any more
    kUnreachable   // no daemon; Connection::error says why
};

// Is given each record that comes; returns false when it has enough.
using Visitor = std::function<bool(const Record&)>;

struct Request {
    tavor_request_type type;
    tavor_response_code code; // of its answer
    std::string text;
    double timeout_s; // limit of the whole exchange, 0 for none
    bool repeatable;  // true when asking twice does no harm and the second answer means the same
};

// What to do while the daemon is silent.
struct Follow {
    double silence_s;      // after so long without any datagram the output is taken over again; 0 for never
    Clock::time_point end; // the whole wait ends here
    // Is told of each silence: its length, its number in a row from 1, and whether a restarted daemon was
    // found.
    std::function<void(double seconds, int count, bool restarted)> silent;
};

// Sends a request and waits for its answer; a repeatable one is sent once more when none came in half of the
// limit, at most 2.5 s. Other records go to the visitor; kDone without an answer means that it had enough.
Outcome exchange_ask(Connection& connection, const Request& request, const Visitor& other,
                     std::optional<Record>& answer);

// Gives the visitor every record until the deadline.
Outcome exchange_collect(Connection& connection, Clock::time_point deadline, const Visitor& visit);

// Gives the visitor every record, however long it takes. A request of another client makes that one the
// receiver, and nothing tells this one; so after a silence it makes itself the receiver again. While silences
// go on, the wait before the next try doubles, up to a minute, so that two tools that follow don't take the
// output from each other all the time.
Outcome exchange_follow(Connection& connection, const Follow& follow, const Visitor& visit);

#endif

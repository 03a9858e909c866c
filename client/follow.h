// Starting positioning and following what comes.
#ifndef TAVOR_CLIENT_FOLLOW_H
#define TAVOR_CLIENT_FOLLOW_H

#include "client/session.h"

// What to say of a start that the daemon answers with failure.
inline constexpr char kStartFailure[] =
    "positioning could not be started: the daemon answered failure; check the device settings in "
    "/etc/default/tavor/tavor.conf and see 'journalctl --namespace=tavor'";

inline constexpr char kStopFailure[] =
    "positioning could not be stopped: the daemon answered failure; see 'journalctl --namespace=tavor'";

// How starting and following ended.
struct Followed {
    Outcome outcome;
    bool answered;       // the daemon answered the start
    double answer_s = 0; // how long that was waited for
};

// Starts positioning and gives the visitor everything that comes, the answer included, until it has enough or
// the end of the wait has come. Silences of silence_s are reported on standard error and answered by taking
// the output back.
Followed follow_start(Session& session, double answer_s, double silence_s, Clock::time_point end,
                      const Visitor& visit);

// The same with the limits of the command line.
Followed follow_for_options(Session& session, const Visitor& visit);

// Status of a follower that ended, after the stop that --stop asks for. Interrupting one that has no limit of
// its own is the ordinary way to end it.
int follow_finish(Session& session, const Followed& followed);

// Notes a failed start, also one of a later try; true when the record is one.
bool follow_is_failed_start(Session& session, const Record& record);

// Reports that the start failed and returns its status.
int follow_start_failed(Session& session);

#endif

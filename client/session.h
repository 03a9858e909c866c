// One run of the tool: its connection, what it has written, and how it ends.
#ifndef TAVOR_CLIENT_SESSION_H
#define TAVOR_CLIENT_SESSION_H

#include "client/connection.h"
#include "client/exchange.h"
#include "client/exit_status.h"
#include "client/options.h"
#include "client/records.h"

#include <cstdint>
#include <string>

struct Session {
    const Options& options;
    Connection connection;
    int64_t lines = 0;         // of output written
    int output_error = 0;      // error number of the first failed write
    bool start_failed = false; // the daemon answered a start with failure
    int interrupted = 0;       // status of an end by a signal; 0: none was taken
    Clock::time_point output_end = Clock::time_point::max(); // until when the output waits for its reader
};

// Takes the signal that has come, once. From then on a reader that pauses is waited for a second in all.
// Returns the status of an end by it.
int session_interrupted(Session& session);

// One line on standard error. session_fail prints it as an object of JSON too where that is asked for, and
// returns the status.
int session_fail(Session& session, ExitStatus status, const std::string& text);
void session_note(const std::string& text);

// Writes to standard output. False once that failed, or a signal ended the wait for a reader.
bool session_emit(Session& session, const std::string& text);

// Status of a run whose output is all; a reader that has gone away is an ordinary end, a signal while the
// output waited for one is not.
int session_output_status(Session& session);

// Status of a wait that ended without what was waited for.
int session_end_status(Session& session, Outcome outcome, double limit_s);

// Prints the answer; when it is a failure, reports that.
int session_report(Session& session, const Record& answer, const std::string& failure);

#endif

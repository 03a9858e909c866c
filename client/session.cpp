#include "client/session.h"

#include "client/interrupt.h"
#include "client/log_source.h"
#include "client/output.h"
#include "client/print.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr double kLastOutputS = 1;
constexpr std::string_view kJournal = "'journalctl --namespace=tavor'";

// A hint at the journal says what a user without the right to read it sees there.
std::string with_journal_hint(std::string text) {
    const size_t at = text.find(kJournal);
    if (at != std::string::npos && !log_source_journal_is_readable()) {
        text.insert(at + kJournal.size(),
                    std::string(", which shows you no line of the daemon: ") + kLogSourceRights);
    }
    return text;
}

} // namespace

int session_interrupted(Session& session) {
    if (session.interrupted == 0) {
        session.interrupted = kExitSignal + interrupt_take(session.connection.interrupt);
        session.output_end = deadline_in(kLastOutputS);
    }
    return session.interrupted;
}

int session_fail(Session& session, ExitStatus status, const std::string& text) {
    if (session.options.json && session.output_error == 0) {
        session_emit(session, print_error_json(status, text));
    }
    session_note(text);
    return status;
}

void session_note(const std::string& text) {
    fprintf(stderr, "tavorctl: %s\n", with_journal_hint(text).c_str());
}

bool session_emit(Session& session, const std::string& text) {
    if (session.output_error != 0) {
        return false;
    }
    uint64_t written = 0;
    const int error =
        output_write(STDOUT_FILENO, text, session.connection.interrupt, written, session.output_end);
    if (error != 0) {
        session.output_error = error;
        return false;
    }
    ++session.lines;
    return true;
}

int session_output_status(Session& session) {
    if (session.output_error == 0 || session.output_error == EPIPE) {
        return kExitSuccess;
    }
    if (session.output_error == EINTR) {
        return session_interrupted(session);
    }
    return session_fail(session, kExitIo,
                        std::string("cannot write the output: ") + strerror(session.output_error) +
                            "; free space or write elsewhere");
}

int session_end_status(Session& session, Outcome outcome, double limit_s) {
    switch (outcome) {
    case Outcome::kInterrupted:
        return session_interrupted(session);
    case Outcome::kUnreachable:
        return session_fail(session, session.connection.busy ? kExitBusy : kExitNoDaemon,
                            session.connection.error);
    case Outcome::kTimeout:
        return session_fail(
            session, kExitBusy,
            "no answer from the daemon at " + print_safe(session.connection.path) + " within " +
                print_seconds(limit_s) +
                " s; it writes firmware or waits for a chip that does not answer, or another client "
                "has taken the answer: try again, or see 'journalctl --namespace=tavor'");
    default:
        return session_output_status(session);
    }
}

int session_report(Session& session, const Record& answer, const std::string& failure) {
    if (session.options.json) {
        session_emit(session, print_json(answer));
    } else if (record_ok(answer)) {
        session_emit(session, print_result(answer));
    }
    return record_ok(answer) ? session_output_status(session) : session_fail(session, kExitFailed, failure);
}

#include "client/check.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

namespace {

constexpr int kDoubts = 1; // exit status
constexpr int kBad = 2;

int status_of(Grade worst) {
    if (worst == Grade::kBad) {
        return kBad;
    }
    return worst == Grade::kDoubtful ? kDoubts : kExitSuccess;
}

Findings look(const std::string& socket) {
    const Place place = place_of(socket);
    const DaemonProbe daemon = daemon_probe(place);
    const bool runs = daemon.running.value_or(true); // what is not known may be disturbed
    Findings findings;
    check_settings(findings, place);
    if (place.usual) {
        check_spi(findings, place, runs);
        check_power_line(findings, place, runs);
    } else {
        findings.push_back(
            {Grade::kSkipped, "devices", "those of a daemon at another place are not seen from here"});
    }
    check_directories(findings, place);
    check_queues(findings);
    check_assistance(findings, place);
    check_clock(findings, place, time(nullptr));
    check_daemon(findings, daemon);
    check_unit(findings, place);
    return findings;
}

} // namespace

Grade check_denied(int error) {
    const bool denied = error == EACCES || error == EPERM;
    return denied && geteuid() != 0 ? Grade::kDoubtful : Grade::kBad;
}

int check_run(Session& session) {
    const Findings findings = look(session.options.socket);
    for (const Finding& finding : findings) {
        session_emit(session, session.options.json ? finding_json(finding) : finding_line(finding));
    }
    if (!session.options.json) {
        session_emit(session, finding_summary(findings) + "\n");
    }
    const int output = session_output_status(session);
    return output == kExitSuccess ? status_of(finding_worst(findings)) : output;
}

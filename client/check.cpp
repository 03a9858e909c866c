#include "client/check.h"

#include <ctime>

namespace {

int status_of(Grade worst) {
    if (worst == Grade::kBad) {
        return kExitBad;
    }
    return worst == Grade::kDoubtful ? kExitFailed : kExitSuccess;
}

// What the rights of the daemon's user decide.
void look_as_daemon(Findings& findings, const std::string& unit, bool runs, const std::string& socket) {
    const DaemonRights rights(unit);
    const Place place = place_of(socket);
    check_settings(findings, place);
    if (place.usual) {
        check_spi(findings, place, runs);
        check_serial(findings, place, runs);
    } else {
        findings.push_back(
            {Grade::kSkipped, "devices", "those of a daemon at another place are not seen from here"});
    }
    check_directories(findings, place);
}

// Which settings, devices and files count is not known either.
Findings look_without_daemon(const DaemonProbe& daemon) {
    Findings findings;
    check_queues(findings);
    check_daemon(findings, daemon);
    return findings;
}

Findings look(const std::string& socket) {
    const Place place = place_of(socket);
    const DaemonProbe daemon = daemon_probe(place);
    if (!place.hidden.empty()) {
        return look_without_daemon(daemon);
    }
    const bool runs = daemon.running.value_or(true); // what is not known may be disturbed
    const std::string unit = check_unit_properties(place);
    Findings findings;
    check_rights(findings, unit);
    look_as_daemon(findings, unit, runs, socket);
    if (place.usual) {
        check_power_line(findings, place, runs); // as root, who gives it to the service's user
    }
    check_queues(findings);
    check_assistance(findings, place);
    check_clock(findings, place, time(nullptr));
    check_daemon(findings, daemon);
    check_unit(findings, place, unit);
    return findings;
}

} // namespace

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

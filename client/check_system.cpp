// The kernel's queues, the assistance server, the daemon and its unit.
#include "client/check.h"
#include "client/host_lookup.h"
#include "client/tool_output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <unistd.h>

namespace {

constexpr char kQueues[] = "queues";
constexpr char kUnit[] = "service";
constexpr char kHost[] = "assistance host";
constexpr long kQueueCount = 2;   // of the daemon
constexpr long kMessageSize = 24; // bytes
constexpr long kQueueSize = 4096; // bytes: some hundred messages
constexpr size_t kFileMax = size_t{1} << 20;
constexpr std::chrono::milliseconds kUnitLimit{2000};
constexpr std::chrono::milliseconds kHostLimit{5000};

// A number of the kernel; none when there is no such file.
std::optional<long> kernel_number(const char* name) {
    const auto text = place_read(std::string("/proc/sys/kernel/") + name, kFileMax);
    return text ? std::optional(strtol(text->c_str(), nullptr, 10)) : std::nullopt;
}

long queues_in_use() {
    const std::string list = place_read("/proc/sysvipc/msg", kFileMax).value_or("");
    return std::max<long>(0, std::count(list.begin(), list.end(), '\n') - 1); // below a heading
}

bool is_bare(char c) {
    return c > ' ' && c <= '~' && strchr("&#?=%/", c) == nullptr;
}

void judge_identity(Findings& findings, const Place& place) {
    std::string unset;
    for (const location_config_id id : {CONFIG_XOD_VENDOR, CONFIG_XOD_PROJECT, CONFIG_XOD_DEVICE_ID}) {
        const std::string value = place_text(place, id);
        const std::string key = location_config_key(id).key;
        if (value.find_first_not_of(' ') == std::string::npos) {
            unset += (unset.empty() ? "'" : ", '") + key + "'";
        } else if (!std::all_of(value.begin(), value.end(), is_bare)) {
            findings.push_back({Grade::kBad, "identity",
                                key + value +
                                    " has a blank or a character that ends the address of "
                                    "a download",
                                "correct it: it stands in the address as it is"});
        }
    }
    if (!unset.empty()) {
        findings.push_back({Grade::kDoubtful, "identity",
                            unset + " not set: no assistance file is ever fetched",
                            "set vendor, project and device id, unless assistance isn't wanted"});
    } else if (findings.empty() || findings.back().subject != "identity") {
        findings.push_back({Grade::kGood, "identity", "vendor, project and device id are set"});
    }
}

// What can't stand between "http://" and the file's name; empty when nothing is wrong.
std::string host_problem(const std::string& host) {
    const std::string server = host.substr(0, host.find('/'));
    if (host.find("://") != std::string::npos) {
        return "write the host alone: the daemon adds 'http://'";
    }
    if (server.empty() || !std::all_of(server.begin(), server.end(), is_bare)) {
        return "write a name or an address, with ':' and a port when it is not 80, and no blank";
    }
    const bool bare_address = server[0] != '[' && std::count(server.begin(), server.end(), ':') > 1;
    return bare_address ? "write an IPv6 address in brackets: '[::1]', '[::1]:8080'" : "";
}

void judge_host(Findings& findings, const Place& place) {
    const std::string host = place_text(place, CONFIG_XOD_HOST);
    if (const std::string problem = host_problem(host); !problem.empty()) {
        findings.push_back({Grade::kBad, kHost, "'XOD host=" + host + "' is no host", problem});
    } else if (const std::string why = host_lookup(check_host_name(host), kHostLimit); why.empty()) {
        findings.push_back({Grade::kGood, kHost, host + " has an address"});
    } else {
        findings.push_back({Grade::kDoubtful, kHost, host + " has no address: " + why,
                            "correct 'XOD host=', or look at network and name service"});
    }
}

// Where the unit may write: other places are read-only for the service whatever their rights are.
void judge_writable(Findings& findings, const Place& place, const std::string& properties) {
    if (check_unit_property(properties, "ProtectSystem") != "strict") {
        return;
    }
    std::istringstream words(check_unit_property(properties, "ReadWritePaths"));
    std::string allowed;
    for (std::string word; words >> word;) {
        allowed += word.substr(word[0] == '-' || word[0] == '+' ? 1 : 0) + "/\n";
    }
    for (const location_config_id id : {CONFIG_NMEA_PATH, CONFIG_LOG_PATH, CONFIG_XOD_PATH}) {
        const std::string path = place_text(place, id) + "/";
        std::istringstream places(allowed);
        bool inside = path.compare(0, 5, "/tmp/") == 0;
        for (std::string one; std::getline(places, one);) {
            inside = inside || path.compare(0, one.size(), one) == 0;
        }
        if (!inside) {
            findings.push_back(
                {Grade::kBad, kUnit, "it may not write to " + place_text(place, id),
                 "'systemctl edit tavor' with ReadWritePaths= of its directory, or another place for '" +
                     std::string(location_config_key(id).key) + "'"});
        }
    }
}

} // namespace

void check_queues(Findings& findings) {
    const auto count = kernel_number("msgmni");
    const auto message = kernel_number("msgmax");
    const auto bytes = kernel_number("msgmnb");
    if (!count || !message || !bytes) {
        findings.push_back(
            {Grade::kBad, kQueues, "the kernel has no message queues", "use a kernel with CONFIG_SYSVIPC"});
    } else if (*count < queues_in_use() + kQueueCount) {
        findings.push_back({Grade::kBad, kQueues,
                            std::to_string(queues_in_use()) + " of " + std::to_string(*count) + " are in use",
                            "raise kernel.msgmni, or remove queues that nobody uses ('ipcs -q', 'ipcrm')"});
    } else if (*message < kMessageSize || *bytes < kQueueSize) {
        findings.push_back({Grade::kBad, kQueues,
                            "the kernel's limits of " + std::to_string(*message) + " bytes a message and " +
                                std::to_string(*bytes) + " a queue are too small",
                            "raise kernel.msgmax and kernel.msgmnb to the usual 8192 and 16384"});
    } else {
        findings.push_back({Grade::kGood, kQueues, "the kernel has room for the daemon's two"});
    }
}

std::string check_host_name(const std::string& host) {
    const std::string server = host.substr(0, host.find('/'));
    return server[0] == '[' ? server.substr(1, server.find(']') - 1) : server.substr(0, server.find(':'));
}

void check_assistance(Findings& findings, const Place& place) {
    judge_identity(findings, place);
    judge_host(findings, place);
}

void check_daemon(Findings& findings, const DaemonProbe& daemon) {
    if (!daemon.running) {
        findings.push_back({Grade::kDoubtful, "daemon",
                            "whether one runs can't be told: " + daemon.running_why,
                            "try with sudo, or name the daemon's own socket with --socket"});
    } else if (*daemon.running) {
        const std::string process = daemon.pid > 0 ? " (process " + std::to_string(daemon.pid) + ")" : "";
        findings.push_back(
            {Grade::kDoubtful, "daemon", "one runs" + process + ": its devices were left alone",
             "for a whole look stop it first ('systemctl stop tavor' where it is the service)"});
    } else {
        findings.push_back({Grade::kGood, "daemon", "none runs beside the one to be started"});
    }
}

std::string check_unit_properties(const Place& place) {
    if (!place.usual || access("/run/systemd/system", F_OK) != 0) {
        return "";
    }
    return tool_output({"systemctl", "show", "tavor.service",
                        "--property=LoadState,UnitFileState,ProtectSystem,ReadWritePaths,User,Group,"
                        "SupplementaryGroups"},
                       kUnitLimit)
               .text +
           "\n"; // not empty: systemd was asked
}

std::string check_unit_property(const std::string& properties, const std::string& name) {
    std::istringstream lines(properties);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + "=") == 0) {
            return line.substr(name.size() + 1);
        }
    }
    return "";
}

void check_unit(Findings& findings, const Place& place, const std::string& properties) {
    if (properties.empty()) {
        findings.push_back(
            {Grade::kSkipped, kUnit,
             place.usual ? "systemd does not run here" : "a daemon at another place is no service"});
        return;
    }
    const std::string load = check_unit_property(properties, "LoadState");
    const std::string state = check_unit_property(properties, "UnitFileState");
    if (load != "loaded") {
        findings.push_back({Grade::kDoubtful, kUnit,
                            "tavor.service is not loaded (" + (load.empty() ? "no answer" : load) + ")",
                            "install the package, or unmask it: 'systemctl unmask tavor'"});
    } else if (state.compare(0, 7, "enabled") != 0) {
        findings.push_back({Grade::kDoubtful, kUnit,
                            "tavor.service is " + (state.empty() ? "not enabled" : state) +
                                ": it does not start with the machine",
                            "'systemctl enable tavor'"});
    } else {
        findings.push_back({Grade::kGood, kUnit, "tavor.service is enabled"});
    }
    judge_writable(findings, place, properties);
}

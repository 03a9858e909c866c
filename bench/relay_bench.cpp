// What the relay costs beside gpsd with the same consumers, sentences and rate: processor time, memory, and
// the time from a sentence's sending to its arrival. docs/relay.md tells how it is measured.
#include "relay/consumers.h"
#include "relay/cost.h"
#include "relay/latency.h"
#include "relay/servers.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <unistd.h>

namespace {

using Milliseconds = std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Gpsds = std::vector<std::unique_ptr<GpsdServer>>;

constexpr int kEpochsPerSecond = 10;
constexpr int64_t kEpochMs = 1000 / kEpochsPerSecond;
constexpr int64_t kLeadMs = 500; // from the decision to the window
constexpr int64_t kHalfDayMs = int64_t{12} * 60 * 60 * 1000;
constexpr Milliseconds kPatience{20000};
constexpr double kSecondsPerMinute = 60;
constexpr double kKibPerMib = 1024;

struct Settings {
    int64_t seconds = 10;
    int rounds = 3;
    std::vector<size_t> counts{1, 10, 100, 1000};
    std::vector<std::string> kinds{"json", "nmea", "local"};
    std::vector<std::string> parts{"cost", "latency", "idle"};
};

struct Processes {
    pid_t daemon = -1;
    pid_t relay = -1;
    std::vector<pid_t> gpsds;
};

struct Seconds {
    double daemon = 0;
    double relay = 0;
    double gpsds = 0;
};

// Of one run.
struct Result {
    Seconds seconds; // of the window
    CostMemory relay;
    CostMemory gpsds; // all together
    long tcp_kib = 0;
    uint64_t epochs_least = 0; // of the worst consumer
    uint64_t lines_least = 0, lines_most = 0;
    uint64_t lines_fed = 0;
    std::vector<double> latencies_ms;
};

Seconds seconds_of(const Processes& processes) {
    Seconds sum;
    sum.daemon = processes.daemon > 0 ? cost_seconds(processes.daemon) : 0;
    sum.relay = cost_seconds(processes.relay);
    for (const pid_t gpsd : processes.gpsds) {
        sum.gpsds += cost_seconds(gpsd);
    }
    return sum;
}

CostMemory memory_of(const std::vector<pid_t>& processes) {
    CostMemory sum;
    for (const pid_t one : processes) {
        const CostMemory memory = cost_memory(one);
        sum.resident += memory.resident;
        sum.proportional += memory.proportional;
        sum.own += memory.own;
    }
    return sum;
}

std::string name_of_client(const std::string& what) {
    return "tavor-bench-" + std::to_string(getpid()) + "-" + what;
}

// The board with the daemon and the relay, and gpsd beside it. While gpsd has the consumers a local client of
// the relay passes the sentences on to it; while the relay has them it has no others.
struct Chain {
    explicit Chain(size_t gpsd_count) {
        for (size_t i = 0; i < gpsd_count; ++i) {
            gpsds.push_back(std::make_unique<GpsdServer>(board.directory));
        }
    }
    Processes processes() const {
        Processes all;
        all.daemon = daemon.process->pid;
        all.relay = relay.process->pid;
        for (const auto& gpsd : gpsds) {
            all.gpsds.push_back(gpsd->process->pid);
        }
        return all;
    }

    SimulatedBoard board{{"--rate", std::to_string(kEpochsPerSecond)}};
    DaemonOnBoard daemon{board};
    RelayServer relay{board.socket_path(), board.directory};
    Gpsds gpsds;
};

void add_feed(const Chain& chain, ConsumerGroup& feed) {
    consumers_add_local(feed, chain.relay.socket, name_of_client("feed"));
    feed.on_datagram = [&chain](const tavor_response& response) {
        const auto* const text = reinterpret_cast<const char*>(response.payload);
        if (response.code == TAVOR_CODE_NMEA && text[0] == '$') {
            servers_feed(chain.gpsds, {text, strnlen(text, sizeof response.payload)});
        }
    };
}

void need(bool good, const char* what) {
    if (!good) {
        throw std::runtime_error(what);
    }
}

// The consumers of one run; the feed has none while the relay serves them.
struct Run {
    ConsumerGroup feed;
    ConsumerGroup group;
};

// Lets all read until the condition holds.
template <typename Condition> void turn_until(Run& run, const Condition& condition) {
    const auto end = Clock::now() + kPatience + Milliseconds(run.group.window.length);
    while (!condition()) {
        if (!run.feed.all.empty()) {
            consumers_turn(run.feed, Milliseconds(0));
        }
        consumers_turn(run.group, Milliseconds(1));
        need(Clock::now() < end, "consumers wait in vain");
    }
}

// Whose time tells when the window begins and ends.
const Consumer& leader(const Run& run) {
    return run.feed.all.empty() ? run.group.all[0] : run.feed.all[0];
}

void wait_window(Run& run, int64_t into) {
    turn_until(run, [&] {
        const int64_t at = consumers_into_window(run.group.window, leader(run).latest);
        return at >= into && at < into + kHalfDayMs;
    });
}

void count_delivered(const Run& run, Result& result) {
    result.lines_fed = run.feed.all.empty() ? 0 : run.feed.all[0].lines;
    result.epochs_least = result.lines_least = std::numeric_limits<uint64_t>::max();
    for (const Consumer& one : run.group.all) {
        result.epochs_least = std::min(result.epochs_least, one.epochs);
        result.lines_least = std::min(result.lines_least, one.lines);
        result.lines_most = std::max(result.lines_most, one.lines);
    }
}

void add_consumers(const Chain& chain, ConsumerGroup& group, ConsumerKind kind, size_t count, bool of_gpsd) {
    for (size_t i = 0; i < count; ++i) {
        if (kind == ConsumerKind::kLocal) {
            consumers_add_local(group, chain.relay.socket, name_of_client(std::to_string(i)));
        } else {
            const int port = of_gpsd ? chain.gpsds[i / kGpsdClientsMax]->port : chain.relay.port;
            consumers_add_tcp(group, kind, port);
        }
    }
}

void begin_window(Run& run, int64_t seconds) {
    run.group.window = {leader(run).latest + kLeadMs, seconds * 1000};
    run.feed.window = run.group.window;
    for (ConsumerGroup* const group : {&run.group, &run.feed}) {
        for (Consumer& one : group->all) {
            one.epochs = one.lines = 0;
        }
    }
}

Result run_once(const Chain& chain, ConsumerKind kind, size_t count, bool of_gpsd, int64_t seconds) {
    Run run;
    if (of_gpsd) {
        add_feed(chain, run.feed);
    }
    add_consumers(chain, run.group, kind, count, of_gpsd);
    turn_until(run, [&] { return consumers_ready(run.group) && leader(run).latest >= 0; });
    begin_window(run, seconds);
    wait_window(run, 0);
    const Seconds before = seconds_of(chain.processes());
    wait_window(run, run.group.window.length);
    const Seconds after = seconds_of(chain.processes());
    Result result;
    result.seconds = {after.daemon - before.daemon, after.relay - before.relay, after.gpsds - before.gpsds};
    result.relay = memory_of({chain.processes().relay});
    result.gpsds = memory_of(chain.processes().gpsds);
    result.tcp_kib = cost_tcp_buffers();
    wait_window(run, run.group.window.length + kLeadMs); // what is late
    count_delivered(run, result);
    return result;
}

struct Spread {
    double least, median, most;
};

Spread spread_of(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}

template <typename Value> Spread spread_of(const std::vector<Result>& results, const Value& value) {
    std::vector<double> values;
    std::transform(results.begin(), results.end(), std::back_inserter(values), value);
    return spread_of(values);
}

constexpr std::pair<const char*, ConsumerKind> kKinds[] = {
    {"json", ConsumerKind::kJson}, {"nmea", ConsumerKind::kNmea}, {"local", ConsumerKind::kLocal}};

ConsumerKind kind_of(const std::string& name) {
    const auto* const found = std::find_if(std::begin(kKinds), std::end(kKinds),
                                           [&](const auto& one) { return one.first == name; });
    need(found != std::end(kKinds), "kinds are json, nmea, local");
    return found->second;
}

void print_spread(const Spread& spread) {
    printf("  %7.2f (%.2f to %.2f)", spread.median, spread.least, spread.most);
}

void print_cost(const char* server, const std::vector<Result>& results, int64_t seconds, bool of_gpsd) {
    const double per_minute = kSecondsPerMinute / static_cast<double>(seconds);
    printf("  %-6s", server);
    if (of_gpsd) {
        print_spread(spread_of(results, [&](const Result& one) { return one.seconds.gpsds * per_minute; }));
    } else {
        print_spread(spread_of(results, [&](const Result& one) { return one.seconds.relay * per_minute; }));
        printf("  daemon");
        print_spread(spread_of(results, [&](const Result& one) { return one.seconds.daemon * per_minute; }));
    }
    const Result& last = results.back();
    const CostMemory& memory = of_gpsd ? last.gpsds : last.relay;
    printf("  PSS %ld RSS %ld USS %ld KiB", memory.proportional, memory.resident, memory.own);
    printf("  epochs %lu of %ld, lines %lu to %lu (fed %lu)\n", last.epochs_least, seconds * kEpochsPerSecond,
           last.lines_least, last.lines_most, last.lines_fed);
}

std::string text_of(const Spread& spread) {
    const int decimals = spread.median < 1 ? 3 : 2;
    std::array<char, 64> text = {};
    snprintf(text.data(), text.size(), "%.*f (%.*f to %.*f)", decimals, spread.median, decimals, spread.least,
             decimals, spread.most);
    return text.data();
}

std::string text_of(const CostMemory& memory) {
    std::array<char, 64> text = {};
    snprintf(text.data(), text.size(), "%.1f and %.1f MiB",
             static_cast<double>(memory.proportional) / kKibPerMib,
             static_cast<double>(memory.resident) / kKibPerMib);
    return text.data();
}

// A row of the table of docs/relay.md.
std::string row_of(const std::string& name, size_t count, int64_t seconds, const std::vector<Result>& relay,
                   const std::vector<Result>& gpsd) {
    const double per_minute = kSecondsPerMinute / static_cast<double>(seconds);
    const auto of_relay = [&](const Result& one) { return one.seconds.relay * per_minute; };
    const auto of_gpsd = [&](const Result& one) { return one.seconds.gpsds * per_minute; };
    return "| " + std::to_string(count) + ", " + (name == "json" ? "reports" : "sentences") + " | " +
           text_of(spread_of(relay, of_relay)) + " | " + text_of(spread_of(gpsd, of_gpsd)) + " | " +
           text_of(relay.back().relay) + " | " + text_of(gpsd.back().gpsds) + " |";
}

void print_table(const std::vector<std::string>& rows) {
    printf(
        "\n| Consumers | Relay | gpsd | Relay, PSS and RSS | gpsd, PSS and RSS |\n|---|---|---|---|---|\n");
    for (const std::string& row : rows) {
        printf("%s\n", row.c_str());
    }
    std::array<double, 3> load = {};
    getloadavg(load.data(), static_cast<int>(load.size()));
    printf("\nload average: %.2f %.2f %.2f\n", load[0], load[1], load[2]);
}

// Adds a row to the table where gpsd is compared.
void report_cost(const Settings& settings, const std::string& name, size_t count,
                 std::vector<std::string>& rows) {
    const ConsumerKind kind = kind_of(name);
    const bool with_gpsd = kind != ConsumerKind::kLocal;
    const size_t gpsd_count = with_gpsd ? (count + kGpsdClientsMax - 1) / kGpsdClientsMax : 0;
    Chain chain(gpsd_count);
    std::vector<Result> relay;
    std::vector<Result> gpsd;
    for (int round = 0; round < 2 * settings.rounds; ++round) {
        const bool of_gpsd = (round + round / 2) % 2 == 1; // A B B A
        if (!of_gpsd) {
            relay.push_back(run_once(chain, kind, count, false, settings.seconds));
        } else if (with_gpsd) {
            gpsd.push_back(run_once(chain, kind, count, true, settings.seconds));
        }
    }
    printf("%zu %s: processor seconds a minute, median (least to most)\n", count, name.c_str());
    print_cost("relay", relay, settings.seconds, false);
    if (with_gpsd) {
        rows.push_back(row_of(name, count, settings.seconds, relay, gpsd));
        print_cost(gpsd_count > 1 ? (std::to_string(gpsd_count) + " gpsd").c_str() : "gpsd", gpsd,
                   settings.seconds, true);
    }
    fflush(stdout);
}

// What a connection costs that watches nothing: pages of the relay and the kernel's buffers for it. The rest
// of the kernel's share (socket, file, entries of tables) is the same for every server.
void report_idle(size_t count) {
    const PrivateDir directory;
    const RelayServer relay((directory.path / "no-daemon").string(), directory);
    const long before = cost_memory(relay.process->pid).own;
    const long tcp_before = cost_tcp_buffers();
    const auto began = Clock::now();
    Run run;
    for (size_t i = 0; i < count; ++i) {
        consumers_add_tcp(run.group, ConsumerKind::kIdle, relay.port);
    }
    turn_until(run, [&] { return consumers_ready(run.group); });
    const auto took = std::chrono::duration_cast<Milliseconds>(Clock::now() - began);
    const long own = cost_memory(relay.process->pid).own - before;
    printf(
        "%zu idle: connected and greeted in %ld ms; %ld KiB more of the relay, %.2f KiB each; %ld KiB more "
        "of TCP buffers\n",
        count, took.count(), own, static_cast<double>(own) / static_cast<double>(count),
        cost_tcp_buffers() - tcp_before);
    fflush(stdout);
}

void report(const Settings& settings, const std::string& part, size_t count, std::vector<std::string>& rows) {
    for (const std::string& kind : settings.kinds) {
        if (part == "cost") {
            report_cost(settings, kind, count, rows);
        } else if (part == "latency") {
            latency_report(kind.c_str(), kind_of(kind), count, settings.seconds);
        }
    }
    if (part == "idle") {
        report_idle(count);
    }
}

} // namespace

int main(int argc, char** argv) {
    Settings settings;
    CLI::App app("what the relay costs beside gpsd");
    app.add_option("--seconds", settings.seconds, "of each run")->capture_default_str();
    app.add_option("--rounds", settings.rounds, "runs of each server")->capture_default_str();
    app.add_option("--consumers", settings.counts, "how many at a time")
        ->delimiter(',')
        ->capture_default_str();
    app.add_option("--kinds", settings.kinds, "of json, nmea, local")->delimiter(',')->capture_default_str();
    app.add_option("--parts", settings.parts, "of cost, latency, idle")
        ->delimiter(',')
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    std::vector<std::string> rows;
    try {
        for (const std::string& part : settings.parts) {
            for (const size_t count : settings.counts) {
                report(settings, part, count, rows);
            }
            if (part == "cost") {
                print_table(rows);
            }
        }
    } catch (const std::exception& error) {
        fprintf(stderr, "relay_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}

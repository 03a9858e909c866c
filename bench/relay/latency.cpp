#include "relay/latency.h"

#include "relay/servers.h"
#include "support/relay_loop.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr int64_t kEpochMs = 100;
constexpr int kWarmUpEpochs = 30; // the last sentence of an epoch is learnt, also by gpsd
constexpr int64_t kFirstEpoch = int64_t{10} * 60 * 60 * 1000;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr int kPatienceS = 20;

struct Source {
    std::unique_ptr<PlayedDaemon> daemon; // of the relay
    std::vector<std::unique_ptr<GpsdServer>> gpsds;
};

int64_t now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * kNsPerSecond + now.tv_nsec;
}

std::string sentence(const std::string& body) {
    unsigned sum = 0;
    for (const char c : body) {
        sum ^= static_cast<unsigned char>(c);
    }
    std::array<char, 8> end = {};
    snprintf(end.data(), end.size(), "*%02X\r\n", sum);
    return "$" + body + end.data();
}

std::vector<std::string> epoch_at(int64_t ms) {
    std::array<char, 16> text = {};
    snprintf(text.data(), text.size(), "%02d%02d%02d.%02d", static_cast<int>(ms / 3600000),
             static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
             static_cast<int>(ms / 10 % 100));
    const std::string time = text.data();
    return {sentence("GNRMC," + time + ",A,4317.71149,N,00521.92193,E,15.551,45.61,211126,,,A,V"),
            sentence("GNGGA," + time + ",4317.71149,N,00521.92193,E,1,20,0.72,12.2,M,49.8,M,,"),
            sentence("GNGSA,A,3,02,05,07,13,15,18,,,,,,,1.21,0.72,0.97,1"),
            sentence("GNGSA,A,3,65,72,73,80,,,,,,,,,1.21,0.72,0.97,2"),
            sentence("GNGST," + time + ",2.1,2.0,1.8,45.0,1.9,1.9,2.9")};
}

void send_epoch(const Source& source, ConsumerGroup& group, int64_t epoch) {
    for (const std::string& one : epoch_at(epoch)) {
        group.sent[epoch] = now_ns(); // the last one counts
        if (source.daemon) {
            source.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, one));
        }
        servers_feed(source.gpsds, one);
    }
}

void turn(const Source& source, ConsumerGroup& group, Clock::time_point end) {
    do {
        if (source.daemon) {
            source.daemon->turn();
        }
        consumers_turn(group, Milliseconds(1));
    } while (Clock::now() < end);
}

void wait_ready(const Source& source, ConsumerGroup& group) {
    const auto end = Clock::now() + std::chrono::seconds(kPatienceS);
    while (!consumers_ready(group) || (source.daemon && source.daemon->count(TAVOR_REQUEST_START) == 0)) {
        if (Clock::now() > end) {
            throw std::runtime_error("consumers wait in vain");
        }
        turn(source, group, Clock::now());
    }
}

void play(const Source& source, ConsumerGroup& group, int64_t seconds) {
    wait_ready(source, group);
    group.window = {kFirstEpoch + kWarmUpEpochs * kEpochMs, seconds * 1000};
    auto next = Clock::now();
    for (int64_t at = 0; at < kWarmUpEpochs * kEpochMs + group.window.length; at += kEpochMs) {
        send_epoch(source, group, kFirstEpoch + at);
        next += Milliseconds(kEpochMs);
        turn(source, group, next);
    }
}

void print(const char* server, std::vector<double>& ms) {
    if (ms.empty()) {
        printf("  %-6s nothing came\n", server);
        return;
    }
    std::sort(ms.begin(), ms.end());
    printf("  %-6s median %.2f ms, 99 %% %.2f ms, of %zu\n", server, ms[ms.size() / 2],
           ms[ms.size() * 99 / 100], ms.size());
}

void report_relay(ConsumerKind kind, size_t count, int64_t seconds) {
    const PrivateDir directory;
    const std::string path = (directory.path / "daemon").string();
    Source source;
    source.daemon = std::make_unique<PlayedDaemon>(path);
    const RelayServer relay(path, directory);
    ConsumerGroup group;
    for (size_t i = 0; i < count; ++i) {
        if (kind == ConsumerKind::kLocal) {
            const std::string name = "tavor-bench-" + std::to_string(getpid()) + "-" + std::to_string(i);
            consumers_add_local(group, relay.socket, name);
        } else {
            consumers_add_tcp(group, kind, relay.port);
        }
    }
    play(source, group, seconds);
    print("relay", group.latencies_ms);
}

void report_gpsd(ConsumerKind kind, size_t count, int64_t seconds) {
    const PrivateDir directory;
    Source source;
    ConsumerGroup group;
    for (size_t i = 0; i < count; ++i) {
        if (i % kGpsdClientsMax == 0) {
            source.gpsds.push_back(std::make_unique<GpsdServer>(directory));
        }
        consumers_add_tcp(group, kind, source.gpsds.back()->port);
    }
    play(source, group, seconds);
    print("gpsd", group.latencies_ms);
}

} // namespace

void latency_report(const char* name, ConsumerKind kind, size_t count, int64_t seconds) {
    printf("%zu %s: from the last sentence of an epoch to a consumer\n", count, name);
    report_relay(kind, count, seconds);
    if (kind != ConsumerKind::kLocal) {
        report_gpsd(kind, count, seconds);
    }
    fflush(stdout);
}

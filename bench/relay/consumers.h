// Many consumers in one loop: clients of gpsd's protocol on TCP, and local clients of the relay.
//
// A window of epochs is given beforehand, by the chip's time. Each consumer counts what belongs to it, so
// that all can be asked for the very same thing: the sentences from the first RMC in the window to the first
// one after it, or the reports from the first TPV in it.
#ifndef TAVOR_BENCH_RELAY_CONSUMERS_H
#define TAVOR_BENCH_RELAY_CONSUMERS_H

#include "tavor/protocol.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

enum class ConsumerKind {
    kJson,  // TCP, reports
    kNmea,  // TCP, sentences
    kIdle,  // TCP, watches nothing
    kLocal, // Unix datagrams, requested start
};

// Milliseconds of the chip's day.
struct ConsumerWindow {
    int64_t begin = 0;
    int64_t length = 0;
};

struct Consumer {
    ConsumerKind kind = ConsumerKind::kIdle;
    int fd = -1;
    std::string rest;    // a line without its end
    bool ready = false;  // it has what it asked for
    bool inside = false; // of the window
    int64_t latest = -1; // epoch
    uint64_t epochs = 0; // of the window
    uint64_t lines = 0;  // of the window
};

struct ConsumerGroup {
    ConsumerGroup();
    ~ConsumerGroup();
    ConsumerGroup(const ConsumerGroup&) = delete;
    ConsumerGroup& operator=(const ConsumerGroup&) = delete;

    int epoll = -1;
    ConsumerWindow window;
    std::deque<Consumer> all;
    // When the last sentence of an epoch was sent, ns of the system's clock. Where it is known the latencies
    // are taken, by the time at which the kernel had the bytes for the consumer.
    std::unordered_map<int64_t, int64_t> sent;
    std::vector<double> latencies_ms;
    std::function<void(const tavor_response&)> on_datagram; // of the first local consumer
};

// Connects to the port of this host and asks for what the kind says.
void consumers_add_tcp(ConsumerGroup& group, ConsumerKind kind, int port);

// Connects to the relay's socket; requests start.
void consumers_add_local(ConsumerGroup& group, const std::string& relay, const std::string& name);

// Reads what has come, waits for it at most this long.
void consumers_turn(ConsumerGroup& group, std::chrono::milliseconds limit);

bool consumers_ready(const ConsumerGroup& group);

// Milliseconds from the window's begin to the epoch; beyond half a day: before it.
int64_t consumers_into_window(const ConsumerWindow& window, int64_t epoch);

// The epoch that an RMC or a TPV gives.
std::optional<int64_t> consumers_epoch(std::string_view line);

#endif

// A fleet at one MQTT broker: many devices in one process and one loop, each with the relay's own output to
// MQTT and a connection of its own. Their fixes are made up; there are no daemons. bench/fleet.sh runs it.
#include "mqtt/mqtt_device.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLimit{60}; // to connect all, and to have all acknowledged

struct Fleet {
    std::vector<std::unique_ptr<MqttDevice>> devices;
    EventBasePtr base;
    EventPtr tick;
    double step = 0; // of the latest fix
    uint64_t fixes = 0;
};

// Private memory of a process in KiB.
long private_kib(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    long sum = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Private_")) {
            sum += std::strtol(line.c_str() + line.find(':') + 1, nullptr, 10);
        }
    }
    return sum;
}

// Time of a process of one thread on a processor, in seconds.
double processor_s(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/schedstat");
    double nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds / 1e9;
}

GnssEpoch fix_of(size_t device, double step) {
    GnssEpoch epoch;
    epoch.mode = GnssMode::k3d;
    epoch.quality = 1;
    epoch.time = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
    epoch.latitude = 43 + static_cast<double>(device) * 0.001;
    epoch.longitude = 5 + step * 0.0001;
    epoch.altitude = 12.2;
    epoch.separation = 49.8;
    epoch.speed = 8.1;
    epoch.course = 90;
    epoch.pdop = 1.2;
    epoch.hdop = 0.7;
    epoch.vdop = 1.0;
    epoch.satellites.resize(20);
    return epoch;
}

// A fix of each device.
void on_tick(evutil_socket_t /*unused*/, short /*unused*/, void* argument) {
    Fleet& fleet = *static_cast<Fleet*>(argument);
    fleet.step += 1;
    for (size_t i = 0; i < fleet.devices.size(); ++i) {
        mqtt_device_take(*fleet.devices[i], fix_of(i, fleet.step));
        ++fleet.fixes;
    }
}

template <typename Condition>
bool turn_until(const Fleet& fleet, Condition condition, Clock::duration limit) {
    const auto end = Clock::now() + limit;
    while (!condition() && Clock::now() < end) {
        event_base_loop(fleet.base.get(), EVLOOP_ONCE);
    }
    return condition();
}

size_t connected(const Fleet& fleet) {
    size_t count = 0;
    for (const auto& device : fleet.devices) {
        count += mqtt_connection_is_up(device->connection) ? 1 : 0;
    }
    return count;
}

uint64_t published(const Fleet& fleet) {
    uint64_t count = 0;
    for (const auto& device : fleet.devices) {
        count += device->published;
    }
    return count;
}

void open_devices(Fleet& fleet, size_t count, uint16_t port) {
    for (size_t i = 0; i < count; ++i) {
        MqttSettings settings;
        settings.host = "127.0.0.1";
        settings.port = port;
        settings.topic = "fleet";
        settings.id = "device-" + std::to_string(i);
        settings.every_s = 0.01; // each fix
        fleet.devices.push_back(std::make_unique<MqttDevice>());
        mqtt_device_open(*fleet.devices.back(), fleet.base.get(), settings);
    }
}

int run(size_t count, uint16_t port, pid_t broker, int seconds) {
    mosquitto_lib_init();
    Fleet fleet;
    fleet.base.reset(event_base_new());
    event_base_priority_init(fleet.base.get(), kPriorities);
    fleet.tick.reset(event_new(fleet.base.get(), -1, EV_PERSIST, on_tick, &fleet));
    const long own_before = private_kib(getpid());
    const long broker_before = private_kib(broker);
    const auto began = Clock::now();
    open_devices(fleet, count, port);
    if (!turn_until(
            fleet, [&] { return connected(fleet) == count; }, kLimit)) {
        fprintf(stderr, "fleet_bench: %zu of %zu devices connected\n", connected(fleet), count);
        return 1;
    }
    printf("%zu devices connected within %.2f s\n", count,
           std::chrono::duration<double>(Clock::now() - began).count());
    const double own_cpu = processor_s(getpid());
    const double broker_cpu = processor_s(broker);
    const auto start = Clock::now();
    event_arm(fleet.tick, std::chrono::seconds(1));
    turn_until(
        fleet, [] { return false; }, std::chrono::seconds(seconds));
    fleet.tick.reset();
    const double time = std::chrono::duration<double>(Clock::now() - start).count();
    printf("%.0f positions a second published and acknowledged, for %.0f s\n",
           static_cast<double>(published(fleet)) / time, time);
    printf("processor: broker %.1f %%, devices %.1f %% in all\n",
           (processor_s(broker) - broker_cpu) / time * 100, (processor_s(getpid()) - own_cpu) / time * 100);
    printf("private memory: broker %.1f KiB a device, devices %.1f KiB each\n",
           static_cast<double>(private_kib(broker) - broker_before) / static_cast<double>(count),
           static_cast<double>(private_kib(getpid()) - own_before) / static_cast<double>(count));
    const bool complete = turn_until(
        fleet, [&] { return published(fleet) == fleet.fixes; }, kLimit);
    printf("%lu fixes, %lu published\n", static_cast<unsigned long>(fleet.fixes),
           static_cast<unsigned long>(published(fleet)));
    for (const auto& device : fleet.devices) {
        mqtt_device_close(*device);
    }
    return complete ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: fleet_bench DEVICES PORT PID_OF_BROKER SECONDS\n");
        return 2;
    }
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return run(std::strtoul(argv[1], nullptr, 10), static_cast<uint16_t>(std::strtoul(argv[2], nullptr, 10)),
               static_cast<pid_t>(std::strtol(argv[3], nullptr, 10)),
               static_cast<int>(std::strtol(argv[4], nullptr, 10)));
}

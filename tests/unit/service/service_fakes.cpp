#include "service_fakes.h"

#include "assist/xod_download.h"
#include "assist/xod_file.h"
#include "config/location_config.h"
#include "debug/location_debug.h"
#include "device/location_gpio.h"
#include "download/hdl_driver.h"
#include "link/location_command.h"
#include "link/location_io.h"
#include "service/location_file.h"
#include "service/location_position.h"

#include <condition_variable>
#include <mutex>
#include <utility>

namespace {

struct Fakes {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<FakeCall> calls;
    std::map<std::string, int32_t> results;
    std::map<std::string, std::function<void()>> actions;
    std::string location_path;
};

Fakes fakes;

std::function<void()> action_of(const std::string& name) {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    const auto found = fakes.actions.find(name);
    return found == fakes.actions.end() ? [] {} : found->second;
}

int32_t record(const std::string& name, const std::string& arguments = "") {
    action_of(name)(); // may record calls of its own
    const std::lock_guard<std::mutex> guard(fakes.lock);
    fakes.calls.push_back(
        {arguments.empty() ? name : name + " " + arguments, std::chrono::steady_clock::now()});
    fakes.changed.notify_all();
    const auto found = fakes.results.find(name);
    return found == fakes.results.end() ? 0 : found->second;
}

std::string bytes(const void* data, uint32_t length) {
    return std::to_string(length) + ":" + std::string(static_cast<const char*>(data), length);
}

} // namespace

void fakes_reset() {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    fakes.calls.clear();
    fakes.results.clear();
    fakes.actions.clear();
}

void fakes_during(const std::string& name, std::function<void()> action) {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    fakes.actions[name] = std::move(action);
}

void fakes_result(const std::string& name, int32_t result) {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    fakes.results[name] = result;
}

void fakes_location_path(const std::string& path) {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    fakes.location_path = path;
}

std::vector<FakeCall> fakes_calls() {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    return fakes.calls;
}

std::vector<std::string> fakes_texts() {
    std::vector<std::string> texts;
    for (const FakeCall& call : fakes_calls()) {
        texts.push_back(call.text);
    }
    return texts;
}

bool fakes_wait_for(size_t count) {
    std::unique_lock<std::mutex> guard(fakes.lock);
    return fakes.changed.wait_for(guard, std::chrono::seconds(30),
                                  [&] { return fakes.calls.size() >= count; });
}

void fakes_response(uint32_t id, uint32_t value, const void* payload, uint32_t length) {
    const std::string head = std::to_string(id) + " " + std::to_string(value);
    record("reply", payload == nullptr && length == 0 ? head : head + " " + bytes(payload, length));
}

int32_t location_io_thread_init() {
    return record("io_init");
}
int32_t location_io_thread_deinit() {
    return record("io_deinit");
}
int32_t location_gpio_power_on() {
    return record("power_on");
}
int32_t location_gpio_power_off() {
    return record("power_off");
}
bool location_gpio_power_is_on() {
    const std::lock_guard<std::mutex> guard(fakes.lock);
    return fakes.results.contains("power_is_on");
}
void xod_mutex_init() {
    record("xod_mutex_init");
}
void xod_download_init(uint8_t mask, int32_t count) {
    record("xod_init", std::to_string(mask) + " " + std::to_string(count));
}
void location_debug_init() {
    record("debug_init");
}
int32_t location_debug_start() {
    return record("debug_start");
}
void location_debug_close() {
    record("debug_close");
}
void location_debug_stop() {
    record("debug_stop");
}
int32_t location_debug_set_mode(uint32_t mode) {
    return record("debug_mode", std::to_string(mode));
}
int32_t hdl_firmware_download() {
    return record("firmware_download");
}
int32_t location_command_send(const char* body) {
    return record("command", body);
}
int32_t location_service_save_location(const LocationRecord* location) {
    return record("save", location->utc);
}
void location_service_nmea_handle(const char* sentence, uint32_t length) {
    record("nmea", bytes(sentence, length));
}
void location_service_pzul_handle(const char* sentence, uint32_t length) {
    record("pzul", bytes(sentence, length));
}
void location_config_get_nmea_path(char* path) {
    record("nmea_path");
    const std::lock_guard<std::mutex> guard(fakes.lock);
    path[fakes.location_path.copy(path, kConfigTextSize - 1)] = '\0';
}

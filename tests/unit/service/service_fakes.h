// Recording stand-ins for everything that the service calls below the queue.
#ifndef TAVOR_TESTS_SERVICE_FAKES_H
#define TAVOR_TESTS_SERVICE_FAKES_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct FakeCall {
    std::string text; // name of the function and its arguments
    std::chrono::steady_clock::time_point at;
};

// Forgets all calls and results.
void fakes_reset();
// Result of the function from now on; 0 unless set.
void fakes_result(const std::string& name, int32_t result);
// What the function does while it runs; gone with the next reset.
void fakes_during(const std::string& name, std::function<void()> action);
// What location_config_get_nmea_path answers.
void fakes_location_path(const std::string& path);

std::vector<FakeCall> fakes_calls();
std::vector<std::string> fakes_texts();
// Waits until this many calls were recorded; false when that takes unreasonably long.
bool fakes_wait_for(size_t count);

// A response callback that records "reply ID VALUE", with a payload "reply ID VALUE LENGTH:BYTES".
void fakes_response(uint32_t id, uint32_t value, const void* payload, uint32_t length);

#endif

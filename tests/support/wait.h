// The tests' one way to wait for a condition that nothing announces.
#ifndef TAVOR_TESTS_WAIT_H
#define TAVOR_TESTS_WAIT_H

#include <chrono>
#include <functional>

// Generous limit of every wait; a wait that reaches it fails its test.
inline constexpr std::chrono::seconds kWaitLimit{60};

// Asks again and again, with pauses of 0.1 to 5 ms, until the condition holds. Returns false when the limit
// passed.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit = kWaitLimit);

#endif

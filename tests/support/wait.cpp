#include "support/wait.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::microseconds kFirstPause{100};
constexpr std::chrono::microseconds kLongestPause{5000};

} // namespace

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    for (std::chrono::microseconds pause = kFirstPause; !condition();
         pause = std::min(2 * pause, kLongestPause)) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

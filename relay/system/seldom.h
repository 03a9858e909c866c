// Lines that others can bring about as often as they like: one per second at most.
#ifndef TAVOR_RELAY_SELDOM_H
#define TAVOR_RELAY_SELDOM_H

#include <chrono>
#include <optional>
#include <utility>

struct Seldom {
    std::optional<std::chrono::steady_clock::time_point> told;
    int left_out = 0;
};

// None when there is to be no line now, else how many were left out before it.
inline std::optional<int> seldom(Seldom& line, std::chrono::steady_clock::time_point now) {
    if (line.told && now - *line.told < std::chrono::seconds(1)) {
        ++line.left_out;
        return std::nullopt;
    }
    line.told = now;
    return std::exchange(line.left_out, 0);
}

#endif

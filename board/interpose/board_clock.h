// The clock of a board: the host's, made faster and put forward. It lies in a file of the board's directory
// that the board server writes and every program on the board maps, so that all of them agree on what time it
// is. Times are nanoseconds.
#ifndef TAVOR_BOARD_CLOCK_H
#define TAVOR_BOARD_CLOCK_H

#include <atomic>
#include <cstdint>

// Name of the clock's file in the board's directory.
inline constexpr char kBoardClockName[] = "clock";

inline constexpr uint32_t kBoardClockFastest = 100000; // times the host's speed

// All zero is a good clock: the host's.
struct BoardClock {
    std::atomic<uint32_t> changes; // odd while the words below are being changed
    std::atomic<uint32_t> wakes;   // what timer threads wait on: counts the changes of clock and timers
    std::atomic<uint32_t> own;     // 0: the host's clock as it is
    std::atomic<uint32_t> speed;
    std::atomic<int64_t> host_ns;  // the host's monotonic clock at the last change
    std::atomic<int64_t> board_ns; // the board's monotonic clock then
    std::atomic<int64_t> utc_ns;   // UTC of the board minus its monotonic clock
};

// What the host's clocks say.
struct HostTime {
    int64_t monotonic_ns;
    int64_t utc_ns; // since 1970
};

// Reads them.
using HostClock = HostTime (*)();

// A board's clock at one moment.
struct BoardTime {
    int64_t monotonic_ns;
    int64_t utc_ns;
    uint32_t speed;
};

// The time now. Neither clock ever goes back.
BoardTime board_clock_now(const BoardClock& clock, HostClock host);

// How long the host waits until the board's clock has gone on by board_ns: rounded up.
int64_t board_clock_host_wait(const BoardClock& clock, int64_t board_ns);

// The changes, each by one writer at a time. From now on the board's UTC is utc_ns; for the start only, since
// this may put it back:
void board_clock_set_utc(BoardClock& clock, HostClock host, int64_t utc_ns);
// From now on the clock runs speed times as fast as the host's, 1 to kBoardClockFastest:
void board_clock_set_speed(BoardClock& clock, HostClock host, uint32_t speed);
// Both clocks go forward by by_ns at once, as if the time had passed:
void board_clock_advance(BoardClock& clock, HostClock host, int64_t by_ns);

// Tells those who wait that something has changed.
void board_clock_wake(BoardClock& clock);
// Waits until wakes is not seen_wakes any more or host_ns have passed (negative: without limit). May come
// back early.
void board_clock_wait(const BoardClock& clock, uint32_t seen_wakes, int64_t host_ns);

#endif

// Time of an interposed program: what tells it, what lets it pass.
#include "interpose/clock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <functional>
#include <memory>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int64_t kHour = 3600 * kNsPerSecond;
constexpr int64_t kMoment = 1798761600 * kNsPerSecond; // 2027-01-01T00:00:00Z

int64_t now_of(clockid_t clock) {
    timespec now = {};
    EXPECT_EQ(clock_gettime(clock, &now), 0);
    return interpose_ns_of(now);
}

// Program nanoseconds that a call takes.
template <typename Call> int64_t passed(const Call& call) {
    const int64_t before = now_of(CLOCK_MONOTONIC);
    call();
    return now_of(CLOCK_MONOTONIC) - before;
}

timespec in(clockid_t clock, int64_t ns) {
    return interpose_timespec_of(now_of(clock) + ns);
}

// Each test has its own clock, which nothing is left of.
struct InterposeClock : testing::Test {
    InterposeClock() {
        interpose_use_clock(clock.get());
    }
    ~InterposeClock() override {
        interpose_use_clock(nullptr);
    }

    void run(uint32_t speed) {
        board_clock_set_speed(*clock, interpose_host_time, speed);
    }
    void advance(int64_t ns) {
        board_clock_advance(*clock, interpose_host_time, ns);
    }

    std::unique_ptr<BoardClock> clock = std::make_unique<BoardClock>();
};

// The same at a speed at which an hour is 36 ms.
struct InterposeFastClock : InterposeClock {
    InterposeFastClock() {
        run(100000);
    }
};

TEST_F(InterposeClock, IsTheHostsAtFirst) {
    EXPECT_FALSE(interpose_clock_is_own());
    const HostTime host = interpose_host_time();
    EXPECT_GE(now_of(CLOCK_MONOTONIC), host.monotonic_ns);
    EXPECT_GE(now_of(CLOCK_REALTIME), host.utc_ns);
    EXPECT_LT(now_of(CLOCK_REALTIME) - host.utc_ns, kHour);
}

TEST_F(InterposeClock, AnAdvancePutsEveryClockForward) {
    const int64_t monotonic = now_of(CLOCK_MONOTONIC);
    const int64_t utc = now_of(CLOCK_REALTIME);
    advance(kHour);
    for (const clockid_t id : {CLOCK_MONOTONIC, CLOCK_MONOTONIC_RAW, CLOCK_BOOTTIME}) {
        EXPECT_GE(now_of(id), monotonic + kHour) << id;
    }
    EXPECT_GE(now_of(CLOCK_REALTIME), utc + kHour);
    EXPECT_LT(now_of(CLOCK_REALTIME), utc + 2 * kHour);
    EXPECT_LT(now_of(CLOCK_PROCESS_CPUTIME_ID), kHour) << "no clock that the board knows";
}

TEST_F(InterposeClock, EveryFunctionTellsTheSameTime) {
    board_clock_set_utc(*clock, interpose_host_time, kMoment);
    const time_t seconds = kMoment / kNsPerSecond;
    time_t stored = 0;
    EXPECT_EQ(time(&stored), stored);
    EXPECT_NEAR(static_cast<double>(time(nullptr) - seconds), 0, 600);
    timeval day = {};
    ASSERT_EQ(gettimeofday(&day, nullptr), 0);
    EXPECT_NEAR(static_cast<double>(day.tv_sec - seconds), 0, 600);
    timespec c11 = {};
    ASSERT_EQ(timespec_get(&c11, TIME_UTC), TIME_UTC);
    EXPECT_NEAR(static_cast<double>(c11.tv_sec - seconds), 0, 600);
    EXPECT_NEAR(static_cast<double>(now_of(CLOCK_REALTIME) / kNsPerSecond - seconds), 0, 600);
}

TEST_F(InterposeFastClock, SleepsTakeAsLongAsTheProgramAsked) {
    const timespec hour = {3600, 0};
    EXPECT_GE(passed([&] { EXPECT_EQ(nanosleep(&hour, nullptr), 0); }), kHour);
    EXPECT_GE(passed([&] { EXPECT_EQ(clock_nanosleep(CLOCK_REALTIME, 0, &hour, nullptr), 0); }), kHour);
    EXPECT_GE(passed([&] { EXPECT_EQ(sleep(3600), 0U); }), kHour);
    EXPECT_GE(passed([&] { EXPECT_EQ(usleep(UINT_MAX), 0); }), UINT_MAX * 1000LL);
}

TEST_F(InterposeFastClock, ASleepUntilADeadlineEndsThere) {
    for (const clockid_t id : {CLOCK_REALTIME, CLOCK_MONOTONIC}) {
        const timespec deadline = in(id, kHour);
        EXPECT_EQ(clock_nanosleep(id, TIMER_ABSTIME, &deadline, nullptr), 0);
        EXPECT_GE(now_of(id), interpose_ns_of(deadline));
    }
    const timespec gone = in(CLOCK_MONOTONIC, -kHour);
    EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &gone, nullptr), 0);
}

TEST_F(InterposeFastClock, AWrongTimeIsRefused) {
    const timespec wrong[] = {{0, kNsPerSecond}, {0, -1}, {-1, 0}};
    for (const timespec& time : wrong) {
        EXPECT_EQ(nanosleep(&time, nullptr), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr), EINVAL);
    }
}

TEST_F(InterposeFastClock, WaitsForFilesLastAsLongAsTheProgramAsked) {
    constexpr int kHourMs = 3600000;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pollfd file = {ends[0], POLLIN, 0};
    EXPECT_GE(passed([&] { EXPECT_EQ(poll(&file, 1, kHourMs), 0); }), kHour);
    const timespec hour = {3600, 0};
    EXPECT_GE(passed([&] { EXPECT_EQ(ppoll(&file, 1, &hour, nullptr), 0); }), kHour);
    timeval limit = {3600, 0};
    fd_set set;
    FD_ZERO(&set);
    FD_SET(ends[0], &set);
    EXPECT_GE(passed([&] { EXPECT_EQ(select(ends[0] + 1, &set, nullptr, nullptr, &limit), 0); }), kHour);
    EXPECT_FALSE(FD_ISSET(ends[0], &set));
    limit = {3600, 0};
    EXPECT_GE(passed([&] { EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &limit), 0); }), kHour);
    const int events = epoll_create1(0);
    epoll_event event = {};
    event.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(events, EPOLL_CTL_ADD, ends[0], &event), 0);
    EXPECT_GE(passed([&] { EXPECT_EQ(epoll_wait(events, &event, 1, kHourMs), 0); }), kHour);

    ASSERT_EQ(write(ends[1], "x", 1), 1); // what is there ends each at once
    run(1);
    EXPECT_EQ(poll(&file, 1, kHourMs), 1);
    EXPECT_EQ(ppoll(&file, 1, &hour, nullptr), 1);
    FD_SET(ends[0], &set);
    EXPECT_EQ(select(ends[0] + 1, &set, nullptr, nullptr, &limit), 1);
    EXPECT_TRUE(FD_ISSET(ends[0], &set));
    EXPECT_EQ(epoll_wait(events, &event, 1, kHourMs), 1);
    for (const int fd : {ends[0], ends[1], events}) {
        close(fd);
    }
}

// A wait with its deadline in an hour of this clock.
void expect_to_end_there(clockid_t clock, const std::function<void(const timespec&)>& wait) {
    const timespec limit = in(clock, kHour);
    wait(limit);
    EXPECT_GE(now_of(clock), interpose_ns_of(limit));
}

TEST_F(InterposeFastClock, DeadlinesOfSemaphoresLocksAndConditionsAreOnTheProgramsClock) {
    sem_t semaphore;
    ASSERT_EQ(sem_init(&semaphore, 0, 0), 0);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t other = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    ASSERT_EQ(pthread_mutex_lock(&mutex), 0);
    ASSERT_EQ(pthread_mutex_lock(&other), 0);
    std::thread([&] {
        expect_to_end_there(CLOCK_REALTIME, [&](const timespec& limit) {
            EXPECT_EQ(sem_timedwait(&semaphore, &limit), -1);
            EXPECT_EQ(errno, ETIMEDOUT);
        });
        expect_to_end_there(CLOCK_REALTIME, [&](const timespec& limit) {
            EXPECT_EQ(pthread_mutex_timedlock(&mutex, &limit), ETIMEDOUT);
        });
#ifndef __SANITIZE_THREAD__ // knows neither of them
        expect_to_end_there(CLOCK_MONOTONIC, [&](const timespec& limit) {
            EXPECT_EQ(sem_clockwait(&semaphore, CLOCK_MONOTONIC, &limit), -1);
            EXPECT_EQ(errno, ETIMEDOUT);
        });
        expect_to_end_there(CLOCK_MONOTONIC, [&](const timespec& limit) {
            EXPECT_EQ(pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &limit), ETIMEDOUT);
        });
#endif
    }).join();
    expect_to_end_there(CLOCK_MONOTONIC, [&](const timespec& limit) {
        EXPECT_EQ(pthread_cond_clockwait(&condition, &other, CLOCK_MONOTONIC, &limit), ETIMEDOUT);
    });
    pthread_mutex_unlock(&mutex);
    pthread_mutex_unlock(&other);
    sem_destroy(&semaphore);
}

TEST_F(InterposeFastClock, ASocketsTimeOutIsOnTheProgramsClock) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    const timeval hour = {3600, 0};
    ASSERT_EQ(setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &hour, sizeof hour), 0);
    char byte = 0;
    EXPECT_EQ(recv(pair[0], &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    const timeval none = {};
    ASSERT_EQ(setsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &none, sizeof none), 0);
    timeval kept = {1, 1};
    socklen_t size = sizeof kept;
    ASSERT_EQ(getsockopt(pair[0], SOL_SOCKET, SO_RCVTIMEO, &kept, &size), 0);
    EXPECT_EQ(kept.tv_sec + kept.tv_usec, 0) << "no time-out stays none";
    close(pair[0]);
    close(pair[1]);
}

TEST_F(InterposeClock, AnAdvanceEndsASleepThatHasBegun) {
    run(2); // at the host's own clock a sleep is left to the C library
    std::atomic<bool> over = false;
    std::thread sleeper([&] {
        sleep(36000);
        over = true;
    });
    while (!over) { // again and again: it may not sleep yet
        advance(kHour);
        std::this_thread::yield();
    }
    sleeper.join();
}

TEST_F(InterposeClock, ASignalEndsASleepAndTellsWhatIsLeft) {
    run(2);
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    sigaction(SIGUSR1, &action, &before);
    std::atomic<bool> over = false;
    std::thread sleeper([&] {
        const timespec day = {86400, 0};
        timespec left = {};
        EXPECT_EQ(nanosleep(&day, &left), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_GT(left.tv_sec, 0);
        EXPECT_LE(left.tv_sec, 86400);
        over = true;
    });
    while (!over) { // again and again: it may not sleep yet
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    sleeper.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(InterposeClock, ASleepingThreadCanBeCancelled) {
    run(2);
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      for (;;) {
                          usleep(1000000000);
                      }
                  },
                  nullptr),
              0);
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST_F(InterposeClock, AReaderNeverSeesHalfAChange) {
    run(1);
    std::atomic<bool> over = false;
    std::thread reader([&] {
        for (int64_t last = 0; !over;) {
            const int64_t now = now_of(CLOCK_MONOTONIC);
            EXPECT_GE(now, last);
            last = now;
        }
    });
    for (int i = 0; i < 2000; ++i) {
        advance(kNsPerSecond);
        run(i % 2 == 0 ? 1000 : 1);
    }
    over = true;
    reader.join();
}

struct BoardClockTest : testing::Test {
    BoardTime at(int64_t monotonic_ns, int64_t utc_ns) {
        return board_clock_now(clock, host_at(monotonic_ns, utc_ns));
    }
    // The host's clock, standing at a moment.
    static HostClock host_at(int64_t monotonic_ns, int64_t utc_ns) {
        static HostTime stands;
        stands = {monotonic_ns, utc_ns};
        return [] { return stands; };
    }

    BoardClock clock = {};
};

TEST_F(BoardClockTest, CountsFromTheLastChange) {
    EXPECT_EQ(at(100, 5000).monotonic_ns, 100);
    EXPECT_EQ(at(100, 5000).utc_ns, 5000);
    board_clock_set_utc(clock, host_at(100, 5000), 70000);
    EXPECT_EQ(at(110, 5010).monotonic_ns, 110);
    EXPECT_EQ(at(110, 5010).utc_ns, 70010);
    board_clock_set_speed(clock, host_at(110, 5010), 60);
    EXPECT_EQ(at(115, 9999).utc_ns, 70310) << "the host's UTC is of no matter";
    board_clock_advance(clock, host_at(120, 0), 1000);
    EXPECT_EQ(at(120, 0).monotonic_ns, 110 + 600 + 1000);
    EXPECT_EQ(at(121, 0).utc_ns, 70010 + 600 + 1000 + 60);
    EXPECT_EQ(at(121, 0).speed, 60U);
}

TEST_F(BoardClockTest, HostWaitsAreRoundedUp) {
    EXPECT_EQ(board_clock_host_wait(clock, 7), 7);
    board_clock_set_speed(clock, host_at(0, 0), 10);
    EXPECT_EQ(board_clock_host_wait(clock, 0), 0);
    EXPECT_EQ(board_clock_host_wait(clock, 1), 1);
    EXPECT_EQ(board_clock_host_wait(clock, 10), 1);
    EXPECT_EQ(board_clock_host_wait(clock, 11), 2);
}

} // namespace

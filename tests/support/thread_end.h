// How a thread ends that is cancelled on its way.
#ifndef TAVOR_TESTS_THREAD_END_H
#define TAVOR_TESTS_THREAD_END_H

#include "base/log_output.h"

#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>

// As in the daemon: a log line is written at once, and no thread ends in it.
[[maybe_unused]] inline const bool log_is_the_daemons = (log_output_init(), true);

// Runs the body on a thread of its own, waits for its end and returns what it ended with: PTHREAD_CANCELED,
// or null when the body came to its end.
inline void* end_of_thread(std::function<void()> body) {
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    void* end = nullptr;
    EXPECT_EQ(pthread_create(&thread, nullptr, run, &body), 0);
    EXPECT_EQ(pthread_join(thread, &end), 0);
    return end;
}

#endif

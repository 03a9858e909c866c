// A FIFO in place of a file, and a time limit for what meets it.
#ifndef TAVOR_TESTS_FIFO_H
#define TAVOR_TESTS_FIFO_H

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

// Puts a FIFO at the path, runs the function, and fails the test when it waits for the FIFO's other end.
inline void expect_no_wait_for_fifo(const std::string& path, const std::function<void()>& body) {
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::future<void> done = std::async(std::launch::async, body);
    if (done.wait_for(std::chrono::seconds(10)) == std::future_status::ready) {
        return;
    }
    ADD_FAILURE() << "waits for the other end of " << path;
    signal(SIGPIPE, SIG_IGN);
    close(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC)); // lets it go on
}

#endif

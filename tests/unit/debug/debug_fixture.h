// The debug outlet in a private directory, with a chip that records what is written to it.
#ifndef TAVOR_TESTS_DEBUG_FIXTURE_H
#define TAVOR_TESTS_DEBUG_FIXTURE_H

#include "support/debug_support.h"
#include "support/private_dir.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

// What was written to the chip, each write on its own.
std::vector<std::string> chip_writes();
// The same in one piece.
std::string chip_received();
// A silent chip takes a write and never comes back from it, except by cancellation or when it speaks again.
void chip_silent(bool silent);

// Hands the bytes to the outlet as the receive thread does.
void handle_text(const std::string& bytes);

// Leaves the process this many more descriptors than it has, for its lifetime.
struct DescriptorLimit {
    explicit DescriptorLimit(unsigned more);
    ~DescriptorLimit();
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    rlimit before{};
};

// The outlet's message queue, -1 when there is none, and the messages in it.
int debug_queue();
size_t messages_in_queue();

struct DebugTest : testing::Test {
    void SetUp() override;
    void TearDown() override;

    // Writes the configuration: the TCP port, the serial line with its flow control, the log file.
    void configure() const;

    // Standard output since the test began, and its lines but those of the configuration getters.
    std::string log() const;
    std::vector<std::string> log_lines() const;
    size_t log_count(const std::string& text) const;

    // Connects and waits until the outlet has listed the client; that many are listed then.
    std::unique_ptr<TcpClient> connect_listed(int listed, int receive_buffer = 0);

    PrivateDir directory;
    PseudoTerminal line;
    uint16_t port = free_port();
    int32_t flow_control = 0;
    std::string line_path = line.path;
    std::string log_path = (directory.path / "log.dat").string();

    size_t threads_before;
    int saved_stdout;
};

#endif

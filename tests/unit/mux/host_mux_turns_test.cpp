// Where an operation gives the mutex, so that the other direction gets its turn.
#include "host_mux_fixture.h"

#include <cerrno>

namespace {

struct Turns {
    const MuxSlave* slave = nullptr; // null: nothing is recorded
    size_t frames_seen = 0;
    Lines order; // frames in hexadecimal digits and gives, as they came
} turns;

std::string digits(const Bytes& frame) {
    std::string text;
    for (const uint8_t byte : frame) {
        char two[3];
        snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

void note_frames() {
    const Frames& frames = turns.slave->frames;
    for (; turns.frames_seen < frames.size(); ++turns.frames_seen) {
        turns.order.push_back(digits(frames[turns.frames_seen]));
    }
}

struct HostMuxTurns : HostMux {
    void SetUp() override {
        HostMux::SetUp();
        turns = {.slave = &slave, .frames_seen = 0, .order = {}};
        slave.status_answer = [](uint8_t honest) {
            EXPECT_EQ(pthread_mutex_trylock(g_host_mux_spi_master_mutex), EBUSY);
            return honest;
        };
    }

    void TearDown() override {
        turns = {};
        HostMux::TearDown();
    }
};

} // namespace

// The linker leads the calls of the code under test here.
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (turns.slave != nullptr && mutex == g_host_mux_spi_master_mutex) {
        note_frames();
        turns.order.emplace_back("give");
    }
    return __real_pthread_mutex_unlock(mutex);
}

TEST_F(HostMuxTurns, ReceiveGivesTheMutexBeforeAndBehindEachPhase) {
    slave.give({'a', 'b', 'c'});
    ASSERT_TRUE(receive());
    note_frames();
    EXPECT_EQ(turns.order, (Lines{"04", "0600", "give",                                     // power on
                                  "0a0800000003000000", "0600", "8100000000", "give",       // length
                                  "0a0020000002000000", "0600", "81000000", "0600", "give", // data
                                  "02", "0600", "give"}));                                  // power off
}

TEST_F(HostMuxTurns, SendGivesTheMutexBeforeAndBehindEachPhase) {
    ASSERT_TRUE(send({'a', 'b', 'c'}));
    note_frames();
    EXPECT_EQ(turns.order, (Lines{"04", "0600", "give",                                       // power on
                                  "0a0400000003000000", "0600", "8100000000", "0600", "give", // length
                                  "0c0010000002000000", "0600", "0e616263", "0600", "give",   // data
                                  "02", "0600", "give"}));                                    // power off
}

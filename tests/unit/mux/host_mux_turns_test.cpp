// Where an operation gives the mutex, so that the other direction gets its turn.
#include "host_mux_fixture.h"

#include <cerrno>

namespace {

const Bytes kGive = {}; // stands for a give of the mutex among the frames

struct Turns {
    const MuxSlave* slave = nullptr; // null: nothing is recorded
    size_t frames_seen = 0;
    Frames order; // frames and gives as they came
} turns;

void note_frames() {
    const Frames& frames = turns.slave->frames;
    turns.order.insert(turns.order.end(), frames.begin() + static_cast<std::ptrdiff_t>(turns.frames_seen),
                       frames.end());
    turns.frames_seen = frames.size();
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
        turns.order.push_back(kGive);
    }
    return __real_pthread_mutex_unlock(mutex);
}

TEST_F(HostMuxTurns, ReceiveGivesTheMutexBeforeAndBehindEachPhase) {
    slave.give({'a', 'b', 'c'});
    ASSERT_TRUE(receive());
    note_frames();
    EXPECT_EQ(turns.order, Frames({kOnFrame,
                                   kStatusFrame,
                                   kGive,
                                   {0x0A, 0x08, 0, 0, 0, 3, 0, 0, 0},
                                   kStatusFrame,
                                   {0x81, 0, 0, 0, 0},
                                   kGive,
                                   {0x0A, 0x00, 0x20, 0, 0, 2, 0, 0, 0},
                                   kStatusFrame,
                                   {0x81, 0, 0, 0},
                                   kStatusFrame,
                                   kGive,
                                   kOffFrame,
                                   kStatusFrame,
                                   kGive}));
}

TEST_F(HostMuxTurns, SendGivesTheMutexBeforeAndBehindEachPhase) {
    ASSERT_TRUE(send({'a', 'b', 'c'}));
    note_frames();
    EXPECT_EQ(turns.order, Frames({kOnFrame,
                                   kStatusFrame,
                                   kGive,
                                   {0x0A, 0x04, 0, 0, 0, 3, 0, 0, 0},
                                   kStatusFrame,
                                   {0x81, 0, 0, 0, 0},
                                   kStatusFrame,
                                   kGive,
                                   {0x0C, 0x00, 0x10, 0, 0, 2, 0, 0, 0},
                                   kStatusFrame,
                                   {0x0E, 'a', 'b', 'c'},
                                   kStatusFrame,
                                   kGive,
                                   kOffFrame,
                                   kStatusFrame,
                                   kGive}));
}

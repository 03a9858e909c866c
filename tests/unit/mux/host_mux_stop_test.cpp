// No wait holds up a stop: cancellation and the mark of a pending stop end each of them and leave nothing
// behind.
#include "base/log_output.h"
#include "base/stop_request.h"
#include "host_mux_fixture.h"
#include "mux/host_mux_lock.h"
#include "support/wait.h"

#include <cstdio>
#include <optional>
#include <pthread.h>

namespace {

// As in the daemon: a log line is written at once, and no thread ends in it.
[[maybe_unused]] const bool log_is_the_daemons = (log_output_init(), true);

// One operation on a thread of its own.
struct Worker {
    enum Kind { kReceive, kSend };

    Worker(host_mux_handle* mux, Kind operation) : handle(mux), kind(operation) {
        EXPECT_EQ(pthread_create(&thread, nullptr, run, this), 0);
    }

    static void* run(void* self) {
        auto* worker = static_cast<Worker*>(self);
        worker->started = true;
        const int32_t result = worker->kind == kReceive
                                   ? host_mux_rx(worker->handle, worker->buffer, &worker->length)
                                   : host_mux_tx(worker->handle, worker->buffer, &worker->length);
        return result == 0 ? nullptr : &worker->failed;
    }

    void* join() {
        void* result = nullptr;
        EXPECT_EQ(pthread_join(thread, &result), 0);
        return result;
    }

    void* cancel_and_join() {
        EXPECT_EQ(pthread_cancel(thread), 0);
        return join();
    }

    bool join_failed() {
        return join() == &failed;
    }

    host_mux_handle* handle;
    Kind kind;
    uint8_t buffer[64] = {};
    uint32_t length = sizeof buffer;
    int failed = 0;
    std::atomic<bool> started{false};
    pthread_t thread{};
};

struct HostMuxStop : HostMux {
    bool wait_for_transfers(size_t more) {
        const size_t goal = slave.transfers + more;
        return wait_until([&] { return slave.transfers >= goal; });
    }

    void make_silent() {
        slave.status_answer = [](uint8_t) { return uint8_t{0xFF}; };
    }
    void make_never_ready() {
        slave.status_answer = [](uint8_t honest) { return static_cast<uint8_t>(honest & 0x01); };
    }
    void make_stuck_on() {
        slave.status_answer = [](uint8_t honest) { return static_cast<uint8_t>(honest | 0x01); };
    }

    // The slave is well until this many status queries were answered.
    void turn_into_errors_after(size_t queries) {
        slave.status_answer = [queries, count = size_t{0}](uint8_t honest) mutable {
            return ++count > queries ? uint8_t{0x19} : honest;
        };
    }
};

} // namespace

// Nothing of an operation stays behind, and it ends within a round of what it does, however it is ended.
TEST_F(HostMuxStop, EveryEndlessStateEndsByCancellationAndByAPendingStop) {
    const std::function<void()> states[] = {
        [&] { make_silent(); },
        [&] { make_stuck_on(); },
        [&] { slave.chip.faults.unpowered = true; },
        [&] { turn_into_errors_after(0); },
        [&] { turn_into_errors_after(1); },
        [&] { turn_into_errors_after(2); },
        [&] { turn_into_errors_after(3); },
        [&] { turn_into_errors_after(4); },
    };
    for (size_t state = 0; state < std::size(states); ++state) {
        for (const bool cancelled : {true, false}) {
            for (const auto kind : {Worker::kReceive, Worker::kSend}) {
                SCOPED_TRACE(testing::Message() << state << " " << cancelled << " " << kind);
                slave.give(counted_bytes(10));
                states[state]();
                capture_stdout([&] {
                    Worker worker(&handle, kind);
                    EXPECT_TRUE(wait_for_transfers(220)); // an operation that ends needs fewer
                    std::optional<StopRequest> stop;
                    if (!cancelled) {
                        stop.emplace();
                    }
                    const size_t before = slave.transfers;
                    void* const result = cancelled ? worker.cancel_and_join() : worker.join();
                    EXPECT_EQ(result == PTHREAD_CANCELED, cancelled);
                    EXPECT_LT(slave.transfers - before, cancelled ? 210U : 10U);
                });
                expect_usable();
            }
        }
    }
}

TEST_F(HostMuxStop, CancelledWhileAnotherThreadHoldsTheMutex) {
    for (const auto kind : {Worker::kReceive, Worker::kSend}) {
        ASSERT_EQ(pthread_mutex_lock(g_host_mux_spi_master_mutex), 0);
        Worker worker(&handle, kind);
        EXPECT_TRUE(wait_until([&] { return worker.started.load(); }));
        EXPECT_EQ(worker.cancel_and_join(), PTHREAD_CANCELED);
        EXPECT_EQ(slave.transfers, 0U);
        pthread_mutex_unlock(g_host_mux_spi_master_mutex);
    }
    expect_usable();
}

TEST_F(HostMuxStop, CancellationWaitsForTheEndOfAnOperationThatGoesWell) {
    slave.give(counted_bytes(10));
    std::atomic<bool> cancelled{false};
    slave.status_answer = [&](uint8_t honest) {
        EXPECT_TRUE(wait_until([&] { return cancelled.load(); }));
        return honest;
    };
    capture_stdout([&] {
        Worker worker(&handle, Worker::kReceive);
        EXPECT_EQ(pthread_cancel(worker.thread), 0);
        cancelled = true;
        EXPECT_EQ(worker.join(), nullptr);
        EXPECT_EQ(worker.length, 10U);
    });
    EXPECT_EQ(slave.frames.size(), 11U);
    expect_usable();
}

TEST_F(HostMuxStop, CommandsBeforeAPendingStopCostAFewTransfersEach) {
    const std::pair<std::function<void()>, size_t> states[] = {{[&] { make_silent(); }, 2},
                                                               {[&] { turn_into_errors_after(0); }, 3},
                                                               {[&] { make_never_ready(); }, 6}};
    const StopRequest stop;
    for (const auto& [set_state, transfers] : states) {
        set_state();
        reset_sleeps();
        const size_t before = slave.transfers;
        for (int i = 0; i < 100; ++i) {
            EXPECT_FALSE(send({'a'}));
        }
        EXPECT_EQ(slave.transfers - before, 100 * transfers);
        EXPECT_EQ(slept_us(), slave.transfers - before == 300 ? 100 * 100U : 0U)
            << "only behind a cleared error";
        expect_usable();
    }
}

TEST_F(HostMuxStop, PendingStopDoesNotFailTheWaitForTheMutex) {
    slave.give({'a'});
    ASSERT_EQ(pthread_mutex_lock(g_host_mux_spi_master_mutex), 0);
    capture_stdout([&] {
        Worker worker(&handle, Worker::kReceive);
        EXPECT_TRUE(wait_until([&] { return worker.started.load(); }));
        const StopRequest stop;
        pthread_mutex_unlock(g_host_mux_spi_master_mutex);
        EXPECT_EQ(worker.join(), nullptr);
        EXPECT_EQ(worker.length, 1U);
    });
    expect_usable();
}

TEST_F(HostMuxStop, SlaveThatIsAboutToBeStoppedIsNotSwitchedOnAgain) {
    const StopRequest stop;
    slave.give({'a'});
    EXPECT_TRUE(receive()) << "an operation that goes well is not held up";
    EXPECT_TRUE(send({'b'}));
    slave.frames.clear();
    slave.give({'a'});
    slave.status_answer = [count = 0](uint8_t honest) mutable {
        return ++count == 2 ? uint8_t{0x09} : honest;
    };
    EXPECT_FALSE(receive());
    EXPECT_EQ(frames_of(0x04), 1U);
    EXPECT_FALSE(slave.chip.slave.powered);
    EXPECT_EQ(host_mux_spi_power_counter(), 0);
}

TEST_F(HostMuxStop, ClosingEndsAnOperationThatHangs) {
    make_silent();
    const std::string text = capture_stdout([&] {
        Worker worker(&handle, Worker::kSend);
        EXPECT_TRUE(wait_for_transfers(20));
        EXPECT_EQ(host_mux_deinit(&handle), 0);
        EXPECT_TRUE(worker.join_failed());
    });
    EXPECT_EQ(text.find("destroy_mutex fail"), std::string::npos) << "closed under the operation";
    EXPECT_EQ(g_host_mux_spi_master_mutex, nullptr);
    EXPECT_FALSE(stop_request_pending());
}

TEST_F(HostMuxStop, CancelledOperationTakesBackItsOwnPowerRequestOnly) {
    turn_into_errors_after(1);
    capture_stdout([&] {
        host_mux_spi_power_on(handle.id);
        Worker worker(&handle, Worker::kReceive);
        EXPECT_TRUE(wait_for_transfers(100));
        EXPECT_EQ(host_mux_spi_power_counter(), 2);
        EXPECT_EQ(worker.cancel_and_join(), PTHREAD_CANCELED);
        EXPECT_EQ(host_mux_spi_power_counter(), 1);
        slave.status_answer = nullptr;
        portable_HAL_SPI_POWER_OFF(handle.id);
    });
    expect_usable();
}

TEST_F(HostMuxStop, WithoutAMutexNothingIsTaken) {
    EXPECT_FALSE(host_mux_take(nullptr));
}

// Both directions at once: the mutex keeps transfers apart and lets each direction in.
#include "host_mux_fixture.h"
#include "mux/host_mux_lock.h"

#include <chrono>

namespace {

constexpr auto kLimit = std::chrono::seconds(120);

struct HostMuxThreads : HostMux {
    // Receives until this many bytes have come or the limit is over.
    Bytes receive_all(size_t count) {
        Bytes all;
        uint8_t buffer[700];
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (all.size() < count && std::chrono::steady_clock::now() < end) {
            uint32_t length = sizeof buffer;
            if (host_mux_rx(&handle, buffer, &length) == 0) {
                all.insert(all.end(), buffer, buffer + length);
            }
        }
        return all;
    }

    void send_all(const Bytes& data) {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        for (size_t done = 0; done < data.size() && std::chrono::steady_clock::now() < end;) {
            auto length = static_cast<uint32_t>(std::min<size_t>(300, data.size() - done));
            if (host_mux_tx(&handle, data.data() + done, &length) == 0) {
                done += length;
            }
        }
    }
};

} // namespace

TEST_F(HostMuxThreads, BothDirectionsAtOnceKeepTheirBytes) {
    const Bytes down = counted_bytes(40000);
    const Bytes up = counted_bytes(20000);
    slave.give(down);
    slave.chip.options.rx_window = 257;
    Bytes got;
    capture_stdout([&] {
        std::thread sender([&] { send_all(up); });
        std::thread receiver([&] { got = receive_all(down.size()); });
        sender.join();
        receiver.join();
    });
    EXPECT_EQ(got, down);
    EXPECT_EQ(slave.taken(), up);
    expect_usable();
}

TEST_F(HostMuxThreads, TakingPausesAsLongAsAnotherThreadWaits) {
    const port_platform_mutex free_mutex = port_platform_create_mutex();
    const auto take_free = [free_mutex] {
        EXPECT_TRUE(host_mux_take(free_mutex));
        port_platform_give_mutex(free_mutex);
    };
    take_free();
    EXPECT_EQ(sleeps_of(100), 0U);

    ASSERT_EQ(pthread_mutex_lock(g_host_mux_spi_master_mutex), 0);
    std::thread waiter([] {
        EXPECT_TRUE(host_mux_take(g_host_mux_spi_master_mutex));
        port_platform_give_mutex(g_host_mux_spi_master_mutex);
    });
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (sleeps_of(100) == 0 && std::chrono::steady_clock::now() < end) {
        take_free();
    }
    EXPECT_GT(sleeps_of(100), 0U);
    pthread_mutex_unlock(g_host_mux_spi_master_mutex);
    waiter.join();

    reset_sleeps();
    take_free();
    EXPECT_EQ(sleeps_of(100), 0U);
    port_platform_mutex unused = free_mutex;
    port_platform_destroy_mutex(&unused);
}

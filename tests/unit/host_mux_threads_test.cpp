// Both directions at once: the mutex keeps transfers apart and lets each direction in.
#include "host_mux_fixture.h"

#include <chrono>

namespace {

constexpr auto kLimit = std::chrono::seconds(120);

struct HostMuxThreads : HostMux {
    // Receives until so many bytes have come or the limit is over.
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
    slave.to_host = down;
    slave.room = 257;
    Bytes got;
    capture_stdout([&] {
        std::thread sender([&] { send_all(up); });
        std::thread receiver([&] { got = receive_all(down.size()); });
        sender.join();
        receiver.join();
    });
    EXPECT_EQ(got, down);
    EXPECT_EQ(slave.from_host, up);
    expect_usable();
}

TEST_F(HostMuxThreads, SenderGetsInBetweenReceivesWithoutPause) {
    slave.announced = 1;
    slave.to_host.assign(5'000'000, 'x');
    std::atomic<bool> stop{false};
    size_t receives = 0;
    capture_stdout([&] {
        std::thread receiver([&] {
            uint8_t byte = 0;
            while (!stop) {
                uint32_t length = 1;
                host_mux_rx(&handle, &byte, &length);
                ++receives;
            }
        });
        send_all(Bytes(20, 'y'));
        stop = true;
        receiver.join();
    });
    EXPECT_EQ(slave.from_host, Bytes(20, 'y'));
    EXPECT_LT(receives, 100000U);
    slave.to_host.clear();
}

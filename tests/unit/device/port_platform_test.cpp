#include "device/port_platform.h"

#include "device_record.h"
#include "support/call_fault.h"
#include "support/format_fault.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <sys/select.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kUnknownBus = 2;

struct Wrapped {
    std::vector<useconds_t> sleeps;
    std::vector<timeval> selects;
    std::vector<int> select_errors; // taken from the front; then success
    int destroy_result;
} wrapped;

} // namespace

extern "C" {
int __real_sem_destroy(sem_t* semaphore);
int __wrap_sem_destroy(sem_t* semaphore);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_usleep(useconds_t us);
int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* err, timeval* timeout);

int __wrap_sem_destroy(sem_t* semaphore) {
    const int result = __real_sem_destroy(semaphore);
    return wrapped.destroy_result != 0 ? wrapped.destroy_result : result;
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_destroy(mutex);
    return wrapped.destroy_result != 0 ? wrapped.destroy_result : result;
}

int __wrap_usleep(useconds_t us) {
    wrapped.sleeps.push_back(us);
    return 0;
}

// As the kernel does, an interrupted wait takes its time off: a third of it here.
int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* err, timeval* timeout) {
    EXPECT_EQ(count, 0);
    EXPECT_TRUE(in == nullptr && out == nullptr && err == nullptr);
    wrapped.selects.push_back(*timeout);
    if (wrapped.select_errors.empty()) {
        return 0;
    }
    timeout->tv_usec -= timeout->tv_usec / 3;
    errno = wrapped.select_errors.front();
    wrapped.select_errors.erase(wrapped.select_errors.begin());
    return -1;
}
}

namespace {

struct PortPlatform : DeviceRecord {
    PortPlatform() {
        wrapped = {};
    }
    ~PortPlatform() override {
        format_fault_disarm();
        wrapped = {};
    }

    // Runs one transaction on the bus, opened for it, and keeps its log.
    int32_t transfer(uint32_t bus, const port_platform_transfer& what) {
        const void* config = bus == HOST_MUX_BUS_SPI ? static_cast<const void*>(&spi) : &i2c;
        const int32_t fd = port_platform_bus_init(bus, config);
        const int32_t result = run([&] { return port_platform_bus_transfer(bus, fd, &what); });
        transfers = calls;
        port_platform_bus_deinit(bus, fd);
        return result;
    }

    host_mux_spi_port_config spi = {24000000, 0, 0, 0, "/dev/spidev1.0"};
    host_mux_i2c_port_config i2c = {0, "/dev/i2c-2"};
    Lines transfers; // the calls of the last transaction
    uint8_t rx[8] = {};
    uint8_t tx[8] = "abcdefg";
};

} // namespace

TEST_F(PortPlatform, SpiInitTurnsTheBitOrderRoundAndMakesTheModeOfPhaseAndPolarity) {
    for (const uint8_t order : std::vector<uint8_t>{0, 1, 2, 255}) {
        spi.bit_order = order;
        spi.cpha = order & 1U;
        spi.cpol = order > 1 ? 1 : 0;
        const int32_t fd = run([&] { return port_platform_bus_init(HOST_MUX_BUS_SPI, &spi); });
        EXPECT_EQ(calls, (Lines{"open /dev/spidev1.0", "mode " + std::to_string(order == 255 ? 3 : order),
                                "bits 8", order == 0 ? "lsb 1" : "lsb 0", "speed 24000000"}));
        EXPECT_EQ(port_platform_bus_deinit(HOST_MUX_BUS_SPI, fd), 0);
        EXPECT_EQ(calls.back(), "close /dev/spidev1.0");
    }
}

TEST_F(PortPlatform, I2cInitOpensThePathBehindTheFirstWord) {
    static_assert(offsetof(host_mux_i2c_port_config, path) == 4);
    const int32_t fd = port_platform_bus_init(HOST_MUX_BUS_I2C, &i2c);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(calls, Lines{"open /dev/i2c-2"});
    EXPECT_EQ(port_platform_bus_deinit(HOST_MUX_BUS_I2C, fd), 0);
    EXPECT_EQ(calls.back(), "close /dev/i2c-2");
}

TEST_F(PortPlatform, PathThatCanNotBeTakenIsToldAndNothingIsOpened) {
    format_fault_arm(0);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(port_platform_bus_init(HOST_MUX_BUS_SPI, &spi), -1); }),
              "port_platform_bus_init, get path fail\n[LOCSERV] ERR: [spi]location_spi_init, open fail\n");
    format_fault_arm(0);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(port_platform_bus_init(HOST_MUX_BUS_I2C, &i2c), -1); }),
              "port_platform_bus_init, get path fail\n"
              "[LOCSERV] ERR: location_i2c_init, open fail\n");
    EXPECT_TRUE(calls.empty());
}

TEST_F(PortPlatform, UnknownBusIsRejectedSilently) {
    const port_platform_transfer both = {rx, tx, 1, 1, 0};
    EXPECT_EQ(capture_stdout([&] {
                  EXPECT_EQ(port_platform_bus_init(kUnknownBus, &spi), -1);
                  EXPECT_EQ(port_platform_bus_transfer(kUnknownBus, 0, &both), -1);
                  EXPECT_EQ(port_platform_bus_deinit(kUnknownBus, 0), -1);
              }),
              "");
    EXPECT_TRUE(calls.empty());
}

TEST_F(PortPlatform, SpiTransferClocksTheLargerLength) {
    EXPECT_EQ(transfer(HOST_MUX_BUS_SPI, {rx, tx, 5, 1, 0}), 0);
    EXPECT_EQ(transfers, Lines{"clock 5"});
    EXPECT_EQ(transfer(HOST_MUX_BUS_SPI, {rx, tx, 2, 6, 0}), 0);
    EXPECT_EQ(transfers, Lines{"clock 6"});
    EXPECT_EQ(message.tx_buf, reinterpret_cast<uintptr_t>(tx));
    EXPECT_EQ(message.rx_buf, reinterpret_cast<uintptr_t>(rx));
    EXPECT_EQ(transfer(HOST_MUX_BUS_SPI, {nullptr, tx, 0, 6, 0}), 0);
    EXPECT_EQ(message.rx_buf, 0U);
}

TEST_F(PortPlatform, I2cTransferGoesInTheDirectionOfItsOneLength) {
    EXPECT_EQ(transfer(HOST_MUX_BUS_I2C, {rx, nullptr, 5, 0, 0x41}), 0);
    EXPECT_EQ(transfers, (Lines{"slave 65", "read 5"}));
    EXPECT_EQ(transfer(HOST_MUX_BUS_I2C, {nullptr, tx, 0, 6, 0x42}), 0);
    EXPECT_EQ(transfers, (Lines{"slave 66", "write abcdef"}));
    EXPECT_EQ(transfer(HOST_MUX_BUS_I2C, {rx, tx, 1, 1, 0x41}), -1);
    EXPECT_EQ(log, Lines{"port_platform_bus_transfer, rx len > 0 and tx len > 0"});
    EXPECT_TRUE(transfers.empty());
    EXPECT_EQ(transfer(HOST_MUX_BUS_I2C, {rx, tx, 0, 0, 0x41}), -1);
    EXPECT_EQ(log, Lines{"port_platform_bus_transfer, len <= 0"});
    EXPECT_TRUE(transfers.empty());
}

TEST_F(PortPlatform, TransferNeedsAtLeastOneByteMoved) {
    const std::pair<uint32_t, port_platform_transfer> ways[] = {{HOST_MUX_BUS_SPI, {rx, tx, 5, 5, 0}},
                                                                {HOST_MUX_BUS_I2C, {rx, nullptr, 5, 0, 1}},
                                                                {HOST_MUX_BUS_I2C, {nullptr, tx, 0, 5, 1}}};
    for (const auto& [bus, way] : ways) {
        for (const ssize_t count : {5, 1, 0, -1}) {
            moved = count;
            EXPECT_EQ(transfer(bus, way), count > 0 ? 0 : -1) << bus << " " << count;
            EXPECT_EQ(log.empty(), bus == HOST_MUX_BUS_I2C || count >= 0);
        }
    }
}

TEST_F(PortPlatform, SleepWaitsInSelectAndGoesOnWithTheTimeLeftUntilAnyOtherFailureThanAnInterrupt) {
    wrapped.select_errors = {EINTR, EINTR, EINVAL};
    port_platform_sleep_ms(2900);
    ASSERT_EQ(wrapped.selects.size(), 3U);
    EXPECT_TRUE(wrapped.sleeps.empty());
    EXPECT_EQ(wrapped.selects[0].tv_sec, 2);
    EXPECT_EQ(wrapped.selects[0].tv_usec, 900000);
    EXPECT_EQ(wrapped.selects[1].tv_usec, 600000);
    EXPECT_EQ(wrapped.selects[2].tv_usec, 400000);
}

TEST_F(PortPlatform, SemaphoreStartsAtOneAndBlocksUntilGivenWhateverTheTimeout) {
    port_platform_semaphore semaphore = port_platform_create_semaphore();
    ASSERT_NE(semaphore, nullptr);
    ASSERT_EQ(port_platform_take_semaphore(semaphore, 1), 0);

    std::atomic<bool> given = false;
    std::atomic<bool> taken_after_given = false;
    std::atomic<bool> waiting = false;
    std::thread taker([&] {
        waiting = true;
        EXPECT_EQ(port_platform_take_semaphore(semaphore, 1), 0);
        taken_after_given = given.load();
    });
    while (!waiting) {
        std::this_thread::yield();
    }
    // Longer than the timeout, and checked by the order of give and take, not by the time itself.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    while (std::chrono::steady_clock::now() < until) {
        std::this_thread::yield();
    }
    given = true;
    EXPECT_EQ(port_platform_give_semaphore(semaphore), 0);
    taker.join();
    EXPECT_TRUE(taken_after_given);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(capture_stdout([&] { port_platform_destroy_samphore(&semaphore); }), "");
        EXPECT_EQ(semaphore, nullptr);
    }
}

TEST_F(PortPlatform, MutexIsHeldUntilGiven) {
    port_platform_mutex mutex = port_platform_create_mutex();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(port_platform_take_mutex(mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(mutex), EBUSY);
    EXPECT_EQ(port_platform_give_mutex(mutex), 0);
    EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
    EXPECT_EQ(port_platform_give_mutex(mutex), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(capture_stdout([&] { port_platform_destroy_mutex(&mutex); }), "");
        EXPECT_EQ(mutex, nullptr);
    }
}

TEST_F(PortPlatform, FailedDestroyIsLoggedAndFrees) {
    port_platform_mutex mutex = port_platform_create_mutex();
    port_platform_semaphore semaphore = port_platform_create_semaphore();
    wrapped.destroy_result = 16;
    EXPECT_EQ(capture_stdout([&] {
                  port_platform_destroy_mutex(&mutex);
                  port_platform_destroy_samphore(&semaphore);
              }),
              "port_platform_destroy_mutex fail, ret:16\nport_platform_destroy_samphore fail, ret:16\n");
    EXPECT_EQ(mutex, nullptr);
    EXPECT_EQ(semaphore, nullptr);
}

TEST_F(PortPlatform, FailedCreationGivesNullSilentlyWhichIsRefused) {
    EXPECT_EQ(capture_stdout([] {
                  interpose_fail("pthread_mutex_init", 1, ENOMEM);
                  EXPECT_EQ(port_platform_create_mutex(), nullptr);
                  interpose_fail("sem_init", 1, ENOSPC);
                  EXPECT_EQ(port_platform_create_semaphore(), nullptr);
                  call_faults.malloc = kEachCall;
                  EXPECT_EQ(port_platform_create_semaphore(), nullptr);
                  EXPECT_EQ(port_platform_create_mutex(), nullptr);
                  call_faults.malloc = kNoFault;
              }),
              "");
    EXPECT_EQ(port_platform_give_semaphore(nullptr), -1);
    EXPECT_EQ(port_platform_take_semaphore(nullptr, 0), -1);
    EXPECT_EQ(port_platform_give_mutex(nullptr), -1);
    EXPECT_EQ(port_platform_take_mutex(nullptr), -1);
}

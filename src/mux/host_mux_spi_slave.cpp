#include "mux/host_mux_spi_slave.h"

#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "device/port_platform.h"
#include "mux/host_mux_lock.h"

#include <atomic>
#include <cstdio>

namespace {

constexpr uint8_t kReadStatus = 0x06;
constexpr uint8_t kWriteStatus = 0x08;
constexpr uint8_t kPowerOff = 0x02;
constexpr uint8_t kPowerOn = 0x04;

constexpr int32_t kMaxPolls = 100;
constexpr uint32_t kPollMs = 5;
constexpr uint32_t kResetDelayUs = 100;
constexpr int kMaxNesting = 16;

struct State {
    std::atomic<int32_t> power_counter{0}; // open power-on requests
    int nesting = 0;                       // error recoveries in progress, each inside the one before
} state;

struct PowerSwitch {
    uint8_t opcode;
    uint8_t expected;
    const char* failed;
    const char* done;
};

constexpr PowerSwitch kSwitchOff = {kPowerOff, 0,
                                    "portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER: transfer fail\r",
                                    "portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER success!!!\r"};
constexpr PowerSwitch kSwitchOn = {kPowerOn, kSpiSlavePowered,
                                   "host_mux_spi_power_on_without_counter: transfer fail\r",
                                   "portable_HAL_SPI_POWER_ON_WITHOUT_COUNTER success!!!\r"};

int32_t switch_power(uint32_t bus, const PowerSwitch& to) {
    for (;;) {
        if (host_mux_spi_transfer(bus, &to.opcode, 1, nullptr, 0) != 0) {
            puts(to.failed);
            return 1;
        }
        if (portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(bus, kSpiSlavePowered, to.expected) == 0) {
            puts(to.done);
            return 0;
        }
        if (!host_mux_next_round()) {
            return 1;
        }
    }
}

// The slave is left off when it is about to be stopped anyway.
void cycle_power(uint32_t bus) {
    portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(bus);
    if (!stop_request_pending()) {
        host_mux_spi_power_on_without_counter(bus);
    }
}

struct Nested : private NonCopyable {
    Nested() {
        ++state.nesting;
    }
    ~Nested() {
        --state.nesting;
    }
};

// The power cycle queries the status, which may bring the next error. Nested deep enough, only the error is
// cleared: the power cycle in progress repeats anyway, and a slave that reports errors for ever costs rounds
// instead of stack.
void recover(uint32_t bus, uint8_t status) {
    printf(
        "portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY,Slave tansfer Error:0x%x, need reset Slave \r\n",
        status);
    const uint8_t frame[] = {kWriteStatus, status};
    if (host_mux_spi_transfer(bus, frame, sizeof frame, nullptr, 0) != 0) {
        puts("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY: transfer fail 1\r");
        return;
    }
    puts("Transfer error, now Master reset Slave!!!\r");
    port_platform_delay_us(kResetDelayUs);
    if (state.nesting < kMaxNesting) {
        const Nested nested;
        cycle_power(bus);
    }
}

bool read_status(uint32_t bus, uint8_t* status) {
    const uint8_t frame[] = {kReadStatus, 0x00};
    uint8_t answer[sizeof frame] = {};
    if (host_mux_spi_transfer(bus, frame, sizeof frame, answer, sizeof answer) != 0) {
        puts("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY: transfer fail 0\r");
        return false;
    }
    *status = answer[1];
    printf("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY  Status receive: 0x%x\r\n", *status);
    return true;
}

enum class Poll { kReached, kAgain, kFailed };

Poll poll_status(uint32_t bus, uint8_t mask, uint8_t expected, int32_t retries) {
    uint8_t status = 0;
    if (!read_status(bus, &status)) {
        return Poll::kFailed;
    }
    if (status == kSpiSlaveSilent) {
        return expected == 0 ? Poll::kReached : Poll::kFailed;
    }
    if ((status & kSpiSlaveError) != 0) {
        recover(bus, status);
        return Poll::kFailed;
    }
    if ((status & mask) == expected) {
        printf("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY OK, retry counter:%d,\r\n", retries);
        return Poll::kReached;
    }
    const bool needs_power = mask == kSpiSlaveConfigDone || mask == kSpiSlaveDataDone;
    if (needs_power && (status & kSpiSlavePowered) == 0) {
        puts("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY spi slave is power off!!!!!!\r");
        cycle_power(bus);
        return Poll::kFailed;
    }
    return Poll::kAgain;
}

} // namespace

int32_t host_mux_spi_transfer(uint32_t bus, const uint8_t* tx, uint32_t tx_len, uint8_t* rx,
                              uint32_t rx_len) {
    const port_platform_transfer transfer = {
        .rx_buf = rx, .tx_buf = tx, .rx_len = rx_len, .tx_len = tx_len, .slave_addr = 0};
    return port_platform_bus_transfer(HOST_MUX_BUS_SPI, static_cast<int32_t>(bus), &transfer);
}

int32_t portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(uint32_t bus, uint8_t mask, uint8_t expected) {
    for (int32_t retries = 0; retries < kMaxPolls; ++retries) {
        const Poll poll = poll_status(bus, mask, expected, retries);
        if (poll != Poll::kAgain) {
            return poll == Poll::kReached ? 0 : 1;
        }
        port_platform_delay_ms(kPollMs);
    }
    printf("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY, retry counter:%d,\r\n", kMaxPolls);
    return 1;
}

int32_t portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(uint32_t bus) {
    return switch_power(bus, kSwitchOff);
}

int32_t host_mux_spi_power_on_without_counter(uint32_t bus) {
    return switch_power(bus, kSwitchOn);
}

int32_t host_mux_spi_power_on(uint32_t bus) {
    if (host_mux_spi_power_counter() == 0 && host_mux_spi_power_on_without_counter(bus) != 0) {
        return 1;
    }
    const int32_t counter = state.power_counter.fetch_add(1) + 1;
    printf("host_mux_spi_power_on: success!!! counter=%d\r\n", counter);
    return 0;
}

int32_t portable_HAL_SPI_POWER_OFF(uint32_t bus) {
    const int32_t open = host_mux_spi_power_counter();
    if (open == 0) {
        puts("portable_HAL_SPI_POWER_OFF: error!!!");
        return 1;
    }
    if (open == 1 && portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(bus) != 0) {
        return 1;
    }
    host_mux_spi_power_counter_drop();
    printf("portable_HAL_SPI_POWER_OFF: success!!!, counter=%d\r\n", host_mux_spi_power_counter());
    return 0;
}

int32_t host_mux_spi_power_counter() {
    return state.power_counter.load();
}

void host_mux_spi_power_counter_drop() {
    int32_t open = state.power_counter.load();
    while (open > 0 && !state.power_counter.compare_exchange_weak(open, open - 1)) {
    }
}

void host_mux_spi_power_counter_reset() {
    state.power_counter.store(0);
}

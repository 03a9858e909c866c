#include "mux/host_mux_spi_slave.h"

#include "base/stop_request.h"
#include "device/port_platform.h"
#include "mux/host_mux_lock.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace {

constexpr uint8_t kReadStatus = 0x06;
constexpr uint8_t kWriteStatus = 0x08;
constexpr uint8_t kPowerOff = 0x02;
constexpr uint8_t kPowerOn = 0x04;

constexpr int32_t kMaxPolls = 100;
constexpr uint32_t kPollMs = 5;
constexpr uint32_t kResetDelayUs = 100;
constexpr uint32_t kMaxNesting = 16; // power cycles inside each other

struct State {
    std::atomic<int32_t> power_counter{0}; // open power-on requests
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

bool clear_error(uint32_t bus, uint8_t status) {
    printf(
        "portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY,Slave tansfer Error:0x%x, need reset Slave \r\n",
        status);
    const uint8_t frame[] = {kWriteStatus, status};
    if (host_mux_spi_transfer(bus, frame, sizeof frame, nullptr, 0) != 0) {
        puts("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY: transfer fail 1\r");
        return false;
    }
    puts("Transfer error, now Master reset Slave!!!\r");
    port_platform_delay_us(kResetDelayUs);
    return true;
}

enum class Poll { kReached, kAgain, kFailed, kNeedsPowerCycle };

Poll poll_status(uint32_t bus, uint8_t mask, uint8_t expected, int32_t retries) {
    uint8_t status = 0;
    if (!read_status(bus, &status)) {
        return Poll::kFailed;
    }
    if (status == kSpiSlaveSilent) {
        return expected == 0 ? Poll::kReached : Poll::kFailed;
    }
    if ((status & kSpiSlaveError) != 0) {
        return clear_error(bus, status) ? Poll::kNeedsPowerCycle : Poll::kFailed;
    }
    if ((status & mask) == expected) {
        printf("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY OK, retry counter:%d,\r\n", retries);
        return Poll::kReached;
    }
    const bool needs_power = mask == kSpiSlaveConfigDone || mask == kSpiSlaveDataDone;
    if (needs_power && (status & kSpiSlavePowered) == 0) {
        puts("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY spi slave is power off!!!!!!\r");
        return Poll::kNeedsPowerCycle;
    }
    return Poll::kAgain;
}

Poll query(uint32_t bus, uint8_t mask, uint8_t expected) {
    for (int32_t retries = 0; retries < kMaxPolls; ++retries) {
        const Poll poll = poll_status(bus, mask, expected, retries);
        if (poll != Poll::kAgain) {
            return poll;
        }
        if (stop_request_pending()) {
            return Poll::kFailed;
        }
        port_platform_delay_ms(kPollMs);
    }
    printf("portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY, retry counter:%d,\r\n", kMaxPolls);
    return Poll::kFailed;
}

enum class Switch { kDone, kFailed, kAgain, kNeedsPowerCycle };

Switch try_switch(uint32_t bus, const PowerSwitch& to) {
    if (host_mux_spi_transfer(bus, &to.opcode, 1, nullptr, 0) != 0) {
        puts(to.failed);
        return Switch::kFailed;
    }
    const Poll poll = query(bus, kSpiSlavePowered, to.expected);
    if (poll == Poll::kReached) {
        puts(to.done);
        return Switch::kDone;
    }
    return poll == Poll::kNeedsPowerCycle ? Switch::kNeedsPowerCycle : Switch::kAgain;
}

bool power_cycle(uint32_t bus, uint32_t nesting, HostMuxPause* pause);

// Repeats the switch until the slave confirms it. An error of the slave puts a power cycle before the
// repetition, whose own errors bring the next one. At most 16 lie inside each other: further errors are only
// cleared, so that a slave that reports errors for ever costs rounds, not memory. Returns false when a
// transfer fails or a stop is pending; the slave is then left as it is.
bool switch_power(uint32_t bus, const PowerSwitch& to, uint32_t nesting, HostMuxPause* pause) {
    for (;;) {
        const Switch result = try_switch(bus, to);
        if (result == Switch::kDone || result == Switch::kFailed) {
            return result == Switch::kDone;
        }
        if (!host_mux_next_round(pause)) {
            return false;
        }
        if (result == Switch::kNeedsPowerCycle && nesting < kMaxNesting &&
            !power_cycle(bus, nesting + 1, pause)) {
            return false;
        }
    }
}

// Switches off and on, whether or not a switch fails. Returns false when a stop is pending: nothing more is
// switched then.
bool power_cycle(uint32_t bus, uint32_t nesting, HostMuxPause* pause) {
    switch_power(bus, kSwitchOff, nesting, pause);
    if (stop_request_pending()) {
        return false;
    }
    switch_power(bus, kSwitchOn, nesting, pause);
    return !stop_request_pending();
}

int32_t switch_power_once(uint32_t bus, const PowerSwitch& to) {
    HostMuxPause pause;
    return switch_power(bus, to, 0, &pause) ? 0 : 1;
}

} // namespace

int32_t host_mux_spi_transfer(uint32_t bus, const uint8_t* tx, uint32_t tx_len, uint8_t* rx,
                              uint32_t rx_len) {
    const port_platform_transfer transfer = {
        .rx_buf = rx, .tx_buf = tx, .rx_len = rx_len, .tx_len = tx_len, .slave_addr = 0};
    errno = 0;
    return port_platform_bus_transfer(HOST_MUX_BUS_SPI, static_cast<int32_t>(bus), &transfer);
}

int32_t portable_HOST_SPI_MASTER_QUERY_SLAVE_STATUS_WITH_RETRY(uint32_t bus, uint8_t mask, uint8_t expected) {
    const Poll poll = query(bus, mask, expected);
    if (poll == Poll::kNeedsPowerCycle) {
        HostMuxPause pause;
        power_cycle(bus, 1, &pause);
    }
    return poll == Poll::kReached ? 0 : 1;
}

int32_t portable_HAL_SPI_POWER_OFF_WITHOUT_COUNTER(uint32_t bus) {
    return switch_power_once(bus, kSwitchOff);
}

int32_t host_mux_spi_power_on_without_counter(uint32_t bus) {
    return switch_power_once(bus, kSwitchOn);
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

#include "download/spim.h"

#include "base/byte_order.h"
#include "base/stop_request.h"
#include "device/location_spi.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_time.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr uint32_t kFrameSize = 1 + kSpimMaxData; // opcode and data
constexpr uint32_t kConfigureSize = 9;            // opcode, address, length
constexpr uint32_t kDataAddress = 0x55AA0000;
constexpr int32_t kClosed = -1;
constexpr uint32_t kReversedBits = 1; // bit order of the port

constexpr uint8_t kConfigureRead = 0x02;
constexpr uint8_t kConfigureWrite = 0x04;
constexpr uint8_t kWriteData = 0x06;
constexpr uint8_t kClearError = 0x08;
constexpr uint8_t kReadStatus = 0x0A;
constexpr uint8_t kWakeup = 0x0C;
constexpr uint8_t kWakeupPoll = 0x0E;
constexpr uint8_t kReadData = 0x81;

constexpr uint8_t kReady = 0x01;
constexpr uint8_t kConfigured = 0x04;
constexpr uint8_t kErrors = 0x18;
constexpr uint8_t kDataDone = 0x20;
constexpr uint8_t kHighestValid = 0x7F;
constexpr uint8_t kNotAwake = 0x81;
constexpr uint8_t kNobody = 0xFF;

// Results of spim_wait_status.
constexpr int32_t kReached = 0;
constexpr int32_t kTriesUsedUp = 1;
constexpr int32_t kErrorCleared = 2;
constexpr int32_t kFault = 3;

constexpr uint32_t kWakeupPolls = 500;
constexpr int64_t kWakeupPollMs = 1;
constexpr int64_t kAfterWakeupMs = 10;
constexpr uint32_t kMissesInARow = 21; // configurations that failed before the slave is woken
constexpr uint32_t kDataTries = 6;     // data phases that failed before the slave is woken
constexpr uint32_t kSureRestarts = 3;  // of a command, also while a stop waits
constexpr uint32_t kDataPolls = 100;
constexpr uint32_t kConfigurePolls = 5;

// Kept: reading and writing wait and give up deliberately unlike each other.
constexpr uint32_t kWriteConfigureDelayMs = 3;
constexpr uint32_t kReadConfigureDelayMs = 80;
constexpr uint32_t kWriteDataDelayMs = 3;
constexpr uint32_t kReadDataDelayMs = 1;
constexpr uint32_t kWriteWakeups = 10;
constexpr uint32_t kReadWakeups = 1;

struct State {
    int32_t fd = kClosed;
    uint32_t bit_order = 0;
    uint8_t tx[kFrameSize] = {};
    uint8_t rx[kFrameSize] = {};
    uint8_t bounce[kSpimMaxData] = {};
} state;

constexpr std::array<uint8_t, 256> make_reversed() {
    std::array<uint8_t, 256> reversed = {};
    for (unsigned byte = 0; byte < 256; ++byte) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            if ((byte & 1U << bit) != 0) {
                reversed[byte] = static_cast<uint8_t>(reversed[byte] | 0x80U >> bit);
            }
        }
    }
    return reversed;
}

constexpr std::array<uint8_t, 256> kReversed = make_reversed();

void reverse_bits(uint8_t* bytes, uint32_t n) {
    if (bytes != nullptr && state.bit_order == kReversedBits) {
        std::transform(bytes, bytes + n, bytes, [](uint8_t byte) { return kReversed[byte]; });
    }
}

int32_t send_byte(uint8_t byte) {
    spim_transfer transfer = {&byte, 1, nullptr, 0};
    return spim_transfer_full(&transfer);
}

int32_t send_clear_error(uint8_t status) {
    uint8_t frame[] = {kClearError, static_cast<uint8_t>(status & kErrors)};
    spim_transfer transfer = {frame, sizeof frame, nullptr, 0};
    return spim_transfer_full(&transfer);
}

int32_t send_configure(uint8_t opcode, uint32_t n) {
    uint8_t frame[kConfigureSize] = {opcode};
    store_le32(frame + 1, kDataAddress);
    store_le32(frame + 5, n - 1);
    spim_transfer transfer = {frame, sizeof frame, nullptr, 0};
    return spim_transfer_full(&transfer);
}

int32_t send_data(const uint8_t* data, uint32_t n) {
    state.tx[0] = kWriteData;
    memcpy(state.tx + 1, data, n);
    spim_transfer transfer = {state.tx, n + 1, nullptr, 0};
    return spim_transfer_full(&transfer);
}

int32_t receive_data(uint32_t n) {
    memset(state.tx, 0, n + 1);
    state.tx[0] = kReadData;
    spim_transfer transfer = {state.tx, 1, state.rx, n + 1};
    return spim_transfer_full(&transfer);
}

// Repeats the configuration until the slave has taken it. wakeups: those of the whole write so far.
bool configure_write(uint32_t n, uint32_t* wakeups) {
    for (uint32_t misses = 0;;) {
        if (send_configure(kConfigureWrite, n) != 0) {
            tool_log_error("[SPIM] SPI master send CWR command failed\n");
            return false;
        }
        if (spim_wait_status(kConfigured, kConfigurePolls, kWriteConfigureDelayMs) == kReached) {
            return true;
        }
        if (++misses < kMissesInARow) {
            continue;
        }
        misses = 0;
        spim_wakeup();
        if (++*wakeups > kWriteWakeups) {
            tool_log_error("[SPIM] 1. SPI master CWR retry timeout, write failed\r\n\n");
            return false;
        }
    }
}

bool configure_read(uint32_t n, uint32_t* wakeups) {
    for (uint32_t misses = 0;;) {
        if (send_configure(kConfigureRead, n) != 0) {
            tool_log_error("[SPIM] SPI master send CR command failed\n");
            return false;
        }
        if (spim_wait_status(kConfigured, kConfigurePolls, kReadConfigureDelayMs) == kReached) {
            return true;
        }
        if (++misses < kMissesInARow) {
            continue;
        }
        misses = 0;
        if (++*wakeups > kReadWakeups) {
            tool_log_error("1. SPI master CRD retry timeout, read failed\r\n\n");
            return false;
        }
        spim_wakeup();
    }
}

// Whether a data phase that failed is repeated as it is; else the command starts again, the slave woken.
bool repeats_data(int32_t result, uint32_t* failures) {
    if (result == kErrorCleared) {
        return false;
    }
    if (++*failures < kDataTries) {
        return true;
    }
    *failures = 0;
    spim_wakeup();
    return false;
}

// Whether a command whose data phase failed starts again. Data phases that keep failing would make it repeat
// without limit: a stop is its end then. An error that passes is overcome all the same.
bool starts_again(uint32_t* restarts) {
    return ++*restarts <= kSureRestarts || !stop_request_pending();
}

// Returns whether the write is over, well or not; else the command starts again.
bool write_data(const uint8_t* data, uint32_t n, uint32_t* failures) {
    for (;;) {
        if (send_data(data, n) != 0) {
            tool_log_error("[SPIM] SPI master send WR command failed\n");
            return true;
        }
        const int32_t result = spim_wait_status(kDataDone, kDataPolls, kWriteDataDelayMs);
        if (result == kReached) {
            return true;
        }
        if (!repeats_data(result, failures)) {
            return false;
        }
    }
}

bool read_data(uint8_t* buffer, uint32_t n, uint32_t* failures) {
    for (;;) {
        memset(buffer, 0, n);
        if (receive_data(n) != 0) {
            tool_log_error("[SPIM] SPI master send dma failed\n");
            return true;
        }
        const int32_t result = spim_wait_status(kDataDone, kDataPolls, kReadDataDelayMs);
        if (result == kReached) {
            memcpy(buffer, state.rx + 1, n);
            return true;
        }
        if (!repeats_data(result, failures)) {
            return false;
        }
    }
}

bool is_one_transaction(const uint8_t* buffer, uint32_t n) {
    return buffer != nullptr && n > 0 && n <= kSpimMaxData;
}

// Clears the slave's error and resets it.
int32_t recover(uint8_t status) {
    if (send_clear_error(status) != 0) {
        tool_log_error("[SPIM] SPI master query status of slaver failed\n");
    }
    spim_wakeup();
    return kErrorCleared;
}

// Polls until the slave is awake, or its polls are used up.
void poll_wakeup() {
    uint8_t status = 0;
    for (uint32_t polls = 0;; ++polls) {
        if (send_byte(kWakeupPoll) != 0) {
            tool_log_error("SPI master query status of slaver failed\n");
            return;
        }
        if (polls == kWakeupPolls) {
            tool_log_error("SPI master query status of slaver failed(timeout)\n");
            return;
        }
        tool_sleep_ms(kWakeupPollMs);
        spim_read_status(&status);
        if (status == kNotAwake) {
            status = 0; // although its ready bit is set
        } else if ((status & kReady) != 0) {
            return;
        }
    }
}

} // namespace

int32_t spim_open(const SpimPort& port) {
    location_spi_config config = {};
    config.mode = 0;
    config.lsb_first = port.bit_order == 0 ? 1 : 0;
    config.bits_per_word = 8;
    config.max_speed_hz = port.frequency;
    snprintf(config.path, sizeof config.path, "%s", port.path);
    int32_t fd = kClosed;
    if (location_spi_init(&fd, &config) != 0) {
        return 0;
    }
    state.fd = fd;
    state.bit_order = port.bit_order;
    return 1;
}

int32_t spim_close() {
    if (state.fd == kClosed) {
        return 0;
    }
    const int32_t result = location_spi_deinit(state.fd);
    state.fd = kClosed;
    return result == 0 ? 1 : 0;
}

int32_t spim_transfer_full(spim_transfer* transfer) {
    const uint32_t length = std::max(transfer->tx_len, transfer->rx_len);
    reverse_bits(transfer->tx_buf, length);
    const int32_t moved = location_spi_transfer(state.fd, transfer->tx_buf, transfer->rx_buf, length);
    if (moved <= 0) {
        return -1;
    }
    reverse_bits(transfer->rx_buf, length);
    return 0;
}

void spim_read_status(uint8_t* status) {
    uint8_t frame[] = {kReadStatus, 0};
    uint8_t answer[sizeof frame] = {};
    spim_transfer transfer = {frame, sizeof frame, answer, sizeof answer};
    if (spim_transfer_full(&transfer) != 0) {
        tool_log_error("[SPIM] SPI master query status of slaver failed\n");
        return;
    }
    *status = answer[1];
}

int32_t spim_wait_status(uint8_t mask, uint32_t tries, uint32_t delay_ms) {
    uint8_t status = 0;
    for (uint32_t counter = 0; counter < tries; ++counter) {
        tool_sleep_ms(delay_ms);
        spim_read_status(&status);
        if (status == kNobody) {
            tool_log_error("[SPIM] Error Status=0x%x , counter=%d\n", status, static_cast<int>(counter));
            continue;
        }
        if ((status & kErrors) != 0) {
            return recover(status);
        }
        if (status > kHighestValid) {
            return kFault;
        }
        if ((status & mask) == mask) {
            return kReached;
        }
    }
    return kTriesUsedUp;
}

void spim_wakeup() {
    if (send_byte(kWakeup) != 0) {
        tool_log_error("[SPIM] SPI master query status of slaver failed\n");
    }
    tool_sleep_ms(kWakeupPollMs);
    poll_wakeup();
    tool_sleep_ms(kAfterWakeupMs);
}

void spim_write(const uint8_t* data, uint32_t n) {
    if (!is_one_transaction(data, n)) {
        return;
    }
    uint32_t wakeups = 0;
    uint32_t failures = 0;
    uint32_t restarts = 0;
    while (configure_write(n, &wakeups) && !write_data(data, n, &failures) && starts_again(&restarts)) {
    }
}

void spim_read(uint8_t* buffer, uint32_t n) {
    if (!is_one_transaction(buffer, n)) {
        return;
    }
    uint32_t wakeups = 0;
    uint32_t failures = 0;
    uint32_t restarts = 0;
    while (configure_read(n, &wakeups) && !read_data(buffer, n, &failures) && starts_again(&restarts)) {
    }
}

uint32_t spim_read_chunked(uint8_t* buffer, uint32_t n) {
    if (buffer == nullptr) {
        return 0;
    }
    for (uint32_t at = 0; at < n;) {
        const uint32_t piece = std::min(n - at, kSpimMaxData);
        memset(state.bounce, 0, sizeof state.bounce);
        spim_read(state.bounce, piece);
        memcpy(buffer + at, state.bounce, piece);
        at += piece;
    }
    return n;
}

uint32_t spim_write_chunked(const uint8_t* data, uint32_t n) {
    if (data == nullptr || n == 0) {
        return 0;
    }
    for (uint32_t at = 0; at < n;) {
        const uint32_t piece = std::min(n - at, kSpimMaxData);
        spim_write(data + at, piece);
        at += piece;
    }
    return 1;
}

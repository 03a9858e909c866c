#include "download/spim_frame.h"

#include "base/error_row.h"
#include "device/location_spi.h"
#include "download/tool_log.h"
#include "download/tool_time.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr int32_t kClosed = -1;
constexpr uint32_t kReversedBits = 1; // bit order of the port

constexpr const char* kFailed[kSpimCalls] = {
    "[SPIM] SPI master send CR command failed",
    "[SPIM] SPI master send CWR command failed",
    "[SPIM] SPI master send dma failed",
    "[SPIM] SPI master send WR command failed",
    "[SPIM] SPI master query status of slaver failed",
    "[SPIM] SPI master query status of slaver failed",
    "[SPIM] SPI master query status of slaver failed",
    "SPI master query status of slaver failed",
};

struct State {
    int32_t fd = kClosed;
    uint32_t bit_order = 0;
    ErrorRow failing[kSpimCalls] = {};
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

void log_left_out(SpimCall call, uint32_t left_out) {
    if (left_out > 0) {
        tool_log_error("%s (%u left out)\n", kFailed[call], left_out);
    }
}

// What was left out is told, and the next download's first failure is a first one.
void end_rows() {
    for (uint8_t call = 0; call < kSpimCalls; ++call) {
        log_left_out(static_cast<SpimCall>(call), error_row_end(&state.failing[call]));
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
    end_rows();
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

bool spim_exchange(SpimCall call, spim_transfer transfer) {
    ErrorRow* row = &state.failing[call];
    uint32_t left_out = 0;
    const bool moved = spim_transfer_full(&transfer) == 0;
    if (moved) {
        left_out = error_row_end(row);
    } else if (error_row_tell(row, tool_time_passed_ms(), &left_out) && left_out == 0) {
        tool_log_error("%s\n", kFailed[call]);
    }
    log_left_out(call, left_out);
    return moved;
}

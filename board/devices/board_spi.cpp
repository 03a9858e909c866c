#include "devices/board_spi.h"

#include "chip/chip.h"
#include "chip/chip_bytes.h"

#include <algorithm>
#include <cerrno>
#include <linux/spi/spi.h>
#include <vector>

namespace {

constexpr uint32_t kModeBits = SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST;
// Taken and dropped by the kernel where the controller has one data line each way.
constexpr uint32_t kDroppedBits = SPI_TX_DUAL | SPI_TX_QUAD | SPI_RX_DUAL | SPI_RX_QUAD;
constexpr uint32_t kBitsPerWord = 8;

int fail(int error) {
    errno = error;
    return -1;
}

int change_mode(BoardSpi& spi, uint32_t mode) {
    if ((mode & ~(kModeBits | kDroppedBits)) != 0) {
        return fail(EINVAL);
    }
    spi.mode = mode & kModeBits;
    return 0;
}

void mirror(std::vector<uint8_t>& bytes) {
    std::transform(bytes.begin(), bytes.end(), bytes.begin(), chip_mirrored);
}

// As the kernel checks a part: the words that the controller has, over one data line.
bool is_possible(const BoardTransfer& part) {
    return (part.bits_per_word == 0 || part.bits_per_word == kBitsPerWord) && part.tx_lines <= 1 &&
           part.rx_lines <= 1;
}

std::vector<uint8_t> gathered(const BoardTransfer* transfers, size_t count) {
    std::vector<uint8_t> frame;
    for (size_t i = 0; i < count; ++i) {
        if (transfers[i].tx != nullptr) {
            frame.insert(frame.end(), transfers[i].tx, transfers[i].tx + transfers[i].length);
        } else {
            frame.resize(frame.size() + transfers[i].length);
        }
    }
    return frame;
}

void scatter(const std::vector<uint8_t>& frame, const BoardTransfer* transfers, size_t count) {
    const uint8_t* next = frame.data();
    for (size_t i = 0; i < count; ++i) {
        if (transfers[i].rx != nullptr) {
            std::copy_n(next, transfers[i].length, transfers[i].rx);
        }
        next += transfers[i].length;
    }
}

} // namespace

int board_spi_change(BoardSpi& spi, BoardSpiSetting setting, uint32_t value) {
    switch (setting) {
    case BoardSpiSetting::mode:
        return change_mode(spi, value);
    case BoardSpiSetting::lsb_first:
        return change_mode(spi, value != 0 ? spi.mode | SPI_LSB_FIRST : spi.mode & ~uint32_t{SPI_LSB_FIRST});
    case BoardSpiSetting::bits_per_word:
        if (value != 0 && value != kBitsPerWord) { // 0 is the kernel's word for 8
            return fail(EINVAL);
        }
        return 0;
    default:
        if (value == 0) {
            return fail(EINVAL);
        }
        spi.speed_hz = value;
        return 0;
    }
}

uint32_t board_spi_value(const BoardSpi& spi, BoardSpiSetting setting) {
    switch (setting) {
    case BoardSpiSetting::mode:
        return spi.mode;
    case BoardSpiSetting::lsb_first:
        return (spi.mode & SPI_LSB_FIRST) != 0 ? 1 : 0;
    case BoardSpiSetting::bits_per_word:
        return spi.bits_per_word;
    default:
        return spi.speed_hz;
    }
}

ssize_t board_spi_frame(const BoardSpi& spi, bool lsb_first, Chip& chip, const BoardTransfer* transfers,
                        size_t count, uint64_t now_us) {
    uint64_t total = 0; // of any lengths, where size_t has 32 bits too
    for (size_t i = 0; i < count; ++i) {
        total += transfers[i].length;
    }
    if (total > kBoardSpiBufferSize) {
        return fail(EMSGSIZE);
    }
    if (!std::all_of(transfers, transfers + count, is_possible)) {
        return fail(EINVAL);
    }
    std::vector<uint8_t> tx = gathered(transfers, count);
    std::vector<uint8_t> rx(tx.size());
    const bool mirrors = (board_spi_value(spi, BoardSpiSetting::lsb_first) != 0) != lsb_first;
    if (mirrors) {
        mirror(tx);
    }
    if (!chip_spi_transfer(chip, tx.data(), rx.data(), static_cast<uint32_t>(total), now_us)) {
        return fail(EIO);
    }
    if (mirrors) {
        mirror(rx);
    }
    scatter(rx, transfers, count);
    return static_cast<ssize_t>(total);
}

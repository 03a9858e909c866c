// The SPI node: settings as spidev keeps them, and the order of bits on the wire.
#ifndef TAVOR_BOARD_SPI_H
#define TAVOR_BOARD_SPI_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct Chip;

inline constexpr uint32_t kBoardSpiSpeedHz = 50000000; // of the device, until a program sets another

// In the kernel's terms.
struct BoardSpi {
    uint32_t mode = 0; // SPI_CPHA, SPI_CPOL, SPI_LSB_FIRST ...
    uint32_t bits_per_word = 8;
    uint32_t speed_hz = kBoardSpiSpeedHz;
};

enum class BoardSpiSetting : uint8_t { mode, lsb_first, bits_per_word, speed_hz };

// One part of an SPI message; null buffers as with spidev: zeros are sent, what comes is dropped.
struct BoardTransfer {
    const uint8_t* tx;
    uint8_t* rx;
    uint32_t length;
    uint8_t bits_per_word = 0; // 0: the device's
    uint8_t tx_lines = 0;      // data lines, 0: one
    uint8_t rx_lines = 0;
};

inline constexpr size_t kBoardSpiBufferSize = 4096; // bytes of one message, as spidev has it

// 0, or -1 with EINVAL for a value that the hardware does not have.
int board_spi_change(BoardSpi& spi, BoardSpiSetting setting, uint32_t value);
uint32_t board_spi_value(const BoardSpi& spi, BoardSpiSetting setting);

// All parts as one frame. lsb_first: the chip's side; when the host's differs, each byte is seen mirrored.
// Returns the bytes of all parts, or -1: EMSGSIZE above the buffer's size, EIO when the transfer fails.
ssize_t board_spi_frame(const BoardSpi& spi, bool lsb_first, Chip& chip, const BoardTransfer* transfers,
                        size_t count, uint64_t now_us);

#endif

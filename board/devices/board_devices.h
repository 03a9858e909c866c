// The device nodes of a simulated board: one chip behind an SPI node, an I2C node and a power line, GPIO
// lines as sysfs text nodes. Functions in the shape of system calls return -1 and set errno as the kernel
// does. Each may be called from any thread.
#ifndef TAVOR_BOARD_DEVICES_H
#define TAVOR_BOARD_DEVICES_H

#include "chip/chip.h"
#include "devices/board_gpio.h"
#include "devices/board_spi.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

struct BoardOptions {
    ChipOptions chip; // utc_at_zero_us 0: set from the host's clock
    std::string spi_path = "/dev/spidev1.0";
    std::string i2c_path = "/dev/i2c-1";
    int power_pin = 17;
    int pin_count = 512;                // pins 0 to pin_count - 1 exist
    bool lsb_first = true;              // bit order of the chip's multiplexer
    std::function<uint64_t()> clock_us; // empty: the host's monotonic clock
};

struct Board {
    std::mutex mutex; // guards all below
    BoardOptions options;
    Chip chip;
    BoardSpi spi;
    int spi_users = 0; // open files of the SPI node
    BoardGpio gpio;
};

// An open node: what the kernel keeps for a descriptor. Its owner keeps it from board_open to board_close.
struct BoardFile {
    std::string path;
    int flags = 0;
    size_t position = 0;
    uint8_t i2c_address = 0; // as I2C_SLAVE has set it
};

void board_init(Board& board, BoardOptions options);

int board_open(Board& board, BoardFile& file, const std::string& path, int flags); // 0 or -1
int board_close(Board& board, BoardFile& file);
int board_access(Board& board, const std::string& path); // 0 or -1 (ENOENT)
ssize_t board_node_read(Board& board, BoardFile& file, void* buffer, size_t length);
ssize_t board_node_write(Board& board, BoardFile& file, const void* data, size_t length);

off_t board_node_seek(Board& board, BoardFile& file, off_t offset, int whence); // the new position or -1

// All parts together are one frame on the wire (chip select stays low). Returns the bytes of all parts. Not
// an SPI node: ENOTTY.
ssize_t board_spi_message(Board& board, const BoardFile& file, const BoardTransfer* transfers, size_t count);

// The write requests of spidev; mode takes all mode bits, lsb_first 0 or not 0. Returns 0 or -1.
int board_spi_set(Board& board, const BoardFile& file, BoardSpiSetting setting, uint32_t value);
// The read requests. Returns 0 or -1.
int board_spi_get(Board& board, const BoardFile& file, BoardSpiSetting setting, uint32_t& value);

// I2C_SLAVE of i2c-dev: the 7-bit address of the reads and writes that follow. Returns 0 or -1.
int board_i2c_select(Board& board, BoardFile& file, uint64_t address);

// One message of I2C_RDWR; rx null: a write. Returns the bytes moved or -1.
struct BoardI2cMessage {
    uint8_t address;
    const uint8_t* tx;
    uint8_t* rx;
    size_t length;
};
ssize_t board_i2c_message(Board& board, const BoardFile& file, const BoardI2cMessage& message);

// The settings of i2c-dev that change nothing here: ten-bit addresses and checksums that the chip doesn't
// know, and limits (retries, time-out). Returns 0 or -1 as i2c-dev does.
enum class BoardI2cSetting : uint8_t { flag, limit };
int board_i2c_set(Board& board, const BoardFile& file, BoardI2cSetting setting, uint64_t value);

// What I2C_FUNCS says: plain messages and what the kernel emulates with them, but none without a byte.
inline constexpr unsigned long kBoardI2cFunctions = 0x0EFE0009;

// The power line's state where it is no sysfs node of this board: an input does not power the chip.
void board_drive_power(Board& board, bool output, bool level);

// The chip's own functions, under the board's lock and on its clock.
ChipStatus board_status(Board& board);
std::vector<ChipCommand> board_commands(Board& board);
std::string board_fault(Board& board, const std::string& name, const std::string& value);
std::string board_queue(Board& board, const std::string& bytes);
BoardSpi board_spi(Board& board);
std::map<int, BoardPin> board_pins(Board& board);

#endif

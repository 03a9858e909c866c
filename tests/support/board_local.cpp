#include "support/board_local.h"

#include "interpose/i2c_messages.h"
#include "interpose/local.h"

#include <algorithm>
#include <cerrno>
#include <linux/i2c-dev.h>
#include <linux/ioctl.h>
#include <linux/spi/spidev.h>
#include <map>
#include <mutex>
#include <vector>

namespace {

constexpr unsigned kI2cType = _IOC_TYPE(I2C_SLAVE);

// The nodes below are told by path alone, so that two descriptors of one path share a position. The daemon
// never has two.
struct LocalState {
    std::mutex mutex;
    std::map<std::string, BoardFile> files;
} state;

int fail(int error) {
    errno = error;
    return -1;
}

BoardFile file_of(const std::string& path) {
    const std::lock_guard<std::mutex> guard(state.mutex);
    const auto found = state.files.find(path);
    return found == state.files.end() ? BoardFile{} : found->second;
}

void keep_file(const std::string& path, const BoardFile& file) {
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.files[path] = file;
}

// spidev passes addresses of the program as 64-bit words.
const uint8_t* address_of(uint64_t word) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    return reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(word));
}

int message(Board& board, const BoardFile& file, const spi_ioc_transfer* parts, size_t count) {
    std::vector<BoardTransfer> transfers(count);
    std::transform(parts, parts + count, transfers.begin(), [](const spi_ioc_transfer& part) {
        return BoardTransfer{address_of(part.tx_buf),
                             const_cast<uint8_t*>(address_of(part.rx_buf)),
                             part.len,
                             part.bits_per_word,
                             part.tx_nbits,
                             part.rx_nbits};
    });
    return static_cast<int>(board_spi_message(board, file, transfers.data(), count));
}

bool is_message(unsigned long request) {
    return _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == _IOC_NR(SPI_IOC_MESSAGE(1)) &&
           _IOC_DIR(request) == _IOC_WRITE;
}

int set_word(Board& board, const BoardFile& file, unsigned long request, uint32_t value) {
    switch (request) {
    case SPI_IOC_WR_MODE:
    case SPI_IOC_WR_MODE32:
        return board_spi_set(board, file, BoardSpiSetting::mode, value);
    case SPI_IOC_WR_LSB_FIRST:
        return board_spi_set(board, file, BoardSpiSetting::lsb_first, value);
    case SPI_IOC_WR_BITS_PER_WORD:
        return board_spi_set(board, file, BoardSpiSetting::bits_per_word, value);
    case SPI_IOC_WR_MAX_SPEED_HZ:
        return board_spi_set(board, file, BoardSpiSetting::speed_hz, value);
    default:
        return fail(ENOTTY);
    }
}

int get_word(Board& board, const BoardFile& file, unsigned long request, uint32_t& value) {
    switch (request) {
    case SPI_IOC_RD_MODE:
    case SPI_IOC_RD_MODE32:
        return board_spi_get(board, file, BoardSpiSetting::mode, value);
    case SPI_IOC_RD_LSB_FIRST:
        return board_spi_get(board, file, BoardSpiSetting::lsb_first, value);
    case SPI_IOC_RD_BITS_PER_WORD:
        return board_spi_get(board, file, BoardSpiSetting::bits_per_word, value);
    case SPI_IOC_RD_MAX_SPEED_HZ:
        return board_spi_get(board, file, BoardSpiSetting::speed_hz, value);
    default:
        return fail(ENOTTY);
    }
}

bool is_byte(unsigned long request) {
    return _IOC_SIZE(request) == sizeof(uint8_t);
}

int read_request(Board& board, const BoardFile& file, unsigned long request, void* argument) {
    uint32_t value = 0;
    if (get_word(board, file, request, value) != 0) {
        return -1;
    }
    if (is_byte(request)) {
        *static_cast<uint8_t*>(argument) = static_cast<uint8_t>(value);
    } else {
        *static_cast<uint32_t*>(argument) = value;
    }
    return 0;
}

int write_request(Board& board, const BoardFile& file, unsigned long request, const void* argument) {
    const uint32_t value =
        is_byte(request) ? *static_cast<const uint8_t*>(argument) : *static_cast<const uint32_t*>(argument);
    return set_word(board, file, request, value);
}

int local_open(Board& board, const std::string& path, int flags) {
    BoardFile file;
    if (board_open(board, file, path, flags) != 0) {
        return -1;
    }
    keep_file(path, file);
    return 0;
}

int local_i2c_select(Board& board, const std::string& path, const void* address) {
    BoardFile file = file_of(path);
    const int result = board_i2c_select(board, file, reinterpret_cast<uintptr_t>(address));
    keep_file(path, file);
    return result;
}

int i2c_functions(Board& board, const BoardFile& file, void* argument) {
    if (board_i2c_set(board, file, BoardI2cSetting::flag, 0) != 0) {
        return -1; // no I2C node
    }
    *static_cast<unsigned long*>(argument) = kBoardI2cFunctions;
    return 0;
}

int i2c_transfer(Board& board, const BoardFile& file, const void* argument) {
    if (board_i2c_set(board, file, BoardI2cSetting::flag, 0) != 0) {
        return -1;
    }
    return i2c_messages(static_cast<const i2c_rdwr_ioctl_data*>(argument), [&](const i2c_msg& one) {
        uint8_t* rx = (one.flags & I2C_M_RD) != 0 ? one.buf : nullptr;
        return board_i2c_message(board, file, {static_cast<uint8_t>(one.addr), one.buf, rx, one.len});
    });
}

int local_i2c_request(Board& board, const std::string& path, unsigned long request, void* argument) {
    const auto value = reinterpret_cast<uintptr_t>(argument);
    switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        return local_i2c_select(board, path, argument);
    case I2C_TENBIT:
    case I2C_PEC:
        return board_i2c_set(board, file_of(path), BoardI2cSetting::flag, value);
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        return board_i2c_set(board, file_of(path), BoardI2cSetting::limit, value);
    case I2C_FUNCS:
        return argument == nullptr ? fail(EFAULT) : i2c_functions(board, file_of(path), argument);
    case I2C_RDWR:
        return argument == nullptr ? fail(EFAULT) : i2c_transfer(board, file_of(path), argument);
    default:
        return fail(ENOTTY);
    }
}

void local_close(Board& board, const std::string& path) {
    BoardFile file = file_of(path);
    board_close(board, file);
}

off_t local_seek(Board& board, const std::string& path, off_t offset, int whence) {
    BoardFile file = file_of(path);
    const off_t result = board_node_seek(board, file, offset, whence);
    keep_file(path, file);
    return result;
}

ssize_t local_read(Board& board, const std::string& path, void* buffer, size_t length) {
    BoardFile file = file_of(path);
    const ssize_t count = board_node_read(board, file, buffer, length);
    keep_file(path, file);
    return count;
}

ssize_t local_write(Board& board, const std::string& path, const void* data, size_t length) {
    BoardFile file = file_of(path);
    const ssize_t count = board_node_write(board, file, data, length);
    keep_file(path, file);
    return count;
}

} // namespace

int board_local_ioctl(Board& board, const BoardFile& file, unsigned long request, void* argument) {
    if (_IOC_TYPE(request) != SPI_IOC_MAGIC) {
        return fail(ENOTTY);
    }
    const size_t count = _IOC_SIZE(request) / sizeof(spi_ioc_transfer);
    if (is_message(request) && _IOC_SIZE(request) % sizeof(spi_ioc_transfer) != 0) {
        return fail(EINVAL);
    }
    if (argument == nullptr && !(is_message(request) && count == 0)) {
        return fail(EFAULT);
    }
    if (is_message(request)) {
        return message(board, file, static_cast<const spi_ioc_transfer*>(argument), count);
    }
    return _IOC_DIR(request) == _IOC_READ ? read_request(board, file, request, argument)
                                          : write_request(board, file, request, argument);
}

void board_local_connect(Board& board) {
    LocalDevices devices;
    devices.open = [&board](const std::string& path, int flags) { return local_open(board, path, flags); };
    devices.read = [&board](const std::string& path, void* buffer, size_t length) {
        return local_read(board, path, buffer, length);
    };
    devices.write = [&board](const std::string& path, const void* data, size_t length) {
        return local_write(board, path, data, length);
    };
    devices.ioctl = [&board](const std::string& path, unsigned long request, void* argument) {
        return _IOC_TYPE(request) == kI2cType ? local_i2c_request(board, path, request, argument)
                                              : board_local_ioctl(board, file_of(path), request, argument);
    };
    devices.close = [&board](const std::string& path) { local_close(board, path); };
    devices.seek = [&board](const std::string& path, off_t offset, int whence) {
        return local_seek(board, path, offset, whence);
    };
    devices.access = [&board](const std::string& path) { return board_access(board, path); };
    local_devices(std::move(devices));
}

void board_local_disconnect() {
    local_devices({});
}

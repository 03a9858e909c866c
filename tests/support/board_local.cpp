#include "support/board_local.h"

#include "interpose/local.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <linux/i2c-dev.h>
#include <linux/ioctl.h>
#include <linux/spi/spidev.h>
#include <map>
#include <mutex>

namespace {

constexpr size_t kMaxTransfers = 64; // of one message

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
    std::array<BoardTransfer, kMaxTransfers> transfers{};
    if (count > kMaxTransfers) {
        return fail(EMSGSIZE);
    }
    std::transform(parts, parts + count, transfers.begin(), [](const spi_ioc_transfer& part) {
        return BoardTransfer{address_of(part.tx_buf), const_cast<uint8_t*>(address_of(part.rx_buf)),
                             part.len};
    });
    return static_cast<int>(board_spi_message(board, file, transfers.data(), count));
}

bool is_message(unsigned long request) {
    return _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == _IOC_NR(SPI_IOC_MESSAGE(0)) &&
           _IOC_DIR(request) == _IOC_WRITE && _IOC_SIZE(request) % sizeof(spi_ioc_transfer) == 0;
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
    if (argument == nullptr) {
        return fail(EFAULT);
    }
    if (is_message(request)) {
        return message(board, file, static_cast<const spi_ioc_transfer*>(argument),
                       _IOC_SIZE(request) / sizeof(spi_ioc_transfer));
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
        return request == I2C_SLAVE ? local_i2c_select(board, path, argument)
                                    : board_local_ioctl(board, file_of(path), request, argument);
    };
    devices.access = [&board](const std::string& path) { return board_access(board, path); };
    local_devices(std::move(devices));
}

void board_local_disconnect() {
    local_devices({});
}

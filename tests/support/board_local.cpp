#include "support/board_local.h"

#include "interpose/local.h"
#include "interpose/node_ioctl.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

namespace {

// The nodes below are told by path alone, so that two descriptors of one path share a position. The daemon
// never has two.
struct LocalState {
    std::mutex mutex;
    std::map<std::string, BoardFile> files;
} state;

BoardFile file_of(const std::string& path) {
    const std::lock_guard<std::mutex> guard(state.mutex);
    const auto found = state.files.find(path);
    return found == state.files.end() ? BoardFile{} : found->second;
}

void keep_file(const std::string& path, const BoardFile& file) {
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.files[path] = file;
}

int local_open(Board& board, const std::string& path, int flags) {
    BoardFile file;
    if (board_open(board, file, path, flags) != 0) {
        return -1;
    }
    keep_file(path, file);
    return 0;
}

// A node of the board, as the requests of spidev and i2c-dev see it.
struct LocalNode {
    int spi_message(const spi_ioc_transfer* parts, size_t count) const {
        std::vector<BoardTransfer> transfers(count);
        std::transform(parts, parts + count, transfers.begin(), [](const spi_ioc_transfer& part) {
            return BoardTransfer{node_address(part.tx_buf),
                                 node_address(part.rx_buf),
                                 part.len,
                                 part.bits_per_word,
                                 part.tx_nbits,
                                 part.rx_nbits};
        });
        return static_cast<int>(board_spi_message(board, file, transfers.data(), count));
    }
    int spi_set(BoardSpiSetting setting, uint32_t value) const {
        return board_spi_set(board, file, setting, value);
    }
    int spi_get(BoardSpiSetting setting, uint32_t& value) const {
        return board_spi_get(board, file, setting, value);
    }
    int i2c_select(uint64_t address) {
        const int result = board_i2c_select(board, file, address);
        keep_file(path, file);
        return result;
    }
    int i2c_set(BoardI2cSetting setting, uint64_t value) const {
        return board_i2c_set(board, file, setting, value);
    }
    ssize_t i2c_message(const i2c_msg& one) const {
        uint8_t* rx = (one.flags & I2C_M_RD) != 0 ? one.buf : nullptr;
        return board_i2c_message(board, file, {static_cast<uint8_t>(one.addr), one.buf, rx, one.len});
    }

    Board& board;
    const std::string& path;
    BoardFile file;
};

int local_ioctl(Board& board, const std::string& path, unsigned long request, void* argument) {
    LocalNode node = {board, path, file_of(path)};
    return node_ioctl(node, request, argument);
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
        return local_ioctl(board, path, request, argument);
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

#include "devices/board_devices.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <utility>

namespace {

using Guard = std::lock_guard<std::mutex>;

constexpr size_t kBoardI2cBufferSize = 8192; // bytes of one read or write, as i2c-dev has it
constexpr uint64_t kHighestI2cAddress = 0x7F;
constexpr off_t kGpioNodeSize = 4096; // as sysfs says, whatever stands in it

int fail(int error) {
    errno = error;
    return -1;
}

// Microseconds since this call.
std::function<uint64_t()> clock_from_now() {
    using std::chrono::steady_clock;
    return [start = steady_clock::now()] {
        const auto passed = steady_clock::now() - start;
        return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(passed).count());
    };
}

uint64_t utc_now_us() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

uint64_t now(const Board& board) {
    return board.options.clock_us();
}

bool is_spi(const Board& board, const std::string& path) {
    return path == board.options.spi_path;
}

bool is_i2c(const Board& board, const std::string& path) {
    return path == board.options.i2c_path;
}

void apply_power(Board& board) {
    chip_power(board.chip, board_gpio_drives(board.gpio, board.options.power_pin, true), now(board));
}

ssize_t spi_frame(Board& board, const BoardTransfer* transfers, size_t count) {
    return board_spi_frame(board.spi, board.options.lsb_first, board.chip, transfers, count, now(board));
}

// One direction only; lengths above the node's buffer are refused before anything is copied.
ssize_t spi_plain(Board& board, const void* tx, void* rx, size_t length) {
    if (length > kBoardSpiBufferSize) {
        return fail(EMSGSIZE);
    }
    const BoardTransfer transfer = {static_cast<const uint8_t*>(tx), static_cast<uint8_t*>(rx),
                                    static_cast<uint32_t>(length)};
    return spi_frame(board, &transfer, 1);
}

// What i2c-dev moves at once; longer reads and writes are cut to it.
uint32_t i2c_size(size_t length) {
    return static_cast<uint32_t>(std::min(length, kBoardI2cBufferSize));
}

ssize_t i2c_result(std::optional<uint32_t> count) {
    return count ? static_cast<ssize_t>(*count) : fail(EREMOTEIO);
}

ssize_t i2c_read(Board& board, uint8_t address, void* buffer, size_t length) {
    if (length == 0) {
        return fail(EOPNOTSUPP); // as with most adapters
    }
    return i2c_result(
        chip_i2c_read(board.chip, address, static_cast<uint8_t*>(buffer), i2c_size(length), now(board)));
}

ssize_t i2c_write(Board& board, uint8_t address, const void* data, size_t length) {
    if (length == 0) {
        return fail(EOPNOTSUPP);
    }
    return i2c_result(
        chip_i2c_write(board.chip, address, static_cast<const uint8_t*>(data), i2c_size(length), now(board)));
}

// What the kernel refuses of every device node.
int node_flags_error(int flags) {
    if ((flags & O_DIRECTORY) != 0) {
        return ENOTDIR;
    }
    return (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0 ? EEXIST : 0;
}

int open_device(const Board& board, const std::string& path, int flags) {
    const std::string node = path.substr(0, path.find('/', strlen("/dev/")));
    if (!is_spi(board, node) && !is_i2c(board, node)) {
        return fail(ENOENT);
    }
    const int error = node != path ? ENOTDIR : node_flags_error(flags);
    return error != 0 ? fail(error) : 0;
}

bool readable(const BoardFile& file) {
    return (file.flags & O_ACCMODE) != O_WRONLY;
}

bool writable(const BoardFile& file) {
    return (file.flags & O_ACCMODE) != O_RDONLY;
}

} // namespace

void board_init(Board& board, BoardOptions options) {
    const Guard guard(board.mutex);
    board.options = std::move(options);
    if (!board.options.clock_us) {
        board.options.clock_us = clock_from_now();
    }
    if (board.options.chip.utc_at_zero_us == 0) {
        board.options.chip.utc_at_zero_us = utc_now_us() - now(board);
    }
    board.options.chip.boot_mirrored = !board.options.lsb_first; // the boot ROM's order is fixed
    board.spi = {};
    board.spi_users = 0;
    board.gpio = {};
    board.gpio.pin_count = board.options.pin_count;
    chip_init(board.chip, board.options.chip);
    board.options.chip.replay.clear(); // the chip has its own
}

int board_open(Board& board, BoardFile& file, const std::string& path, int flags) {
    const Guard guard(board.mutex);
    const int result =
        board_gpio_is_path(path) ? board_gpio_open(board.gpio, path, flags) : open_device(board, path, flags);
    if (result != 0) {
        return -1;
    }
    board.spi_users += is_spi(board, path) ? 1 : 0;
    file = {path, flags, 0, 0};
    return 0;
}

int board_close(Board& board, BoardFile& file) {
    const Guard guard(board.mutex);
    if (file.path.empty()) {
        return fail(EBADF);
    }
    if (is_spi(board, file.path) && --board.spi_users == 0) {
        board.spi.speed_hz = kBoardSpiSpeedHz; // spidev keeps the mode only
    }
    file = {};
    return 0;
}

int board_access(Board& board, const std::string& path) {
    const Guard guard(board.mutex);
    if (board_gpio_is_path(path)) {
        return board_gpio_access(board.gpio, path);
    }
    return is_spi(board, path) || is_i2c(board, path) ? 0 : fail(ENOENT);
}

ssize_t board_node_read(Board& board, BoardFile& file, void* buffer, size_t length) {
    const Guard guard(board.mutex);
    if (file.path.empty() || !readable(file)) {
        return fail(EBADF);
    }
    if (is_spi(board, file.path)) {
        return spi_plain(board, nullptr, buffer, length);
    }
    if (is_i2c(board, file.path)) {
        return i2c_read(board, file.i2c_address, buffer, length);
    }
    const ssize_t count = board_gpio_read(board.gpio, file.path, file.position, buffer, length);
    file.position += count > 0 ? static_cast<size_t>(count) : 0;
    return count;
}

ssize_t board_node_write(Board& board, BoardFile& file, const void* data, size_t length) {
    const Guard guard(board.mutex);
    if (file.path.empty() || !writable(file)) {
        return fail(EBADF);
    }
    if (is_spi(board, file.path)) {
        return spi_plain(board, data, nullptr, length);
    }
    if (is_i2c(board, file.path)) {
        return i2c_write(board, file.i2c_address, data, length);
    }
    const ssize_t count = board_gpio_write(board.gpio, file.path, data, length);
    file.position += count > 0 ? static_cast<size_t>(count) : 0;
    apply_power(board);
    return count;
}

ssize_t board_spi_message(Board& board, const BoardFile& file, const BoardTransfer* transfers, size_t count) {
    const Guard guard(board.mutex);
    return is_spi(board, file.path) ? spi_frame(board, transfers, count) : fail(ENOTTY);
}

off_t board_node_seek(Board& board, BoardFile& file, off_t offset, int whence) {
    const Guard guard(board.mutex);
    if (!board_gpio_is_path(file.path)) {
        return fail(file.path.empty() ? EBADF : ESPIPE);
    }
    const off_t from = whence == SEEK_CUR   ? static_cast<off_t>(file.position)
                       : whence == SEEK_END ? kGpioNodeSize
                                            : 0;
    if (from + offset < 0) {
        return fail(EINVAL);
    }
    file.position = static_cast<size_t>(from + offset);
    return from + offset;
}

int board_spi_set(Board& board, const BoardFile& file, BoardSpiSetting setting, uint32_t value) {
    const Guard guard(board.mutex);
    return is_spi(board, file.path) ? board_spi_change(board.spi, setting, value) : fail(ENOTTY);
}

int board_spi_get(Board& board, const BoardFile& file, BoardSpiSetting setting, uint32_t& value) {
    const Guard guard(board.mutex);
    if (!is_spi(board, file.path)) {
        return fail(ENOTTY);
    }
    value = board_spi_value(board.spi, setting);
    return 0;
}

int board_i2c_select(Board& board, BoardFile& file, uint64_t address) {
    const Guard guard(board.mutex);
    if (!is_i2c(board, file.path)) {
        return fail(ENOTTY);
    }
    if (address > kHighestI2cAddress) {
        return fail(EINVAL);
    }
    file.i2c_address = static_cast<uint8_t>(address);
    return 0;
}

ssize_t board_i2c_message(Board& board, const BoardFile& file, const BoardI2cMessage& message) {
    const Guard guard(board.mutex);
    if (!is_i2c(board, file.path)) {
        return fail(ENOTTY);
    }
    if (message.length > kBoardI2cBufferSize) {
        return fail(EINVAL);
    }
    return message.rx != nullptr ? i2c_read(board, message.address, message.rx, message.length)
                                 : i2c_write(board, message.address, message.tx, message.length);
}

int board_i2c_set(Board& board, const BoardFile& file, BoardI2cSetting setting, uint64_t value) {
    const Guard guard(board.mutex);
    if (!is_i2c(board, file.path)) {
        return fail(ENOTTY);
    }
    return setting == BoardI2cSetting::limit && value > INT_MAX ? fail(EINVAL) : 0;
}

void board_drive_power(Board& board, bool output, bool level) {
    const Guard guard(board.mutex);
    BoardPin& pin = board.gpio.pins[board.options.power_pin];
    pin.output = output;
    pin.level = level;
    apply_power(board);
}

ChipStatus board_status(Board& board) {
    const Guard guard(board.mutex);
    chip_run(board.chip, now(board));
    return chip_status(board.chip);
}

std::vector<ChipCommand> board_commands(Board& board) {
    const Guard guard(board.mutex);
    return chip_commands(board.chip);
}

std::string board_fault(Board& board, const std::string& name, const std::string& value) {
    const Guard guard(board.mutex);
    return chip_fault(board.chip, name, value, now(board));
}

std::string board_queue(Board& board, const std::string& bytes) {
    const Guard guard(board.mutex);
    return chip_queue(board.chip, bytes);
}

BoardSpi board_spi(Board& board) {
    const Guard guard(board.mutex);
    return board.spi;
}

std::map<int, BoardPin> board_pins(Board& board) {
    const Guard guard(board.mutex);
    return board.gpio.pins;
}

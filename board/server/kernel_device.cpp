#include "server/kernel_device.h"

#include "kernel/tavor_board.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/spi/spi.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using Request = tavor_board_request;
using Answer = tavor_board_answer;

// What the kernel's caller gets for the result of a function in the shape of a system call.
int32_t status_of(ssize_t result) {
    return result < 0 ? -errno : 0;
}

int32_t do_spi(KernelDevice& device, Board& board, const Request& request, const uint8_t* tx, uint8_t* rx) {
    // The kernel keeps the mode; its controller has sent these bytes in that bit order.
    if (board_spi_set(board, device.spi, BoardSpiSetting::mode, request.mode & SPI_LSB_FIRST) != 0) {
        return -errno;
    }
    const BoardTransfer frame = {tx, rx, request.length};
    return status_of(board_spi_message(board, device.spi, &frame, 1));
}

int32_t do_i2c(KernelDevice& device, Board& board, const Request& request, const uint8_t* tx, uint8_t* rx) {
    if (board_i2c_select(board, device.i2c, request.address) != 0) {
        return -errno;
    }
    return status_of(request.kind == TAVOR_BOARD_I2C_READ
                         ? board_node_read(board, device.i2c, rx, request.wanted)
                         : board_node_write(board, device.i2c, tx, request.length));
}

int32_t do_lines(Board& board, const Request& request) {
    const int line = board.options.power_pin - static_cast<int>(request.address);
    if (line >= 0 && line < TAVOR_BOARD_LINES) {
        board_drive_power(board, ((request.outputs >> line) & 1) != 0, ((request.levels >> line) & 1) != 0);
    }
    return 0;
}

int32_t do_request(KernelDevice& device, Board& board, const Request& request, uint8_t* rx) {
    const uint8_t* tx = device.request.data() + sizeof request;
    switch (request.kind) {
    case TAVOR_BOARD_SPI:
        return do_spi(device, board, request, tx, rx);
    case TAVOR_BOARD_I2C_READ:
    case TAVOR_BOARD_I2C_WRITE:
        return do_i2c(device, board, request, tx, rx);
    case TAVOR_BOARD_LINES_SET:
        return do_lines(board, request);
    default:
        return -EOPNOTSUPP;
    }
}

// What speaks against a device. Another one may take any read and write without a word, as /dev/null does, or
// act when it is opened. The kernel knows each character device by the name that its driver gave it.
std::string device_problem(const std::string& path) {
    struct stat node = {};
    if (stat(path.c_str(), &node) != 0) {
        return "can't open " + path + ": " + strerror(errno);
    }
    const std::string number =
        std::to_string(major(node.st_rdev)) + ":" + std::to_string(minor(node.st_rdev));
    const std::filesystem::path known = "/sys/dev/char";
    std::error_code none;
    if (!std::filesystem::exists(known, none)) {
        return "can't tell what " + path + " is without " + known.string();
    }
    const bool ours = S_ISCHR(node.st_mode) &&
                      std::filesystem::read_symlink(known / number, none).filename() == TAVOR_BOARD_DEVICE;
    return ours ? ""
                : path + " is no device of the kernel module in board/kernel, as /dev/" TAVOR_BOARD_DEVICE
                         " is";
}

} // namespace

std::string kernel_device_open(KernelDevice& device, Board& board, const std::string& path) {
    if (std::string problem = device_problem(path); !problem.empty()) {
        return problem;
    }
    device.fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (device.fd < 0) {
        return "can't open " + path + ": " + strerror(errno) +
               (errno == EBUSY ? " (another board serves it)" : "");
    }
    board_open(board, device.spi, board.options.spi_path, O_RDWR);
    board_open(board, device.i2c, board.options.i2c_path, O_RDWR);
    return "";
}

bool kernel_device_take(KernelDevice& device, Board& board) {
    device.request.resize(sizeof(Request) + TAVOR_BOARD_DATA_MAX);
    const ssize_t size = read(device.fd, device.request.data(), device.request.size());
    Request request = {};
    if (size < static_cast<ssize_t>(sizeof request)) {
        return false; // withdrawn meanwhile
    }
    memcpy(&request, device.request.data(), sizeof request);
    const size_t wanted = std::min<size_t>(request.wanted, TAVOR_BOARD_DATA_MAX);
    device.answer.assign(sizeof(Answer) + wanted, 0xFF); // what the bus floats to
    Answer answer = {request.number, 0, 0};
    answer.status = do_request(device, board, request, device.answer.data() + sizeof answer);
    answer.length = answer.status == 0 ? static_cast<uint32_t>(wanted) : 0;
    memcpy(device.answer.data(), &answer, sizeof answer);
    device.answer.resize(sizeof answer + answer.length);
    return request.number != 0;
}

// One that comes too late is refused and of no use.
void kernel_device_give(KernelDevice& device) {
    [[maybe_unused]] const ssize_t ignored = write(device.fd, device.answer.data(), device.answer.size());
}

void kernel_device_close(KernelDevice& device) {
    if (device.fd >= 0) {
        close(device.fd);
        device.fd = -1;
    }
}

// The board behind the kernel's own spidev, i2c-dev and GPIO: the module of board/kernel hands over what
// reaches these devices, one request at a time.
#ifndef TAVOR_BOARD_KERNEL_DEVICE_H
#define TAVOR_BOARD_KERNEL_DEVICE_H

#include "devices/board_devices.h"

#include <cstdint>
#include <string>
#include <vector>

struct KernelDevice {
    int fd = -1;
    BoardFile spi;
    BoardFile i2c;
    std::vector<uint8_t> request; // head and data, as read
    std::vector<uint8_t> answer;  // head and data, to be written
};

// Opens the module's character device, which allows one program. Returns what went wrong, else empty.
std::string kernel_device_open(KernelDevice& device, Board& board, const std::string& path);

// Takes a request and does it on the board. Returns whether there is an answer to give.
bool kernel_device_take(KernelDevice& device, Board& board);

// Answers the request taken last.
void kernel_device_give(KernelDevice& device);

// Callers of the kernel's devices get EIO from now on.
void kernel_device_close(KernelDevice& device);

#endif

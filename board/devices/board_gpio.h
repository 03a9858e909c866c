// GPIO lines as the text nodes of sysfs.
#ifndef TAVOR_BOARD_GPIO_H
#define TAVOR_BOARD_GPIO_H

#include <cstddef>
#include <map>
#include <string>
#include <sys/types.h>

struct BoardPin {
    bool exported = false;
    bool output = false;
    bool level = false;      // on the wire
    bool active_low = false; // value shows the opposite of the level
    std::string edge = "none";
};

struct BoardGpio {
    int pin_count = 0;            // pins 0 to pin_count - 1 exist
    std::map<int, BoardPin> pins; // those touched so far; level and direction outlive the export
};

// Whether the path is the GPIO directory or lies below it.
bool board_gpio_is_path(const std::string& path);

// The calls on one node. 0 or a count, else -1 with errno as the kernel's; a node that does not exist now
// gives ENOENT.
int board_gpio_open(const BoardGpio& gpio, const std::string& path, int flags);
int board_gpio_access(const BoardGpio& gpio, const std::string& path);
ssize_t board_gpio_read(const BoardGpio& gpio, const std::string& path, size_t position, void* buffer,
                        size_t length);
ssize_t board_gpio_write(BoardGpio& gpio, const std::string& path, const void* data, size_t length);

// Whether the pin is driven to this level; an input is not driven.
bool board_gpio_drives(const BoardGpio& gpio, int pin, bool level);

#endif

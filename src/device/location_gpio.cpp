#include "device/location_gpio.h"

#include "base/descriptor_guard.h"
#include "base/format.h"
#include "config/location_config.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr size_t kPathSize = 64;
constexpr size_t kNumberSize = 12;  // any int32 and its NUL
constexpr size_t kWordReadSize = 9; // holds the longest word, its newline and one byte more
constexpr useconds_t kResetPulseUs = 5000;
constexpr int32_t kDirectionOut = 0;
constexpr int32_t kLow = 0;
constexpr int32_t kHigh = 1;

// A file that makes or removes the node of the pin whose number is written to it.
struct PinControl {
    const char* path;
    const char* no_pin;
    const char* no_open;
    const char* no_write;
};

constexpr PinControl kExport = {
    "/sys/class/gpio/export",
    "[LOCSERV] ERR: [GPIO]location_gpio_export get pin fail",
    "[LOCSERV] ERR: [GPIO]location_gpio_export open fail: export",
    "[LOCSERV] ERR: [GPIO]location_gpio_export write fail: export",
};

constexpr PinControl kUnexport = {
    "/sys/class/gpio/unexport",
    "[LOCSERV] ERR: [GPIO]location_gpio_unexport get pin fail",
    "[LOCSERV] ERR: [GPIO]location_gpio_unexport open fail: unexport",
    "[LOCSERV] ERR: [GPIO]location_gpio_unexport write fail: unexport",
};

// A file of the pin's node that holds one word out of a few.
struct PinAttribute {
    const char* name;
    const char* no_open;
    const char* no_write;
};

constexpr PinAttribute kDirection = {
    "direction",
    "[LOCSERV] ERR: [GPIO]location_gpio_config open fail: direction",
    "[LOCSERV] ERR: [GPIO]location_gpio_config write fail: direction",
};

constexpr PinAttribute kEdge = {
    "edge",
    "[LOCSERV] ERR: [GPIO]location_gpio_config open fail: edge",
    "[LOCSERV] ERR: [GPIO]location_gpio_config write fail: edge",
};

const char* direction_word(int32_t direction) {
    return direction == kDirectionOut ? "out" : "in";
}

const char* edge_word(int32_t edge) {
    switch (edge) {
    case 1:
        return "rising";
    case 2:
        return "falling";
    case 3:
        return "both";
    default:
        return "none";
    }
}

bool format_number(char (&text)[kNumberSize], int32_t number) {
    return format(text, sizeof text, "%d", number) >= 0;
}

bool node_exists(int32_t pin) {
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d", pin);
    return access(path, F_OK) == 0;
}

bool write_text(int fd, const char* text) {
    const size_t length = strlen(text);
    return write(fd, text, length) == static_cast<ssize_t>(length);
}

int32_t write_pin(const PinControl& control, int32_t pin) {
    char number[kNumberSize];
    if (!format_number(number, pin)) {
        puts(control.no_pin);
        return -1;
    }
    const DescriptorGuard file(open(control.path, O_WRONLY));
    if (file.fd < 0) {
        puts(control.no_open);
        return -1;
    }
    if (!write_text(file.fd, number)) {
        puts(control.no_write);
        return -1;
    }
    return 0;
}

// Whether the attribute holds the word, followed by one character (the newline).
bool holds_word(int fd, std::string_view word) {
    char text[kWordReadSize];
    const ssize_t count = read(fd, text, sizeof text);
    return count > 0 && std::string_view(text, static_cast<size_t>(count) - 1) == word;
}

int32_t set_word(const PinAttribute& attribute, const char* number, const char* word) {
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%s/%s", number, attribute.name);
    const DescriptorGuard file(open(path, O_RDWR));
    if (file.fd < 0) {
        puts(attribute.no_open);
        return -1;
    }
    if (holds_word(file.fd, word)) {
        return 0;
    }
    // Kept: an error line for a normal change.
    printf("[LOCSERV] ERR: [GPIO]%s\n", word);
    if (!write_text(file.fd, word)) {
        puts(attribute.no_write);
        return -1;
    }
    return 0;
}

// value_fd: gets the descriptor that was written through, to be closed by the caller; null: nobody wants it.
int32_t set_value(const char* number, int32_t value, int* value_fd) {
    char level[kNumberSize];
    if (!format_number(level, value)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config get vaule fail");
        return -1;
    }
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%s/value", number);
    DescriptorGuard file(open(path, O_WRONLY | O_CLOEXEC));
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config open fail: value");
        return -1;
    }
    if (!write_text(file.fd, level)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config write fail: value");
        return -1;
    }
    if (value_fd != nullptr) {
        *value_fd = file.release();
    }
    return 0;
}

int32_t configure(int32_t pin, int32_t direction, int32_t value, int32_t edge, int* value_fd = nullptr) {
    char number[kNumberSize];
    if (!format_number(number, pin)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config get pin fail");
        return -1;
    }
    if (direction != kGpioUnchanged && set_word(kDirection, number, direction_word(direction)) != 0) {
        return -1;
    }
    if (value != kGpioUnchanged && set_value(number, value, value_fd) != 0) {
        return -1;
    }
    if (edge != kGpioUnchanged && set_word(kEdge, number, edge_word(edge)) != 0) {
        return -1;
    }
    return 0;
}

int32_t export_and_config(int32_t pin, int32_t direction, int32_t value, int32_t edge,
                          int* value_fd = nullptr) {
    if (location_gpio_export(pin) != 0) {
        return -1;
    }
    return configure(pin, direction, value, edge, value_fd);
}

constexpr int32_t kNoPin = -1;

// The power line that was switched on. It can be switched off again whatever has become of the configuration
// since, and with no descriptor free: the value file that it was switched on through stays open. Of the
// service's thread only.
struct PowerState {
    int32_t pin = kNoPin;
    int value_fd = -1;
} power;

void forget_power_line() {
    const DescriptorGuard value(power.value_fd);
    power = {};
}

int32_t switch_off_remembered() {
    printf("[LOCSERV] WRN: [GPIO]power line %d is switched off as it was switched on\n", power.pin);
    if (write_text(power.value_fd, "0")) {
        return 0;
    }
    return location_gpio_set_output(power.pin, kLow);
}

} // namespace

int32_t location_gpio_export(int32_t pin) {
    return node_exists(pin) ? 0 : write_pin(kExport, pin);
}

int32_t location_gpio_unexport(int32_t pin) {
    if (!node_exists(pin)) {
        puts("[LOCSERV] INF: [GPIO]location_gpio_unexport, not exist");
        return 0;
    }
    return write_pin(kUnexport, pin);
}

int32_t location_gpio_config(int32_t pin, int32_t direction, int32_t value, int32_t edge) {
    return configure(pin, direction, value, edge);
}

int32_t location_gpio_set_output(int32_t pin, int32_t value) {
    return export_and_config(pin, kDirectionOut, value, kGpioUnchanged);
}

int32_t location_gpio_set_direction(int32_t pin, int32_t direction) {
    return export_and_config(pin, direction, kGpioUnchanged, kGpioUnchanged);
}

int32_t location_gpio_set_edge(int32_t pin, int32_t edge) {
    return export_and_config(pin, kGpioUnchanged, kGpioUnchanged, edge);
}

int32_t location_gpio_power_on() {
    int32_t pin = 0;
    location_config_get_power_gpio(&pin);
    const bool configured_anew = power.pin != kNoPin && power.pin != pin;
    if (configured_anew && switch_off_remembered() != 0) {
        return -1; // only one line can be remembered
    }
    int value_fd = -1;
    if (export_and_config(pin, kDirectionOut, kHigh, kGpioUnchanged, &value_fd) != 0) {
        return -1;
    }
    forget_power_line();
    power = {.pin = pin, .value_fd = value_fd};
    return 0;
}

int32_t location_gpio_power_off() {
    int32_t pin = 0;
    location_config_get_power_gpio(&pin);
    int32_t result = location_gpio_set_output(pin, kLow);
    if (power.pin != kNoPin && (result != 0 || power.pin != pin)) {
        result = switch_off_remembered();
    }
    if (result == 0) {
        forget_power_line();
    }
    return result;
}

bool location_gpio_power_is_on() {
    return power.pin != kNoPin;
}

int32_t location_gpio_reset_chip() {
    int32_t pin = 0;
    location_config_get_reset_gpio(&pin);
    if (location_gpio_set_output(pin, kLow) != 0) {
        return -1;
    }
    usleep(kResetPulseUs);
    return location_gpio_set_output(pin, kHigh);
}

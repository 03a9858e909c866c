#include "link/location_gpio.h"

#include "config/location_config.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr size_t kPathSize = 64;
constexpr size_t kNumberSize = 12; // "-2147483648" and its NUL
constexpr size_t kWordReadSize = 9;
constexpr uint32_t kResetPulseUs = 5000;

// A descriptor that is closed on every way out, cancellation included.
struct Descriptor {
    Descriptor(const char* path, int flags) : fd(open(path, flags | O_CLOEXEC)) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int fd;
};

bool format_number(char (&text)[kNumberSize], int32_t number) {
    return snprintf(text, sizeof text, "%d", number) >= 0;
}

bool node_exists(int32_t pin) {
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d", pin);
    return access(path, F_OK) == 0;
}

bool write_text(const Descriptor& file, const char* text) {
    const size_t length = std::strlen(text);
    return write(file.fd, text, length) == static_cast<ssize_t>(length);
}

// Whether the attribute reads as the word, which sysfs ends with a newline.
bool reads_as(const Descriptor& file, const char* word) {
    char text[kWordReadSize + 1] = {};
    const ssize_t n = read(file.fd, text, kWordReadSize);
    if (n < 1) {
        return false;
    }
    text[n - 1] = '\0';
    return std::strcmp(text, word) == 0;
}

// kept: a normal change is logged as an error.
bool write_word(const Descriptor& file, const char* word) {
    printf("[LOCSERV] ERR: [GPIO]%s\n", word);
    return write_text(file, word);
}

const char* direction_word(int32_t direction) {
    return direction == 0 ? "out" : "in";
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

int32_t config_direction(int32_t pin, const char* word) {
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d/direction", pin);
    const Descriptor file(path, O_RDWR);
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config open fail: direction");
        return -1;
    }
    if (!reads_as(file, word) && !write_word(file, word)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config write fail: direction");
        return -1;
    }
    return 0;
}

int32_t config_value(int32_t pin, int32_t value) {
    char text[kNumberSize];
    if (!format_number(text, value)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config get vaule fail");
        return -1;
    }
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d/value", pin);
    const Descriptor file(path, O_WRONLY);
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config open fail: value");
        return -1;
    }
    if (!write_text(file, text)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config write fail: value");
        return -1;
    }
    return 0;
}

int32_t config_edge(int32_t pin, const char* word) {
    char path[kPathSize];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d/edge", pin);
    const Descriptor file(path, O_RDWR);
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config open fail: edge");
        return -1;
    }
    if (!reads_as(file, word) && !write_word(file, word)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config write fail: edge");
        return -1;
    }
    return 0;
}

int32_t set_power(int32_t value) {
    int32_t pin = 0;
    location_config_get_power_gpio(&pin);
    return location_gpio_set_output(pin, value);
}

} // namespace

int32_t location_gpio_export(int32_t pin) {
    if (node_exists(pin)) {
        return 0;
    }
    char text[kNumberSize];
    if (!format_number(text, pin)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_export get pin fail");
        return -1;
    }
    const Descriptor file("/sys/class/gpio/export", O_WRONLY);
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_export open fail: export");
        return -1;
    }
    if (!write_text(file, text)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_export write fail: export");
        return -1;
    }
    return 0;
}

int32_t location_gpio_unexport(int32_t pin) {
    if (!node_exists(pin)) {
        puts("[LOCSERV] INF: [GPIO]location_gpio_unexport, not exist");
        return 0;
    }
    char text[kNumberSize];
    if (!format_number(text, pin)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_unexport get pin fail");
        return -1;
    }
    const Descriptor file("/sys/class/gpio/unexport", O_WRONLY);
    if (file.fd < 0) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_unexport open fail: unexport");
        return -1;
    }
    if (!write_text(file, text)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_unexport write fail: unexport");
        return -1;
    }
    return 0;
}

int32_t location_gpio_config(int32_t pin, int32_t direction, int32_t value, int32_t edge) {
    char text[kNumberSize];
    if (!format_number(text, pin)) {
        puts("[LOCSERV] ERR: [GPIO]location_gpio_config get pin fail");
        return -1;
    }
    if (direction != kGpioUnchanged && config_direction(pin, direction_word(direction)) != 0) {
        return -1;
    }
    if (value != kGpioUnchanged && config_value(pin, value) != 0) {
        return -1;
    }
    if (edge != kGpioUnchanged && config_edge(pin, edge_word(edge)) != 0) {
        return -1;
    }
    return 0;
}

int32_t location_gpio_set_output(int32_t pin, int32_t value) {
    return location_gpio_export(pin) == 0 ? location_gpio_config(pin, 0, value, kGpioUnchanged) : -1;
}

int32_t location_gpio_set_direction(int32_t pin, int32_t direction) {
    return location_gpio_export(pin) == 0
               ? location_gpio_config(pin, direction, kGpioUnchanged, kGpioUnchanged)
               : -1;
}

int32_t location_gpio_set_edge(int32_t pin, int32_t edge) {
    return location_gpio_export(pin) == 0 ? location_gpio_config(pin, kGpioUnchanged, kGpioUnchanged, edge)
                                          : -1;
}

int32_t location_gpio_power_on() {
    return set_power(1);
}

int32_t location_gpio_power_off() {
    return set_power(0);
}

int32_t location_gpio_reset_chip() {
    int32_t pin = 0;
    location_config_get_reset_gpio(&pin);
    if (location_gpio_set_output(pin, 0) != 0) {
        return -1;
    }
    usleep(kResetPulseUs);
    return location_gpio_set_output(pin, 1);
}

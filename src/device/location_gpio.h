// GPIO lines through sysfs, and the chip's power switch and reset line. A pin is the number of a line there;
// its node is the directory /sys/class/gpio/gpio<number>.
#ifndef TAVOR_LOCATION_GPIO_H
#define TAVOR_LOCATION_GPIO_H

#include <cstdint>

// All but location_gpio_power_is_on return 0, or -1 after logging what failed.

// Drives the configured power line; high means powered. Power-off switches off the line that was switched on,
// also when the configuration by then names another one or can't be read, or no descriptor is free. Power-on
// of another line switches it off too, and fails when that fails.
int32_t location_gpio_power_on();
int32_t location_gpio_power_off();

// Whether a line was switched on and could not be switched off yet.
bool location_gpio_power_is_on();

// Makes the pin an output of this level; its node is made when it is missing.
int32_t location_gpio_set_output(int32_t pin, int32_t value);

// Makes the pin's node exist, or removes it.
int32_t location_gpio_export(int32_t pin);
int32_t location_gpio_unexport(int32_t pin);

// An argument of location_gpio_config that leaves its attribute as it is.
inline constexpr int32_t kGpioUnchanged = -1;

// Writes the attributes that are not kGpioUnchanged. direction: 0 out, else in; value: the level; edge: 1
// rising, 2 falling, 3 both, else none. Direction and edge are written only where they differ.
int32_t location_gpio_config(int32_t pin, int32_t direction, int32_t value, int32_t edge);

// The rest completes the interface; the daemon does not call it.

// A 5 ms low pulse on the configured reset line.
int32_t location_gpio_reset_chip();

// Make the pin's node when it is missing, then set the one attribute.
int32_t location_gpio_set_direction(int32_t pin, int32_t direction);
int32_t location_gpio_set_edge(int32_t pin, int32_t edge);

#endif

// Every setting: its key, its kind and its default. What reads or explains tavor.conf takes them from here.
#ifndef TAVOR_LOCATION_CONFIG_KEYS_H
#define TAVOR_LOCATION_CONFIG_KEYS_H

#include <cstdint>

enum location_config_id : uint32_t {
    CONFIG_UART_PATH,
    CONFIG_UART_BAUD_RATE,
    CONFIG_UART_FLOW_CONTROL,
    CONFIG_DEBUG_PORT_PATH,
    CONFIG_DEBUG_PORT_BAUD_RATE,
    CONFIG_DEBUG_PORT_FLOW_CONTROL,
    CONFIG_DEBUG_SOCKET_IP,
    CONFIG_DEBUG_SOCKET_PORT,
    CONFIG_SPI_PATH,
    CONFIG_SPI_FREQUENCY,
    CONFIG_SPI_BIT_ORDER,
    CONFIG_SPI_CPHA,
    CONFIG_SPI_CPOL,
    CONFIG_POWER_GPIO,
    CONFIG_RESET_GPIO,
    CONFIG_NOTIFY_GPIO,
    CONFIG_NMEA_PATH,
    CONFIG_LOG_PATH,
    CONFIG_DA_PATH,
    CONFIG_IMAGE_PATH,
    CONFIG_XOD_PATH,
    CONFIG_XOD_HOST,
    CONFIG_XOD_VENDOR,
    CONFIG_XOD_PROJECT,
    CONFIG_XOD_DEVICE_ID,
    CONFIG_KEEP_GOOD_FILES,
    CONFIG_KEY_COUNT
};

struct ConfigKey {
    const char* key;  // as it stands in the file, its equals sign included
    const char* text; // default of a text; null for a number
    int32_t number;   // default of a number
    location_config_id id;
};

// A number that stands for no GPIO line.
inline constexpr int32_t kGpioNotConfigured = 999999;
// Kept: a missing text is one blank, which no device and no server accepts.
inline constexpr char kNotConfigured[] = " ";

// The row of a setting (below CONFIG_KEY_COUNT).
const ConfigKey& location_config_key(location_config_id id);

#endif

// Settings of the device, read anew from one key=value file at every call: a change takes effect without a
// restart.
#ifndef TAVOR_LOCATION_CONFIG_H
#define TAVOR_LOCATION_CONFIG_H

#include <cstddef>
#include <cstdint>

// Bytes of every text setting, its NUL included.
inline constexpr std::size_t kConfigTextSize = 128;

struct SerialPortConfig {
    char path[kConfigTextSize];
    int32_t baud_rate;
    int32_t flow_control; // 0 none, 1 software (XON/XOFF), 2 hardware (RTS/CTS)
};

struct SpiPortConfig {
    char path[kConfigTextSize];
    int32_t frequency; // Hz
    int32_t bit_order; // 0: least significant bit first
    int32_t cpha;      // clock phase and polarity, each 0 or 1
    int32_t cpol;
};

struct DebugSocketConfig {
    char ip[kConfigTextSize];
    int32_t port;
};

struct XodServerConfig {
    char host[kConfigTextSize];
    char vendor[kConfigTextSize];
    char project[kConfigTextSize];
    char device_id[kConfigTextSize];
};

// Fills dst (kConfigTextSize bytes) with the text after key in the first line that holds it, else with
// default_text.
void location_config_get_path(char* dst, const char* default_text, const char* key);

// Stores the number after key (as atoi reads it) in dst, else default_value.
void location_config_get_num(int32_t* dst, int32_t default_value, const char* key);

// Each getter fills its record, text (kConfigTextSize bytes) or number and logs what it read. None fails:
// while the file can't be read its last content stands in, and what is not there takes its default.
void location_config_get_debug_port(SerialPortConfig* config);
void location_config_get_debug_socket(DebugSocketConfig* config);
void location_config_get_spi(SpiPortConfig* config);
void location_config_get_power_gpio(int32_t* gpio); // its number in sysfs
void location_config_get_nmea_path(char* path);
void location_config_get_log_path(char* path);
void location_config_get_da_path(char* path);
void location_config_get_image_path(char* path);
void location_config_get_xod_path(char* path);
void location_config_get_xod_server(XodServerConfig* config);
void location_config_get_keep_good_files(int32_t* keep); // 0: files are emptied and written in their place

// The rest completes the interface; the daemon does not call it. As the getters above.

void location_config_get_uart_path(char* path);
void location_config_get_uart(SerialPortConfig* config);
void location_config_get_reset_gpio(int32_t* gpio);
void location_config_get_notify_gpio(int32_t* gpio);

#endif

#include "config/location_config.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr char kConfigFile[] = "/etc/default/tavor/tavor.conf";
constexpr size_t kLineSize = 256; // a longer line is searched in pieces

// The open file of one call.
struct ConfigFile {
    ConfigFile() : file(fopen(kConfigFile, "r")) {}
    ~ConfigFile() {
        close_file();
    }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;

    bool close_file() {
        FILE* open_file = file;
        file = nullptr;
        return open_file == nullptr || fclose(open_file) == 0;
    }

    FILE* file;
};

// The text behind the key in the first line that holds it, without its line end; null when there is none.
const char* find_value(FILE* file, const char* key, char (&line)[kLineSize]) {
    while (fgets(line, sizeof line, file) != nullptr) {
        char* match = std::strstr(line, key);
        if (match == nullptr) {
            continue;
        }
        char* newline = std::strchr(match, '\n');
        if (newline != nullptr) {
            *(newline[-1] == '\r' ? newline - 1 : newline) = '\0'; // the key stands before the newline
        }
        return match + std::strlen(key);
    }
    return nullptr;
}

void copy_text(char* dst, const char* text) {
    if (snprintf(dst, kConfigTextSize, "%s", text) < 0) {
        puts("[LOCSERV] ERR: location_config_get_path get path fail");
    }
}

// As atoi, also where atoi leaves the result open: numbers past 32 bits are cut to 32 bits as on every common
// system.
int32_t to_number(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

} // namespace

void location_config_get_path(char* dst, const char* default_text, const char* key) {
    ConfigFile config;
    if (config.file == nullptr) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, open fail");
        copy_text(dst, default_text);
        return;
    }
    char line[kLineSize];
    const char* value = find_value(config.file, key, line);
    if (value != nullptr) {
        copy_text(dst, value);
    }
    if (!config.close_file()) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, fclose fail");
    }
    if (value == nullptr) {
        copy_text(dst, default_text);
    }
}

void location_config_get_num(int32_t* dst, int32_t default_value, const char* key) {
    ConfigFile config;
    if (config.file == nullptr) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, open fail"); // kept: the text of the path reader
        *dst = default_value;
        return;
    }
    char line[kLineSize];
    const char* value = find_value(config.file, key, line);
    *dst = value != nullptr ? to_number(value) : default_value;
    if (!config.close_file()) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_num, fclose fail");
    }
}

void location_config_get_uart_path(char* path) {
    location_config_get_path(path, "/dev/ttyS1", "UART port path=");
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", path);
}

void location_config_get_uart(SerialPortConfig* config) {
    location_config_get_path(config->path, "/dev/ttyS1", "UART port path=");
    location_config_get_num(&config->baud_rate, 921600, "UART baudrate=");
    location_config_get_num(&config->flow_control, 0, "UART flow control=");
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]UART baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]UART flow control:%d\n", config->flow_control);
}

void location_config_get_debug_port(SerialPortConfig* config) {
    location_config_get_path(config->path, " ", "debug port path=");
    location_config_get_num(&config->baud_rate, 921600, "debug port baudrate=");
    location_config_get_num(&config->flow_control, 0, "debug port flow control=");
    printf("[LOCSERV] INF: [CFG]debug port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]debug port flow control:%d\n", config->flow_control);
}

void location_config_get_debug_socket(DebugSocketConfig* config) {
    location_config_get_path(config->ip, "192.168.1.1", "debug socket ip=");
    location_config_get_num(&config->port, 7005, "debug socket port=");
    printf("[LOCSERV] INF: [CFG]debug socket ip:%s\n", config->ip);
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->port); // kept: the port goes by this text
}

void location_config_get_spi(SpiPortConfig* config) {
    location_config_get_path(config->path, "/dev/spidev1.0", "SPI port path=");
    location_config_get_num(&config->frequency, 24000000, "SPI frequency=");
    location_config_get_num(&config->bit_order, 0, "SPI bit order=");
    location_config_get_num(&config->cpha, 0, "SPI CPHA=");
    location_config_get_num(&config->cpol, 0, "SPI CPOL=");
    printf("[LOCSERV] INF: [CFG]spi port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]spi frequencey:%d\n", config->frequency); // kept: the spelling
    printf("[LOCSERV] INF: [CFG]spi bit order:%d\n", config->bit_order);
    printf("[LOCSERV] INF: [CFG]spi cpha:%d\n", config->cpha);
    printf("[LOCSERV] INF: [CFG]spi cpol:%d\n", config->cpol);
}

void location_config_get_power_gpio(int32_t* gpio) {
    location_config_get_num(gpio, 999999, "Power control gpio=");
    printf("[LOCSERV] INF: [CFG]Power control gpio:%d\n", *gpio);
}

void location_config_get_reset_gpio(int32_t* gpio) {
    location_config_get_num(gpio, 999999, "Reset GNSS gpio=");
    printf("[LOCSERV] INF: [CFG]Reset GNSS gpio:%d\n", *gpio);
}

void location_config_get_notify_gpio(int32_t* gpio) {
    location_config_get_num(gpio, 999999, "Notify GNSS gpio=");
    printf("[LOCSERV] INF: [CFG]Notify GNSS gpio:%d\n", *gpio);
}

void location_config_get_nmea_path(char* path) {
    location_config_get_path(path, "/etc/default/tavor/location.dat", "NMEA file path=");
    printf("[LOCSERV] INF: [CFG]nmea path:%s\n", path);
}

void location_config_get_log_path(char* path) {
    location_config_get_path(path, "/etc/default/tavor/log.dat", "LOG path=");
    printf("[LOCSERV] INF: [CFG]log path:%s\n", path);
}

void location_config_get_da_path(char* path) {
    location_config_get_path(path, "/etc/default/tavor/da/qx7710_da.bin", "DA path=");
    printf("[LOCSERV] INF: [CFG]DA path:%s\n", path);
}

void location_config_get_image_path(char* path) {
    location_config_get_path(path, "/etc/default/tavor/load/flash_download.cfg", "image path=");
    printf("[LOCSERV] INF: [CFG]image path:%s\n", path);
}

void location_config_get_xod_path(char* path) {
    location_config_get_path(path, "/etc/default/tavor/xod", "XOD file path=");
    printf("[LOCSERV] INF: [CFG]XOD file path:%s\n", path);
}

void location_config_get_xod_server(XodServerConfig* config) {
    location_config_get_path(config->host, TAVOR_XOD_HOST, "XOD host=");
    location_config_get_path(config->vendor, " ", "XOD vendor=");
    location_config_get_path(config->project, " ", "XOD project=");
    location_config_get_path(config->device_id, " ", "XOD device id=");
    printf("[LOCSERV] INF: [CFG]XOD host:%s\n", config->host);
    printf("[LOCSERV] INF: [CFG]XOD vendor:%s\n", config->vendor);
    printf("[LOCSERV] INF: [CFG]XOD project:%s\n", config->project);
    printf("[LOCSERV] INF: [CFG]XOD device id:%s\n", config->device_id);
}

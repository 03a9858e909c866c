#include "config/location_config.h"

#include "base/format.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr char kConfigPath[] = "/etc/default/tavor/tavor.conf";
// "c" keeps open and reads from being cancellation points: a thread that is stopped here leaves no half-made
// stream.
constexpr char kReadMode[] = "rce";
// A longer line arrives in pieces, each searched as a line of its own.
constexpr int kLineSize = 256;

constexpr int32_t kDefaultBaudRate = 921600;
constexpr int32_t kDefaultFlowControl = 0;
constexpr int32_t kDefaultDebugSocketPort = 7005;
constexpr int32_t kDefaultSpiFrequency = 24000000; // Hz
constexpr int32_t kDefaultSpiBitOrder = 0;
constexpr int32_t kDefaultSpiCpha = 0;
constexpr int32_t kDefaultSpiCpol = 0;
constexpr int32_t kDefaultKeepGoodFiles = 0;
constexpr int32_t kGpioNotConfigured = 999999;
// kept: a missing text is one blank, which no device and no server accepts.
constexpr char kNotConfigured[] = " ";

// Only for a thread that ends inside a reader: the readers themselves close the file and look at the result.
struct CloseFile {
    void operator()(FILE* file) const {
        fclose(file);
    }
};
using ConfigFile = std::unique_ptr<FILE, CloseFile>;

void copy_text(char* dst, const char* text) {
    if (format(dst, kConfigTextSize, "%s", text) < 0) {
        puts("[LOCSERV] ERR: location_config_get_path get path fail");
    }
}

void cut_line_end(char* match) {
    char* const newline = strchr(match, '\n');
    if (newline == nullptr) {
        return;
    }
    if (newline > match && newline[-1] == '\r') {
        newline[-1] = '\0';
    } else {
        *newline = '\0';
    }
}

// Returns what stands behind the key in the first line that holds it anywhere, or null. line has kLineSize
// bytes.
const char* find_value(FILE* file, const char* key, char* line) {
    while (fgets(line, kLineSize, file) != nullptr) {
        char* const match = strstr(line, key);
        if (match != nullptr) {
            cut_line_end(match);
            return match + strlen(key);
        }
    }
    return nullptr;
}

// As atoi, but with a result for any number of digits.
int32_t to_number(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

void close_after_path(ConfigFile& file) {
    if (fclose(file.release()) != 0) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, fclose fail");
    }
}

void close_after_num(ConfigFile& file) {
    if (fclose(file.release()) != 0) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_num, fclose fail");
    }
}

} // namespace

void location_config_get_path(char* dst, const char* default_text, const char* key) {
    ConfigFile file(fopen(kConfigPath, kReadMode));
    if (file == nullptr) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, open fail");
        copy_text(dst, default_text);
        return;
    }
    char line[kLineSize];
    const char* const value = find_value(file.get(), key, line);
    if (value == nullptr) {
        close_after_path(file);
        copy_text(dst, default_text);
        return;
    }
    copy_text(dst, value);
    close_after_path(file);
}

void location_config_get_num(int32_t* dst, int32_t default_value, const char* key) {
    ConfigFile file(fopen(kConfigPath, kReadMode));
    if (file == nullptr) {
        // kept: the text of the path reader.
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, open fail");
        *dst = default_value;
        return;
    }
    char line[kLineSize];
    const char* const value = find_value(file.get(), key, line);
    *dst = value != nullptr ? to_number(value) : default_value;
    close_after_num(file);
}

void location_config_get_uart_path(char* path) {
    location_config_get_path(path, "/dev/ttyS1", "UART port path=");
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", path);
}

void location_config_get_uart(SerialPortConfig* config) {
    location_config_get_path(config->path, "/dev/ttyS1", "UART port path=");
    location_config_get_num(&config->baud_rate, kDefaultBaudRate, "UART baudrate=");
    location_config_get_num(&config->flow_control, kDefaultFlowControl, "UART flow control=");
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]UART baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]UART flow control:%d\n", config->flow_control);
}

void location_config_get_debug_port(SerialPortConfig* config) {
    location_config_get_path(config->path, kNotConfigured, "debug port path=");
    location_config_get_num(&config->baud_rate, kDefaultBaudRate, "debug port baudrate=");
    location_config_get_num(&config->flow_control, kDefaultFlowControl, "debug port flow control=");
    printf("[LOCSERV] INF: [CFG]debug port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]debug port flow control:%d\n", config->flow_control);
}

void location_config_get_debug_socket(DebugSocketConfig* config) {
    location_config_get_path(config->ip, "192.168.1.1", "debug socket ip=");
    location_config_get_num(&config->port, kDefaultDebugSocketPort, "debug socket port=");
    printf("[LOCSERV] INF: [CFG]debug socket ip:%s\n", config->ip);
    // kept: readers of the log know the port under this text.
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->port);
}

void location_config_get_spi(SpiPortConfig* config) {
    location_config_get_path(config->path, "/dev/spidev1.0", "SPI port path=");
    location_config_get_num(&config->frequency, kDefaultSpiFrequency, "SPI frequency=");
    location_config_get_num(&config->bit_order, kDefaultSpiBitOrder, "SPI bit order=");
    location_config_get_num(&config->cpha, kDefaultSpiCpha, "SPI CPHA=");
    location_config_get_num(&config->cpol, kDefaultSpiCpol, "SPI CPOL=");
    printf("[LOCSERV] INF: [CFG]spi port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]spi frequencey:%d\n", config->frequency);
    printf("[LOCSERV] INF: [CFG]spi bit order:%d\n", config->bit_order);
    printf("[LOCSERV] INF: [CFG]spi cpha:%d\n", config->cpha);
    printf("[LOCSERV] INF: [CFG]spi cpol:%d\n", config->cpol);
}

void location_config_get_power_gpio(int32_t* gpio) {
    location_config_get_num(gpio, kGpioNotConfigured, "Power control gpio=");
    printf("[LOCSERV] INF: [CFG]Power control gpio:%d\n", *gpio);
}

void location_config_get_reset_gpio(int32_t* gpio) {
    location_config_get_num(gpio, kGpioNotConfigured, "Reset GNSS gpio=");
    printf("[LOCSERV] INF: [CFG]Reset GNSS gpio:%d\n", *gpio);
}

void location_config_get_notify_gpio(int32_t* gpio) {
    location_config_get_num(gpio, kGpioNotConfigured, "Notify GNSS gpio=");
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
    location_config_get_path(config->vendor, kNotConfigured, "XOD vendor=");
    location_config_get_path(config->project, kNotConfigured, "XOD project=");
    location_config_get_path(config->device_id, kNotConfigured, "XOD device id=");
    printf("[LOCSERV] INF: [CFG]XOD host:%s\n", config->host);
    printf("[LOCSERV] INF: [CFG]XOD vendor:%s\n", config->vendor);
    printf("[LOCSERV] INF: [CFG]XOD project:%s\n", config->project);
    printf("[LOCSERV] INF: [CFG]XOD device id:%s\n", config->device_id);
}

void location_config_get_keep_good_files(int32_t* keep) {
    location_config_get_num(keep, kDefaultKeepGoodFiles, "keep good files=");
    printf("[LOCSERV] INF: [CFG]keep good files:%d\n", *keep);
}

#include "config/location_config.h"

#include "base/cancel_hold.h"
#include "base/format.h"
#include "base/free_block.h"
#include "base/regular_file.h"
#include "config/location_config_keys.h"
#include "config/location_config_text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr char kConfigPath[] = "/etc/default/tavor/tavor.conf";

using Bytes = std::unique_ptr<char, FreeBlock>;

struct Content {
    Bytes bytes;
    size_t size = 0;
};

// What was read well the last time: it stands in for a file that can't be read now.
struct ConfigState {
    std::mutex lock;
    Content last; // no bytes: the file has never been read, or was not there the last time
};

ConfigState state;

// What came of reading the file, beside its content.
struct Reading {
    int error = 0; // why the file could not be opened or read
    bool opened = false;
    bool closed = true; // false: closing failed
};

void copy_text(char* dst, const char* text) {
    if (format(dst, kConfigTextSize, "%s", text) < 0) {
        puts("[LOCSERV] ERR: location_config_get_path get path fail");
    }
}

bool read_all(FILE* file, Content* out) {
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0) {
        return false;
    }
    out->size = std::min(static_cast<size_t>(status.st_size), kConfigContentMax);
    out->bytes.reset(static_cast<char*>(malloc(out->size + 1)));
    if (out->bytes == nullptr) {
        return false;
    }
    out->size = fread(out->bytes.get(), 1, out->size, file);
    return ferror(file) == 0;
}

// Reads the file into state.last. When it fails the content before stays, unless the file is not there.
Reading read_file() {
    Reading reading;
    FILE* const file = regular_file_read(kConfigPath);
    if (file == nullptr) {
        reading.error = errno;
        if (errno == ENOENT || errno == ENOTDIR) {
            state.last = {};
        }
        return reading;
    }
    reading.opened = true;
    Content content;
    if (read_all(file, &content)) {
        state.last = std::move(content);
    } else {
        reading.error = errno;
    }
    reading.closed = fclose(file) == 0;
    return reading;
}

// Logs what went wrong. Any passing failure (no descriptor, no memory, a bad sector) must not mean defaults:
// a download would write the image of the default path.
void log_reading(const Reading& reading, bool stands_in, const char* close_failure) {
    if (!reading.opened) {
        puts("[LOCSERV] ERR: [CFG]location_config_get_path, open fail");
    }
    if (reading.error != 0 && stands_in) {
        printf("[LOCSERV] WRN: [CFG]%s can't be read, error %d: its last content stands in\n", kConfigPath,
               reading.error);
    }
    if (!reading.closed) {
        puts(close_failure);
    }
}

// Looks the key up, in the file as it is now or as it was read the last time.
bool look_up(const char* key, char* value, const char* close_failure) {
    Reading reading;
    bool stands_in = false;
    bool found = false;
    {
        const CancelHold hold; // a thread that is stopped here leaves no lock and no file behind
        const std::lock_guard<std::mutex> guard(state.lock);
        reading = read_file();
        stands_in = state.last.bytes != nullptr;
        found = config_text_find({state.last.bytes.get(), state.last.size}, key, value);
    }
    log_reading(reading, stands_in, close_failure);
    return found;
}

// The two below read a key of the table.

void get_text(char* dst, location_config_id id) {
    const ConfigKey& row = location_config_key(id);
    location_config_get_path(dst, row.text, row.key);
}

void get_number(int32_t* dst, location_config_id id) {
    const ConfigKey& row = location_config_key(id);
    location_config_get_num(dst, row.number, row.key);
}

} // namespace

void location_config_get_path(char* dst, const char* default_text, const char* key) {
    char value[kConfigLineSize];
    const bool found = look_up(key, value, "[LOCSERV] ERR: [CFG]location_config_get_path, fclose fail");
    copy_text(dst, found ? value : default_text);
}

// Kept: a file that can't be opened is logged with the text of the path reader.
void location_config_get_num(int32_t* dst, int32_t default_value, const char* key) {
    char value[kConfigLineSize];
    const bool found = look_up(key, value, "[LOCSERV] ERR: [CFG]location_config_get_num, fclose fail");
    *dst = found ? config_text_number(value) : default_value;
}

void location_config_get_uart_path(char* path) {
    get_text(path, CONFIG_UART_PATH);
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", path);
}

void location_config_get_uart(SerialPortConfig* config) {
    get_text(config->path, CONFIG_UART_PATH);
    get_number(&config->baud_rate, CONFIG_UART_BAUD_RATE);
    get_number(&config->flow_control, CONFIG_UART_FLOW_CONTROL);
    printf("[LOCSERV] INF: [CFG]UART path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]UART baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]UART flow control:%d\n", config->flow_control);
}

void location_config_get_debug_port(SerialPortConfig* config) {
    get_text(config->path, CONFIG_DEBUG_PORT_PATH);
    get_number(&config->baud_rate, CONFIG_DEBUG_PORT_BAUD_RATE);
    get_number(&config->flow_control, CONFIG_DEBUG_PORT_FLOW_CONTROL);
    printf("[LOCSERV] INF: [CFG]debug port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->baud_rate);
    printf("[LOCSERV] INF: [CFG]debug port flow control:%d\n", config->flow_control);
}

void location_config_get_debug_socket(DebugSocketConfig* config) {
    get_text(config->ip, CONFIG_DEBUG_SOCKET_IP);
    get_number(&config->port, CONFIG_DEBUG_SOCKET_PORT);
    printf("[LOCSERV] INF: [CFG]debug socket ip:%s\n", config->ip);
    // Kept: readers of the log know the port under this text.
    printf("[LOCSERV] INF: [CFG]debug port baudrate:%d\n", config->port);
}

void location_config_get_spi(SpiPortConfig* config) {
    get_text(config->path, CONFIG_SPI_PATH);
    get_number(&config->frequency, CONFIG_SPI_FREQUENCY);
    get_number(&config->bit_order, CONFIG_SPI_BIT_ORDER);
    get_number(&config->cpha, CONFIG_SPI_CPHA);
    get_number(&config->cpol, CONFIG_SPI_CPOL);
    printf("[LOCSERV] INF: [CFG]spi port path:%s\n", config->path);
    printf("[LOCSERV] INF: [CFG]spi frequencey:%d\n", config->frequency);
    printf("[LOCSERV] INF: [CFG]spi bit order:%d\n", config->bit_order);
    printf("[LOCSERV] INF: [CFG]spi cpha:%d\n", config->cpha);
    printf("[LOCSERV] INF: [CFG]spi cpol:%d\n", config->cpol);
}

void location_config_get_power_gpio(int32_t* gpio) {
    get_number(gpio, CONFIG_POWER_GPIO);
    printf("[LOCSERV] INF: [CFG]Power control gpio:%d\n", *gpio);
}

void location_config_get_reset_gpio(int32_t* gpio) {
    get_number(gpio, CONFIG_RESET_GPIO);
    printf("[LOCSERV] INF: [CFG]Reset GNSS gpio:%d\n", *gpio);
}

void location_config_get_notify_gpio(int32_t* gpio) {
    get_number(gpio, CONFIG_NOTIFY_GPIO);
    printf("[LOCSERV] INF: [CFG]Notify GNSS gpio:%d\n", *gpio);
}

void location_config_get_nmea_path(char* path) {
    get_text(path, CONFIG_NMEA_PATH);
    printf("[LOCSERV] INF: [CFG]nmea path:%s\n", path);
}

void location_config_get_log_path(char* path) {
    get_text(path, CONFIG_LOG_PATH);
    printf("[LOCSERV] INF: [CFG]log path:%s\n", path);
}

void location_config_get_da_path(char* path) {
    get_text(path, CONFIG_DA_PATH);
    printf("[LOCSERV] INF: [CFG]DA path:%s\n", path);
}

void location_config_get_image_path(char* path) {
    get_text(path, CONFIG_IMAGE_PATH);
    printf("[LOCSERV] INF: [CFG]image path:%s\n", path);
}

void location_config_get_xod_path(char* path) {
    get_text(path, CONFIG_XOD_PATH);
    printf("[LOCSERV] INF: [CFG]XOD file path:%s\n", path);
}

void location_config_get_xod_server(XodServerConfig* config) {
    get_text(config->host, CONFIG_XOD_HOST);
    get_text(config->vendor, CONFIG_XOD_VENDOR);
    get_text(config->project, CONFIG_XOD_PROJECT);
    get_text(config->device_id, CONFIG_XOD_DEVICE_ID);
    printf("[LOCSERV] INF: [CFG]XOD host:%s\n", config->host);
    printf("[LOCSERV] INF: [CFG]XOD vendor:%s\n", config->vendor);
    printf("[LOCSERV] INF: [CFG]XOD project:%s\n", config->project);
    printf("[LOCSERV] INF: [CFG]XOD device id:%s\n", config->device_id);
}

void location_config_get_keep_good_files(int32_t* keep) {
    get_number(keep, CONFIG_KEEP_GOOD_FILES);
    printf("[LOCSERV] INF: [CFG]keep good files:%d\n", *keep);
}

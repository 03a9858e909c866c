#include "config/location_config.h"

#include "base/cancel_hold.h"
#include "base/format.h"
#include "base/free_block.h"
#include "base/regular_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <utility>

namespace {

constexpr char kConfigPath[] = "/etc/default/tavor/tavor.conf";
// A longer line arrives in pieces, each searched as a line of its own.
constexpr size_t kLineSize = 256;
// Of a larger file no more is read, bytes.
constexpr size_t kContentMax = 16UL * 1024 * 1024;

constexpr int32_t kDefaultBaudRate = 921600;
constexpr int32_t kDefaultFlowControl = 0;
constexpr int32_t kDefaultDebugSocketPort = 7005;
constexpr int32_t kDefaultSpiFrequency = 24000000; // Hz
constexpr int32_t kDefaultSpiBitOrder = 0;
constexpr int32_t kDefaultSpiCpha = 0;
constexpr int32_t kDefaultSpiCpol = 0;
constexpr int32_t kDefaultKeepGoodFiles = 0;
constexpr int32_t kGpioNotConfigured = 999999;
// Kept: a missing text is one blank, which no device and no server accepts.
constexpr char kNotConfigured[] = " ";

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

bool read_all(FILE* file, Content* out) {
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0) {
        return false;
    }
    out->size = std::min(static_cast<size_t>(status.st_size), kContentMax);
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

// The next line with its newline, or as much of it as fits into kLineSize bytes with a NUL. Returns false at
// the end of the content.
bool next_line(const Content& content, size_t* at, char* line) {
    const char* from = content.bytes.get() + *at;
    const size_t most = std::min(content.size - *at, kLineSize - 1);
    const void* newline = memchr(from, '\n', most);
    const size_t length =
        newline == nullptr ? most : static_cast<size_t>(static_cast<const char*>(newline) - from) + 1;
    memcpy(line, from, length);
    line[length] = '\0';
    *at += length;
    return length > 0;
}

// Copies what stands behind the key in the first line that holds it anywhere to value (kLineSize bytes).
bool find_value(const Content& content, const char* key, char* value) {
    if (content.bytes == nullptr) {
        return false;
    }
    char line[kLineSize];
    for (size_t at = 0; next_line(content, &at, line);) {
        char* const match = strstr(line, key);
        if (match != nullptr) {
            cut_line_end(match);
            const char* const text = match + strlen(key);
            memcpy(value, text, strlen(text) + 1);
            return true;
        }
    }
    return false;
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
        found = find_value(state.last, key, value);
    }
    log_reading(reading, stands_in, close_failure);
    return found;
}

// As atoi, but with a result for any number of digits.
int32_t to_number(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

} // namespace

void location_config_get_path(char* dst, const char* default_text, const char* key) {
    char value[kLineSize];
    const bool found = look_up(key, value, "[LOCSERV] ERR: [CFG]location_config_get_path, fclose fail");
    copy_text(dst, found ? value : default_text);
}

// Kept: a file that can't be opened is logged with the text of the path reader.
void location_config_get_num(int32_t* dst, int32_t default_value, const char* key) {
    char value[kLineSize];
    const bool found = look_up(key, value, "[LOCSERV] ERR: [CFG]location_config_get_num, fclose fail");
    *dst = found ? to_number(value) : default_value;
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
    // Kept: readers of the log know the port under this text.
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

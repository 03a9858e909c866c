// The configuration reader on a hostile file: what each key yields is what a model that cuts the file into
// pieces of at most 255 characters finds, and nothing outside the text's room changes. The input is the file.
#include "config/location_config.h"
#include "fuzz.h"

#include <fcntl.h>
#include <limits>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr size_t kPiece = 255;
constexpr size_t kLongestText = 127;
constexpr size_t kRoom = 16;
constexpr char kCanary = '#';
constexpr char kDefaultText[] = "default text";
constexpr int32_t kDefaultNumber = -4711;

constexpr const char* kKeys[] = {"UART port path=",   "UART baudrate=",       "UART flow control=",
                                 "debug port path=",  "debug port baudrate=", "debug port flow control=",
                                 "debug socket ip=",  "debug socket port=",   "SPI port path=",
                                 "SPI frequency=",    "SPI bit order=",       "SPI CPHA=",
                                 "SPI CPOL=",         "Power control gpio=",  "Reset GNSS gpio=",
                                 "Notify GNSS gpio=", "NMEA file path=",      "LOG path=",
                                 "DA path=",          "image path=",          "XOD file path=",
                                 "XOD host=",         "XOD vendor=",          "XOD project=",
                                 "XOD device id=",    "keep good files="};

struct ConfigFile {
    std::string content;
} file;

std::optional<std::string> expected_value(std::string content, const std::string& key) {
    while (!content.empty()) {
        const std::string piece = take_piece(&content, kPiece);
        const size_t at = piece.find(key);
        if (at == std::string::npos) {
            continue;
        }
        std::string value = piece.substr(at + key.size());
        if (!value.empty() && value.back() == '\n') {
            value.pop_back();
            if (!value.empty() && value.back() == '\r') {
                value.pop_back();
            }
        }
        return value;
    }
    return std::nullopt;
}

// The digits of the text, held at the limits of 64 bits; its low 32 bits are the setting.
int32_t expected_number(const std::string& text) {
    size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = at < text.size() && text[at] == '-';
    at += at < text.size() && (negative || text[at] == '+') ? 1 : 0;
    const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
    uint64_t size = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        const auto digit = static_cast<uint64_t>(text[at] - '0');
        size = size > (limit - digit) / 10 ? limit : size * 10 + digit;
    }
    return static_cast<int32_t>(static_cast<uint32_t>(negative ? 0 - size : size));
}

void check_text(const char* key) {
    char guarded[kRoom + kConfigTextSize + kRoom];
    memset(guarded, kCanary, sizeof guarded);
    location_config_get_path(guarded + kRoom, kDefaultText, key);
    const std::string canaries(kRoom, kCanary);
    require(std::string(guarded, kRoom) == canaries, "wrote before the text");
    require(std::string(guarded + kRoom + kConfigTextSize, kRoom) == canaries, "wrote behind the text");
    require(memchr(guarded + kRoom, '\0', kConfigTextSize) != nullptr, "text without an end");
    const std::string expected = expected_value(file.content, key).value_or(kDefaultText);
    require(std::string(guarded + kRoom) == expected.substr(0, kLongestText), "text differs");
}

void check_number(const char* key) {
    int32_t number = 0;
    location_config_get_num(&number, kDefaultNumber, key);
    const std::optional<std::string> text = expected_value(file.content, key);
    require(number == (text ? expected_number(*text) : kDefaultNumber), "number differs");
}

// A record whose last text runs on is found by the sanitizer: each stands alone on the heap.
void fill_records() {
    location_config_get_uart(std::make_unique<SerialPortConfig>().get());
    location_config_get_debug_port(std::make_unique<SerialPortConfig>().get());
    location_config_get_debug_socket(std::make_unique<DebugSocketConfig>().get());
    location_config_get_spi(std::make_unique<SpiPortConfig>().get());
    location_config_get_xod_server(std::make_unique<XodServerConfig>().get());
}

} // namespace

// The input is the configuration, whatever its path: a regular file in memory.
extern "C" int __wrap_open(const char* /*path*/, int /*flags*/, mode_t /*mode*/) {
    const int made = memfd_create("config", MFD_CLOEXEC);
    const size_t size = file.content.size();
    require(made >= 0 && write(made, file.content.data(), size) == static_cast<ssize_t>(size) &&
                lseek(made, 0, SEEK_SET) == 0,
            "no file in memory");
    return made;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    file.content.assign(reinterpret_cast<const char*>(bytes), size);
    silence_log();
    for (const char* key : kKeys) {
        check_text(key);
        check_number(key);
    }
    fill_records();
    return 0;
}

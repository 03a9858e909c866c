#include "config/location_config_keys.h"

namespace {

constexpr int32_t kDefaultBaudRate = 921600;
constexpr int32_t kDefaultDebugSocketPort = 7005;
constexpr int32_t kDefaultSpiFrequency = 24000000; // Hz
constexpr int32_t kDefaultKeepGoodFiles = 0;

// In the order of the numbers.
constexpr ConfigKey kKeys[] = {
    {"UART port path=", "/dev/ttyS1", 0, CONFIG_UART_PATH},
    {"UART baudrate=", nullptr, kDefaultBaudRate, CONFIG_UART_BAUD_RATE},
    {"UART flow control=", nullptr, 0, CONFIG_UART_FLOW_CONTROL},
    {"debug port path=", kNotConfigured, 0, CONFIG_DEBUG_PORT_PATH},
    {"debug port baudrate=", nullptr, kDefaultBaudRate, CONFIG_DEBUG_PORT_BAUD_RATE},
    {"debug port flow control=", nullptr, 0, CONFIG_DEBUG_PORT_FLOW_CONTROL},
    {"debug socket ip=", "192.168.1.1", 0, CONFIG_DEBUG_SOCKET_IP},
    {"debug socket port=", nullptr, kDefaultDebugSocketPort, CONFIG_DEBUG_SOCKET_PORT},
    {"SPI port path=", "/dev/spidev1.0", 0, CONFIG_SPI_PATH},
    {"SPI frequency=", nullptr, kDefaultSpiFrequency, CONFIG_SPI_FREQUENCY},
    {"SPI bit order=", nullptr, 0, CONFIG_SPI_BIT_ORDER},
    {"SPI CPHA=", nullptr, 0, CONFIG_SPI_CPHA},
    {"SPI CPOL=", nullptr, 0, CONFIG_SPI_CPOL},
    {"Power control gpio=", nullptr, kGpioNotConfigured, CONFIG_POWER_GPIO},
    {"Reset GNSS gpio=", nullptr, kGpioNotConfigured, CONFIG_RESET_GPIO},
    {"Notify GNSS gpio=", nullptr, kGpioNotConfigured, CONFIG_NOTIFY_GPIO},
    {"NMEA file path=", "/etc/default/tavor/location.dat", 0, CONFIG_NMEA_PATH},
    {"LOG path=", "/etc/default/tavor/log.dat", 0, CONFIG_LOG_PATH},
    {"DA path=", "/etc/default/tavor/da/qx7710_da.bin", 0, CONFIG_DA_PATH},
    {"image path=", "/etc/default/tavor/load/flash_download.cfg", 0, CONFIG_IMAGE_PATH},
    {"XOD file path=", "/etc/default/tavor/xod", 0, CONFIG_XOD_PATH},
    {"XOD host=", TAVOR_XOD_HOST, 0, CONFIG_XOD_HOST},
    {"XOD vendor=", kNotConfigured, 0, CONFIG_XOD_VENDOR},
    {"XOD project=", kNotConfigured, 0, CONFIG_XOD_PROJECT},
    {"XOD device id=", kNotConfigured, 0, CONFIG_XOD_DEVICE_ID},
    {"keep good files=", nullptr, kDefaultKeepGoodFiles, CONFIG_KEEP_GOOD_FILES},
};

constexpr bool is_in_order() {
    for (uint32_t at = 0; at < CONFIG_KEY_COUNT; ++at) {
        if (kKeys[at].id != at) {
            return false;
        }
    }
    return sizeof kKeys / sizeof *kKeys == CONFIG_KEY_COUNT;
}
static_assert(is_in_order());

} // namespace

const ConfigKey& location_config_key(location_config_id id) {
    return kKeys[id];
}

#include "download/hdl_driver.h"

#include "base/format.h"
#include "base/free_block.h"
#include "config/location_config.h"
#include "download/hdl_brom.h"
#include "download/hdl_da.h"
#include "download/hdl_flash.h"
#include "download/hdl_image.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_text.h"
#include "download/tool_time.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr uint32_t kVariant = 1; // the only chip of this program; its identifier need not be read
constexpr uint32_t kHighSpeed = 1;
constexpr uint32_t kFastBaud = 921600;
constexpr uint32_t kSlowBaud = 115200;
constexpr uint8_t kFinishParameter = 0;
constexpr int32_t kFailed = -1;

// The images of a download, in their order.
struct Images {
    std::unique_ptr<ImageEntry[], FreeBlock> list;
    std::unique_ptr<uint64_t[], FreeBlock> sizes; // bytes that were written of each
    uint32_t count = 0;
};

bool load_images(Images* images) {
    images->list.reset(load_flash_download_cfg(g_download_settings.image_cfg_path, &images->count));
    if (images->list == nullptr) {
        tool_log_error("Parsing config content failed\n");
        return false;
    }
    images->sizes.reset(static_cast<uint64_t*>(calloc(images->count, sizeof(uint64_t))));
    if (images->sizes == nullptr) {
        tool_log_error("hdl_download_flow malloc sizes fail\n");
        return false;
    }
    return true;
}

int32_t ms_since(int64_t start) {
    return static_cast<int32_t>(tool_time_now_ms() - start);
}

bool shake_hands() {
    if (!hdl_brom_handshake()) {
        tool_log_error("========== Handshake fail ==========\n");
        return false;
    }
    tool_log_info("========== Handshake pass ==========\n");
    return true;
}

bool show_uid() {
    uint8_t uid[kBromUidSize] = {};
    if (!hdl_brom_read_uid(uid)) {
        return false;
    }
    tool_log_info("========== Read UID ==========\n");
    tool_hex_dump(uid, "UID", sizeof uid);
    return true;
}

bool prepare_serial_line() {
    if (g_download_settings.link_type != HDL_LINK_UART) {
        return true;
    }
    if (g_download_settings.chip_variant != kVariant && !show_uid()) {
        return false;
    }
    if (!hdl_brom_set_baudrate(g_download_settings.high_speed != 0 ? kFastBaud : kSlowBaud)) {
        return false;
    }
    tool_log_info("========== Set BootROM baudrate pass ==========\n");
    return true;
}

bool start_agent(FlashInfo* info) {
    return hdl_brom_set_registers() && hdl_brom_send_da() && hdl_brom_jump_da() &&
           hdl_da_get_flash_info(info);
}

bool erase_flash(const FlashInfo& info) {
    const int64_t start = tool_time_now_ms();
    if (!da_format_flash(info.address, info.size)) {
        return false;
    }
    tool_log_info("Format time: %d ms\n", ms_since(start));
    return true;
}

bool write_images(const Images& images) {
    const int64_t start = tool_time_now_ms();
    for (uint32_t i = 0; i < images.count; ++i) {
        const ImageEntry image = images.list[i];
        if (!download_image(&image, &images.sizes[i])) {
            tool_log_error("download %s FAILED\n", image.name);
            return false;
        }
        tool_log_info("download %s PASS\n", image.name);
    }
    tool_log_info("Download time: %d ms\n", ms_since(start));
    return true;
}

bool check_images(const Images& images) {
    const int64_t start = tool_time_now_ms();
    for (uint32_t i = 0; i < images.count; ++i) {
        const ImageEntry image = images.list[i];
        if (!check_image_crc(&image, images.sizes[i])) {
            tool_log_error("check_image_crc %s FAILED\n", image.name);
            return false;
        }
        tool_log_info("check_image_crc %s PASS\n", image.name);
    }
    tool_log_info("Check image crc time: %d ms\n", ms_since(start));
    return true;
}

// All images are written before the first is checked.
bool run_on_open_transport(const Images& images) {
    FlashInfo info = {};
    return shake_hands() && prepare_serial_line() && start_agent(&info) && erase_flash(info) &&
           write_images(images) && check_images(images) && hdl_finish_kite(kFinishParameter);
}

} // namespace

void hdl_config_slave_chip() {
    DownloadSettings& settings = g_download_settings;
    settings.chip_variant = kVariant;
    settings.link_type = HDL_LINK_SPI;
    settings.high_speed = kHighSpeed;
    settings.baudrate = kFastBaud;

    SpiPortConfig spi = {};
    location_config_get_spi(&spi);
    settings.spi_frequency = static_cast<uint32_t>(spi.frequency);
    settings.spi_bit_order = static_cast<uint32_t>(spi.bit_order);
    if (format(settings.io_path, sizeof settings.io_path, "%s", spi.path) < 0) {
        tool_log_error("hdl_config_slave_chip, get io path fail\n");
    }

    memset(settings.da_path, 0, sizeof settings.da_path);
    location_config_get_da_path(settings.da_path);
    memset(settings.image_cfg_path, 0, sizeof settings.image_cfg_path);
    location_config_get_image_path(settings.image_cfg_path);
}

int32_t hdl_firmware_download() {
    hdl_config_slave_chip();
    tool_time_start();
    tool_log_info("========== Download start ========\n");
    if (!hdl_download_flow()) {
        tool_log_info("========== Download Fail ========\n");
        return kFailed;
    }
    tool_log_info("========== Download Finish ========\n");
    return 0;
}

bool hdl_download_flow() {
    hdl_progress_start();
    Images images;
    if (!load_images(&images) || !hdl_transport_open(g_download_settings)) {
        return false;
    }
    const bool done = run_on_open_transport(images);
    hdl_transport_close();
    return done;
}

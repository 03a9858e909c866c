// Settings of a firmware download. The driver fills them anew for each one; boot ROM and download agent read
// them. Whatever lies below (link, files) is handed what it needs.
#ifndef TAVOR_HDL_SETTINGS_H
#define TAVOR_HDL_SETTINGS_H

#include <cstdint>

enum HdlLinkType : uint32_t {
    HDL_LINK_UART = 0,
    HDL_LINK_SPI = 1,
    HDL_LINK_OTHER = 2, // a third kind of link that only calls a hook
};

struct DownloadSettings {
    uint32_t chip_variant;
    uint32_t link_type;     // HdlLinkType
    uint32_t high_speed;    // serial link only: not 0 raises the boot ROM's speed
    uint32_t baudrate;      // serial link only: of the download agent
    uint32_t spi_frequency; // Hz
    uint32_t spi_bit_order;
    char da_path[128];
    char image_cfg_path[256];
    char io_path[128];
};

inline DownloadSettings g_download_settings;

#endif

// The firmware download from its settings to the finished flash.
#ifndef TAVOR_HDL_DRIVER_H
#define TAVOR_HDL_DRIVER_H

#include <cstdint>

// Fills g_download_settings from the configuration.
void hdl_config_slave_chip();

// Writes and checks every image of the image list. Takes minutes; logs its progress, its times and why it
// failed. The chip is left as the agent leaves it. Returns 0 or -1.
int32_t hdl_firmware_download();

// The same with the settings as they are, for hdl_firmware_download. Returns success.
bool hdl_download_flow();

#endif

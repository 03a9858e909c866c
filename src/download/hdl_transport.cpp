#include "download/hdl_transport.h"

#include "download/hdl_settings.h"
#include "download/spim.h"

bool hdl_transport_open(const DownloadSettings& settings) {
    const SpimPort port = {settings.io_path, settings.spi_frequency, settings.spi_bit_order};
    return hdl_transport_prepare() && spim_open(port) == 1;
}

void hdl_transport_close() {
    spim_close();
}

bool hdl_transport_send(const uint8_t* data, uint32_t n, uint32_t /*send_flag*/) {
    return spim_write_chunked(data, n) == 1;
}

bool hdl_transport_taken() {
    return spim_write_taken();
}

uint32_t hdl_transport_receive(uint8_t* buffer, uint32_t n) {
    return spim_read_chunked(buffer, n);
}

bool hdl_transport_prepare() {
    return true;
}

bool hdl_transport_set_speed(uint32_t /*baud*/) {
    return true;
}

void hdl_transport_link_hook(uint32_t /*value*/) {}

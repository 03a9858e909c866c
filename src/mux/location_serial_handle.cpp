#include "mux/location_serial_handle.h"

// A file of its own, so that a program for a board with the chip on I2C needs to replace nothing else.
host_mux_handle g_location_serial_handle{HOST_MUX_BUS_SPI, kHostMuxClosed};

// In place of the daemon's own handle: the same daemon with its chip on I2C.
#include "mux/location_serial_handle.h"

host_mux_handle g_location_serial_handle{HOST_MUX_BUS_I2C, kHostMuxClosed};

#include "link/host_mux_spi_slave.h"

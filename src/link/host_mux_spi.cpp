#include "link/host_mux_spi.h"

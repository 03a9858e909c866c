#include "link/location_serial_port.h"

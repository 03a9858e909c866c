#include "link/location_spi.h"

#include "link/location_i2c.h"

#include "link/location_gpio.h"

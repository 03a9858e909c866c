#include "config/location_config.h"

#include "debug/location_debug.h"

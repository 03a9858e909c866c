#include "link/location_timer.h"

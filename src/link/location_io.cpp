#include "link/location_io.h"

#include "link/location_frame.h"

#include "service/location_aiding.h"

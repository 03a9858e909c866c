#include "service/location_position.h"

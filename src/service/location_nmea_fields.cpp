#include "service/location_nmea_fields.h"

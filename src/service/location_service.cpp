#include "service/location_service.h"

#include "service/location_record.h"

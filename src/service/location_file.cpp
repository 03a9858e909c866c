#include "service/location_file.h"

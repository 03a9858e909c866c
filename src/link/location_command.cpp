#include "link/location_command.h"

#include "link/port_platform.h"

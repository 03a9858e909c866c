#include "link/host_mux_lock.h"

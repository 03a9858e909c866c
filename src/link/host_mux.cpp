#include "link/host_mux.h"

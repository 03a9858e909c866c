#include "service/service_queue.h"

#include "service/tavor_reply.h"

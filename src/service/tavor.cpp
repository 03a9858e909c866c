#include "service/tavor.h"

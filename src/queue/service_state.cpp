#include "queue/service_state.h"

ServiceState g_service_state = {
    .tid = {}, .msqid = -1, .xod_enabled = 0, .response = nullptr, .location = {}};

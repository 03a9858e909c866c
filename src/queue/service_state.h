// State of the service. Only msqid is read by threads other than the service's once that runs.
#ifndef TAVOR_SERVICE_STATE_H
#define TAVOR_SERVICE_STATE_H

#include "nmea/location_record.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

// Called with a service message id, a result or number, and payload bytes (null when there are none).
using ResponseCallback = void (*)(uint32_t id, uint32_t value, const void* payload, uint32_t length);

struct ServiceState {
    pthread_t tid = {};
    std::atomic<int32_t> msqid = -1; // -1 when the queue could not be made
    uint32_t xod_enabled = 0;        // 1 once a client has started the assistance download
    ResponseCallback response = nullptr;
    LocationRecord location = {};
};

inline ServiceState g_service_state;

#endif

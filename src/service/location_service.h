// The service: one thread that runs every operation from the service queue and replies through a callback.
#ifndef TAVOR_LOCATION_SERVICE_H
#define TAVOR_LOCATION_SERVICE_H

#include "queue/service_queue.h"
#include "queue/service_state.h"

#include <cstdint>

// Makes the queue, deletes the saved location and starts the service thread. Called once. Returns 0, or -1
// when there is no thread; a queue that can't be made yet is tried again by the thread.
int32_t location_service_init(ResponseCallback response);

// Body of the service thread; never returns.
void* location_service_task_main(void* unused);

// Runs one message and frees its data.
void location_service_message_handle(const ServiceMessage* message);

// The operations. Return 0 or -1.
int32_t location_service_start();
int32_t location_service_stop();
int32_t location_service_download();

#endif

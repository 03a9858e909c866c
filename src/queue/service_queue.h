// The service queue: every request, every frame of the chip and every assistance result is a message in it.
// Senders need to know this header only, not the service that handles the messages.
#ifndef TAVOR_SERVICE_QUEUE_H
#define TAVOR_SERVICE_QUEUE_H

#include <cstdint>

enum service_message_id : uint32_t {
    SERVICE_START = 0,
    SERVICE_STOP = 1,
    SERVICE_DOWNLOAD = 2,
    SERVICE_SAVE_LOCATION = 3,
    SERVICE_DEBUG_OFF = 4,
    SERVICE_DEBUG_FILE = 5,
    SERVICE_DEBUG_SERIAL = 6,
    SERVICE_COMMAND = 7,
    SERVICE_ASSIST = 8,
    SERVICE_ASSIST_RESULT = 9,
    SERVICE_FRAME_NONE = 10,
    SERVICE_FRAME_NMEA = 11,
    SERVICE_FRAME_PZUL = 12,
    SERVICE_FRAME_BINARY = 13,
    SERVICE_POSITION = 14, // never enqueued: only the id of the position block's reply
    SERVICE_DEBUG_TCP = 15,
};

// A message, and the body of its record in the kernel's queue. data is a malloc'ed block or null; it belongs
// to the queue from the moment it is sent.
struct ServiceMessage {
    uint32_t id;
    void* data;
    uint32_t length; // bytes of data
};

// Throws an old queue away with what it holds and makes a new one, whose id goes to the service state.
// Returns the id or -1.
int32_t service_queue_open();

// Enqueues; any thread. On failure the data is freed and the failure logged. While the queue is full it waits
// (a cancellation point), except on the queue's consumer, which would wait for itself. A stop or a download
// finds room in a full queue too, and waits only while 32,768 messages are there. Both are announced
// (base/stop_request.h) from here until they are handled, so that what is queued before them comes to an end
// soon.
void location_service_task_send_message(uint32_t id, void* data, uint32_t length);

// How long requests wait for room together, from the first one that waits.
struct ServiceQueuePatience {
    uint64_t wait_us;
    uint64_t until_us = 0; // of the monotonic clock; 0 until one waits
};

// The same for a request of a client, whose sender must not be kept waiting longer than the patience lasts.
// Returns whether the request was enqueued.
bool service_queue_request(uint32_t id, void* data, uint32_t length, ServiceQueuePatience* patience);

enum class ServiceQueueWait {
    until_one_comes,
    shortly, // 10 ms
};

// Takes the next message into *message; waits for one. The calling thread becomes the queue's consumer.
// Returns false when there was none: after a record of another program, or after 10 ms. A queue that is gone
// is made again; what waits in it is kept.
bool service_queue_receive(ServiceMessage* message,
                           ServiceQueueWait wait = ServiceQueueWait::until_one_comes);

// Reports that a received message has been handled: ends what its send announced.
void service_queue_handled(const ServiceMessage& message);

#endif

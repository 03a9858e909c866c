// The receive thread: reads the chip link, finds the frames, hands each to the service queue.
#ifndef TAVOR_LOCATION_IO_H
#define TAVOR_LOCATION_IO_H

#include <cstdint>

// Starts the thread unless one is working. Returns 0 or -1.
int32_t location_io_thread_init();

// Ends the thread, if there is one, and closes the link. Returns 0 or -1.
int32_t location_io_thread_deinit();

// Body of the thread; returns only when the link can't be opened.
void* location_io_rx_task(void* unused);

// Enqueues a copy of a frame of length bytes for the service, as message 10 + type; types above FRAME_BINARY
// are dropped.
void location_io_data_handle(uint32_t type, const uint8_t* data, int32_t length);

#endif

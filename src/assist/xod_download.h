// Keeps the local assistance files fresh: timers, queue of downloads, retries.
#ifndef TAVOR_XOD_DOWNLOAD_H
#define TAVOR_XOD_DOWNLOAD_H

#include <csignal>
#include <cstdint>

// Starts the downloads of the types in the mask (xod_mask), with this many numbered files. Does nothing while
// a timer of an earlier start is armed, except the hour that stands in for a delay too long for a timer;
// during a transfer everything starts again, and the transfer goes on.
void xod_download_init(uint8_t mask, int32_t count);

// Callback of the next-download timer: queues the files of the selected type, then as xod_download_handle.
void xod_download_enqueue(sigval unused);

// Callback of the retry timer: downloads what is queued, or schedules the next download when nothing is.
// While another thread does so, leaves it to that one. Does nothing after xod_download_deinit.
void xod_download_handle(sigval unused);

// The rest completes the interface; the daemon does not call it.

// Shuts everything down. A transfer under way ends on its own and is reported, but leads to nothing more.
void xod_download_deinit();

#endif

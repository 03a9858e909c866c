// The local assistance files: where they lie, how long they last, and the lock that keeps a file from being
// read while it is written.
#ifndef TAVOR_XOD_FILE_H
#define TAVOR_XOD_FILE_H

#include <cstddef>
#include <cstdint>

inline constexpr size_t kXodPathSize = 128; // bytes of a path, its NUL included

// Makes the lock, once, before the others are called. A failure is logged; the lock then works as it came.
void xod_mutex_init();

// Takes the lock, however long a transfer holds it, and gives it back.
void xod_download_lock();
void xod_download_unlock();

// Takes the lock, but gives way to a pending stop of the link: returns false then.
bool xod_download_lock_unless_stopped();

// Writes the path of a file in the configured directory to dst (kXodPathSize bytes); a longer one is cut.
void xod_download_file_path(uint32_t type, uint32_t index, char* dst);

// Returns the hours of prediction left in the type's file, or in the latest of count numbered files, and
// stores the GPS hour of its end. Returns 0 with end 0 when there are none, and 0 with end untouched when the
// time can't be told.
int32_t xod_download_get_3d_valid_hours(uint32_t type, uint32_t count, uint32_t* end_out);

#endif

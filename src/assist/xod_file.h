// The local assistance files: their names, where they lie, and the lock that keeps a file from being read
// while it is replaced.
#ifndef TAVOR_XOD_FILE_H
#define TAVOR_XOD_FILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

enum xod_file_type : uint32_t {
    XOD_GPS_GLONASS = 0,
    XOD_GPS = 1,
    XOD_BEIDOU = 2,
    XOD_GALILEO = 3,
    XOD_QUICK_GPS_GLONASS = 4,
    XOD_QUICK_GPS = 5,
    XOD_QUICK_BEIDOU = 6,
    XOD_QUICK_GALILEO = 7,
};

inline constexpr size_t kXodNameSize = 32;  // bytes of a file name, its NUL included
inline constexpr size_t kXodPathSize = 128; // bytes of a path, its NUL included

// Writes the file's name (kXodNameSize bytes). The index matters only where the name has a number; an unknown
// type leaves dst as it is.
void xod_download_file_name(uint32_t type, uint32_t index, char* dst);

// Writes the path of a file in the configured directory to dst (kXodPathSize bytes); a longer one is cut.
void xod_download_file_path(uint32_t type, uint32_t index, char* dst);

// Opens a file for reading. Null when it is missing, can't be read or is no regular file.
FILE* xod_download_file_open(uint32_t type, uint32_t index);

// Makes the lock, once, before the others are called. A failure is logged; the lock then works with its
// static initialisation.
void xod_mutex_init();

// Takes the lock, however long a transfer holds it, and releases it.
void xod_download_lock();
void xod_download_unlock();

// Takes the lock, but gives way to a pending stop of the link: returns false then.
bool xod_download_lock_unless_stopped();

#endif

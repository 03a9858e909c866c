// Which paths and queue keys of an interposed program are answered by the board, and where they lead.
#ifndef TAVOR_BOARD_PATHS_H
#define TAVOR_BOARD_PATHS_H

#include <string>
#include <sys/types.h>

// The daemon's queue keys.
inline constexpr key_t kInterposedQueueKeys[] = {1234, 1235};

// Sets the private directory: "/etc/default/tavor/..." and "/tmp/head.out" then lie below it. Without one
// (empty), nothing is mapped. May be called at any time; calls under way keep the old one.
void interpose_set_root(const std::string& directory);

// Whether the path is a device node: /dev/spidev*, /dev/i2c-*, /sys/class/gpio and all below it. Null is
// none.
bool interpose_is_device(const char* path);

// Whether the path is one of the daemon's fixed paths and there is a private directory. Null is none.
bool interpose_maps(const char* path);

// The path below the private directory of one of the daemon's fixed paths; any other path as it is.
std::string interpose_map(const char* path);

// A key of this private directory's own for one of the daemon's queue keys; any other key as it is. Never
// IPC_PRIVATE, never small, never the same for both keys.
key_t interpose_map_key(key_t key);

// Removes the queues of the private directories that this process has had.
void interpose_remove_queues();

#endif

// The TCP clients of the debug outlet, in order of arrival.
#ifndef TAVOR_LOCATION_DEBUG_CLIENTS_H
#define TAVOR_LOCATION_DEBUG_CLIENTS_H

#include <cstddef>
#include <cstdint>

inline constexpr int32_t kDebugClientMax = 10;

struct DebugClientList {
    int32_t count;
    int32_t fds[kDebugClientMax];
};

// Appends fd. Returns 0, or -1 when the list is full.
int32_t location_debug_add_client(DebugClientList* list, int32_t fd);

// Removes the first equal fd, the others keep their order. Returns 0, or -1 when there is none.
int32_t location_debug_del_client(DebugClientList* list, int32_t fd);

// Returns 0 when fd is listed, else -1.
int32_t location_debug_find_client(const DebugClientList* list, int32_t fd);

// The functions below work on the one list that the receive and the transmit task share.

// Empties the list.
void location_debug_clients_init();

// Lists fd, watches it for input in the set epfd and logs it; a socket that finds the list full, or can't be
// watched, is closed at once.
void location_debug_clients_admit(int32_t epfd, int32_t fd);

// Takes fd out of the set epfd, closes it and takes it off the list.
void location_debug_clients_drop(int32_t epfd, int32_t fd);

// Takes every client off the list and out of the set epfd; the sockets stay open until their peers are gone.
void location_debug_clients_forget(int32_t epfd);

// Closes the sockets of forgotten clients whose peers are gone.
void location_debug_clients_sweep();

// Whether fd is listed.
bool location_debug_clients_have(int32_t fd);

// Writes a block to each client without waiting. A client that can't take it loses it whole; the log says
// when that begins and, with the number of blocks, when it ends.
void location_debug_clients_write(const uint8_t* data, size_t length);

#endif

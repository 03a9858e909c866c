// Descriptors of an epoll set; each descriptor is the data of its own events.
#ifndef TAVOR_LOCATION_EPOLL_H
#define TAVOR_LOCATION_EPOLL_H

#include <cstdint>

// Adds fd to the set epfd for the events. Returns 0 or the failing result.
int32_t location_epoll_add_fd(int32_t epfd, int32_t fd, uint32_t events);

// Removes fd from the set epfd. Returns 0 or the failing result.
int32_t location_epoll_remove_fd(int32_t epfd, int32_t fd);

#endif

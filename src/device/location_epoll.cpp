#include "device/location_epoll.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/epoll.h>

int32_t location_epoll_add_fd(int32_t epfd, int32_t fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    const int32_t result = epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event);
    if (result != 0) {
        const int error = errno;
        printf("[LOCSERV] ERR: location_epoll_add_fd failed, epfd=%d fd=%d events=0x%x reason=[%s]%d\n", epfd,
               fd, events, strerror(error), error);
    }
    return result;
}

int32_t location_epoll_remove_fd(int32_t epfd, int32_t fd) {
    const int32_t result = epoll_ctl(epfd, EPOLL_CTL_DEL, fd, nullptr);
    if (result != 0) {
        const int error = errno;
        printf("[LOCSERV] ERR: location_epoll_remove_fd failed, epfd=%d fd=%d reason=[%s]%d\n", epfd, fd,
               strerror(error), error);
    }
    return result;
}

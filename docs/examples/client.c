/* A client of the tavor daemon in C: starts positioning and prints ten sentences.
 *
 * With libtavor-dev installed:
 *   cc -o client client.c && ./client [SOCKET]
 * From the tree:
 *   cc -Iinclude -o client docs/examples/client.c && ./client [SOCKET]
 */
#include <tavor/protocol.h>

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/* An abstract address: nothing lies in the file system, and the daemon sees it whatever directories its
 * service hides. All 110 bytes count, those after the name too: they are zero. */
static int bind_full_length(int fd) {
    struct sockaddr_un own = {.sun_family = AF_UNIX};
    snprintf(own.sun_path + 1, sizeof own.sun_path - 1, "example-%d", (int)getpid());
    return bind(fd, (const struct sockaddr*)&own, sizeof own);
}

static int send_request(int fd, const char* path, uint32_t type) {
    struct sockaddr_un daemon = {.sun_family = AF_UNIX};
    struct tavor_request request = {.type = type};
    snprintf(daemon.sun_path, sizeof daemon.sun_path, "%s", path);
    return sendto(fd, &request, sizeof request, 0, (const struct sockaddr*)&daemon, sizeof daemon) < 0 ? -1
                                                                                                       : 0;
}

int main(int argc, char** argv) {
    const struct timeval limit = {.tv_sec = 5};
    struct tavor_response response;
    int sentences = 0;
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        bind_full_length(fd) != 0 ||
        send_request(fd, argc > 1 ? argv[1] : TAVOR_SOCKET_PATH, TAVOR_REQUEST_START) != 0) {
        perror("client");
        return 1;
    }
    while (sentences < 10) {
        if (recv(fd, &response, sizeof response, 0) != (ssize_t)sizeof response) {
            perror("client: no datagram");
            return 1;
        }
        if (response.code == TAVOR_CODE_START && response.value != 0) {
            fputs("client: positioning could not be started\n", stderr);
            return 1;
        }
        if (response.code == TAVOR_CODE_NMEA) {
            printf("%.*s", (int)sizeof response.payload, (const char*)response.payload);
            sentences++;
        }
    }
    return 0;
}

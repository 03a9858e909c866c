// Stands in for a library that takes its time to load. The paths are those of the board that the daemon runs
// on.
#include <fcntl.h>
#include <unistd.h>

namespace {

__attribute__((constructor)) void wait_for_the_test() {
    close(open("/etc/default/tavor/loading", O_CREAT | O_WRONLY, 0600));
    while (access("/etc/default/tavor/go_on", F_OK) != 0) {
        usleep(10000);
    }
}

} // namespace

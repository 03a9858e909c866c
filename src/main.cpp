#include "service/tavor.h"

#include <cstdio>
#include <unistd.h>

int main() {
    const int status = tavor_run();
    fflush(stdout);
    _exit(status); // the other threads still run: nothing is torn down under them
}

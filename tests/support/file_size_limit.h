// Files that stop growing, as on a full disk.
#ifndef TAVOR_TESTS_FILE_SIZE_LIMIT_H
#define TAVOR_TESTS_FILE_SIZE_LIMIT_H

#include <csignal>
#include <sys/resource.h>

// While one lives, a write that makes any file of the process longer than this many bytes fails.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before);
        const rlimit limit = {bytes, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &before);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

    rlimit before = {};
};

#endif

#include "assist/xod_bounded_file.h"

#include <cerrno>
#include <memory>
#include <new>
#include <sys/types.h>

namespace {

struct BoundedFile {
    FILE* file; // unbuffered: the stream in front of it has a buffer
    size_t room;
};

// Returns 0 for a failure, as a stream's function has to.
ssize_t write_bounded(void* cookie, const char* data, size_t size) {
    auto* bounded = static_cast<BoundedFile*>(cookie);
    if (size > bounded->room) {
        errno = EFBIG;
        return 0;
    }
    const size_t written = fwrite(data, 1, size, bounded->file);
    bounded->room -= written;
    return static_cast<ssize_t>(written);
}

int close_bounded(void* cookie) {
    const std::unique_ptr<BoundedFile> bounded(static_cast<BoundedFile*>(cookie));
    return fclose(bounded->file);
}

FILE* open_stream(FILE* file, size_t limit) {
    auto bounded = std::unique_ptr<BoundedFile>(new (std::nothrow) BoundedFile{file, limit});
    if (bounded == nullptr) {
        return nullptr;
    }
    FILE* stream = fopencookie(bounded.get(), "wb", {nullptr, write_bounded, nullptr, close_bounded});
    if (stream != nullptr) {
        static_cast<void>(bounded.release()); // the stream's
    }
    return stream;
}

} // namespace

FILE* xod_bounded_file_open(const char* path, size_t limit) {
    FILE* file = fopen(path, "wb");
    if (file == nullptr) {
        return nullptr;
    }
    setvbuf(file, nullptr, _IONBF, 0);
    FILE* stream = open_stream(file, limit);
    if (stream == nullptr) {
        fclose(file);
        errno = ENOMEM;
    }
    return stream;
}

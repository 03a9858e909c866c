#include "hdl_image_faults.h"

#include "support/capture.h"
#include "support/fake_clock.h"
#include "support/format_fault.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

ImageFaults image_faults;

namespace {

bool armed = false;

bool strikes(int* calls_before) {
    return armed && *calls_before != kNever && (*calls_before)-- == 0;
}

// A read that fails leaves the mark of a failed stream, as one of the system does.
bool read_fails(FILE* file, int* calls_before) {
    if (armed && calls_before == &image_faults.fread && image_faults.at_read) {
        image_faults.at_read();
    }
    const bool fails = strikes(calls_before);
    if (fails) {
        fputc('x', file); // opened for reading only
    }
    return fails;
}

} // namespace

std::vector<std::string> log_of(const std::function<void()>& body) {
    const std::string log = capture_stdout([&] {
        if (image_faults.format != kNever) {
            format_fault_arm(image_faults.format);
        }
        armed = true;
        body();
        armed = false;
        format_fault_disarm();
    });
    image_faults = {};
    return without_stamps(log);
}

extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t n, size_t size);
char* __real_strdup(const char* text);
char* __real_realpath(const char* path, char* resolved);
int __real_fclose(FILE* file);
int __real_fseeko(FILE* file, off_t offset, int whence);
size_t __real_fread(void* data, size_t size, size_t n, FILE* file);
size_t __real___fread_chk(void* data, size_t room, size_t size, size_t n, FILE* file);
char* __real_fgets(char* line, int size, FILE* file);

void* __wrap_malloc(size_t size) {
    return strikes(&image_faults.malloc) ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t n, size_t size) {
    return strikes(&image_faults.calloc) ? nullptr : __real_calloc(n, size);
}

char* __wrap_strdup(const char* text) {
    return strikes(&image_faults.strdup) ? nullptr : __real_strdup(text);
}

char* __wrap_realpath(const char* path, char* resolved) {
    return strikes(&image_faults.realpath) ? nullptr : __real_realpath(path, resolved);
}

int __wrap_fclose(FILE* file) {
    const int result = __real_fclose(file);
    return strikes(&image_faults.fclose) ? EOF : result;
}

int __wrap_fseeko(FILE* file, off_t offset, int whence) {
    return strikes(&image_faults.fseeko) ? -1 : __real_fseeko(file, offset, whence);
}

size_t __wrap_fread(void* data, size_t size, size_t n, FILE* file) {
    return read_fails(file, &image_faults.fread) ? 0 : __real_fread(data, size, n, file);
}

// What an optimised build calls.
size_t __wrap___fread_chk(void* data, size_t room, size_t size, size_t n, FILE* file) {
    return read_fails(file, &image_faults.fread) ? 0 : __real___fread_chk(data, room, size, n, file);
}

char* __wrap_fgets(char* line, int size, FILE* file) {
    if (read_fails(file, &image_faults.fgets)) {
        return nullptr;
    }
    char* result = __real_fgets(line, size, file);
    if (armed && result != nullptr && image_faults.at_line) {
        image_faults.at_line(result);
    }
    return result;
}
}

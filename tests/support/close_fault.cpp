#include "support/close_fault.h"

#include <cstdio>
#include <filesystem>

namespace {

struct CloseFault {
    std::string path_end;
    int closings_left = 0; // 0: none fails
} fault;

bool strikes(FILE* file) {
    const int fd = fault.closings_left > 0 ? fileno(file) : -1;
    if (fd < 0) {
        return false;
    }
    const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    return path.ends_with(fault.path_end) && --fault.closings_left == 0;
}

} // namespace

void close_fault_arm(const std::string& path_end, int nth) {
    fault = {path_end, nth};
}

void close_fault_disarm() {
    fault = {};
}

extern "C" int __real_fclose(FILE* file);
extern "C" int __wrap_fclose(FILE* file) {
    const bool fails = strikes(file);
    const int result = __real_fclose(file); // the stream is gone also when the call fails
    return fails ? EOF : result;
}

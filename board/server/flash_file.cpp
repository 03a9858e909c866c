#include "server/flash_file.h"

#include "server/file_content.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

constexpr char kBootable[] = "bootable\n";
constexpr char kNotBootable[] = "no firmware\n";
constexpr mode_t kFileMode = 0644;

std::string content_path(const std::string& directory) {
    return directory + "/flash.bin";
}

std::string state_path(const std::string& directory) {
    return directory + "/flash.state";
}

std::string failure(const std::string& path) {
    return "can't write " + path + ": " + strerror(errno);
}

std::string write_range(const std::string& path, const ChipFlash& flash, size_t begin, size_t end) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd < 0) {
        return failure(path);
    }
    const bool is_new = lseek(fd, 0, SEEK_END) != static_cast<off_t>(flash.bytes.size());
    const size_t from = is_new ? 0 : begin;
    const size_t to = is_new ? flash.bytes.size() : end;
    const ssize_t written = pwrite(fd, flash.bytes.data() + from, to - from, static_cast<off_t>(from));
    std::string problem = written == static_cast<ssize_t>(to - from) ? "" : failure(path);
    close(fd);
    return problem;
}

std::string write_state(const std::string& path, bool bootable) {
    std::ofstream file(path, std::ios::trunc | std::ios::binary);
    file << (bootable ? kBootable : kNotBootable);
    return file.flush() ? "" : failure(path);
}

} // namespace

std::string flash_file_load(Board& board, const std::string& directory) {
    const std::lock_guard guard(board.mutex);
    const std::string path = content_path(directory);
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return "";
    }
    std::string bytes;
    std::string problem = file_content(path, &bytes);
    if (!problem.empty()) {
        return problem;
    }
    if (bytes.size() != board.chip.options.flash_size) {
        return path + " has " + std::to_string(bytes.size()) + " bytes, the flash " +
               std::to_string(board.chip.options.flash_size) + ": remove it or choose --flash-size";
    }
    ChipFlash& flash = board.chip.flash;
    flash.bytes.assign(bytes.begin(), bytes.end());
    std::string state;
    file_content(state_path(directory), &state); // none: no firmware
    flash.bootable = state == kBootable;
    return "";
}

std::string flash_file_keep(Board& board, const std::string& directory) {
    const std::lock_guard guard(board.mutex);
    ChipFlash& flash = board.chip.flash;
    std::string problem;
    if (flash.changed_begin != flash.changed_end) {
        problem = write_range(content_path(directory), flash, flash.changed_begin, flash.changed_end);
    }
    if (problem.empty() && flash.bootable_changed) {
        problem = write_state(state_path(directory), flash.bootable);
    }
    flash.bootable_changed = false;
    flash.changed_begin = flash.changed_end = 0;
    return problem;
}

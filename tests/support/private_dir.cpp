#include "support/private_dir.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::string_view kName = "tavor-test-"; // then the process that made it, then six random characters
constexpr size_t kRandomSize = 7;                 // with the dash in front

// The process in the name of a test's directory, 0 when it is none.
pid_t owner_of(std::string_view name) {
    if (name.substr(0, kName.size()) != kName) {
        return 0;
    }
    name.remove_prefix(kName.size());
    pid_t owner = 0;
    const auto [end, error] = std::from_chars(name.begin(), name.end(), owner);
    const bool whole = error == std::errc() && name.end() - end == kRandomSize && *end == '-';
    return whole && owner > 0 ? owner : 0;
}

// A test that is killed leaves its directory to the next one.
void remove_stale(const std::filesystem::path& parent) {
    std::error_code ignored; // other tests tidy up too, and not everything is ours
    for (const auto& entry : std::filesystem::directory_iterator(parent, ignored)) {
        const pid_t owner = owner_of(entry.path().filename().string());
        if (owner != 0 && kill(owner, 0) == -1 && errno == ESRCH) {
            std::filesystem::remove_all(entry.path(), ignored);
        }
    }
}

std::filesystem::path make_directory() {
    const std::filesystem::path parent = std::filesystem::temp_directory_path();
    [[maybe_unused]] static const bool once = (remove_stale(parent), true);
    std::string pattern = parent / (std::string(kName) + std::to_string(getpid()) + "-XXXXXX");
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("can't make a directory like " + pattern);
    }
    return pattern;
}

} // namespace

PrivateDir::PrivateDir() : path(make_directory()) {}

PrivateDir::~PrivateDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string PrivateDir::write(const std::string& name, const std::string& content) const {
    const std::filesystem::path file = path / std::filesystem::path(name).relative_path();
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file.string();
}

std::string PrivateDir::read(const std::string& name) const {
    std::ifstream file(path / std::filesystem::path(name).relative_path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

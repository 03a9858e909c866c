#include "interpose/paths.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr key_t kServiceQueueKey = 1234;
constexpr key_t kDebugQueueKey = 1235;

// Plain storage: usable before any constructor has run.
struct PathState {
    char root[PATH_MAX];
} state;

bool is_below(const char* path, const char* directory) {
    const size_t size = std::strlen(directory);
    return std::strncmp(path, directory, size) == 0 && (path[size] == '/' || path[size] == '\0');
}

bool is_fixed(const char* path) {
    return is_below(path, "/etc/default/tavor") || std::strcmp(path, "/tmp/head.out") == 0;
}

uint32_t fnv1a(const char* text, uint32_t hash) {
    for (; *text != '\0'; ++text) {
        hash = (hash ^ static_cast<uint8_t>(*text)) * 16777619U;
    }
    return hash;
}

} // namespace

void interpose_set_root(const std::string& directory) {
    char canonical[PATH_MAX] = "";
    if (!directory.empty() && realpath(directory.c_str(), canonical) == nullptr) {
        std::snprintf(canonical, sizeof canonical, "%s", directory.c_str());
    }
    std::memcpy(state.root, canonical, sizeof state.root);
}

bool interpose_is_device(const char* path) {
    return std::strncmp(path, "/dev/spidev", 11) == 0 || std::strncmp(path, "/dev/i2c-", 9) == 0 ||
           is_below(path, "/sys/class/gpio");
}

std::string interpose_map(const char* path) {
    return state.root[0] != '\0' && is_fixed(path) ? std::string(state.root) + path : std::string(path);
}

key_t interpose_map_key(key_t key) {
    if (state.root[0] == '\0' || (key != kServiceQueueKey && key != kDebugQueueKey)) {
        return key;
    }
    char name[16];
    std::snprintf(name, sizeof name, "#%d", static_cast<int>(key));
    const uint32_t hash = fnv1a(name, fnv1a(state.root, 2166136261U));
    return static_cast<key_t>(hash | 0x40000000U); // never IPC_PRIVATE, never a small number that others use
}

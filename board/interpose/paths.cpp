#include "interpose/paths.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/msg.h>
#include <unistd.h>

namespace {

constexpr uint32_t kLowestMappedKey = 0x10000; // smaller numbers are what other programs choose by hand
constexpr uint32_t kQueueBit = 1;              // tells the two queues of a directory apart

// Never freed: another thread may still map a path with it.
struct Root {
    std::string path; // canonical where it exists
    pid_t process;    // that has set it
    const Root* before;
};

// Usable before any constructor has run.
struct PathState {
    std::atomic<const Root*> root;
} state;

// Queues outlive the process that made them: whoever forks without a root of its own must not remove
// another's.
bool is_ours(const Root& root) {
    return !root.path.empty() && root.process == getpid();
}

bool is_below(const char* path, const char* directory) {
    const size_t size = strlen(directory);
    return strncmp(path, directory, size) == 0 && (path[size] == '/' || path[size] == '\0');
}

bool begins(const char* path, const char* start) {
    return strncmp(path, start, strlen(start)) == 0;
}

bool is_fixed(const char* path) {
    return is_below(path, "/etc/default/tavor") || strcmp(path, "/tmp/head.out") == 0;
}

uint64_t hash_of(const std::string& text) {
    uint64_t hash = 0xCBF29CE484222325; // FNV-1a
    for (const char byte : text) {
        hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001B3;
    }
    hash = (hash ^ (hash >> 31)) * 0x7FB5D329728EA185; // spreads every bit over the upper half
    return hash ^ (hash >> 32);
}

key_t key_below(const Root& root, uint32_t queue) {
    const uint32_t own = (static_cast<uint32_t>(hash_of(root.path)) & ~kQueueBit) | queue;
    return static_cast<key_t>(own < kLowestMappedKey ? own | kLowestMappedKey : own);
}

} // namespace

void interpose_set_root(const std::string& directory) {
    char canonical[PATH_MAX];
    const bool exists = !directory.empty() && realpath(directory.c_str(), canonical) != nullptr;
    state.root = new Root{exists ? canonical : directory, getpid(), state.root};
}

bool interpose_is_device(const char* path) {
    return path != nullptr &&
           (begins(path, "/dev/spidev") || begins(path, "/dev/i2c-") || is_below(path, "/sys/class/gpio"));
}

bool interpose_maps(const char* path) {
    const Root* root = state.root;
    return path != nullptr && root != nullptr && !root->path.empty() && is_fixed(path);
}

std::string interpose_map(const char* path) {
    const Root* root = state.root;
    return root != nullptr && !root->path.empty() && is_fixed(path) ? root->path + path : path;
}

key_t interpose_map_key(key_t key) {
    const Root* root = state.root;
    const auto* const queue =
        std::find(std::begin(kInterposedQueueKeys), std::end(kInterposedQueueKeys), key);
    if (root == nullptr || root->path.empty() || queue == std::end(kInterposedQueueKeys)) {
        return key;
    }
    return key_below(*root, static_cast<uint32_t>(queue - std::begin(kInterposedQueueKeys)));
}

void interpose_remove_queues() {
    for (const Root* root = state.root; root != nullptr; root = root->before) {
        for (uint32_t queue = 0; is_ours(*root) && queue < std::size(kInterposedQueueKeys); ++queue) {
            const int id = msgget(key_below(*root, queue), 0);
            if (id >= 0) {
                msgctl(id, IPC_RMID, nullptr);
            }
        }
    }
}

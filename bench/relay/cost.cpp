#include "relay/cost.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

constexpr double kNsPerSecond = 1e9;
constexpr long kBytesPerKib = 1024;

std::filesystem::path directory_of(pid_t pid) {
    return std::filesystem::path("/proc") / std::to_string(pid);
}

} // namespace

double cost_seconds(pid_t pid) {
    uint64_t sum = 0;
    std::error_code error;
    for (std::filesystem::directory_iterator one(directory_of(pid) / "task", error), end;
         !error && one != end; one.increment(error)) {
        uint64_t ns = 0;
        std::ifstream(one->path() / "schedstat") >> ns;
        sum += ns;
    }
    return static_cast<double>(sum) / kNsPerSecond;
}

CostMemory cost_memory(pid_t pid) {
    CostMemory memory;
    std::ifstream file(directory_of(pid) / "smaps_rollup");
    std::string name;
    std::string rest;
    std::getline(file, rest); // the range of addresses
    for (long value = 0; file >> name >> value && std::getline(file, rest);) {
        memory.resident += name == "Rss:" ? value : 0;
        memory.proportional += name == "Pss:" ? value : 0;
        memory.own += name == "Private_Clean:" || name == "Private_Dirty:" ? value : 0;
    }
    return memory;
}

long cost_tcp_buffers() {
    std::ifstream file("/proc/net/sockstat");
    std::string word;
    long pages = 0;
    bool tcp = false;
    while (file >> word) {
        tcp = word == "TCP:" || (tcp && word.back() != ':');
        if (tcp && word == "mem") {
            file >> pages;
        }
    }
    return pages * sysconf(_SC_PAGESIZE) / kBytesPerKib;
}

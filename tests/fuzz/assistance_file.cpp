// Host aiding over a hostile assistance file: whatever the file holds and the chip asks for, the commands are
// bounded in number and size, hold records of the file, and the request ends. The input: constellation, week
// and time of week (2 bytes each, hours), then the file.
#include "assist/xod_file.h"
#include "assist/xod_host_aiding.h"
#include "base/byte_order.h"
#include "fuzz.h"
#include "link/location_command.h"

#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kHeadSize = 5;
constexpr size_t kRecordSize = 72;
constexpr size_t kMostCommands = 65; // a header and 64 satellites
constexpr size_t kLongestCommand = 351;

struct Fuzzed {
    std::vector<uint8_t> file;
    size_t commands;
    int open_files;
    bool locked;
} fuzzed;

// The record's words as the command ends with them.
std::string words_at(size_t offset) {
    std::string text;
    char number[16];
    for (size_t i = 0; i < kRecordSize; i += 4) {
        snprintf(number, sizeof number, ",%X", load_le32(fuzzed.file.data() + offset + i));
        text += number;
    }
    return text;
}

bool is_in_the_file(const std::string& command) {
    for (size_t offset = 0; offset + kRecordSize <= fuzzed.file.size(); offset += kRecordSize) {
        const std::string words = words_at(offset);
        if (command.size() > words.size() &&
            command.compare(command.size() - words.size(), words.size(), words) == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

FILE* xod_download_file_open(uint32_t /*type*/, uint32_t /*index*/) {
    ++fuzzed.open_files;
    return fmemopen(fuzzed.file.data(), fuzzed.file.size(), "r");
}

bool xod_download_lock_unless_stopped() {
    require(!fuzzed.locked, "takes the lock twice");
    fuzzed.locked = true;
    return true;
}

void xod_download_unlock() {
    fuzzed.locked = false;
}

int32_t location_command_send(const char* body) {
    const std::string command = body;
    require(++fuzzed.commands <= kMostCommands, "too many commands");
    require(command.rfind("471,", 0) == 0 && command.size() <= kLongestCommand, "no command");
    // A few are enough: the search is slow.
    require(fuzzed.commands > 2 || is_in_the_file(command), "sends what is not in the file");
    return 0;
}

extern "C" {

int __real_fclose(FILE* file);
int __wrap_fclose(FILE* file) {
    --fuzzed.open_files;
    return __real_fclose(file);
}

int __wrap_usleep(useconds_t /*us*/) {
    return 0;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    silence_log();
    if (size < kHeadSize) {
        return 0;
    }
    fuzzed = {std::vector<uint8_t>(bytes + kHeadSize, bytes + size), 0, 0, false};
    const auto constellation = static_cast<int8_t>(bytes[0]);
    const int32_t hour = load_le16(bytes + 3);
    const int32_t result = xod_host_aiding(constellation, load_le16(bytes + 1), hour * 3600);
    require(result == 0 || result == 1, "result");
    require(constellation >= 0 && constellation <= 3 ? true : result == 0, "serves what it doesn't know");
    require(fuzzed.open_files == 0, "leaves a file open");
    require(!fuzzed.locked, "keeps the lock");
    return 0;
}

// The ETag reader on a hostile header: nothing outside the value's room changes, the value ends inside it,
// and what is found is what the pieces of at most 127 characters hold.
#include "assist/xod_check.h"
#include "fuzz.h"

#include <memory>
#include <optional>

namespace {

constexpr size_t kPiece = 127;
constexpr size_t kRoom = 16;
constexpr char kCanary = '#';

std::optional<std::string> expected_value(std::string header) {
    while (!header.empty()) {
        const std::string piece = take_piece(&header, kPiece);
        const size_t key = piece.find("ETag: ");
        if (key != std::string::npos) {
            const std::string value = piece.substr(std::min(key + 7, piece.size()));
            return value.substr(0, std::min<size_t>(value.find_first_of("\r\n"), 32));
        }
    }
    return std::nullopt;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string header(reinterpret_cast<const char*>(bytes), size);
    const std::optional<std::string> expected = expected_value(header);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fmemopen(header.data(), header.size(), "r"),
                                                     std::fclose);
    require(file != nullptr, "no file in memory");

    char guarded[kRoom + kXodDigestSize + kRoom];
    memset(guarded, kCanary, sizeof guarded);
    char* out = guarded + kRoom;
    const bool found = xod_etag_read(file.get(), out);
    const std::string canaries(kRoom, kCanary);
    require(std::string(guarded, kRoom) == canaries, "wrote before the value");
    require(std::string(out + kXodDigestSize, kRoom) == canaries, "wrote behind the value");
    require(found == expected.has_value(), "finds a line that is none, or misses one");
    require(!found || out[kXodDigestSize - 1] == '\0', "value without its NUL");
    require(!found || out == *expected, "value differs");
    return 0;
}

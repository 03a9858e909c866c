// Field splitter and record update on a hostile sentence: nothing outside the 94-byte record changes, every
// field of the splitter ends inside its room, and the texts that are cut end with a NUL.
#include "fuzz.h"
#include "nmea/location_nmea_fields.h"
#include "nmea/location_record.h"

#include <memory>

namespace {

constexpr size_t kLongestSentence = 15360;
constexpr char kCanary = '#';

struct Guarded {
    char before[64];
    LocationRecord record;
    char behind[64];
};

bool all_canary(const char* bytes, size_t n) {
    return std::string(bytes, n) == std::string(n, kCanary);
}

void check_split(const char* sentence, int32_t length) {
    NmeaFields fields;
    memset(&fields, kCanary, sizeof fields);
    location_nmea_split_fields(sentence, length, &fields);
    require(fields.count >= 0 && fields.count < kNmeaFieldsMax, "field count");
    for (const auto& field : fields.field) {
        require(memchr(field, '\0', sizeof field) != nullptr, "field without its NUL");
    }
}

void check_update(Guarded* guarded, const char* sentence, uint32_t length) {
    const int32_t result = location_service_get_location_string(&guarded->record, sentence, length);
    require(result == 0 || result == -1, "result");
    require(all_canary(guarded->before, sizeof guarded->before), "bytes before the record");
    require(all_canary(guarded->behind, sizeof guarded->behind), "bytes behind the record");
    const LocationRecord& record = guarded->record;
    require(memchr(record.utc, '\0', sizeof record.utc) != nullptr, "utc without its NUL");
    require(memchr(record.latitude, '\0', sizeof record.latitude) != nullptr, "latitude without its NUL");
    require(memchr(record.longitude, '\0', sizeof record.longitude) != nullptr, "longitude without its NUL");
    require(record.verticalUncertainty[sizeof record.verticalUncertainty - 1] == '\0',
            "record without its NUL");
}

} // namespace

// Every line of the input is a sentence for the same record.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    silence_log();
    Guarded guarded;
    memset(&guarded, kCanary, sizeof guarded);
    guarded.record = {};
    const char* at = reinterpret_cast<const char*>(bytes);
    const char* end = at + (size < kLongestSentence ? size : kLongestSentence);
    while (at < end) {
        const auto* newline = static_cast<const char*>(memchr(at, '\n', static_cast<size_t>(end - at)));
        const size_t length = static_cast<size_t>((newline == nullptr ? end : newline + 1) - at);
        // A block of the exact size, so that a sanitizer sees every read past it.
        const auto sentence = std::make_unique<char[]>(length + 1);
        memcpy(sentence.get(), at, length);
        check_split(sentence.get(), static_cast<int32_t>(length));
        check_update(&guarded, sentence.get(), static_cast<uint32_t>(length));
        at += length;
    }
    return 0;
}

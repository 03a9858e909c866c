#include "assist/xod_hours.h"

#include "assist/xod_file.h"
#include "assist/xod_schedule.h"
#include "base/byte_order.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

constexpr long kRecordSize = 72; // bytes, also of the header before BeiDou's and Galileo's records
constexpr size_t kWordSize = 4;
constexpr int kTmYearBase = 1900;

// Stores the GPS hour of now; false when the time can't be determined.
bool read_clock(int32_t* now) {
    const time_t seconds = time(nullptr);
    if (seconds < 0) {
        puts("[LOCSERV] ERR: xod_download_get_3d_valid_hours time error");
        return false;
    }
    tm utc = {};
    if (gmtime_r(&seconds, &utc) == nullptr) {
        puts("[LOCSERV] ERR: xod_download_get_3d_valid_hours gmtime error");
        return false;
    }
    const int year = utc.tm_year + kTmYearBase;
    *now = gps_hour_from_utc(year, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour);
    printf("[LOCSERV] INF: [XOD]%d-%d-%d-%d\n", year, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour);
    return true;
}

// Reads the start hour at the file's position; false, with 0, for fewer bytes than that takes.
bool read_start(FILE* file, uint32_t* start) {
    uint8_t word[kWordSize] = {};
    const bool whole = fread(word, sizeof word, 1, file) == 1;
    *start = whole ? xod_start_hour(load_le32(word)) : 0;
    return whole;
}

void close_file(FILE* file) {
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: [XOD]xod_download_get_3d_valid_hours fclose fail");
    }
}

uint32_t numbered_start(uint32_t type, uint32_t index) {
    FILE* file = xod_download_file_open(type, index);
    if (file == nullptr) {
        return 0;
    }
    uint32_t start = 0;
    if (!read_start(file, &start)) {
        puts("[LOCSERV] ERR: [XOD]xod_download_get_3d_valid_hours, fread fail");
    }
    close_file(file);
    return start;
}

// The hour after a header. Kept: after a failed seek the header's own first word is taken.
uint32_t headed_start(uint32_t type) {
    FILE* file = xod_download_file_open(type, 0);
    if (file == nullptr) {
        return 0;
    }
    if (fseek(file, kRecordSize, SEEK_SET) != 0) {
        puts("[LOCSERV] ERR: xod_download_get_3d_valid_hours, fseek fail");
    }
    uint32_t start = 0;
    if (!read_start(file, &start)) {
        puts("[LOCSERV] ERR: xod_download_get_3d_valid_hours, fread fail");
    }
    close_file(file);
    return start;
}

uint32_t latest_start(uint32_t type, uint32_t count) {
    uint32_t latest = 0;
    for (uint32_t number = 0; number < count; ++number) {
        latest = std::max(latest, numbered_start(type, number + 1));
    }
    return latest;
}

uint32_t start_of(uint32_t type, uint32_t count) {
    switch (type) {
    case XOD_GPS_GLONASS:
    case XOD_GPS:
        return latest_start(type, count);
    case XOD_BEIDOU:
    case XOD_GALILEO:
        return headed_start(type);
    default:
        return 0;
    }
}

} // namespace

int32_t xod_download_get_3d_valid_hours(uint32_t type, uint32_t count, uint32_t* end_out) {
    int32_t now = 0;
    if (!read_clock(&now)) {
        return 0;
    }
    return xod_valid_hours(start_of(type, count), now, end_out);
}

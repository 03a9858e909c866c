#include "assist/xod_host_aiding.h"

#include "assist/xod_file.h"
#include "assist/xod_schedule.h"
#include "base/byte_order.h"
#include "base/non_copyable.h"
#include "base/stop_request.h"
#include "link/location_command.h"

#include <bit>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace {

constexpr uint32_t kRecordSize = 72; // bytes, also of the header of Galileo's and BeiDou's files
constexpr uint32_t kWordSize = 4;
constexpr uint32_t kRecordWords = kRecordSize / kWordSize;
constexpr size_t kSatelliteOffset = 3; // of the satellite's number in a record
constexpr size_t kFirstMaskOffset = 4; // of the satellite masks in a header
constexpr size_t kSecondMaskOffset = 16;

constexpr int32_t kSegments = 12;
constexpr int32_t kSegmentHours = 6;
constexpr int32_t kFileHours = kSegments * kSegmentHours;
constexpr int32_t kSecondsPerHour = 3600;
constexpr uint32_t kHoursPerWeek = 168;

constexpr uint32_t kGpsRecords = 32;
constexpr uint32_t kGlonassRecords = 24;
constexpr int64_t kGpsSegmentSize = int64_t{kGpsRecords} * kRecordSize;
constexpr int64_t kMixedSegmentSize = kGpsSegmentSize + int64_t{kGlonassRecords} * kRecordSize;

constexpr uint32_t kFirstFile = 1;
constexpr uint32_t kUnnumbered = 0;
constexpr size_t kCommandSize = 352;          // bytes of a command's text
constexpr useconds_t kCommandPauseUs = 10000; // the pace of the chip's input

// Satellite numbers in the files.
constexpr uint32_t kFirstGlonass = 64;
constexpr uint32_t kFirstGalileo = 100;
constexpr uint32_t kGalileoHeader = 254;
constexpr uint32_t kFirstBeidou = 200;
constexpr uint32_t kBeidouHeader = 255;
constexpr uint32_t kLateBeidouFrom = 190;
constexpr uint32_t kLateBeidouTo = 198;
constexpr uint32_t kFirstLateBeidou = 135;

void close_file(FILE* file) {
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: [XOD] xod_host_aiding_xod, close file_handle fail");
    }
}

// An assistance file that is being read.
struct OrbitFile : private NonCopyable {
    OrbitFile() = default;
    ~OrbitFile() {
        close();
    }

    // Closes what was open before.
    bool open(uint32_t type, uint32_t index) {
        close();
        file = xod_download_file_open(type, index);
        return file != nullptr;
    }
    void close() {
        if (file != nullptr) {
            close_file(std::exchange(file, nullptr));
        }
    }
    bool seek(int64_t offset) const {
        return fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
    }

    FILE* file = nullptr;
    bool gps_only = false;              // layout of the segments
    uint8_t start_word[kWordSize] = {}; // as last read
};

// A failed read is only logged: the caller goes on with what the buffer holds.
void read_or_log(FILE* file, uint8_t* buffer, size_t size) {
    if (fread(buffer, size, 1, file) != 1) {
        puts("[LOCSERV] ERR: xod_host_aiding_xod, fread fail");
    }
}

// Reads the start hour at the file's position. Returns the segment of the hour now, which may be outside the
// file; division towards zero takes the five hours before the first segment to it.
int32_t read_segment(OrbitFile* file, int32_t now, int32_t* hours) {
    read_or_log(file->file, file->start_word, sizeof file->start_word);
    const uint32_t start = xod_start_hour(load_le32(file->start_word));
    *hours = static_cast<int32_t>(static_cast<uint32_t>(now) - start);
    return *hours / kSegmentHours;
}

bool is_in_file(int32_t segment) {
    return segment >= 0 && segment < kSegments;
}

void format_command(int32_t constellation, const uint8_t* record, char* text) {
    uint32_t w[kRecordWords];
    for (size_t i = 0; i < kRecordWords; ++i) {
        w[i] = load_le32(record + i * kWordSize);
    }
    snprintf(text, kCommandSize, "471,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X,%X",
             static_cast<uint32_t>(constellation), xod_host_aiding_sv_id(constellation, record), w[0], w[1],
             w[2], w[3], w[4], w[5], w[6], w[7], w[8], w[9], w[10], w[11], w[12], w[13], w[14], w[15], w[16],
             w[17]);
}

void log_giving_way() {
    puts("[LOCSERV] WRN: [XOD] host aiding gives way to a stop");
}

// Each request takes about a second, and a chip may queue many of them: they end early while a stop is
// announced. Returns whether it did not; kept: records that can't be read count as sent.
bool xod_host_aiding_send_data(FILE* file, uint32_t n, int32_t constellation) {
    uint8_t record[kRecordSize];
    for (uint32_t i = 0; i < n; ++i) {
        if (stop_request_pending()) {
            log_giving_way();
            return false;
        }
        if (fread(record, sizeof record, 1, file) != 1) {
            puts("[LOCSERV] ERR: [XOD] xod_host_aiding_send_data, read fail");
            return true;
        }
        char text[kCommandSize] = {};
        format_command(constellation, record, text);
        location_command_send(text);
        usleep(kCommandPauseUs);
    }
    return true;
}

int32_t without_file(int32_t constellation) {
    printf("[LOCSERV] ERR: [XOD] xod_host_aiding_xod: %d, without XOD file\n", constellation);
    return 0;
}

bool open_first(int32_t constellation, OrbitFile* file) {
    if (file->open(XOD_GPS_GLONASS, kFirstFile)) {
        return true;
    }
    file->gps_only = constellation == XOD_CONSTELLATION_GPS && file->open(XOD_GPS, kFirstFile);
    return file->gps_only;
}

// Kept: the second try for GPS opens the same file, but reads it with the layout of a GPS-only file.
bool open_later(int32_t constellation, uint32_t index, OrbitFile* file) {
    file->gps_only = false;
    if (file->open(XOD_GPS_GLONASS, index)) {
        return true;
    }
    file->gps_only = constellation == XOD_CONSTELLATION_GPS && file->open(XOD_GPS_GLONASS, index);
    return file->gps_only;
}

int64_t numbered_offset(int32_t constellation, const OrbitFile& file, int32_t segment) {
    if (constellation == XOD_CONSTELLATION_GLONASS) {
        return segment * kMixedSegmentSize + kGpsSegmentSize;
    }
    return segment * (file.gps_only ? kGpsSegmentSize : kMixedSegmentSize);
}

int32_t send_segment(int32_t constellation, OrbitFile* file, int32_t segment) {
    if (!file->seek(numbered_offset(constellation, *file, segment))) {
        file->close();
        puts("[LOCSERV] ERR: [XOD] xod_host_aiding_xod, seek fail");
        return 0;
    }
    const uint32_t count = constellation == XOD_CONSTELLATION_GPS ? kGpsRecords : kGlonassRecords;
    return xod_host_aiding_send_data(file->file, count, constellation) ? 1 : 0;
}

// GPS and GLONASS: numbered files, three days each.
int32_t aid_from_numbered(int32_t constellation, int32_t now) {
    OrbitFile file;
    if (!open_first(constellation, &file)) {
        return without_file(constellation);
    }
    int32_t hours = 0;
    int32_t segment = read_segment(&file, now, &hours);
    if (!is_in_file(segment)) {
        if (!open_later(constellation, static_cast<uint32_t>(hours / kFileHours + 1), &file)) {
            return without_file(constellation);
        }
        segment = read_segment(&file, now, &hours);
    }
    if (!is_in_file(segment)) {
        file.close();
        printf("[LOCSERV] ERR: [XOD] xod_host_aiding_xod: %d, invalid xod\n", constellation);
        return 0;
    }
    return send_segment(constellation, &file, segment);
}

uint32_t records_of(const uint8_t* header) {
    return static_cast<uint32_t>(std::popcount(load_le32(header + kFirstMaskOffset)) +
                                 std::popcount(load_le32(header + kSecondMaskOffset)));
}

// Galileo and BeiDou: one file, whose header says how many satellites a segment holds.
int32_t aid_from_headed(int32_t constellation, int32_t now) {
    OrbitFile file;
    if (!file.open(constellation == XOD_CONSTELLATION_GALILEO ? XOD_GALILEO : XOD_BEIDOU, kUnnumbered)) {
        return without_file(constellation);
    }
    uint8_t header[kRecordSize] = {};
    read_or_log(file.file, header, sizeof header);
    const uint32_t count = records_of(header);
    int32_t hours = 0;
    const int32_t segment = read_segment(&file, now, &hours);
    if (!is_in_file(segment)) {
        printf("[LOCSERV] ERR: [XOD] xod_host_aiding_xod: %d, invalid xod\n", constellation);
        return 0;
    }
    if (!file.seek(0)) {
        puts("[LOCSERV] ERR: [XOD] xod_host_aiding_xod, seek fail");
    }
    if (!xod_host_aiding_send_data(file.file, 1, constellation)) {
        return 0;
    }
    if (!file.seek(kRecordSize + int64_t{segment} * count * kRecordSize)) {
        file.close();
        puts("[LOCSERV] ERR: [XOD] xod_host_aiding_xod, seek fail");
        return 0;
    }
    return xod_host_aiding_send_data(file.file, count, constellation) ? 1 : 0;
}

int32_t xod_host_aiding_xod(int32_t constellation, uint32_t week, int32_t tow_seconds) {
    const auto now =
        static_cast<int32_t>(static_cast<uint32_t>(tow_seconds / kSecondsPerHour) + week * kHoursPerWeek);
    switch (constellation) {
    case XOD_CONSTELLATION_GPS:
    case XOD_CONSTELLATION_GLONASS:
        return aid_from_numbered(constellation, now);
    case XOD_CONSTELLATION_GALILEO:
    case XOD_CONSTELLATION_BEIDOU:
        return aid_from_headed(constellation, now);
    default:
        printf("[LOCSERV] ERR: [XOD] xod_host_aiding_xod, type wrong:%d\n", constellation);
        return 0;
    }
}

uint32_t beidou_number(uint32_t b) {
    if (b == kBeidouHeader) {
        return b;
    }
    return b - (b >= kLateBeidouFrom && b <= kLateBeidouTo ? kFirstLateBeidou : kFirstBeidou);
}

} // namespace

uint32_t xod_host_aiding_sv_id(int32_t constellation, const uint8_t* record) {
    const uint32_t b = record[kSatelliteOffset];
    switch (constellation) {
    case XOD_CONSTELLATION_GPS:
        return b;
    case XOD_CONSTELLATION_GLONASS:
        return b - kFirstGlonass;
    case XOD_CONSTELLATION_GALILEO:
        return b == kGalileoHeader ? b : b - kFirstGalileo;
    case XOD_CONSTELLATION_BEIDOU:
        return beidou_number(b);
    default:
        return 0;
    }
}

int32_t xod_host_aiding(int8_t constellation, uint32_t week, int32_t tow_seconds) {
    if (stop_request_pending() || !xod_download_lock_unless_stopped()) {
        log_giving_way();
        return 0;
    }
    const int32_t result = xod_host_aiding_xod(constellation, week, tow_seconds);
    if (result != 0) {
        printf("[LOCSERV] INF: [XOD] host aiding xod finish:%d\n", constellation);
    }
    xod_download_unlock();
    return result;
}

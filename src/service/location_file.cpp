#include "service/location_file.h"

#include "base/descriptor_guard.h"
#include "base/file_beside.h"
#include "base/format.h"
#include "base/regular_file.h"
#include "config/location_config.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr size_t kFileTextSize = 512;
constexpr size_t kLineSize = 256; // a longer line is read in pieces
constexpr int32_t kValuesWanted = 7;
constexpr mode_t kFileMode = 0666; // less what the process masks, as fopen makes a file

// The text of the file while it is built.
struct FileText {
    char text[kFileTextSize];
    size_t length;
};

// The record followed by a NUL: a text may run on from its field into the next ones, and ends here at the
// latest.
struct TerminatedRecord {
    LocationRecord record;
    char end;
};

struct FileLine {
    const char* key;
    size_t offset; // of the value in the terminated record
    const char* failure;
};

// In the order of the file.
constexpr FileLine kFileLines[] = {
    {"UTC=", offsetof(LocationRecord, utc), "[LOCSERV] ERR: location_service_save_location get utc fail"},
    {"longitude=", offsetof(LocationRecord, longitude),
     "[LOCSERV] ERR: location_service_save_location get longitude fail"},
    {"latitude=", offsetof(LocationRecord, latitude),
     "[LOCSERV] ERR: location_service_save_location get latitude fail"},
    {"majorAxis=", offsetof(LocationRecord, majorAxis),
     "[LOCSERV] ERR: location_service_save_location get majorAxis fail"},
    {"minorAxis=", offsetof(LocationRecord, minorAxis),
     "[LOCSERV] ERR: location_service_save_location get minorAxis fail"},
    {"orientation=", offsetof(LocationRecord, orientation),
     "[LOCSERV] ERR: location_service_save_location get orientation fail"},
    {"height=", offsetof(LocationRecord, height),
     "[LOCSERV] ERR: location_service_save_location get height fail"},
    {"heightType=AGL", offsetof(TerminatedRecord, end),
     "[LOCSERV] ERR: location_service_save_location get heightType fail"},
    {"verticalUncertainty=", offsetof(LocationRecord, verticalUncertainty),
     "[LOCSERV] ERR: location_service_save_location get verticalUncertainty fail"},
};

struct FileValue {
    const char* key;
    double AidingPosition::*value;
    const char* failure;
};

// In the order in which a line is searched.
constexpr FileValue kFileValues[] = {
    {"longitude=", &AidingPosition::longitude,
     "[LOCSERV] ERR: location_service_get_position sscanf lon fail"},
    {"latitude=", &AidingPosition::latitude, "[LOCSERV] ERR: location_service_get_position sscanf lat fail"},
    {"majorAxis=", &AidingPosition::majorAxis,
     "[LOCSERV] ERR: location_service_get_position sscanf acc_maj fail"},
    {"minorAxis=", &AidingPosition::minorAxis,
     "[LOCSERV] ERR: location_service_get_position sscanf acc_min fail"},
    {"orientation=", &AidingPosition::orientation,
     "[LOCSERV] ERR: location_service_get_position sscanf bear fail"},
    {"height=", &AidingPosition::height, "[LOCSERV] ERR: location_service_get_position sscanf alt fail"},
    {"verticalUncertainty=", &AidingPosition::verticalUncertainty,
     "[LOCSERV] ERR: location_service_get_position sscanf acc_vert fail"},
};

// Appends one line, cut where the text is full. Returns false when formatting fails.
bool append_line(FileText* out, const char* key, const char* value) {
    const size_t room = sizeof out->text - out->length;
    const int written = format(out->text + out->length, room, "%s%s\n", key, value);
    if (written < 0) {
        return false;
    }
    out->length += std::min(static_cast<size_t>(written), room - 1);
    return true;
}

bool build_text(const LocationRecord* record, FileText* out) {
    const TerminatedRecord copy = {*record, '\0'};
    const char* texts = reinterpret_cast<const char*>(&copy);
    for (const FileLine& line : kFileLines) {
        if (!append_line(out, line.key, texts + line.offset)) {
            puts(line.failure);
            return false;
        }
    }
    return true;
}

// No symbolic link is followed: the file may be configured to lie where others can place one.
FILE* open_emptied(const char* path) {
    DescriptorGuard file(regular_file_open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, kFileMode));
    FILE* const stream = file.fd < 0 ? nullptr : fdopen(file.fd, "w");
    if (stream == nullptr) {
        printf("[LOCSERV] ERR: location_service_save_location open fail, %s\n", path);
        return nullptr;
    }
    file.release();
    return stream;
}

int32_t write_text(FILE* file, const FileText& text) {
    int32_t result = 0;
    if (fwrite(text.text, 1, text.length, file) != text.length) {
        puts("[LOCSERV] ERR: location_service_save_location write fail");
        result = -1;
    }
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: location_service_save_location fclose fail");
    }
    return result;
}

int32_t save_in_place(const char* path, const FileText& text) {
    FILE* file = open_emptied(path);
    return file == nullptr ? -1 : write_text(file, text);
}

bool write_beside(const char* beside, const FileText& text) {
    FILE* file = open_emptied(beside);
    if (file == nullptr) {
        return false;
    }
    setvbuf(file, nullptr, _IONBF, 0); // so that a full disk fails the write instead of the close
    return write_text(file, text) == 0;
}

// The old file stays until the new one is whole and on the disk.
int32_t save_beside(const char* path, const FileText& text) {
    char beside[kConfigTextSize + kFileBesideExtra];
    file_beside_path(path, beside, sizeof beside);
    bool saved = write_beside(beside, text);
    if (saved && (file_beside_sync(beside) != 0 || rename(beside, path) != 0)) {
        printf("[LOCSERV] ERR: location_service_save_location replace fail, %s\n", path);
        saved = false;
    }
    if (!saved) {
        std::remove(beside);
    }
    return saved ? 0 : -1;
}

// Reads the line's value, if it has one. Returns 1 when it counts as read.
int32_t read_line(const char* line, AidingPosition* out) {
    for (const FileValue& row : kFileValues) {
        const char* at = strstr(line, row.key);
        if (at == nullptr) {
            continue;
        }
        // Kept: a text that is no number counts as read and leaves the value as it is; only a missing one
        // doesn't count.
        if (sscanf(at + strlen(row.key), "%lf", &(out->*row.value)) == EOF) {
            puts(row.failure);
            return 0;
        }
        return 1;
    }
    return 0;
}

} // namespace

int32_t location_service_save_location(const LocationRecord* record) {
    FileText text = {};
    if (!build_text(record, &text)) {
        return -1;
    }
    char path[kConfigTextSize];
    location_config_get_nmea_path(path);
    int32_t keep = 0;
    location_config_get_keep_good_files(&keep);
    return keep != 0 ? save_beside(path, text) : save_in_place(path, text);
}

int32_t location_service_get_position(AidingPosition* out) {
    *out = {};
    char path[kConfigTextSize];
    location_config_get_nmea_path(path);
    FILE* file = regular_file_read(path);
    if (file == nullptr) {
        printf("[LOCSERV] ERR: location_service_get_position open fail, %s\n", path);
        return -1;
    }
    char line[kLineSize];
    int32_t values = 0;
    while (fgets(line, sizeof line, file) != nullptr) {
        values += read_line(line, out);
    }
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: location_service_get_position fclose fail");
    }
    return values == kValuesWanted ? 0 : -1;
}

#include "assist/xod_check.h"

#include "base/regular_file.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mbedtls/md5.h>
#include <mbedtls/version.h>

namespace {

constexpr size_t kLineSize = 128; // the NUL included; a longer line is read in pieces
constexpr char kKey[] = "ETag: ";
constexpr size_t kKeyLength = sizeof kKey - 1;

constexpr size_t kDigestBytes = 16;
constexpr size_t kDigestLength = kXodDigestSize - 1;
constexpr size_t kChunkSize = 2048;
constexpr uint32_t kNibbleBits = 4;
constexpr uint32_t kNibbleMask = 15;

void copy_value(const char* key, char* out) {
    const char* value = key + std::min(strlen(key), kKeyLength + 1); // the quotation mark, too
    memset(out, 0, kXodDigestSize);
    memcpy(out, value, std::min(strcspn(value, "\r\n"), kXodDigestSize - 1));
}

void write_hex(const uint8_t* digest, char* out) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < kDigestBytes; ++i) {
        out[2 * i] = kDigits[digest[i] >> kNibbleBits];
        out[2 * i + 1] = kDigits[digest[i] & kNibbleMask];
    }
    out[kDigestLength] = '\0';
}

// The functions that tell of a failure: before version 3 the plain names belonged to others.
#if MBEDTLS_VERSION_MAJOR >= 3
constexpr auto md5_starts = mbedtls_md5_starts;
constexpr auto md5_update = mbedtls_md5_update;
constexpr auto md5_finish = mbedtls_md5_finish;
#else
constexpr auto md5_starts = mbedtls_md5_starts_ret;
constexpr auto md5_update = mbedtls_md5_update_ret;
constexpr auto md5_finish = mbedtls_md5_finish_ret;
#endif

bool add_content(FILE* file, mbedtls_md5_context* context) {
    uint8_t chunk[kChunkSize];
    for (;;) {
        const size_t size = fread(chunk, 1, sizeof chunk, file);
        if (size == 0) {
            return ferror(file) == 0;
        }
        if (md5_update(context, chunk, size) != 0) {
            return false;
        }
    }
}

bool digest_of(FILE* file, uint8_t* digest) {
    mbedtls_md5_context context;
    mbedtls_md5_init(&context);
    const bool done =
        md5_starts(&context) == 0 && add_content(file, &context) && md5_finish(&context, digest) == 0;
    mbedtls_md5_free(&context);
    return done;
}

} // namespace

bool xod_etag_read(FILE* header, char* out) {
    char line[kLineSize];
    while (fgets(line, sizeof line, header) != nullptr) {
        const char* key = strstr(line, kKey);
        if (key != nullptr) {
            copy_value(key, out);
            return true;
        }
    }
    return false;
}

int32_t xod_download_get_etag(const char* path, char* out) {
    FILE* file = regular_file_read(path);
    if (file == nullptr) {
        printf("[LOCSERV] ERR: [XOD]Open file fail, %s\n", path);
        return -1;
    }
    const bool found = xod_etag_read(file, out);
    if (found) {
        printf("[LOCSERV] INF: [XOD]ETag:%s,%s\n", path, out);
    }
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: [XOD]xod_download_get_etag, fclose fail");
    }
    return found ? 0 : -1;
}

void xod_download_md5_check(const char* path, char* out) {
    puts("[LOCSERV] INF: [XOD]MD5 check");
    FILE* file = regular_file_read(path);
    if (file == nullptr) {
        printf("[LOCSERV] ERR: [XOD]Open file fail, %s\n", path);
        return;
    }
    uint8_t digest[kDigestBytes] = {};
    if (digest_of(file, digest)) {
        write_hex(digest, out);
    }
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: [XOD]xod_download_md5_check fclose fail");
    }
    printf("[LOCSERV] INF: [XOD]MD5:%s,%s\n", path, out);
}

bool xod_download_same_sum(const char* etag, const char* md5) {
    return md5[0] != '\0' && memcmp(etag, md5, kDigestLength) == 0;
}

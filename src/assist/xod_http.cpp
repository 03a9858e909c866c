#include "assist/xod_http.h"

#include "assist/xod_bounded_file.h"
#include "assist/xod_curl.h"
#include "assist/xod_file.h"
#include "assist/xod_schedule.h"
#include "base/format.h"
#include "config/location_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mbedtls/md5.h>
#include <memory>

namespace {

constexpr char kHeaderPath[] = "/tmp/head.out";
constexpr size_t kUrlSize = 1024;
constexpr size_t kDigestBytes = 16;
constexpr size_t kDigestLength = kXodDigestSize - 1;
constexpr size_t kChunkSize = 2048;
constexpr uint32_t kNibbleBits = 4;
constexpr uint32_t kNibbleMask = 15;

// A transfer must not hold the lock for ever, whatever the server does.
constexpr long kConnectSeconds = 30;
constexpr long kStallSeconds = 60; // with less than a byte a second
constexpr long kStallBytesPerSecond = 1;
constexpr long kTransferSeconds = 300;
constexpr curl_off_t kLargestFile = 4194304; // bytes, also of the header; the real files have some 50,000

struct CurlCleanup {
    void operator()(CURL* handle) const {
        curl->easy_cleanup(handle);
    }
    const XodCurl* curl = nullptr;
};
using CurlHandle = std::unique_ptr<CURL, CurlCleanup>;

struct Download {
    char name[kXodNameSize];
    char path[kXodPathSize];
    char url[kUrlSize];
};

// The values go in as they stand: one with a blank makes an address that libcurl refuses.
bool describe(const DownloadItem& item, Download* download) {
    xod_download_file_name(item.type, item.index, download->name);
    xod_download_file_path(item.type, item.index, download->path);
    XodServerConfig server = {};
    location_config_get_xod_server(&server);
    return format(download->url, sizeof download->url, "http://%s/%s?vendor=%s&project=%s&device_id=%s",
                  server.host, download->name, server.vendor, server.project, server.device_id) >= 0;
}

bool set_limits(const XodCurl& curl, CURL* handle) {
    return curl.easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http") == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK && // also none of the environment
           curl.easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kStallSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_TIMEOUT, kTransferSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L) == CURLE_OK && // leaves a stuck name resolution
           curl.easy_setopt(handle, CURLOPT_MAXFILESIZE_LARGE, kLargestFile) == CURLE_OK;
}

CurlHandle make_handle(const Download& download) {
    const XodCurl* curl = xod_curl();
    CurlHandle handle(curl != nullptr ? curl->easy_init() : nullptr, CurlCleanup{curl});
    if (handle == nullptr) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http curl_easy_init fail, %s\n", download.name);
        return nullptr;
    }
    if (curl->easy_setopt(handle.get(), CURLOPT_URL, download.url) != CURLE_OK) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt url fail");
    }
    if (!set_limits(*curl, handle.get())) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt limits fail");
        return nullptr;
    }
    return handle;
}

void close_file(FILE* file) {
    if (fclose(file) != 0) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http fclose fail");
    }
}

struct TransferFiles {
    FILE* header;
    FILE* body;
};

// Opens both files, or neither, and empties them.
bool open_files(const Download& download, TransferFiles* files) {
    files->header = xod_bounded_file_open(kHeaderPath, kLargestFile);
    if (files->header == nullptr) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http fail, %s\n", kHeaderPath);
        return false;
    }
    files->body = xod_bounded_file_open(download.path, kLargestFile);
    if (files->body == nullptr) {
        close_file(files->header);
        printf("[LOCSERV] ERR: [XOD]xod_download_http open fail, %s\n", download.path);
        return false;
    }
    return true;
}

// libcurl's own writer fills both files, which take only so much: neither what a packed body unpacks to nor a
// trailer is announced.
CURLcode perform(const CurlHandle& handle, const TransferFiles& files) {
    const XodCurl& curl = *handle.get_deleter().curl;
    if (curl.easy_setopt(handle.get(), CURLOPT_HEADERDATA, files.header) != CURLE_OK) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt headerfile fail");
    }
    if (curl.easy_setopt(handle.get(), CURLOPT_WRITEDATA, files.body) != CURLE_OK) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt bodyfile fail");
    }
    const CURLcode result = curl.easy_perform(handle.get());
    close_file(files.header);
    close_file(files.body);
    return result;
}

// Both files belong to the transfer until the lock is given back.
bool transfer_locked(const Download& download, const CurlHandle& handle, CURLcode* result) {
    TransferFiles files = {};
    xod_download_lock();
    const bool opened = open_files(download, &files);
    if (opened) {
        *result = perform(handle, files);
    }
    xod_download_unlock();
    return opened;
}

bool transfer(const Download& download) {
    const CurlHandle handle = make_handle(download);
    if (handle == nullptr) {
        return false;
    }
    CURLcode result = CURLE_OK;
    if (!transfer_locked(download, handle, &result)) {
        return false;
    }
    if (result != CURLE_OK) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http download fail, %s, status: %d\n", download.name,
               static_cast<int>(result));
        return false;
    }
    return true;
}

bool same_sum(const char* etag, const char* md5) {
    // A sum that could not be made is empty, and so may the server's be.
    return md5[0] != '\0' && memcmp(etag, md5, kDigestLength) == 0;
}

// The status of the answer is not looked at: an error page has no ETag, or not that of its content.
bool check(const Download& download) {
    char etag[kXodDigestSize] = {};
    if (xod_download_get_etag(kHeaderPath, etag) != 0) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http get etag fail, please check the http status code: "
               "%s\n",
               kHeaderPath);
        return false;
    }
    char md5[kXodDigestSize] = {};
    xod_download_md5_check(download.path, md5);
    if (!same_sum(etag, md5)) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:%s,MD5:%s\n", etag, md5);
        std::remove(download.path);
        return false;
    }
    printf("[LOCSERV] INF: [XOD]xod_download_http MD5 check success, %s\n", download.name);
    return true;
}

void write_hex(const uint8_t* digest, char* out) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < kDigestBytes; ++i) {
        out[2 * i] = kDigits[digest[i] >> kNibbleBits];
        out[2 * i + 1] = kDigits[digest[i] & kNibbleMask];
    }
    out[kDigestLength] = '\0';
}

bool add_content(FILE* file, mbedtls_md5_context* context) {
    uint8_t chunk[kChunkSize];
    for (;;) {
        const size_t size = fread(chunk, 1, sizeof chunk, file);
        if (size == 0) {
            return ferror(file) == 0;
        }
        if (mbedtls_md5_update_ret(context, chunk, size) != 0) {
            return false;
        }
    }
}

bool digest_of(FILE* file, uint8_t* digest) {
    mbedtls_md5_context context;
    mbedtls_md5_init(&context);
    const bool done = mbedtls_md5_starts_ret(&context) == 0 && add_content(file, &context) &&
                      mbedtls_md5_finish_ret(&context, digest) == 0;
    mbedtls_md5_free(&context);
    return done;
}

} // namespace

int32_t xod_download_http(const DownloadItem* item) {
    Download download = {};
    if (!describe(*item, &download)) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http get url fail");
        return -1;
    }
    return transfer(download) && check(download) ? 0 : -1;
}

int32_t xod_download_get_etag(const char* path, char* out) {
    FILE* file = fopen(path, "r");
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
    FILE* file = fopen(path, "r");
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

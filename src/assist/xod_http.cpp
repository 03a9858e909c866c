#include "assist/xod_http.h"

#include "assist/xod_check.h"
#include "assist/xod_curl.h"
#include "assist/xod_file.h"
#include "base/descriptor_guard.h"
#include "base/file_beside.h"
#include "base/format.h"
#include "base/non_copyable.h"
#include "base/regular_file.h"
#include "config/location_config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <unistd.h>

namespace {

constexpr char kHeaderPath[] = "/tmp/head.out";
constexpr size_t kUrlSize = 1024;
// A transfer must not hold the lock for ever, whatever the server does.
constexpr long kConnectSeconds = 30;
constexpr long kStallSeconds = 60; // with less than a byte a second
constexpr long kStallBytesPerSecond = 1;
constexpr long kTransferSeconds = 300;
constexpr mode_t kFileMode = 0666;           // less what the process masks, as fopen makes a file
constexpr curl_off_t kLargestFile = 4194304; // bytes, also of the header; the real files have some 50,000

struct CurlCleanup {
    void operator()(CURL* handle) const {
        curl->easy_cleanup(handle);
    }
    const XodCurl* curl = nullptr;
};
using CurlHandle = std::unique_ptr<CURL, CurlCleanup>;

struct FileLock : private NonCopyable {
    FileLock() {
        xod_download_lock();
    }
    ~FileLock() {
        xod_download_unlock();
    }
};

struct Download {
    char name[kXodNameSize];
    char path[kXodPathSize];
    bool beside;                                  // the transfer leaves the file alone until it is replaced
    char target[kXodPathSize + kFileBesideExtra]; // what the transfer writes
    char url[kUrlSize];
};

// The values go in as they stand: one with a blank makes an address that libcurl refuses.
bool describe(const DownloadItem& item, Download* download) {
    xod_download_file_name(item.type, item.index, download->name);
    xod_download_file_path(item.type, item.index, download->path);
    int32_t keep = 0;
    location_config_get_keep_good_files(&keep);
    download->beside = keep != 0;
    if (download->beside) {
        file_beside_path(download->path, download->target, sizeof download->target);
    } else {
        memcpy(download->target, download->path, sizeof download->path);
    }
    XodServerConfig server = {};
    location_config_get_xod_server(&server);
    return format(download->url, sizeof download->url, "http://%s/%s?vendor=%s&project=%s&device_id=%s",
                  server.host, download->name, server.vendor, server.project, server.device_id) >= 0;
}

// A stuck name resolution is not waited for (CURLOPT_QUICK_EXIT).
bool set_limits(const XodCurl& curl, CURL* handle) {
    return curl.easy_setopt(handle, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http") == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_PROXY, "") == CURLE_OK && // not even one of the environment
           curl.easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kStallBytesPerSecond) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kStallSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_TIMEOUT, kTransferSeconds) == CURLE_OK &&
           curl.easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L) == CURLE_OK &&
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

// The file behind a stream that takes no more than this many bytes, whatever a server sends.
struct BoundedFile {
    DescriptorGuard file;
    size_t left; // bytes
};

// Write function of the stream: returns the bytes taken, 0 for a failure.
ssize_t write_bounded(void* cookie, const char* data, size_t size) {
    auto* bounded = static_cast<BoundedFile*>(cookie);
    if (size > bounded->left) {
        errno = EFBIG;
        return 0;
    }
    const ssize_t written = write(bounded->file.fd, data, size);
    if (written < 0) {
        return 0;
    }
    bounded->left -= static_cast<size_t>(written);
    return written;
}

int close_bounded(void* cookie) {
    const std::unique_ptr<BoundedFile> bounded(static_cast<BoundedFile*>(cookie));
    return close(bounded->file.release());
}

// Opens a file for writing and empties it. No symbolic link is followed: the header lies in /tmp, where
// others could place one.
FILE* open_bounded(const char* path) {
    DescriptorGuard file(regular_file_open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, kFileMode));
    if (file.fd < 0) {
        return nullptr;
    }
    auto bounded = std::unique_ptr<BoundedFile>(
        new (std::nothrow) BoundedFile{DescriptorGuard(file.release()), kLargestFile});
    if (bounded == nullptr) {
        return nullptr;
    }
    FILE* stream = fopencookie(bounded.get(), "wb", {nullptr, write_bounded, nullptr, close_bounded});
    if (stream != nullptr) {
        static_cast<void>(bounded.release()); // the stream's
    }
    return stream;
}

struct TransferFiles {
    FILE* header;
    FILE* body;
};

// Opens both files, or neither, and empties them.
bool open_files(const Download& download, TransferFiles* files) {
    files->header = open_bounded(kHeaderPath);
    if (files->header == nullptr) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http fail, %s\n", kHeaderPath);
        return false;
    }
    files->body = open_bounded(download.target);
    if (files->body == nullptr) {
        close_file(files->header);
        printf("[LOCSERV] ERR: [XOD]xod_download_http open fail, %s\n", download.target);
        return false;
    }
    return true;
}

// libcurl's own writer fills both files. Their own limit is needed: neither what a packed body unpacks to nor
// the size of a trailer is known in advance.
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

// The transfer's result, or nothing when it could not begin. Readers of the file that it writes are locked
// out from before that is emptied until it is closed; nobody reads one that is written beside.
std::optional<CURLcode> transfer(const Download& download) {
    const CurlHandle handle = make_handle(download);
    if (handle == nullptr) {
        return std::nullopt;
    }
    std::optional<FileLock> lock;
    if (!download.beside) {
        lock.emplace();
    }
    TransferFiles files = {};
    if (!open_files(download, &files)) {
        return std::nullopt;
    }
    return perform(handle, files);
}

bool fetch(const Download& download) {
    const std::optional<CURLcode> result = transfer(download);
    if (result && *result != CURLE_OK) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http download fail, %s, status: %d\n", download.name,
               static_cast<int>(*result));
    }
    return result == CURLE_OK;
}

// Kept: the status code is not looked at. An error page has no ETag, or another sum than that.
bool check(const Download& download) {
    char etag[kXodDigestSize] = {};
    if (xod_download_get_etag(kHeaderPath, etag) != 0) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http get etag fail, please check the http status code: "
               "%s\n",
               kHeaderPath);
        return false;
    }
    char md5[kXodDigestSize] = {};
    xod_download_md5_check(download.target, md5);
    if (!xod_download_same_sum(etag, md5)) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:%s,MD5:%s\n", etag, md5);
        std::remove(download.target);
        return false;
    }
    printf("[LOCSERV] INF: [XOD]xod_download_http MD5 check success, %s\n", download.name);
    return true;
}

// The file beside takes the place of the old one, while nobody reads that.
bool replace(const Download& download) {
    if (!download.beside) {
        return true;
    }
    bool replaced = file_beside_sync(download.target) == 0;
    if (replaced) {
        const FileLock lock;
        replaced = rename(download.target, download.path) == 0;
    }
    if (!replaced) {
        printf("[LOCSERV] ERR: [XOD]xod_download_http replace fail, %s\n", download.path);
    }
    return replaced;
}

} // namespace

int32_t xod_download_http(const DownloadItem* item) {
    Download download = {};
    if (!describe(*item, &download)) {
        puts("[LOCSERV] ERR: [XOD]xod_download_http get url fail");
        return -1;
    }
    const bool good = fetch(download) && check(download) && replace(download);
    if (!good && download.beside) {
        std::remove(download.target);
    }
    return good ? 0 : -1;
}

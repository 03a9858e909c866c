#include "xod_http_fixture.h"

#include "base/stop_request.h"
#include "interpose/paths.h"
#include "support/capture.h"
#include "support/format_fault.h"

#include <cstdio>
#include <mbedtls/md5.h>

using std::string;
namespace fs = std::filesystem;

XodHttpFaults faults;

namespace {

CURL* init_handle() {
    CURL* handle = faults.init_fails ? nullptr : curl_easy_init();
    faults.alive += handle == nullptr ? 0 : 1;
    return handle;
}

void clean_up(CURL* handle) {
    --faults.alive;
    curl_easy_cleanup(handle);
}

} // namespace

extern "C" {

CURLcode xod_http_set_option(CURL* handle, CURLoption option, ...);
CURLcode xod_http_option(CURL* handle, CURLoption option, curl_off_t value);

CURLcode xod_http_option(CURL* handle, CURLoption option, curl_off_t value) {
    if (option == faults.failing) {
        return CURLE_OUT_OF_MEMORY;
    }
    faults.numbers[option] = value;
    const auto replaced = faults.replaced.find(option);
    if (replaced != faults.replaced.end()) {
        value = replaced->second;
    }
    return option < CURLOPTTYPE_OFF_T ? curl_easy_setopt(handle, option, static_cast<long>(value))
                                      : curl_easy_setopt(handle, option, value);
}
}

// A pending stop makes the lock give way at once.
bool is_locked() {
    stop_request_announce();
    const bool taken = xod_download_lock_unless_stopped();
    stop_request_withdraw();
    if (taken) {
        xod_download_unlock();
    }
    return !taken;
}

string answer_with(const string& etag_line, const string& body, const string& status) {
    return "HTTP/1.1 " + status + "\r\n" + etag_line + "Content-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

// In place of the loader: the same library, linked, with the faults before it.
const XodCurl* xod_curl() {
    static const XodCurl functions = {init_handle, xod_http_set_option, curl_easy_perform, clean_up};
    return faults.missing ? nullptr : &functions;
}

extern "C" {

FILE* __real_fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions);
FILE* __wrap_fopencookie(void* cookie, const char* mode, cookie_io_functions_t functions) {
    faults.unlocked_openings += is_locked() ? 0 : 1;
    return __real_fopencookie(cookie, mode, functions);
}

// Only the files that a transfer writes have no descriptor that the stream knows.
int __real_fclose(FILE* file);
int __wrap_fclose(FILE* file) {
    const int fd = fileno(file);
    bool fails = false;
    if (fd < 0) {
        faults.unlocked_closings += is_locked() ? 0 : 1;
        fails = faults.failing_writer > 0 && --faults.failing_writer == 0;
    } else if (!faults.failing_reader.empty()) {
        const string path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd));
        fails = path.ends_with(faults.failing_reader);
    }
    const int result = __real_fclose(file);
    return fails ? EOF : result;
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    faults.calls += "fsync ";
    return faults.fsync_fails ? -1 : __real_fsync(fd);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    faults.calls += "rename ";
    faults.unlocked_renames += is_locked() ? 0 : 1;
    return __real_rename(from, to);
}

int __real_mbedtls_md5_starts_ret(mbedtls_md5_context* context);
int __wrap_mbedtls_md5_starts_ret(mbedtls_md5_context* context) {
    faults.locked_at_md5 = is_locked();
    return faults.md5_start_fails ? -1 : __real_mbedtls_md5_starts_ret(context);
}

int __real_mbedtls_md5_update_ret(mbedtls_md5_context* context, const unsigned char* data, size_t size);
int __wrap_mbedtls_md5_update_ret(mbedtls_md5_context* context, const unsigned char* data, size_t size) {
    return faults.md5_update_fails ? -1 : __real_mbedtls_md5_update_ret(context, data, size);
}

int __real_mbedtls_md5_finish_ret(mbedtls_md5_context* context, unsigned char* digest);
int __wrap_mbedtls_md5_finish_ret(mbedtls_md5_context* context, unsigned char* digest) {
    return faults.md5_finish_fails ? -1 : __real_mbedtls_md5_finish_ret(context, digest);
}
}

XodHttp::XodHttp() {
    faults = {};
    interpose_set_root(dir.path);
    fs::create_directories(dir.path / "tmp");
    fs::create_directories(dir.path / "xod");
}

XodHttp::~XodHttp() {
    format_fault_disarm();
    interpose_set_root("");
    EXPECT_EQ(faults.alive, 0) << "a handle was not cleaned up";
}

void XodHttp::serve(const HttpServer::Answer& answer) {
    server = std::make_unique<HttpServer>([this, answer](int connection, const string& request) {
        {
            const std::lock_guard<std::mutex> guard(lock);
            seen.push_back(request);
        }
        answer(connection, request);
    });
    config(server->address());
}

void XodHttp::config(const string& host, const string& vendor) const {
    dir.write("/etc/default/tavor/tavor.conf",
              (keep ? "keep good files=1\nXOD host=" : "XOD host=") + host + "\nXOD vendor=" + vendor +
                  "\nXOD project=demo\nXOD device id=42\nXOD file path=" + files() + "\n");
}

int32_t XodHttp::download(uint32_t type, uint32_t index) {
    const DownloadItem item = {nullptr, type, index};
    int32_t result = 99;
    const string all = capture_stdout([&] { result = xod_download_http(&item); });
    log.clear();
    for (const string& line : lines_of(all)) {
        log += line.find("[CFG]") == string::npos ? line + "\n" : "";
    }
    EXPECT_FALSE(is_locked());
    return result;
}

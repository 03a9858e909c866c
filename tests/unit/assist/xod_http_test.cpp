#include "assist/xod_http.h"

#include "assist/xod_check.h"
#include "assist/xod_curl.h"
#include "assist/xod_file.h"
#include "base/stop_request.h"
#include "interpose/paths.h"
#include "support/capture.h"
#include "support/fifo.h"
#include "support/file_size_limit.h"
#include "support/format_fault.h"
#include "support/http_server.h"
#include "support/private_dir.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <mbedtls/md5.h>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include <zlib.h>

namespace {

using std::string;
namespace fs = std::filesystem;

struct Faults {
    bool missing = false; // the whole library
    bool init_fails = false;
    CURLoption failing = CURLOPT_LASTENTRY;
    std::map<CURLoption, long> replaced;
    std::map<CURLoption, long> numbers; // as they were set
    int alive = 0;                      // handles
    bool md5_start_fails = false;
    bool md5_update_fails = false;
    bool md5_finish_fails = false;
    bool locked_at_md5 = false;
    int unlocked_openings = 0; // of files to be written
    int unlocked_closings = 0;
    int unlocked_renames = 0;
    bool fsync_fails = false;
    string calls;           // of fsync and rename
    int failing_writer = 0; // number of the next closing of a written file that fails, from 1
    string failing_reader;  // end of the path of the read file whose closing fails
} faults;

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

const string kBody = "abc";
const string kSum = "900150983cd24fb0d6963f7d28e17f72"; // of the body
const string kHead = "/tmp/head.out";
const string kEtagLine = "[LOCSERV] INF: [XOD]ETag:/tmp/head.out," + kSum + "\n";

string answer_with(const string& etag_line, const string& body, const string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\n" + etag_line + "Content-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

struct XodHttp : testing::Test {
    XodHttp() {
        faults = {};
        interpose_set_root(dir.path);
        fs::create_directories(dir.path / "tmp");
        fs::create_directories(dir.path / "xod");
    }
    ~XodHttp() override {
        format_fault_disarm();
        interpose_set_root("");
        EXPECT_EQ(faults.alive, 0) << "a handle was not cleaned up";
    }

    void serve(const HttpServer::Answer& answer) {
        server = std::make_unique<HttpServer>([this, answer](int connection, const string& request) {
            {
                const std::lock_guard<std::mutex> guard(lock);
                seen.push_back(request);
            }
            answer(connection, request);
        });
        config(server->address());
    }
    void serve_text(const string& text) {
        serve([text](int connection, const string&) { http_send(connection, text); });
    }
    void serve_good() {
        serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    }
    void config(const string& host, const string& vendor = "tavor", const string& path = "") const {
        dir.write("/etc/default/tavor/tavor.conf",
                  (keep ? "keep good files=1\nXOD host=" : "XOD host=") + host + "\nXOD vendor=" + vendor +
                      "\nXOD project=demo\nXOD device id=42\nXOD file path=" +
                      (path.empty() ? files() : path) + "\n");
    }
    string files() const {
        return (dir.path / "xod").string();
    }
    string path(const string& name = "XOD_GR_3_1.DAT") const {
        return files() + "/" + name;
    }
    std::vector<string> requests() {
        const std::lock_guard<std::mutex> guard(lock);
        return seen;
    }
    // Downloads; the log then holds the lines of the assistance alone.
    int32_t download(uint32_t type = XOD_GPS_GLONASS, uint32_t index = 1) {
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
    string md5_lines(const string& sum) const {
        return "[LOCSERV] INF: [XOD]MD5 check\n[LOCSERV] INF: [XOD]MD5:" + path() + "," + sum + "\n";
    }
    static string failed(int status) {
        return "[LOCSERV] ERR: [XOD]xod_download_http download fail, XOD_GR_3_1.DAT, status: " +
               std::to_string(status) + "\n";
    }
    string good_log() const {
        return kEtagLine + md5_lines(kSum) +
               "[LOCSERV] INF: [XOD]xod_download_http MD5 check success, XOD_GR_3_1.DAT\n";
    }
    string content(const string& name = "XOD_GR_3_1.DAT") const {
        return dir.read("xod/" + name);
    }
    bool exists(const string& name = "XOD_GR_3_1.DAT") const {
        return fs::exists(dir.path / "xod" / name);
    }

    PrivateDir dir;
    bool keep = false; // the setting
    std::mutex lock;
    std::vector<string> seen; // requests
    string log;
    std::unique_ptr<HttpServer> server; // the last: its thread uses the others
};

constexpr size_t kLimit = 4194304; // bytes of a file

string gzip_of(const string& text) {
    string packed(compressBound(text.size()) + 64, '\0');
    z_stream stream = {};
    constexpr int kGzip = 16 + MAX_WBITS;
    EXPECT_EQ(deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzip, 8, Z_DEFAULT_STRATEGY), Z_OK);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

const string kNoEtag =
    "[LOCSERV] ERR: [XOD]xod_download_http get etag fail, please check the http status code: "
    "/tmp/head.out\n";

CURL* init_handle() {
    CURL* handle = faults.init_fails ? nullptr : curl_easy_init();
    faults.alive += handle == nullptr ? 0 : 1;
    return handle;
}

void clean_up(CURL* handle) {
    --faults.alive;
    curl_easy_cleanup(handle);
}

CURLcode set_option(CURL* handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    void* value = va_arg(arguments, void*); // a long has the same size and place here
    va_end(arguments);
    if (option == faults.failing) {
        return CURLE_OUT_OF_MEMORY;
    }
    faults.numbers[option] = reinterpret_cast<long>(value);
    const auto replaced = faults.replaced.find(option);
    if (replaced != faults.replaced.end()) {
        return curl_easy_setopt(handle, option, replaced->second);
    }
    return curl_easy_setopt(handle, option, value);
}

} // namespace

// In place of the loader: the same library, linked, with the faults before it.
const XodCurl* xod_curl() {
    static const XodCurl functions = {init_handle, set_option, curl_easy_perform, clean_up};
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

TEST_F(XodHttp, GoodFileIsFetchedAndChecked) {
    dir.write("xod/XOD_GR_3_1.DAT", "an old one, longer");
    serve_good();
    EXPECT_EQ(download(), 0);
    EXPECT_EQ(log, good_log());
    EXPECT_EQ(content(), kBody);
    EXPECT_EQ(dir.read("tmp/head.out"),
              "HTTP/1.1 200 OK\r\nETag: \"" + kSum + "\"\r\nContent-Length: 3\r\nConnection: close\r\n\r\n");
    ASSERT_EQ(requests().size(), 1U);
    const string request = requests()[0];
    EXPECT_EQ(request.substr(0, request.find("\r\n")),
              "GET /XOD_GR_3_1.DAT?vendor=tavor&project=demo&device_id=42 HTTP/1.1");
}

TEST_F(XodHttp, EachTypeHasItsOwnFile) {
    serve_good();
    EXPECT_EQ(download(XOD_GPS, 2), 0);
    EXPECT_EQ(download(XOD_BEIDOU), 0);
    EXPECT_EQ(download(XOD_GALILEO), 0);
    for (const char* name : {"XOD_GPS_3_2.DAT", "XOD_BDS_3.DAT", "XOD_GAL_3.DAT"}) {
        EXPECT_EQ(content(name), kBody) << name;
    }
}

TEST_F(XodHttp, AnswerWithoutAnEtagFailsWhateverItsStatus) {
    for (const char* status : {"200 OK", "404 Not Found", "302 Found\r\nLocation: /elsewhere"}) {
        serve_text(answer_with("", kBody, status));
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, kNoEtag);
        EXPECT_EQ(content(), kBody); // stays, as nothing says that it is wrong
    }
    EXPECT_EQ(requests().size(), 3U) << "follows a redirection";
}

TEST_F(XodHttp, StatusIsNotLookedAt) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", kBody, "500 Internal Server Error"));
    EXPECT_EQ(download(), 0);
}

TEST_F(XodHttp, WrongContentDeletesTheFile) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", "abd"));
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kEtagLine + md5_lines("4911e516e5aa21d327512e0c8b197616") +
                       "[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:" + kSum +
                       ",MD5:4911e516e5aa21d327512e0c8b197616\n");
    EXPECT_FALSE(exists());
}

TEST_F(XodHttp, EtagThatIsNoWholeSumMatchesNoFile) {
    const string most = kSum.substr(0, 31);
    for (const string& etag : std::vector<string>{"", "\"", "\"9001\"", "\"" + most + "3\"", "\"" + most,
                                                  "\"900150983CD24FB0D6963F7D28E17F72\""}) {
        serve_text(answer_with("ETag: " + etag + "\r\n", kBody));
        EXPECT_EQ(download(), -1) << etag;
        EXPECT_NE(log.find("[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:"), string::npos);
        EXPECT_FALSE(exists());
    }
}

TEST_F(XodHttp, BrokenTransferFailsAndLeavesThePart) {
    const string half = "HTTP/1.1 200 OK\r\nETag: \"" + kSum + "\"\r\nContent-Length: 100\r\n\r\nhalf";
    serve_text(half);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_PARTIAL_FILE));
    EXPECT_EQ(content(), "half");
    serve([half](int connection, const string&) {
        http_send(connection, half);
        http_reset_at_close(connection);
    });
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_RECV_ERROR));
    serve_text("");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_GOT_NOTHING));
    faults.replaced[CURLOPT_LOW_SPEED_TIME] = 1;
    serve([half](int connection, const string&) {
        http_send(connection, half);
        http_wait_for_end(connection);
    });
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_OPERATION_TIMEDOUT));
}

TEST_F(XodHttp, NoServerFailsAndHasEmptiedTheOldFile) {
    dir.write("xod/XOD_GR_3_1.DAT", "old");
    serve_good();
    server.reset(); // the port is free now
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_COULDNT_CONNECT));
    EXPECT_TRUE(exists());
    EXPECT_EQ(content(), "");
}

TEST_F(XodHttp, WhatAServerSendsIsBounded) {
    const string packed = gzip_of(string(8 * kLimit, 'x'));
    char size[32];
    snprintf(size, sizeof size, "%zx\r\n", packed.size());
    string trailer;
    while (trailer.size() < 2 * kLimit) {
        trailer += "X-More: " + string(1000, 'x') + "\r\n";
    }
    const string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: ";
    const std::vector<std::pair<string, int>> answers = {
        {chunked + "gzip, chunked\r\n\r\n" + size + packed + "\r\n0\r\n\r\n", CURLE_WRITE_ERROR},
        {chunked + "chunked\r\n\r\n3\r\nabc\r\n0\r\n" + trailer + "\r\n", CURLE_WRITE_ERROR},
        {answer_with("", string(kLimit + 1, 'a')), CURLE_FILESIZE_EXCEEDED},
        {"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + string(20000000, 'a'), CURLE_WRITE_ERROR}};
    for (const auto& [answer, code] : answers) {
        serve_text(answer);
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, failed(code));
        EXPECT_LE(fs::file_size(path()), kLimit);
        EXPECT_LE(dir.read("tmp/head.out").size(), kLimit);
    }
    serve_text(answer_with("", string(kLimit, 'a'))); // as much as may come
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kNoEtag);
}

TEST_F(XodHttp, LimitsAreSet) {
    serve_good();
    download();
    EXPECT_EQ(faults.numbers.at(CURLOPT_CONNECTTIMEOUT), 30);
    EXPECT_EQ(faults.numbers.at(CURLOPT_LOW_SPEED_LIMIT), 1);
    EXPECT_EQ(faults.numbers.at(CURLOPT_LOW_SPEED_TIME), 60);
    EXPECT_EQ(faults.numbers.at(CURLOPT_TIMEOUT), 300);
    EXPECT_EQ(faults.numbers.at(CURLOPT_NOSIGNAL), 1);
    EXPECT_EQ(faults.numbers.at(CURLOPT_QUICK_EXIT), 1);
    EXPECT_EQ(faults.numbers.at(CURLOPT_MAXFILESIZE_LARGE), 4194304);
    EXPECT_STREQ(reinterpret_cast<const char*>(faults.numbers.at(CURLOPT_PROTOCOLS_STR)), "http");
    for (const CURLoption never : {CURLOPT_WRITEFUNCTION, CURLOPT_FOLLOWLOCATION, CURLOPT_USERAGENT}) {
        EXPECT_EQ(faults.numbers.count(never), 0U);
    }
}

TEST_F(XodHttp, ProxyOfTheEnvironmentIsNotUsed) {
    serve_good();
    ASSERT_EQ(setenv("http_proxy", "http://127.0.0.1:1", 1), 0);
    ASSERT_EQ(setenv("all_proxy", "http://127.0.0.1:1", 1), 0);
    EXPECT_EQ(download(), 0);
    unsetenv("http_proxy");
    unsetenv("all_proxy");
}

TEST_F(XodHttp, SettingsGoIntoTheAddressAsTheyStand) {
    serve_good();
    config(server->address(), " ");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_URL_MALFORMAT));
    EXPECT_TRUE(requests().empty());
    config(server->address(), string(127, 'v'));
    EXPECT_EQ(download(), 0);
    EXPECT_NE(requests().at(0).find("?vendor=" + string(127, 'v') + "&project=demo"), string::npos);
}

TEST_F(XodHttp, LockIsHeldFromOpeningToClosingAndGivenBackForTheCheck) {
    std::atomic<bool> locked = false;
    serve([&](int connection, const string&) {
        locked = is_locked();
        http_send(connection, answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    });
    faults.locked_at_md5 = true;
    EXPECT_EQ(download(), 0);
    EXPECT_TRUE(locked);
    EXPECT_EQ(faults.unlocked_openings, 0);
    EXPECT_EQ(faults.unlocked_closings, 0);
    EXPECT_FALSE(faults.locked_at_md5);
}

TEST_F(XodHttp, AddressThatCanNotBeFormattedFails) {
    serve_good();
    int failures = 0;
    for (int n = 0; n < 12; ++n) {
        format_fault_arm(n);
        download();
        format_fault_disarm();
        failures += log == "[LOCSERV] ERR: [XOD]xod_download_http get url fail\n" ? 1 : 0;
    }
    EXPECT_EQ(failures, 1);
}

TEST_F(XodHttp, MissingHandleOrLibraryFails) {
    serve_good();
    for (bool Faults::*fault : {&Faults::init_fails, &Faults::missing}) {
        faults = {};
        faults.*fault = true;
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http curl_easy_init fail, XOD_GR_3_1.DAT\n");
        EXPECT_FALSE(exists());
    }
}

TEST_F(XodHttp, OptionThatIsNotTakenIsToldAndTheTransferTried) {
    serve_good();
    const string fail = "[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt ";
    faults.failing = CURLOPT_URL;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, fail + "url fail\n" + failed(CURLE_URL_MALFORMAT));
    faults.failing = CURLOPT_HEADERDATA;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, fail + "headerfile fail\n" + kNoEtag);
    faults.failing = CURLOPT_WRITEDATA;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log.find(fail + "bodyfile fail\n"), 0U) << log;
    EXPECT_NE(log.find("MD5 check fail, ETag:" + kSum + ",MD5:d41d8cd98f00b204e9800998ecf8427e\n"),
              string::npos)
        << log;
}

TEST_F(XodHttp, WithoutItsLimitsNothingIsTransferred) {
    serve_good();
    for (const CURLoption option : {CURLOPT_NOSIGNAL, CURLOPT_PROTOCOLS_STR, CURLOPT_PROXY,
                                    CURLOPT_CONNECTTIMEOUT, CURLOPT_LOW_SPEED_LIMIT, CURLOPT_LOW_SPEED_TIME,
                                    CURLOPT_TIMEOUT, CURLOPT_MAXFILESIZE_LARGE, CURLOPT_QUICK_EXIT}) {
        faults.failing = option;
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http curl_easy_setopt limits fail\n");
    }
    EXPECT_TRUE(requests().empty());
    EXPECT_FALSE(exists());
}

TEST_F(XodHttp, HeaderIsWrittenToNoFifoAndThroughNoLink) {
    serve_good();
    expect_no_wait_for_fifo(dir.path / "tmp/head.out", [&] { EXPECT_EQ(download(), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fail, /tmp/head.out\n");
    fs::remove(dir.path / "tmp/head.out");
    fs::create_symlink(dir.write("victim", "whole"), dir.path / "tmp/head.out");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fail, /tmp/head.out\n");
    EXPECT_EQ(dir.read("victim"), "whole");
}

TEST_F(XodHttp, FileIsWrittenToNoFifoAndNoDevice) {
    serve_good();
    expect_no_wait_for_fifo(path(), [&] { EXPECT_EQ(download(), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http open fail, " + path() + "\n");
    fs::remove(path());
    fs::create_symlink("/dev/null", path());
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http open fail, " + path() + "\n");
    EXPECT_TRUE(requests().empty());
}

TEST_F(XodHttp, FileAndHeaderThatFailTogetherAreBothLogged) {
    serve_good();
    fs::create_directories(path());
    faults.failing_writer = 1;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fclose fail\n"
                   "[LOCSERV] ERR: [XOD]xod_download_http open fail, " +
                       path() + "\n");
}

TEST_F(XodHttp, FullDiskFailsTheTransfer) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", string(100000, 'a')));
    const FileSizeLimit limit(50000);
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_WRITE_ERROR));
}

TEST_F(XodHttp, FilesThatFailToCloseAreLoggedAndChecked) {
    serve_good();
    for (const int nth : {1, 2}) {
        faults.failing_writer = nth;
        EXPECT_EQ(download(), 0);
        EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]xod_download_http fclose fail\n" + good_log());
    }
}

TEST_F(XodHttp, ReadFilesThatFailToCloseCount) {
    serve_good();
    faults.failing_reader = "/head.out";
    EXPECT_EQ(download(), 0);
    EXPECT_EQ(log, kEtagLine + "[LOCSERV] ERR: [XOD]xod_download_get_etag, fclose fail\n" +
                       good_log().substr(kEtagLine.size()));
    faults.failing_reader = "/XOD_GR_3_1.DAT";
    EXPECT_EQ(download(), 0);
    EXPECT_NE(log.find("MD5 check\n[LOCSERV] ERR: [XOD]xod_download_md5_check fclose fail\n"), string::npos)
        << log;
}

TEST_F(XodHttp, FilesThatAreGoneAfterTheTransferFailTheCheck) {
    string gone = "tmp/head.out";
    serve([&](int connection, const string&) {
        fs::remove(dir.path / gone);
        http_send(connection, answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    });
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: [XOD]Open file fail, /tmp/head.out\n" + kNoEtag);
    gone = "xod/XOD_GR_3_1.DAT";
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kEtagLine + "[LOCSERV] INF: [XOD]MD5 check\n[LOCSERV] ERR: [XOD]Open file fail, " +
                       path() + "\n[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:" + kSum +
                       ",MD5:\n");
}

TEST_F(XodHttp, SumThatCanNotBeMadeFailsTheCheck) {
    serve_text(answer_with("ETag: \r\n", kBody));
    faults.md5_finish_fails = true;
    EXPECT_EQ(download(), -1) << "an empty sum is that of an empty ETag";
    faults.md5_finish_fails = false;
    serve_good();
    for (bool Faults::*fault :
         {&Faults::md5_start_fails, &Faults::md5_update_fails, &Faults::md5_finish_fails}) {
        faults.*fault = true;
        EXPECT_EQ(download(), -1);
        EXPECT_EQ(log, kEtagLine + md5_lines("") +
                           "[LOCSERV] ERR: [XOD]xod_download_http MD5 check fail, ETag:" + kSum + ",MD5:\n");
        faults.*fault = false;
    }
}

// With the setting to keep good files.
struct XodHttpKeep : XodHttp {
    XodHttpKeep() {
        keep = true;
        dir.write("xod/XOD_GR_3_1.DAT", "old");
    }
    // The old file is whole, and nothing lies beside it.
    void expect_old() const {
        EXPECT_EQ(content(), "old");
        EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
    }
    string replace_fail() const {
        return "[LOCSERV] ERR: [XOD]xod_download_http replace fail, " + path() + "\n";
    }
};

TEST_F(XodHttpKeep, GoodFileTakesThePlaceOfTheOld) {
    dir.write("xod/XOD_GR_3_1.DAT.new", "longer, left by a daemon that was killed");
    string during;
    bool locked = true;
    serve([&](int connection, const string&) {
        during = content();
        locked = is_locked();
        http_send(connection, answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    });
    EXPECT_EQ(download(), 0);
    server.reset(); // its thread has ended
    EXPECT_EQ(during, "old");
    EXPECT_FALSE(locked) << "a stalled server would hold up the readers";
    EXPECT_EQ(faults.unlocked_renames, 0);
    EXPECT_EQ(faults.calls, "fsync rename ") << "a loss of power could leave an empty file";
    EXPECT_EQ(content(), kBody);
    EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
}

TEST_F(XodHttpKeep, FailuresLeaveTheOldFile) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", "abd"));
    EXPECT_EQ(download(), -1);
    expect_old();
    serve_text(answer_with("", kBody));
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, kNoEtag);
    expect_old();
    serve_text("HTTP/1.1 200 OK\r\nETag: \"" + kSum + "\"\r\nContent-Length: 100\r\n\r\nhalf");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(log, failed(CURLE_PARTIAL_FILE));
    expect_old();
    server.reset(); // nobody listens now
    EXPECT_EQ(download(), -1);
    expect_old();
}

TEST_F(XodHttpKeep, FullDiskLeavesTheOldFile) {
    serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", string(100000, 'a')));
    const FileSizeLimit limit(50000);
    EXPECT_EQ(download(), -1);
    expect_old();
}

TEST_F(XodHttpKeep, FileThatDoesNotReachTheDiskOrThePlaceLeavesTheOld) {
    serve_good();
    faults.fsync_fails = true;
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(lines_of(log).back() + "\n", replace_fail());
    expect_old();
    faults.fsync_fails = false;
    fs::remove(path());
    fs::create_directories(path() + "/not empty");
    EXPECT_EQ(download(), -1);
    EXPECT_EQ(lines_of(log).back() + "\n", replace_fail());
    EXPECT_FALSE(exists("XOD_GR_3_1.DAT.new"));
}

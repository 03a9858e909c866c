// A server, a configuration and the directories of one download, and faults of everything below it.
#ifndef TAVOR_TESTS_XOD_HTTP_FIXTURE_H
#define TAVOR_TESTS_XOD_HTTP_FIXTURE_H

#include "assist/xod_curl.h"
#include "assist/xod_file.h"
#include "assist/xod_http.h"
#include "support/http_server.h"
#include "support/private_dir.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct XodHttpFaults {
    bool missing = false; // the whole library
    bool init_fails = false;
    CURLoption failing = CURLOPT_LASTENTRY;
    std::map<CURLoption, long> replaced;
    std::map<CURLoption, curl_off_t> numbers; // as they were set
    int alive = 0;                            // handles
    bool md5_start_fails = false;
    bool md5_update_fails = false;
    bool md5_finish_fails = false;
    bool locked_at_md5 = false;
    int unlocked_openings = 0; // of files to be written
    int unlocked_closings = 0;
    int unlocked_renames = 0;
    bool fsync_fails = false;
    std::string calls;          // of fsync and rename
    int failing_writer = 0;     // number of the next closing of a written file that fails, from 1
    std::string failing_reader; // end of the path of the read file whose closing fails
};

extern XodHttpFaults faults;

// Whether somebody holds the download lock.
bool is_locked();

inline const std::string kBody = "abc";
inline const std::string kSum = "900150983cd24fb0d6963f7d28e17f72"; // of the body
inline const std::string kEtagLine = "[LOCSERV] INF: [XOD]ETag:/tmp/head.out," + kSum + "\n";

inline const std::string kNoEtag =
    "[LOCSERV] ERR: [XOD]xod_download_http get etag fail, please check the http status code: "
    "/tmp/head.out\n";

// An answer of the server, with a line "ETag: ..." or none.
std::string answer_with(const std::string& etag_line, const std::string& body,
                        const std::string& status = "200 OK");

struct XodHttp : testing::Test {
    XodHttp();
    ~XodHttp() override;

    // Serve the next downloads, and write the configuration for that.
    void serve(const HttpServer::Answer& answer);
    void serve_text(const std::string& text) {
        serve([text](int connection, const std::string&) { http_send(connection, text); });
    }
    void serve_good() {
        serve_text(answer_with("ETag: \"" + kSum + "\"\r\n", kBody));
    }
    void config(const std::string& host, const std::string& vendor = "tavor") const;
    std::string files() const {
        return (dir.path / "xod").string();
    }
    std::string path(const std::string& name = "XOD_GR_3_1.DAT") const {
        return files() + "/" + name;
    }
    std::vector<std::string> requests() {
        const std::lock_guard<std::mutex> guard(lock);
        return seen;
    }
    // Downloads; the log then holds the lines of the assistance alone.
    int32_t download(uint32_t type = XOD_GPS_GLONASS, uint32_t index = 1);
    std::string md5_lines(const std::string& sum) const {
        return "[LOCSERV] INF: [XOD]MD5 check\n[LOCSERV] INF: [XOD]MD5:" + path() + "," + sum + "\n";
    }
    static std::string failed(int status) {
        return "[LOCSERV] ERR: [XOD]xod_download_http download fail, XOD_GR_3_1.DAT, status: " +
               std::to_string(status) + "\n";
    }
    std::string good_log() const {
        return kEtagLine + md5_lines(kSum) +
               "[LOCSERV] INF: [XOD]xod_download_http MD5 check success, XOD_GR_3_1.DAT\n";
    }
    std::string content(const std::string& name = "XOD_GR_3_1.DAT") const {
        return dir.read("xod/" + name);
    }
    bool exists(const std::string& name = "XOD_GR_3_1.DAT") const {
        return std::filesystem::exists(dir.path / "xod" / name);
    }

    PrivateDir dir;
    bool keep = false; // the setting
    std::mutex lock;
    std::vector<std::string> seen; // requests
    std::string log;
    std::unique_ptr<HttpServer> server; // the last: its thread uses the others
};

#endif

// What a download makes of a server's answers and of a library that fails.
#include "xod_http_fixture.h"

#include "support/capture.h"
#include "support/format_fault.h"

#include <atomic>
#include <cstdlib>
#include <zlib.h>

namespace {

using std::string;
namespace fs = std::filesystem;

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

} // namespace

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
    serve_text(
        answer_with("ETag: \"" + kSum + "\"\r\n", kBody, "500 Internal Server Error")); // not looked at
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
    EXPECT_STREQ(
        reinterpret_cast<const char*>(static_cast<intptr_t>(faults.numbers.at(CURLOPT_PROTOCOLS_STR))),
        "http");
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
    for (bool XodHttpFaults::*fault : {&XodHttpFaults::init_fails, &XodHttpFaults::missing}) {
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

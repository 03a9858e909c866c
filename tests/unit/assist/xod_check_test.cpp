#include "assist/xod_check.h"

#include "support/capture.h"
#include "support/fifo.h"
#include "support/private_dir.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

const std::string kSum = "0123456789abcdef0123456789abcdef";

struct Found {
    bool found;
    std::string value;
    std::string rest; // bytes after the value, up to the end of its room
};

Found read(const std::string& header) {
    std::string copy = header;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fmemopen(copy.data(), copy.size(), "r"), std::fclose);
    char out[kXodDigestSize + 1];
    memset(out, '#', sizeof out);
    const bool found = xod_etag_read(file.get(), out);
    EXPECT_EQ(out[kXodDigestSize], '#') << "wrote behind the value";
    out[kXodDigestSize] = '\0';
    return {found, out, std::string(out + strlen(out), out + kXodDigestSize)};
}

} // namespace

TEST(XodEtag, IsTheThirtyTwoCharactersBehindTheQuotationMark) {
    const Found etag = read("HTTP/1.1 200 OK\r\nETag: \"" + kSum + "\"\r\nContent-Length: 1\r\n\r\n");
    EXPECT_TRUE(etag.found);
    EXPECT_EQ(etag.value, kSum);
}

TEST(XodEtag, ValueIsWhatTheLineHasInItsPieceOf127Characters) {
    const std::vector<std::pair<std::string, std::string>> known = {
        {"ETag: \"" + kSum + "\"\r\nETag: \"fedc\"\r\n", kSum}, // the first one
        {"X-Old-ETag: \"" + kSum + "0123\"\r\n", kSum},
        {"ETag: W/\"" + kSum + "\"\r\n", "/\"" + kSum.substr(0, 30)},
        {"ETag: \"0123456789ABCDEF0123456789ABCDEF\"\r\n", "0123456789ABCDEF0123456789ABCDEF"},
        {"ETag: \"" + kSum.substr(0, 31), kSum.substr(0, 31)},
        {std::string(127, 'x') + "ETag: \"" + kSum + "\"\r\n", kSum},
        {std::string(90, 'x') + "ETag: \"" + kSum + "\"\r\n", kSum.substr(0, 30)},
        {std::string("ETag: \"a\0bc\"\r\n", 14), "a"}};
    for (const auto& [header, value] : known) {
        EXPECT_EQ(read(header).value, value) << header;
    }
}

TEST(XodEtag, OtherLinesAreNone) {
    for (const std::string& header :
         {"etag: \"" + kSum, "ETAG: \"" + kSum, "ETag:\"" + kSum, std::string("X\0ETag: \"abc\"\r\n", 15),
          std::string(124, 'x') + "ETag: \"" + kSum, std::string("\r\n")}) {
        const Found none = read(header);
        EXPECT_FALSE(none.found) << header;
        EXPECT_EQ(none.value, std::string(kXodDigestSize, '#')) << "writes a value";
    }
}

TEST(XodEtag, ShortLineGivesWhatItHasAndZeros) {
    const Found shorter = read("ETag: \"abc\"\r\n");
    EXPECT_TRUE(shorter.found);
    EXPECT_EQ(shorter.value, "abc\"");
    EXPECT_EQ(shorter.rest, std::string(29, '\0'));
    EXPECT_EQ(read("ETag: \"" + kSum.substr(0, 31)).value, kSum.substr(0, 31));
}

TEST(XodEtag, LineWithoutAValueIsEmpty) {
    for (const char* header : {"ETag: ", "ETag: \"", "ETag: \r\n", "ETag: \"\r\nnext line, no value\r\n"}) {
        const Found etag = read(header);
        EXPECT_TRUE(etag.found) << header;
        EXPECT_EQ(etag.rest, std::string(33, '\0')) << header;
    }
}

TEST(XodSum, IsThatOfTheKnownTexts) {
    const PrivateDir dir;
    const std::vector<std::pair<std::string, std::string>> known = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"}};
    for (const auto& [text, sum] : known) {
        const std::string file = dir.write("text", text);
        char out[kXodDigestSize] = {};
        EXPECT_EQ(capture_stdout([&] { xod_download_md5_check(file.c_str(), out); }),
                  "[LOCSERV] INF: [XOD]MD5 check\n[LOCSERV] INF: [XOD]MD5:" + file + "," + sum + "\n");
        EXPECT_EQ(out, sum);
    }
}

TEST(XodSum, IsNoneOfAFifoOrADirectory) {
    const PrivateDir dir;
    const std::string fifo = dir.path / "fifo";
    char out[kXodDigestSize] = {};
    capture_stdout([&] {
        expect_no_wait_for_fifo(fifo, [&] { xod_download_md5_check(fifo.c_str(), out); });
        expect_no_wait_for_fifo(fifo, [&] { EXPECT_EQ(xod_download_get_etag(fifo.c_str(), out), -1); });
        xod_download_md5_check(dir.path.c_str(), out);
    });
    EXPECT_STREQ(out, "");
}

#include "assist/xod_file.h"

#include "assist/xod_hours.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "support/capture.h"
#include "support/close_fault.h"
#include "support/fifo.h"
#include "support/private_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace {

using std::string;

struct World {
    bool clock_set = false;
    time_t now = 0;
    bool seek_fails = false;
} world;

constexpr time_t kNow = 1732186800;                            // 2024-11-21 11:00 UTC
constexpr uint32_t kNowHour = (1732186800 - 315964800) / 3600; // since the start of GPS time
const string kNowLine = "[LOCSERV] INF: [XOD]2024-11-21-11\n";
constexpr uint32_t kUntouched = 99;

string word(uint32_t value) {
    string bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}

string headed(uint32_t first_word) {
    return word(0xABCDEF) + string(68, 'h') + word(first_word);
}

struct XodFile : testing::Test {
    XodFile() {
        world = {};
        world.clock_set = true;
        world.now = kNow;
        interpose_set_root(dir.path);
        config(files());
    }
    ~XodFile() override {
        interpose_fail_reset();
        interpose_set_root("");
        world = {};
    }
    string files() const {
        return dir.path / "xod";
    }
    void config(const string& path) const {
        dir.write("/etc/default/tavor/tavor.conf", "XOD file path=" + path + "\n");
    }
    void file(const string& name, const string& content) const {
        dir.write("xod/" + name, content);
    }
    // Reads the valid hours; the log then holds the lines of the assistance alone.
    int32_t valid(uint32_t type, uint32_t count = 1) {
        int32_t result = kUntouched;
        end = kUntouched;
        collect([&] { result = xod_download_get_3d_valid_hours(type, count, &end); });
        return result;
    }
    string path(uint32_t type, uint32_t index) {
        char dst[kXodPathSize + 1];
        memset(dst, '#', sizeof dst);
        collect([&] { xod_download_file_path(type, index, dst); });
        EXPECT_EQ(dst[kXodPathSize], '#');
        return dst;
    }
    void collect(const std::function<void()>& body) {
        log.clear();
        for (const string& line : lines_of(capture_stdout(body))) {
            log += line.find("[CFG]") == string::npos ? line + "\n" : "";
        }
    }

    PrivateDir dir;
    string log;
    uint32_t end = 0;
};

} // namespace

extern "C" {

time_t __real_time(time_t* out);
time_t __wrap_time(time_t* out) {
    return world.clock_set ? world.now : __real_time(out);
}

int __real_fseek(FILE* file, long offset, int origin);
int __wrap_fseek(FILE* file, long offset, int origin) {
    return world.seek_fails ? -1 : __real_fseek(file, offset, origin);
}
}

TEST_F(XodFile, PathIsDirectoryAndName) {
    EXPECT_EQ(path(XOD_GPS_GLONASS, 1), files() + "/XOD_GR_3_1.DAT");
    EXPECT_EQ(path(XOD_BEIDOU, 0), files() + "/XOD_BDS_3.DAT");
    EXPECT_EQ(log, "");
}

TEST_F(XodFile, LongPathIsCutAt127CharactersAndSaidSo) {
    const string directory = "/" + string(112, 'd');
    config(directory);
    EXPECT_EQ(path(XOD_GALILEO, 0), directory + "/XOD_GAL_3.DAT"); // 127 characters
    EXPECT_EQ(log, "");
    config(directory + "d");
    EXPECT_EQ(path(XOD_GALILEO, 0), directory + "d/XOD_GAL_3.DA");
    EXPECT_EQ(log, "[LOCSERV] WRN: [XOD]file path cut, " + directory + "d/XOD_GAL_3.DA\n");
    config("/" + string(126, 'd'));
    EXPECT_EQ(path(XOD_GALILEO, 0), "/" + string(126, 'd'));
}

TEST_F(XodFile, MissingFilesAndOtherTypesHaveNoHours) {
    file("ZGPS.DAT", word(kNowHour));
    EXPECT_EQ(valid(5), 0);
    for (const uint32_t type : {0U, 1U, 2U, 3U, 99U}) {
        EXPECT_EQ(valid(type), 0);
        EXPECT_EQ(end, 0U);
        EXPECT_EQ(log, kNowLine);
    }
}

TEST_F(XodFile, HourStandsAtTheStartOfANumberedFileAndBehindTheHeaderOfAnother) {
    const struct {
        uint32_t type;
        const char* name;
        string content;
        uint32_t left;
    } rows[] = {{XOD_GPS_GLONASS, "XOD_GR_3_1.DAT", word(0x07000000 | (kNowHour - 12)), 60},
                {XOD_GPS, "XOD_GPS_3_1.DAT", word(kNowHour - 71), 1},
                {XOD_BEIDOU, "XOD_BDS_3.DAT", headed(0xC9000000 | (kNowHour - 2)), 70},
                {XOD_GALILEO, "XOD_GAL_3.DAT", headed(kNowHour - 72), 0}};
    for (const auto& row : rows) {
        file(row.name, row.content);
        EXPECT_EQ(valid(row.type), static_cast<int32_t>(row.left)) << row.name;
        EXPECT_EQ(end, row.left == 0 ? 0 : kNowHour + row.left) << row.name;
        EXPECT_EQ(log, kNowLine);
    }
}

TEST_F(XodFile, HoursAreThoseOfUtcWhateverTheTimeZone) {
    file("XOD_GR_3_1.DAT", word(kNowHour));
    setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1); // New York's, without its file
    tzset();
    EXPECT_EQ(valid(XOD_GPS_GLONASS), 72);
    EXPECT_EQ(log, kNowLine);
    unsetenv("TZ");
    tzset();
}

TEST_F(XodFile, FifoInPlaceOfAFileIsNone) {
    expect_no_wait_for_fifo(dir.write("xod/XOD_GR_3_1.DAT", ""), [&] { EXPECT_EQ(valid(0), 0); });
    expect_no_wait_for_fifo(dir.write("xod/XOD_GAL_3.DAT", ""), [&] { EXPECT_EQ(valid(3), 0); });
    EXPECT_EQ(log, kNowLine);
}

TEST_F(XodFile, LatestNumberedFileCounts) {
    file("XOD_GR_3_1.DAT", word(kNowHour - 30));
    file("XOD_GR_3_3.DAT", word(kNowHour - 10)); // the second is missing
    file("XOD_GR_3_4.DAT", word(kNowHour - 20));
    EXPECT_EQ(valid(XOD_GPS_GLONASS, 2), 42);
    EXPECT_EQ(valid(XOD_GPS_GLONASS, 3), 62);
    EXPECT_EQ(valid(XOD_GPS_GLONASS, 4), 62);
    EXPECT_EQ(valid(XOD_GPS_GLONASS, 0), 0);
}

TEST_F(XodFile, ShortReadIsHourZero) {
    const struct {
        uint32_t type;
        const char* name;
        string content;
        string mark;
    } rows[] = {{XOD_GPS_GLONASS, "XOD_GR_3_1.DAT", "", "[XOD]"},
                {XOD_GPS_GLONASS, "XOD_GR_3_1.DAT", "\xFF\xFF\xFF", "[XOD]"},
                {XOD_GALILEO, "XOD_GAL_3.DAT", "", ""},
                {XOD_GALILEO, "XOD_GAL_3.DAT", string(72, 'x'), ""},
                {XOD_GALILEO, "XOD_GAL_3.DAT", string(75, '\xFF'), ""}};
    for (const auto& row : rows) {
        file(row.name, row.content);
        EXPECT_EQ(valid(row.type), 0);
        EXPECT_EQ(log,
                  kNowLine + "[LOCSERV] ERR: " + row.mark + "xod_download_get_3d_valid_hours, fread fail\n");
    }
}

TEST_F(XodFile, FailedSeekReadsTheHeadersOwnWord) {
    file("XOD_BDS_3.DAT", word(kNowHour - 5) + string(68, 'h') + word(kNowHour));
    world.seek_fails = true;
    EXPECT_EQ(valid(XOD_BEIDOU), 67);
    EXPECT_EQ(log, kNowLine + "[LOCSERV] ERR: xod_download_get_3d_valid_hours, fseek fail\n");
}

TEST_F(XodFile, FailedCloseIsLoggedAndTheHourCounts) {
    file("XOD_GR_3_1.DAT", word(kNowHour));
    file("XOD_GAL_3.DAT", headed(kNowHour));
    for (const uint32_t type : {0U, 3U}) {
        close_fault_arm(".DAT");
        EXPECT_EQ(valid(type), 72);
        EXPECT_EQ(log, kNowLine + "[LOCSERV] ERR: [XOD]xod_download_get_3d_valid_hours fclose fail\n");
    }
}

TEST_F(XodFile, ClockThatFailsOrTellsNoDateLeavesTheEndUntouched) {
    file("XOD_GR_3_1.DAT", word(kNowHour));
    for (const auto& [now, failed] :
         {std::pair(time_t{-1}, "time"), {std::numeric_limits<time_t>::max(), "gmtime"}}) {
        world.now = now;
        EXPECT_EQ(valid(XOD_GPS_GLONASS), 0);
        EXPECT_EQ(end, kUntouched);
        EXPECT_EQ(log, string("[LOCSERV] ERR: xod_download_get_3d_valid_hours ") + failed + " error\n");
    }
}

TEST_F(XodFile, MutexThatCanNotBeMadeIsLogged) {
    EXPECT_EQ(capture_stdout([] { xod_mutex_init(); }), "");
    interpose_fail("pthread_mutex_init", 1, ENOMEM);
    EXPECT_EQ(capture_stdout([] { xod_mutex_init(); }),
              "[LOCSERV] ERR: [XOD]xod_mutex_init, mutex init fail\n");
    xod_download_lock();
    xod_download_unlock();
}

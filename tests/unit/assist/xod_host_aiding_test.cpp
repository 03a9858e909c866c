#include "assist/xod_host_aiding.h"

#include "assist/xod_file.h"
#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "link/location_command.h"
#include "support/capture.h"
#include "support/close_fault.h"
#include "support/fifo.h"
#include "support/private_dir.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using std::string;

struct World {
    std::vector<string> commands;
    std::vector<useconds_t> pauses;
    int failing_seek = 0; // number of the next seek that fails, from 1
    bool watch_lock = false;
    size_t stop_at = 0; // a stop is announced with this command
    bool stop_at_seek = false;
    bool sent_without_lock = false;
} world;

constexpr uint32_t kWeek = 2391;
constexpr uint32_t kStart = kWeek * 168 + 48; // GPS hour at which the files start

struct Record {
    uint32_t words[18];
};

// A record whose every word tells where it stands.
Record record(uint32_t satellite, uint32_t hour, uint32_t segment, uint32_t number) {
    Record made = {};
    made.words[0] = satellite << 24 | hour;
    for (uint32_t i = 1; i < 18; ++i) {
        made.words[i] = 0xA0000000 | segment << 16 | number << 8 | i;
    }
    made.words[17] = 0; // without leading zeros this is "0"
    return made;
}

string bytes_of(const Record& record) {
    string bytes;
    for (const uint32_t value : record.words) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>(value >> shift);
        }
    }
    return bytes;
}

string command(uint32_t constellation, uint32_t satellite, const Record& record) {
    char number[16];
    string text = "471";
    const auto add = [&](uint32_t value) {
        snprintf(number, sizeof number, ",%X", value);
        text += number;
    };
    add(constellation);
    add(satellite);
    for (const uint32_t value : record.words) {
        add(value);
    }
    return text;
}

Record gps(uint32_t segment, uint32_t i, uint32_t start = kStart) {
    return record(i + 1, start + segment * 6, segment, i);
}
Record glonass(uint32_t segment, uint32_t i, uint32_t start = kStart) {
    return record(65 + i, start + segment * 6, segment, 100 + i);
}

string numbered_file(bool with_glonass, uint32_t start) {
    string bytes;
    for (uint32_t segment = 0; segment < 12; ++segment) {
        for (uint32_t i = 0; i < 32; ++i) {
            bytes += bytes_of(gps(segment, i, start));
        }
        for (uint32_t i = 0; with_glonass && i < 24; ++i) {
            bytes += bytes_of(glonass(segment, i, start));
        }
    }
    return bytes;
}
string mixed_file(uint32_t start = kStart) {
    return numbered_file(true, start);
}
string gps_file(uint32_t start = kStart) {
    return numbered_file(false, start);
}

Record header(uint32_t satellite, uint32_t first_mask, uint32_t second_mask) {
    Record made = record(satellite, 0, 0xEE, 0);
    made.words[1] = first_mask;
    made.words[4] = second_mask;
    return made;
}

Record headed(uint32_t first_satellite, uint32_t segment, uint32_t i) {
    return record(first_satellite + i, kStart + segment * 6, segment, i);
}

string headed_file(const Record& head, uint32_t first_satellite, uint32_t count) {
    string bytes = bytes_of(head);
    for (uint32_t segment = 0; segment < 12; ++segment) {
        for (uint32_t i = 0; i < count; ++i) {
            bytes += bytes_of(headed(first_satellite, segment, i));
        }
    }
    return bytes;
}

std::vector<string> gps_commands(uint32_t segment, uint32_t start = kStart) {
    std::vector<string> commands;
    for (uint32_t i = 0; i < 32; ++i) {
        commands.push_back(command(0, i + 1, gps(segment, i, start)));
    }
    return commands;
}

std::vector<string> glonass_commands(uint32_t segment) {
    std::vector<string> commands;
    for (uint32_t i = 0; i < 24; ++i) {
        commands.push_back(command(1, i + 1, glonass(segment, i)));
    }
    return commands;
}

string finish(int constellation) {
    return "[LOCSERV] INF: [XOD] host aiding xod finish:" + std::to_string(constellation) + "\n";
}
string without_file(int constellation) {
    return "[LOCSERV] ERR: [XOD] xod_host_aiding_xod: " + std::to_string(constellation) +
           ", without XOD file\n";
}
string invalid(int constellation) {
    return "[LOCSERV] ERR: [XOD] xod_host_aiding_xod: " + std::to_string(constellation) + ", invalid xod\n";
}
const string kReadFail = "[LOCSERV] ERR: xod_host_aiding_xod, fread fail\n";
const string kSendReadFail = "[LOCSERV] ERR: [XOD] xod_host_aiding_send_data, read fail\n";
const string kSeekFail = "[LOCSERV] ERR: [XOD] xod_host_aiding_xod, seek fail\n";
const string kCloseFail = "[LOCSERV] ERR: [XOD] xod_host_aiding_xod, close file_handle fail\n";

struct XodHostAiding : testing::Test {
    XodHostAiding() {
        world = {};
        interpose_set_root(dir.path);
        dir.write("/etc/default/tavor/tavor.conf", "XOD file path=" + string(dir.path / "xod") + "\n");
    }
    ~XodHostAiding() override {
        interpose_fail_reset();
        close_fault_disarm();
        interpose_set_root("");
        world = {};
    }
    void file(const string& name, const string& content) const {
        dir.write("xod/" + name, content);
    }
    // Asks this many hours after the files' start; the log then holds the lines of the assistance alone.
    int32_t aid(int constellation, int32_t hours) {
        const int32_t hour = static_cast<int32_t>(kStart) + hours;
        return aid_at(constellation, static_cast<uint32_t>(hour / 168), hour % 168 * 3600 + 1800);
    }
    int32_t aid_at(int constellation, uint32_t week, int32_t tow) {
        world.commands.clear();
        world.pauses.clear();
        int32_t result = 99;
        const string all =
            capture_stdout([&] { result = xod_host_aiding(static_cast<int8_t>(constellation), week, tow); });
        log.clear();
        for (const string& line : lines_of(all)) {
            log += line.find("[CFG]") == string::npos ? line + "\n" : "";
        }
        xod_download_lock(); // a request that keeps the lock would hang here
        xod_download_unlock();
        return result;
    }

    PrivateDir dir;
    string log;
};

} // namespace

int32_t location_command_send(const char* body) {
    world.commands.emplace_back(body);
    if (world.commands.size() == world.stop_at) {
        stop_request_announce();
    }
    if (world.watch_lock) {
        stop_request_announce(); // the lock gives way at once
        world.sent_without_lock = xod_download_lock_unless_stopped() || world.sent_without_lock;
        stop_request_withdraw();
    }
    return -1; // of no consequence
}

extern "C" {

int __wrap_usleep(useconds_t us) {
    world.pauses.push_back(us);
    return 0;
}

int __real_fseeko(FILE* file, off_t offset, int origin);
int __wrap_fseeko(FILE* file, off_t offset, int origin) {
    if (world.stop_at_seek && !stop_request_pending()) {
        stop_request_announce();
    }
    if (world.failing_seek > 0 && --world.failing_seek == 0) {
        return -1;
    }
    return __real_fseeko(file, offset, origin);
}
}

TEST_F(XodHostAiding, GpsSends32RecordsOfTheSegmentAndGlonassThe24BehindThem) {
    file("XOD_GR_3_1.DAT", mixed_file());
    for (const uint32_t segment : {0, 1, 7, 11}) {
        EXPECT_EQ(aid(0, static_cast<int32_t>(segment) * 6 + 5), 1);
        EXPECT_EQ(log, finish(0));
        EXPECT_EQ(world.commands, gps_commands(segment));
        EXPECT_EQ(aid(1, static_cast<int32_t>(segment) * 6), 1);
        EXPECT_EQ(log, finish(1));
        EXPECT_EQ(world.commands, glonass_commands(segment));
    }
}

TEST_F(XodHostAiding, LockIsHeldWhileRecordsAreSent) {
    file("XOD_GR_3_1.DAT", mixed_file());
    world.watch_lock = true;
    aid(1, 0);
    EXPECT_EQ(world.commands.size(), 24U);
    EXPECT_EQ(world.pauses, std::vector<useconds_t>(24, 10000));
    EXPECT_FALSE(world.sent_without_lock);
}

TEST_F(XodHostAiding, GpsTakesTheGpsFileWhenTheOtherIsMissing) {
    file("XOD_GPS_3_1.DAT", gps_file());
    for (const int32_t segment : {0, 11}) {
        EXPECT_EQ(aid(0, segment * 6 + 1), 1);
        EXPECT_EQ(world.commands, gps_commands(static_cast<uint32_t>(segment)));
    }
    EXPECT_EQ(aid(1, 0), 0);
    EXPECT_EQ(log, without_file(1));
}

TEST_F(XodHostAiding, MissingFilesAreLogged) {
    for (const int constellation : {0, 1, 2, 3}) {
        EXPECT_EQ(aid(constellation, 0), 0);
        EXPECT_EQ(log, without_file(constellation));
    }
    EXPECT_TRUE(world.commands.empty());
    expect_no_wait_for_fifo(dir.write("xod/XOD_GAL_3.DAT", ""), [&] { EXPECT_EQ(aid(2, 0), 0); });
    EXPECT_EQ(log, without_file(2)) << "a FIFO in the place of a file is none";
}

TEST_F(XodHostAiding, HoursBehindTheFirstFileAreInTheSecond) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GR_3_2.DAT", mixed_file(kStart + 72));
    EXPECT_EQ(aid(0, 72), 1);
    EXPECT_EQ(world.commands, gps_commands(0, kStart + 72));
    EXPECT_EQ(aid(0, 143), 1);
    EXPECT_EQ(world.commands, gps_commands(11, kStart + 72));
    EXPECT_EQ(aid(1, 72), 1);
    EXPECT_EQ(world.commands.size(), 24U);
    file("XOD_GPS_3_3.DAT", gps_file(kStart + 144)); // never looked at
    for (const int constellation : {0, 1}) {
        EXPECT_EQ(aid(constellation, 144), 0); // in the third
        EXPECT_EQ(log, without_file(constellation));
    }
}

TEST_F(XodHostAiding, SecondFileThatDoesNotFitIsInvalid) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GR_3_2.DAT", mixed_file(kStart));
    for (const int constellation : {0, 1}) {
        EXPECT_EQ(aid(constellation, 72), 0);
        EXPECT_EQ(log, invalid(constellation));
    }
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(XodHostAiding, SecondFileFoundAtTheSecondTryIsReadAsAGpsFile) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GR_3_2.DAT", mixed_file(kStart + 72));
    std::vector<string> expected; // the bytes at 2304: GLONASS of segment 0, then GPS of segment 1
    for (uint32_t i = 0; i < 24; ++i) {
        expected.push_back(command(0, 65 + i, glonass(0, i, kStart + 72)));
    }
    for (uint32_t i = 0; i < 8; ++i) {
        expected.push_back(command(0, i + 1, gps(1, i, kStart + 72)));
    }
    int found = 0;
    for (int opening = 1; opening < 8; ++opening) {
        interpose_fail("open", opening, EMFILE);
        aid(0, 78);
        if (world.commands != expected) {
            continue;
        }
        ++found; // this was the opening of the second file
        interpose_fail("open", opening, EMFILE);
        EXPECT_EQ(aid(1, 78), 0); // GLONASS does not try again
        EXPECT_EQ(log, without_file(1));
    }
    EXPECT_EQ(found, 1);
}

TEST_F(XodHostAiding, SecondFileBehindAGpsFileIsReadByItsOwnLayout) {
    file("XOD_GPS_3_1.DAT", gps_file());
    file("XOD_GR_3_2.DAT", mixed_file(kStart + 72));
    EXPECT_EQ(aid(0, 78), 1);
    EXPECT_EQ(world.commands, gps_commands(1, kStart + 72));
}

TEST_F(XodHostAiding, HoursBeforeTheFirstSegmentAreCutTowardsIt) {
    file("XOD_GR_3_1.DAT", mixed_file());
    for (const int32_t hours : {-1, -5}) {
        EXPECT_EQ(aid(0, hours), 1);
        EXPECT_EQ(world.commands, gps_commands(0));
    }
    for (const int32_t hours : {-6, -71}) {
        EXPECT_EQ(aid(1, hours), 0);
        EXPECT_EQ(log, invalid(1)); // the first file again
    }
    for (const int32_t hours : {-72, -143, -144, -1000}) {
        EXPECT_EQ(aid(0, hours), 0);
        EXPECT_EQ(log, without_file(0));
    }
}

TEST_F(XodHostAiding, EmptyFileIsHourZero) {
    file("XOD_GR_3_1.DAT", "");
    EXPECT_EQ(aid(0, 0), 0);
    EXPECT_EQ(log, kReadFail + without_file(0)); // of a file with a number in the thousands
    EXPECT_EQ(aid_at(0, 0, 5 * 3600), 1);        // hour 5 lies in the segment of hour zero
    EXPECT_EQ(log, kReadFail + kSendReadFail + finish(0));
}

TEST_F(XodHostAiding, TruncatedFileStopsTheSendingAndStillCounts) {
    file("XOD_GR_3_1.DAT", mixed_file().substr(0, 4032 + 5 * 72 + 71));
    EXPECT_EQ(aid(0, 6), 1);
    EXPECT_EQ(log, kSendReadFail + finish(0));
    EXPECT_EQ(world.commands.size(), 5U); // half a record is none
    EXPECT_EQ(aid(0, 12), 1);             // wholly after the end
    EXPECT_EQ(log, kSendReadFail + finish(0));
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(XodHostAiding, FailedSeekEndsTheRequest) {
    file("XOD_GR_3_1.DAT", mixed_file());
    for (const int constellation : {0, 1}) {
        world.failing_seek = 1;
        EXPECT_EQ(aid(constellation, 0), 0);
        EXPECT_EQ(log, kSeekFail);
    }
    world.failing_seek = 1;
    close_fault_arm(".DAT");
    EXPECT_EQ(aid(0, 0), 0);
    EXPECT_EQ(log, kCloseFail + kSeekFail);
}

TEST_F(XodHostAiding, FailedCloseIsLogged) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GR_3_2.DAT", mixed_file());
    close_fault_arm(".DAT");
    EXPECT_EQ(aid(0, 0), 1);
    EXPECT_EQ(log, kCloseFail + finish(0));
    close_fault_arm(".DAT");
    EXPECT_EQ(aid(0, 72), 0);
    EXPECT_EQ(log, kCloseFail + invalid(0));
    close_fault_arm(".DAT", 2);
    EXPECT_EQ(aid(0, 72), 0);
    EXPECT_EQ(log, kCloseFail + invalid(0));
}

// Each with its own file and numbers.
TEST_F(XodHostAiding, GalileoAndBeidouSendTheHeaderAndARecordForEachSatellite) {
    const Record galileo = header(254, 15, 3);
    const Record beidou = header(255, 0x80000001, 0x100);
    file("XOD_GAL_3.DAT", headed_file(galileo, 101, 6));
    file("XOD_BDS_3.DAT", headed_file(beidou, 201, 3));
    for (const uint32_t segment : {0U, 1U, 11U}) {
        for (const uint32_t constellation : {2U, 3U}) {
            const bool is_galileo = constellation == 2;
            EXPECT_EQ(aid(static_cast<int>(constellation), static_cast<int32_t>(segment * 6 + 5)), 1);
            EXPECT_EQ(log, finish(static_cast<int>(constellation)));
            std::vector<string> expected = {
                command(constellation, is_galileo ? 254 : 255, is_galileo ? galileo : beidou)};
            for (uint32_t i = 0; i < (is_galileo ? 6 : 3); ++i) {
                expected.push_back(command(constellation, 1 + i, headed(is_galileo ? 101 : 201, segment, i)));
            }
            EXPECT_EQ(world.commands, expected);
        }
    }
}

TEST_F(XodHostAiding, HeadedFileOutsideItsHoursIsInvalid) {
    file("XOD_GAL_3.DAT", headed_file(header(254, 1, 0), 101, 1));
    for (const int32_t hours : {-6, 72, 1000, -1000}) {
        EXPECT_EQ(aid(2, hours), 0);
        EXPECT_EQ(log, invalid(2));
    }
    EXPECT_EQ(aid(2, -5), 1);
    close_fault_arm(".DAT");
    EXPECT_EQ(aid(2, 72), 0);
    EXPECT_EQ(log, invalid(2) + kCloseFail);
}

TEST_F(XodHostAiding, EmptyHeadedFileIsInvalid) {
    file("XOD_BDS_3.DAT", "");
    EXPECT_EQ(aid(3, 0), 0);
    EXPECT_EQ(log, kReadFail + kReadFail + invalid(3));
    file("XOD_BDS_3.DAT", bytes_of(header(255, 1, 0)));
    EXPECT_EQ(aid(3, 0), 0);
    EXPECT_EQ(log, kReadFail + invalid(3));
}

TEST_F(XodHostAiding, MostSatellitesThatMasksCanNameAreBounded) {
    const Record head = header(254, 0xFFFFFFFF, 0xFFFFFFFF);
    file("XOD_GAL_3.DAT", headed_file(head, 101, 2)); // far fewer records
    EXPECT_EQ(aid(2, 71), 1);
    EXPECT_EQ(log, kSendReadFail + finish(2));
    EXPECT_EQ(world.commands.size(), 1U);
    EXPECT_EQ(aid(2, 0), 1);
    EXPECT_EQ(world.commands.size(), 25U); // all that the file holds
}

TEST_F(XodHostAiding, FailedSeekToTheSegmentOfAHeadedFileEndsTheRequest) {
    file("XOD_GAL_3.DAT", headed_file(header(254, 1, 0), 101, 1));
    world.failing_seek = 1; // to the header: goes on
    EXPECT_EQ(aid(2, 6), 1);
    EXPECT_EQ(log, kSeekFail + finish(2));
    EXPECT_EQ(world.commands.size(), 2U);
    world.failing_seek = 2;
    close_fault_arm(".DAT");
    EXPECT_EQ(aid(2, 6), 0);
    EXPECT_EQ(log, kCloseFail + kSeekFail);
    EXPECT_EQ(world.commands.size(), 1U);
}

TEST_F(XodHostAiding, OtherConstellationsAreWrong) {
    for (const int constellation : {4, 127, -1, -128}) {
        EXPECT_EQ(aid(constellation, 0), 0);
        EXPECT_EQ(log, "[LOCSERV] ERR: [XOD] xod_host_aiding_xod, type wrong:" +
                           std::to_string(constellation) + "\n");
    }
}

TEST_F(XodHostAiding, NegativeTimeOfWeekIsInTheWeekBefore) {
    file("XOD_GR_3_1.DAT", mixed_file());
    EXPECT_EQ(aid_at(0, kWeek + 1, (48 + 6 - 168) * 3600), 1);
    EXPECT_EQ(world.commands, gps_commands(1));
}

TEST_F(XodHostAiding, HostileTimesEndWithALine) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GAL_3.DAT", headed_file(header(254, 1, 0), 101, 1));
    constexpr int32_t kLowest = std::numeric_limits<int32_t>::min();
    constexpr int32_t kHighest = std::numeric_limits<int32_t>::max();
    for (const uint32_t week : {0U, 0x7FFFFFFFU, 0xFFFFFFFFU, 12782640U, 25565281U}) {
        for (const int32_t tow : {kLowest, -1, 0, kHighest}) {
            EXPECT_EQ(aid_at(0, week, tow), 0);
            EXPECT_EQ(log, without_file(0));
            EXPECT_EQ(aid_at(2, week, tow), 0);
            EXPECT_EQ(log, invalid(2));
        }
    }
}

TEST_F(XodHostAiding, WaitingRequestGivesWayToAStop) {
    file("XOD_GR_3_1.DAT", mixed_file());
    string printed;
    xod_download_lock();
    std::thread service(
        [&] { printed = capture_stdout([] { EXPECT_EQ(xod_host_aiding(0, kWeek, 48 * 3600), 0); }); });
    stop_request_announce();
    service.join();
    stop_request_withdraw();
    xod_download_unlock();
    EXPECT_EQ(printed, "[LOCSERV] WRN: [XOD] host aiding gives way to a stop\n");
    EXPECT_TRUE(world.commands.empty());
}

TEST_F(XodHostAiding, StopEndsASegmentThatIsBeingSentAndItIsNotSent) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GAL_3.DAT", headed_file(header(254, 15, 3), 101, 6));
    for (const int constellation : {0, 2}) {
        for (const size_t last : {size_t{1}, size_t{3}}) { // the first is the header
            world.commands.clear();
            world.stop_at = last;
            EXPECT_EQ(aid_at(constellation, kWeek, 48 * 3600), 0);
            stop_request_withdraw();
            EXPECT_EQ(world.commands.size(), last);
            EXPECT_EQ(log, "[LOCSERV] WRN: [XOD] host aiding gives way to a stop\n");
        }
    }
}

TEST_F(XodHostAiding, StopBeforeTheFirstRecordIsTheEndOfIt) {
    file("XOD_GR_3_1.DAT", mixed_file());
    file("XOD_GAL_3.DAT", headed_file(header(254, 15, 3), 101, 6));
    world.stop_at_seek = true;
    for (const int constellation : {0, 2}) {
        EXPECT_EQ(aid_at(constellation, kWeek, 48 * 3600), 0);
        stop_request_withdraw();
        EXPECT_TRUE(world.commands.empty());
        EXPECT_EQ(log, "[LOCSERV] WRN: [XOD] host aiding gives way to a stop\n");
    }
}

TEST(XodSatellite, IsNumberedAsTheChipDoes) {
    const struct {
        int32_t constellation;
        uint8_t in_file;
        uint32_t expected;
    } known[] = {{0, 32, 32},   {0, 255, 255}, {1, 65, 1},   {1, 10, 0xFFFFFFCA}, {2, 101, 1},
                 {2, 254, 254}, {2, 255, 155}, {2, 99, ~0U}, {3, 255, 255},       {3, 254, 54},
                 {3, 201, 1},   {3, 190, 55},  {3, 198, 63}, {3, 199, ~0U},       {3, 189, 0xFFFFFFF5},
                 {4, 77, 0},    {255, 77, 0},  {-1, 77, 0},  {-128, 77, 0}};
    for (const auto& [constellation, in_file, expected] : known) {
        const uint8_t record[72] = {1, 2, 3, in_file};
        EXPECT_EQ(xod_host_aiding_sv_id(constellation, record), expected) << constellation << ' ' << +in_file;
    }
}

#include "service/location_file.h"

#include "config/location_config.h"
#include "support/capture.h"
#include "support/close_fault.h"
#include "support/fifo.h"
#include "support/file_size_limit.h"
#include "support/format_fault.h"
#include "support/private_dir.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using std::string;

struct World {
    string path;
    int32_t keep = 0; // the setting
    bool write_fails = false;
    string calls; // of fsync and rename
    bool fsync_fails = false;
} world;

struct LocationFile : testing::Test {
    LocationFile() {
        world = {};
        world.path = dir.path / "location.dat";
    }
    ~LocationFile() override {
        world = {};
        format_fault_disarm();
        close_fault_disarm();
    }

    int32_t run(const std::function<int32_t()>& operation) {
        int32_t result = 99;
        log = capture_stdout([&] { result = operation(); });
        return result;
    }
    int32_t save(const LocationRecord& record) {
        return run([&] { return location_service_save_location(&record); });
    }
    int32_t load(const string& content) {
        dir.write("location.dat", content);
        return run([&] { return location_service_get_position(&position); });
    }
    string saved() const {
        return dir.read("location.dat");
    }
    string open_fail(const string& path) const {
        return "[LOCSERV] ERR: location_service_save_location open fail, " + path + "\n";
    }

    PrivateDir dir;
    string log;
    AidingPosition position = {9, 9, 9, 9, 9, 9, 9};
};

LocationRecord example() {
    LocationRecord record = {};
    strcpy(record.utc, "123519.000");
    strcpy(record.latitude, "48.117300");
    strcpy(record.longitude, "-11.516667");
    strcpy(record.height, "92.300000");
    strcpy(record.majorAxis, "008.7");
    strcpy(record.minorAxis, "004.7");
    strcpy(record.orientation, "132.3");
    strcpy(record.verticalUncertainty, "2.25");
    return record;
}

const string kExampleText = "UTC=123519.000\n"
                            "longitude=-11.516667\n"
                            "latitude=48.117300\n"
                            "majorAxis=008.7\n"
                            "minorAxis=004.7\n"
                            "orientation=132.3\n"
                            "height=92.300000\n"
                            "heightType=AGL\n"
                            "verticalUncertainty=2.25\n";

const string kEmptyText = "UTC=\nlongitude=\nlatitude=\nmajorAxis=\nminorAxis=\norientation=\nheight=\n"
                          "heightType=AGL\nverticalUncertainty=\n";

std::vector<double> values_of(const AidingPosition& p) {
    return {p.latitude,    p.longitude,          p.height, p.majorAxis, p.minorAxis,
            p.orientation, p.verticalUncertainty};
}

} // namespace

void location_config_get_nmea_path(char* path) {
    path[world.path.copy(path, kConfigTextSize - 1)] = '\0';
}

void location_config_get_keep_good_files(int32_t* keep) {
    *keep = world.keep;
}

extern "C" {

size_t __real_fwrite(const void* data, size_t size, size_t n, FILE* file);
size_t __wrap_fwrite(const void* data, size_t size, size_t n, FILE* file) {
    return world.write_fails ? n - 1 : __real_fwrite(data, size, n, file);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    world.calls += "fsync ";
    return world.fsync_fails ? -1 : __real_fsync(fd);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    world.calls += "rename ";
    return __real_rename(from, to);
}
}

TEST_F(LocationFile, SavesNineLinesInTheirOrder) {
    dir.write("location.dat", string(5000, 'x'));
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(saved(), kExampleText);
    EXPECT_EQ(log, "");
    EXPECT_EQ(save({}), 0) << "before any fix";
    EXPECT_EQ(saved(), kEmptyText);
}

TEST_F(LocationFile, HeightThatRunsOnIsSavedAsOneText) {
    LocationRecord record = {};
    memcpy(record.height, "1280.500000", 12);
    EXPECT_EQ(save(record), 0);
    EXPECT_NE(saved().find("\nheight=1280.500000\n"), string::npos);
    EXPECT_NE(saved().find("\nmajorAxis=0\n"), string::npos);
}

TEST_F(LocationFile, RecordWithoutANulIsReadToItsEnd) {
    LocationRecord record;
    memset(&record, '7', sizeof record);
    EXPECT_EQ(save(record), 0);
    const std::vector<string> lines = lines_of(saved());
    ASSERT_EQ(lines.size(), 9U);
    EXPECT_EQ(lines[0], "UTC=" + string(94, '7'));
    EXPECT_EQ(lines[8], "verticalUncertainty=" + string(12, '7'));
}

TEST_F(LocationFile, EachLineThatCannotBeFormattedHasItsText) {
    const char* const names[] = {"utc",         "longitude", "latitude",   "majorAxis",          "minorAxis",
                                 "orientation", "height",    "heightType", "verticalUncertainty"};
    for (int i = 0; i < 9; ++i) {
        format_fault_arm(i);
        EXPECT_EQ(save(example()), -1);
        EXPECT_EQ(log, string("[LOCSERV] ERR: location_service_save_location get ") + names[i] + " fail\n");
    }
    EXPECT_EQ(saved(), "") << "the file is not touched";
}

TEST_F(LocationFile, SavingToAPathThatCannotBeOpenedIsReported) {
    world.path = dir.path / "missing" / "location.dat";
    for (const int32_t keep : {0, 1}) {
        world.keep = keep;
        EXPECT_EQ(save(example()), -1);
        EXPECT_EQ(log, open_fail(world.path + (keep == 0 ? "" : ".new")));
    }
}

TEST_F(LocationFile, ShortWriteIsReportedBeforeAFailedClose) {
    world.write_fails = true;
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location write fail\n");
    close_fault_arm("/location.dat");
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location write fail\n"
                   "[LOCSERV] ERR: location_service_save_location fclose fail\n");
}

TEST_F(LocationFile, FailedCloseBehindAGoodWriteIsLoggedOnly) {
    const FileSizeLimit full(100);
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location fclose fail\n");
}

TEST_F(LocationFile, FifoOrDeviceIsNeitherWrittenNorRead) {
    expect_no_wait_for_fifo(world.path, [&] { EXPECT_EQ(save(example()), -1); });
    EXPECT_EQ(log, open_fail(world.path));
    expect_no_wait_for_fifo(
        world.path, [&] { EXPECT_EQ(run([&] { return location_service_get_position(&position); }), -1); });
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position open fail, " + world.path + "\n");
    world.path = "/dev/full";
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, open_fail(world.path));
}

TEST_F(LocationFile, LinkIsNotWrittenThrough) {
    const string victim = dir.write("victim", "whole");
    for (const int32_t keep : {0, 1}) {
        world.keep = keep;
        const string link = world.path + (keep == 0 ? "" : ".new");
        std::filesystem::create_symlink(victim, link);
        EXPECT_EQ(save(example()), -1);
        EXPECT_EQ(log, open_fail(link));
        EXPECT_EQ(dir.read("victim"), "whole");
    }
}

// With the setting to keep good files.
struct LocationFileKeep : LocationFile {
    LocationFileKeep() {
        world.keep = 1;
        dir.write("location.dat", "old");
    }
    void expect_old() const {
        EXPECT_EQ(saved(), "old");
        EXPECT_FALSE(std::filesystem::exists(world.path + ".new"));
    }
};

TEST_F(LocationFileKeep, WholeFileTakesThePlaceOfTheOld) {
    dir.write("location.dat.new", string(5000, 'x')); // left by a daemon that was killed
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(saved(), kExampleText);
    EXPECT_EQ(world.calls, "fsync rename ") << "a loss of power could leave an empty file";
    EXPECT_EQ(log, "");
    EXPECT_FALSE(std::filesystem::exists(world.path + ".new"));
}

TEST_F(LocationFileKeep, FullDiskIsAFailedSaveAndLeavesTheOldFile) {
    const FileSizeLimit full(100);
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location write fail\n");
    expect_old();
}

TEST_F(LocationFileKeep, FileThatDoesNotReachTheDiskOrThePlaceLeavesTheOld) {
    const string fail = "[LOCSERV] ERR: location_service_save_location replace fail, " + world.path + "\n";
    world.fsync_fails = true;
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, fail);
    expect_old();
    world.fsync_fails = false;
    std::filesystem::remove(world.path);
    std::filesystem::create_directories(world.path + "/not empty");
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, fail);
    EXPECT_FALSE(std::filesystem::exists(world.path + ".new"));
}

TEST_F(LocationFile, ReadsBackWhatWasSaved) {
    EXPECT_EQ(load(kExampleText), 0);
    EXPECT_EQ(values_of(position), (std::vector<double>{48.1173, -11.516667, 92.3, 8.7, 4.7, 132.3, 2.25}));
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, MissingFileIsReportedAndLeavesZeros) {
    EXPECT_EQ(run([&] { return location_service_get_position(&position); }), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position open fail, " + world.path + "\n");
    EXPECT_EQ(values_of(position), std::vector<double>(7, 0.0));
}

TEST_F(LocationFile, EmptyValuesFailOneByOne) {
    EXPECT_EQ(load(kEmptyText), -1);
    string expected;
    for (const string name : {"lon", "lat", "acc_maj", "acc_min", "bear", "alt", "acc_vert"}) {
        expected += "[LOCSERV] ERR: location_service_get_position sscanf " + name + " fail\n";
    }
    EXPECT_EQ(log, expected);
    EXPECT_EQ(values_of(position), std::vector<double>(7, 0.0));
}

TEST_F(LocationFile, OtherThanSevenKeysAreNoPosition) {
    EXPECT_EQ(load("longitude=1\nlatitude=2\nmajorAxis=3\nminorAxis=4\norientation=5\nheight=6\n"), -1);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 3, 4, 5, 0})) << "what was found stays";
    EXPECT_EQ(load(kExampleText + "height=1\n"), -1);
    EXPECT_EQ(load("latitude=2 longitude=1\nheightType=7\n"), -1); // the first key of the order counts
    EXPECT_EQ(values_of(position), (std::vector<double>{0, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, KeyTwiceStandsForAMissingOne) {
    EXPECT_EQ(load("longitude=1\nlatitude=2\nmajorAxis=3\nmajorAxis=4\norientation=5\nheight=6\n"
                   "verticalUncertainty=7"),
              0);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 4, 0, 5, 7}));
}

TEST_F(LocationFile, KeyCountsAnywhereInItsLine) {
    EXPECT_EQ(load("# longitude=1\nxlatitude= 2\n\tmajorAxis=3e1x\nminorAxis=abc\norientation=5 height=9\n"
                   "height=6\r\nverticalUncertainty=7"),
              0);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 30, 0, 5, 7}));
}

TEST_F(LocationFile, HostileContentIsReadInPieces) {
    EXPECT_EQ(load(string(100000, 'x') + "longitude=1" + string(1000, '9') + "\n" + string(300, '\0')), -1);
    EXPECT_EQ(load("longitude=" + string(200, '9') + "\n"), -1);
    EXPECT_GT(position.longitude, 1e199);
}

TEST_F(LocationFile, FailedCloseOfAReadIsLoggedOnly) {
    close_fault_arm("/location.dat");
    EXPECT_EQ(load(kExampleText), 0);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position fclose fail\n");
}

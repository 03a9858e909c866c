#include "service/location_file.h"

#include "config/location_config.h"
#include "support/capture.h"
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

struct Faults {
    string path;
    bool write_fails = false;
    bool close_fails = false;
} faults;

struct LocationFile : testing::Test {
    LocationFile() {
        faults = {};
        faults.path = dir.path / "location.dat";
    }
    ~LocationFile() override {
        faults = {};
        format_fault_disarm();
    }

    // Runs an operation with the faults of the test; they are off while the test prints.
    int32_t run(const std::function<int32_t()>& operation) {
        int32_t result = 99;
        log = capture_stdout([&] {
            armed = true;
            result = operation();
            armed = false;
        });
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

    PrivateDir dir;
    string log;
    AidingPosition position = {9, 9, 9, 9, 9, 9, 9};
    static bool armed;
};

bool LocationFile::armed = false;

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
    path[faults.path.copy(path, kConfigTextSize - 1)] = '\0';
}

extern "C" {

size_t __real_fwrite(const void* data, size_t size, size_t n, FILE* file);
int __real_fclose(FILE* file);

size_t __wrap_fwrite(const void* data, size_t size, size_t n, FILE* file) {
    return LocationFile::armed && faults.write_fails ? n - 1 : __real_fwrite(data, size, n, file);
}

int __wrap_fclose(FILE* file) {
    const int result = __real_fclose(file);
    return LocationFile::armed && faults.close_fails ? EOF : result;
}
}

TEST_F(LocationFile, SavesNineLinesInTheirOrder) {
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(saved(), kExampleText);
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, SavingBeforeAnyFixWritesEmptyValues) {
    EXPECT_EQ(save({}), 0);
    EXPECT_EQ(saved(), kEmptyText);
}

TEST_F(LocationFile, SavingReplacesTheFile) {
    dir.write("location.dat", string(5000, 'x'));
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(saved(), kExampleText);
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
    const char* const expected[] = {
        "[LOCSERV] ERR: location_service_save_location get utc fail\n",
        "[LOCSERV] ERR: location_service_save_location get longitude fail\n",
        "[LOCSERV] ERR: location_service_save_location get latitude fail\n",
        "[LOCSERV] ERR: location_service_save_location get majorAxis fail\n",
        "[LOCSERV] ERR: location_service_save_location get minorAxis fail\n",
        "[LOCSERV] ERR: location_service_save_location get orientation fail\n",
        "[LOCSERV] ERR: location_service_save_location get height fail\n",
        "[LOCSERV] ERR: location_service_save_location get heightType fail\n",
        "[LOCSERV] ERR: location_service_save_location get verticalUncertainty fail\n",
    };
    for (int i = 0; i < 9; ++i) {
        format_fault_arm(i);
        EXPECT_EQ(save(example()), -1);
        EXPECT_EQ(log, expected[i]);
    }
    EXPECT_EQ(saved(), "") << "the file is not touched";
}

TEST_F(LocationFile, SavingToAPathThatCannotBeOpenedIsReported) {
    faults.path = dir.path / "missing" / "location.dat";
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location open fail, " + faults.path + "\n");
}

TEST_F(LocationFile, ShortWriteIsReported) {
    faults.write_fails = true;
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location write fail\n");
}

TEST_F(LocationFile, FailedCloseBehindAShortWriteIsLoggedToo) {
    faults.write_fails = true;
    faults.close_fails = true;
    EXPECT_EQ(save(example()), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location write fail\n"
                   "[LOCSERV] ERR: location_service_save_location fclose fail\n");
}

TEST_F(LocationFile, FailedCloseBehindAGoodWriteIsLoggedOnly) {
    faults.close_fails = true;
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location fclose fail\n");
}

TEST_F(LocationFile, FullDiskShowsAtTheClose) {
    faults.path = "/dev/full";
    EXPECT_EQ(save(example()), 0);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_save_location fclose fail\n");
}

TEST_F(LocationFile, ReadsBackWhatWasSaved) {
    EXPECT_EQ(load(kExampleText), 0);
    EXPECT_EQ(values_of(position), (std::vector<double>{48.1173, -11.516667, 92.3, 8.7, 4.7, 132.3, 2.25}));
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, MissingFileIsReportedAndLeavesZeros) {
    EXPECT_EQ(run([&] { return location_service_get_position(&position); }), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position open fail, " + faults.path + "\n");
    EXPECT_EQ(values_of(position), std::vector<double>(7, 0.0));
}

TEST_F(LocationFile, EmptyValuesFailOneByOne) {
    EXPECT_EQ(load(kEmptyText), -1);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position sscanf lon fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf lat fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf acc_maj fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf acc_min fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf bear fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf alt fail\n"
                   "[LOCSERV] ERR: location_service_get_position sscanf acc_vert fail\n");
    EXPECT_EQ(values_of(position), std::vector<double>(7, 0.0));
}

TEST_F(LocationFile, UnreadableNumberCountsAsReadAndIsZero) {
    string text = kExampleText;
    text.replace(text.find("008.7"), 5, "abc");
    EXPECT_EQ(load(text), 0);
    EXPECT_EQ(position.majorAxis, 0.0);
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, SixKeysAreTooFew) {
    EXPECT_EQ(load("longitude=1\nlatitude=2\nmajorAxis=3\nminorAxis=4\norientation=5\nheight=6\n"), -1);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 3, 4, 5, 0})) << "what was found stays";
}

TEST_F(LocationFile, EightKeysAreTooMany) {
    EXPECT_EQ(load(kExampleText + "height=1\n"), -1);
}

TEST_F(LocationFile, KeyTwiceStandsForAMissingOne) {
    EXPECT_EQ(load("longitude=1\nlatitude=2\nmajorAxis=3\nmajorAxis=4\norientation=5\nheight=6\n"
                   "verticalUncertainty=7"),
              0);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 4, 0, 5, 7}));
}

TEST_F(LocationFile, KeyCountsAnywhereInItsLine) {
    EXPECT_EQ(load("# longitude=1\nxlatitude= 2\n\tmajorAxis=3e1x\nminorAxis=4\norientation=5 height=9\n"
                   "height=6\r\nverticalUncertainty=7"),
              0);
    EXPECT_EQ(values_of(position), (std::vector<double>{2, 1, 6, 30, 4, 5, 7}));
}

TEST_F(LocationFile, FirstKeyOfTheOrderWinsInALineOfTwo) {
    EXPECT_EQ(load("latitude=2 longitude=1\n"), -1);
    EXPECT_EQ(position.longitude, 1.0);
    EXPECT_EQ(position.latitude, 0.0);
}

TEST_F(LocationFile, HeightTypeIsNoHeight) {
    EXPECT_EQ(load("heightType=7\n"), -1);
    EXPECT_EQ(position.height, 0.0);
    EXPECT_EQ(log, "");
}

TEST_F(LocationFile, HostileContentIsReadInPieces) {
    EXPECT_EQ(load(string(100000, 'x') + "longitude=1" + string(1000, '9') + "\n" + string(300, '\0')), -1);
    EXPECT_EQ(load("longitude=" + string(200, '9') + "\n"), -1);
    EXPECT_GT(position.longitude, 1e199);
}

TEST_F(LocationFile, FailedCloseOfAReadIsLoggedOnly) {
    faults.close_fails = true;
    EXPECT_EQ(load(kExampleText), 0);
    EXPECT_EQ(log, "[LOCSERV] ERR: location_service_get_position fclose fail\n");
}

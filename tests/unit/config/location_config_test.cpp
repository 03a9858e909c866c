#include "config/location_config.h"

#include "interpose/fail.h"
#include "interpose/paths.h"
#include "support/call_fault.h"
#include "support/capture.h"
#include "support/private_dir.h"
#include "support/thread_end.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr char kConfig[] = "/etc/default/tavor/tavor.conf";
constexpr char kOpenFail[] = "[LOCSERV] ERR: [CFG]location_config_get_path, open fail";
constexpr char kPathCloseFail[] = "[LOCSERV] ERR: [CFG]location_config_get_path, fclose fail";
constexpr char kNumCloseFail[] = "[LOCSERV] ERR: [CFG]location_config_get_num, fclose fail";

std::string stands_in(int error) {
    return "[LOCSERV] WRN: [CFG]/etc/default/tavor/tavor.conf can't be read, error " + std::to_string(error) +
           ": its last content stands in";
}

class LocationConfig : public testing::Test {
protected:
    LocationConfig() {
        alarm(60); // opening a FIFO may wait for ever
        interpose_set_root(dir.path);
        text(""); // there is no file: what an earlier test read is forgotten
    }
    ~LocationConfig() override {
        alarm(0);
        interpose_fail_reset();
        interpose_set_root("");
    }

    void config(const std::string& content) const {
        dir.write(kConfig, content);
    }

    std::string text(const char* key) {
        char value[kConfigTextSize];
        log = lines_of(capture_stdout([&] { location_config_get_path(value, "default", key); }));
        return value;
    }

    int32_t num(const char* key) {
        int32_t value = 0;
        log = lines_of(capture_stdout([&] { location_config_get_num(&value, 7, key); }));
        return value;
    }

    PrivateDir dir;
    Lines log;
};

// What every getter reads.
struct AllSettings {
    char uart_path[kConfigTextSize];
    SerialPortConfig uart;
    SerialPortConfig debug_port;
    DebugSocketConfig debug_socket;
    SpiPortConfig spi;
    int32_t power, reset, notify;
    char nmea[kConfigTextSize], log[kConfigTextSize], da[kConfigTextSize], image[kConfigTextSize],
        xod[kConfigTextSize];
    XodServerConfig server;
    int32_t keep;
};

void read_all(AllSettings* all) {
    location_config_get_uart_path(all->uart_path);
    location_config_get_uart(&all->uart);
    location_config_get_debug_port(&all->debug_port);
    location_config_get_debug_socket(&all->debug_socket);
    location_config_get_spi(&all->spi);
    location_config_get_power_gpio(&all->power);
    location_config_get_reset_gpio(&all->reset);
    location_config_get_notify_gpio(&all->notify);
    location_config_get_nmea_path(all->nmea);
    location_config_get_log_path(all->log);
    location_config_get_da_path(all->da);
    location_config_get_image_path(all->image);
    location_config_get_xod_path(all->xod);
    location_config_get_xod_server(&all->server);
    location_config_get_keep_good_files(&all->keep);
}

std::string show(const char* value) {
    return value;
}
std::string show(int32_t value) {
    return std::to_string(value);
}

using All = AllSettings;
struct Setting {
    std::string key;
    std::string line; // in the log, after its start and before the value
    std::string value;
    std::string (*read)(const All& all);
};

// With their defaults, in the order in which read_all comes to them.
const std::vector<Setting> kSettings = {
    {"UART port path=", "UART path:", "/dev/ttyS1", [](const All& all) { return show(all.uart_path); }},
    {"UART port path=", "UART path:", "/dev/ttyS1", [](const All& all) { return show(all.uart.path); }},
    {"UART baudrate=", "UART baudrate:", "921600", [](const All& all) { return show(all.uart.baud_rate); }},
    {"UART flow control=", "UART flow control:", "0",
     [](const All& all) { return show(all.uart.flow_control); }},
    {"debug port path=", "debug port path:", " ", [](const All& all) { return show(all.debug_port.path); }},
    {"debug port baudrate=", "debug port baudrate:", "921600",
     [](const All& all) { return show(all.debug_port.baud_rate); }},
    {"debug port flow control=", "debug port flow control:", "0",
     [](const All& all) { return show(all.debug_port.flow_control); }},
    {"debug socket ip=", "debug socket ip:", "192.168.1.1",
     [](const All& all) { return show(all.debug_socket.ip); }},
    {"debug socket port=", "debug port baudrate:", "7005",
     [](const All& all) { return show(all.debug_socket.port); }},
    {"SPI port path=", "spi port path:", "/dev/spidev1.0", [](const All& all) { return show(all.spi.path); }},
    {"SPI frequency=", "spi frequencey:", "24000000", [](const All& all) { return show(all.spi.frequency); }},
    {"SPI bit order=", "spi bit order:", "0", [](const All& all) { return show(all.spi.bit_order); }},
    {"SPI CPHA=", "spi cpha:", "0", [](const All& all) { return show(all.spi.cpha); }},
    {"SPI CPOL=", "spi cpol:", "0", [](const All& all) { return show(all.spi.cpol); }},
    {"Power control gpio=", "Power control gpio:", "999999", [](const All& all) { return show(all.power); }},
    {"Reset GNSS gpio=", "Reset GNSS gpio:", "999999", [](const All& all) { return show(all.reset); }},
    {"Notify GNSS gpio=", "Notify GNSS gpio:", "999999", [](const All& all) { return show(all.notify); }},
    {"NMEA file path=", "nmea path:", "/etc/default/tavor/location.dat",
     [](const All& all) { return show(all.nmea); }},
    {"LOG path=", "log path:", "/etc/default/tavor/log.dat", [](const All& all) { return show(all.log); }},
    {"DA path=", "DA path:", "/etc/default/tavor/da/qx7710_da.bin",
     [](const All& all) { return show(all.da); }},
    {"image path=", "image path:", "/etc/default/tavor/load/flash_download.cfg",
     [](const All& all) { return show(all.image); }},
    {"XOD file path=", "XOD file path:", "/etc/default/tavor/xod",
     [](const All& all) { return show(all.xod); }},
    {"XOD host=", "XOD host:", TAVOR_XOD_HOST, [](const All& all) { return show(all.server.host); }},
    {"XOD vendor=", "XOD vendor:", " ", [](const All& all) { return show(all.server.vendor); }},
    {"XOD project=", "XOD project:", " ", [](const All& all) { return show(all.server.project); }},
    {"XOD device id=", "XOD device id:", " ", [](const All& all) { return show(all.server.device_id); }},
    {"keep good files=", "keep good files:", "0", [](const All& all) { return show(all.keep); }},
};

// Reads everything and expects these values, in the records and in the log.
void expect_values(const std::vector<Setting>& expected) {
    AllSettings all = {};
    Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    std::erase(lines, kOpenFail);
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].read(all), expected[i].value) << expected[i].key;
        EXPECT_EQ(lines[i], "[LOCSERV] INF: [CFG]" + expected[i].line + expected[i].value);
    }
}

long open_files() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::string sample() {
    std::ifstream file(TAVOR_SAMPLE_CONFIG, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

TEST_F(LocationConfig, EveryGetterFallsBackToItsDefaultWithoutAFileOrItsKey) {
    expect_values(kSettings);
    config("nothing to see\n");
    expect_values(kSettings);
}

TEST_F(LocationConfig, ReadsEveryKeyAndPrintsItsLine) {
    // Each key's value is its place in the list, so that no two settings can be taken for each other.
    std::vector<Setting> settings = kSettings;
    std::string content;
    for (size_t i = 1; i < settings.size(); ++i) {
        settings[i].value = std::to_string(100 + i);
        content += settings[i].key + settings[i].value + "\n";
    }
    settings[0].value = settings[1].value; // the same key
    config(content);
    expect_values(settings);
}

TEST_F(LocationConfig, RecordsLogTheirOpenFailuresBeforeAnyValue) {
    AllSettings all = {};
    const Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    std::string kinds;
    for (const std::string& line : lines) {
        kinds += line == kOpenFail ? 'o' : 'v';
    }
    EXPECT_EQ(kinds, "ov"
                     "ooovvv"
                     "ooovvv"
                     "oovv"
                     "ooooovvvvv"
                     "ovovov"
                     "ovovovovov"
                     "oooovvvv"
                     "ov");
}

TEST_F(LocationConfig, TextsAreWhatTheFirstLineWithTheirKeySays) {
    const std::string long_value(200, 'x');
    const struct {
        const char* what;
        std::string content;
        const char* key;
        std::string expected;
    } rows[] = {
        {"a commented-out line counts", "#DA path=/b\nDA path=/a\n", "DA path=", "/b"},
        {"when it comes first", "DA path=/a\n#DA path=/b\n", "DA path=", "/a"},
        {"also at the tail of another line's text", "OLDXOD host=a\nXOD host=b\n", "XOD host=", "a"},
        {"the first of two in one line", "XOD host=a XOD host=b\n", "XOD host=", "a XOD host=b"},
        {"in its own case only", "xod host=a\n", "XOD host=", "default"},
        {"a carriage return before the newline goes", "DA path=/a\r\n", "DA path=", "/a"},
        {"the last one only", "DA path=/a\r\r\n", "DA path=", "/a\r"},
        {"none inside", "DA path=/a\rc\n", "DA path=", "/a\rc"},
        {"none without a newline", "DA path=/a\r", "DA path=", "/a\r"},
        {"a second line", "DA path=/a\r\nimage path=/b\n", "image path=", "/b"},
        {"the last line without a newline", "x\nDA path=/a", "DA path=", "/a"},
        {"blanks are kept", "DA path=  /a b  \n", "DA path=", "  /a b  "},
        {"an empty value is not the default", "XOD vendor=\n", "XOD vendor=", ""},
        {"with a carriage return", "XOD vendor=\r\n", "XOD vendor=", ""},
        {"at the file's end", "XOD vendor=", "XOD vendor=", ""},
        {"too long", "DA path=" + long_value + "\n", "DA path=", long_value.substr(0, 127)},
        {"just not", "DA path=" + long_value.substr(0, 127) + "\n", "DA path=", long_value.substr(0, 127)},
        {"a NUL ends its line", std::string("DA path=/a\0b\n", 13), "DA path=", "/a"},
        {"and no other", std::string("DA path=/a\0b\nimage path=/c\n", 28), "image path=", "/c"},
        // Long lines are searched in pieces of 255 characters.
        {"a second piece", std::string(255, '.') + "DA path=/second\n", "DA path=", "/second"},
        {"a key that is split", std::string(251, '.') + "DA path=/split\n", "DA path=", "default"},
        {"a value that is split", std::string(240, '.') + "DA path=/the value\n", "DA path=", "/the va"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        config(row.content);
        EXPECT_EQ(text(row.key), row.expected);
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(LocationConfig, DefaultIsCutTo127Characters) {
    const std::string long_default(200, 'd');
    char value[kConfigTextSize];
    capture_stdout([&] { location_config_get_path(value, long_default.c_str(), "DA path="); });
    EXPECT_EQ(value, std::string(127, 'd'));
}

TEST_F(LocationConfig, NumbersAreReadUpToTheFirstNonDigit) {
    const std::vector<std::pair<std::string, int32_t>> cases = {
        {"24000000", 24000000},
        {"  42", 42},
        {"\t+5", 5},
        {"-17", -17},
        {"12abc", 12},
        {"fast", 0},
        {"0x10", 0},
        {"1.9", 1},
        {"", 0},
        {"2147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"- 3", 0},
        {"7\r", 7},
    };
    for (const auto& [value, expected] : cases) {
        config("SPI frequency=" + value + "\n");
        EXPECT_EQ(num("SPI frequency="), expected) << value;
        EXPECT_TRUE(log.empty());
    }
    EXPECT_EQ(num("SPI CPOL="), 7) << "the default of one that is missing";
    EXPECT_TRUE(log.empty());
    config("SPI frequency=" + std::string(200, '9') + "\n");
    EXPECT_NE(num("SPI frequency="), 7) << "absurdly long";
}

TEST_F(LocationConfig, OpenFailureOfANumberIsLoggedWithThePathReadersText) {
    EXPECT_EQ(num("SPI CPOL="), 7);
    EXPECT_EQ(log, Lines{kOpenFail});
}

TEST_F(LocationConfig, FileThatCanNotBeReadNowHasItsLastContentStandIn) {
    config("DA path=/a\nSPI CPOL=1\n");
    text("image path=");
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO, EACCES}) {
        interpose_fail("open", 1, error);
        EXPECT_EQ(text("DA path="), "/a") << error;
        EXPECT_EQ(log, (Lines{kOpenFail, stands_in(error)}));
        interpose_fail("open", 1, error);
        EXPECT_EQ(num("SPI CPOL="), 1) << error;
        interpose_fail("open", 1, error);
        EXPECT_EQ(text("image path="), "default") << "the file names none";
        EXPECT_EQ(num("SPI CPOL="), 1);
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(LocationConfig, ContentThatCanNotBeReadIsNotTakenForTheFile) {
    config("DA path=/a\n");
    text("DA path=");
    config("DA path=/b\n");
    call_faults.fread = 0;
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_EQ(log, Lines{stands_in(EIO)});
    EXPECT_EQ(text("DA path="), "/b");
    call_faults.malloc = 0;
    EXPECT_EQ(text("DA path="), "/b");
    EXPECT_EQ(log, Lines{stands_in(ENOMEM)});
}

TEST_F(LocationConfig, FileThatIsGoneMeansDefaultsAlsoWhenItCanNotBeReadLater) {
    config("DA path=/a\n");
    text("DA path=");
    interpose_fail("open", 1, ENOTDIR); // a file stands where its directory was
    EXPECT_EQ(text("DA path="), "default");
    EXPECT_EQ(log, Lines{kOpenFail});
    text("DA path=");
    std::filesystem::remove(interpose_map(kConfig));
    for (const int error : {0, EMFILE}) {
        if (error != 0) {
            interpose_fail("open", 1, error);
        }
        EXPECT_EQ(text("DA path="), "default") << error;
        EXPECT_EQ(log, Lines{kOpenFail}) << error;
    }
}

TEST_F(LocationConfig, NothingButARegularFileIsRead) {
    const std::string path = interpose_map(kConfig);
    std::filesystem::create_directories(path);
    EXPECT_EQ(text("DA path="), "default");
    EXPECT_EQ(log, Lines{kOpenFail});
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(num("SPI CPOL="), 7) << "without waiting for a writer";
    EXPECT_EQ(log, Lines{kOpenFail});
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/dev/zero", path);
    EXPECT_EQ(text("DA path="), "default");
    EXPECT_EQ(log, Lines{kOpenFail});
}

TEST_F(LocationConfig, FailedCloseIsLoggedAndChangesNoValue) {
    config("DA path=/a\nSPI CPOL=1\n");
    for (const auto& [key, expected] : {std::pair("DA path=", "/a"), {"missing=", "default"}}) {
        interpose_fail("fclose", 1, EIO);
        EXPECT_EQ(text(key), expected);
        EXPECT_EQ(log, Lines{kPathCloseFail});
    }
    for (const auto& [key, expected] : {std::pair("SPI CPOL=", 1), {"missing=", 7}}) {
        interpose_fail("fclose", 1, EIO);
        EXPECT_EQ(num(key), expected);
        EXPECT_EQ(log, Lines{kNumCloseFail});
    }
}

TEST_F(LocationConfig, FileStaysOpenNowhere) {
    config("DA path=/a\nSPI CPOL=1\n");
    const auto before = open_files();
    for (const char* key : {"DA path=", "missing="}) {
        text(key);
        num(key);
    }
    EXPECT_EQ(open_files(), before);
}

TEST_F(LocationConfig, ThreadCancelledBeforehandReadsToTheEndAndClosesTheFile) {
    config("Power control gpio=5\n");
    int32_t gpio = 0;
    void* end = nullptr;
    const auto before = open_files();
    capture_stdout([&] {
        end = end_of_thread([&] {
            pthread_cancel(pthread_self());
            location_config_get_power_gpio(&gpio);
            pthread_testcancel();
        });
    });
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(gpio, 5);
    EXPECT_EQ(open_files(), before);
}

TEST_F(LocationConfig, SampleHoldsEveryDefaultButKeepsGoodFiles) {
    config(sample());
    std::vector<Setting> settings = kSettings;
    for (Setting& setting : settings) {
        setting.value = setting.key == "keep good files=" ? "1" : setting.value;
    }
    expect_values(settings);
}

// The server's name is the build's: a line in the sample, which every device gets, would win over it.
TEST_F(LocationConfig, SampleHoldsEachKeyButTheServersOnceAndAtTheStartOfItsLine) {
    const Lines lines = lines_of(sample());
    for (const Setting& setting : kSettings) {
        size_t found = 0;
        for (const std::string& line : lines) {
            const size_t at = line.find(setting.key);
            found += at == std::string::npos ? 0 : 1;
            EXPECT_TRUE(at == std::string::npos || at == 0) << line;
            EXPECT_LT(line.size(), 255U) << line;
        }
        EXPECT_EQ(found, setting.key == "XOD host=" ? 0U : 1U) << setting.key;
    }
}

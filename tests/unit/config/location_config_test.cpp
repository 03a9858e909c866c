#include "config/location_config.h"

#include "interpose/fail.h"
#include "interpose/paths.h"
#include "support/capture.h"
#include "support/private_dir.h"

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

// Strike once.
bool g_fread_fails = false;
bool g_malloc_fails = false;

} // namespace

extern "C" size_t __real_fread(void* data, size_t size, size_t count, FILE* file);
extern "C" size_t __wrap_fread(void* data, size_t size, size_t count, FILE* file) {
    if (!std::exchange(g_fread_fails, false)) {
        return __real_fread(data, size, count, file);
    }
    file->_flags |= _IO_ERR_SEEN;
    errno = EIO;
    return 0;
}

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    if (!std::exchange(g_malloc_fails, false)) {
        return __real_malloc(size);
    }
    errno = ENOMEM;
    return nullptr;
}

namespace {

using Lines = std::vector<std::string>;

// As in the daemon: a log line is written at once, so it is where a cancelled thread ends.
[[maybe_unused]] const int line_buffered = setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);

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

void expect_defaults(const AllSettings& all, const std::string& host, int32_t keep = 0) {
    EXPECT_STREQ(all.uart_path, "/dev/ttyS1");
    EXPECT_STREQ(all.uart.path, "/dev/ttyS1");
    EXPECT_EQ(all.uart.baud_rate, 921600);
    EXPECT_EQ(all.uart.flow_control, 0);
    EXPECT_STREQ(all.debug_port.path, " ");
    EXPECT_EQ(all.debug_port.baud_rate, 921600);
    EXPECT_EQ(all.debug_port.flow_control, 0);
    EXPECT_STREQ(all.debug_socket.ip, "192.168.1.1");
    EXPECT_EQ(all.debug_socket.port, 7005);
    EXPECT_STREQ(all.spi.path, "/dev/spidev1.0");
    EXPECT_EQ(all.spi.frequency, 24000000);
    EXPECT_EQ(all.spi.bit_order, 0);
    EXPECT_EQ(all.spi.cpha, 0);
    EXPECT_EQ(all.spi.cpol, 0);
    EXPECT_EQ(all.power, 999999);
    EXPECT_EQ(all.reset, 999999);
    EXPECT_EQ(all.notify, 999999);
    EXPECT_STREQ(all.nmea, "/etc/default/tavor/location.dat");
    EXPECT_STREQ(all.log, "/etc/default/tavor/log.dat");
    EXPECT_STREQ(all.da, "/etc/default/tavor/da/qx7710_da.bin");
    EXPECT_STREQ(all.image, "/etc/default/tavor/load/flash_download.cfg");
    EXPECT_STREQ(all.xod, "/etc/default/tavor/xod");
    EXPECT_EQ(all.server.host, host);
    EXPECT_STREQ(all.server.vendor, " ");
    EXPECT_STREQ(all.server.project, " ");
    EXPECT_STREQ(all.server.device_id, " ");
    EXPECT_EQ(all.keep, keep);
}

// The keys in the order in which read_all comes to them.
const Lines kKeys = {"UART port path=",
                     "UART port path=",
                     "UART baudrate=",
                     "UART flow control=",
                     "debug port path=",
                     "debug port baudrate=",
                     "debug port flow control=",
                     "debug socket ip=",
                     "debug socket port=",
                     "SPI port path=",
                     "SPI frequency=",
                     "SPI bit order=",
                     "SPI CPHA=",
                     "SPI CPOL=",
                     "Power control gpio=",
                     "Reset GNSS gpio=",
                     "Notify GNSS gpio=",
                     "NMEA file path=",
                     "LOG path=",
                     "DA path=",
                     "image path=",
                     "XOD file path=",
                     "XOD host=",
                     "XOD vendor=",
                     "XOD project=",
                     "XOD device id=",
                     "keep good files="};

long open_files() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::string sample() {
    std::ifstream file(TAVOR_SAMPLE_CONFIG, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

TEST_F(LocationConfig, EveryGetterFallsBackToItsDefaultWithoutAFile) {
    AllSettings all = {};
    const Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    expect_defaults(all, TAVOR_XOD_HOST);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), kOpenFail), static_cast<long>(kKeys.size()));
    EXPECT_EQ(lines.size(), 2 * kKeys.size());
}

TEST_F(LocationConfig, EveryGetterFallsBackToItsDefaultWithoutItsKey) {
    config("nothing to see\n");
    AllSettings all = {};
    const Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    expect_defaults(all, TAVOR_XOD_HOST);
    EXPECT_EQ(lines.size(), kKeys.size());
}

TEST_F(LocationConfig, PrintsOneLineAKeyAfterAllKeysOfTheRecordAreRead) {
    Lines expected_open_fails(3, kOpenFail);
    SerialPortConfig uart = {};
    Lines lines = lines_of(capture_stdout([&] { location_config_get_uart(&uart); }));
    expected_open_fails.insert(expected_open_fails.end(), {"[LOCSERV] INF: [CFG]UART path:/dev/ttyS1",
                                                           "[LOCSERV] INF: [CFG]UART baudrate:921600",
                                                           "[LOCSERV] INF: [CFG]UART flow control:0"});
    EXPECT_EQ(lines, expected_open_fails);
}

TEST_F(LocationConfig, ReadsEveryKeyAndPrintsItsLine) {
    // Each key's value is its place in the list, so that no two settings can be taken for each other.
    std::string content;
    for (size_t i = 1; i < kKeys.size(); ++i) {
        content += kKeys[i] + std::to_string(100 + i) + "\n";
    }
    config(content);
    AllSettings all = {};
    const Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    EXPECT_EQ(lines, (Lines{
                         "[LOCSERV] INF: [CFG]UART path:101",
                         "[LOCSERV] INF: [CFG]UART path:101",
                         "[LOCSERV] INF: [CFG]UART baudrate:102",
                         "[LOCSERV] INF: [CFG]UART flow control:103",
                         "[LOCSERV] INF: [CFG]debug port path:104",
                         "[LOCSERV] INF: [CFG]debug port baudrate:105",
                         "[LOCSERV] INF: [CFG]debug port flow control:106",
                         "[LOCSERV] INF: [CFG]debug socket ip:107",
                         "[LOCSERV] INF: [CFG]debug port baudrate:108",
                         "[LOCSERV] INF: [CFG]spi port path:109",
                         "[LOCSERV] INF: [CFG]spi frequencey:110",
                         "[LOCSERV] INF: [CFG]spi bit order:111",
                         "[LOCSERV] INF: [CFG]spi cpha:112",
                         "[LOCSERV] INF: [CFG]spi cpol:113",
                         "[LOCSERV] INF: [CFG]Power control gpio:114",
                         "[LOCSERV] INF: [CFG]Reset GNSS gpio:115",
                         "[LOCSERV] INF: [CFG]Notify GNSS gpio:116",
                         "[LOCSERV] INF: [CFG]nmea path:117",
                         "[LOCSERV] INF: [CFG]log path:118",
                         "[LOCSERV] INF: [CFG]DA path:119",
                         "[LOCSERV] INF: [CFG]image path:120",
                         "[LOCSERV] INF: [CFG]XOD file path:121",
                         "[LOCSERV] INF: [CFG]XOD host:122",
                         "[LOCSERV] INF: [CFG]XOD vendor:123",
                         "[LOCSERV] INF: [CFG]XOD project:124",
                         "[LOCSERV] INF: [CFG]XOD device id:125",
                         "[LOCSERV] INF: [CFG]keep good files:126",
                     }));
    EXPECT_STREQ(all.uart_path, "101");
    EXPECT_STREQ(all.uart.path, "101");
    EXPECT_EQ(all.uart.baud_rate, 102);
    EXPECT_EQ(all.uart.flow_control, 103);
    EXPECT_STREQ(all.debug_port.path, "104");
    EXPECT_EQ(all.debug_port.baud_rate, 105);
    EXPECT_EQ(all.debug_port.flow_control, 106);
    EXPECT_STREQ(all.debug_socket.ip, "107");
    EXPECT_EQ(all.debug_socket.port, 108);
    EXPECT_STREQ(all.spi.path, "109");
    EXPECT_EQ(all.spi.frequency, 110);
    EXPECT_EQ(all.spi.bit_order, 111);
    EXPECT_EQ(all.spi.cpha, 112);
    EXPECT_EQ(all.spi.cpol, 113);
    EXPECT_EQ(all.power, 114);
    EXPECT_EQ(all.reset, 115);
    EXPECT_EQ(all.notify, 116);
    EXPECT_STREQ(all.nmea, "117");
    EXPECT_STREQ(all.log, "118");
    EXPECT_STREQ(all.da, "119");
    EXPECT_STREQ(all.image, "120");
    EXPECT_STREQ(all.xod, "121");
    EXPECT_STREQ(all.server.host, "122");
    EXPECT_STREQ(all.server.vendor, "123");
    EXPECT_STREQ(all.server.project, "124");
    EXPECT_STREQ(all.server.device_id, "125");
    EXPECT_EQ(all.keep, 126);
}

TEST_F(LocationConfig, RecordsLogTheirOpenFailuresBeforeAnyValue) {
    const std::vector<std::pair<size_t, void (*)()>> records = {
        {3,
         [] {
             SerialPortConfig record;
             location_config_get_debug_port(&record);
         }},
        {2,
         [] {
             DebugSocketConfig record;
             location_config_get_debug_socket(&record);
         }},
        {5,
         [] {
             SpiPortConfig record;
             location_config_get_spi(&record);
         }},
        {4,
         [] {
             XodServerConfig record;
             location_config_get_xod_server(&record);
         }},
    };
    for (const auto& [keys, getter] : records) {
        const Lines lines = lines_of(capture_stdout(getter));
        ASSERT_EQ(lines.size(), 2 * keys);
        for (size_t i = 0; i < keys; ++i) {
            EXPECT_EQ(lines[i], kOpenFail);
            EXPECT_NE(lines[keys + i], kOpenFail);
        }
    }
}

TEST_F(LocationConfig, CommentedOutLineAboveTheLiveOneWins) {
    config("#UART port path=/dev/ttyS7\nUART port path=/dev/ttyS2\n");
    EXPECT_EQ(text("UART port path="), "/dev/ttyS7");
}

TEST_F(LocationConfig, LiveLineAboveTheCommentedOutOneWins) {
    config("UART port path=/dev/ttyS2\n#UART port path=/dev/ttyS7\n");
    EXPECT_EQ(text("UART port path="), "/dev/ttyS2");
}

TEST_F(LocationConfig, KeyAtTheTailOfAnotherLinesTextMatchesThatLine) {
    config("OLDXOD host=a.example\nXOD host=b.example\n");
    EXPECT_EQ(text("XOD host="), "a.example");
}

TEST_F(LocationConfig, FirstOfTwoKeysInOneLineCounts) {
    config("XOD host=a XOD host=b\n");
    EXPECT_EQ(text("XOD host="), "a XOD host=b");
}

TEST_F(LocationConfig, KeysAreCaseSensitive) {
    config("xod host=a.example\n");
    EXPECT_EQ(text("XOD host="), "default");
}

TEST_F(LocationConfig, CarriageReturnBeforeTheNewlineGoesWithIt) {
    config("DA path=/a\r\nimage path=/b\n");
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_EQ(text("image path="), "/b");
}

TEST_F(LocationConfig, OnlyTheLastCarriageReturnBeforeTheNewlineIsDropped) {
    config("DA path=/a\r\r\nimage path=/b\rc\n");
    EXPECT_EQ(text("DA path="), "/a\r");
    EXPECT_EQ(text("image path="), "/b\rc");
}

TEST_F(LocationConfig, CarriageReturnStaysWhereNoNewlineFollows) {
    config("DA path=/a\r");
    EXPECT_EQ(text("DA path="), "/a\r");
}

TEST_F(LocationConfig, LastLineCountsWithoutANewline) {
    config("x\nDA path=/a");
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_TRUE(log.empty());
}

TEST_F(LocationConfig, BlanksAroundTheValueAreKept) {
    config("DA path=  /a b  \n");
    EXPECT_EQ(text("DA path="), "  /a b  ");
}

TEST_F(LocationConfig, EmptyValueIsNotTheDefault) {
    config("XOD vendor=\nXOD project=\r\nXOD device id=");
    EXPECT_EQ(text("XOD vendor="), "");
    EXPECT_EQ(text("XOD project="), "");
    EXPECT_EQ(text("XOD device id="), "");
}

TEST_F(LocationConfig, ValueOf200CharactersIsCutTo127) {
    config("DA path=" + std::string(200, 'x') + "\n");
    EXPECT_EQ(text("DA path="), std::string(127, 'x'));
    config("DA path=" + std::string(127, 'x') + "\n");
    EXPECT_EQ(text("DA path="), std::string(127, 'x'));
}

TEST_F(LocationConfig, DefaultIsCutTo127Characters) {
    const std::string long_default(200, 'd');
    char value[kConfigTextSize];
    capture_stdout([&] { location_config_get_path(value, long_default.c_str(), "DA path="); });
    EXPECT_EQ(value, std::string(127, 'd'));
}

TEST_F(LocationConfig, LongLineIsSearchedInPiecesOf255Characters) {
    config(std::string(255, '.') + "DA path=/second piece\n");
    EXPECT_EQ(text("DA path="), "/second piece");
    config(std::string(251, '.') + "DA path=/split key\n");
    EXPECT_EQ(text("DA path="), "default");
    config(std::string(240, '.') + "DA path=/the value is split\n");
    EXPECT_EQ(text("DA path="), "/the va");
}

TEST_F(LocationConfig, NumberOutOfLettersIsZero) {
    config("SPI frequency=fast\n");
    EXPECT_EQ(num("SPI frequency="), 0);
}

TEST_F(LocationConfig, NumbersAreReadUpToTheFirstNonDigit) {
    const std::vector<std::pair<std::string, int32_t>> cases = {
        {"24000000", 24000000},
        {"  42", 42},
        {"\t+5", 5},
        {"-17", -17},
        {"12abc", 12},
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
}

TEST_F(LocationConfig, AbsurdlyLongNumberIsHarmless) {
    config("SPI frequency=" + std::string(200, '9') + "\n");
    EXPECT_NE(num("SPI frequency="), 7);
}

TEST_F(LocationConfig, MissingNumberIsTheDefault) {
    config("SPI CPHA=1\n");
    EXPECT_EQ(num("SPI CPOL="), 7);
    EXPECT_TRUE(log.empty());
}

TEST_F(LocationConfig, OpenFailureOfANumberIsLoggedWithThePathReadersText) {
    EXPECT_EQ(num("SPI CPOL="), 7);
    EXPECT_EQ(log, Lines{kOpenFail});
}

TEST_F(LocationConfig, FileThatCanNotBeReadNowHasItsLastContentStandIn) {
    const struct {
        const char* function;
        int error;
    } failures[] = {{"open", EMFILE}, {"open", ENFILE}, {"open", ENOMEM}, {"open", EIO}, {"open", EACCES}};
    config("DA path=/a\nSPI CPOL=1\n");
    text("image path=");
    for (const auto& failure : failures) {
        interpose_fail(failure.function, 1, failure.error);
        EXPECT_EQ(text("DA path="), "/a") << failure.error;
        EXPECT_EQ(log, (Lines{kOpenFail, stands_in(failure.error)}));
        interpose_fail(failure.function, 1, failure.error);
        EXPECT_EQ(num("SPI CPOL="), 1) << failure.error;
        interpose_fail(failure.function, 1, failure.error);
        EXPECT_EQ(text("image path="), "default") << "the file names none";
        EXPECT_EQ(num("SPI CPOL="), 1);
        EXPECT_TRUE(log.empty());
    }
}

TEST_F(LocationConfig, ContentThatCanNotBeReadIsNotTakenForTheFile) {
    config("DA path=/a\n");
    text("DA path=");
    config("DA path=/b\n");
    g_fread_fails = true;
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_EQ(log, Lines{stands_in(EIO)});
    EXPECT_EQ(text("DA path="), "/b");
    g_malloc_fails = true;
    EXPECT_EQ(text("DA path="), "/b");
    EXPECT_EQ(log, Lines{stands_in(ENOMEM)});
}

TEST_F(LocationConfig, FileThatIsGoneMeansDefaultsAlsoWhenItCanNotBeReadLater) {
    config("DA path=/a\n");
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

TEST_F(LocationConfig, FoundTextIsKeptWhenClosingFails) {
    config("DA path=/a\n");
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_EQ(log, Lines{kPathCloseFail});
}

TEST_F(LocationConfig, DefaultTextIsGivenWhenClosingFails) {
    config("x\n");
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(text("DA path="), "default");
    EXPECT_EQ(log, Lines{kPathCloseFail});
}

TEST_F(LocationConfig, FoundNumberIsStoredWhenClosingFails) {
    config("SPI CPOL=1\n");
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(num("SPI CPOL="), 1);
    EXPECT_EQ(log, Lines{kNumCloseFail});
}

TEST_F(LocationConfig, DefaultNumberIsStoredWhenClosingFails) {
    config("x\n");
    interpose_fail("fclose", 1, EIO);
    EXPECT_EQ(num("SPI CPOL="), 7);
    EXPECT_EQ(log, Lines{kNumCloseFail});
}

TEST_F(LocationConfig, FailedOpenOfEachKeyChangesNothing) {
    config("SPI port path=/dev/spidev0.0\nSPI frequency=1\nSPI bit order=1\nSPI CPHA=1\nSPI CPOL=1\n");
    text("SPI port path=");
    for (int nth = 1; nth <= 5; ++nth) {
        interpose_fail("open", nth, EMFILE);
        SpiPortConfig spi = {};
        const Lines lines = lines_of(capture_stdout([&] { location_config_get_spi(&spi); }));
        ASSERT_EQ(lines.size(), 7U);
        EXPECT_EQ(lines[0], kOpenFail);
        EXPECT_STREQ(spi.path, "/dev/spidev0.0");
        EXPECT_EQ(spi.frequency + spi.bit_order + spi.cpha + spi.cpol, 4);
    }
}

TEST_F(LocationConfig, ChangeOfTheFileTakesEffectAtTheNextCall) {
    config("DA path=/a\n");
    EXPECT_EQ(text("DA path="), "/a");
    config("DA path=/b\n");
    EXPECT_EQ(text("DA path="), "/b");
}

TEST_F(LocationConfig, NulBytesEndTheLineTheyStandIn) {
    config(std::string("DA path=/a\0b\nimage path=/c\n", 28));
    EXPECT_EQ(text("DA path="), "/a");
    EXPECT_EQ(text("image path="), "/c");
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

TEST_F(LocationConfig, ThreadCancelledBeforehandEndsAtTheLogLineWithTheFileClosed) {
    config("Power control gpio=5\n");
    int32_t gpio = 0;
    void* end = nullptr;
    const auto before = open_files();
    capture_stdout([&] {
        pthread_t thread;
        pthread_create(
            &thread, nullptr,
            [](void* number) -> void* {
                pthread_cancel(pthread_self());
                location_config_get_power_gpio(static_cast<int32_t*>(number));
                return nullptr;
            },
            &gpio);
        pthread_join(thread, &end);
    });
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(gpio, 5);
    EXPECT_EQ(open_files(), before);
}

TEST_F(LocationConfig, SampleHoldsEveryDefaultButKeepsGoodFiles) {
    config(sample());
    AllSettings all = {};
    const Lines lines = lines_of(capture_stdout([&] { read_all(&all); }));
    expect_defaults(all, "assist.tavor.example", 1);
    EXPECT_EQ(lines.size(), kKeys.size());
}

TEST_F(LocationConfig, SampleHoldsEachKeyOnceAndAtTheStartOfItsLine) {
    const Lines lines = lines_of(sample());
    for (const std::string& key : kKeys) {
        size_t found = 0;
        for (const std::string& line : lines) {
            const size_t at = line.find(key);
            found += at == std::string::npos ? 0 : 1;
            EXPECT_TRUE(at == std::string::npos || at == 0) << line;
            EXPECT_LT(line.size(), 255U) << line;
        }
        EXPECT_EQ(found, 1U) << key;
    }
}

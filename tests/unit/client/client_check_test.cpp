// What 'tavorctl check' says of settings, devices, files and system. The devices are a board's in this
// process.
#include "client/check.h"
#include "client/host_lookup.h"
#include "interpose/fail.h"

#include "support/board_local.h"
#include "support/capture.h"
#include "support/nobody.h"
#include "support/private_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char kGood[] = "Power control gpio=17\nXOD vendor=v\nXOD project=p\nXOD device id=1\n";
constexpr int64_t kNow = 1760000000;

// A place with these settings.
struct Scene {
    explicit Scene(const std::string& config = kGood) {
        directory.write("tavor.conf", config);
        const timespec times[2] = {{kNow, 0}, {kNow, 0}};
        utimensat(AT_FDCWD, (directory.path / "tavor.conf").c_str(), times, 0);
        place = place_of(directory.path / "socket");
    }
    PrivateDir directory;
    Place place;
};

std::string text_of(const Findings& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += finding_line(finding);
    }
    return text;
}

std::string settings_of(const std::string& config) {
    Findings findings;
    check_settings(findings, Scene(config).place);
    return text_of(findings);
}

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Bound as a daemon's.
int bind_socket(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

// A serial line: a terminal of the kernel's.
struct Line {
    Line() : master(posix_openpt(O_RDWR | O_NOCTTY)) {
        EXPECT_EQ(grantpt(master), 0);
        EXPECT_EQ(unlockpt(master), 0);
        path = ptsname(master);
        slave = open(path.c_str(), O_RDWR | O_NOCTTY);
    }
    ~Line() {
        close(slave);
        close(master);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    int master;
    int slave = -1;
    std::string path;
};

void give_up(int capability) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    EXPECT_EQ(syscall(SYS_capget, &header, data), 0);
    data[0].effective &= ~(1U << static_cast<unsigned>(capability));
    data[0].permitted = data[0].effective;
    EXPECT_EQ(syscall(SYS_capset, &header, data), 0);
}

std::string serial_of(const std::string& config, bool daemon_runs = false) {
    Findings findings;
    check_serial(findings, Scene(config).place, daemon_runs);
    return text_of(findings);
}

// A board with its power line at 17.
class CheckDevices : public testing::Test {
protected:
    CheckDevices() {
        BoardOptions options;
        options.power_pin = 17;
        options.spi_path = "/dev/spidev1.0";
        board_init(board, options);
        board_local_connect(board);
    }
    ~CheckDevices() override {
        board_local_disconnect();
    }
    static std::string spi(const std::string& config, bool daemon_runs = false) {
        Findings findings;
        check_spi(findings, Scene(config).place, daemon_runs);
        return finding_line(findings.at(0));
    }
    static std::string line(const std::string& config, bool daemon_runs = false) {
        Findings findings;
        check_power_line(findings, Scene(config).place, daemon_runs);
        return text_of(findings);
    }
    static void write_node(const char* path, const char* text) {
        const int fd = open(path, O_WRONLY);
        EXPECT_EQ(write(fd, text, strlen(text)), static_cast<ssize_t>(strlen(text))) << path;
        close(fd);
    }
    Board board;
};

} // namespace

TEST(CheckSettings, GoodFileIsOneLine) {
    EXPECT_TRUE(holds(settings_of("some prose\n" + std::string(kGood)),
                      "/tavor.conf is read, every key and value is known\n"));
}

TEST(CheckSettings, DirectoryInThePlaceOfTheFileIsNamed) {
    const PrivateDir directory;
    directory.write("tavor.conf/file", "");
    Findings findings;
    check_settings(findings, place_of(directory.path / "socket"));
    EXPECT_TRUE(holds(text_of(findings), "/tavor.conf can't be read: no regular file"));
}

TEST(CheckSettings, MissingFileIsBad) {
    Findings findings;
    check_settings(findings, place_of("/none/socket"));
    EXPECT_EQ(findings.at(0).grade, Grade::kBad);
    EXPECT_TRUE(holds(findings.at(0).remedy, "copy the sample"));
}

TEST(CheckSettings, UnknownKeyIsNamedWithTheNearestOne) {
    EXPECT_EQ(
        settings_of("\nSPI frequancy=12\n"),
        "doubtful  settings: line 2: there is no setting 'SPI frequancy='; the nearest is 'SPI frequency=': "
        "correct or remove the line\n");
}

TEST(CheckSettings, LinesThatCountUnexpectedlyAreTold) {
    EXPECT_TRUE(
        holds(settings_of("#SPI CPHA=1\n"), "line 1: 'SPI CPHA=' counts here, though it stands after '#'"));
    EXPECT_TRUE(holds(settings_of("SPI CPHA=1\nSPI CPOL=0\nSPI CPHA=0\n"),
                      "line 3: 'SPI CPHA=' stands in line 1 already"));
    EXPECT_TRUE(
        holds(settings_of(std::string(300, 'x') + "\nSPI CPHA= 0 \n"), "line 2: 'SPI CPHA=' counts as 0:"));
}

TEST(CheckSettings, ValuesThatMeanNothingAreTold) {
    EXPECT_TRUE(holds(settings_of("Power control gpio=\n"),
                      "bad       settings: line 1: 'Power control gpio=' has no number"));
    EXPECT_TRUE(holds(settings_of("SPI frequency=99999999999\n"), "of more than 32 bits"));
    EXPECT_TRUE(
        holds(settings_of("SPI frequency=0\n"), "bad       settings: SPI frequency=0; set Hz, above 0\n"));
    EXPECT_TRUE(holds(settings_of("SPI bit order=2\n"), "SPI bit order=2; set 0 least"));
    EXPECT_TRUE(holds(settings_of("debug socket port=65536\n"), "1 to 65535"));
    EXPECT_TRUE(holds(settings_of("debug socket ip=gnss\n"), "'gnss' is no IPv4 address"));
    EXPECT_TRUE(holds(settings_of("LOG path=/x \n"), "'LOG path=' begins or ends in a blank"));
    EXPECT_TRUE(holds(settings_of("LOG path=/" + std::string(127, 'x') + "\n"), "is cut at 127 characters"));
    EXPECT_FALSE(holds(settings_of("debug port path= \r\n"), "debug port"));
}

TEST_F(CheckDevices, DeviceThatTakesTheSettingsIsGoodAndGetsItsOwnBack) {
    const int fd = open("/dev/spidev1.0", O_RDWR); // keeps the device from its defaults
    const uint32_t mode = SPI_MODE_3;
    const uint32_t speed_hz = 123456;
    ASSERT_EQ(ioctl(fd, SPI_IOC_WR_MODE32, &mode), 0);
    ASSERT_EQ(ioctl(fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed_hz), 0);
    EXPECT_EQ(spi("SPI frequency=1000\n"),
              "good      SPI device: /dev/spidev1.0 takes clock mode, word size, bit order and 1000 Hz\n");
    EXPECT_EQ(board_spi(board).mode, mode);
    EXPECT_EQ(board_spi(board).speed_hz, speed_hz);
    close(fd);
}

TEST_F(CheckDevices, DeviceThatRefusesOrIsMissingIsBad) {
    EXPECT_TRUE(
        holds(spi("SPI port path=/dev/spidev7.7\n"), "bad       SPI device: /dev/spidev7.7 is not there; "));
    EXPECT_TRUE(
        holds(spi("SPI frequency=0\n"), "bad       SPI device: refuses 0 Hz: Invalid argument; lower"));
    EXPECT_TRUE(holds(spi("SPI CPHA=7\nSPI CPOL=70\n"), "bad       SPI device: refuses clock mode 147"));
    EXPECT_TRUE(holds(spi("SPI port path=/dev/null\n"), "/dev/null is no device of spidev"));
    EXPECT_TRUE(holds(spi("SPI port path=/dev/spidev7.7\n", true),
                      "bad       SPI device: /dev/spidev7.7 is not there"));
}

TEST_F(CheckDevices, DeviceOfAProgramThatLetsNobodyInNamesTheWayToIt) {
    const Scene scene("SPI port path=/dev/spidev1.0\n");
    interpose_fail("open", 1, EBUSY);
    Findings findings;
    check_spi(findings, scene.place, false);
    interpose_fail_reset();
    EXPECT_EQ(
        finding_line(findings.at(0)),
        "bad       SPI device: /dev/spidev1.0 is in use by a program that lets nobody else in; 'fuser -v "
        "/dev/spidev1.0' names it: end it\n");
}

TEST_F(CheckDevices, NothingIsTriedOnTheDeviceOfADaemonThatRuns) {
    const int fd = open("/dev/spidev1.0", O_RDWR);
    EXPECT_TRUE(holds(spi("SPI frequency=0\n", true), "skipped   SPI device: /dev/spidev1.0 is there"));
    EXPECT_TRUE(holds(line(kGood, true), "skipped   power line: line 17 is left out"));
    EXPECT_EQ(board_pins(board).count(17), 0U);
    close(fd);
}

TEST_F(CheckDevices, LineIsGivenBackOnlyWhenItWasExportedHere) {
    EXPECT_EQ(line(kGood), "good      power line: line 17 can be switched; now an input, low\n");
    EXPECT_FALSE(board_pins(board).at(17).exported);
    write_node("/sys/class/gpio/export", "17");
    EXPECT_EQ(line(kGood), "good      power line: line 17 can be switched; now an input, low\n");
    EXPECT_TRUE(board_pins(board).at(17).exported);
}

TEST_F(CheckDevices, LineIsLeftToADaemonThatHasStartedMeanwhile) {
    const Scene scene;
    const int daemon = bind_socket(scene.place.socket);
    Findings findings;
    check_power_line(findings, scene.place, false); // as it was seen before
    EXPECT_EQ(text_of(findings),
              "skipped   power line: line 17 is left to a daemon that has started meanwhile\n");
    EXPECT_TRUE(board_pins(board).at(17).exported);
    close(daemon);
}

TEST_F(CheckDevices, LineThatPowersTheChipWithoutADaemonIsDoubtful) {
    write_node("/sys/class/gpio/export", "17");
    write_node("/sys/class/gpio/gpio17/direction", "high");
    EXPECT_TRUE(holds(line(kGood), "doubtful  power line: line 17 can be switched; it is high"));
    EXPECT_TRUE(
        holds(line(kGood, true), "good      power line: line 17 can be switched; now an output, high"));
}

TEST_F(CheckDevices, LineThatIsNotThereOrNotNamedIsBad) {
    EXPECT_TRUE(holds(line("Power control gpio=99999\n"),
                      "bad       power line: line 99999 does not exist; correct"));
    EXPECT_TRUE(holds(line(""), "bad       power line: none is named"));
}

TEST(CheckSerial, LineThatTheSettingsNameIsTriedAndGetsItsOwnSpeedBack) {
    const Line line;
    termios before = {};
    ASSERT_EQ(tcgetattr(line.slave, &before), 0);
    cfsetospeed(&before, B9600);
    ASSERT_EQ(tcsetattr(line.slave, TCSANOW, &before), 0);
    EXPECT_EQ(serial_of("debug port path=" + line.path + "\ndebug port baudrate=460800\n"),
              "good      serial line: " + line.path + " takes 460800 bits a second\n");
    termios after = {};
    ASSERT_EQ(tcgetattr(line.slave, &after), 0);
    EXPECT_EQ(cfgetospeed(&after), static_cast<speed_t>(B9600));
    EXPECT_EQ(serial_of("debug port path=" + line.path + "\ndebug port baudrate=1234\n"),
              "doubtful  serial line: the daemon has no speed of 1234: it counts as 115200 bits a second; "
              "correct 'debug port baudrate='\n");
    EXPECT_EQ(serial_of("debug port path=" + line.path + "\n", true),
              "skipped   serial line: " + line.path +
                  " is there; its speed is left out: a daemon runs and may use it\n");
    EXPECT_EQ(serial_of(""), "") << "none is named";
}

TEST(CheckSerial, LineThatIsNotThereOrNoneIsDoubtful) {
    for (const bool daemon_runs : {false, true}) {
        EXPECT_TRUE(
            holds(serial_of("debug port path=/dev/none\n", daemon_runs),
                  "doubtful  serial line: /dev/none is not there; only 'tavorctl debug serial' needs it"));
    }
    EXPECT_TRUE(holds(serial_of("debug port path=/dev/null\n"), "/dev/null is no serial line"));
}

TEST(CheckSerial, LineOfAProgramThatLetsNobodyInNamesTheWayToIt) {
    as_nobody([] { // the kernel lets root in all the same
        const Line line;
        ASSERT_EQ(ioctl(line.slave, TIOCEXCL), 0);
        EXPECT_TRUE(holds(serial_of("debug port path=" + line.path + "\n"),
                          line.path + " is in use by a program that lets nobody else in; 'fuser -v " +
                              line.path + "' names it"));
    });
}

TEST(CheckRights, UserOfTheServiceIsTheOneWhoMustBeAbleTo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "takes root";
    }
    const std::string unit = "LoadState=loaded\nUser=nobody\nGroup=daemon\nSupplementaryGroups=sys 54321\n";
    const Scene scene;
    const auto directory = [&] {
        Findings findings;
        check_directories(findings, scene.place);
        return finding_line(findings.at(0));
    };
    {
        const DaemonRights rights(unit);
        EXPECT_EQ(getegid(), getgrnam("daemon")->gr_gid);
        EXPECT_TRUE(holds(directory(), "bad       socket: ")) << directory();
        EXPECT_TRUE(holds(directory(), "Permission denied")) << directory();
    }
    EXPECT_EQ(geteuid() + getuid() + getegid(), 0U);
    EXPECT_TRUE(holds(directory(), "good      socket: ")) << directory();

    const std::optional<ServiceUser> user = check_rights_user(unit);
    EXPECT_EQ(std::count(user->groups.begin(), user->groups.end(), getgrnam("sys")->gr_gid), 1);
    EXPECT_EQ(std::count(user->groups.begin(), user->groups.end(), 54321U), 1);
}

TEST(CheckRights, SaysAsWhomItLooksAndWhatItCanNotSee) {
    const auto rights = [](const std::string& unit) {
        Findings findings;
        check_rights(findings, unit);
        return text_of(findings);
    };
    EXPECT_TRUE(holds(rights("User=nobody-of-this-name\n"), "bad       rights: there is no user"));
    if (geteuid() == 0) {
        EXPECT_EQ(rights("User=\n"), "") << "root looks for root";
        EXPECT_TRUE(holds(rights("User=65534\n"), "are looked at as user nobody, as whom")) << "by number";
        EXPECT_TRUE(holds(rights("User=nobody\n"), "not looked at: DeviceAllow= of the unit"));
    }
    as_nobody([&] {
        if (geteuid() != 0) {
            EXPECT_TRUE(
                holds(rights("User=root\n"), "skipped   rights: this user's count here, not those of root"));
        }
    });
}

// In a process of its own, for what is given up does not come back.
TEST(CheckRights, RightsThatCanNotBeTakenAreNotClaimed) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "takes root";
    }
    for (const int capability : {CAP_SETGID, CAP_SETUID}) {
        EXPECT_EXIT(
            {
                give_up(capability);
                Findings findings;
                check_rights(findings, "User=nobody\nGroup=daemon\n");
                fputs(text_of(findings).c_str(), stderr);
                _exit(geteuid() == 0 && getegid() == 0 ? 0 : 1);
            },
            testing::ExitedWithCode(0), "^doubtful  rights: the look is made as root: the rights of nobody")
            << capability;
    }
}

TEST(CheckFiles, DirectoriesThatAreMissingOrNoneAreBad) {
    const Scene scene("LOG path=/none/log\n");
    scene.directory.write("xod", "a file");
    Findings findings;
    check_directories(findings, scene.place);
    const std::string text = text_of(findings);
    EXPECT_TRUE(holds(text, "good      socket: "));
    EXPECT_TRUE(
        holds(text, "bad       outlet's log file: /none: No such file or directory; make the directory"));
    EXPECT_TRUE(holds(text, "/xod is no directory; remove what stands there, or correct 'XOD file path='"));
}

namespace {

std::string clock_at(const Scene& scene, int64_t now) {
    Findings findings;
    check_clock(findings, scene.place, now);
    return text_of(findings);
}

// A file of GPS and GLONASS that begins this many hours from now.
std::string hour_word(int hours) {
    const auto hour = static_cast<uint32_t>((time(nullptr) - 315964800) / 3600 + hours);
    return {static_cast<char>(hour), static_cast<char>(hour >> 8U), static_cast<char>(hour >> 16U), '\x01'};
}

void write_orbits(const Scene& scene, int hours) {
    scene.directory.write("xod/XOD_GR_3_1.DAT", hour_word(hours));
}

} // namespace

TEST(CheckClock, TimeBeforeAnyFileIsBad) {
    const Scene scene;
    EXPECT_TRUE(holds(clock_at(scene, 1000), "bad       clock: it is not set"));
    EXPECT_TRUE(holds(clock_at(scene, kNow - 90000), "was written later than now"));
    EXPECT_EQ(clock_at(scene, kNow - 80000), "good      clock: it agrees with the files\n");
}

TEST(CheckClock, AssistanceFilesTellAClockThatIsBehindOrAhead) {
    const Scene scene;
    write_orbits(scene, -71);
    EXPECT_EQ(clock_at(scene, kNow), "good      clock: it agrees with the files\n");
    write_orbits(scene, 5);
    EXPECT_TRUE(holds(clock_at(scene, kNow), "bad       clock: an assistance file begins 5 h ahead of it"));
    write_orbits(scene, -100);
    EXPECT_TRUE(holds(clock_at(scene, kNow), "doubtful  clock: every assistance file ran out 28 h ago"));
}

TEST(CheckClock, DamagedAssistanceFileIsThatFilesFault) {
    const Scene scene;
    const auto damaged = [](const std::string& name, const char* why) {
        return "doubtful  assistance file: " + name + " " + why +
               ": it is damaged; remove it: the daemon fetches another\ngood      clock: it agrees with the files\n";
    };
    scene.directory.write("xod/XOD_GR_3_1.DAT", "<htm");
    EXPECT_EQ(clock_at(scene, kNow), damaged("XOD_GR_3_1.DAT", "begins at an hour that can't be its own"));
    scene.directory.write("xod/XOD_GR_3_1.DAT", std::string(72, '\0'));
    EXPECT_EQ(clock_at(scene, kNow), damaged("XOD_GR_3_1.DAT", "begins at an hour that can't be its own"));
    scene.directory.write("xod/XOD_GR_3_1.DAT", "<h");
    EXPECT_EQ(clock_at(scene, kNow), damaged("XOD_GR_3_1.DAT", "is too short"));
    write_orbits(scene, 500);
    EXPECT_TRUE(holds(clock_at(scene, kNow), "bad       clock: ")) << "the only file may well be right";
    std::string galileo(72, 'h');
    galileo += hour_word(-1);
    scene.directory.write("xod/XOD_GAL_3.DAT", galileo);
    EXPECT_EQ(clock_at(scene, kNow), damaged("XOD_GR_3_1.DAT", "begins at an hour that can't be its own"));
}

TEST(CheckSystem, HostIsReadWithoutItsPortAndPath) {
    for (const auto& [host, name] : {std::pair("example", "example"),
                                     {"example:80", "example"},
                                     {"example/", "example"},
                                     {"example:80/a/b", "example"},
                                     {"[::1]:80", "::1"},
                                     {"[::1]", "::1"},
                                     {"[fe80::1]/x", "fe80::1"}}) {
        EXPECT_EQ(check_host_name(host), name) << host;
    }
}

TEST(CheckSystem, HostOfAnotherFormIsBad) {
    const auto host = [](const std::string& text) {
        Findings findings;
        check_assistance(findings, Scene(std::string(kGood) + "XOD host=" + text + "\n").place);
        return finding_line(findings.back());
    };
    EXPECT_EQ(host("[::1]:80/"), "good      assistance host: [::1]:80/ has an address\n");
    EXPECT_TRUE(
        holds(host("http://x"), "bad       assistance host: 'XOD host=http://x' is no host; write the host"));
    EXPECT_TRUE(
        holds(host("::1"), "bad       assistance host: 'XOD host=::1' is no host; write an IPv6 address in"));
    EXPECT_TRUE(holds(host("a b"), "is no host; write a name or an address"));
    EXPECT_TRUE(holds(host(" "), "is no host; write a name or an address"));
}

TEST(CheckSystem, IdentityMustBeSetWithoutBlanks) {
    const auto identity = [](const std::string& config) {
        Findings findings;
        check_assistance(findings, Scene(config + "XOD host=127.0.0.1:80\n").place);
        EXPECT_EQ(findings.back().grade, Grade::kGood) << findings.back().text;
        findings.pop_back();
        return text_of(findings);
    };
    EXPECT_EQ(identity(kGood), "good      identity: vendor, project and device id are set\n");
    EXPECT_TRUE(
        holds(identity("XOD vendor=v\n"), "doubtful  identity: 'XOD project=', 'XOD device id=' not set"));
    EXPECT_TRUE(holds(identity("XOD project=p\nXOD device id=1\nXOD vendor=a b\n"),
                      "bad       identity: XOD vendor=a b has a blank"));
}

TEST(CheckSystem, HostIsLookedUpWithinALimit) {
    EXPECT_EQ(host_lookup("127.0.0.1", std::chrono::seconds(20)), "");
    EXPECT_NE(host_lookup("no such host", std::chrono::seconds(20)), "");
}

TEST(CheckSystem, DaemonThatRunsIsADoubt) {
    Findings findings;
    DaemonProbe daemon;
    check_daemon(findings, daemon);
    daemon.running = true;
    daemon.pid = 5;
    check_daemon(findings, daemon);
    daemon.running = false;
    check_daemon(findings, daemon);
    EXPECT_EQ(findings.at(0).grade, Grade::kDoubtful);
    EXPECT_EQ(finding_line(findings.at(1)).rfind("doubtful  daemon: one runs (process 5)", 0), 0U);
    EXPECT_EQ(findings.at(2).grade, Grade::kGood);
}

TEST(CheckSystem, RightsThatAUserLacksAreBadForRootOnly) {
    EXPECT_EQ(check_denied(EACCES), geteuid() == 0 ? Grade::kBad : Grade::kDoubtful);
    EXPECT_EQ(check_denied(EROFS), Grade::kBad);
}

TEST(Finding, WorstCountsAndTextIsSafe) {
    const Findings findings = {
        {Grade::kGood, "a", "b"}, {Grade::kSkipped, "a", "b"}, {Grade::kDoubtful, "a", "b\x1b", "c"}};
    EXPECT_EQ(finding_worst(findings), Grade::kDoubtful);
    EXPECT_EQ(finding_worst({}), Grade::kGood);
    EXPECT_EQ(finding_summary(findings), "1 good, 1 doubtful, 1 skipped");
    EXPECT_EQ(finding_line(findings[2]), "doubtful  a: b\\x1b; c\n");
    EXPECT_EQ(finding_json(findings[0]),
              "{\"type\":\"check\",\"subject\":\"a\",\"grade\":\"good\",\"text\":\"b\",\"remedy\":null}\n");
}

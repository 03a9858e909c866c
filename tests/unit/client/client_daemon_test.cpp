// What is found out about a daemon without asking it: process, files, log.
#include "client/daemon_files.h"
#include "client/daemon_probe.h"
#include "client/log_past.h"
#include "client/tool_output.h"

#include "support/bound_socket.h"
#include "support/private_dir.h"
#include "support/wait.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

// A place with these settings.
struct Scene {
    explicit Scene(const std::string& config = "") {
        directory.write("tavor.conf", config);
        place = place_of(directory.path / "socket");
    }
    PrivateDir directory;
    Place place;
};

// A program that prints this text.
std::string script(const PrivateDir& directory, const std::string& name, const std::string& text) {
    const std::string path = directory.write(name, "#!/bin/sh\n" + text + "\n");
    chmod(path.c_str(), 0755);
    return path;
}

// The word of an assistance file's segment that starts at this GPS hour.
std::string hour_word(uint32_t hour) {
    return {static_cast<char>(hour), static_cast<char>(hour >> 8), static_cast<char>(hour >> 16), '\x7f'};
}

uint32_t gps_hour_of_now() {
    return static_cast<uint32_t>((time(nullptr) - 315964800) / 3600); // since 1980-01-06
}

} // namespace

TEST(Place, FilesOfADaemonLieBesideItsSocket) {
    const Scene scene("xLOG path=/data/x\nSPI frequency=12x\n");
    EXPECT_EQ(place_path(scene.place, "/etc/default/tavor/xod"), scene.directory.path.string() + "/xod");
    EXPECT_EQ(place_path(scene.place, "/data/x"), "/data/x");
    EXPECT_EQ(place_text(scene.place, CONFIG_LOG_PATH), "/data/x");
    EXPECT_EQ(place_text(scene.place, CONFIG_SPI_PATH), "/dev/spidev1.0");
    EXPECT_EQ(place_number(scene.place, CONFIG_SPI_FREQUENCY), 12);
    EXPECT_EQ(place_number(scene.place, CONFIG_POWER_GPIO), kGpioNotConfigured);
    EXPECT_EQ(place_of("/none/socket").config_error, ENOENT);
}

TEST(Place, RelaysSocketStandsForTheUsualDaemons) {
    const Place place = place_of("/run/tavor/relay.sock");
    EXPECT_EQ(place.socket, "/etc/default/tavor/tavor_sun_path")
        << "status and check look for the daemon here";
    EXPECT_EQ(place.directory, "/etc/default/tavor");
    EXPECT_TRUE(place.usual);
}

TEST(DaemonProbe, LockHolderIsFoundByDeviceAndFile) {
    const std::string locks = "1: FLOCK  ADVISORY  WRITE 11 fe:01:77 0 EOF\n"
                              "2: POSIX  ADVISORY  WRITE 12 fe:00:77 0 EOF\n"
                              "3: -> FLOCK  ADVISORY  WRITE 13 fe:00:77 0 EOF\n"
                              "4: FLOCK  ADVISORY  READ 15 fe:00:77 0 EOF\n"
                              "5: FLOCK  ADVISORY  WRITE 14 fe:00:77 0 EOF\n";
    EXPECT_EQ(daemon_probe_lock_holder(locks, makedev(0xfe, 0), 77), 14);
    EXPECT_FALSE(daemon_probe_lock_holder(locks, makedev(0xfe, 0), 7));
    EXPECT_FALSE(daemon_probe_lock_holder("noise\n\n1:\n", makedev(0xfe, 0), 77));
}

TEST(DaemonProbe, NothingAtThePathIsNoDaemon) {
    const Scene scene;
    EXPECT_EQ(daemon_probe(scene.place).running, false);
    { const BoundSocket gone(scene.place.socket); }
    EXPECT_EQ(daemon_probe(scene.place).running, false) << "a socket file that a daemon left behind";
    EXPECT_EQ(daemon_probe(place_of("/none/socket")).running, false);
}

TEST(DaemonProbe, SocketAloneTellsADaemonButNotWhichProcess) {
    const Scene scene;
    const BoundSocket bound(scene.place.socket);
    const DaemonProbe probe = daemon_probe(scene.place);
    EXPECT_EQ(probe.running, true);
    EXPECT_TRUE(probe.reachable);
    EXPECT_EQ(probe.pid, -1);
    EXPECT_FALSE(probe.version_why.empty());
    char byte = 0;
    EXPECT_EQ(recv(bound.fd, &byte, 1, MSG_DONTWAIT), -1) << "nothing is sent";
}

TEST(DaemonProbe, LockTellsTheProcessAlsoWithoutASocket) {
    const Scene scene;
    const pid_t child = fork();
    if (child == 0) {
        const int directory = open(scene.directory.path.c_str(), O_RDONLY | O_DIRECTORY);
        flock(directory, LOCK_EX | LOCK_NB);
        execl("/bin/sleep", "sleep", "600", nullptr);
        _exit(1);
    }
    DaemonProbe probe;
    EXPECT_TRUE(wait_until([&] {
        probe = daemon_probe(scene.place);
        return probe.program.find("sleep") != std::string::npos;
    }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(probe.running, true);
    EXPECT_FALSE(probe.reachable);
    EXPECT_EQ(probe.pid, child);
    EXPECT_EQ(probe.version, "");
    EXPECT_EQ(probe.version_why, "its executable does not tell a version");
    ASSERT_TRUE(probe.since);
    const double age_s =
        std::chrono::duration<double>(std::chrono::system_clock::now() - *probe.since).count();
    EXPECT_GE(age_s, -1);
    EXPECT_LT(age_s, 600);
}

TEST(ToolOutput, IsReadWithinItsLimitAndTheProgramIsEnded) {
    const PrivateDir directory;
    const ToolOutput good =
        tool_output({script(directory, "good", "echo \"$1\"; env | wc -l"), "a b"}, milliseconds(20000));
    EXPECT_TRUE(good.started && good.whole);
    EXPECT_EQ(good.text.substr(0, 4), "a b\n");
    EXPECT_LE(strtol(good.text.c_str() + 4, nullptr, 10), 4) << "a shell adds some of its own to PATH";
    const ToolOutput slow =
        tool_output({script(directory, "slow", "echo begun; exec sleep 600")}, milliseconds(300));
    EXPECT_TRUE(slow.started);
    EXPECT_FALSE(slow.whole);
    EXPECT_FALSE(tool_output({directory.path / "none"}, milliseconds(300)).started);
}

TEST(DaemonFiles, AssistanceFilesTellTheirHoursAndSizes) {
    const Scene scene;
    EXPECT_FALSE(daemon_files_assistance(scene.place)) << "no directory";
    scene.directory.write("xod/XOD_GR_3_1.DAT", hour_word(gps_hour_of_now() - 10) + std::string(100, 'x'));
    scene.directory.write("xod/XOD_BDS_3.DAT", std::string(72, 'h') + hour_word(gps_hour_of_now() - 72));
    const auto files = daemon_files_assistance(scene.place);
    ASSERT_TRUE(files && files->size() == 3);
    EXPECT_EQ(files->at(0).name, "XOD_GR_3_1.DAT");
    EXPECT_EQ(files->at(0).size, 104U);
    EXPECT_NEAR(files->at(0).hours.value_or(-1), 62, 1);
    EXPECT_EQ(files->at(1).hours, 0);
    EXPECT_FALSE(files->at(2).size);
}

TEST(DaemonFiles, LocationFileTellsWhatItHolds) {
    const Scene scene;
    EXPECT_FALSE(daemon_files_location(scene.place));
    EXPECT_EQ(errno, ENOENT);
    scene.directory.write("location.dat",
                          "UTC=123519.00\nlongitude=11.5\nlatitude=-48.25\nmajorAxis=\nheight=x\n");
    const auto saved = daemon_files_location(scene.place);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->position.utc, "123519.00");
    EXPECT_EQ(saved->position.longitude, 11.5);
    EXPECT_EQ(saved->position.latitude, -48.25);
    EXPECT_FALSE(saved->position.majorAxis || saved->position.height);
    EXPECT_LT(saved->age_s.value_or(1000), 100);
}

TEST(DaemonFiles, FixIsTakenFromAnOutletThatIsWrittenNow) {
    const Scene scene;
    EXPECT_FALSE(daemon_files_fix(scene.place));
    const std::string path = scene.directory.write(
        "log.dat",
        "9,4807.038,N\r\n$GPGGA,123519,4807.038,N,01131.000,E,2,08,0.9,545.4,M,46.9,M,,*47\r\n$GPGGA,12");
    EXPECT_EQ(daemon_files_fix(scene.place).value_or(Fix{}).satellites, 8);
    const timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    utimensat(AT_FDCWD, path.c_str(), old, 0);
    EXPECT_FALSE(daemon_files_fix(scene.place));
}

TEST(DaemonFiles, OpenFilesTellOutletAndLog) {
    const Scene scene("LOG path=/etc/default/tavor/out\n");
    EXPECT_FALSE(daemon_files_outlet(scene.place, getpid()));
    const int file = open(scene.directory.write("out", "").c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(daemon_files_outlet(scene.place, getpid()), Outlet::kFile);
    close(file);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(listen(listener, 1), 0);
    EXPECT_EQ(daemon_files_outlet(scene.place, getpid()), Outlet::kTcp);
    close(listener);
}

TEST(DaemonFiles, PowerLineOfAnotherPlaceIsNotTakenFromThisMachine) {
    const Scene scene("Power control gpio=17\n");
    std::string why;
    EXPECT_FALSE(daemon_files_power(scene.place, why));
    EXPECT_NE(why, "");
}

TEST(LogPast, FileIsReadFromAWholeLineOn) {
    const PrivateDir directory;
    const PastLog small = log_past_file(directory.write("small", "a\nb\nunended"));
    EXPECT_TRUE(small.whole);
    ASSERT_EQ(small.lines.size(), 2U);
    EXPECT_EQ(small.lines[1].text, "b");
    EXPECT_FALSE(small.lines[1].at);
    const PastLog large = log_past_file(directory.write("large", std::string(600000, 'x') + "\nlast\n"));
    EXPECT_FALSE(large.whole);
    ASSERT_EQ(large.lines.size(), 1U);
    EXPECT_EQ(large.lines[0].text, "last");
    EXPECT_EQ(log_past_file(directory.path / "none").why, "the log can't be read: No such file or directory");
    EXPECT_EQ(log_past_file(directory.path).why, "the log can't be read: no regular file");
}

TEST(LogPast, LineOfTheJournalIsTakenApart) {
    const auto line = log_past_journal_line("1700000000.250000 host tavor[12]: [LOCSERV] INF: x]: y");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->at, 1700000000.25);
    EXPECT_EQ(line->text, "[LOCSERV] INF: x]: y");
    EXPECT_FALSE(log_past_journal_line("-- Boot 123 --"));
    EXPECT_FALSE(log_past_journal_line(""));
}

TEST(LogPast, JournalsEventsStandBeforeItsLatestLines) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "the journal's right is looked at first";
    }
    const PrivateDir directory;
    script(directory, "journalctl",
           "case \"$*\" in\n"
           "*--grep=*) echo '100.5 h tavor[1]: started' ;;\n"
           "*) echo '300.0 h tavor[1]: third'; echo '200.0 h tavor[1]: second' ;;\nesac");
    const std::string path = std::string(getenv("PATH"));
    setenv("PATH", (directory.path.string() + ":" + path).c_str(), 1);
    const PastLog log = log_past_journal(std::chrono::system_clock::now());
    setenv("PATH", path.c_str(), 1);
    ASSERT_EQ(log.lines.size(), 3U) << log.why;
    EXPECT_TRUE(log.whole);
    EXPECT_EQ(log.lines[0].text, "started");
    EXPECT_EQ(log.lines[1].text, "second");
    EXPECT_EQ(log.lines[2].at, 300.0);
}

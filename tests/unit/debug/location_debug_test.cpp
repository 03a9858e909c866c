#include "debug/location_debug.h"

#include "debug_fixture.h"
#include "interpose/fail.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

const std::string kWriteFail = "[LOCSERV] ERR: [debug] write to file fail";

} // namespace

TEST_F(DebugTest, OffAndUnknownModesDropTheStreamSilently) {
    for (const uint32_t mode : {DEBUG_MODE_OFF + 0U, 4U}) {
        EXPECT_EQ(location_debug_set_mode(mode), 0);
        EXPECT_EQ(location_debug_start(), 0);
        handle_text("$GPGGA");
        location_debug_close();
    }
    EXPECT_EQ(log_lines(), std::vector<std::string>{});
    EXPECT_TRUE(wait_until([&] { return running_threads() == threads_before; })); // joined, but not yet gone
}

TEST_F(DebugTest, LogFileHoldsTheStreamByteForByteBehindWhatWasThere) {
    directory.write("log.dat", "before");
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    handle_text(binary_data());
    EXPECT_EQ(directory.read("log.dat"), "before" + binary_data()); // at once, for an engineer who watches it
    handle_text("more");
    location_debug_close();
    handle_text("dropped");
    EXPECT_EQ(location_debug_start(), 0);
    handle_text("again");
    EXPECT_EQ(directory.read("log.dat"), "before" + binary_data() + "moreagain");
    EXPECT_EQ(log_lines(), std::vector<std::string>{});
}

TEST_F(DebugTest, UnwritableLogPathFailsAndTheStreamIsDropped) {
    log_path = "/proc/none/log.dat";
    configure();
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), -1);
    handle_text("dropped");
    EXPECT_EQ(log_lines(), std::vector<std::string>{
                               "[LOCSERV] ERR: [debug]location_debug_start fail, /proc/none/log.dat"});

    log_path = (directory.path / "good.dat").string();
    configure();
    EXPECT_EQ(location_debug_start(), 0); // the mode was kept
    handle_text("kept");
    EXPECT_EQ(directory.read("good.dat"), "kept");
}

TEST_F(DebugTest, EachBlockThatAFullDiskRefusesIsReported) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    for (const char* const block : {"one", "two"}) {
        interpose_fail("write", 1, ENOSPC);
        handle_text(block);
    }
    EXPECT_EQ(log_lines(), (std::vector<std::string>{kWriteFail, kWriteFail}));
    handle_text("three");
    EXPECT_EQ(directory.read("log.dat"), "three");
}

TEST_F(DebugTest, PipeOrDeviceIsNoLogFileAndHoldsNothingUp) {
    ASSERT_EQ(mkfifo(log_path.c_str(), 0600), 0);
    EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), -1);
    const int reader = open(log_path.c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(location_debug_start(), -1) << "a pipe that somebody reads";
    log_path = "/dev/full";
    configure();
    EXPECT_EQ(location_debug_start(), -1);
    EXPECT_EQ(log_count("location_debug_start fail"), 3U);
    close(reader);
}

TEST_F(DebugTest, LinkInThePlaceOfTheLogFileIsNotFollowed) {
    const std::string other = (directory.path / "other").string();
    std::filesystem::create_symlink(other, log_path);
    for (int i = 0; i < 2; ++i) {
        location_debug_set_mode(DEBUG_MODE_FILE);
        EXPECT_EQ(location_debug_start(), -1);
        handle_text("abc");
        EXPECT_EQ(directory.read("other"), "");
        std::ofstream(other).flush(); // a link to nothing, then to a file
    }
    EXPECT_EQ(log_lines().back(), "[LOCSERV] ERR: [debug]location_debug_start fail, " + log_path);
}

TEST_F(DebugTest, NewLogFileIsOpenToEveryUserAsFarAsTheUmaskAllows) {
    const mode_t before = umask(S_IWOTH);
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    umask(before);
    struct stat status = {};
    ASSERT_EQ(stat(log_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0664U);
}

TEST_F(DebugTest, StoppingSwitchesOff) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_FILE), 0);
    location_debug_stop();
    handle_text("dropped");
    EXPECT_EQ(location_debug_start(), 0);
    handle_text("dropped");
    EXPECT_EQ(directory.read("log.dat"), "");
}

TEST_F(DebugTest, OutletIsSwitchedWhileTheStreamRuns) {
    std::atomic<bool> ends = false;
    std::thread receive([&] {
        while (!ends) {
            handle_text("0123456789");
        }
    });
    for (int i = 0; i < 60; ++i) {
        for (const uint32_t mode :
             {DEBUG_MODE_FILE, DEBUG_MODE_OFF, DEBUG_MODE_FILE, DEBUG_MODE_SERIAL, DEBUG_MODE_TCP}) {
            EXPECT_EQ(location_debug_set_mode(mode), 0);
        }
    }
    location_debug_stop();
    ends = true;
    receive.join();
    EXPECT_EQ(directory.read("log.dat").size() % 10, 0U);
}

TEST(LocationDebugCloseFd, DescriptorIsForgottenOnlyWhenClosingWorks) {
    const std::pair<int32_t, int32_t> rows[] = {{-1, 0}, {-2, 0}, {1'000'000, -1}};
    for (const auto& [closed, result] : rows) {
        int32_t fd = closed;
        EXPECT_EQ(location_debug_close_fd(&fd), result);
        EXPECT_EQ(fd, closed);
    }
    int32_t fd = open("/dev/null", O_RDWR);
    EXPECT_EQ(location_debug_close_fd(&fd), 0);
    EXPECT_EQ(fd, -1);
}

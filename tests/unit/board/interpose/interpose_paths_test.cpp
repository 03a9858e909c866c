// Which paths and queue keys lead to the board.
#include "interpose/paths.h"
#include "support/private_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sys/ipc.h>
#include <thread>
#include <vector>

namespace {

struct InterposePaths : testing::Test {
    void SetUp() override {
        interpose_set_root(directory.path.string());
    }

    void TearDown() override {
        interpose_set_root("");
    }

    PrivateDir directory;
};

TEST_F(InterposePaths, FixedPathsLieBelowThePrivateDirectory) {
    for (const char* path :
         {"/etc/default/tavor", "/etc/default/tavor/", "/etc/default/tavor/tavor.conf",
          "/etc/default/tavor/da/qx7710_da.bin", "/etc/default/tavor/tavor_sun_path", "/tmp/head.out"}) {
        EXPECT_TRUE(interpose_maps(path)) << path;
        EXPECT_EQ(interpose_map(path), directory.path.string() + path);
    }
}

TEST_F(InterposePaths, OtherPathsStayAsTheyAre) {
    for (const char* path :
         {"", "/", "etc/default/tavor/tavor.conf", "/etc/default/tavorx", "/etc/default", "/etc/passwd",
          "/tmp/head.out2", "/tmp/head", "/tmp/head.out/x", "/dev/spidev1.0"}) {
        EXPECT_FALSE(interpose_maps(path)) << path;
        EXPECT_EQ(interpose_map(path), path);
    }
}

TEST_F(InterposePaths, WithoutAPrivateDirectoryNothingIsMapped) {
    interpose_set_root("");

    EXPECT_FALSE(interpose_maps("/etc/default/tavor/tavor.conf"));
    EXPECT_EQ(interpose_map("/etc/default/tavor/tavor.conf"), "/etc/default/tavor/tavor.conf");
    EXPECT_EQ(interpose_map_key(1234), 1234);
    EXPECT_EQ(interpose_map_key(1235), 1235);
}

TEST_F(InterposePaths, DeviceNodesAreSpiI2cAndGpio) {
    for (const char* path : {"/dev/spidev1.0", "/dev/spidev0.1", "/dev/spidev", "/dev/i2c-0", "/dev/i2c-12",
                             "/sys/class/gpio", "/sys/class/gpio/export", "/sys/class/gpio/gpio17/value"}) {
        EXPECT_TRUE(interpose_is_device(path)) << path;
    }
    for (const char* path : {"", "/dev/null", "/dev/ttyS1", "/dev/i2c", "/sys/class/gpiochip0", "/sys/class",
                             "dev/spidev1.0", "/tmp/dev/spidev1.0"}) {
        EXPECT_FALSE(interpose_is_device(path)) << path;
    }
}

TEST_F(InterposePaths, NoPathIsNeitherMappedNorADevice) {
    EXPECT_FALSE(interpose_maps(nullptr));
    EXPECT_FALSE(interpose_is_device(nullptr));
}

TEST_F(InterposePaths, QueueKeysAreTheDirectorysOwn) {
    const key_t service = interpose_map_key(1234);
    const key_t debug = interpose_map_key(1235);

    EXPECT_NE(service, debug);
    for (const key_t key : {service, debug}) {
        EXPECT_NE(key, IPC_PRIVATE);
        EXPECT_TRUE(key < 0 || key >= 0x10000) << key;
    }
    EXPECT_EQ(interpose_map_key(1234), service) << "the same each time";
    for (const key_t other : {0, 1, 1233, 1236, -1234}) {
        EXPECT_EQ(interpose_map_key(other), other);
    }
}

TEST_F(InterposePaths, OneDirectoryUnderTwoNamesHasOnePairOfKeys) {
    const key_t service = interpose_map_key(1234);
    const std::filesystem::path link = directory.path / "link";
    std::filesystem::create_directory_symlink(directory.path, link);

    interpose_set_root(link.string() + "/../");
    EXPECT_NE(interpose_map_key(1234), 1234);
    interpose_set_root(link.string());
    EXPECT_EQ(interpose_map_key(1234), service);
    interpose_set_root(directory.path.string() + "/");
    EXPECT_EQ(interpose_map_key(1234), service);
}

TEST_F(InterposePaths, ManyDirectoriesHaveManyKeys) {
    std::set<key_t> keys;
    constexpr size_t kDirectories = 2000;
    for (size_t i = 0; i < kDirectories; ++i) {
        interpose_set_root("/missing/tavor-board-" + std::to_string(i));
        keys.insert(interpose_map_key(1234));
        keys.insert(interpose_map_key(1235));
    }
    EXPECT_EQ(keys.size(), 2 * kDirectories);
}

TEST_F(InterposePaths, TheDirectoryMayChangeWhileOthersMap) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 2000; ++round) {
                const std::string path = interpose_map("/tmp/head.out");
                EXPECT_TRUE(path == "/a/tmp/head.out" || path == "/bb/tmp/head.out" || path[1] == 't')
                    << path;
            }
        });
    }
    for (int round = 0; round < 200; ++round) {
        interpose_set_root(round % 2 == 0 ? "/a" : "/bb");
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

} // namespace

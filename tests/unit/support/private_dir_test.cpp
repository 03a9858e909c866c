#include "support/private_dir.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

// Makes a directory in a process of its own, which ends at once when killed, and tidily else. Returns its
// path.
std::string directory_of_a_child(bool killed) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        {
            const PrivateDir directory;
            const std::string path = directory.write("below/file", "x");
            const bool told = write(ends[1], path.data(), path.size()) == static_cast<ssize_t>(path.size());
            if (killed || !told) {
                _exit(told ? 0 : 1);
            }
        }
        _exit(0);
    }
    close(ends[1]);
    char path[PATH_MAX] = {};
    EXPECT_GT(read(ends[0], path, sizeof path - 1), 0);
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return std::filesystem::path(path).parent_path().parent_path();
}

} // namespace

TEST(PrivateDir, DirectoryOfAKilledProcessIsRemovedByTheNextOne) {
    const std::string stale = directory_of_a_child(true);
    const std::string tidy = directory_of_a_child(false);
    EXPECT_FALSE(std::filesystem::exists(stale)) << stale;
    EXPECT_FALSE(std::filesystem::exists(tidy)) << tidy;
}

TEST(PrivateDir, DirectoriesOfLivingProcessesAndOtherNamesStay) {
    const std::string pid = std::to_string(getpid());
    for (const std::string& name :
         std::vector<std::string>{"tavor-test-" + pid + "-living", "tavor-test-1" + pid + "x-gone",
                                  "tavor-test-" + pid, "tavor-test-living-" + pid}) {
        const auto directory = std::filesystem::temp_directory_path() / name;
        std::filesystem::create_directory(directory);
        directory_of_a_child(false);
        EXPECT_TRUE(std::filesystem::remove(directory)) << name;
    }
}

// The client tool with the real daemon on the simulated board.
#include "support/harness.h"

#include <gtest/gtest.h>

namespace {

// A board with a daemon, and the tool for it.
struct Scene {
    explicit Scene(const Arguments& options) : board(options), daemon(board) {}

    RunResult run(const Arguments& arguments) const {
        Arguments line = {TAVOR_CTL_PROGRAM, "--socket", board.socket_path()};
        line.insert(line.end(), arguments.begin(), arguments.end());
        return run_program(line);
    }

    SimulatedBoard board;
    DaemonOnBoard daemon;
};

} // namespace

TEST(ClientOnBoard, DownloadLooksAtItsFilesBeforeTheChipIsTouched) {
    const Scene scene({"--speed", "8", "--boot-window", "60000", "--flash-size", "131072"});
    const PrivateDir& files = scene.board.directory;
    const Arguments download = {"download", "--log", files.path / "daemon.log"};
    files.write("etc/default/tavor/da/qx7710_da.bin", std::string(1025, 'a'));
    files.write("etc/default/tavor/load/flash_download.cfg",
                "- rom:\nfile: a.bin\nname: a\nbegin_address: 0x08000000\n");

    const RunResult refused = scene.run(download);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("/a.bin: No such file or directory; put it beside the image list\n"),
              std::string::npos)
        << refused.err;
    EXPECT_EQ(scene.daemon.log().find("Download start"), std::string::npos);

    files.write("etc/default/tavor/load/a.bin", std::string(0x7001, 'b'));
    EXPECT_EQ(scene.run({"download", "--check"}).status, 0);
    EXPECT_EQ(scene.run({"download", "--check", "--flash", "0x08000000+0x7000"}).status, 1);
    const RunResult written = scene.run(download);
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(written.out.rfind("firmware written\n1 image, 28673 bytes in ", 0), 0U) << written.out;
    EXPECT_NE(written.out.find("; the flash is 0x08000000+0x20000\n"), std::string::npos) << written.out;
}

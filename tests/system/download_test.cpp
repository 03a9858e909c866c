// Firmware downloads by the real daemon into the simulated flash: good ones, every fault and what comes after
// it.
#include "support/harness.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <random>

namespace {

constexpr size_t kFlashSize = 0x20000; // two large blocks to erase
constexpr size_t kFirstSize = 0x7001;  // not a multiple of 4096; an image has a second for each block of it
constexpr size_t kSecondBegin = 0x8000;
constexpr size_t kSecondSize = 0x8000;
constexpr char kImageList[] = "- rom:\n"
                              "    file: first.bin\n"
                              "    name: first\n"
                              "    begin_address: 0x08000000\n"
                              "- rom:\n"
                              "    file: second.bin\n"
                              "    name: second\n"
                              "    begin_address: 0x08008000\n";

// The waits of a download are long: the program's clock runs faster, but not so fast that a busy machine
// can't move a block in its second. The boot ROM's window is measured with it and must not close either.
constexpr char kFast[] = "8";

Arguments fast_board(Arguments more = {}) {
    Arguments options = {"--speed", kFast,          "--boot-window",
                         "60000",   "--flash-size", std::to_string(kFlashSize)};
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

std::string noise(size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

struct DownloadBoard : SimulatedBoard {
    explicit DownloadBoard(const Arguments& options = fast_board())
        : SimulatedBoard(options), first(noise(kFirstSize)), second(noise(kSecondSize)) {
        directory.write("etc/default/tavor/da/qx7710_da.bin", noise(1025));
        directory.write("etc/default/tavor/load/flash_download.cfg", kImageList);
        directory.write("etc/default/tavor/load/first.bin", first);
        directory.write("etc/default/tavor/load/second.bin", second);
    }

    nlohmann::json download() const {
        const auto status = nlohmann::json::parse(ctl({"status", "--json"}), nullptr, false);
        return status.is_object() ? status["download"] : nlohmann::json::object();
    }
    std::string expected_flash() const {
        std::string flash(kFlashSize, '\xFF');
        return flash.replace(0, first.size(), first).replace(kSecondBegin, second.size(), second);
    }

    void run_at(const char* speed) const {
        ctl({"time", "--speed", speed});
    }

    std::string first;
    std::string second;
};

struct Download : testing::Test {
    explicit Download(const Arguments& options = fast_board())
        : board(options), daemon(board), client(board.socket_path()) {}

    int64_t download() const {
        return client.ask(TAVOR_REQUEST_DOWNLOAD, TAVOR_CODE_DOWNLOAD);
    }
    void expect_good_download() const {
        ASSERT_EQ(download(), 0) << daemon.log();
        EXPECT_EQ(board.directory.read("flash.bin"), board.expected_flash());
        EXPECT_EQ(board.directory.read("flash.state"), "bootable\n");
    }
    void expect_positions() const {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        EXPECT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
        EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    }
    bool logged(const std::string& text) const {
        return daemon.log().find(text) != std::string::npos;
    }

    DownloadBoard board;
    DaemonOnBoard daemon;
    TestClient client;
};

// The client tool, whose progress comes from the daemon's log.
struct ToolDownload : Download {
    RunResult run() const {
        return run_program({TAVOR_CTL_PROGRAM, "--socket", board.socket_path(), "download", "--log",
                            board.directory.path / "daemon.log"});
    }
};

struct FaultCase {
    const char* name;
    const char* value;
    int result;       // of the download
    const char* line; // of the daemon's log
    // Each response takes several reads within its second, which must not pass on a busy machine.
    bool patient = false;
};

void PrintTo(const FaultCase& fault, std::ostream* out) {
    *out << fault.name << "=" << fault.value;
}

std::string case_name(const testing::TestParamInfo<FaultCase>& info) {
    std::string name = std::string(info.param.name) + "=" + info.param.value;
    std::erase_if(name, [](unsigned char c) { return isalnum(c) == 0; });
    return name;
}

} // namespace

TEST_F(Download, TwoImagesArriveByteForByteAndTheChipStarts) {
    expect_good_download();
    const auto seen = board.download();
    EXPECT_EQ(seen["result"], "complete");
    EXPECT_EQ(seen["blocks_erased"], 2);
    EXPECT_EQ(seen["blocks_written"], 16);
    EXPECT_EQ(seen["images_checked"], 2);
    EXPECT_EQ(seen["agent_bytes"], 1025);
    EXPECT_EQ(seen["commands_failed"], 0);
    EXPECT_EQ(seen["state"], "off") << "until the next start";
    EXPECT_EQ(board.status("violations"), 0);
    EXPECT_FALSE(logged("[E]")) << daemon.log();
    expect_positions();
    EXPECT_EQ(board.status("violations"), 0);
}

TEST_F(Download, MissingImageListEndsItWithoutTouchingTheChip) {
    std::filesystem::remove(board.directory.path / "etc/default/tavor/load/flash_download.cfg");
    EXPECT_EQ(download(), -1);
    EXPECT_TRUE(logged("open file Failed:"));
    EXPECT_TRUE(logged("Parsing config content failed\n"));
    EXPECT_TRUE(logged("========== Download Fail ========\n"));
    EXPECT_EQ(board.status("cold_boots"), 0);
    EXPECT_EQ(board.status("transfers"), 0);
    expect_positions();
}

TEST_F(Download, ImageBeyondTheFlashIsRefusedByTheAgent) {
    board.directory.write("etc/default/tavor/load/second.bin", noise(kFlashSize));
    EXPECT_EQ(download(), -1);
    EXPECT_TRUE(logged("second.bin FAILED\n"));
    board.directory.write("etc/default/tavor/load/second.bin", board.second);
    expect_good_download();
}

TEST_F(Download, RunningChipIsStoppedFirst) {
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    expect_good_download();
    expect_positions();
}

TEST_F(Download, SecondDownloadReplacesTheFirst) {
    expect_good_download();
    board.first = noise(5000);
    board.directory.write("etc/default/tavor/load/first.bin", board.first);
    expect_good_download();
    EXPECT_EQ(board.download()["completed"], 2);
}

TEST_F(Download, OtherRequestsAreAnsweredBehindIt) {
    ASSERT_TRUE(client.send(TAVOR_REQUEST_DOWNLOAD));
    ASSERT_TRUE(daemon.wait_log("Handshake pass"));
    ASSERT_TRUE(client.send(TAVOR_REQUEST_DEBUG_OFF));
    ASSERT_TRUE(client.send(TAVOR_REQUEST_STOP));
    std::vector<uint32_t> codes;
    while (codes.size() < 3) {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        if (response->code == TAVOR_CODE_DOWNLOAD || response->code == TAVOR_CODE_DEBUG ||
            response->code == TAVOR_CODE_STOP) {
            codes.push_back(response->code);
            EXPECT_EQ(response->value, 0U);
        }
    }
    EXPECT_EQ(codes, (std::vector<uint32_t>{TAVOR_CODE_DOWNLOAD, TAVOR_CODE_DEBUG, TAVOR_CODE_STOP}));
    EXPECT_EQ(board.directory.read("flash.bin"), board.expected_flash());
}

TEST_F(Download, StopEndsAHandshakeThatNeverSucceeds) {
    board.fault("handshake-bad", "2:always");
    ASSERT_TRUE(client.send(TAVOR_REQUEST_DOWNLOAD));
    ASSERT_TRUE(wait_until([&] { return board.status("cold_boots") >= 3; }));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_TRUE(logged("========== Download Fail ========\n"));
    board.fault("all", "off");
    expect_good_download();
}

TEST_F(Download, StopEndsADownloadWhoseChipIsDead) {
    board.run_at("2"); // so that the handshake does not come to its end before
    size_t begun = 0;  // place in the log
    for (const char* fault : {"silence", "zero", "never-ready"}) {
        board.fault(fault, "on");
        ASSERT_TRUE(client.send(TAVOR_REQUEST_DOWNLOAD)) << fault;
        const auto told = [&](const char* text) {
            return daemon.log().find(text, begun) != std::string::npos;
        };
        ASSERT_TRUE(wait_until([&] { return told("Please reboot chip again:"); })) << fault;
        EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0) << fault;
        EXPECT_TRUE(told("download given up: ")) << fault << daemon.log();
        begun = daemon.log().size();
        board.fault("all", "off");
    }
    board.run_at(kFast);
    expect_good_download();
}

TEST_F(Download, KilledDaemonLeavesAChipThatTheNextOneRecovers) {
    board.run_at("4"); // so that it does not come to its end before
    ASSERT_TRUE(client.send(TAVOR_REQUEST_DOWNLOAD));
    ASSERT_TRUE(daemon.wait_log("Download resp address(0x8001000)"));
    daemon.kill();
    board.run_at(kFast);
    EXPECT_EQ(board.download()["state"], "agent");
    EXPECT_EQ(board.directory.read("flash.state"), "no firmware\n");
    daemon.restart();
    expect_good_download();
    expect_positions();
}

TEST_F(Download, CutOffDownloadLeavesASilentChip) {
    board.fault("power-loss", "1@check");
    ASSERT_EQ(download(), -1);
    EXPECT_EQ(board.download()["result"], "cut off");
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(wait_until([&] { return board.status("transfers") > 1000; }));
    EXPECT_EQ(board.download()["state"], "no firmware");
    EXPECT_EQ(board.status("sentences_delivered"), 0);
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    expect_good_download();
    expect_positions();
}

TEST_F(Download, ErrorsOfTheSlaveInTheMiddleAreOvercome) {
    board.run_at("4"); // so that it does not come to its end before
    ASSERT_TRUE(client.send(TAVOR_REQUEST_DOWNLOAD));
    ASSERT_TRUE(daemon.wait_log("Download resp address(0x8001000)"));
    board.fault("status-error", "9:0x18");
    const auto response = client.receive_code(TAVOR_CODE_DOWNLOAD);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value, 0U) << daemon.log();
    EXPECT_GT(board.download()["wake_ups"], 0);
    EXPECT_EQ(board.directory.read("flash.bin"), board.expected_flash());
}

TEST_F(Download, FlashOutlivesTheBoard) {
    board.fault("power-loss", "1@check");
    ASSERT_EQ(download(), -1);
    daemon.kill();
    board.process->end(SIGKILL);
    std::filesystem::remove(board.directory.path / "board.log");
    Arguments again = fast_board({"--dir", board.directory.path.string()});
    again.insert(again.begin(), {TAVOR_BOARD_PROGRAM, "run"});
    delete board.process;
    board.process = new Child(again, board.directory.path / "board.log");
    ASSERT_TRUE(wait_until([&] { return board.directory.read("board.log").find("ready ") == 0; }));
    EXPECT_FALSE(board.download()["bootable"]);
    EXPECT_EQ(board.directory.read("flash.bin"), board.expected_flash()) << "written, but not finished";
    daemon.restart();
    expect_good_download();
    expect_positions();
}

TEST_F(ToolDownload, TellsEveryStepAndTheEnd) {
    const RunResult result = run();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("firmware written\n2 images, 61441 bytes in ", 0), 0U) << result.out;
    EXPECT_EQ(result.err, "tavorctl: handshake\n"
                          "tavorctl: agent\n"
                          "tavorctl: erase\n"
                          "tavorctl: write image 1 of 2 (first.bin)\n"
                          "tavorctl: write image 2 of 2 (second.bin)\n"
                          "tavorctl: check image 1 of 2 (first.bin)\n"
                          "tavorctl: check image 2 of 2 (second.bin)\n"
                          "tavorctl: finish\n");
    EXPECT_EQ(board.directory.read("flash.bin"), board.expected_flash());
}

TEST_F(ToolDownload, DeviceThatCantBeOpenedIsNamed) {
    board.configure("SPI port path", "/none/spidev");
    const RunResult result = run();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tavorctl: the firmware could not be written: '[spi]location_spi_init, open fail'; "
                          "check 'SPI port path=' and the daemon's right to open that device\n");
}

struct DownloadMsbFirst : Download {
    DownloadMsbFirst() : Download(fast_board({"--msb-first", "--conf", "SPI bit order=1"})) {}
};

TEST_F(DownloadMsbFirst, BootRomKeepsItsOrderOfBits) {
    expect_good_download();
    EXPECT_EQ(board.status("violations"), 0);
    expect_positions();
}

struct DownloadIntoEmptyChip : Download {
    DownloadIntoEmptyChip()
        : Download(fast_board({"--flash-empty", "--busy-polls", "2", "--sleepy-polls", "9"})) {}
};

TEST_F(DownloadIntoEmptyChip, BringsItsFirstFirmware) {
    EXPECT_FALSE(board.download()["bootable"]);
    expect_good_download();
    expect_positions();
}

struct DownloadFault : Download, testing::WithParamInterface<FaultCase> {};

TEST_P(DownloadFault, EndsAsItShouldAndTheNextDownloadSucceeds) {
    board.fault(GetParam().name, GetParam().value);
    board.run_at(GetParam().patient ? "4" : kFast);
    EXPECT_EQ(download(), GetParam().result) << daemon.log();
    EXPECT_TRUE(logged(GetParam().line)) << daemon.log();
    EXPECT_TRUE(logged(GetParam().result == 0 ? "========== Download Finish ========\n"
                                              : "========== Download Fail ========\n"));
    board.fault("all", "off");
    board.run_at(kFast);
    expect_good_download();
    expect_positions();
}

INSTANTIATE_TEST_SUITE_P(
    BootRom, DownloadFault,
    testing::Values(
        FaultCase{"boot-silent", "on", -1, "Handshake timeout, please retry!\n"},
        FaultCase{"silence", "on", -1, "1. SPI master CRD retry timeout, read failed\r\n\n"},
        FaultCase{"zero", "on", -1, "[SPIM] 1. SPI master CWR retry timeout, write failed\r\n\n"},
        FaultCase{"handshake-bad", "3:2", 0, "Handshake pass"},
        FaultCase{"echo-bad", "3", -1, "echoU32 want receiveChar 0x18,  receiveChar 0x08\n"},
        FaultCase{"boot-status", "5", -1, "hdl_brom_send_da get status error 4249 (0x1099)\n"},
        // Kept: an error at the two status words of the agent's upload counts as success of that step.
        FaultCase{"boot-status", "6", 0, "hdl_brom_send_da get status error 4249\n"},
        FaultCase{"checksum-bad", "once", -1, "btrom checksum fail, 0x"},
        FaultCase{"status-error", "9:0x08", 0, "Handshake pass"},
        FaultCase{"transfer-fail", "once", 0, "[SPIM] SPI master send CWR command failed\n"},
        FaultCase{"transfer-fail", "always", -1, "Handshake timeout, please retry!\n"},
        FaultCase{"power-loss", "2@agent", -1, "Download Fail"}),
    case_name);

// One response too many puts the stream out of step by one: the flows of erase and write make up for it, the
// first check does not.
INSTANTIATE_TEST_SUITE_P(
    Agent, DownloadFault,
    testing::Values(
        FaultCase{"response-status", "once@size", -1, "hdl_flash_size_kite error, ErrorCode:3\n"},
        FaultCase{"response-status", "once@erase", 0, "FORMAT Re-Send: count = 1\n"},
        FaultCase{"response-status", "always@erase", -1, "FORMAT_TIMEOUT\n"},
        FaultCase{"response-status", "once@check", -1, "check_image_crc error, ErrorCode:3, res_crc="},
        FaultCase{"response-lost", "once@write", 0, "DOWNLOAD Re-Send: count = 1\n"},
        FaultCase{"response-lost", "always@write", -1, "download_sliding_window_flow TIMEOUT\n"},
        FaultCase{"response-late", "300", 0, "Download Finish", true},
        FaultCase{"response-twice", "once@write", -1, "check_image_crc error, ErrorCode:2, res_crc="},
        FaultCase{"response-twice", "once@finish", 0, "Download Finish"},
        FaultCase{"response-foreign", "once@erase", -1, "check_image_crc error, ErrorCode:2, res_crc="},
        FaultCase{"agent-log", "always", 0, "[DA Log] done: 0x4\n", true},
        FaultCase{"agent-garbage", "always", 0, "Download Finish", true},
        FaultCase{"power-loss", "2@write", -1, "download_sliding_window_flow TIMEOUT\n"},
        FaultCase{"power-loss", "1@finish", -1, "hdl_finish_kite error, ErrorCode:1\n"}),
    case_name);

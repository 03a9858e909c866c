// 'tavorctl download' beside a log that is being written.
#include "client/log_source.h"
#include "support/capture.h"
#include "support/client_fake_daemon.h"
#include "support/client_tool.h"
#include "support/private_dir.h"

#include <fstream>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using std::string;

const string kStamp = "2024-05-01 12:00:00.123 [I][   1.234] ";
const string kErrorStamp = "2024-05-01 12:00:00.123 [E][   1.234] ";

string info(const Lines& texts) {
    string log;
    for (const string& text : texts) {
        log += kStamp + text + "\n";
    }
    return log;
}

const string kToTheErase =
    info({"========== Download start ========", "image count=1", "file name=/none/a.bin",
          "begin_address:[0]=> 0x0", "Please reboot chip again:", "========== Handshake pass ==========",
          "########## Format send address(0x0)"});
const string kToTheEnd = info({"Format time: 1 ms", "Download resp address(0x0)", "download /none/a.bin PASS",
                               "Download time: 1 ms", "check_image_crc /none/a.bin PASS",
                               "Check image crc time: 1 ms", "========== Download Finish ========"});

const string kFailure = kErrorStamp + "FORMAT_TIMEOUT\n" + info({"========== Download Fail ========"});

// A daemon that does this when it is asked for a download.
struct Scene {
    explicit Scene(std::function<void(Scene&)> play)
        : daemon(std::make_unique<FakeDaemon>(
              socket_path, [this, play](FakeDaemon&, const tavor_request&) { play(*this); })) {
        directory.write("log", info({"Format time: 1 ms"})); // of an earlier download
    }
    // Writes this log, and then answers, unless the value is none.
    Scene(const string& log, std::optional<uint32_t> value)
        : Scene([log, value](Scene& scene) {
              scene.append(log);
              if (value) {
                  scene.answer(*value);
              }
          }) {}
    void append(const string& log) const {
        std::ofstream(log_path, std::ios::app) << log;
    }
    void answer(uint32_t value) const {
        daemon->send(make_response(TAVOR_CODE_DOWNLOAD, value));
    }
    Lines command(const Lines& arguments) const {
        Lines line = {TAVOR_CTL_PROGRAM, "--socket", socket_path, "download"};
        line.insert(line.end(), arguments.begin(), arguments.end());
        return line;
    }
    // The socket is no daemon's usual one, so nothing is known of the files.
    string not_looked() const {
        return "tavorctl: the daemon's files can't be looked at: its socket " + socket_path +
               " does not end in /etc/default/tavor/tavor_sun_path; the download is requested without that "
               "look\n";
    }
    int run(const Lines& arguments) {
        Tool tool(command(arguments));
        const int status = tool.end();
        out = tool.out;
        err = tool.err;
        return status;
    }

    PrivateDir directory;
    string log_path = directory.path / "log";
    string socket_path = directory.path / "socket";
    std::unique_ptr<FakeDaemon> daemon;
    string out;
    string err;
};

} // namespace

TEST(Download, JsonTellsEachStepOnStandardOutput) {
    Scene scene(kToTheErase + kToTheEnd, 0);
    EXPECT_EQ(scene.run({"--json", "--log", scene.log_path}), 0);
    const Lines lines = lines_of(scene.out);
    ASSERT_EQ(lines.size(), 9U);
    EXPECT_EQ(lines[3].substr(0, 57), R"({"type":"progress","phase":"write","image":1,"images":1,")");
    EXPECT_NE(lines[6].find("\"phase\":\"done\""), string::npos);
    EXPECT_EQ(lines[7].rfind(R"({"type":"summary","images":1,"bytes":null,"seconds":)", 0), 0U) << lines[7];
    EXPECT_NE(lines[8].find("\"type\":\"result\""), string::npos);
    EXPECT_EQ(scene.err, scene.not_looked());
}

TEST(Download, FailureTellsTheDaemonsErrorAndWhatToDo) {
    const string log = kToTheErase + kErrorStamp + "FORMAT_TIMEOUT\n" + kErrorStamp +
                       "format_sliding_window_flow fail\n" + info({"========== Download Fail ========"});
    Scene scene(log, TAVOR_VALUE_FAILED);
    EXPECT_EQ(scene.run({"--log", scene.log_path}), 1);
    EXPECT_EQ(scene.out, "");
    EXPECT_EQ(
        lines_of(scene.err).back(),
        "tavorctl: the firmware could not be written: 'FORMAT_TIMEOUT'; the flash was not erased in time: see "
        "that it is not protected and try again");

    EXPECT_EQ(scene.run({"--json", "--log", scene.log_path}), 1);
    const Lines lines = lines_of(scene.out);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_NE(lines[lines.size() - 3].find(R"({"type":"failure","error":"FORMAT_TIMEOUT")"), string::npos);
}

TEST(Download, LogThatCantBeReadIsToldAndNotNeeded) {
    Scene scene("", 0);
    for (const auto& [log, why] : {std::pair<string, string>{"/none/log", "No such file or directory"},
                                   {scene.directory.path, "Is a directory"}}) {
        EXPECT_EQ(scene.run({"--log", log}), 0);
        EXPECT_EQ(scene.out, "firmware written\n");
        EXPECT_EQ(scene.err, scene.not_looked() + "tavorctl: cannot read the log " + log + ": " + why +
                                 "; only the time is shown\n");
    }
}

TEST(Download, AnswerThatWentElsewhereIsReplacedByTheLog) {
    Scene scene(kToTheErase + kToTheEnd, std::nullopt);
    EXPECT_EQ(scene.run({"--log", scene.log_path}), 0);
    EXPECT_EQ(lines_of(scene.out).front(), "firmware written");
    EXPECT_EQ(lines_of(scene.err).back(),
              "tavorctl: the answer went to another client; the daemon's log tells how it ended");
    // What follows its end is another client's.
    Scene failing(kToTheErase + kFailure + kToTheErase + kToTheEnd, std::nullopt);
    EXPECT_EQ(failing.run({"--log", failing.log_path}), 1);
    EXPECT_NE(failing.err.find("'FORMAT_TIMEOUT'"), string::npos) << failing.err;
}

TEST(Download, JsonHasItsLastEventsWithoutAnAnswerToo) {
    Scene scene(kToTheErase + kToTheEnd, std::nullopt);
    EXPECT_EQ(scene.run({"--json", "--log", scene.log_path}), 0);
    EXPECT_EQ(lines_of(scene.out).back(), R"({"type":"result","request":"download","ok":true,"value":0})");
    Scene failing(kToTheErase + kFailure, std::nullopt);
    EXPECT_EQ(failing.run({"--json", "--log", failing.log_path}), 1);
    const Lines lines = lines_of(failing.out);
    ASSERT_GE(lines.size(), 3U);
    EXPECT_NE(lines[lines.size() - 3].find(R"({"type":"failure","error":"FORMAT_TIMEOUT")"), string::npos);
    EXPECT_NE(lines[lines.size() - 2].find(R"({"type":"result","request":"download","ok":false,)"),
              string::npos);
    EXPECT_NE(lines.back().find(R"({"type":"error","error":"failed","exit":1,)"), string::npos);
}

TEST(Download, AnotherClientsDownloadIsNotThisOne) {
    std::promise<void> waits;
    std::promise<void> erases;
    Scene scene([&](Scene& s) {
        s.append(info({"Download resp address(0x0)"}));
        waits.get_future().wait();
        s.append(info({"========== Download Finish ========"}));
        s.answer(0); // it goes to the latest client
        s.append(kToTheErase);
        erases.get_future().wait();
        s.append(kFailure);
        s.answer(TAVOR_VALUE_FAILED);
    });
    Tool tool(scene.command({"--log", scene.log_path}));
    EXPECT_TRUE(
        tool.wait_err("tavorctl: another client's download is under way; this one begins after it\n"));
    waits.set_value();
    EXPECT_TRUE(tool.wait_err("tavorctl: erase\n"));
    erases.set_value();
    EXPECT_EQ(tool.end(), 1);
    EXPECT_EQ(tool.out, "");
    EXPECT_NE(tool.err.find("'FORMAT_TIMEOUT'"), string::npos) << tool.err;
}

TEST(Download, AnswerThatContradictsTheLogIsAnothers) {
    Scene scene([](Scene& s) {
        s.append(kToTheErase + kFailure);
        s.answer(0);
        s.answer(TAVOR_VALUE_FAILED);
    });
    EXPECT_EQ(scene.run({"--log", scene.log_path}), 1);
    EXPECT_NE(scene.err.find("'FORMAT_TIMEOUT'"), string::npos) << scene.err;
}

TEST(Download, LogThatBreaksOffLeavesTheAnswer) {
    std::promise<void> writes;
    Scene scene([&](Scene& s) {
        s.append(kToTheErase + info({"Format time: 1 ms", "Download resp address(0x0)"}));
        writes.get_future().wait();
        s.answer(0);
    });
    Tool tool(scene.command({"--json", "--timeout", "60", "--log", scene.log_path}));
    EXPECT_TRUE(tool.wait_out("\"done\":4096")); // told in a later look than the step
    writes.set_value();
    EXPECT_EQ(tool.end(), 0);
    EXPECT_NE(tool.out.find("\"ok\":true"), string::npos);
}

TEST(Download, DaemonThatEndsIsNoticed) {
    Scene scene(kToTheErase, std::nullopt);
    Tool tool(scene.command({"--timeout", "0", "--log", scene.log_path}));
    EXPECT_TRUE(tool.wait_err("tavorctl: erase\n"));
    scene.daemon.reset();
    EXPECT_EQ(tool.end(), 3);
    EXPECT_EQ(lines_of(tool.err).back(), "tavorctl: the daemon at " + scene.socket_path +
                                             " ended in mid-download; start it and download again");
}

TEST(Download, RestartedDaemonIsNoticed) {
    Scene scene(kToTheErase, std::nullopt);
    Tool tool(scene.command({"--timeout", "0", "--log", scene.log_path}));
    EXPECT_TRUE(tool.wait_err("tavorctl: erase\n"));
    // In one step, so that the tool never finds none.
    const FakeDaemon next(scene.socket_path + ".next", [](FakeDaemon&, const tavor_request&) {});
    ASSERT_EQ(rename(next.path.c_str(), scene.socket_path.c_str()), 0);
    EXPECT_EQ(tool.end(), 3);
    EXPECT_EQ(lines_of(tool.err).back(), "tavorctl: the daemon at " + scene.socket_path +
                                             " was restarted in mid-download; download again");
}

TEST(Download, DaemonThatEndsBehindItsLastLineLeavesTheResult) {
    Scene scene(kToTheErase + kToTheEnd, std::nullopt);
    Tool tool(scene.command({"--timeout", "0", "--log", scene.log_path}));
    EXPECT_TRUE(tool.wait_err("tavorctl: finish\n"));
    scene.daemon.reset();
    EXPECT_EQ(tool.end(), 0);
    EXPECT_EQ(lines_of(tool.out).front(), "firmware written");
}

TEST(Download, JournalIsFollowedWithoutALog) {
    if (!log_source_journal_is_readable()) {
        GTEST_SKIP() << "this user may not read the journal";
    }
    Scene scene("", 0);
    const string tools = scene.directory.path / "bin";
    const string journal =
        scene.directory.write("bin/journalctl", "#!/bin/sh\necho \"$*\" > \"$0.arguments\"\nprintf '%s' '" +
                                                    kToTheErase + kToTheEnd + "'\nexec sleep 60\n");
    ASSERT_EQ(chmod(journal.c_str(), 0700), 0);
    Tool tool({"/usr/bin/env", "PATH=" + tools + ":/usr/bin:/bin", TAVOR_CTL_PROGRAM, "--socket",
               scene.socket_path, "download"});
    EXPECT_EQ(tool.end(), 0) << tool.err;
    EXPECT_EQ(lines_of(tool.err).back(), "tavorctl: finish");
    const string arguments = scene.directory.read("bin/journalctl.arguments");
    EXPECT_EQ(arguments.find("--namespace=+tavor --unit=tavor --follow --no-tail --since=@"), 0U)
        << arguments;
}

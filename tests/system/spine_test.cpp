// Requests, replies and the flow of sentences, from the client's side.
#include "support/harness.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char kBanner[] = "TAVOR Version:V1.3\n";

bool is_gga(const std::string& sentence) {
    return sentence.size() > 6 && sentence.compare(3, 3, "GGA") == 0;
}

} // namespace

TEST(Spine, StartIsAnsweredThenTheBannerComesBeforeAnySentence) {
    const SimulatedBoard board({"--rate", "10"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_TRUE(client.send(TAVOR_REQUEST_START));
    const auto reply = client.receive();
    const auto banner = client.receive();
    const auto sentence = client.receive();

    ASSERT_TRUE(reply && banner && sentence);
    EXPECT_EQ(reply->code, static_cast<uint32_t>(TAVOR_CODE_START));
    EXPECT_EQ(reply->value, 0U);
    EXPECT_EQ(banner->code, static_cast<uint32_t>(TAVOR_CODE_NMEA));
    EXPECT_EQ(payload_text(*banner), kBanner);
    EXPECT_NE(sentence->code, static_cast<uint32_t>(TAVOR_CODE_START));
}

TEST(Spine, EveryGgaIsPrecededByOnePositionBlock) {
    const SimulatedBoard board({"--rate", "10"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    int pairs = 0;
    uint32_t previous = TAVOR_CODE_START;
    while (pairs < 10) {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        const bool gga = response->code == TAVOR_CODE_NMEA && is_gga(payload_text(*response));
        EXPECT_EQ(gga, previous == TAVOR_CODE_POSITION) << payload_text(*response);
        pairs += gga ? 1 : 0;
        previous = response->code;
    }
}

TEST(Spine, PositionBlockHoldsTheRecordThenZeros) {
    const SimulatedBoard board({"--rate", "10"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    tavor_location_record record = {};
    tavor_response block = {};
    ASSERT_TRUE(wait_until([&] {
        const auto response = client.receive_code(TAVOR_CODE_POSITION);
        if (response) {
            block = *response;
            memcpy(&record, block.payload, sizeof record);
        }
        return record.latitude[0] != '\0' && record.minorAxis[0] != '\0' &&
               record.verticalUncertainty[0] != '\0';
    }));
    EXPECT_EQ(block.value, 0U);
    for (size_t i = sizeof record; i < sizeof block.payload; ++i) {
        ASSERT_EQ(block.payload[i], 0) << i;
    }
}

TEST(Spine, SecondStartRepeatsTheBannerAndStopTwiceSucceeds) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
        ASSERT_TRUE(wait_until([&] {
            const auto response = client.receive_code(TAVOR_CODE_NMEA);
            return response && payload_text(*response) == kBanner;
        }));
    }
    EXPECT_NE(daemon.log().find("[LOCSERV] INF: [IO]location_io_thread_init, tid exist"), std::string::npos);
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
    EXPECT_EQ(client.ask(TAVOR_REQUEST_STOP, TAVOR_CODE_STOP), 0);
}

TEST(Spine, CommandReachesTheChipAndItsAnswerComesBack) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    EXPECT_EQ(client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1"), -1) << "no link before start";
    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    EXPECT_EQ(client.ask(TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1"), 0);
    const auto answer = client.receive_code(TAVOR_CODE_CHIP);
    ASSERT_TRUE(answer);
    EXPECT_EQ(payload_text(*answer).rfind("$PZUL001,353,", 0), 0U) << payload_text(*answer);
    EXPECT_NE(board.ctl({"commands"}).find("$PZUL353,1*"), std::string::npos);
}

TEST(Spine, SavedLocationIsGivenToTheChipAndDeletedAtTheNextDaemonStart) {
    const SimulatedBoard board({"--rate", "10"});
    DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_POSITION));
    std::string file;
    ASSERT_TRUE(wait_until([&] { // once an EPE sentence has come, every value is there
        EXPECT_EQ(client.ask(TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION), 0);
        file = board.directory.read("etc/default/tavor/location.dat");
        return file.find("=\n") == std::string::npos;
    })) << file;
    EXPECT_NE(file.find("heightType=AGL\n"), std::string::npos);

    board.ctl({"send", "PZUL010,2,0"});
    EXPECT_TRUE(wait_until([&] { return board.ctl({"commands"}).find("$PZUL600,") != std::string::npos; }));

    daemon.kill();
    daemon.restart();
    EXPECT_FALSE(std::filesystem::exists(board.directory.path / "etc/default/tavor/location.dat"));
}

TEST(Spine, ReferenceTimeIsGivenOnlyAfterTheAssistanceRequest) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    board.ctl({"send", "PZUL010,1,0"});
    ASSERT_TRUE(client.receive_code(TAVOR_CODE_CHIP)); // handled: it has been passed on to the client
    EXPECT_EQ(board.ctl({"commands"}).find("$PZUL590,"), std::string::npos);

    client.ask(TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST);
    board.ctl({"send", "PZUL010,1,0"});
    EXPECT_TRUE(wait_until([&] { return board.ctl({"commands"}).find("$PZUL590,") != std::string::npos; }));
}

TEST(Spine, PositionRequestWithoutALocationFileIsLoggedWithZerosAndPassedOn) {
    const SimulatedBoard board;
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    board.ctl({"send", "PZUL010,2,0"});
    const auto sentence = client.receive_code(TAVOR_CODE_CHIP);
    ASSERT_TRUE(sentence);
    EXPECT_EQ(payload_text(*sentence).rfind("$PZUL010,2,0*", 0), 0U);
    EXPECT_TRUE(
        daemon.wait_log("[LOCSERV] INF: aiding reference position: 0.000000,0.000000,0.0,0.0,0.0,0.0,0.0\n"));
    EXPECT_EQ(board.ctl({"commands"}).find("$PZUL600,"), std::string::npos);
}

TEST(Spine, BinaryFrameIsLoggedWithItsLengthAndNotSent) {
    const SimulatedBoard board({"--source", "none"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());

    ASSERT_EQ(client.ask(TAVOR_REQUEST_START, TAVOR_CODE_START), 0);
    board.ctl({"send", "--hex", "04240102020041426faa44"}); // 01^02^02^00^41^42 = 02
    board.ctl({"send", "--hex", "042401020200414202aa44"});
    EXPECT_TRUE(daemon.wait_log("[LOCSERV] INF: [binary data]11\n"));
    const std::string log = daemon.log();
    EXPECT_NE(log.find("location_service_message_handle:10\n"), std::string::npos)
        << "the bad checksum is dropped";
    EXPECT_NE(log.find("location_service_message_handle:13\n"), std::string::npos);
}

TEST(Harness, KilledTestLeavesNoProgramBehind) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t test = fork();
    if (test == 0) {
        const SimulatedBoard board;
        while (write(ends[1], &board.process->pid, sizeof(pid_t)) > 0) {
            pause();
        }
        _exit(EXIT_FAILURE);
    }
    close(ends[1]);
    pid_t program = 0;
    EXPECT_EQ(read(ends[0], &program, sizeof program), static_cast<ssize_t>(sizeof program));
    close(ends[0]);
    kill(test, SIGKILL);
    waitpid(test, nullptr, 0);
    ASSERT_GT(program, 0);
    EXPECT_TRUE(wait_until([&] { return kill(program, 0) == -1 && errno == ESRCH; }));
}

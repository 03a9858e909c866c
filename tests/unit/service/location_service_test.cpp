#include "base/descriptor_guard.h"
#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "service/location_service.h"
#include "service/tavor_reply.h"
#include "service_fakes.h"
#include "support/call_fault.h"
#include "support/capture.h"
#include "support/private_dir.h"
#include "support/wait.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <sys/msg.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using Texts = std::vector<std::string>;

namespace {

void* block(const std::string& text) {
    void* made = malloc(text.size() + 1);
    memcpy(made, text.c_str(), text.size() + 1);
    return made;
}

const std::string kBanner("TAVOR Version:V1.3\n\0", 20);

struct ServiceTest : testing::Test {
    void SetUp() override {
        alarm(100); // the service's thread waits for ever
        interpose_set_root(dir.path.string());
        fakes_reset();
        fakes_location_path(dir.write("location.dat", "utc=1\n"));
        g_service_state.xod_enabled = 0;
        g_service_state.response = fakes_response;
        g_service_state.location = {};
        service_queue_open();
    }
    void TearDown() override {
        alarm(0);
        if (running) {
            pthread_cancel(g_service_state.tid);
            pthread_join(g_service_state.tid, nullptr);
        }
        interpose_fail_reset();
        service_queue_open(); // drops what waits
        msgctl(g_service_state.msqid, IPC_RMID, nullptr);
    }
    void init() {
        running = location_service_init(fakes_response) == 0;
        ASSERT_TRUE(running);
    }
    // Handles one message directly and returns what it printed.
    static Texts handle(uint32_t id, void* data = nullptr, uint32_t length = 0) {
        const ServiceMessage message = {.id = id, .data = data, .length = length};
        return lines_of(capture_stdout([&] { location_service_message_handle(&message); }));
    }
    static Texts handle_text(uint32_t id, const std::string& text) {
        return handle(id, block(text), static_cast<uint32_t>(text.size()));
    }
    static std::string handle_line(const std::string& id) {
        return "[LOCSERV] INF: location_service_message_handle:" + id;
    }

    PrivateDir dir;
    bool running = false;
};

} // namespace

TEST_F(ServiceTest, StartSendsBannerThenStartsDebugReceiveThreadAndPower) {
    EXPECT_EQ(handle(SERVICE_START), (Texts{handle_line("0"), "[LOCSERV] INF: location_service_start"}));
    EXPECT_EQ(fakes_texts(), (Texts{"debug_start", "io_init", "power_on", "reply 0 0"}));

    ServiceMessage banner = {};
    ASSERT_TRUE(service_queue_receive(&banner));
    EXPECT_EQ(banner.id, SERVICE_FRAME_NMEA);
    EXPECT_EQ(std::string(static_cast<const char*>(banner.data), banner.length), kBanner);
    free(banner.data);
}

TEST_F(ServiceTest, StartWithoutReceiveThreadFailsAndLeavesTheChipOff) {
    fakes_result("io_init", -1);
    EXPECT_EQ(location_service_start(), -1);
    EXPECT_EQ(fakes_texts(), (Texts{"debug_start", "io_init"}));
}

TEST_F(ServiceTest, StartIgnoresADebugFailureAndReportsAPowerFailure) {
    fakes_result("debug_start", -1);
    fakes_result("power_on", -1);
    handle(SERVICE_START);
    EXPECT_EQ(fakes_texts(), (Texts{"debug_start", "io_init", "power_on", "reply 0 4294967295"}));
}

TEST_F(ServiceTest, StartWithoutMemoryForTheBannerGoesOnWithoutIt) {
    call_faults.malloc = kEachCall;
    const int32_t result = location_service_start();
    call_faults.malloc = kNoFault;
    EXPECT_EQ(result, 0);
    msqid_ds info = {};
    ASSERT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &info), 0);
    EXPECT_EQ(info.msg_qnum, 0U);
}

TEST_F(ServiceTest, StopSwitchesOffClosesDebugAndEndsTheReceiveThread) {
    EXPECT_EQ(handle(SERVICE_STOP), (Texts{handle_line("1"), "[LOCSERV] INF: location_service_stop"}));
    EXPECT_EQ(fakes_texts(), (Texts{"power_off", "debug_close", "io_deinit", "reply 1 0"}));
}

TEST_F(ServiceTest, StopReportsTheReceiveThreadsResultAndALineThatIsStillOn) {
    fakes_result("power_off", -1); // of a line that was never switched on
    EXPECT_EQ(location_service_stop(), 0);
    fakes_result("io_deinit", -1);
    EXPECT_EQ(location_service_stop(), -1);

    fakes_reset();
    fakes_result("power_is_on", 1);
    handle(SERVICE_STOP);
    EXPECT_EQ(fakes_texts(), (Texts{"power_off", "debug_close", "io_deinit", "reply 1 4294967295"}));
}

TEST_F(ServiceTest, DownloadStopsDownloadsSwitchesOffAndRepliesAfterAPause) {
    EXPECT_EQ(handle(SERVICE_DOWNLOAD), (Texts{handle_line("2"), "[LOCSERV] INF: location_service_stop",
                                               "[LOCSERV] INF: location_service_download"}));
    EXPECT_EQ(fakes_texts(), (Texts{"power_off", "debug_close", "io_deinit", "firmware_download", "power_off",
                                    "reply 2 0"}));
    const std::vector<FakeCall> calls = fakes_calls();
    EXPECT_GE(calls[5].at - calls[4].at, std::chrono::microseconds(50000));
}

TEST_F(ServiceTest, DownloadAnswersWithTheDriversResultOnly) {
    fakes_result("power_off", -1);
    fakes_result("io_deinit", -1);
    handle(SERVICE_DOWNLOAD);
    EXPECT_EQ(fakes_texts().back(), "reply 2 0");
    fakes_reset();
    fakes_result("firmware_download", -1);
    handle(SERVICE_DOWNLOAD);
    EXPECT_EQ(fakes_texts(), (Texts{"power_off", "debug_close", "io_deinit", "firmware_download", "power_off",
                                    "reply 2 4294967295"}));
}

TEST_F(ServiceTest, SaveWritesTheStatesLocation) {
    strcpy(g_service_state.location.utc, "010203.000");
    EXPECT_EQ(handle(SERVICE_SAVE_LOCATION), Texts{handle_line("3")});
    EXPECT_EQ(fakes_texts(), (Texts{"save 010203.000", "reply 3 0"}));
    fakes_result("save", -1);
    handle(SERVICE_SAVE_LOCATION);
    EXPECT_EQ(fakes_texts().back(), "reply 3 4294967295");
}

TEST_F(ServiceTest, EachMessageIsLoggedAndHandledInItsWay) {
    const std::string failed = " 4294967295";
    const struct {
        uint32_t id;
        std::optional<std::string> text;
        Texts calls;
    } rows[] = {
        {SERVICE_DEBUG_OFF, {}, {"debug_stop", "reply 4 0"}},
        {SERVICE_DEBUG_FILE, {}, {"debug_mode 1", "reply 5 0"}},
        {SERVICE_DEBUG_SERIAL, {}, {"debug_mode 2", "reply 6 0"}},
        {SERVICE_DEBUG_TCP, {}, {"debug_mode 3", "reply 15 0"}},
        {SERVICE_COMMAND, ",100,1", {"command ,100,1", "reply 7 0"}},
        {SERVICE_COMMAND, {}, {"reply 7" + failed}},
        {SERVICE_ASSIST, {}, {"xod_init 15 1", "reply 8 0"}},
        {SERVICE_ASSIST_RESULT, "\4\3\2\1", {"reply 9 16909060"}},
        {SERVICE_ASSIST_RESULT, "abc", {}}, // without its number it is not read
        {SERVICE_ASSIST_RESULT, {}, {}},
        {SERVICE_FRAME_NONE, "noise", {}},
        {SERVICE_FRAME_NMEA, "$GPGGA*00\r\n", {"nmea 11:$GPGGA*00\r\n", "reply 11 0 11:$GPGGA*00\r\n"}},
        {SERVICE_FRAME_NMEA, {}, {"reply 11 0"}},
        {SERVICE_FRAME_PZUL, "$PZUL1*00\n", {"pzul 10:$PZUL1*00\n"}}, // replies itself
        {SERVICE_FRAME_PZUL, {}, {}},
        {SERVICE_FRAME_BINARY, std::string(321, 'b'), {}},
        {SERVICE_POSITION, "x", {}},
        {16, "x", {}},
        {4000000000U, "x", {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.id);
        fakes_reset();
        Texts lines = {handle_line(row.id == 4000000000U ? "-294967296" : std::to_string(row.id))};
        if (row.id == SERVICE_FRAME_BINARY) {
            lines.emplace_back("[LOCSERV] INF: [binary data]321");
        }
        EXPECT_EQ(row.text ? handle_text(row.id, *row.text) : handle(row.id), lines);
        EXPECT_EQ(fakes_texts(), row.calls);
    }
    EXPECT_EQ(g_service_state.xod_enabled, 1U);
    fakes_result("debug_mode", -1);
    fakes_result("command", -1);
    for (const uint32_t id : {SERVICE_DEBUG_FILE, SERVICE_DEBUG_SERIAL, SERVICE_DEBUG_TCP, SERVICE_COMMAND}) {
        handle_text(id, "");
        EXPECT_EQ(fakes_texts().back(), "reply " + std::to_string(id) + failed);
    }
}

TEST_F(ServiceTest, InitReplacesTheQueueDeletesTheLocationAndResetsTheState) {
    const int32_t old_queue = g_service_state.msqid;
    location_service_task_send_message(SERVICE_START, nullptr, 0);
    g_service_state.xod_enabled = 1;

    const std::string out = capture_stdout([&] {
        init();
        location_service_task_send_message(SERVICE_DEBUG_OFF, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(5));
    });
    EXPECT_NE(g_service_state.msqid, old_queue);
    EXPECT_EQ(g_service_state.xod_enabled, 0U);
    EXPECT_FALSE(std::filesystem::exists(dir.path / "location.dat"));
    EXPECT_EQ(lines_of(out), (Texts{"[LOCSERV] INF: location_service_task_main", handle_line("4")}));
    EXPECT_EQ(fakes_texts(), (Texts{"nmea_path", "xod_mutex_init", "debug_init", "debug_stop", "reply 4 0"}));
}

TEST_F(ServiceTest, InitWithoutAQueueSaysSoAndMakesItLater) {
    interpose_fail("msgget", 2, ENOSPC); // the first one looks for an old queue
    const Texts lines = lines_of(capture_stdout([&] {
        init();
        ASSERT_TRUE(wait_until([] { return g_service_state.msqid != -1; }));
        location_service_task_send_message(SERVICE_DEBUG_OFF, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(5));
    }));
    EXPECT_EQ(lines.front(), "[LOCSERV] ERR: location_service_init, msgid fail");
    EXPECT_EQ(fakes_texts(), (Texts{"nmea_path", "xod_mutex_init", "debug_init", "debug_stop", "reply 4 0"}));
    EXPECT_FALSE(std::filesystem::exists(dir.path / "location.dat"));
}

TEST_F(ServiceTest, InitWithoutAThreadFails) {
    interpose_fail("pthread_create", 2, EAGAIN); // the first one is cancelled
    g_service_state.response = nullptr;
    int32_t result = 0;
    const Texts lines = lines_of(capture_stdout([&] { result = location_service_init(fakes_response); }));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(lines, Texts{"[LOCSERV] ERR: location_service_init, pthread_create fail"});
    EXPECT_EQ(g_service_state.response, &fakes_response) << "it is there before the thread";
}

TEST_F(ServiceTest, CommandBeforeAnAnnouncedStopFailsWithoutTheChip) {
    stop_request_announce();
    handle_text(SERVICE_COMMAND, "353,1");
    EXPECT_EQ(fakes_texts(), Texts{"reply 7 4294967295"});
    stop_request_withdraw();
    handle_text(SERVICE_COMMAND, "353,1");
    EXPECT_EQ(fakes_texts().back(), "reply 7 0");
}

TEST_F(ServiceTest, FourSavesAtMostAreMadeBeforeEachAnnouncedStop) {
    const Texts four = {"save", "reply 3 0", "save", "reply 3 0", "save", "reply 3 0", "save", "reply 3 0"};
    for (const char* stop : {"the first", "the second"}) {
        SCOPED_TRACE(stop);
        fakes_reset();
        stop_request_announce();
        for (int i = 0; i < 4; ++i) {
            handle(SERVICE_SAVE_LOCATION);
        }
        EXPECT_EQ(fakes_texts(), four);
        handle(SERVICE_SAVE_LOCATION);
        EXPECT_EQ(fakes_texts().size(), four.size() + 1) << "the disk is left alone";
        EXPECT_EQ(fakes_texts().back(), "reply 3 4294967295");
        handle(SERVICE_STOP);
        stop_request_withdraw();
    }
    for (int i = 0; i < 6; ++i) {
        handle(SERVICE_SAVE_LOCATION);
        EXPECT_EQ(fakes_texts().back(), "reply 3 0") << "no stop is announced";
    }
}

TEST_F(ServiceTest, ThreadRunsMessagesInOrderAndTheBannerComesBeforeChipData) {
    capture_stdout([&] {
        init();
        location_service_task_send_message(SERVICE_START, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(9));
        location_service_task_send_message(SERVICE_FRAME_NMEA, block("$GPGGA"), 6);
        ASSERT_TRUE(fakes_wait_for(11));
        location_service_task_send_message(SERVICE_START, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(17));
    });
    EXPECT_EQ(fakes_texts(),
              (Texts{"nmea_path", "xod_mutex_init", "debug_init", "debug_start", "io_init", "power_on",
                     "reply 0 0", "nmea 20:" + kBanner, "reply 11 0 20:" + kBanner, "nmea 6:$GPGGA",
                     "reply 11 0 6:$GPGGA", "debug_start", "io_init", "power_on", "reply 0 0",
                     "nmea 20:" + kBanner, "reply 11 0 20:" + kBanner}))
        << "a second start sends the banner again";
}

TEST_F(ServiceTest, DownloadSeesOnlyTheStopsOfOtherRequests) {
    capture_stdout([&] {
        fakes_during("io_deinit", [] { EXPECT_TRUE(stop_request_pending()); });
        fakes_during("firmware_download", [] {
            EXPECT_FALSE(stop_request_pending());
            location_service_task_send_message(SERVICE_STOP, nullptr, 0);
            EXPECT_TRUE(stop_request_pending());
        });
        location_service_task_send_message(SERVICE_DOWNLOAD, nullptr, 0);
        ServiceMessage message = {};
        ASSERT_TRUE(service_queue_receive(&message));
        location_service_message_handle(&message);
        service_queue_handled(message);
        EXPECT_TRUE(stop_request_pending()); // of the stop that waits
        ASSERT_TRUE(service_queue_receive(&message));
        service_queue_handled(message);
        EXPECT_FALSE(stop_request_pending());
    });
}

TEST_F(ServiceTest, AnnouncedStopIsOverWhenTheThreadHasHandledIt) {
    capture_stdout([&] {
        location_service_task_send_message(SERVICE_STOP, nullptr, 0);
        EXPECT_TRUE(stop_request_pending());
        ServiceMessage stop = {};
        ASSERT_TRUE(service_queue_receive(&stop));
        location_service_message_handle(&stop);
        EXPECT_TRUE(stop_request_pending()); // handling alone, without the queue's loop, ends nothing
        service_queue_handled(stop);
        EXPECT_FALSE(stop_request_pending());

        init();
        // From another thread: this one has become the old queue's consumer.
        std::thread([] {
            location_service_task_send_message(SERVICE_STOP, nullptr, 0);
            location_service_task_send_message(SERVICE_DOWNLOAD, nullptr, 0);
            location_service_task_send_message(SERVICE_DEBUG_OFF, nullptr, 0);
        }).join();
        ASSERT_TRUE(fakes_wait_for(4 + 3 + 4 + 6 + 2));
    });
    EXPECT_FALSE(stop_request_pending());
}

TEST_F(ServiceTest, KeptResultArrivesWithoutAnythingElseToDo) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    const DescriptorGuard daemon(ends[0]);
    const DescriptorGuard client(ends[1]);
    tavor_reply_open(daemon.fd);
    tavor_reply_to({.address = {}, .length = 0}); // the other end
    const auto lost = [] {
        return !capture_stdout([] { tavor_send_response(SERVICE_FRAME_NMEA, 0, nullptr, 0); }).empty();
    };
    EXPECT_TRUE(wait_until(lost)) << "the client does not read";
    tavor_send_response(SERVICE_SAVE_LOCATION, 7, nullptr, 0);

    capture_stdout([&] {
        init();
        EXPECT_TRUE(wait_until(
            [&] {
                tavor_response response = {};
                return recv(client.fd, &response, sizeof response, MSG_DONTWAIT) == sizeof response &&
                       response.code == TAVOR_CODE_SAVE_LOCATION;
            },
            std::chrono::seconds(20)));
    });
    EXPECT_FALSE(tavor_reply_retry());
}

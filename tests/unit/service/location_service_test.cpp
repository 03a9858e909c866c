#include "base/descriptor_guard.h"
#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "service/location_service.h"
#include "service/tavor_reply.h"
#include "service_fakes.h"
#include "support/capture.h"
#include "support/private_dir.h"
#include "support/wait.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using Texts = std::vector<std::string>;

namespace {

std::atomic<bool> g_malloc_fails = false;

} // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return g_malloc_fails ? nullptr : __real_malloc(size);
}

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
        drop_messages();
        msgctl(g_service_state.msqid, IPC_RMID, nullptr);
    }
    static void drop_messages() {
        struct {
            long type;
            ServiceMessage body;
        } record = {};
        while (msgrcv(g_service_state.msqid, &record, sizeof record.body, 0, IPC_NOWAIT) != -1) {
            free(record.body.data);
        }
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
    static std::string handle_line(uint32_t id) {
        return "[LOCSERV] INF: location_service_message_handle:" + std::to_string(id);
    }

    PrivateDir dir;
    bool running = false;
};

} // namespace

TEST_F(ServiceTest, StartSendsBannerThenStartsDebugReceiveThreadAndPower) {
    EXPECT_EQ(handle(SERVICE_START), (Texts{handle_line(0), "[LOCSERV] INF: location_service_start"}));
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
    g_malloc_fails = true;
    const int32_t result = location_service_start();
    g_malloc_fails = false;
    EXPECT_EQ(result, 0);
    msqid_ds info = {};
    ASSERT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &info), 0);
    EXPECT_EQ(info.msg_qnum, 0U);
}

TEST_F(ServiceTest, StopSwitchesOffClosesDebugAndEndsTheReceiveThread) {
    EXPECT_EQ(handle(SERVICE_STOP), (Texts{handle_line(1), "[LOCSERV] INF: location_service_stop"}));
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
    EXPECT_EQ(handle(SERVICE_DOWNLOAD), (Texts{handle_line(2), "[LOCSERV] INF: location_service_stop",
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
    EXPECT_EQ(handle(SERVICE_SAVE_LOCATION), Texts{handle_line(3)});
    EXPECT_EQ(fakes_texts(), (Texts{"save 010203.000", "reply 3 0"}));
    fakes_result("save", -1);
    handle(SERVICE_SAVE_LOCATION);
    EXPECT_EQ(fakes_texts().back(), "reply 3 4294967295");
}

TEST_F(ServiceTest, DebugOffStopsThePort) {
    EXPECT_EQ(handle(SERVICE_DEBUG_OFF), Texts{handle_line(4)});
    EXPECT_EQ(fakes_texts(), (Texts{"debug_stop", "reply 4 0"}));
}

TEST_F(ServiceTest, DebugRowsSwitchToTheirModes) {
    const struct {
        uint32_t id;
        std::string mode;
    } rows[] = {{5, "1"}, {6, "2"}, {15, "3"}};
    for (const auto& row : rows) {
        fakes_reset();
        EXPECT_EQ(handle(row.id), Texts{handle_line(row.id)});
        EXPECT_EQ(fakes_texts(), (Texts{"debug_mode " + row.mode, "reply " + std::to_string(row.id) + " 0"}));
        fakes_result("debug_mode", -1);
        handle(row.id);
        EXPECT_EQ(fakes_texts().back(), "reply " + std::to_string(row.id) + " 4294967295");
    }
}

TEST_F(ServiceTest, CommandGoesToTheChip) {
    EXPECT_EQ(handle_text(SERVICE_COMMAND, ",100,1"), Texts{handle_line(7)});
    EXPECT_EQ(fakes_texts(), (Texts{"command ,100,1", "reply 7 0"}));
    fakes_result("command", -1);
    handle_text(SERVICE_COMMAND, "");
    EXPECT_EQ(fakes_texts().back(), "reply 7 4294967295");
}

TEST_F(ServiceTest, CommandWithoutABodyFails) {
    handle(SERVICE_COMMAND);
    EXPECT_EQ(fakes_texts(), Texts{"reply 7 4294967295"});
}

TEST_F(ServiceTest, AssistanceIsEnabledAndStartedForAllTypes) {
    EXPECT_EQ(handle(SERVICE_ASSIST), Texts{handle_line(8)});
    EXPECT_EQ(g_service_state.xod_enabled, 1U);
    EXPECT_EQ(fakes_texts(), (Texts{"xod_init 15 1", "reply 8 0"}));
}

TEST_F(ServiceTest, AssistanceResultIsReportedAsTheValue) {
    const uint32_t result = 0x01020304;
    void* data = malloc(sizeof result);
    memcpy(data, &result, sizeof result);
    EXPECT_EQ(handle(SERVICE_ASSIST_RESULT, data, sizeof result), Texts{handle_line(9)});
    EXPECT_EQ(fakes_texts(), Texts{"reply 9 16909060"});
}

TEST_F(ServiceTest, AssistanceResultWithoutItsNumberIsNotRead) {
    handle(SERVICE_ASSIST_RESULT);
    handle(SERVICE_ASSIST_RESULT, malloc(3), 3);
    EXPECT_EQ(fakes_texts(), Texts{});
}

TEST_F(ServiceTest, DroppedBytesAndPositionIdDoNothing) {
    EXPECT_EQ(handle_text(SERVICE_FRAME_NONE, "noise"), Texts{handle_line(10)});
    EXPECT_EQ(handle_text(SERVICE_POSITION, "x"), Texts{handle_line(14)});
    EXPECT_EQ(fakes_texts(), Texts{});
}

TEST_F(ServiceTest, SentenceIsTrackedBeforeItIsPassedOn) {
    EXPECT_EQ(handle_text(SERVICE_FRAME_NMEA, "$GPGGA*00\r\n"), Texts{handle_line(11)});
    EXPECT_EQ(fakes_texts(), (Texts{"nmea 11:$GPGGA*00\r\n", "reply 11 0 11:$GPGGA*00\r\n"}));
}

TEST_F(ServiceTest, SentenceWithoutDataIsNotTracked) {
    handle(SERVICE_FRAME_NMEA);
    EXPECT_EQ(fakes_texts(), Texts{"reply 11 0"});
}

TEST_F(ServiceTest, ChipResponseGoesToItsHandlerWhichRepliesItself) {
    EXPECT_EQ(handle_text(SERVICE_FRAME_PZUL, "$PZUL1*00\n"), Texts{handle_line(12)});
    EXPECT_EQ(fakes_texts(), Texts{"pzul 10:$PZUL1*00\n"});
}

TEST_F(ServiceTest, ChipResponseWithoutDataIsDropped) {
    handle(SERVICE_FRAME_PZUL, nullptr, 20);
    EXPECT_EQ(fakes_texts(), Texts{});
}

TEST_F(ServiceTest, BinaryFrameIsOnlyLogged) {
    EXPECT_EQ(handle_text(SERVICE_FRAME_BINARY, std::string(321, 'b')),
              (Texts{handle_line(13), "[LOCSERV] INF: [binary data]321"}));
    EXPECT_EQ(fakes_texts(), Texts{});
}

TEST_F(ServiceTest, UnknownIdsAreLoggedAndFreed) {
    EXPECT_EQ(handle_text(16, "x"), Texts{handle_line(16)});
    EXPECT_EQ(handle_text(4000000000U, "x"),
              Texts{"[LOCSERV] INF: location_service_message_handle:-294967296"});
    EXPECT_EQ(fakes_texts(), Texts{});
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
    EXPECT_EQ(lines_of(out), (Texts{"[LOCSERV] INF: location_service_task_main", handle_line(4)}));
    EXPECT_EQ(fakes_texts(), (Texts{"nmea_path", "xod_mutex_init", "debug_init", "debug_stop", "reply 4 0"}));
}

TEST_F(ServiceTest, InitMakesTheQueueOpenToEverybody) {
    capture_stdout([&] { init(); });
    msqid_ds info = {};
    ASSERT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &info), 0);
    EXPECT_EQ(info.msg_perm.mode & 0777U, 0666U);
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
    int32_t result = 0;
    const Texts lines = lines_of(capture_stdout([&] { result = location_service_init(fakes_response); }));
    EXPECT_EQ(result, -1);
    EXPECT_EQ(lines, Texts{"[LOCSERV] ERR: location_service_init, pthread_create fail"});
}

TEST_F(ServiceTest, CallbackIsThereBeforeTheThread) {
    g_service_state.response = nullptr;
    interpose_fail("pthread_create", 2, EAGAIN);
    capture_stdout([] { location_service_init(fakes_response); });
    EXPECT_EQ(g_service_state.response, &fakes_response);
}

TEST_F(ServiceTest, CommandBeforeAnAnnouncedStopFailsWithoutTheChip) {
    stop_request_announce();
    handle_text(SERVICE_COMMAND, "353,1");
    EXPECT_EQ(fakes_texts(), Texts{"reply 7 4294967295"});
    stop_request_withdraw();
    handle_text(SERVICE_COMMAND, "353,1");
    EXPECT_EQ(fakes_texts().back(), "reply 7 0");
}

TEST_F(ServiceTest, ThreadRunsMessagesInOrderAndTheBannerComesBeforeChipData) {
    capture_stdout([&] {
        init();
        location_service_task_send_message(SERVICE_START, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(9));
        location_service_task_send_message(SERVICE_FRAME_NMEA, block("$GPGGA"), 6);
        ASSERT_TRUE(fakes_wait_for(11));
    });
    EXPECT_EQ(fakes_texts(), (Texts{"nmea_path", "xod_mutex_init", "debug_init", "debug_start", "io_init",
                                    "power_on", "reply 0 0", "nmea 20:" + kBanner, "reply 11 0 20:" + kBanner,
                                    "nmea 6:$GPGGA", "reply 11 0 6:$GPGGA"}));
}

TEST_F(ServiceTest, SecondStartSendsTheBannerAgain) {
    capture_stdout([&] {
        init();
        location_service_task_send_message(SERVICE_START, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(9));
        location_service_task_send_message(SERVICE_START, nullptr, 0);
        ASSERT_TRUE(fakes_wait_for(15));
    });
    const Texts texts = fakes_texts();
    EXPECT_EQ(texts[12], "reply 0 0");
    EXPECT_EQ(texts[14], "reply 11 0 20:" + kBanner);
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

TEST_F(ServiceTest, DownloadOfAnotherProgramSeesTheStopsOfAll) {
    const StopRequest stop;
    bool seen = false;
    fakes_during("firmware_download", [&] { seen = stop_request_pending(); });
    handle(SERVICE_DOWNLOAD);
    EXPECT_TRUE(seen);
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

#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "queue/service_queue.h"
#include "queue/service_state.h"
#include "support/capture.h"
#include "support/private_dir.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <sys/msg.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr key_t kServiceQueueKey = 1234;
constexpr unsigned kSmallQueue = 4; // messages
constexpr size_t kBodySize = 24;
constexpr int kListMax = 16384;        // messages
constexpr unsigned kBoundSeconds = 60; // of a test: a send or a receive may wait for ever

const std::vector<std::string> kFailLine = {"[LOCSERV] ERR: location_service_task_send_message, Fail!"};

std::atomic<useconds_t> g_late_us = 0; // how much later each pause ends
std::atomic<int> g_pauses = 0;
std::atomic<uint64_t> g_paused_us = 0; // as they were asked for

} // namespace

extern "C" int __real_usleep(useconds_t us);
extern "C" int __wrap_usleep(useconds_t us) {
    ++g_pauses;
    g_paused_us += us;
    return __real_usleep(us + g_late_us);
}

namespace {

struct ForeignRecord {
    long type;
    union {
        ServiceMessage body;
        unsigned char bytes[100]; // of the longest one that is sent
    };
};

struct QueueTest : testing::Test {
    void SetUp() override {
        alarm(kBoundSeconds);
        interpose_set_root(dir.path.string());
        ASSERT_NE(service_queue_open(), -1);
    }
    void TearDown() override {
        alarm(0);
        interpose_fail_reset();
        service_queue_open(); // drops what waits
        msgctl(g_service_state.msqid, IPC_RMID, nullptr);
    }
    static msqid_ds info() {
        msqid_ds found = {};
        EXPECT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &found), 0);
        return found;
    }
    static void shrink() {
        msqid_ds small = info();
        small.msg_qbytes = kSmallQueue * kBodySize;
        ASSERT_EQ(msgctl(g_service_state.msqid, IPC_SET, &small), 0);
    }
    static void send_number(uint32_t number) {
        void* data = malloc(sizeof number);
        memcpy(data, &number, sizeof number);
        location_service_task_send_message(SERVICE_FRAME_NMEA, data, sizeof number);
    }
    // What another program takes.
    static ServiceMessage steal() {
        ForeignRecord record = {};
        EXPECT_EQ(msgrcv(g_service_state.msqid, &record, kBodySize, 0, IPC_NOWAIT),
                  static_cast<ssize_t>(kBodySize));
        return record.body;
    }
    // Takes a message off the queue, on a thread of its own so that the test's does not become the consumer.
    static ServiceMessage receive() {
        ServiceMessage message = {};
        std::thread([&] { EXPECT_TRUE(service_queue_receive(&message)); }).join();
        return message;
    }
    static bool receive_shortly() {
        bool received = false;
        std::thread([&] {
            ServiceMessage message = {};
            received = service_queue_receive(&message, ServiceQueueWait::shortly);
        }).join();
        return received;
    }
    static uint32_t number_of(const ServiceMessage& message) {
        uint32_t number = 0;
        memcpy(&number, message.data, sizeof number);
        free(message.data);
        return number;
    }
    static void fill() {
        shrink();
        for (uint32_t i = 0; i < kSmallQueue; i++) {
            send_number(i);
        }
        ASSERT_EQ(info().msg_qnum, kSmallQueue);
    }

    PrivateDir dir;
};

void* send_one(void* /*unused*/) {
    QueueTest::send_number(1000);
    return nullptr;
}

void* send_stop(void* /*unused*/) {
    location_service_task_send_message(SERVICE_STOP, nullptr, 0);
    return nullptr;
}

// Cancels a thread that sends while it waits for room.
void cancel_while_waiting(void* (*sends)(void*)) {
    const int before = g_pauses;
    pthread_t sender = {};
    ASSERT_EQ(pthread_create(&sender, nullptr, sends, nullptr), 0);
    while (g_pauses == before) {
        std::this_thread::yield();
    }
    pthread_cancel(sender);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(sender, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

} // namespace

TEST_F(QueueTest, RecordIsTypeOneAndTheMessageAsItLiesInMemory) {
    void* data = malloc(10);
    location_service_task_send_message(SERVICE_FRAME_BINARY, data, 10);
    EXPECT_EQ(info().__msg_cbytes, kBodySize);
    ForeignRecord record = {};
    ASSERT_EQ(msgrcv(g_service_state.msqid, &record, kBodySize, 1, IPC_NOWAIT),
              static_cast<ssize_t>(kBodySize));
    EXPECT_EQ(record.type, 1);
    EXPECT_EQ(record.body.id, SERVICE_FRAME_BINARY);
    EXPECT_EQ(record.body.data, data);
    EXPECT_EQ(record.body.length, 10U);

    const ServiceMessage message = receive();
    EXPECT_EQ(message.id, SERVICE_FRAME_BINARY);
    EXPECT_EQ(message.data, data);
    EXPECT_EQ(message.length, 10U);
    free(message.data);
}

TEST_F(QueueTest, OpenThrowsAnOldQueueAwayWithItsMessages) {
    const int32_t old_queue = g_service_state.msqid;
    send_number(5);
    location_service_task_send_message(SERVICE_STOP, nullptr, 0);

    ASSERT_NE(service_queue_open(), -1);
    EXPECT_NE(g_service_state.msqid, old_queue);
    EXPECT_EQ(info().msg_qnum, 0U);
    EXPECT_EQ(info().msg_perm.mode & 0777U, 0666U);
    msqid_ds gone = {};
    EXPECT_EQ(msgctl(old_queue, IPC_STAT, &gone), -1);
    EXPECT_EQ(msgget(kServiceQueueKey, 0), g_service_state.msqid);
    EXPECT_FALSE(receive_shortly());
    EXPECT_FALSE(stop_request_pending());
}

TEST_F(QueueTest, RecordOfAnotherProgramMeansNothing) {
    ForeignRecord foreign = {.type = 1, .body = {.id = SERVICE_STOP, .data = nullptr, .length = 0}};
    const auto is_ignored = [&](size_t size) {
        ASSERT_EQ(msgsnd(g_service_state.msqid, &foreign, size, 0), 0);
        EXPECT_FALSE(receive_shortly()) << "type " << foreign.type << ", bytes " << size;
        EXPECT_EQ(info().msg_qnum, 0U);
    };
    for (const size_t size : {0U, 8U, 23U, 24U, 25U, 100U}) {
        is_ignored(size);
    }
    foreign.type = 7;
    is_ignored(0);
    is_ignored(kBodySize);
    int not_sent = 0;
    foreign.body = {.id = SERVICE_FRAME_NMEA, .data = &not_sent, .length = sizeof not_sent};
    is_ignored(kBodySize);
}

TEST_F(QueueTest, RecordsOfAnotherProgramAmongOursChangeNothing) {
    send_number(5);
    const ForeignRecord copy = {.type = 1, .body = steal()};
    const ForeignRecord stop = {.type = 1, .body = {.id = SERVICE_STOP, .data = nullptr, .length = 0}};
    for (const ForeignRecord* foreign : {&stop, &copy, &copy}) {
        ASSERT_EQ(msgsnd(g_service_state.msqid, foreign, kBodySize, 0), 0);
    }
    location_service_task_send_message(SERVICE_STOP, nullptr, 0);
    EXPECT_EQ(number_of(receive()), 5U);
    EXPECT_TRUE(stop_request_pending()) << "ours is still to come";
    const ServiceMessage ours = receive();
    EXPECT_EQ(ours.id, SERVICE_STOP);
    EXPECT_TRUE(stop_request_pending()) << "until it is handled";
    service_queue_handled(ours);
    EXPECT_FALSE(stop_request_pending());
    while (info().msg_qnum > 0) {
        EXPECT_FALSE(receive_shortly());
    }
}

TEST_F(QueueTest, ConsumersOwnSendToAFullQueueFailsAtOnce) {
    fill();
    std::vector<std::string> lines;
    std::thread([&] {
        ServiceMessage message = {};
        EXPECT_TRUE(service_queue_receive(&message));
        EXPECT_EQ(number_of(message), 0U);
        send_number(100); // takes the place that has become free
        lines = lines_of(capture_stdout([] { send_number(101); }));
    }).join();
    EXPECT_EQ(lines, kFailLine);
    for (const uint32_t expected : {1U, 2U, 3U, 100U}) {
        EXPECT_EQ(number_of(receive()), expected);
    }
    EXPECT_EQ(info().msg_qnum, 0U);
}

TEST_F(QueueTest, OtherThreadsWaitForRoomAndLoseNothing) {
    fill();
    std::thread sender([] {
        for (uint32_t i = kSmallQueue; i < 200; i++) {
            send_number(i);
        }
    });
    std::vector<uint32_t> numbers;
    std::thread([&] {
        for (ServiceMessage message = {}; numbers.size() < 200 && service_queue_receive(&message);) {
            numbers.push_back(number_of(message));
        }
    }).join();
    sender.join();
    ASSERT_EQ(numbers.size(), 200U);
    for (uint32_t i = 0; i < 200; i++) {
        EXPECT_EQ(numbers[i], i);
    }
}

TEST_F(QueueTest, SendToARemovedQueueFailsAlsoWhileWaiting) {
    fill();
    const std::string out = capture_stdout([&] {
        const int before = g_pauses;
        std::thread sender([&] { send_number(9); });
        while (g_pauses == before) {
            std::this_thread::yield();
        }
        msgctl(g_service_state.msqid, IPC_RMID, nullptr);
        sender.join();
    });
    EXPECT_EQ(lines_of(out), kFailLine);
}

TEST_F(QueueTest, CancellationWhileWaitingFreesTheBlockAndSendsNothing) {
    fill();
    cancel_while_waiting(send_one);
    for (uint32_t i = 0; i < kSmallQueue; i++) {
        EXPECT_EQ(number_of(receive()), i);
    }
}

TEST_F(QueueTest, CancellationAtAnyMomentNeitherDoublesNorBreaksAMessage) {
    shrink();
    std::map<uint32_t, int> seen;
    std::thread consumer([&] {
        for (ServiceMessage message = {};;) {
            if (!service_queue_receive(&message)) {
                continue;
            }
            if (message.data == nullptr) {
                return;
            }
            seen[number_of(message)]++;
        }
    });
    static std::atomic<uint32_t> next = 0;
    next = 0;
    const auto send_on = [](void* /*unused*/) -> void* {
        for (;;) {
            send_number(next++);
            pthread_testcancel();
        }
    };
    for (int round = 0; round < 200; round++) {
        pthread_t sender = {};
        ASSERT_EQ(pthread_create(&sender, nullptr, send_on, nullptr), 0);
        const uint32_t goal = next + static_cast<uint32_t>(round) % 7;
        while (next < goal) {
            std::this_thread::yield();
        }
        pthread_cancel(sender);
        ASSERT_EQ(pthread_join(sender, nullptr), 0);
    }
    location_service_task_send_message(SERVICE_START, nullptr, 0);
    consumer.join();
    EXPECT_FALSE(seen.empty());
    for (const auto& [number, times] : seen) {
        EXPECT_EQ(times, 1) << number;
    }
}

TEST_F(QueueTest, MessageIsSentWholeWhileItsThreadIsBeingCancelled) {
    std::thread([] {
        pthread_cancel(pthread_self());
        send_number(5);
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    ASSERT_EQ(info().msg_qnum, 1U);
    EXPECT_EQ(number_of(receive()), 5U);
}

TEST_F(QueueTest, StopAndDownloadAloneAreAnnouncedUntilTheLastIsHandled) {
    for (uint32_t id = 0; id < 18; id++) {
        if (id != SERVICE_STOP && id != SERVICE_DOWNLOAD) {
            location_service_task_send_message(id, nullptr, 0);
            EXPECT_FALSE(stop_request_pending()) << id;
            service_queue_handled(receive());
        }
    }
    const std::vector<uint32_t> ids = {SERVICE_STOP, SERVICE_DOWNLOAD, SERVICE_STOP};
    for (size_t count = 1; count <= ids.size(); ++count) {
        for (size_t i = 0; i < count; ++i) {
            location_service_task_send_message(ids[i], nullptr, 0);
            EXPECT_TRUE(stop_request_pending()) << i << " of " << count;
        }
        for (size_t i = 0; i < count; ++i) {
            EXPECT_TRUE(stop_request_pending()) << i << " of " << count;
            service_queue_handled(receive());
        }
        EXPECT_FALSE(stop_request_pending()) << count;
    }
}

TEST_F(QueueTest, WhatAnotherProgramTakesArrivesAllTheSameInOrder) {
    send_number(5);
    location_service_task_send_message(SERVICE_STOP, nullptr, 0);
    steal();
    steal();
    send_number(6);
    EXPECT_EQ(number_of(receive()), 5U);
    EXPECT_TRUE(stop_request_pending());
    service_queue_handled(receive());
    EXPECT_FALSE(stop_request_pending());
    EXPECT_EQ(number_of(receive()), 6U);
    EXPECT_FALSE(receive_shortly());
}

TEST_F(QueueTest, ListIsFullWhenAnotherProgramEmptiesTheQueueAllTheTime) {
    const auto send = [](uint32_t id) {
        ServiceQueuePatience none = {.wait_us = 0};
        return service_queue_request(id, nullptr, 0, &none);
    };
    for (int i = 0; i < kListMax; i++) {
        ASSERT_TRUE(send(SERVICE_SAVE_LOCATION)) << i;
        steal();
    }
    EXPECT_EQ(lines_of(capture_stdout([&] { EXPECT_FALSE(send(SERVICE_SAVE_LOCATION)); })), kFailLine);
    EXPECT_EQ(info().msg_qnum, 1U) << "nothing wakes a service that sleeps already";
    for (int i = 0; i < kListMax; i++) {
        ASSERT_TRUE(send(i % 2 == 0 ? SERVICE_STOP : SERVICE_DOWNLOAD)) << i;
        steal();
    }
    EXPECT_EQ(lines_of(capture_stdout([&] { EXPECT_FALSE(send(SERVICE_STOP)); })), kFailLine);
    EXPECT_EQ(receive().id, SERVICE_SAVE_LOCATION);
    EXPECT_TRUE(send(SERVICE_STOP)) << "there is room again";
    cancel_while_waiting(send_stop);
    EXPECT_TRUE(stop_request_pending());
    service_queue_open();
    EXPECT_FALSE(stop_request_pending()) << "each one that failed, was cancelled or dropped is over";
}

TEST_F(QueueTest, StopAndDownloadFindTheirPlaceInAFullQueue) {
    fill();
    const std::vector<uint32_t> ids = {SERVICE_STOP, SERVICE_DOWNLOAD, SERVICE_STOP};
    for (const uint32_t id : ids) {
        location_service_task_send_message(id, nullptr, 0);
    }
    for (uint32_t i = 0; i < kSmallQueue; i++) {
        EXPECT_EQ(number_of(receive()), i);
    }
    for (const uint32_t id : ids) {
        EXPECT_TRUE(stop_request_pending());
        const ServiceMessage message = receive();
        EXPECT_EQ(message.id, id);
        EXPECT_EQ(message.data, nullptr);
        service_queue_handled(message);
    }
    EXPECT_FALSE(stop_request_pending());
    EXPECT_FALSE(receive_shortly());
}

TEST_F(QueueTest, RequestsGiveUpWhenTheirCommonPatienceIsOver) {
    fill();
    constexpr uint64_t kWaitUs = 200000;
    ServiceQueuePatience patience = {.wait_us = kWaitUs};
    bool sent = true;
    const auto request = [&] { sent = service_queue_request(SERVICE_COMMAND, malloc(5), 5, &patience); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(lines_of(capture_stdout(request)), kFailLine);
    EXPECT_FALSE(sent);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(kWaitUs));
    const uint64_t until_us = patience.until_us;
    EXPECT_NE(until_us, 0U);
    EXPECT_EQ(lines_of(capture_stdout(request)), kFailLine);
    EXPECT_EQ(patience.until_us, until_us) << "the second one has no time of its own";
    free(receive().data);
    patience = {.wait_us = kWaitUs};
    request();
    EXPECT_TRUE(sent);
    EXPECT_EQ(patience.until_us, 0U) << "it did not wait";
}

TEST_F(QueueTest, RequestsWaitNoLongerWhenPausesTakeLonger) {
    fill();
    g_late_us = 60000; // as on a machine that is busy
    ServiceQueuePatience patience = {.wait_us = 200000};
    const int before = g_pauses;
    const std::string log = capture_stdout(
        [&] { EXPECT_FALSE(service_queue_request(SERVICE_COMMAND, malloc(5), 5, &patience)); });
    g_late_us = 0;
    EXPECT_EQ(lines_of(log), kFailLine);
    EXPECT_LE(g_pauses - before, 4);
}

TEST_F(QueueTest, RemovedQueueIsMadeAgainAndKeepsWhatWaited) {
    send_number(5);
    location_service_task_send_message(SERVICE_STOP, nullptr, 0);
    const int32_t old_queue = g_service_state.msqid;
    ASSERT_EQ(msgctl(old_queue, IPC_RMID, nullptr), 0);
    const std::string log = capture_stdout([] { EXPECT_EQ(number_of(receive()), 5U); });
    EXPECT_EQ(lines_of(log),
              (std::vector<std::string>{"[LOCSERV] WRN: the service queue was gone and is made again"}));
    EXPECT_NE(g_service_state.msqid, old_queue);
    send_number(6);
    EXPECT_TRUE(stop_request_pending());
    service_queue_handled(receive());
    EXPECT_FALSE(stop_request_pending());
    EXPECT_EQ(number_of(receive()), 6U);
}

TEST_F(QueueTest, ReceiveForAMomentComesBackFromAnEmptyQueue) {
    ServiceMessage message = {};
    std::thread([&] {
        EXPECT_FALSE(service_queue_receive(&message, ServiceQueueWait::shortly));
        send_number(5);
        EXPECT_TRUE(service_queue_receive(&message, ServiceQueueWait::shortly));
    }).join();
    EXPECT_EQ(number_of(message), 5U);
}

TEST_F(QueueTest, WithoutAQueueEachSendFailsWithALineAndFreesItsData) {
    interpose_fail("msgget", 2, ENOSPC); // the first one looks for an old queue
    EXPECT_EQ(service_queue_open(), -1);
    EXPECT_EQ(g_service_state.msqid, -1);
    const std::string out = capture_stdout([] {
        for (uint32_t i = 0; i < 3; i++) {
            send_number(i);
            location_service_task_send_message(SERVICE_STOP, nullptr, 0);
        }
    });
    EXPECT_EQ(lines_of(out), std::vector<std::string>(6, kFailLine.front()));
    EXPECT_FALSE(stop_request_pending());
    stop_request_announce();
    EXPECT_TRUE(stop_request_pending()); // each failed stop took back just what it had announced
    stop_request_withdraw();
}

TEST_F(QueueTest, WithoutAQueueReceiveComesBackWithNothing) {
    interpose_fail("msgget", 2, ENOSPC);
    EXPECT_EQ(service_queue_open(), -1);
    ServiceMessage message = {};
    bool received = true;
    const auto tries = [&] {
        for (int i = 0; i < 10; ++i) {
            interpose_fail("msgget", 2, ENOSPC);
            received = service_queue_receive(&message);
        }
    };
    g_paused_us = 0;
    std::thread(tries).join();
    EXPECT_FALSE(received);
    EXPECT_GE(g_paused_us, 10U * 1000) << "no busy loop";
}

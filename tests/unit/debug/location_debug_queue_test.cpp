#include "debug/location_debug.h"
#include "debug/location_debug_queue.h"

#include "debug_fixture.h"
#include "support/test_limit.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <thread>

namespace {

constexpr key_t kQueueKey = 1235;

std::atomic<int> receives = 0; // attempts, of the transmit task above all

// What another process may put into the queue.
struct ForeignMessage {
    long type;
    char body[64];
};

struct DebugQueueTest : DebugTest {
    int make_queue() const {
        return msgget(kQueueKey, IPC_CREAT | IPC_EXCL | 0666);
    }

    std::unique_ptr<TcpClient> start_with_client() {
        EXPECT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
        return connect_listed(1);
    }
};

void send_foreign(int queue, long type, size_t size) {
    ForeignMessage message{};
    message.type = type;
    memset(message.body, 0x5A, sizeof message.body); // no pointer of anybody
    ASSERT_EQ(msgsnd(queue, &message, size, 0), 0);
}

} // namespace

extern "C" ssize_t __real_msgrcv(int queue, void* message, size_t size, long type, int flags);
extern "C" ssize_t __wrap_msgrcv(int queue, void* message, size_t size, long type, int flags) {
    ++receives;
    return __real_msgrcv(queue, message, size, type, flags);
}

TEST_F(DebugQueueTest, QueueFoundAtStartIsReusedAndItsMessagesMeanNothing) {
    const int queue = make_queue();
    send_foreign(queue, 1, 16);
    send_foreign(queue, 7, 64);
    send_foreign(queue, 1, 0);
    const auto client = start_with_client();
    EXPECT_EQ(log_lines()[0],
              "[LOCSERV] INF: [debug]location_debug_start, msgid exist:" + std::to_string(queue));
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(client->fd, 6), "$GPGGA");
    EXPECT_TRUE(wait_until([] { return messages_in_queue() == 0; }));
}

TEST_F(DebugQueueTest, BlockIsHandedOverWholeWhileItsThreadIsBeingCancelled) {
    ASSERT_EQ(location_debug_queue_open(), 0);
    std::thread([] {
        pthread_cancel(pthread_self());
        location_debug_queue_send(location_debug_block_copy(reinterpret_cast<const uint8_t*>("whole"), 5));
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    }).join();
    ASSERT_EQ(messages_in_queue(), 1U);
    const DebugBlockPtr block = location_debug_queue_receive();
    ASSERT_TRUE(block);
    EXPECT_EQ(memcmp(location_debug_block_data(block.get()), "whole", 5), 0);
    location_debug_queue_close();
}

TEST_F(DebugQueueTest, SixtyFourKibibytesWaitAtMostAndOneBlockAlways) {
    ASSERT_EQ(location_debug_queue_open(), 0);
    const std::string bytes(70'000, 'x');
    const auto send = [&](uint32_t length) {
        return location_debug_queue_send(
            location_debug_block_copy(reinterpret_cast<const uint8_t*>(bytes.data()), length));
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(send(70'000));
        EXPECT_FALSE(send(1)) << "that one is too long already";
        EXPECT_TRUE(location_debug_queue_receive());
        EXPECT_TRUE(send(64 * 1024 - 1));
        EXPECT_TRUE(send(1));
        EXPECT_FALSE(send(1));
        EXPECT_TRUE(location_debug_queue_receive());
        EXPECT_FALSE(send(1)) << "before all that waits is taken";
        EXPECT_TRUE(location_debug_queue_receive());
        EXPECT_TRUE(send(64 * 1024 - 1));
        location_debug_queue_close(); // what waits goes with it
        ASSERT_EQ(location_debug_queue_open(), 0);
    }
    location_debug_queue_close();
}

TEST_F(DebugQueueTest, NewQueueIsOpenToEveryUser) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_TCP), 0);
    msqid_ds status{};
    ASSERT_EQ(msgctl(debug_queue(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.msg_perm.mode & 0777, 0666);
    EXPECT_EQ(log_count("[LOCSERV] INF: [debug]location_debug_start, creat msg:"), 1U);
}

TEST_F(DebugQueueTest, MessagesOfOtherProcessesAreThrownAway) {
    const auto client = start_with_client();
    const int queue = debug_queue();
    ASSERT_NE(queue, -1);
    for (const size_t size : {size_t{16}, size_t{0}, size_t{3}, size_t{17}, size_t{64}}) {
        send_foreign(queue, 1, size);
        send_foreign(queue, 99, size);
    }
    handle_text("$GPGGA");
    EXPECT_EQ(read_bytes(client->fd, 6), "$GPGGA");
    EXPECT_TRUE(wait_until([] { return messages_in_queue() == 0; }));
}

TEST_F(DebugQueueTest, BlocksWhoseMessagesWereStolenArriveAllTheSame) {
    ASSERT_EQ(location_debug_set_mode(DEBUG_MODE_SERIAL), 0);
    const int queue = debug_queue();
    line.fill();
    std::string sent;
    while (messages_in_queue() < 20) {
        handle_text("first");
        sent += "first";
    }
    handle_text("last");
    sent += "last";
    ForeignMessage stolen{};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(msgrcv(queue, &stolen, sizeof stolen.body, 0, IPC_NOWAIT),
                  static_cast<ssize_t>(kQueuedBlockSize));
    }
    std::string seen;
    while (seen.find("last") == std::string::npos) {
        const std::string piece = read_bytes(line.master, 1);
        ASSERT_FALSE(piece.empty());
        seen += piece;
    }
    EXPECT_TRUE(seen.ends_with(sent));
}

TEST_F(DebugQueueTest, FullQueueWhoseMessagesWereStolenIsTakenAndTakesBlocksAgain) {
    const TestLimit limit; // a receive that waits for a message would wait for ever
    ASSERT_EQ(location_debug_queue_open(), 0);
    const std::string bytes(64 * 1024, 'x');
    const auto send = [&](uint32_t length) {
        return location_debug_queue_send(
            location_debug_block_copy(reinterpret_cast<const uint8_t*>(bytes.data()), length));
    };
    EXPECT_TRUE(send(64 * 1024));
    ForeignMessage stolen{};
    ASSERT_GT(msgrcv(debug_queue(), &stolen, sizeof stolen.body, 0, IPC_NOWAIT), 0);
    EXPECT_FALSE(send(1));
    EXPECT_EQ(messages_in_queue(), 1U) << "nothing wakes a task that waits already";
    ASSERT_GT(msgrcv(debug_queue(), &stolen, sizeof stolen.body, 0, IPC_NOWAIT), 0);
    EXPECT_TRUE(location_debug_queue_receive());
    EXPECT_TRUE(send(1));
    location_debug_queue_close();
}

TEST_F(DebugQueueTest, QueueRemovedFromOutsideFailsTheSendAndMakesNoBusyLoop) {
    const auto client = start_with_client();
    ASSERT_EQ(msgctl(debug_queue(), IPC_RMID, nullptr), 0);
    handle_text("lost");
    EXPECT_EQ(log_count("[LOCSERV] ERR: [debug]location_debug_handle, send Fail!"), 1U);
    const int before = receives;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(wait_until([&] { return receives >= before + 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    location_debug_close();
    EXPECT_EQ(location_debug_start(), 0);
}

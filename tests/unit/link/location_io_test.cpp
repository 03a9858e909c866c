#include "link/location_io.h"

#include "debug/location_debug.h"
#include "mux/location_serial_port.h"
#include "nmea/location_frame.h"
#include "queue/service_queue.h"
#include "support/call_fault.h"
#include "support/capture.h"
#include "support/test_limit.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using std::string;

constexpr uint32_t kBufferSize = 15360;
constexpr time_t kLimitSeconds = 20;
constexpr int kReadsAfterCancelMax = 1000; // then the chip falls silent, so that a failing test ends too

struct Message {
    uint32_t id;
    string data;
    bool ends_with_nul;
};

// The layers around the receive thread. Blocking is done with semaphores: their waits are cancellation
// points.
struct FakeWorld {
    std::mutex mutex;
    sem_t changed; // posted at each event
    sem_t wake;    // ends a sleep
    sem_t never;

    int32_t open_result = 0;
    int32_t close_result = 0;
    int create_result = 0;
    int cancel_result = 0;
    bool block_in_read = false;
    bool block_in_send = false;
    int32_t read_surplus = 0; // added to the result of a read
    bool always_data = false; // each read finds a byte, until shortly after a cancel
    std::deque<string> input;

    int opened = 0;
    int closed = 0;
    int joins = 0;
    int reads = 0;
    int sends = 0;
    bool cancelled = false;
    int reads_after_cancel = 0;
    std::vector<useconds_t> sleeps;
    std::vector<uint32_t> capacities;
    std::vector<string> mirrored;
    std::vector<Message> messages;

    FakeWorld() {
        sem_init(&changed, 0, 0);
        sem_init(&wake, 0, 0);
        sem_init(&never, 0, 0);
    }
    ~FakeWorld() {
        sem_destroy(&changed);
        sem_destroy(&wake);
        sem_destroy(&never);
    }
};

FakeWorld* world = nullptr;

// Waits until the condition holds; it is looked at under the lock.
bool wait_for(const std::function<bool()>& condition) {
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kLimitSeconds;
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(world->mutex);
            if (condition()) {
                return true;
            }
        }
        if (sem_timedwait(&world->changed, &deadline) != 0 && errno == ETIMEDOUT) {
            return false;
        }
    }
}

bool wait_for_messages(size_t n) {
    return wait_for([n] { return world->messages.size() >= n; });
}

bool wait_for_sleeps(size_t n) {
    return wait_for([n] { return world->sleeps.size() >= n; });
}

// Starts again and again until the link has been opened n times: the thread before may not have ended yet.
bool start_until_opened(int n) {
    const time_t end = time(nullptr) + kLimitSeconds;
    const auto opened = [] {
        const std::lock_guard<std::mutex> lock(world->mutex);
        return world->opened;
    };
    while (opened() < n && time(nullptr) < end) {
        EXPECT_EQ(location_io_thread_init(), 0);
        sched_yield();
    }
    return opened() == n;
}

void feed(const std::vector<string>& blocks) {
    const std::lock_guard<std::mutex> lock(world->mutex);
    world->input.insert(world->input.end(), blocks.begin(), blocks.end());
}

void end_sleep() {
    sem_post(&world->wake);
}

string sentence(const string& body) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(body.data());
    char digits[3];
    snprintf(digits, sizeof digits, "%02X", location_nmea_checksum(bytes, static_cast<int32_t>(body.size())));
    return "$" + body + "*" + digits + "\r\n";
}

const string kGga = sentence("GPGGA,123519,4807.038,N");
const string kPzul = sentence("PZUL010,1,2,3");
const string kBinary("\x04$\x01\x02\x00\x00\x03\xAA"
                     "D",
                     9);

string texts(const std::vector<Message>& messages) {
    string all;
    for (const Message& message : messages) {
        all += std::to_string(message.id) + ":" + message.data + ";";
    }
    return all;
}

struct LocationIo : testing::Test {
    LocationIo() {
        world = &fake;
    }
    ~LocationIo() override {
        fake.cancel_result = 0;
        fake.close_result = 0;
        capture_stdout([] { location_io_thread_deinit(); });
        world = nullptr;
    }

    // Runs the body while the thread runs; returns what was printed.
    string with_thread(const std::function<void()>& body) {
        return capture_stdout([&] {
            EXPECT_EQ(location_io_thread_init(), 0);
            body();
            EXPECT_EQ(location_io_thread_deinit(), 0);
        });
    }

    const TestLimit limit;
    FakeWorld fake;
};

struct FreeData {
    void* data;
    ~FreeData() {
        free(data);
    }
};

} // namespace

int32_t location_serial_port_gnss_init() {
    const std::lock_guard<std::mutex> lock(world->mutex);
    ++world->opened;
    sem_post(&world->changed);
    return world->open_result;
}

int32_t location_serial_port_gnss_deinit() {
    const std::lock_guard<std::mutex> lock(world->mutex);
    ++world->closed;
    return world->close_result;
}

int32_t location_serial_port_gnss_read(uint8_t* buffer, uint32_t capacity) {
    bool block = false;
    int32_t result = 0;
    {
        const std::lock_guard<std::mutex> lock(world->mutex);
        ++world->reads;
        world->capacities.push_back(capacity);
        block = world->block_in_read;
        world->reads_after_cancel += world->cancelled ? 1 : 0;
        if (world->always_data && world->reads_after_cancel < kReadsAfterCancelMax) {
            buffer[0] = 'x';
            result = 1;
        }
        if (!world->input.empty()) {
            string& front = world->input.front();
            const size_t n = std::min<size_t>(front.size(), capacity);
            memcpy(buffer, front.data(), n);
            front.erase(0, n);
            result = static_cast<int32_t>(n) + world->read_surplus;
            if (front.empty()) {
                world->input.pop_front();
            }
        }
        sem_post(&world->changed);
    }
    if (block) {
        sem_wait(&world->never);
    }
    return result;
}

void location_debug_handle(const uint8_t* data, uint32_t length) {
    const std::lock_guard<std::mutex> lock(world->mutex);
    world->mirrored.emplace_back(reinterpret_cast<const char*>(data), length);
}

void location_service_task_send_message(uint32_t id, void* data, uint32_t length) {
    const FreeData owned{data};
    bool block = false;
    {
        const std::lock_guard<std::mutex> lock(world->mutex);
        ++world->sends;
        block = world->block_in_send;
        const char* text = static_cast<const char*>(data);
        world->messages.push_back({id, string(text, length), text[length] == '\0'});
        sem_post(&world->changed);
    }
    if (block) {
        sem_wait(&world->never);
    }
}

extern "C" {

int __real_pthread_create(pthread_t* tid, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_pthread_cancel(pthread_t tid);
int __real_pthread_join(pthread_t tid, void** result);

int __wrap_pthread_create(pthread_t* tid, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    if (world != nullptr && world->create_result != 0) {
        return world->create_result;
    }
    return __real_pthread_create(tid, attributes, body, argument);
}

int __wrap_pthread_cancel(pthread_t tid) {
    if (world->cancel_result != 0) {
        return world->cancel_result;
    }
    const int result = __real_pthread_cancel(tid);
    const std::lock_guard<std::mutex> lock(world->mutex);
    world->cancelled = true;
    return result;
}

int __wrap_pthread_join(pthread_t tid, void** result) {
    ++world->joins;
    return __real_pthread_join(tid, result);
}

int __wrap_usleep(useconds_t us) {
    {
        const std::lock_guard<std::mutex> lock(world->mutex);
        world->sleeps.push_back(us);
        sem_post(&world->changed);
    }
    return sem_wait(&world->wake);
}
}

TEST_F(LocationIo, FramesReachTheServiceByType) {
    feed({"no" + kGga + kPzul + kBinary + "$XX,1,2,3,4,5" + kGga});
    const string log = with_thread([&] { EXPECT_TRUE(wait_for_messages(7)); });
    EXPECT_EQ(texts(fake.messages), "10:no;11:" + kGga + ";12:" + kPzul + ";13:" + kBinary +
                                        ";10:$;10:XX,1,2,3,4,5;11:" + kGga + ";");
    for (const Message& message : fake.messages) {
        EXPECT_TRUE(message.ends_with_nul);
    }
    EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n");
}

TEST_F(LocationIo, SentenceInPiecesIsPutTogetherAndMirroredAsItIsRead) {
    const std::vector<string> pieces = {kGga.substr(0, 5), kGga.substr(5, 20), kGga.substr(25) + "no", "ise"};
    feed(pieces);
    with_thread([&] { EXPECT_TRUE(wait_for_sleeps(1)); });
    EXPECT_EQ(texts(fake.messages).substr(0, 4 + kGga.size()), "11:" + kGga + ";");
    EXPECT_EQ(fake.mirrored, pieces);
    ASSERT_GE(fake.capacities.size(), 3U);
    EXPECT_EQ(fake.capacities[0], kBufferSize);
    EXPECT_EQ(fake.capacities[2], kBufferSize - 25) << "what is left of the buffer";
}

TEST_F(LocationIo, EmptyOrFailedReadSleepsAndReadsAgain) {
    const string log = with_thread([&] {
        EXPECT_TRUE(wait_for_sleeps(1));
        fake.read_surplus = -2; // fails
        feed({"x"});
        end_sleep();
        EXPECT_TRUE(wait_for_sleeps(2));
        fake.read_surplus = 0;
        feed({kGga});
        end_sleep();
        EXPECT_TRUE(wait_for_sleeps(3));
    });
    EXPECT_EQ(fake.sleeps, (std::vector<useconds_t>{300000, 300000, 300000}));
    EXPECT_EQ(texts(fake.messages), "11:" + kGga + ";");
    EXPECT_EQ(fake.mirrored.size(), 1U);
    EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n");
}

TEST_F(LocationIo, FullBufferWithoutAFrameIsDroppedWhole) {
    const string endless = "$GPGGA," + string(kBufferSize - 7, '1');
    const string full = sentence("GPTXT," + string(kBufferSize - 12, 'x'));
    ASSERT_EQ(full.size(), kBufferSize);
    const struct {
        const char* what;
        std::vector<string> blocks;
        std::vector<string> messages;
    } rows[] = {
        {"no frame", {endless.substr(0, 4095), endless.substr(4095), kGga}, {"10:" + endless, "11:" + kGga}},
        {"full only behind the frames in it",
         {kGga + endless.substr(0, kBufferSize - kGga.size()),
          endless.substr(kBufferSize - kGga.size()) + kGga},
         {"11:" + kGga, "10:" + endless, "11:" + kGga}},
        {"a frame that fills it", {full, kGga}, {"11:" + full, "11:" + kGga}},
        {"half a sentence before a restart", {kGga.substr(0, 20)}, {}},
        {"is forgotten", {kGga.substr(20) + kGga}, {"10:" + kGga.substr(20), "11:" + kGga}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        fake.messages.clear();
        fake.sleeps.clear();
        feed(row.blocks);
        with_thread([&] { EXPECT_TRUE(wait_for_messages(row.messages.size()) && wait_for_sleeps(1)); });
        string expected;
        for (const string& message : row.messages) {
            expected += message + ";";
        }
        EXPECT_EQ(texts(fake.messages), expected);
    }
}

TEST_F(LocationIo, ReadThatClaimsMoreThanTheRoomIsCutBack) {
    fake.read_surplus = 5;
    feed({string(kBufferSize, 'x')});
    const string log = with_thread([&] { EXPECT_TRUE(wait_for_sleeps(1)); });
    EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n"
                   "[LOCSERV] ERR: [IO] location_io_rx_task, read len wrong:15365, 15365\n");
    EXPECT_EQ(texts(fake.messages), "10:" + string(kBufferSize, 'x') + ";");
    EXPECT_EQ(fake.mirrored, std::vector<string>{string(kBufferSize, 'x')});
}

TEST_F(LocationIo, SecondStartFindsTheThread) {
    const string log = with_thread([&] {
        EXPECT_TRUE(wait_for_sleeps(1));
        EXPECT_EQ(location_io_thread_init(), 0);
    });
    EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n"
                   "[LOCSERV] INF: [IO]location_io_thread_init, tid exist\n");
    EXPECT_EQ(fake.opened, 1);
}

TEST_F(LocationIo, StartAfterALinkThatCouldNotBeOpenedBeginsAnew) {
    fake.open_result = -1;
    capture_stdout([&] {
        EXPECT_TRUE(start_until_opened(1));
        EXPECT_TRUE(start_until_opened(2));
        const std::lock_guard<std::mutex> lock(fake.mutex);
        fake.open_result = 0;
    });
    const string log = with_thread([&] {
        EXPECT_TRUE(start_until_opened(3));
        EXPECT_TRUE(wait_for_sleeps(1));
        EXPECT_EQ(location_io_thread_init(), 0);
    });
    EXPECT_EQ(lines_of(log).back(), "[LOCSERV] INF: [IO]location_io_thread_init, tid exist");
    EXPECT_EQ(fake.opened, 3);
    EXPECT_EQ(fake.joins, 3) << "each ended thread is joined";
}

TEST_F(LocationIo, StopAfterALinkThatCouldNotBeOpenedJoinsTheThread) {
    fake.open_result = -1;
    with_thread([&] { EXPECT_TRUE(wait_for([&] { return fake.opened == 1; })); });
    EXPECT_EQ(fake.joins, 1);
    EXPECT_EQ(fake.reads, 0);
}

TEST_F(LocationIo, ThreadThatCannotBeMadeIsReported) {
    fake.create_result = EAGAIN;
    int32_t result = 99;
    EXPECT_EQ(capture_stdout([&] { result = location_io_thread_init(); }),
              "[LOCSERV] ERR: [IO]location_io_thread_init, thread create fail\n");
    EXPECT_EQ(result, -1);

    fake.create_result = 0;
    with_thread([&] { EXPECT_TRUE(wait_for_sleeps(1)); });
    EXPECT_EQ(fake.opened, 1);
}

TEST_F(LocationIo, FailedCancelClosesTheLinkAndKeepsTheThread) {
    const string log = with_thread([&] {
        EXPECT_TRUE(wait_for_sleeps(1));
        fake.cancel_result = ESRCH;
        EXPECT_EQ(location_io_thread_deinit(), -1);
        EXPECT_EQ(fake.closed, 1);
        fake.cancel_result = 0;
        EXPECT_EQ(location_io_thread_init(), 0);
    });
    EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n"
                   "[LOCSERV] ERR: [IO]location_io_thread_deinit, fail\n"
                   "[LOCSERV] INF: [IO]location_io_thread_init, tid exist\n");
    EXPECT_EQ(fake.closed, 2);
}

TEST_F(LocationIo, StopReportsALinkThatDoesNotCloseAndEndsTheThread) {
    EXPECT_EQ(location_io_thread_deinit(), 0);
    EXPECT_EQ(fake.closed, 1) << "also without a thread";
    fake.close_result = -1;
    EXPECT_EQ(location_io_thread_deinit(), -1);
    capture_stdout([&] {
        EXPECT_EQ(location_io_thread_init(), 0);
        EXPECT_TRUE(wait_for_sleeps(1));
        EXPECT_EQ(location_io_thread_deinit(), -1);
    });
    fake.close_result = 0;
    EXPECT_EQ(with_thread([&] { EXPECT_TRUE(wait_for_sleeps(2)); }),
              "[LOCSERV] INF: [IO]location_io_rx_task\n");
}

TEST_F(LocationIo, StopEndsAThreadThatAlwaysFindsData) {
    fake.always_data = true;
    with_thread([&] { EXPECT_TRUE(wait_for([&] { return fake.reads > 10; })); });
    EXPECT_LE(fake.reads_after_cancel, 1);
    EXPECT_EQ(fake.closed, 1);
}

TEST_F(LocationIo, StopEndsABlockedReadOrSendAndManyStartsAndStopsComeBack) {
    for (int i = 0; i < 200; ++i) {
        fake.block_in_read = i % 3 == 1;
        fake.block_in_send = i % 3 == 2;
        fake.reads = 0;
        fake.sends = 0;
        feed({kGga + kGga});
        const string log = with_thread([&] {
            const auto is_there = [&] { return fake.block_in_send ? fake.sends > 0 : fake.reads > 0; };
            EXPECT_TRUE(wait_for(is_there));
        });
        EXPECT_EQ(log, "[LOCSERV] INF: [IO]location_io_rx_task\n");
        EXPECT_LE(fake.sends, fake.block_in_send ? 1 : 2);
        fake.input.clear();
    }
    EXPECT_EQ(fake.closed, 200);
}

namespace {

void handle(uint32_t type, const string& data, int32_t length) {
    location_io_data_handle(type, reinterpret_cast<const uint8_t*>(data.data()), length);
}

} // namespace

TEST_F(LocationIo, DataWithoutLengthOrMemoryOrOfUnknownTypeIsDropped) {
    handle(FRAME_NMEA, "abc", 0);
    handle(FRAME_NMEA, "abc", -1);
    handle(FRAME_BINARY + 1, "abc", 3);
    handle(0xFFFFFFFF, "abc", 3);
    const string log = capture_stdout([] {
        call_faults.malloc = 0;
        handle(FRAME_NMEA, "abc", 3);
    });
    EXPECT_EQ(log, "[LOCSERV] ERR: [IO] location_io_data_handle, malloc fail\n");
    EXPECT_EQ(fake.sends, 0);
}

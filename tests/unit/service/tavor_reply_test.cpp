// Responses against readers that are modelled on a clock of their own: no kernel's queue length and no
// machine's load has a say.
#include "service/tavor_reply.h"

#include "base/stop_request.h"
#include "service/tavor_rows.h"
#include "support/capture.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <pthread.h>
#include <sys/time.h>
#include <thread>

namespace {

using Texts = std::vector<std::string>;
using Values = std::vector<uint32_t>;

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSecond = 1000 * kMs;
constexpr uint64_t kNever = UINT64_MAX;
constexpr char kLoss[] = "[LOCSERV] ERR: tavor_send_response, sendto error";

struct Reader {
    uint64_t us_per_datagram = 0; // kNever: does not read
    uint64_t free_at_us = 0;      // when it takes the next one
    std::deque<tavor_response> queue;
    std::vector<tavor_response> read;
};

struct Kernel {
    std::map<std::string, Reader> readers;
    size_t queue_length = 10;
    uint64_t now_us = 0;
    uint64_t send_time_out_us = 0;
    int failures = 0; // of the next sends, with this error
    int error = 0;
    bool time_out_refused = false;
    std::function<void()> while_waiting;
} kernel;

TavorPeer peer(const std::string& name) {
    TavorPeer made = {};
    made.address.sun_family = AF_UNIX;
    name.copy(made.address.sun_path, sizeof made.address.sun_path);
    made.length = static_cast<socklen_t>(sizeof(sa_family_t) + name.size() + 1);
    return made;
}

void let_read(Reader& reader) {
    while (!reader.queue.empty() && reader.us_per_datagram != kNever && reader.free_at_us <= kernel.now_us) {
        reader.read.push_back(reader.queue.front());
        reader.queue.pop_front();
        reader.free_at_us += reader.us_per_datagram;
    }
    if (reader.queue.empty()) {
        reader.free_at_us = std::max(reader.free_at_us, kernel.now_us);
    }
}

// Lets the clock run until the reader has room, at most for the time-out.
bool wait_for_room(Reader& reader) {
    if (kernel.send_time_out_us == 0) {
        ADD_FAILURE() << "a send that may wait for ever";
        return false;
    }
    const uint64_t end = kernel.now_us + kernel.send_time_out_us;
    if (kernel.while_waiting) {
        kernel.while_waiting();
    }
    const bool reads = reader.us_per_datagram != kNever && reader.free_at_us <= end;
    kernel.now_us = reads ? std::max(kernel.now_us, reader.free_at_us) : end;
    let_read(reader);
    return reads;
}

bool has_room(const Reader& reader) {
    return reader.queue.size() <= kernel.queue_length;
}

thread_local int g_locks = 0; // taken by this thread

} // namespace

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    ++g_locks;
    return __real_pthread_mutex_lock(mutex);
}

extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t /*clock*/, timespec* now) {
    now->tv_sec = static_cast<time_t>(kernel.now_us / kSecond);
    now->tv_nsec = static_cast<long>(kernel.now_us % kSecond * 1000);
    return 0;
}

extern "C" int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
extern "C" int __wrap_setsockopt(int /*fd*/, int level, int option, const void* value, socklen_t size) {
    EXPECT_EQ(level, SOL_SOCKET);
    EXPECT_EQ(option, SO_SNDTIMEO);
    EXPECT_EQ(size, sizeof(timeval));
    if (kernel.time_out_refused) {
        return -1;
    }
    const auto* time_out = static_cast<const timeval*>(value);
    kernel.send_time_out_us =
        static_cast<uint64_t>(time_out->tv_sec) * kSecond + static_cast<uint64_t>(time_out->tv_usec);
    return 0;
}

extern "C" ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                                 socklen_t length);
extern "C" ssize_t __wrap_sendto(int /*fd*/, const void* data, size_t size, int flags,
                                 const sockaddr* address, socklen_t length) {
    EXPECT_EQ(size, sizeof(tavor_response));
    const auto* path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    const auto found = kernel.readers.find(std::string(path, length - sizeof(sa_family_t) - 1));
    errno = ECONNREFUSED;
    if (found == kernel.readers.end()) {
        return -1;
    }
    if (kernel.failures > 0) {
        --kernel.failures;
        errno = kernel.error;
        return -1;
    }
    Reader& reader = found->second;
    let_read(reader);
    errno = EAGAIN;
    if (!has_room(reader) && ((flags & MSG_DONTWAIT) != 0 || !wait_for_room(reader))) {
        return -1;
    }
    tavor_response response = {};
    memcpy(&response, data, sizeof response);
    reader.queue.push_back(response);
    return static_cast<ssize_t>(size);
}

namespace {

struct ReplyTest : testing::Test {
    ReplyTest() {
        kernel = {};
        kernel.now_us = 5 * kSecond;
        tavor_reply_open(3);
    }
    ~ReplyTest() override {
        while (stop_request_withdraw()) {
        }
    }
    // Makes a client of a new reader that takes so long for each datagram.
    static Reader& client(const std::string& name, uint64_t us_per_datagram) {
        Reader& reader = kernel.readers[name];
        reader.us_per_datagram = us_per_datagram;
        tavor_reply_to(peer(name));
        return reader;
    }
    // How long the send took.
    uint64_t send(uint32_t id, uint32_t value = 0) {
        const uint64_t before = kernel.now_us;
        const Texts lines = lines_of(capture_stdout([&] { tavor_send_response(id, value, nullptr, 0); }));
        EXPECT_EQ(lines, Texts(lines.size(), kLoss));
        losses += lines.size();
        return kernel.now_us - before;
    }
    uint64_t send_sentences(size_t count) {
        uint64_t took = 0;
        for (size_t i = 0; i < count; ++i) {
            took += send(SERVICE_FRAME_NMEA, static_cast<uint32_t>(i));
        }
        return took;
    }
    // From now on the reader takes what comes at once.
    static void read_at_once(Reader& reader) {
        reader.us_per_datagram = 0;
        reader.free_at_us = kernel.now_us;
    }
    // What is kept arrives when the reader reads: it gets these values of the code.
    void expect_arrives(Reader& reader, uint32_t code, const Values& values) {
        read_at_once(reader);
        EXPECT_FALSE(retry());
        EXPECT_EQ(values_of(reader, code), values);
    }
    // Fills the reader's queue, with sentences.
    void fill(Reader& reader) {
        let_read(reader);
        while (has_room(reader)) {
            send(SERVICE_FRAME_NMEA);
        }
    }
    bool retry() {
        bool kept = false;
        losses += lines_of(capture_stdout([&] { kept = tavor_reply_retry(); })).size();
        return kept;
    }
    // What the reader gets of a code once it reads everything.
    static Values values_of(Reader& reader, uint32_t code) {
        reader.us_per_datagram = 0;
        let_read(reader);
        Values values;
        for (const tavor_response& response : reader.read) {
            if (response.code == code) {
                values.push_back(response.value);
            }
        }
        return values;
    }

    size_t losses = 0;
};

} // namespace

TEST_F(ReplyTest, ReaderThatKeepsUpInTheMeanLosesNothing) {
    for (const size_t queue_length : {1, 10, 512}) {
        for (const uint64_t ms_per_datagram : {10, 15, 25, 30}) {
            for (const size_t sentences_per_second : {20, 25}) {
                kernel.queue_length = queue_length;
                const Reader& reader = client("c", ms_per_datagram * kMs);
                for (int second = 0; second < 300; ++second) {
                    const uint64_t next = kernel.now_us + kSecond;
                    send_sentences(sentences_per_second);
                    kernel.now_us = std::max(next, kernel.now_us);
                }
                EXPECT_EQ(losses, 0U) << ms_per_datagram << " ms, queue of " << queue_length;
                EXPECT_LT(kernel.now_us, reader.free_at_us + kSecond);
            }
        }
    }
}

TEST_F(ReplyTest, ClientThatNeverReadsCostsASecondInAll) {
    Reader& deaf = client("deaf", kNever);
    fill(deaf);
    const uint64_t first = send(SERVICE_FRAME_NMEA);
    EXPECT_GE(first, 1 * kSecond);
    EXPECT_LE(first, kSecond + 100 * kMs);
    for (int i = 0; i < 100; ++i) {
        kernel.now_us += 60 * kSecond;
        EXPECT_EQ(send_sentences(25), 0U);
    }
    EXPECT_EQ(losses, 1U + 100 * 25);
}

TEST_F(ReplyTest, ClientThatReadsAgainIsWaitedForAgain) {
    Reader& reader = client("c", kNever);
    fill(reader);
    send(SERVICE_FRAME_NMEA);
    EXPECT_EQ(send_sentences(20), 0U);
    reader.us_per_datagram = 30 * kMs;
    reader.free_at_us = kernel.now_us;
    const size_t lost = losses;
    EXPECT_GT(send_sentences(50), 1 * kSecond);
    EXPECT_EQ(losses, lost);
}

TEST_F(ReplyTest, DeafClientsThatAskInTurnCostASecondEach) {
    const Texts names = {"1", "2", "3", "4", "5", "6", "7", "8"};
    for (const std::string& name : names) {
        fill(client(name, kNever));
        EXPECT_GE(send(SERVICE_FRAME_NMEA), kSecond);
    }
    for (int round = 0; round < 20; ++round) {
        for (const std::string& name : names) {
            client(name, kNever);
            EXPECT_EQ(send_sentences(3), 0U);
            client("other", 0);
            EXPECT_EQ(send_sentences(1), 0U);
        }
    }
    fill(client("9", kNever)); // the first is forgotten for it
    send(SERVICE_FRAME_NMEA);
    client("2", kNever);
    EXPECT_EQ(send_sentences(1), 0U);
    client("1", kNever);
    EXPECT_GE(send_sentences(1), kSecond);
}

TEST_F(ReplyTest, AddressesDifferByLengthAndByEachByteInUse) {
    fill(client("a", kNever));
    send(SERVICE_FRAME_NMEA);
    TavorPeer noise_behind = peer("a");
    noise_behind.address.sun_path[50] = 'x';
    tavor_reply_to(noise_behind);
    EXPECT_EQ(send_sentences(1), 0U);
    client(std::string("a\0", 2), kNever).queue.resize(kernel.queue_length + 1);
    EXPECT_GE(send_sentences(1), kSecond);
}

TEST_F(ReplyTest, WithoutATimeOutNoSendWaits) {
    kernel.time_out_refused = true;
    tavor_reply_open(3);
    Reader& deaf = client("deaf", kNever);
    fill(deaf);
    EXPECT_EQ(send_sentences(5), 0U);
    EXPECT_EQ(losses, 5U);
}

TEST_F(ReplyTest, InterruptedSendIsSentAgain) {
    const Reader& reader = client("c", 0);
    kernel.failures = 3;
    kernel.error = EINTR;
    send_sentences(1);
    EXPECT_EQ(losses, 0U);
    EXPECT_EQ(reader.queue.size(), 1U);
}

TEST_F(ReplyTest, SentencesWaitForNobodyWhileAStopIsAnnounced) {
    fill(client("slow", 700 * kMs));
    stop_request_announce();
    EXPECT_EQ(send_sentences(20), 0U);
    EXPECT_EQ(losses, 20U);
    stop_request_withdraw();
    EXPECT_GT(send_sentences(1), 0U) << "the client was not waited for in vain";
    EXPECT_EQ(losses, 20U);
}

TEST_F(ReplyTest, SentenceThatWaitsGivesUpSoonWhenAStopIsAnnounced) {
    fill(client("deaf", kNever));
    kernel.while_waiting = [] {
        kernel.while_waiting = nullptr;
        stop_request_announce();
    };
    EXPECT_LE(send_sentences(1), 100 * kMs);
}

TEST_F(ReplyTest, ResultsWaitHalfASecondInAllWhileAStopIsAnnounced) {
    fill(client("slow", 45 * kMs));
    for (int stop = 0; stop < 2; ++stop) {
        stop_request_announce();
        uint64_t took = 0;
        for (uint32_t i = 0; i < 700; ++i) {
            took += send(SERVICE_COMMAND, i);
        }
        EXPECT_GE(took, 450 * kMs) << stop;
        EXPECT_LE(took, 600 * kMs) << stop;
        stop_request_withdraw();
        kernel.now_us += 60 * kSecond;
        EXPECT_FALSE(retry());
        kernel.now_us += kSecond; // it reads what was kept
        fill(kernel.readers["slow"]);
    }
}

TEST_F(ReplyTest, SecondStopHasAPatienceOfItsOwnAlsoWhenNothingWasSentBetween) {
    Reader& reader = client("slow", 100 * kMs);
    for (int stop = 0; stop < 2; ++stop) {
        reader.free_at_us = kernel.now_us + 100 * kMs;
        reader.queue.resize(kernel.queue_length + 1);
        stop_request_announce();
        EXPECT_EQ(send(SERVICE_STOP), 100 * kMs) << stop;
        stop_request_withdraw();
        EXPECT_FALSE(retry());
        kernel.now_us += 60 * kSecond;
        let_read(reader);
    }
    EXPECT_EQ(losses, 0U);
}

TEST_F(ReplyTest, ResultForAClientThatPausesArrivesBeforeAnythingElse) {
    Reader& reader = client("c", kNever);
    send_sentences(60); // three seconds
    EXPECT_EQ(send(SERVICE_SAVE_LOCATION, 7), 0U);
    EXPECT_EQ(send(SERVICE_DEBUG_OFF, 8), 0U);
    const size_t lost = losses;
    send_sentences(2);
    EXPECT_EQ(losses, lost + 2);
    EXPECT_TRUE(retry());
    read_at_once(reader);
    send(SERVICE_FRAME_NMEA, 99);
    let_read(reader);
    ASSERT_GE(reader.read.size(), 3U);
    const tavor_response* last = &reader.read.back();
    EXPECT_EQ(last[-2].value, 7U);
    EXPECT_EQ(last[-1].value, 8U);
    EXPECT_EQ(last[0].value, 99U);
    EXPECT_FALSE(retry());
    EXPECT_EQ(losses, lost + 2);
}

TEST_F(ReplyTest, KeptResultIsNotOvertakenByOneThatMayWait) {
    Reader& reader = client("slow", 700 * kMs);
    fill(reader);
    stop_request_announce();
    send(SERVICE_COMMAND, 1);
    stop_request_withdraw();
    send(SERVICE_COMMAND, 2);
    expect_arrives(reader, TAVOR_CODE_CHIP, (Values{1, 2}));
}

TEST_F(ReplyTest, EachResultIsKeptAndNeitherSentenceNorPositionIs) {
    for (const TavorRow& row : kTavorRows) {
        Reader& reader = client("c" + std::to_string(row.id), kNever);
        fill(reader);
        send(row.id, 7);
        const bool result = row.code != TAVOR_CODE_NMEA && row.code != TAVOR_CODE_POSITION;
        EXPECT_EQ(retry(), result) << row.code;
        read_at_once(reader);
        EXPECT_FALSE(retry());
        EXPECT_EQ(values_of(reader, row.code).empty() || values_of(reader, row.code).back() != 7, !result);
    }
}

TEST_F(ReplyTest, KeptResultGoesToItsAskerAndHoldsUpNobodyElse) {
    Reader& asker = client("asker", kNever);
    fill(asker);
    send(SERVICE_SAVE_LOCATION, 7);
    Reader& other = client("other", 0);
    send(SERVICE_DEBUG_OFF, 8);
    EXPECT_TRUE(retry());
    EXPECT_EQ(values_of(other, TAVOR_CODE_DEBUG), Values{8});
    expect_arrives(asker, TAVOR_CODE_SAVE_LOCATION, Values{7});
    EXPECT_TRUE(values_of(other, TAVOR_CODE_SAVE_LOCATION).empty());
}

TEST_F(ReplyTest, SixteenResultsAreKeptAndTheOldestGivesWay) {
    Reader& reader = client("c", kNever);
    fill(reader);
    for (uint32_t i = 0; i < 20; ++i) {
        send(SERVICE_COMMAND, i);
    }
    EXPECT_EQ(losses, 4U);
    expect_arrives(reader, TAVOR_CODE_CHIP,
                   (Values{4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}));
}

TEST_F(ReplyTest, KeptResultIsGivenUpAfterThirtySeconds) {
    fill(client("c", kNever));
    send(SERVICE_SAVE_LOCATION, 7);
    const uint64_t kept_at = kernel.now_us;
    kernel.now_us = kept_at + 30 * kSecond - 1;
    EXPECT_TRUE(retry());
    EXPECT_EQ(losses, 0U);
    kernel.now_us = kept_at + 30 * kSecond;
    EXPECT_FALSE(retry());
    EXPECT_EQ(losses, 1U);
}

TEST_F(ReplyTest, OldResultIsTriedOnceMoreBeforeItIsGivenUp) {
    Reader& reader = client("c", kNever);
    fill(reader);
    send(SERVICE_SAVE_LOCATION, 7); // afterwards the service is busy for a minute
    kernel.now_us += 60 * kSecond;
    expect_arrives(reader, TAVOR_CODE_SAVE_LOCATION, Values{7});
    EXPECT_EQ(losses, 0U);
}

TEST_F(ReplyTest, ResultThatIsKeptMeanwhileIsNotOvertakenByTheOneThatWaits) {
    Reader& reader = client("slow", 700 * kMs);
    fill(reader);
    kernel.while_waiting = [] {
        kernel.while_waiting = nullptr;
        tavor_reply_failed(SERVICE_DEBUG_TCP);
    };
    send(SERVICE_COMMAND, 5);
    read_at_once(reader);
    EXPECT_FALSE(retry());
    let_read(reader);
    ASSERT_GE(reader.read.size(), 2U);
    EXPECT_EQ(reader.read.end()[-2].code, TAVOR_CODE_DEBUG + 0U);
    EXPECT_EQ(reader.read.end()[-1].code, TAVOR_CODE_CHIP + 0U);
    EXPECT_EQ(losses, 0U);
}

TEST_F(ReplyTest, ResultOfAClientThatIsGoneIsLostAtOnceAlsoWhenItWasKept) {
    fill(client("c", kNever));
    send(SERVICE_SAVE_LOCATION, 7);
    kernel.readers.clear();
    EXPECT_FALSE(retry());
    EXPECT_EQ(losses, 1U);
    send(SERVICE_SAVE_LOCATION, 8);
    EXPECT_EQ(losses, 2U);
    EXPECT_FALSE(retry());
}

TEST_F(ReplyTest, ResultThatFindsNoMemoryIsKept) {
    for (const int error : {ENOBUFS, ENOMEM}) {
        Reader& reader = client(std::to_string(error), 0);
        kernel.failures = 2;
        kernel.error = error;
        send(SERVICE_SAVE_LOCATION, 7);
        EXPECT_TRUE(retry());
        EXPECT_FALSE(retry());
        EXPECT_EQ(values_of(reader, TAVOR_CODE_SAVE_LOCATION), Values{7});
    }
    EXPECT_EQ(losses, 0U);
}

TEST_F(ReplyTest, FailedRequestIsAnsweredBehindWhatIsKeptAndWithoutWaiting) {
    Reader& reader = client("c", kNever);
    const uint64_t start = kernel.now_us;
    tavor_reply_failed(SERVICE_COMMAND);
    fill(reader);
    tavor_reply_failed(SERVICE_DEBUG_TCP);
    EXPECT_EQ(kernel.now_us, start);
    send(SERVICE_DEBUG_OFF, 1);
    tavor_reply_failed(SERVICE_DEBUG_TCP);
    expect_arrives(reader, TAVOR_CODE_CHIP, Values{TAVOR_VALUE_FAILED});
    EXPECT_EQ(values_of(reader, TAVOR_CODE_DEBUG), (Values{TAVOR_VALUE_FAILED, 1, TAVOR_VALUE_FAILED}));
}

TEST_F(ReplyTest, AddressOfTheClientIsSetUnderItsLock) {
    const TavorPeer one = peer("one");
    const int before = g_locks;
    tavor_reply_to(one);
    EXPECT_EQ(g_locks, before + 1);
}

TEST_F(ReplyTest, AddressOfTheClientIsReadWholeWhileItChanges) {
    const std::string one(100, '1');
    const std::string other(100, '2');
    client(one, 0);
    client(other, 0);
    std::atomic<bool> ending = false;
    std::thread changing([&] {
        while (!ending) {
            tavor_reply_to(peer(one));
            tavor_reply_to(peer(other));
        }
    });
    const std::string log = capture_stdout([] {
        for (int i = 0; i < 200000; ++i) {
            tavor_send_response(SERVICE_FRAME_NMEA, 0, nullptr, 0);
        }
    });
    ending = true;
    changing.join();
    EXPECT_EQ(log, "") << "an address of two halves";
}

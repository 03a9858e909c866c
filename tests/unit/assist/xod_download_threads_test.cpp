// The machinery asked for and taken down while another thread transfers a file.
#include "xod_download_fixture.h"

#include "support/capture.h"

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>
#include <utility>

namespace {

using std::string;
using Transfers = std::vector<std::pair<uint32_t, uint32_t>>;

// Holds the first transfer until it is released.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool reached = false;
    bool open = false;

    void pass() {
        std::unique_lock<std::mutex> guard(lock);
        reached = true;
        changed.notify_all();
        changed.wait(guard, [&] { return open; });
    }
    bool wait_until_reached() {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_for(guard, std::chrono::seconds(30), [&] { return reached; });
    }
    void let_go() {
        const std::lock_guard<std::mutex> guard(lock);
        open = true;
        changed.notify_all();
    }
};

struct XodDownloadThreads : XodDownload {
    // Starts a transfer with this result on another thread, does something meanwhile, and waits for its end.
    // Returns what was printed from then on.
    string during(int32_t result, const std::function<void()>& meanwhile) {
        xod_fakes.results = {result};
        xod_fakes.during_transfer = [this](uint32_t) { gate.pass(); };
        init();
        return capture_stdout([&] {
            std::thread timer([] { xod_download_enqueue({}); });
            EXPECT_TRUE(gate.wait_until_reached());
            for (FakeTimer& fired : xod_fakes.timers) {
                fired.due = -1;
            }
            meanwhile();
            gate.let_go();
            timer.join();
        });
    }

    Gate gate;
};

const string kDeinit = "[LOCSERV] INF: [XOD]xod_download_deinit\n";
const string kInit = "[LOCSERV] INF: [XOD]xod_download_init:15,1\n"
                     "[LOCSERV] INF: [XOD]valid:0,max:0\n"
                     "[LOCSERV] INF: [XOD]xod_download_init, start next download timer:3000\n";
const string kGood = "[LOCSERV] INF: [XOD]xod_download_handle_result:[0,1] 0\n";
const string kFailed = "[LOCSERV] INF: [XOD]xod_download_handle_result:[0,1] -1\n"
                       "[LOCSERV] INF: [XOD]xod_download_handle_result,start retry timer:300000\n";
const string kScheduled = "[LOCSERV] INF: [XOD]valid:0,max:0\n"
                          "[LOCSERV] INF: [XOD]xod_download_get_next_download_time:3000 [0,0]\n"
                          "[LOCSERV] INF: [XOD]xod_download_handle, start next download timer:3000\n";

} // namespace

TEST_F(XodDownloadThreads, DeinitFreesTheCurrentItemOnce) {
    for (const int32_t result : {0, -1}) {
        gate.open = gate.reached = false;
        EXPECT_EQ(during(result, [] { xod_download_deinit(); }), kDeinit + kGood + kScheduled);
        EXPECT_EQ(timers_alive(), 0U);
        EXPECT_EQ(xod_fakes.messages.back().value, static_cast<uint32_t>(result));
    }
}

TEST_F(XodDownloadThreads, FailedTransferIsRetriedByTheTimersOfTheSecondInit) {
    EXPECT_EQ(during(-1, [] { xod_download_init(15, 1); }), kInit + kFailed);
    EXPECT_EQ(next_in(), 3000);
    EXPECT_EQ(retry_in(), 300000);
    gate.open = true;
    fire();
    EXPECT_EQ(xod_fakes.transfers, Transfers(2, {0, 1}));
    EXPECT_EQ(retry_in(), -1);
}

TEST_F(XodDownloadThreads, RetryThatIsArmedWhileInitReadsTheFilesStays) {
    during(-1, [this] {
        xod_fakes.read_hours = [this](uint32_t) {
            gate.let_go();
            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (retry_in() == -1 && std::chrono::steady_clock::now() < end) {
                std::this_thread::yield();
            }
            return FakeHours{60, 1000};
        };
        xod_download_init(15, 1);
    });
    EXPECT_EQ(retry_in(), 300000);
    EXPECT_EQ(next_in(), 62912000);
    EXPECT_EQ(timers_alive(), 2U);
}

TEST_F(XodDownloadThreads, InitWhileDeinitReadsTheFilesStartsAgain) {
    EXPECT_EQ(during(0,
                     [] {
                         bool first = true;
                         xod_fakes.read_hours = [&first](uint32_t) {
                             if (std::exchange(first, false)) {
                                 xod_download_init(15, 1);
                             }
                             return FakeHours{};
                         };
                         xod_download_deinit();
                         xod_fakes.read_hours = nullptr; // uses what ends here
                     }),
              kDeinit + kGood + kInit + kScheduled);
    EXPECT_EQ(timers_alive(), 2U);
    EXPECT_EQ(next_in(), 3000);
}

TEST_F(XodDownloadThreads, DeinitWhileInitReadsTheFilesTakesEverythingDown) {
    xod_fakes.read_hours = [](uint32_t) {
        xod_download_deinit();
        return FakeHours{};
    };
    EXPECT_EQ(init(), "[LOCSERV] INF: [XOD]xod_download_init:15,1\n" + kDeinit +
                          "[LOCSERV] INF: [XOD]valid:0,max:0\n"
                          "[LOCSERV] INF: [XOD]xod_download_init, start next download timer:3000\n");
    xod_fakes.read_hours = nullptr;
    EXPECT_EQ(timers_alive(), 0U);
    EXPECT_EQ(enqueue(), "");
}

TEST_F(XodDownloadThreads, WorkThatComesDuringATransferIsDoneOnceBehindIt) {
    EXPECT_EQ(during(0,
                     [] {
                         for (int i = 0; i < 1000; ++i) {
                             xod_download_enqueue({}); // returns at once
                             xod_download_handle({});
                         }
                         EXPECT_EQ(xod_fakes.transfers.size(), 1U);
                     }),
              kGood + kGood + kScheduled);
    EXPECT_EQ(xod_fakes.transfers, Transfers(2, {0, 1}));
}

TEST_F(XodDownloadThreads, HandleDuringATransferThatFailsTriesAgainAtOnce) {
    xod_fakes.results = {-1, 0};
    EXPECT_EQ(during(-1, [] { xod_download_handle({}); }), kFailed + kGood + kScheduled);
    EXPECT_EQ(retry_in(), -1);
}

TEST_F(XodDownloadThreads, MachineryTakenDownAndStartedAgainKeepsItsOwnItems) {
    EXPECT_EQ(during(-1,
                     [] {
                         xod_download_deinit();
                         xod_download_init(15, 1);
                         xod_download_enqueue({}); // likely in the freed item's memory
                     }),
              kDeinit + kGood + kScheduled + kInit + kGood);
    // The old transfer's failure means nothing to the new machinery, whose item is fetched after it.
    EXPECT_EQ(xod_fakes.transfers, Transfers(2, {0, 1}));
    EXPECT_EQ(timers_alive(), 2U);
    EXPECT_EQ(next_in(), 3000);
}

TEST_F(XodDownloadThreads, MachineryTakenDownWithWorkWaitingFreesIt) {
    EXPECT_EQ(during(0,
                     [] {
                         xod_download_enqueue({});
                         xod_download_deinit();
                     }),
              kDeinit + kGood + kScheduled);
    EXPECT_EQ(xod_fakes.transfers.size(), 1U);
    EXPECT_EQ(timers_alive(), 0U);
}

TEST_F(XodDownloadThreads, ManyThreadsCorruptNothing) {
    init();
    capture_stdout([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([i] {
                for (int round = 0; round < 200; ++round) {
                    switch ((i + round) % 4) {
                    case 0:
                        xod_download_init(15, 2);
                        break;
                    case 1:
                        xod_download_deinit();
                        break;
                    case 2:
                        xod_download_handle({});
                        break;
                    default:
                        xod_download_enqueue({});
                        break;
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    });
    EXPECT_LE(timers_alive(), 2U);
    deinit();
    EXPECT_EQ(timers_alive(), 0U);
}

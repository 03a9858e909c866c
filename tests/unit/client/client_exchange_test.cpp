// Waiting for answers: late, lost, among others, or none.
#include "client/exchange.h"

#include "support/client_fake_daemon.h"
#include "support/private_dir.h"
#include "support/wait.h"

#include <array>
#include <atomic>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr double kLimitS = 60;
constexpr double kShortS = 0.2; // a wait that is meant to run out

const Visitor kSkip = [](const Record&) { return true; };
const FakeDaemon::Script kSilent = [](FakeDaemon&, const tavor_request&) {};

Request save(double timeout_s) {
    return {TAVOR_REQUEST_SAVE_LOCATION, TAVOR_CODE_SAVE_LOCATION, "", timeout_s, true};
}

// A daemon that runs the script, and a connection to it.
struct Pair {
    explicit Pair(const FakeDaemon::Script& script) : daemon((directory.path / "socket").string(), script) {
        EXPECT_TRUE(connection_open(connection, daemon.path)) << connection.error;
    }
    ~Pair() {
        close(connection.socket); // ends what a daemon sends without end, before the daemon ends
        connection.socket = -1;
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    Outcome ask(const Request& request, const Visitor& other = kSkip) {
        return exchange_ask(connection, request, other, answer);
    }

    PrivateDir directory;
    FakeDaemon daemon;
    Connection connection;
    std::optional<Record> answer;
};

struct Silences {
    std::vector<double> seconds;
    std::vector<int> counts;
    std::vector<bool> restarted;

    Follow follow(double silence_s, double end_s = kLimitS) {
        return {silence_s, deadline_in(end_s), [this](double length_s, int count, bool again) {
                    seconds.push_back(length_s);
                    counts.push_back(count);
                    restarted.push_back(again);
                }};
    }
};

} // namespace

TEST(Ask, AnswerIsFoundAmongEverythingElse) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        d.send(make_response(TAVOR_CODE_NMEA, 0, "$GPGGA*00\r\n"));
        d.send(make_response(TAVOR_CODE_START, TAVOR_VALUE_FAILED));
        d.send_bytes("\3\0\0\0\0\0\0\0", 8);
        d.send(make_response(4711, 0));
        d.send(make_position("1", "1.0", "1.0", "1.0"));
        d.send(make_response(TAVOR_CODE_SAVE_LOCATION, 5));
    });
    std::vector<RecordKind> others;
    const Visitor note = [&](const Record& record) {
        others.push_back(record.kind);
        return true;
    };
    EXPECT_EQ(pair.ask(save(kLimitS), note), Outcome::kDone);
    ASSERT_TRUE(pair.answer);
    EXPECT_EQ(pair.answer->value, 5U);
    EXPECT_EQ(others, (std::vector<RecordKind>{RecordKind::kNmea, RecordKind::kResult, RecordKind::kUnknown,
                                               RecordKind::kPosition}));
}

TEST(Ask, RequestIsRepeatedOnceWhenNothingComesBack) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        if (d.types().size() == 2) {
            d.send(make_response(TAVOR_CODE_SAVE_LOCATION, 0));
        }
    });
    EXPECT_EQ(pair.ask(save(kLimitS)), Outcome::kDone);
    EXPECT_TRUE(pair.answer);
    EXPECT_EQ(pair.daemon.types().size(), 2U);
}

TEST(Ask, RequestIsRepeatedOnceAtMostAndNotWhenItMayDoHarm) {
    for (const bool repeatable : {true, false}) {
        Pair pair(kSilent);
        Request request = save(kShortS);
        request.repeatable = repeatable;
        EXPECT_EQ(pair.ask(request), Outcome::kTimeout);
        EXPECT_FALSE(pair.answer);
        ASSERT_TRUE(connection_send(pair.connection, TAVOR_REQUEST_STOP, "", deadline_in(kLimitS)));
        ASSERT_TRUE(wait_until([&] {
            const std::vector<uint32_t> types = pair.daemon.types();
            return !types.empty() && types.back() == TAVOR_REQUEST_STOP;
        }));
        EXPECT_LE(pair.daemon.types().size(), repeatable ? 3U : 2U);
    }
}

TEST(Ask, LateAnswerToTheFirstRequestCounts) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        if (d.types().size() == 2) { // the second request waits behind the first one's work
            d.send(make_response(TAVOR_CODE_SAVE_LOCATION, TAVOR_VALUE_FAILED));
            d.send(make_response(TAVOR_CODE_SAVE_LOCATION, 0));
        }
    });
    EXPECT_EQ(pair.ask(save(kLimitS)), Outcome::kDone);
    ASSERT_TRUE(pair.answer);
    EXPECT_EQ(pair.answer->value, TAVOR_VALUE_FAILED);
}

TEST(Ask, SentenceOfTheChipIsNoResultOfACommand) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        d.send(make_response(TAVOR_CODE_CHIP, 0, "$PZUL010,2,0*00\r\n"));
        d.send(make_response(TAVOR_CODE_CHIP, TAVOR_VALUE_FAILED));
    });
    int sentences = 0;
    const Visitor count = [&](const Record& record) {
        sentences += record.kind == RecordKind::kChip ? 1 : 0;
        return true;
    };
    EXPECT_EQ(pair.ask({TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP, "353,1", kLimitS, false}, count),
              Outcome::kDone);
    ASSERT_TRUE(pair.answer);
    EXPECT_EQ(pair.answer->value, TAVOR_VALUE_FAILED);
    EXPECT_EQ(sentences, 1);
    EXPECT_EQ(pair.daemon.texts(), std::vector<std::string>{"353,1"});
}

TEST(Ask, VisitorThatHasEnoughEndsTheWaitWithoutAnAnswer) {
    Pair pair([](FakeDaemon& d, const tavor_request&) { d.send(make_response(TAVOR_CODE_NMEA, 0, "$x")); });
    EXPECT_EQ(pair.ask(save(kLimitS), [](const Record&) { return false; }), Outcome::kDone);
    EXPECT_FALSE(pair.answer);
}

TEST(Ask, EndlessStreamDoesNotStretchTheLimit) {
    std::atomic<int> sent = 0;
    Pair pair([&sent](FakeDaemon& d, const tavor_request&) {
        while (d.send(make_response(TAVOR_CODE_NMEA, 0, "$x"))) {
            ++sent;
        }
    });
    int seen = 0;
    const auto give_up = deadline_in(kLimitS);
    const Visitor until_more_has_come = [&](const Record&) {
        ++seen;
        while (sent < seen + 2) {
            std::this_thread::yield();
        }
        return Clock::now() < give_up; // by the clock: how many fit into the limit is the machine's affair
    };
    Request request = save(kShortS);
    request.repeatable = false;
    EXPECT_EQ(pair.ask(request, until_more_has_come), Outcome::kTimeout);
}

TEST(Follow, OutputThatAnotherClientTookIsTakenBack) {
    Pair pair([](FakeDaemon& d, const tavor_request& request) {
        d.send(make_response(TAVOR_CODE_NMEA, request.type, "$x"));
    });
    Silences silences;
    EXPECT_EQ(exchange_follow(pair.connection, silences.follow(0.05), [](const Record&) { return false; }),
              Outcome::kDone);
    EXPECT_EQ(pair.daemon.types(), std::vector<uint32_t>{0xFFFFFFFF});
    EXPECT_EQ(silences.counts, std::vector<int>{1});
    EXPECT_EQ(silences.restarted, std::vector<bool>{false});
    EXPECT_GE(silences.seconds.at(0), 0.05);
}

TEST(Follow, RestartedDaemonIsStartedAgain) {
    Pair pair(kSilent);
    Connection connection;
    {
        FakeDaemon first((pair.directory.path / "other").string(), kSilent);
        ASSERT_TRUE(connection_open(connection, first.path));
    }
    FakeDaemon second((pair.directory.path / "other").string(), [](FakeDaemon& d, const tavor_request&) {
        d.send(make_response(TAVOR_CODE_START, 0));
    });
    Silences silences;
    EXPECT_EQ(exchange_follow(connection, silences.follow(0.02), [](const Record&) { return false; }),
              Outcome::kDone);
    EXPECT_EQ(second.types(), std::vector<uint32_t>{TAVOR_REQUEST_START});
    EXPECT_EQ(silences.restarted, std::vector<bool>{true});
}

TEST(Follow, ItsEndComesInTheMiddleOfAStream) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        while (d.send(make_response(TAVOR_CODE_NMEA, 0, "$x"))) {
        }
    });
    ASSERT_TRUE(connection_send(pair.connection, TAVOR_REQUEST_START, "", deadline_in(kLimitS)));
    Silences silences;
    EXPECT_EQ(exchange_follow(pair.connection, silences.follow(kLimitS, kShortS), kSkip), Outcome::kTimeout);
    EXPECT_TRUE(silences.counts.empty());
}

TEST(Follow, MalformedDatagramsAreSilence) {
    Pair pair([](FakeDaemon& d, const tavor_request&) {
        while (d.send_bytes("x", 1)) {
        }
    });
    ASSERT_TRUE(connection_send(pair.connection, TAVOR_REQUEST_START, "", deadline_in(kLimitS)));
    Silences silences;
    EXPECT_EQ(exchange_follow(pair.connection, silences.follow(0.05, 1), kSkip), Outcome::kTimeout);
    EXPECT_FALSE(silences.counts.empty());
}

TEST(Follow, NoLimitMeansNoSilence) {
    Pair pair(kSilent);
    Silences silences;
    EXPECT_EQ(exchange_follow(pair.connection, silences.follow(0, kShortS), kSkip), Outcome::kTimeout);
    EXPECT_TRUE(silences.counts.empty());
}

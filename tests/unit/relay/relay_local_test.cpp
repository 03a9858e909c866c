#include "hub/hub.h"
#include "local/local_clients.h"
#include "relay_local_fixture.h"
#include "support/nobody.h"
#include "support/wait.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr uid_t kAnotherUser = 4711;

TEST_F(RelayLocal, EachGetsTheResultsOfItsOwnRequests) {
    const auto saver = client("saver");
    const auto helper = client("helper");
    ASSERT_TRUE(saver->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(helper->send(TAVOR_REQUEST_ASSIST));
    ASSERT_TRUE(answered(*saver, TAVOR_CODE_SAVE_LOCATION));
    ASSERT_TRUE(answered(*helper, TAVOR_CODE_ASSIST));
    EXPECT_EQ(saver->got.size(), 1U);
    EXPECT_EQ(helper->got.size(), 1U);
}

TEST_F(RelayLocal, WhoAsksStartGetsResultBannerSentencesAndPositions) {
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    push(TAVOR_CODE_POSITION, "121530.00");
    push(TAVOR_CODE_NMEA, numbered(1));
    push(TAVOR_CODE_CHIP, "$PZUL010,1*00\r\n");
    watcher->read();
    ASSERT_EQ(watcher->got.size(), 5U);
    EXPECT_EQ(watcher->got[0].code, TAVOR_CODE_START);
    EXPECT_EQ(text_of(watcher->got[1]), TAVOR_VERSION_BANNER);
    EXPECT_EQ(watcher->got[2].code, TAVOR_CODE_POSITION);
    EXPECT_EQ(text_of(watcher->got[3]), numbered(1));
    EXPECT_EQ(watcher->got[4].code, TAVOR_CODE_CHIP);
}

TEST_F(RelayLocal, TheBannerThatOneStartBroughtIsNoSentenceForOthers) {
    const auto first = client("first");
    ASSERT_TRUE(started(*first));
    loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, "TAVOR Version:V9\n"));
    loop.turn_for(kShortSecond);
    const auto second = client("second");
    ASSERT_TRUE(started(*second));
    second->read();
    first->read();
    EXPECT_EQ(text_of(second->got.back()), "TAVOR Version:V9\n");
    EXPECT_EQ(first->count(TAVOR_CODE_NMEA), 1U);
}

TEST_F(RelayLocal, AnotherLineWithoutADollarIsASentence) {
    const auto first = client("first");
    ASSERT_TRUE(started(*first));
    push(TAVOR_CODE_NMEA, "!AIVDM,1\r\n");
    first->read();
    EXPECT_EQ(text_of(first->got.back()), "!AIVDM,1\r\n");
    EXPECT_EQ(upstream_banner(), TAVOR_VERSION_BANNER);
}

TEST_F(RelayLocal, WhoSavesGetsNoSentence) {
    const auto watcher = client("watcher");
    const auto saver = client("saver");
    ASSERT_TRUE(started(*watcher));
    ASSERT_TRUE(saver->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(answered(*saver, TAVOR_CODE_SAVE_LOCATION));
    push(TAVOR_CODE_NMEA, numbered(1));
    saver->read();
    watcher->read();
    EXPECT_EQ(saver->got.size(), 1U);
    EXPECT_EQ(watcher->count(TAVOR_CODE_NMEA), 2U);
}

TEST_F(RelayLocal, WhoAsksStopGetsNothingMoreAndTheOthersGoOn) {
    const auto leaver = client("leaver");
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*leaver));
    ASSERT_TRUE(started(*watcher));
    as_nobody([&] { ASSERT_TRUE(leaver->send(TAVOR_REQUEST_STOP)); });
    ASSERT_TRUE(answered(*leaver, TAVOR_CODE_STOP));
    EXPECT_EQ(leaver->value(TAVOR_CODE_STOP), 0);
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_STOP), 0U);
    push(TAVOR_CODE_NMEA, numbered(1));
    leaver->read();
    watcher->read();
    EXPECT_EQ(leaver->count(TAVOR_CODE_NMEA), 1U); // the banner
    EXPECT_EQ(watcher->count(TAVOR_CODE_NMEA), 2U);
    as_nobody([&] { ASSERT_TRUE(watcher->send(TAVOR_REQUEST_STOP)); });
    ASSERT_TRUE(answered(*watcher, TAVOR_CODE_STOP));
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_STOP), 1U);
}

TEST_F(RelayLocal, RootStopsForAll) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const auto watcher = client("watcher");
    const auto admin = client("admin");
    ASSERT_TRUE(started(*watcher));
    ASSERT_TRUE(admin->send(TAVOR_REQUEST_STOP));
    ASSERT_TRUE(answered(*admin, TAVOR_CODE_STOP));
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_STOP), 1U);
    EXPECT_FALSE(positioning_is_on());
}

TEST_F(RelayLocal, DownloadSendAndDebugTakeTheRight) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    constexpr uint32_t kTypes[] = {TAVOR_REQUEST_DOWNLOAD,     TAVOR_REQUEST_COMMAND,
                                   TAVOR_REQUEST_DEBUG_OFF,    TAVOR_REQUEST_DEBUG_FILE,
                                   TAVOR_REQUEST_DEBUG_SERIAL, TAVOR_REQUEST_DEBUG_TCP};
    for (const uint32_t type : kTypes) {
        const uint32_t code = *upstream_requests_code(type);
        as_nobody([&] {
            PlayedClient anybody(loop.local_path, abstract_address(unique("anybody")));
            ASSERT_TRUE(anybody.send(type, "353,1"));
            ASSERT_TRUE(answered(anybody, code));
            EXPECT_EQ(anybody.value(code), TAVOR_VALUE_FAILED);
        });
        EXPECT_EQ(loop.daemon->count(type), 0U);
        const auto root = client("root");
        ASSERT_TRUE(root->send(type, "353,1"));
        ASSERT_TRUE(answered(*root, code));
        EXPECT_EQ(root->value(code), 0);
        EXPECT_EQ(loop.daemon->count(type), 1U);
    }
    EXPECT_EQ(hub_counters().refused, std::size(kTypes));
}

TEST_F(RelayLocal, AddressesOfAnyLengthAreRight) {
    std::vector<std::unique_ptr<PlayedClient>> clients;
    for (const size_t length : {12U, 108U, 30U, 107U, 12U}) {
        const std::string name = std::to_string(clients.size());
        clients.push_back(client(name, std::max<size_t>(length, unique(name).size() + 1)));
    }
    const std::string short_path = (loop.directory.path / "c").string();
    std::string long_path = short_path + std::string(108 - short_path.size(), 'c'); // no room for a NUL
    clients.push_back(std::make_unique<PlayedClient>(loop.local_path, short_path + '\0'));
    clients.push_back(std::make_unique<PlayedClient>(loop.local_path, long_path, false));
    for (const auto& one : clients) {
        ASSERT_TRUE(one->send(TAVOR_REQUEST_SAVE_LOCATION));
    }
    for (const auto& one : clients) {
        EXPECT_TRUE(answered(*one, TAVOR_CODE_SAVE_LOCATION));
        EXPECT_EQ(one->got.size(), 1U);
    }
}

// So many, or so many requests, take their time.
struct RelayManyClients : RelayLocal {
    RelayManyClients() : RelayLocal(std::chrono::seconds(1)) {}
};

TEST_F(RelayManyClients, AThousandAskAtOnceAndGetEverything) {
    std::vector<std::unique_ptr<PlayedClient>> clients;
    for (int i = 0; i < 1000; ++i) { // nobody is answered before the relay's queue is full
        clients.push_back(client("many" + std::to_string(i) + "-"));
        if (!clients.back()->send(TAVOR_REQUEST_START)) {
            ASSERT_TRUE(loop.until([&] { return clients.back()->send(TAVOR_REQUEST_START); }));
        }
    }
    for (const auto& one : clients) {
        ASSERT_TRUE(answered(*one, TAVOR_CODE_START));
        EXPECT_EQ(one->value(TAVOR_CODE_START), 0);
    }
    EXPECT_EQ(hub_counters().local_consumers, 1000U);
    for (int i = 0; i < 5; ++i) {
        push(TAVOR_CODE_NMEA, numbered(i));
    }
    ASSERT_TRUE(loop.until([&] {
        return std::all_of(clients.begin(), clients.end(), [](const auto& one) {
            one->read();
            return one->got.size() >= 7;
        });
    }));
    for (const auto& one : clients) {
        EXPECT_EQ(one->got.size(), 7U);
        EXPECT_EQ(text_of(one->got.back()), numbered(4));
    }
    EXPECT_EQ(hub_counters().dropped_local, 0U);
}

TEST_F(RelayManyClients, BeyondTheLimitOnlyRootComesIn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    for (int i = 1; i < 1024; ++i) {
        local_clients_subscribe(local_clients_of("another " + std::to_string(i), kAnotherUser), kLocalChip);
    }
    as_nobody([&] {
        PlayedClient late(loop.local_path, abstract_address(unique("late")));
        ASSERT_TRUE(late.send(TAVOR_REQUEST_SAVE_LOCATION));
        ASSERT_TRUE(answered(late, TAVOR_CODE_SAVE_LOCATION));
        EXPECT_EQ(late.value(TAVOR_CODE_SAVE_LOCATION), TAVOR_VALUE_FAILED);
        ASSERT_TRUE(watcher->send(TAVOR_REQUEST_SAVE_LOCATION)); // it has its place
        ASSERT_TRUE(answered(*watcher, TAVOR_CODE_SAVE_LOCATION));
        EXPECT_EQ(watcher->value(TAVOR_CODE_SAVE_LOCATION), 0);
    });
    EXPECT_EQ(local_clients_count(), 1024U);
    const auto root = client("root");
    ASSERT_TRUE(started(*root));
    EXPECT_EQ(local_clients_count(), 1025U);
}

TEST_F(RelayManyClients, TheLastPlacesAreForUsersWithFewerThanFour) {
    for (int i = 0; i < 1000; ++i) {
        local_clients_subscribe(local_clients_of("another " + std::to_string(i), kAnotherUser), kLocalChip);
    }
    as_nobody([&] {
        std::vector<std::unique_ptr<PlayedClient>> clients;
        for (int i = 0; i < 4; ++i) {
            clients.push_back(client("few" + std::to_string(i)));
            ASSERT_TRUE(started(*clients.back()));
            EXPECT_EQ(clients.back()->value(TAVOR_CODE_START), 0);
        }
        const auto fifth = client("fifth");
        ASSERT_TRUE(started(*fifth));
        EXPECT_EQ(fifth->value(TAVOR_CODE_START), TAVOR_VALUE_FAILED);
        ASSERT_TRUE(clients.front()->send(TAVOR_REQUEST_SAVE_LOCATION)); // it has its place
        ASSERT_TRUE(answered(*clients.front(), TAVOR_CODE_SAVE_LOCATION));
        EXPECT_EQ(clients.front()->value(TAVOR_CODE_SAVE_LOCATION), 0);
        for (const auto& one : clients) {
            one->close_socket();
        }
        push(TAVOR_CODE_NMEA, numbered(1));
        EXPECT_TRUE(fifth->send(TAVOR_REQUEST_SAVE_LOCATION));
        EXPECT_TRUE(answered(*fifth, TAVOR_CODE_SAVE_LOCATION));
        EXPECT_EQ(fifth->value(TAVOR_CODE_SAVE_LOCATION), 0);
    });
}

TEST_F(RelayLocal, WhoIsGoneIsNoticedByItsDatagrams) {
    const auto leaver = client("leaver");
    ASSERT_TRUE(started(*leaver));
    leaver->close_socket();
    push(TAVOR_CODE_NMEA, numbered(1));
    EXPECT_EQ(local_clients_count(), 0U);
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_STOP) == 1; }));
}

TEST_F(RelayLocal, WhoAsksStartAndDiesBeforeTheAnswerIsNoConsumer) {
    loop.daemon->answers = false;
    const auto asker = client("asker");
    ASSERT_TRUE(asker->send(TAVOR_REQUEST_START));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_START) == 1; }));
    asker->close_socket();
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_START, 0));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_STOP) == 1; }));
    EXPECT_EQ(local_clients_count(), 0U);
    EXPECT_EQ(hub_counters().local_consumers, 0U);
}

TEST_F(RelayManyClients, TheLateAnswerOfADaemonThatWasReplacedIsNobodys) {
    const auto asker = client("asker");
    loop.daemon->answers = false;
    ASSERT_TRUE(asker->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    const std::unique_ptr<PlayedDaemon> old = std::move(loop.daemon);
    loop.start_daemon();
    loop.daemon->answers = false;
    ASSERT_TRUE(answered(*asker, TAVOR_CODE_SAVE_LOCATION));
    EXPECT_EQ(asker->value(TAVOR_CODE_SAVE_LOCATION), TAVOR_VALUE_FAILED);
    ASSERT_TRUE(asker->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    EXPECT_FALSE(old->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 5))); // the kernel refuses it
    ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 6)));
    ASSERT_TRUE(loop.until([&] {
        asker->read();
        return asker->count(TAVOR_CODE_SAVE_LOCATION) == 2;
    }));
    EXPECT_EQ(asker->value(TAVOR_CODE_SAVE_LOCATION), 6);
}

TEST_F(RelayLocal, WhoIsGoneIsNoticedWhileTheChipIsSilent) {
    const auto connected = client("connected");
    const auto sender =
        std::make_unique<PlayedClient>(loop.local_path, abstract_address(unique("sender")), false);
    const auto stayer = client("stayer");
    ASSERT_TRUE(started(*connected));
    ASSERT_TRUE(started(*sender));
    ASSERT_TRUE(started(*stayer));
    connected->close_socket();
    sender->close_socket();
    ASSERT_TRUE(loop.until([] { return local_clients_count() == 1; }));
    loop.turn_for(15 * kShortSecond);
    EXPECT_EQ(hub_counters().local_consumers, 1U);
}

TEST_F(RelayLocal, ARequestOfNoKnownTypeTakesTheOutputAndGetsNoAnswer) {
    const auto taker = client("taker");
    ASSERT_TRUE(taker->send(0xFFFFFFFF));
    ASSERT_TRUE(loop.until([] { return hub_counters().local_consumers == 1; }));
    ASSERT_TRUE(loop.until(positioning_is_on));
    push(TAVOR_CODE_NMEA, numbered(1));
    taker->read();
    ASSERT_EQ(taker->got.size(), 1U);
    EXPECT_EQ(text_of(taker->got[0]), numbered(1));
}

TEST_F(RelayLocal, DatagramsOfOddSizesAreTakenAsTheDaemonTakesThem) {
    const auto odd = client("odd");
    const std::string garbage(4000, '\xA5');
    ASSERT_TRUE(odd->send_bytes(garbage.data(), 3));
    ASSERT_TRUE(odd->send_bytes(garbage.data(), 0));
    ASSERT_TRUE(loop.until([] { return hub_counters().malformed == 2; }));
    const uint32_t save = TAVOR_REQUEST_SAVE_LOCATION;
    ASSERT_TRUE(odd->send_bytes(&save, sizeof save));
    ASSERT_TRUE(answered(*odd, TAVOR_CODE_SAVE_LOCATION));
    std::string large = garbage;
    const uint32_t command = TAVOR_REQUEST_COMMAND;
    large.replace(0, sizeof command, reinterpret_cast<const char*>(&command), sizeof command);
    if (geteuid() == 0) {
        ASSERT_TRUE(odd->send_bytes(large.data(), large.size()));
        ASSERT_TRUE(answered(*odd, TAVOR_CODE_CHIP));
        EXPECT_EQ(strnlen(loop.daemon->requests.back().text, TAVOR_TEXT_SIZE), 511U);
    }
    EXPECT_EQ(odd->count(TAVOR_CODE_SAVE_LOCATION), 1U);
}

TEST_F(RelayLocal, WhoHasNoAddressIsHeardAndGetsNoAnswer) {
    PlayedClient nameless(loop.local_path, "");
    ASSERT_TRUE(nameless.send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    ASSERT_TRUE(loop.until([] { return local_clients_count() == 0; }));
}

TEST_F(RelayLocal, WhoHasNoAddressIsNoConsumer) {
    PlayedClient nameless(loop.local_path, "");
    ASSERT_TRUE(nameless.send(0xFFFFFFFF)); // takes the output and gets no answer
    ASSERT_TRUE(nameless.send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    EXPECT_EQ(hub_counters().local_consumers, 0U);
    EXPECT_EQ(local_clients_count(), 0U);
}

TEST_F(RelayLocal, SendersWithoutAnAddressAreNotOneClient) {
    loop.daemon->answers = false;
    PlayedClient nameless(loop.local_path, "");
    for (int i = 0; i < 16; ++i) { // as many as a client may have open
        ASSERT_TRUE(loop.until([&] { return nameless.send(TAVOR_REQUEST_SAVE_LOCATION); }));
    }
    PlayedClient other(loop.local_path, "");
    ASSERT_TRUE(loop.until([&] { return other.send(TAVOR_REQUEST_ASSIST); }));
    ASSERT_TRUE(loop.until([] { return hub_counters().requests == 17; }));
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 0));
    EXPECT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_ASSIST) == 1; }));
}

TEST_F(RelayLocal, AStartWithoutAnAddressStartsNothing) {
    PlayedClient nameless(loop.local_path, "");
    ASSERT_TRUE(nameless.send(TAVOR_REQUEST_START)); // nobody would get the output
    ASSERT_TRUE(nameless.send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_START), 0U);
    EXPECT_EQ(hub_counters().ignored, 1U);
}

// An output for which each item takes more than a turn.
void take_long() {
    const auto began = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - began < std::chrono::milliseconds(2)) {
    }
}

struct RelaySlowOutput : RelayLocal {
    // Lets a client ask, and the daemon send five sentences before its answer.
    void answer_after_five(PlayedClient& asker) {
        loop.daemon->answers = false;
        ASSERT_TRUE(asker.send(TAVOR_REQUEST_SAVE_LOCATION));
        ASSERT_TRUE(loop.until([&] { return loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION) == 1; }));
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, numbered(i))));
        }
        ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 0)));
        ASSERT_TRUE(answered(asker, TAVOR_CODE_SAVE_LOCATION));
    }
};

TEST_F(RelaySlowOutput, AnAnswerComesAfterWhatTheDaemonSentBefore) {
    hub_take([](const HubItem& /*unused*/) { take_long(); });
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    watcher->got.clear();
    answer_after_five(*watcher);
    watcher->read();
    ASSERT_EQ(watcher->got.size(), 6U);
    EXPECT_EQ(watcher->got.back().code, TAVOR_CODE_SAVE_LOCATION);
}

TEST_F(RelaySlowOutput, TheDaemonIsHeardWhileAnAnswerWaitsForWhatCameBefore) {
    uint64_t handed_out = 0;
    uint64_t heard = 0; // when the last one that came before the answer is handed out
    hub_take([&](const HubItem& /*unused*/) {
        if (++handed_out == 1) {
            loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, numbered(5)));
        }
        heard = handed_out == 5 ? hub_counters().sentences : heard;
        take_long();
    });
    const auto asker = client("asker");
    answer_after_five(*asker);
    EXPECT_EQ(heard, 6U);
}

TEST_F(RelayManyClients, WhoAsksOnAndOnWithoutWaitingIsNotHeardUntilItIsAnswered) {
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    loop.daemon->answers = false;
    const auto flood = client("flood");
    for (int i = 0; i < 300; ++i) {
        ASSERT_TRUE(loop.until([&] { return flood->send(TAVOR_REQUEST_SAVE_LOCATION); }));
    }
    const auto other = client("other");
    ASSERT_TRUE(other->send(TAVOR_REQUEST_ASSIST));
    loop.daemon->answers = true;
    ASSERT_TRUE(loop.until([&] {
        loop.daemon->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 0));
        flood->read();
        other->read();
        return other->count(TAVOR_CODE_ASSIST) == 1;
    }));
    EXPECT_EQ(other->value(TAVOR_CODE_ASSIST), 0);
    EXPECT_EQ(loop.daemon->count(TAVOR_REQUEST_SAVE_LOCATION), 16U);
    EXPECT_EQ(hub_counters().ignored, 300U - 16);
    ASSERT_TRUE(flood->send(TAVOR_REQUEST_ASSIST)); // it is heard again
    EXPECT_TRUE(answered(*flood, TAVOR_CODE_ASSIST));
}

TEST_F(RelayManyClients, OneUserHasSixtyFourOpenRequestsAndAStartBesides) {
    loop.daemon->answers = false;
    std::vector<std::unique_ptr<PlayedClient>> clients;
    for (int i = 0; i < 65; ++i) {
        clients.push_back(client("many" + std::to_string(i) + "-"));
        ASSERT_TRUE(loop.until([&] { return clients.back()->send(TAVOR_REQUEST_SAVE_LOCATION); }));
    }
    ASSERT_TRUE(answered(*clients.back(), TAVOR_CODE_SAVE_LOCATION));
    EXPECT_EQ(clients.back()->value(TAVOR_CODE_SAVE_LOCATION), TAVOR_VALUE_FAILED);
    clients.front()->read();
    EXPECT_EQ(clients.front()->got.size(), 0U);
    EXPECT_TRUE(clients.back()->send(TAVOR_REQUEST_START));
    loop.daemon->answers = true;
    loop.daemon->send(relay_response(TAVOR_CODE_SAVE_LOCATION, 0));
    ASSERT_TRUE(answered(*clients.back(), TAVOR_CODE_START));
    EXPECT_EQ(clients.back()->value(TAVOR_CODE_START), 0);
    clients.clear(); // what is answered is no longer counted, also for those that have left
    const auto next = client("next");
    ASSERT_TRUE(next->send(TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_TRUE(answered(*next, TAVOR_CODE_SAVE_LOCATION));
    EXPECT_EQ(next->value(TAVOR_CODE_SAVE_LOCATION), 0);
}

TEST_F(RelayLocal, NobodyElseIsTakenForTheDaemon) {
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    unlink(loop.daemon_path.c_str()); // the process goes on
    ASSERT_TRUE(loop.until([] { return !upstream_connected(); }));
    const uint64_t items = hub_counters().items;
    ASSERT_TRUE(loop.daemon->send(relay_response(TAVOR_CODE_NMEA, 0, numbered(1))));
    event_base_loop(loop.base.get(), EVLOOP_NONBLOCK);
    loop.start_daemon();
    ASSERT_TRUE(loop.until([] { return hub_counters().daemon_restarts == 1; }));
    EXPECT_EQ(hub_counters().items, items);
}

TEST_F(RelayManyClients, WhatStrangersSentBeforeTheDaemonWasThereIsNotTaken) {
    const auto watcher = client("watcher");
    ASSERT_TRUE(started(*watcher));
    const PlayedClient stranger(loop.daemon->peer.substr(sizeof(sa_family_t)), "", false);
    loop.daemon = nullptr;
    upstream_request(TAVOR_REQUEST_SAVE_LOCATION, "", [](uint32_t /*unused*/) {});
    ASSERT_TRUE(loop.until([] { return !upstream_connected(); }));
    const tavor_response sentence = relay_response(TAVOR_CODE_NMEA, 0, numbered(1));
    ASSERT_TRUE(stranger.send_bytes(&sentence, sizeof sentence));
    loop.start_daemon();
    const auto look = RelayClock::now() + loop.second / 2;
    ASSERT_TRUE(wait_until([&] { return RelayClock::now() > look; })); // is due before anything is read
    ASSERT_TRUE(loop.until([] { return hub_counters().daemon_restarts == 1; }));
    ASSERT_TRUE(loop.until([] { return hub_counters().malformed + hub_counters().sentences > 0; }));
    EXPECT_EQ(hub_counters().sentences, 0U);
}

TEST_F(RelayLocal, WhoSentACommandHearsTheChipAndWhoAskedForAssistanceItsResults) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const auto commander = client("commander");
    const auto helper = client("helper");
    ASSERT_TRUE(commander->send(TAVOR_REQUEST_COMMAND, "353,1"));
    ASSERT_TRUE(helper->send(TAVOR_REQUEST_ASSIST));
    ASSERT_TRUE(answered(*commander, TAVOR_CODE_CHIP));
    ASSERT_TRUE(answered(*helper, TAVOR_CODE_ASSIST));
    push(TAVOR_CODE_CHIP, "$PZUL001,353,0*27\r\n");
    push(TAVOR_CODE_ASSIST_RESULT, "");
    commander->read();
    helper->read();
    EXPECT_EQ(commander->got.size(), 2U);
    EXPECT_EQ(text_of(commander->got[1]), "$PZUL001,353,0*27\r\n");
    EXPECT_EQ(helper->got.size(), 2U);
    EXPECT_EQ(helper->got[1].code, TAVOR_CODE_ASSIST_RESULT);
}

} // namespace

// The client's end of the socket against a daemon that the test plays.
#include "client/connection.h"

#include "support/client_fake_daemon.h"
#include "support/nobody.h"
#include "support/private_dir.h"
#include "support/wait.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr double kLimitS = 60;

const FakeDaemon::Script kSilent = [](FakeDaemon&, const tavor_request&) {};

struct Directory {
    std::string socket_path() const {
        return (directory.path / "socket").string();
    }
    PrivateDir directory;
};

// A datagram socket bound at a path, which nobody reads.
struct DeafSocket {
    explicit DeafSocket(const std::string& path, int type = SOCK_DGRAM) : fd(socket(AF_UNIX, type, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~DeafSocket() {
        close(fd);
    }
    DeafSocket(const DeafSocket&) = delete;
    DeafSocket& operator=(const DeafSocket&) = delete;

    int fd;
};

struct Pipe {
    Pipe() {
        EXPECT_EQ(pipe(ends.data()), 0);
    }
    ~Pipe() {
        close_end(0);
        close_end(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void close_end(size_t i) {
        if (ends.at(i) >= 0) {
            close(ends.at(i));
            ends.at(i) = -1;
        }
    }
    std::array<int, 2> ends = {-1, -1};
};

bool send(Connection& connection, tavor_request_type type, const std::string& text = "") {
    return connection_send(connection, type, text, deadline_in(kLimitS));
}

Received receive(Connection& connection, tavor_response& response) {
    return connection_receive(connection, response, deadline_in(kLimitS));
}

} // namespace

TEST(Connection, AddressIsAbstractAndFillsAll110Bytes) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(3, 0)); });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    ASSERT_TRUE(send(connection, TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_EQ(receive(connection, response), Received::kResponse);

    EXPECT_EQ(daemon.sender_length(), 110U);
    EXPECT_EQ(daemon.sender().sun_path[0], '\0');
    EXPECT_EQ(strncmp(daemon.sender().sun_path + 1, "tavorctl-", 9), 0);
}

TEST(Connection, RequestHoldsTypeAndText) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(5, 0)); });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    for (const std::string& text : {std::string("353,1"), std::string(600, 'x')}) {
        ASSERT_TRUE(send(connection, TAVOR_REQUEST_COMMAND, text));
        ASSERT_EQ(receive(connection, response), Received::kResponse);
    }
    EXPECT_EQ(daemon.types(), (std::vector<uint32_t>{8, 8}));
    EXPECT_EQ(daemon.texts(), (std::vector<std::string>{"353,1", std::string(511, 'x')}));
}

TEST(Connection, MissingSocketSaysWhatToDo) {
    const Directory place;
    Connection connection;
    EXPECT_FALSE(connection_open(connection, place.socket_path()));
    EXPECT_EQ(connection.error, "no daemon at " + place.socket_path() +
                                    ": No such file or directory; start it or check --socket");
}

TEST(Connection, SocketWithoutDaemonIsRefused) {
    const Directory place;
    { const DeafSocket stale(place.socket_path()); }
    Connection connection;
    EXPECT_FALSE(connection_open(connection, place.socket_path()));
    EXPECT_EQ(connection.error,
              "no daemon at " + place.socket_path() + ": Connection refused; start it or check --socket");
}

TEST(Connection, SocketOfAnotherKindIsToldApart) {
    const Directory place;
    const DeafSocket stream(place.socket_path(), SOCK_STREAM);
    Connection connection;
    EXPECT_FALSE(connection_open(connection, place.socket_path()));
    EXPECT_EQ(connection.error.rfind("cannot reach the daemon at " + place.socket_path(), 0), 0U)
        << connection.error;
}

TEST(Connection, PathThatIsTooLongIsRefused) {
    Connection connection;
    EXPECT_FALSE(connection_open(connection, "/" + std::string(107, 'x')));
    EXPECT_NE(connection.error.find("File name too long"), std::string::npos) << connection.error;
}

TEST(Connection, MissingRightsNameTheGroup) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), kSilent);
    ASSERT_EQ(chmod(place.directory.path.c_str(), 0755), 0);
    ASSERT_EQ(chmod(daemon.path.c_str(), 0), 0);
    std::string error;
    as_nobody([&] {
        Connection connection;
        EXPECT_FALSE(connection_open(connection, daemon.path));
        error = connection.error;
    });
    EXPECT_EQ(
        error,
        "no access to the daemon at " + daemon.path +
            ": Permission denied; join group tavor ('sudo usermod -a -G tavor $USER') and log in again");
}

TEST(Connection, UsualSocketIsStartedByTheSupervisor) {
    EXPECT_EQ(connection_error_text(TAVOR_SOCKET_PATH, ECONNREFUSED),
              "no daemon at /etc/default/tavor/tavor_sun_path: Connection refused; start it with "
              "'systemctl start tavor'");
}

TEST(Connection, ControlCharactersOfThePathAreNotPrinted) {
    EXPECT_EQ(connection_error_text("/\x1b[2J", ENOENT).find('\x1b'), std::string::npos);
}

TEST(Connection, DatagramsOfOtherSizesAreMalformed) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), [](FakeDaemon& d, const tavor_request&) {
        const std::array<char, 600> bytes = {};
        for (const size_t size : {0U, 1U, 8U, 519U, 521U, 600U}) {
            d.send_bytes(bytes.data(), size);
        }
        d.send(make_response(3, 7));
    });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    ASSERT_TRUE(send(connection, TAVOR_REQUEST_SAVE_LOCATION));
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(receive(connection, response), Received::kMalformed) << i;
    }
    ASSERT_EQ(receive(connection, response), Received::kResponse);
    EXPECT_EQ(response.value, 7U);
}

TEST(Connection, SilenceEndsAtTheDeadline) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), kSilent);
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    const auto begin = Clock::now();
    EXPECT_EQ(connection_receive(connection, response, deadline_in(0.05)), Received::kTimeout);
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));
}

TEST(Connection, DatagramThatHasComeIsReadAlsoAfterTheDeadline) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), [](FakeDaemon& d, const tavor_request&) {
        d.send(make_response(3, 1));
        d.send(make_response(3, 2));
    });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    ASSERT_TRUE(send(connection, TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_EQ(receive(connection, response), Received::kResponse);
    const auto past = Clock::now();
    while (connection_receive(connection, response, past) == Received::kTimeout) {
        ASSERT_LT(Clock::now() - past, std::chrono::seconds(60));
    }
    EXPECT_EQ(response.value, 2U);
}

TEST(Connection, StrangersCannotSendToIt) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(3, 0)); });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    ASSERT_TRUE(send(connection, TAVOR_REQUEST_SAVE_LOCATION));
    ASSERT_EQ(receive(connection, response), Received::kResponse);

    const sockaddr_un address = daemon.sender();
    const int stranger = socket(AF_UNIX, SOCK_DGRAM, 0);
    const tavor_response forged = make_response(3, 0);
    EXPECT_EQ(sendto(stranger, &forged, sizeof forged, MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&address), sizeof address),
              -1);
    EXPECT_EQ(errno, EPERM);
    close(stranger);
}

TEST(Connection, InterruptEndsAWait) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), kSilent);
    Pipe interrupt;
    Connection connection;
    connection.interrupt = interrupt.ends[0];
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    ASSERT_EQ(write(interrupt.ends[1], "x", 1), 1);
    EXPECT_EQ(receive(connection, response), Received::kInterrupted);
}

TEST(Connection, ReaderThatHasGoneEndsAWait) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(), kSilent);
    Pipe output;
    Connection connection;
    connection.output = output.ends[1];
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    EXPECT_EQ(connection_receive(connection, response, Clock::now()), Received::kTimeout) << "still read";
    output.close_end(0);
    EXPECT_EQ(receive(connection, response), Received::kOutputClosed);
}

TEST(Connection, DaemonThatReadsNoRequestsIsGivenUpAtTheDeadline) {
    const Directory place;
    const DeafSocket deaf(place.socket_path());
    Connection connection;
    ASSERT_TRUE(connection_open(connection, place.socket_path()));
    int sent = 0;
    while (connection_send(connection, TAVOR_REQUEST_START, "", Clock::now()) && sent < 100000) {
        ++sent;
    }
    EXPECT_FALSE(connection_send(connection, TAVOR_REQUEST_START, "", deadline_in(0.05)));
    EXPECT_TRUE(connection.busy);
    EXPECT_EQ(connection.error.rfind("no request is taken by the daemon at " + place.socket_path(), 0), 0U)
        << connection.error;
}

TEST(Connection, InterruptEndsTheWaitForADaemonThatReadsNoRequests) {
    const Directory place;
    const DeafSocket deaf(place.socket_path());
    Pipe interrupt;
    Connection connection;
    ASSERT_TRUE(connection_open(connection, place.socket_path()));
    while (connection_send(connection, TAVOR_REQUEST_START, "", Clock::now())) {
    }
    connection.interrupt = interrupt.ends[0];
    ASSERT_EQ(write(interrupt.ends[1], "x", 1), 1);
    EXPECT_FALSE(send(connection, TAVOR_REQUEST_START));
    EXPECT_EQ(connection.error, "");
}

TEST(Connection, RestartedDaemonIsFoundAgain) {
    const Directory place;
    Connection connection;
    {
        FakeDaemon first(place.socket_path(), kSilent);
        ASSERT_TRUE(connection_open(connection, first.path));
    }
    FakeDaemon second(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(1, 0)); });
    tavor_response response = {};
    ASSERT_TRUE(send(connection, TAVOR_REQUEST_STOP)) << connection.error;
    EXPECT_EQ(receive(connection, response), Received::kResponse);
}

TEST(Connection, DaemonThatIsBeingRestartedIsWaitedFor) {
    const Directory place;
    const std::string own = "@tavorctl-" + std::to_string(getpid()) + "-";
    std::unique_ptr<FakeDaemon> daemon;
    std::thread restart([&] {
        EXPECT_TRUE(wait_until([&] { // its address stands before it connects
            std::ifstream sockets("/proc/net/unix");
            const std::string all(std::istreambuf_iterator<char>(sockets), {});
            return all.find(own) != std::string::npos;
        }));
        daemon = std::make_unique<FakeDaemon>(place.socket_path(), kSilent);
    });
    Connection connection;
    EXPECT_TRUE(connection_open(connection, place.socket_path())) << connection.error;
    restart.join();
}

TEST(Connection, InterruptEndsTheWaitForADaemon) {
    const Directory place;
    Pipe interrupt;
    Connection connection;
    connection.interrupt = interrupt.ends[0];
    ASSERT_EQ(write(interrupt.ends[1], "x", 1), 1);
    EXPECT_FALSE(connection_open(connection, place.socket_path()));
    EXPECT_EQ(connection.error, "");
}

TEST(Connection, PresenceIsToldWithoutARequest) {
    const Directory directory;
    auto daemon = std::make_unique<FakeDaemon>(directory.socket_path(), kSilent);
    Connection connection;
    ASSERT_TRUE(connection_open(connection, daemon->path));
    EXPECT_EQ(connection_presence(connection), Presence::kSame);
    ASSERT_EQ(chmod(daemon->path.c_str(), 0600), 0);
    EXPECT_EQ(connection_presence(connection), Presence::kSame) << "other rights make no other socket";
    EXPECT_TRUE(daemon->types().empty());
    daemon.reset();
    EXPECT_EQ(connection_presence(connection), Presence::kGone) << "no socket";
    { const DeafSocket dead(directory.socket_path()); }
    EXPECT_EQ(connection_presence(connection), Presence::kGone) << "a socket that nobody serves";
}

TEST(Connection, PresenceTellsARestartedDaemon) {
    const Directory directory;
    const DeafSocket before(directory.socket_path());
    Connection connection;
    ASSERT_TRUE(connection_open(connection, directory.socket_path()));
    ASSERT_EQ(unlink(directory.socket_path().c_str()), 0);
    const DeafSocket after(directory.socket_path());
    EXPECT_EQ(connection_presence(connection), Presence::kRestarted);
    Connection anew;
    ASSERT_TRUE(connection_open(anew, directory.socket_path()));
    EXPECT_EQ(connection_presence(anew), Presence::kSame);
}

TEST(Connection, RetakingTheOutputStartsNothingInARunningDaemon) {
    const Directory place;
    FakeDaemon daemon(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(6, 0)); });
    Connection connection;
    tavor_response response = {};
    ASSERT_TRUE(connection_open(connection, daemon.path));
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kSameDaemon);
    ASSERT_EQ(receive(connection, response), Received::kResponse);
    EXPECT_EQ(daemon.types(), std::vector<uint32_t>{0xFFFFFFFF});
}

TEST(Connection, RetakingTheOutputStartsARestartedDaemon) {
    const Directory place;
    Connection connection;
    {
        FakeDaemon first(place.socket_path(), kSilent);
        ASSERT_TRUE(connection_open(connection, first.path));
    }
    FakeDaemon second(place.socket_path(),
                      [](FakeDaemon& d, const tavor_request&) { d.send(make_response(0, 0)); });
    tavor_response response = {};
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kNewDaemon);
    ASSERT_EQ(receive(connection, response), Received::kResponse);
    EXPECT_EQ(second.types(), std::vector<uint32_t>{TAVOR_REQUEST_START});
}

TEST(Connection, RetakingFromADaemonThatIsGoneFails) {
    const Directory place;
    Connection connection;
    {
        FakeDaemon daemon(place.socket_path(), kSilent);
        ASSERT_TRUE(connection_open(connection, daemon.path));
    }
    EXPECT_EQ(connection_retake(connection, deadline_in(kLimitS)), Retaken::kFailed);
    EXPECT_EQ(connection.error.rfind("no daemon at ", 0), 0U) << connection.error;
}

TEST(Connection, NoSecondsMeanNoDeadline) {
    EXPECT_EQ(deadline_in(0), Clock::time_point::max());
    EXPECT_LT(deadline_in(366.0 * 24 * 60 * 60), Clock::time_point::max());
}

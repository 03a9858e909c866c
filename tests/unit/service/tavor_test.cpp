#include "base/stop_request.h"
#include "interpose/fail.h"
#include "interpose/paths.h"
#include "service/location_service.h"
#include "service/tavor.h"
#include "service/tavor_reply.h"
#include "support/call_fault.h"
#include "support/capture.h"
#include "support/private_dir.h"
#include "support/wait.h"
#include "tavor/protocol.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <poll.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

namespace {

int g_flock_error = 0; // 0: it does not fail
ResponseCallback g_installed = nullptr;
std::function<int32_t()> g_during_init;

constexpr int kGenerousMs = 30000;
const Texts kQueueFull = {"[LOCSERV] ERR: location_service_task_send_message, Fail!"};
const Texts kSendError = {"[LOCSERV] ERR: tavor_send_response, sendto error"};

} // namespace

extern "C" int __real_flock(int fd, int operation);
extern "C" int __wrap_flock(int fd, int operation) {
    errno = g_flock_error;
    return g_flock_error == 0 ? __real_flock(fd, operation) : -1;
}

int32_t location_service_init(ResponseCallback response) {
    g_installed = response;
    return g_during_init();
}

namespace {

// An abstract name of this process's own, filled up to the wanted length of the whole address.
struct Address {
    explicit Address(const std::string& name, socklen_t wanted = sizeof(sockaddr_un)) {
        const std::string own = std::to_string(getpid()) + "-" + name;
        value.sun_family = AF_UNIX;
        own.copy(value.sun_path + 1, sizeof value.sun_path - 1);
        length = std::max<socklen_t>(
            wanted, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + own.size()));
    }
    sockaddr_un value = {};
    socklen_t length = 0;
};

struct Client {
    Client() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    // The plain system call: these addresses are not the board's business.
    explicit Client(const Address& address) : Client() {
        EXPECT_EQ(syscall(SYS_bind, fd, reinterpret_cast<const sockaddr*>(&address.value), address.length),
                  0);
    }
    ~Client() {
        close(fd);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send_bytes(const std::string& bytes) const {
        sockaddr_un daemon = {};
        daemon.sun_family = AF_UNIX;
        interpose_map(TAVOR_SOCKET_PATH).copy(daemon.sun_path, sizeof daemon.sun_path - 1);
        EXPECT_EQ(sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&daemon),
                         sizeof daemon),
                  static_cast<ssize_t>(bytes.size()));
    }
    void send(uint32_t type, const std::string& text = "") const {
        tavor_request request = {};
        request.type = type;
        text.copy(request.text, sizeof request.text);
        send_bytes(std::string(reinterpret_cast<const char*>(&request), sizeof request));
    }
    std::optional<tavor_response> receive(int wait_ms = kGenerousMs) const {
        pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
        if (poll(&ready, 1, wait_ms) != 1) {
            return std::nullopt;
        }
        char bytes[2000];
        EXPECT_EQ(recv(fd, bytes, sizeof bytes, 0), 520);
        tavor_response response = {};
        memcpy(&response, bytes, sizeof response);
        return response;
    }
    // Nothing has been sent: what is sent lies in the queue before the sender goes on.
    bool silent() const {
        return !receive(0).has_value();
    }

    int fd;
};

std::string text_of(const tavor_response& response) {
    return {reinterpret_cast<const char*>(response.payload), sizeof response.payload};
}

struct TavorTest : testing::Test {
    void SetUp() override {
        alarm(60); // a receive waits for ever, and a send to a full queue may
        interpose_set_root(dir.path.string());
        std::filesystem::create_directories(
            std::filesystem::path(interpose_map(TAVOR_SOCKET_PATH)).parent_path());
        ASSERT_NE(service_queue_open(), -1);
        fd = tavor_init();
        ASSERT_NE(fd, -1);
    }
    void TearDown() override {
        alarm(0);
        interpose_fail_reset();
        while (stop_request_pending()) { // of what is still queued
            stop_request_withdraw();
        }
        close(fd);
        msgctl(g_service_state.msqid, IPC_RMID, nullptr);
    }
    static size_t queued() {
        msqid_ds info = {};
        EXPECT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &info), 0);
        return info.msg_qnum;
    }
    static ServiceMessage take_queued() {
        ServiceMessage message = {};
        // On a thread of its own: this one must not become the queue's consumer, which never waits for room.
        std::thread([&] { EXPECT_TRUE(service_queue_receive(&message)); }).join();
        service_queue_handled(message);
        return message;
    }
    // Lets the daemon take one request and returns what it enqueued.
    static ServiceMessage take() {
        EXPECT_EQ(tavor_receive(), 0);
        EXPECT_EQ(queued(), 1U);
        return take_queued();
    }
    static std::string take_command() {
        const ServiceMessage message = take();
        EXPECT_EQ(message.id, SERVICE_COMMAND);
        const char* text = static_cast<const char*>(message.data);
        EXPECT_EQ(text[message.length], '\0');
        std::string command(text, message.length);
        free(message.data);
        return command;
    }
    static void fill_queue() {
        msqid_ds small = {};
        ASSERT_EQ(msgctl(g_service_state.msqid, IPC_STAT, &small), 0);
        small.msg_qbytes = 2 * 24;
        ASSERT_EQ(msgctl(g_service_state.msqid, IPC_SET, &small), 0);
        location_service_task_send_message(SERVICE_DEBUG_OFF, nullptr, 0);
        location_service_task_send_message(SERVICE_DEBUG_OFF, nullptr, 0);
    }
    static std::string directory() {
        return std::filesystem::path(interpose_map(TAVOR_SOCKET_PATH)).parent_path();
    }
    // Runs the daemon until it ends by itself, in place of this test's socket.
    int run() {
        close(std::exchange(fd, -1));
        return tavor_run();
    }
    // The descriptor that is bound at the daemon's path.
    static int bound_socket() {
        for (int one = 0; one < 1000; ++one) {
            sockaddr_un address = {};
            socklen_t length = sizeof address;
            if (getsockname(one, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
                address.sun_path == interpose_map(TAVOR_SOCKET_PATH)) {
                return one;
            }
        }
        return -1;
    }
    // What a reply logs.
    static Texts reply() {
        return lines_of(capture_stdout([] { tavor_send_response(SERVICE_START, 0, nullptr, 0); }));
    }
    static bool is_answered(const Client& client) {
        reply();
        return client.receive().has_value();
    }
    // Makes the client the one that is answered.
    static void become_client(const Client& client) {
        client.send(TAVOR_REQUEST_DEBUG_OFF);
        take();
    }

    PrivateDir dir;
    int fd = -1;
};

} // namespace

TEST_F(TavorTest, SocketIsBoundAtItsPathAsADatagramSocket) {
    EXPECT_TRUE(std::filesystem::is_socket(interpose_map(TAVOR_SOCKET_PATH)));
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
}

TEST_F(TavorTest, StaleSocketFileIsReplaced) {
    close(fd);
    fd = tavor_init();
    EXPECT_NE(fd, -1);
}

TEST_F(TavorTest, UnreadRepliesHaveMoreRoomThanTheDefault) {
    const int plain = socket(AF_UNIX, SOCK_DGRAM, 0);
    int usual = 0;
    int widened = 0;
    socklen_t length = sizeof usual;
    ASSERT_EQ(getsockopt(plain, SOL_SOCKET, SO_SNDBUF, &usual, &length), 0);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &widened, &length), 0);
    close(plain);
    EXPECT_GT(widened, usual);
}

TEST_F(TavorTest, InitReportsAPathThatCanNotBeBound) {
    interpose_set_root((dir.path / "missing").string());
    int32_t result = 0;
    EXPECT_EQ(lines_of(capture_stdout([&] { result = tavor_init(); })),
              Texts{"[LOCSERV] ERR: tavor_init, bind error"});
    EXPECT_EQ(result, -1);
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = descriptors();
    EXPECT_EQ(lines_of(capture_stdout([&] { result = tavor_run(); })),
              Texts{"[LOCSERV] ERR: tavor_init, bind error"});
    EXPECT_EQ(result, -1);
    EXPECT_EQ(descriptors(), before);
}

TEST_F(TavorTest, InitReportsThatThereIsNoSocket) {
    interpose_fail("socket", 1, EMFILE);
    int32_t result = 0;
    EXPECT_EQ(lines_of(capture_stdout([&] { result = tavor_init(); })),
              Texts{"[LOCSERV] ERR: tavor_init, socket error"});
    EXPECT_EQ(result, -1);
}

TEST_F(TavorTest, EachRequestTypeBecomesItsServiceMessage) {
    const Client client(Address("c"));
    const struct {
        uint32_t type;
        uint32_t id;
    } rows[] = {{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 15}, {9, 8}};
    for (const auto& row : rows) {
        client.send(row.type, "ignored");
        const ServiceMessage message = take();
        EXPECT_EQ(message.id, row.id);
        EXPECT_EQ(message.data, nullptr);
        EXPECT_EQ(message.length, 0U);
    }
    client.send(8, ",101,2");
    EXPECT_EQ(take_command(), ",101,2");
}

TEST_F(TavorTest, UnknownTypesAreLoggedAndNotAnswered) {
    const Client client(Address("c"));
    for (const auto& [type, shown] :
         {std::pair<uint32_t, std::string>{10, "10"}, {77, "77"}, {0xFFFFFFFF, "-1"}}) {
        client.send(type);
        EXPECT_EQ(lines_of(capture_stdout([] { EXPECT_EQ(tavor_receive(), 0); })),
                  Texts{"[LOCSERV] ERR: [tavor]unkown message type:" + shown});
    }
    EXPECT_EQ(queued(), 0U);
    EXPECT_TRUE(client.silent());
}

TEST_F(TavorTest, CommandsAsTheirDatagramsGiveThem) {
    const Client client(Address("c"));
    const std::string type("\x08\0\0\0", 4);
    const struct {
        std::string datagram;
        std::string command;
    } rows[] = {{type + ",1" + std::string(510, '\0'), ",1"},
                {type + std::string(512, '\0'), ""},
                {type + std::string(512, 'x'), std::string(511, 'x')},
                {type + std::string(1996, 'y'), std::string(511, 'y')},
                {type, std::string(511, 'y')}}; // the text of the one before
    for (const auto& row : rows) {
        client.send_bytes(row.datagram);
        EXPECT_EQ(take_command(), row.command);
    }
}

TEST_F(TavorTest, ShortDatagramsAreCompletedByTheOneBefore) {
    const Client client(Address("c"));
    client.send(5);
    EXPECT_EQ(take().id, SERVICE_DEBUG_FILE);
    client.send_bytes("");
    EXPECT_EQ(take().id, SERVICE_DEBUG_FILE);
    client.send_bytes(std::string("\x06", 1));
    EXPECT_EQ(take().id, SERVICE_DEBUG_SERIAL);
    client.send_bytes(std::string("\x03\0", 2));
    EXPECT_EQ(take().id, SERVICE_SAVE_LOCATION);
    client.send_bytes(std::string("\x07\0\0", 3));
    EXPECT_EQ(take().id, SERVICE_DEBUG_TCP);
}

TEST_F(TavorTest, CommandWithoutMemoryIsDroppedWithALine) {
    const Client client(Address("c"));
    client.send(8, "x");
    int32_t result = -1;
    const std::string out = capture_stdout([&] {
        call_faults.malloc = kEachCall;
        result = tavor_receive();
        call_faults.malloc = kNoFault;
    });
    EXPECT_EQ(lines_of(out), Texts{"[LOCSERV] ERR: [tavor]cmd buf, malloc fail"});
    EXPECT_EQ(result, 0);
    EXPECT_EQ(queued(), 0U);
}

TEST_F(TavorTest, ServiceIdsBecomeResponseCodes) {
    const Client client(Address("c"));
    become_client(client);
    const int codes[] = {0, 1, 2, 3, 4, 4, 4, 5, 7, 8, -1, 6, -1, -1, 9, 4, -1, -1};
    for (uint32_t id = 0; id < std::size(codes); id++) {
        tavor_send_response(id, 1000 + id, nullptr, 0);
        if (codes[id] == -1) {
            EXPECT_TRUE(client.silent()) << id;
            continue;
        }
        const auto response = client.receive();
        ASSERT_TRUE(response.has_value()) << id;
        EXPECT_EQ(response->code, static_cast<uint32_t>(codes[id])) << id;
        EXPECT_EQ(response->value, 1000 + id);
        EXPECT_EQ(text_of(*response), std::string(512, '\0'));
    }
    tavor_send_response(0xFFFFFFFF, 0, nullptr, 0);
    EXPECT_TRUE(client.silent());
}

TEST_F(TavorTest, PayloadIsZeroFilledAndCutTo512Bytes) {
    const Client client(Address("c"));
    become_client(client);
    const std::string payload(513, 'p');
    const struct {
        uint32_t length;
        size_t copied;
    } rows[] = {{0, 0}, {1, 1}, {511, 511}, {512, 512}, {513, 512}, {0x80000000, 512}, {0xFFFFFFFF, 512}};
    for (const auto& row : rows) {
        tavor_send_response(SERVICE_FRAME_NMEA, 0, payload.data(), row.length);
        const auto response = client.receive();
        ASSERT_TRUE(response.has_value());
        EXPECT_EQ(text_of(*response), std::string(row.copied, 'p') + std::string(512 - row.copied, '\0'))
            << row.length;
    }
    tavor_send_response(SERVICE_FRAME_NMEA, 0, nullptr, 100);
    EXPECT_EQ(text_of(client.receive().value()), std::string(512, '\0'));
}

TEST_F(TavorTest, ReplyBeforeAnyRequestOrToAClientThatIsGoneIsLoggedAndDropped) {
    EXPECT_EQ(reply(), kSendError);
    {
        const Client client(Address("c"));
        become_client(client);
    }
    EXPECT_EQ(reply(), kSendError);
    const Client next(Address("n"));
    become_client(next);
    EXPECT_TRUE(is_answered(next));
}

TEST_F(TavorTest, SecondClientTakesOverAllOutput) {
    const Client first(Address("first"));
    const Client second(Address("second"));
    become_client(first);
    tavor_send_response(SERVICE_FRAME_NMEA, 0, "$1", 2);
    EXPECT_EQ(text_of(first.receive().value()).substr(0, 2), "$1");
    become_client(second);
    tavor_send_response(SERVICE_FRAME_NMEA, 0, "$2", 2);
    EXPECT_EQ(text_of(second.receive().value()).substr(0, 2), "$2");
    EXPECT_TRUE(first.silent());
    first.send(10); // of an unknown type
    capture_stdout([] { EXPECT_EQ(tavor_receive(), 0); });
    EXPECT_TRUE(is_answered(first));
    EXPECT_TRUE(second.silent());
}

TEST_F(TavorTest, LongerAddressThanTheOneBeforeIsCutForOneDatagram) {
    const Address short_address("s", 0);
    const Address long_address("long-address");
    Address cut_address = long_address;
    memset(reinterpret_cast<char*>(&cut_address.value) + short_address.length, 0,
           sizeof cut_address.value - short_address.length);
    const Client short_client(short_address);
    const Client long_client(long_address);
    const Client cut_client(cut_address);

    become_client(short_client);
    become_client(long_client);
    EXPECT_TRUE(is_answered(cut_client));
    EXPECT_TRUE(long_client.silent());

    become_client(long_client);
    EXPECT_TRUE(is_answered(long_client));
    EXPECT_TRUE(cut_client.silent());
}

TEST_F(TavorTest, SenderWithoutAddressGetsNoReplyAndCutsTheNextOne) {
    const Client nameless;
    become_client(nameless);
    EXPECT_EQ(reply(), kSendError);

    const Client client(Address("c"));
    become_client(client);
    EXPECT_EQ(reply(), kSendError);
    become_client(client);
    EXPECT_TRUE(is_answered(client));
}

TEST_F(TavorTest, ClientWhosePathFillsTheAddressWithoutANulIsAnswered) {
    Address address("");
    // Two slashes: the board's own look at addresses below /tmp/ has no room for this one.
    std::string path = "/" + dir.path.string() + "/";
    path.append(sizeof address.value.sun_path - path.size(), 'p');
    path.copy(address.value.sun_path, path.size());
    const Client client(address);
    for (int i = 0; i < 2; i++) {
        become_client(client);
        EXPECT_TRUE(is_answered(client)) << i;
    }
}

TEST_F(TavorTest, FailedReceiveIsLoggedAndClosesTheSocket) {
    const int not_a_socket = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(not_a_socket, fd), fd);
    close(not_a_socket);
    int32_t result = 0;
    EXPECT_EQ(lines_of(capture_stdout([&] { result = tavor_receive(); })),
              Texts{"[LOCSERV] ERR: recv error"});
    EXPECT_EQ(result, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(TavorTest, RunInstallsTheCallbackIgnoresSigpipeAndEndsWithAFailedReceive) {
    const Client client(Address("c"));
    g_during_init = [&] {
        client.send(10);
        const timeval soon = {.tv_sec = 0, .tv_usec = 10000}; // the receive after that one fails
        EXPECT_EQ(setsockopt(bound_socket(), SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon), 0);
        return 0;
    };
    signal(SIGPIPE, SIG_DFL);
    int result = 0;
    const std::string out = capture_stdout([&] { result = run(); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(g_installed, &tavor_send_response);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_IGN);
    EXPECT_EQ(lines_of(out),
              (Texts{"[LOCSERV] ERR: [tavor]unkown message type:10", "[LOCSERV] ERR: recv error"}));
}

TEST_F(TavorTest, RunEndsWhenTheServiceCanNotBeStarted) {
    g_during_init = [] { return -1; };
    EXPECT_EQ(run(), -1);
}

TEST_F(TavorTest, DaemonThatCanNotLockItsDirectoryDoesNotRun) {
    const auto bound = std::filesystem::last_write_time(directory());
    g_during_init = [] {
        ADD_FAILURE() << "another daemon may run";
        return -1;
    };
    const std::string start = "tavor: can't lock the directory of " TAVOR_SOCKET_PATH ": ";
    interpose_fail("open", 1, EACCES);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), start + "Permission denied\n");
    g_flock_error = ENOLCK;
    testing::internal::CaptureStderr();
    EXPECT_EQ(run(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), start + "No locks available\n");
    g_flock_error = 0;
    EXPECT_EQ(std::filesystem::last_write_time(directory()), bound) << "the socket was touched";
}

TEST_F(TavorTest, FullQueueFailsARequestWithItsOwnCode) {
    const Client client(Address("c"));
    fill_queue();
    for (const auto& [type, code] : {std::pair<uint32_t, uint32_t>{TAVOR_REQUEST_COMMAND, TAVOR_CODE_CHIP},
                                     {TAVOR_REQUEST_DEBUG_TCP, TAVOR_CODE_DEBUG},
                                     {TAVOR_REQUEST_START, TAVOR_CODE_START}}) {
        client.send(type, "353,1");
        EXPECT_EQ(lines_of(capture_stdout([] { EXPECT_EQ(tavor_receive(), 0); })), kQueueFull);
        const auto response = client.receive();
        ASSERT_TRUE(response.has_value());
        EXPECT_EQ(response->code, code);
        EXPECT_EQ(response->value, TAVOR_VALUE_FAILED);
    }
}

TEST_F(TavorTest, RequestWaitsForRoomForHalfASecondWhenNoneWaitedBeforeIt) {
    const Client client(Address("c"));
    fill_queue();
    std::atomic<bool> ending = false;
    std::thread receiver([&] {
        while (!ending && tavor_receive() == 0) {
        }
    });
    const auto ask = [&] {
        const Clock::time_point start = Clock::now();
        client.send(TAVOR_REQUEST_DEBUG_OFF);
        EXPECT_TRUE(client.receive().has_value());
        return Clock::now() - start;
    };
    for (int i = 0; i < 2; ++i) {
        // A request that comes before the daemon waits for one has no time of its own.
        EXPECT_TRUE(wait_until([&] { return ask() >= milliseconds(500); }));
    }
    ending = true;
    client.send(TAVOR_REQUEST_STOP);
    receiver.join();
}

TEST_F(TavorTest, RequestsThatWaitTogetherShareHalfASecond) {
    const Client client(Address("c"));
    fill_queue();
    for (int i = 0; i < 9; ++i) { // the daemon's socket takes ten
        client.send(TAVOR_REQUEST_COMMAND, "353,1");
    }
    client.send(TAVOR_REQUEST_STOP);
    const Clock::time_point start = Clock::now();
    capture_stdout([] {
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(tavor_receive(), 0);
        }
    });
    EXPECT_LT(Clock::now() - start, milliseconds(9 * 500)) << "nine that each wait for themselves";
    EXPECT_EQ(take_queued().id, SERVICE_DEBUG_OFF);
    EXPECT_EQ(take_queued().id, SERVICE_DEBUG_OFF);
    EXPECT_EQ(take_queued().id, SERVICE_STOP);
}

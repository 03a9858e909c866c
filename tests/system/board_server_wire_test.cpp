// The board's socket against whatever comes in.
#include "interpose/wire.h"
#include "server/board_socket.h"
#include "support/bytes.h"
#include "support/harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using nlohmann::json;

struct Connection {
    explicit Connection(const SimulatedBoard& board) : fd(board_socket_connect(board.directory.path)) {
        const timeval limit = {60, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~Connection() {
        close(fd);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool send_bytes(const Bytes& bytes) const {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // The next reply; none when the board has hung up.
    std::optional<WireReply> reply(Bytes* payload = nullptr) const {
        Bytes bytes(sizeof(WireReply) + kWirePayloadMax);
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), 0);
        if (size < static_cast<ssize_t>(sizeof(WireReply))) {
            return std::nullopt;
        }
        WireReply reply = {};
        memcpy(&reply, bytes.data(), sizeof reply);
        if (payload != nullptr) {
            payload->assign(bytes.begin() + sizeof reply, bytes.begin() + size);
        }
        return reply;
    }

    std::optional<WireReply> ask(uint32_t operation, uint32_t number, const Bytes& payload,
                                 Bytes* answer = nullptr) const {
        const WireRequest header = {operation, number, static_cast<uint32_t>(payload.size())};
        Bytes bytes(sizeof header);
        memcpy(bytes.data(), &header, sizeof header);
        bytes.insert(bytes.end(), payload.begin(), payload.end());
        return send_bytes(bytes) ? reply(answer) : std::nullopt;
    }

    int fd;
};

Bytes bytes_of(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes parts_of(std::initializer_list<WirePart> parts, size_t sent) {
    Bytes bytes(parts.size() * sizeof(WirePart) + sent);
    memcpy(bytes.data(), parts.begin(), parts.size() * sizeof(WirePart));
    return bytes;
}

json control(const Connection& connection, const std::string& request) {
    Bytes answer;
    const std::optional<WireReply> reply = connection.ask(WIRE_CONTROL, 0, bytes_of(request), &answer);
    return reply ? json::parse(answer, nullptr, false) : json();
}

struct BoardWire : testing::Test {
    ~BoardWire() override {
        EXPECT_EQ(board.ctl({"power"}), "off\n") << "the board still answers";
        EXPECT_TRUE(board.process->running());
    }

    std::optional<WireReply> open_spi(const Connection& connection) const {
        return connection.ask(WIRE_OPEN, O_RDWR, bytes_of("/dev/spidev1.0"));
    }

    SimulatedBoard board;
};

void expect_refused(const std::optional<WireReply>& reply, int error) {
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->result, -1);
    EXPECT_EQ(reply->error, error);
}

TEST_F(BoardWire, WhatIsNoRequestIsHungUpOn) {
    const WireRequest longer = {WIRE_ACCESS, 0, 5};
    Bytes contradicting(sizeof longer + 4);
    memcpy(contradicting.data(), &longer, sizeof longer);
    for (const Bytes& bytes : {Bytes(1), Bytes(sizeof(WireRequest) - 1), contradicting,
                               Bytes(sizeof(WireRequest) + kWirePayloadMax + 1)}) {
        const Connection connection(board);
        ASSERT_TRUE(connection.send_bytes(bytes));
        EXPECT_FALSE(connection.reply().has_value()) << bytes.size();
    }
}

TEST_F(BoardWire, CallsNeedAnOpenNode) {
    const Connection connection(board);
    for (const uint32_t operation : {WIRE_READ, WIRE_WRITE, WIRE_SPI_MESSAGE, WIRE_SPI_SET, WIRE_SPI_GET,
                                     WIRE_SEEK, WIRE_I2C_SET, WIRE_I2C_READ, WIRE_I2C_WRITE}) {
        expect_refused(connection.ask(operation, 1, {}), EBADF);
    }
    expect_refused(connection.ask(WIRE_OPEN, O_RDWR, bytes_of("/dev/null")), ENOENT);
    expect_refused(connection.ask(WIRE_OPEN, O_RDWR, {}), ENOENT);
    expect_refused(connection.ask(WIRE_OPEN, O_RDWR, Bytes(kWirePayloadMax)), ENOENT);
    ASSERT_EQ(open_spi(connection)->result, 0);
    expect_refused(open_spi(connection), EINVAL);
    expect_refused(connection.ask(99, 0, {}), ENOSYS);
}

TEST_F(BoardWire, WhatContradictsItsPayloadOrHasNoBoundIsRefused) {
    const Connection connection(board);
    ASSERT_EQ(open_spi(connection)->result, 0);
    constexpr uint32_t kHuge = UINT32_MAX;
    const Bytes whole(kWirePayloadMax);
    const struct {
        uint32_t operation;
        uint32_t number;
        Bytes payload;
        int error;
    } rows[] = {
        {WIRE_SPI_MESSAGE, 1, {}, EINVAL},
        {WIRE_SPI_MESSAGE, kWirePartsMax + 1, whole, EINVAL},
        {WIRE_SPI_MESSAGE, kHuge, whole, EINVAL},
        {WIRE_SPI_MESSAGE, 1, parts_of({{5, kWirePartSends}}, 4), EINVAL},
        {WIRE_SPI_MESSAGE, 1, parts_of({{4, kWirePartSends}}, 5), EINVAL},
        {WIRE_SPI_MESSAGE, 1, parts_of({{kHuge, kWirePartReceives}}, 0), EINVAL},
        {WIRE_SPI_MESSAGE, 2, parts_of({{kHuge, 0}, {kHuge, 0}}, 0), EMSGSIZE},
        {WIRE_SPI_MESSAGE, 1, parts_of({{4097, kWirePartReceives}}, 0), EMSGSIZE},
        {WIRE_SEEK, SEEK_SET, Bytes(3), EINVAL},
        {WIRE_I2C_SET, 0, Bytes(3), EINVAL},
        {WIRE_I2C_SET, 99, Bytes(8), EINVAL},
        {WIRE_I2C_READ, kHuge, {}, ENOTTY},
        {WIRE_SPI_SET, 0, Bytes(3), EINVAL},
        {WIRE_SPI_SET, 4, Bytes(4, 1), EINVAL},
        {WIRE_SPI_SET, 256, Bytes(4, 1), EINVAL},
        {WIRE_SPI_GET, 1000, {}, EINVAL},
        {WIRE_READ, kHuge, {}, EMSGSIZE},
        {WIRE_WRITE, 0, whole, EMSGSIZE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.operation) + " " + std::to_string(row.number));
        expect_refused(connection.ask(row.operation, row.number, row.payload), row.error);
    }
    Bytes received;
    const auto reply = connection.ask(WIRE_SPI_MESSAGE, 2,
                                      parts_of({{1, kWirePartSends}, {3, kWirePartReceives}}, 1), &received);
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply->result, 4);
    EXPECT_EQ(received, Bytes(3, 0xFF)) << "the chip is off";
}

TEST_F(BoardWire, WrongControlRequestsAreAnsweredWithWhatIsWrong) {
    const Connection connection(board);
    for (const char* request :
         {"", "x", "[]", "{}", "null", "{\"command\":1}", "{\"command\":\"nope\"}", "{\"command\":\"fault\"}",
          "{\"command\":\"fault\",\"name\":1,\"value\":2}", "{\"command\":\"send\"}",
          "{\"command\":\"send\",\"bytes\":[256]}", "{\"command\":\"send\",\"bytes\":[-1]}",
          "{\"command\":\"send\",\"bytes\":[\"x\"]}", "{\"command\":\"rate\",\"hz\":-1}",
          "{\"command\":\"rate\",\"hz\":4294967297}", "{\"command\":\"rate\",\"hz\":\"1\"}"}) {
        const json answer = control(connection, request);
        ASSERT_TRUE(answer.is_object()) << request;
        EXPECT_EQ(answer.value("ok", true), false) << request;
        EXPECT_NE(answer.value("error", ""), "") << request;
    }
    EXPECT_EQ(control(connection, "{\"command\":\"status\"}").value("ok", false), true);
}

TEST_F(BoardWire, DeepNestingIsNoHarm) {
    const Connection connection(board);
    EXPECT_TRUE(control(connection, std::string(kWirePayloadMax, '[')).is_object());
    const std::string half(kWirePayloadMax / 2, '[');
    EXPECT_TRUE(control(connection, half + std::string(kWirePayloadMax / 2, ']')).is_object());
}

TEST_F(BoardWire, RandomMessagesAreNoHarm) {
    std::mt19937 engine(7);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    std::unique_ptr<Connection> connection;
    for (int round = 0; round < 3000; ++round) {
        if (!connection || round % 50 == 0) {
            connection = std::make_unique<Connection>(board);
            open_spi(*connection);
        }
        Bytes payload(random() % 80);
        std::generate(payload.begin(), payload.end(), [&] { return static_cast<uint8_t>(random()); });
        const uint32_t number = random() % 3 == 0 ? random() : random() % 20;
        if (!connection->ask(random() % 12, number, payload)) {
            connection.reset();
        }
    }
}

TEST_F(BoardWire, AClientThatDoesNotReadIsDroppedAndOthersAreServed) {
    const Connection lazy(board);
    const WireRequest header = {WIRE_CONTROL, 0, 0};
    Bytes request(sizeof header);
    memcpy(request.data(), &header, sizeof header);
    EXPECT_TRUE(wait_until([&] {
        return send(lazy.fd, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
               errno != EAGAIN;
    }));
    EXPECT_EQ(board.status("transfers"), 0);
}

TEST_F(BoardWire, TooManyConnectionsAreTurnedAway) {
    std::vector<std::unique_ptr<Connection>> connections;
    for (int i = 0; i < 400; ++i) {
        connections.push_back(std::make_unique<Connection>(board));
        connections.back()->ask(WIRE_ACCESS, 0, {});
    }
    EXPECT_TRUE(connections.front()->ask(WIRE_ACCESS, 0, {}).has_value());
    EXPECT_FALSE(connections.back()->ask(WIRE_ACCESS, 0, {}).has_value());
}

} // namespace

#include "server/answer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

std::string text_of(const ServerRequest& request) {
    return {reinterpret_cast<const char*>(request.payload), request.header.length};
}

void set_result(ServerReply& reply, ssize_t result) {
    reply.header.result = static_cast<int32_t>(result);
    reply.header.error = result < 0 ? errno : 0;
}

void refuse(ServerReply& reply, int error) {
    reply.header = {-1, error, 0};
    reply.payload.clear();
}

void answer_read(Board& board, ServerConnection& connection, const ServerRequest& request,
                 ServerReply& reply) {
    reply.payload.resize(std::min(request.header.number, kWirePayloadMax));
    set_result(reply, board_node_read(board, connection.file, reply.payload.data(), reply.payload.size()));
    reply.payload.resize(static_cast<size_t>(std::max(reply.header.result, 0)));
}

// The parts of a message with their bytes; false when they contradict the payload's size.
bool take_parts(const ServerRequest& request, std::vector<BoardTransfer>& parts,
                std::vector<uint8_t>& received) {
    const size_t count = request.header.number;
    if (count > kWirePartsMax || request.header.length < count * sizeof(WirePart)) {
        return false;
    }
    std::vector<WirePart> wire(count);
    if (count > 0) { // an empty vector has no bytes to point at
        memcpy(wire.data(), request.payload, count * sizeof(WirePart));
    }
    size_t sends = 0;
    size_t receives = 0;
    for (size_t i = 0; i < count; ++i) {
        sends += (wire[i].flags & kWirePartSends) != 0 ? wire[i].length : 0;
        receives += (wire[i].flags & kWirePartReceives) != 0 ? wire[i].length : 0;
    }
    if (sends != request.header.length - count * sizeof(WirePart) || receives > kWirePayloadMax) {
        return false;
    }
    received.resize(receives);
    const uint8_t* tx = request.payload + count * sizeof(WirePart);
    uint8_t* rx = received.data();
    for (size_t i = 0; i < count; ++i) {
        const bool part_sends = (wire[i].flags & kWirePartSends) != 0;
        const bool part_receives = (wire[i].flags & kWirePartReceives) != 0;
        parts.push_back({part_sends ? tx : nullptr, part_receives ? rx : nullptr, wire[i].length,
                         wire[i].bits_per_word, wire[i].tx_lines, wire[i].rx_lines});
        tx += part_sends ? wire[i].length : 0;
        rx += part_receives ? wire[i].length : 0;
    }
    return true;
}

void answer_spi_message(Board& board, ServerConnection& connection, const ServerRequest& request,
                        ServerReply& reply) {
    std::vector<BoardTransfer> parts;
    if (!take_parts(request, parts, reply.payload)) {
        return refuse(reply, EINVAL);
    }
    set_result(reply, board_spi_message(board, connection.file, parts.data(), parts.size()));
}

bool is_setting(uint32_t number) {
    return number <= static_cast<uint32_t>(BoardSpiSetting::speed_hz);
}

void answer_spi_set(Board& board, ServerConnection& connection, const ServerRequest& request,
                    ServerReply& reply) {
    uint32_t value = 0;
    if (request.header.length != sizeof value || !is_setting(request.header.number)) {
        return refuse(reply, EINVAL);
    }
    memcpy(&value, request.payload, sizeof value);
    set_result(reply, board_spi_set(board, connection.file,
                                    static_cast<BoardSpiSetting>(request.header.number), value));
}

void answer_spi_get(Board& board, ServerConnection& connection, const ServerRequest& request,
                    ServerReply& reply) {
    uint32_t value = 0;
    if (!is_setting(request.header.number)) {
        return refuse(reply, EINVAL);
    }
    set_result(reply, board_spi_get(board, connection.file,
                                    static_cast<BoardSpiSetting>(request.header.number), value));
    reply.payload.resize(sizeof value);
    memcpy(reply.payload.data(), &value, sizeof value);
}

void answer_seek(Board& board, ServerConnection& connection, const ServerRequest& request,
                 ServerReply& reply) {
    int64_t offset = 0;
    if (request.header.length != sizeof offset) {
        return refuse(reply, EINVAL);
    }
    memcpy(&offset, request.payload, sizeof offset);
    const off_t now =
        board_node_seek(board, connection.file, offset, static_cast<int>(request.header.number));
    set_result(reply, static_cast<ssize_t>(now));
}

void answer_i2c_set(Board& board, ServerConnection& connection, const ServerRequest& request,
                    ServerReply& reply) {
    uint64_t value = 0;
    if (request.header.length != sizeof value ||
        request.header.number > static_cast<uint32_t>(BoardI2cSetting::limit)) {
        return refuse(reply, EINVAL);
    }
    memcpy(&value, request.payload, sizeof value);
    set_result(reply, board_i2c_set(board, connection.file,
                                    static_cast<BoardI2cSetting>(request.header.number), value));
}

void answer_i2c_message(Board& board, ServerConnection& connection, const ServerRequest& request,
                        ServerReply& reply) {
    BoardI2cMessage message = {static_cast<uint8_t>(request.header.number), request.payload, nullptr,
                               request.header.length};
    if (request.header.operation == WIRE_I2C_READ) {
        message.length = request.header.number >> kWireLengthShift;
        reply.payload.resize(message.length);
        message.rx = reply.payload.data();
    }
    set_result(reply, board_i2c_message(board, connection.file, message));
    if (reply.header.result < 0) {
        reply.payload.clear();
    }
}

void answer_control(ControlTarget& target, const ServerRequest& request, ServerReply& reply) {
    const std::string text = control_answer(target, text_of(request));
    if (text.size() > kWirePayloadMax) {
        return refuse(reply, EMSGSIZE);
    }
    reply.payload.assign(text.begin(), text.end());
}

void answer_open(Board& board, ServerConnection& connection, const ServerRequest& request,
                 ServerReply& reply) {
    if (connection.open) {
        return refuse(reply, EINVAL);
    }
    set_result(reply,
               board_open(board, connection.file, text_of(request), static_cast<int>(request.header.number)));
    connection.open = reply.header.result >= 0;
}

void answer_node(Board& board, ServerConnection& connection, const ServerRequest& request,
                 ServerReply& reply) {
    if (!connection.open) {
        return refuse(reply, EBADF);
    }
    switch (request.header.operation) {
    case WIRE_READ:
        return answer_read(board, connection, request, reply);
    case WIRE_WRITE:
        return set_result(reply,
                          board_node_write(board, connection.file, request.payload, request.header.length));
    case WIRE_SPI_MESSAGE:
        return answer_spi_message(board, connection, request, reply);
    case WIRE_SPI_SET:
        return answer_spi_set(board, connection, request, reply);
    case WIRE_SPI_GET:
        return answer_spi_get(board, connection, request, reply);
    case WIRE_I2C_SLAVE:
        return set_result(reply, board_i2c_select(board, connection.file, request.header.number));
    case WIRE_SEEK:
        return answer_seek(board, connection, request, reply);
    case WIRE_I2C_SET:
        return answer_i2c_set(board, connection, request, reply);
    case WIRE_I2C_READ:
    case WIRE_I2C_WRITE:
        return answer_i2c_message(board, connection, request, reply);
    default:
        return refuse(reply, ENOSYS);
    }
}

} // namespace

void server_answer(ControlTarget& target, ServerConnection& connection, const ServerRequest& request,
                   ServerReply& reply) {
    switch (request.header.operation) {
    case WIRE_OPEN:
        return answer_open(*target.board, connection, request, reply);
    case WIRE_ACCESS:
        return set_result(reply, board_access(*target.board, text_of(request)));
    case WIRE_CONTROL:
        return answer_control(target, request, reply);
    default:
        return answer_node(*target.board, connection, request, reply);
    }
}

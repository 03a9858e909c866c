#include "server/control.h"

#include "interpose/wire.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

constexpr int64_t kFastestRateHz = 10;
constexpr size_t kCommandsMaxSize =
    kWirePayloadMax - 1024; // bytes of the list, with room for what is around it

json failure(const std::string& error) {
    return {{"ok", false}, {"error", error}};
}

json result(const std::string& error) {
    return error.empty() ? json{{"ok", true}} : failure(error);
}

json aiding_json(const ChipAidingStatus& aiding) {
    return {{"requests", aiding.requests},
            {"good", aiding.good},
            {"bad", aiding.bad},
            {"verdict", aiding.verdict.empty() ? json() : json(aiding.verdict)}};
}

json status_json(Board& board) {
    const ChipStatus status = board_status(board);
    const BoardSpi spi = board_spi(board);
    return {{"ok", true},
            {"powered", status.powered},
            {"interface_powered", status.interface_powered},
            {"cold_boots", status.cold_boots},
            {"transfers", status.transfers},
            {"transfers_failed", status.transfers_failed},
            {"sentences_produced", status.sentences_produced},
            {"sentences_delivered", status.sentences_delivered},
            {"sentences_dropped", status.sentences_dropped},
            {"bytes_delivered", status.bytes_delivered},
            {"bytes_received", status.bytes_received},
            {"bytes_noise", status.bytes_noise},
            {"bytes_queued", status.bytes_queued},
            {"commands_good", status.commands_good},
            {"commands_bad", status.commands_bad},
            {"last_command", status.last_command},
            {"violations", status.violations},
            {"last_violation", status.last_violation},
            {"finished", status.finished},
            {"faults", status.faults},
            {"spi_mode", spi.mode},
            {"spi_bits_per_word", spi.bits_per_word},
            {"spi_speed_hz", spi.speed_hz},
            {"aiding_time", aiding_json(status.aiding_time)},
            {"aiding_position", aiding_json(status.aiding_position)}};
}

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace); // texts of the host may be no UTF-8
}

// The last commands, as many as one answer holds.
json commands_json(Board& board) {
    std::vector<ChipCommand> commands = board_commands(board);
    json list = json::array();
    size_t size = 0;
    for (auto command = commands.rbegin(); command != commands.rend(); ++command) {
        json entry = {{"text", command->text}, {"good", command->good}, {"time_us", command->time_us}};
        size += dump(entry).size() + 1;
        if (size > kCommandsMaxSize) {
            break;
        }
        list.push_back(std::move(entry));
    }
    std::reverse(list.begin(), list.end());
    const size_t left_out = commands.size() - list.size();
    return {{"ok", true}, {"commands", std::move(list)}, {"left_out", left_out}};
}

json faults_json() {
    json list = json::array();
    for (const ChipFaultInfo& fault : chip_fault_table()) {
        list.push_back({{"name", fault.name}, {"values", fault.values}, {"help", fault.help}});
    }
    return {{"ok", true}, {"faults", list}};
}

json send_answer(Board& board, const json& request) {
    if (request.contains("body")) {
        return result(board_queue(board, chip_sentence(request.at("body").get<std::string>())));
    }
    std::string bytes;
    for (const json& byte : request.at("bytes")) {
        const auto value = byte.get<int64_t>();
        if (value < 0 || value > UINT8_MAX) {
            return failure("a byte is not within 0 to 255");
        }
        bytes += static_cast<char>(value);
    }
    return result(board_queue(board, bytes));
}

json rate_answer(Board& board, int64_t hz) {
    if (hz < 1 || hz > kFastestRateHz) {
        return failure("rate is not within 1 to 10 Hz");
    }
    const std::lock_guard hold(board.mutex);
    board.chip.options.rate_hz = static_cast<uint32_t>(hz);
    return result("");
}

json answer(Board& board, const json& request, bool* quit) {
    const auto command = request.at("command").get<std::string>();
    if (command == "status") {
        return status_json(board);
    }
    if (command == "commands") {
        return commands_json(board);
    }
    if (command == "faults") {
        return faults_json();
    }
    if (command == "fault") {
        return result(board_fault(board, request.at("name").get<std::string>(),
                                  request.at("value").get<std::string>()));
    }
    if (command == "send") {
        return send_answer(board, request);
    }
    if (command == "rate") {
        return rate_answer(board, request.at("hz").get<int64_t>());
    }
    if (command == "quit") {
        *quit = true;
        return result("");
    }
    return failure("no command is called \"" + command + "\"");
}

} // namespace

std::string control_answer(Board& board, const std::string& request, bool* quit) {
    json reply;
    try {
        reply = answer(board, json::parse(request), quit);
    } catch (const json::exception& error) {
        reply = failure(error.what());
    }
    return dump(reply);
}

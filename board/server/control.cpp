#include "server/control.h"

#include "interpose/wire.h"

#include "server/clock_file.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

constexpr int64_t kFastestRateHz = 10;
constexpr int64_t kLongestAdvanceS = 366L * 24 * 3600;
constexpr int64_t kNsPerSecond = 1000000000;
constexpr char kLatestTime[] = "2200-01-01T00:00:00Z";
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

json download_json(const ChipDownloadStatus& download) {
    return {{"state", download.state},
            {"bootable", download.bootable},
            {"started", download.started},
            {"handshakes", download.handshakes},
            {"boot_errors", download.boot_errors},
            {"wake_ups", download.wake_ups},
            {"bytes_received", download.bytes_received},
            {"agent_bytes", download.agent_bytes},
            {"commands", download.commands},
            {"commands_failed", download.commands_failed},
            {"blocks_erased", download.blocks_erased},
            {"blocks_written", download.blocks_written},
            {"bytes_written", download.bytes_written},
            {"images_checked", download.images_checked},
            {"completed", download.completed},
            {"result", download.result.empty() ? json() : json(download.result)}};
}

json orbits_json(const ChipStatus& status) {
    json orbits;
    for (size_t i = 0; i < kChipConstellations; ++i) {
        orbits[chip_constellation_name(static_cast<ChipConstellation>(i))] =
            aiding_json(status.aiding_orbits[i]);
    }
    return orbits;
}

json assist_json(AssistServer* assist) {
    if (assist == nullptr) {
        return {};
    }
    const std::lock_guard hold(assist->mutex);
    const auto requests = [&](ChipOrbitFile file) { return assist->requests[static_cast<size_t>(file)]; };
    return {{"address", assist_address(*assist)},
            {"gps_glonass", requests(ChipOrbitFile::gps_glonass)},
            {"gps", requests(ChipOrbitFile::gps)},
            {"beidou", requests(ChipOrbitFile::beidou)},
            {"galileo", requests(ChipOrbitFile::galileo)},
            {"refused", assist->refused},
            {"last_url", assist->last_url},
            {"faults", assist_fault_active(assist->faults)}};
}

json status_json(const ControlTarget& target) {
    Board& board = *target.board;
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
            {"aiding_position", aiding_json(status.aiding_position)},
            {"aiding_orbits", orbits_json(status)},
            {"orbits_stray", status.orbits_stray},
            {"assisted", status.assisted},
            {"first_fix_ms", status.first_fix_ms ? json(*status.first_fix_ms) : json()},
            {"assist", assist_json(target.assist)},
            {"download", download_json(status.download)}};
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
    for (const ChipFaultInfo& fault : control_faults()) {
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

json time_json(const BoardClock& clock) {
    const BoardTime now = board_clock_now(clock, clock_host_time);
    return {{"ok", true},
            {"time", clock_text(now.utc_ns)},
            {"speed", now.speed},
            {"ahead_s", (now.utc_ns - clock_host_time().utc_ns + kNsPerSecond / 2) / kNsPerSecond}};
}

// Puts both clocks forward; back they can't go, programs rely on that.
std::string advance(BoardClock& clock, int64_t by_ns) {
    int64_t latest = 0;
    clock_parse(kLatestTime, &latest);
    if (by_ns < 0 || by_ns > latest - clock_utc_ns(clock)) {
        return std::string("the clock goes forward only, to ") + kLatestTime + " at most";
    }
    board_clock_advance(clock, clock_host_time, by_ns);
    return "";
}

json time_answer(BoardClock& clock, const json& request) {
    std::string error;
    if (request.contains("speed")) {
        const auto speed = request.at("speed").get<int64_t>();
        if (speed < 1 || speed > kBoardClockFastest) {
            return failure("speed is not within 1 to " + std::to_string(kBoardClockFastest));
        }
        board_clock_set_speed(clock, clock_host_time, static_cast<uint32_t>(speed));
    }
    if (request.contains("advance_s")) {
        const auto seconds = request.at("advance_s").get<int64_t>();
        error = seconds > kLongestAdvanceS ? "not more than a year at once"
                                           : advance(clock, seconds * kNsPerSecond);
    }
    if (request.contains("set")) {
        int64_t utc = 0;
        error = clock_parse(request.at("set").get<std::string>(), &utc)
                    ? advance(clock, utc - clock_utc_ns(clock))
                    : "the time is not like 2026-11-21T10:00:00Z";
    }
    return error.empty() ? time_json(clock) : failure(error);
}

json answer(ControlTarget& target, const json& request) {
    Board& board = *target.board;
    const auto command = request.at("command").get<std::string>();
    if (command == "status") {
        return status_json(target);
    }
    if (command == "commands") {
        return commands_json(board);
    }
    if (command == "faults") {
        return faults_json();
    }
    if (command == "fault") {
        return result(control_fault(target, request.at("name").get<std::string>(),
                                    request.at("value").get<std::string>()));
    }
    if (command == "send") {
        return send_answer(board, request);
    }
    if (command == "rate") {
        return rate_answer(board, request.at("hz").get<int64_t>());
    }
    if (command == "time") {
        return time_answer(*target.clock, request);
    }
    if (command == "quit") {
        target.quit = true;
        return result("");
    }
    return failure("no command is called \"" + command + "\"");
}

} // namespace

std::vector<ChipFaultInfo> control_faults() {
    std::vector<ChipFaultInfo> faults = chip_fault_list();
    const std::vector<ChipFaultInfo> more = assist_fault_list();
    faults.insert(faults.end(), more.begin(), more.end());
    return faults;
}

std::string control_fault(const ControlTarget& target, const std::string& name, const std::string& value) {
    if (!assist_fault_is(name)) {
        std::string error = board_fault(*target.board, name, value);
        if (!error.empty() || name != "all" || target.assist == nullptr) {
            return error;
        }
    }
    return target.assist == nullptr ? "the board has no assistance server"
                                    : assist_fault(*target.assist, name, value);
}

std::string control_answer(ControlTarget& target, const std::string& request) {
    json reply;
    try {
        reply = answer(target, json::parse(request));
    } catch (const json::exception& error) {
        reply = failure(error.what());
    }
    return dump(reply);
}

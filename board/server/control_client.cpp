#include "server/control_client.h"

#include "chip/chip_fault_table.h"
#include "interpose/wire.h"
#include "server/board_socket.h"
#include "server/file_content.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

using nlohmann::json;

namespace {

constexpr int kRefused = 1;
constexpr int kUsageError = 2;
constexpr int kNoBoard = 3;
constexpr time_t kAnswerLimitS = 10;

int hex_digit(char digit) {
    const char* digits = "0123456789abcdef";
    const char* found = strchr(digits, digit >= 'A' && digit <= 'F' ? digit + ('a' - 'A') : digit);
    return digit != '\0' && found != nullptr ? static_cast<int>(found - digits) : -1;
}

// Bytes of a text of hexadecimal digits; false when it is none.
bool from_hex(const std::string& text, json& bytes) {
    bytes = json::array();
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(high * 16 + low);
    }
    return text.size() % 2 == 0;
}

// The bytes of a file; what went wrong, else empty.
std::string file_bytes(const std::string& path, json& bytes) {
    std::string content;
    std::string problem = file_content(path, &content);
    bytes = std::vector<uint8_t>(content.begin(), content.end());
    return problem;
}

void add_time_changes(const ControlOptions& options, json& request) {
    if (options.speed != 0) {
        request["speed"] = options.speed;
    }
    if (options.advance_s != 0) {
        request["advance_s"] = options.advance_s;
    }
    if (!options.time.empty()) {
        request["set"] = options.time;
    }
}

// What the chip is to send. Returns what is wrong with it, else empty.
std::string add_bytes(const ControlOptions& options, json& request) {
    if (!options.body.empty()) {
        request["body"] = options.body;
        return "";
    }
    if (!options.file.empty()) {
        return file_bytes(options.file, request["bytes"]);
    }
    const bool whole = !options.hex.empty() && from_hex(options.hex, request["bytes"]);
    return whole ? "" : "--hex takes two hexadecimal digits a byte";
}

std::string add_fault(const ControlOptions& options, json& request) {
    if (options.list) {
        request["command"] = "faults";
        return "";
    }
    request["name"] = options.name;
    request["value"] = options.value;
    const bool whole = !options.name.empty() && !options.value.empty();
    return whole ? ""
                 : "fault takes a name and a value; see 'tavor-board ctl --dir " + options.directory +
                       " fault --list'";
}

// The request as the board takes it. Returns what is wrong with the command line, else empty.
std::string make_request(const ControlOptions& options, json& request) {
    request = {{"command", options.command}};
    if (options.command == "fault") {
        return add_fault(options, request);
    }
    if (options.command == "send") {
        return add_bytes(options, request);
    }
    if (options.command == "rate") {
        request["hz"] = options.rate_hz;
    }
    if (options.command == "time") {
        add_time_changes(options, request);
    }
    if (options.command == "power") {
        request["command"] = "status";
    }
    return "";
}

bool send_request(int fd, const std::string& text) {
    const WireRequest header = {WIRE_CONTROL, 0, static_cast<uint32_t>(text.size())};
    std::string message(reinterpret_cast<const char*>(&header), sizeof header);
    message += text;
    return send(fd, message.data(), message.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(message.size());
}

std::string receive_answer(int fd) {
    const timeval limit = {kAnswerLimitS, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::string message(sizeof(WireReply) + kWirePayloadMax, '\0');
    const ssize_t size = recv(fd, message.data(), message.size(), 0);
    if (size <= static_cast<ssize_t>(sizeof(WireReply))) {
        return "";
    }
    return message.substr(sizeof(WireReply), static_cast<size_t>(size) - sizeof(WireReply));
}

void print_commands(const json& answer) {
    if (answer.value("left_out", 0) > 0) {
        printf("(%d earlier ones left out)\n", answer.value("left_out", 0));
    }
    for (const json& command : answer["commands"]) {
        printf("%s%s\n", command["text"].get<std::string>().c_str(),
               command["good"].get<bool>() ? "" : "  (bad)");
    }
}

void print_faults(const json& answer) {
    for (const json& fault : answer["faults"]) {
        printf("%-16s %-40s %s\n", fault["name"].get<std::string>().c_str(),
               fault["values"].get<std::string>().c_str(), fault["help"].get<std::string>().c_str());
    }
    printf("COMMAND is one of %s.\n", chip_fault_commands().c_str());
}

// One value a line; those of an object with its name in front.
void print_status(const json& answer, const std::string& prefix = "") {
    for (const auto& [key, value] : answer.items()) {
        if (value.is_object()) {
            print_status(value, prefix + key + ".");
        } else if (key != "ok") {
            printf("%-25s %s\n", (prefix + key).c_str(),
                   (value.is_string() ? value.get<std::string>() : value.dump()).c_str());
        }
    }
}

void print(const ControlOptions& options, const json& answer) {
    if (options.json) {
        printf("%s\n", answer.dump().c_str());
    } else if (options.command == "power") {
        printf("%s\n", answer["powered"].get<bool>() ? "on" : "off");
    } else if (answer.contains("commands")) {
        print_commands(answer);
    } else if (options.list) {
        print_faults(answer);
    } else if (options.command == "status" || options.command == "time") {
        print_status(answer);
    }
}

} // namespace

std::string control_ask(const std::string& directory, const std::string& request, int* reason) {
    const int fd = board_socket_connect(directory);
    if (fd < 0) {
        if (reason != nullptr) {
            *reason = errno;
        }
        return "";
    }
    std::string answer = send_request(fd, request) ? receive_answer(fd) : "";
    close(fd);
    return answer;
}

int control_run(const ControlOptions& options) {
    json request;
    const std::string problem = make_request(options, request);
    if (!problem.empty()) {
        fprintf(stderr, "tavor-board: %s\n", problem.c_str());
        return kUsageError;
    }
    const std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace);
    if (text.size() > kWirePayloadMax) {
        fprintf(stderr, "tavor-board: too much at once: send it in smaller pieces\n");
        return kUsageError;
    }
    int reason = 0;
    const json answer = json::parse(control_ask(options.directory, text, &reason), nullptr, false);
    if (!answer.is_object()) {
        fprintf(stderr, "tavor-board: %s\n", board_socket_no_board(options.directory, reason).c_str());
        return kNoBoard;
    }
    if (!answer.value("ok", false)) {
        fprintf(stderr, "tavor-board: %s\n", answer.value("error", "refused").c_str());
        return kRefused;
    }
    print(options, answer);
    return 0;
}

#include "system/golden.h"

#include "support/harness.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

constexpr size_t kContext = 3;   // equal lines before the first difference
constexpr size_t kDifferent = 5; // lines of each side from there on

struct RecordField {
    const char* name;
    size_t offset;
    size_t size;
};

constexpr std::array<RecordField, 8> kRecord = {{
    {"utc", offsetof(tavor_location_record, utc), sizeof(tavor_location_record::utc)},
    {"latitude", offsetof(tavor_location_record, latitude), sizeof(tavor_location_record::latitude)},
    {"longitude", offsetof(tavor_location_record, longitude), sizeof(tavor_location_record::longitude)},
    {"height", offsetof(tavor_location_record, height), sizeof(tavor_location_record::height)},
    {"majorAxis", offsetof(tavor_location_record, majorAxis), sizeof(tavor_location_record::majorAxis)},
    {"minorAxis", offsetof(tavor_location_record, minorAxis), sizeof(tavor_location_record::minorAxis)},
    {"orientation", offsetof(tavor_location_record, orientation), sizeof(tavor_location_record::orientation)},
    {"verticalUncertainty", offsetof(tavor_location_record, verticalUncertainty),
     sizeof(tavor_location_record::verticalUncertainty)},
}};

std::string escaped(uint8_t byte) {
    switch (byte) {
    case '\r':
        return "\\r";
    case '\n':
        return "\\n";
    case '"':
    case '\\':
        return {'\\', static_cast<char>(byte)};
    default:
        break;
    }
    if (byte >= ' ' && byte <= '~') {
        return {static_cast<char>(byte)};
    }
    std::array<char, 5> text{};
    snprintf(text.data(), text.size(), "\\x%02X", static_cast<unsigned>(byte));
    return text.data();
}

std::string quoted(const uint8_t* bytes, size_t size) {
    while (size > 0 && bytes[size - 1] == 0) {
        --size;
    }
    std::string text = "\"";
    for (size_t i = 0; i < size; ++i) {
        text += escaped(bytes[i]);
    }
    return text + "\"";
}

std::string position_text(const uint8_t* payload) {
    std::string text;
    for (const RecordField& field : kRecord) {
        text += (text.empty() ? "" : " ") + std::string(field.name) + "=" +
                quoted(payload + field.offset, field.size);
    }
    const std::string rest =
        quoted(payload + TAVOR_LOCATION_RECORD_SIZE, TAVOR_PAYLOAD_SIZE - TAVOR_LOCATION_RECORD_SIZE);
    return rest == "\"\"" ? text : text + " behind=" + rest;
}

std::string file_content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("can't read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string last_line(const std::string& log_path) {
    const std::string log = file_content(log_path);
    const size_t end = log.size() < 2 ? std::string::npos : log.rfind('\n', log.size() - 2);
    const std::string line = log.substr(end == std::string::npos ? 0 : end + 1);
    if (line.empty() || line[0] != '$' || log.find(line) + line.size() != log.size()) {
        throw std::runtime_error(log_path + ": the last line is no sentence, or stands there twice");
    }
    return line;
}

// Appends every datagram up to the one with the code, and the text unless that is empty.
void collect(const TestClient& client, uint32_t code, const std::string& text, GoldenLines& lines) {
    for (;;) {
        const auto response = client.receive();
        if (!response) {
            throw std::runtime_error("no more datagrams after " + std::to_string(lines.size()) +
                                     (lines.empty() ? "" : ", the last: " + lines.back()));
        }
        lines.push_back(golden_line(*response));
        if (response->code == code && (text.empty() || payload_text(*response) == text)) {
            return;
        }
    }
}

void append_lines(std::string& text, char mark, const GoldenLines& lines, size_t from, size_t to) {
    for (size_t i = from; i < std::min(to, lines.size()); ++i) {
        text += std::string(1, mark) + lines[i] + "\n";
    }
}

} // namespace

std::string golden_line(const tavor_response& response) {
    return std::to_string(response.code) + " " + std::to_string(static_cast<int32_t>(response.value)) + " " +
           (response.code == TAVOR_CODE_POSITION ? position_text(response.payload)
                                                 : quoted(response.payload, sizeof response.payload));
}

GoldenLines golden_replay(const std::string& log_path) {
    const std::string last = last_line(log_path);
    const SimulatedBoard board({"--no-assist", "--source", "replay", log_path, "--full-speed"});
    const DaemonOnBoard daemon(board);
    const TestClient client(board.socket_path());
    GoldenLines lines;
    if (!client.send(TAVOR_REQUEST_START)) {
        throw std::runtime_error("the daemon takes no start request");
    }
    collect(client, TAVOR_CODE_NMEA, last, lines);
    if (!client.send(TAVOR_REQUEST_STOP)) {
        throw std::runtime_error("the daemon takes no stop request");
    }
    collect(client, TAVOR_CODE_STOP, "", lines);
    return lines;
}

GoldenLines golden_read(const std::string& path) {
    const std::string text = file_content(path);
    GoldenLines lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

std::string golden_difference(const GoldenLines& expected, const GoldenLines& actual) {
    const auto [left, right] = std::mismatch(expected.begin(), expected.end(), actual.begin(), actual.end());
    if (left == expected.end() && right == actual.end()) {
        return "";
    }
    const auto first = static_cast<size_t>(left - expected.begin());
    std::string text = "line " + std::to_string(first + 1) + " (" + std::to_string(expected.size()) +
                       " lines expected, " + std::to_string(actual.size()) + " came):\n";
    append_lines(text, ' ', expected, first - std::min(first, kContext), first);
    append_lines(text, '-', expected, first, first + kDifferent);
    append_lines(text, '+', actual, first, first + kDifferent);
    return text;
}

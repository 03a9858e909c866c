// The settings' file.
#include "client/check.h"
#include "client/print.h"
#include "client/words.h"

#include "config/location_config.h"
#include "config/location_config_text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

namespace {

constexpr char kSubject[] = "settings";
constexpr char kSample[] = "copy the sample of the package (/usr/share/doc/tavor/examples/tavor.conf) there";

struct RangeRow {
    location_config_id id;
    int32_t least;
    int32_t most;
    const char* meaning;
};

constexpr int32_t kMost = INT32_MAX;

constexpr RangeRow kRanges[] = {
    {CONFIG_SPI_FREQUENCY, 1, kMost, "Hz, above 0"},
    {CONFIG_SPI_BIT_ORDER, 0, 1, "0 least significant bit first, 1 most"},
    {CONFIG_SPI_CPHA, 0, 1, "0 or 1"},
    {CONFIG_SPI_CPOL, 0, 1, "0 or 1"},
    {CONFIG_POWER_GPIO, 0, kMost, "a line's number"},
    {CONFIG_DEBUG_PORT_BAUD_RATE, 1, kMost, "bits a second, above 0"},
    {CONFIG_DEBUG_PORT_FLOW_CONTROL, 0, 2, "0 none, 1 XON/XOFF, 2 RTS/CTS"},
    {CONFIG_DEBUG_SOCKET_PORT, 1, 65535, "a port, 1 to 65535"},
};

// A key in a line of the file.
struct Found {
    const ConfigKey* row;
    size_t at; // in the line
    std::string value;
};

const ConfigKey& row_of(uint32_t index) {
    return location_config_key(static_cast<location_config_id>(index));
}

std::string without_line_end(std::string line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    return line;
}

std::optional<Found> find_key(const std::string& line) {
    for (uint32_t index = 0; index < CONFIG_KEY_COUNT; ++index) {
        const ConfigKey& row = row_of(index);
        if (const size_t at = line.find(row.key); at != std::string::npos) {
            return Found{&row, at, line.substr(at + strlen(row.key))};
        }
    }
    return std::nullopt;
}

std::string quoted(std::string_view text) {
    return "'" + std::string(text) + "'";
}

Finding doubt(size_t line, const std::string& text, const std::string& remedy) {
    return {Grade::kDoubtful, kSubject, "line " + std::to_string(line) + ": " + text, remedy};
}

void judge_unknown(Findings& findings, size_t number, const std::string& line) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return; // prose, as in the sample
    }
    const std::string key = line.substr(0, equals + 1);
    std::vector<std::string_view> keys;
    for (uint32_t index = 0; index < CONFIG_KEY_COUNT; ++index) {
        keys.emplace_back(row_of(index).key);
    }
    const std::string_view nearest = keys[words_nearest(key, keys)];
    findings.push_back(doubt(number, "there is no setting " + quoted(key),
                             "the nearest is " + quoted(nearest) + ": correct or remove the line"));
}

void judge_number(Findings& findings, size_t number, const Found& found) {
    const std::string& value = found.value;
    const size_t digits = value.find_first_not_of(" \t+-");
    if (digits == std::string::npos || value[digits] < '0' || value[digits] > '9') {
        findings.push_back({Grade::kBad, kSubject,
                            "line " + std::to_string(number) + ": " + quoted(found.row->key) +
                                " has no number and counts as 0",
                            "write digits after the equals sign"});
        return;
    }
    errno = 0;
    char* end = nullptr;
    const long long wide = strtoll(value.c_str(), &end, 10);
    if (errno != 0 || wide < INT32_MIN || wide > INT32_MAX) {
        findings.push_back(
            doubt(number, quoted(found.row->key) + " has a number of more than 32 bits", "correct it"));
    } else if (*end != '\0') {
        findings.push_back(
            doubt(number,
                  quoted(found.row->key) + " counts as " + std::to_string(wide) + ": what follows is ignored",
                  "remove it"));
    }
}

void judge_text(Findings& findings, size_t number, const Found& found) {
    const std::string& value = found.value;
    if (value.size() >= kConfigTextSize) {
        findings.push_back(doubt(number, quoted(found.row->key) + " is cut at 127 characters", "shorten it"));
    } else if (value != kNotConfigured && !value.empty() && (value.back() == ' ' || value.front() == ' ')) {
        findings.push_back(doubt(number, quoted(found.row->key) + " begins or ends in a blank, which counts",
                                 "remove the blank"));
    }
}

// What is odd about a line that counts for a key.
void judge_line(Findings& findings, size_t number, const std::string& line, const Found& found) {
    if (found.at > 0) {
        findings.push_back(doubt(number,
                                 quoted(found.row->key) + " counts here, though it stands after " +
                                     quoted(line.substr(0, found.at)),
                                 "there are no comments: remove the line"));
    }
    if (found.row->text == nullptr) {
        judge_number(findings, number, found);
    } else {
        judge_text(findings, number, found);
    }
}

void judge_content(Findings& findings, const std::string& content) {
    std::array<size_t, CONFIG_KEY_COUNT> first = {}; // line that counts for the key, 0: none
    std::array<char, kConfigLineSize> piece = {};
    const ConfigText text = {content.data(), content.size()};
    size_t number = 1;
    for (size_t at = 0; config_text_next_line(text, &at, piece.data());) {
        const std::string line = without_line_end(piece.data());
        const std::optional<Found> found = find_key(line);
        if (!found) {
            judge_unknown(findings, number, line);
        } else if (size_t& counts = first.at(found->row->id); counts != 0) {
            findings.push_back(doubt(number,
                                     quoted(found->row->key) + " stands in line " + std::to_string(counts) +
                                         " already, which counts",
                                     "remove one of them"));
        } else {
            counts = number;
            judge_line(findings, number, line, *found);
        }
        number += content[at - 1] == '\n' ? 1 : 0;
    }
}

void judge_ranges(Findings& findings, const Place& place) {
    for (const RangeRow& range : kRanges) {
        const int32_t value = place_number(place, range.id);
        if (value < range.least || value > range.most) {
            findings.push_back({Grade::kBad, kSubject,
                                location_config_key(range.id).key + std::to_string(value),
                                std::string("set ") + range.meaning});
        }
    }
    in_addr address = {};
    const std::string ip = place_text(place, CONFIG_DEBUG_SOCKET_IP);
    if (inet_pton(AF_INET, ip.c_str(), &address) != 1) {
        findings.push_back({Grade::kDoubtful, kSubject,
                            quoted(ip) + " is no IPv4 address: the debug outlet's server "
                                         "can't listen there",
                            "correct 'debug socket ip='"});
    }
}

} // namespace

void check_settings(Findings& findings, const Place& place) {
    const std::string path = place_config(place);
    if (place.config_error == ENOENT || place.config_error == ENOTDIR) {
        findings.push_back(
            {Grade::kBad, kSubject, path + " is not there: defaults count, without a power line", kSample});
    } else if (place.config_error != 0) {
        findings.push_back({check_denied(place.config_error), kSubject,
                            path + " can't be read: " + place_failure(place.config_error),
                            "look at its rights, or use sudo"});
    }
    const size_t before = findings.size();
    judge_content(findings, place.config);
    judge_ranges(findings, place);
    if (findings.size() == before && place.config_error == 0) {
        findings.push_back({Grade::kGood, kSubject, path + " is read, every key and value is known"});
    }
}

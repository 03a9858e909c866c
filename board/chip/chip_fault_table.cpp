#include "chip/chip_fault_table.h"

#include "chip/chip_agent.h"
#include "chip/chip_boot_rom.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>

namespace {

using Faults = ChipFaultState;
using View = std::string_view;
using Texts = std::vector<std::string>;

constexpr uint64_t kMaxCount = 1000000000;
constexpr uint64_t kMaxBacklog = 16U << 20; // bytes
constexpr uint64_t kMaxLateMs = 3600000;
constexpr uint64_t kMaxNumber = 1000; // of an echo or a status word
constexpr uint8_t kDefaultErrorMask = 0x08;
constexpr View kEvery = "every:";
constexpr View kUpload = "@agent";

// One fault: what it is called, how a value is taken (false: it is none of the values), and the values in
// force (none: the fault is off).
struct Row {
    ChipFaultInfo info;
    bool (*set)(Faults& faults, View value);
    Texts (*show)(const Faults& faults);
};

// Text and what it stands for.
template <class Value> struct Word {
    const char* text;
    Value value;
};

constexpr Word<uint16_t> kCommands[] = {
    {"address", kChipAgentFlashAddress}, {"size", kChipAgentFlashSize}, {"id", kChipAgentFlashId},
    {"erase", kChipAgentErase},          {"write", kChipAgentWrite},    {"check", kChipAgentCheck},
    {"finish", kChipAgentFinish},        {"read", kChipAgentRead},
};
constexpr Word<uint8_t> kMasks[] = {{"0x08", 0x08}, {"0x10", 0x10}, {"0x18", 0x18}};
constexpr Word<uint8_t> kPorts[] = {{"0x50", 0}, {"0x54", 1}, {"0x58", 2}}; // index of kChipI2cPorts
constexpr Word<ChipGarbage> kGarbages[] = {{"off", ChipGarbage::off},
                                           {"on", ChipGarbage::all},
                                           {"status", ChipGarbage::status},
                                           {"data", ChipGarbage::data}};
constexpr const char* kLengths[] = {"tx", "rx"};
constexpr const char* kDirections[] = {"read", "write"};

template <class Value, size_t size>
std::optional<Value> value_of(const Word<Value> (&words)[size], View text) {
    for (const Word<Value>& word : words) {
        if (text == word.text) {
            return word.value;
        }
    }
    return std::nullopt;
}

template <class Value, size_t size> std::string text_of(const Word<Value> (&words)[size], Value value) {
    for (const Word<Value>& word : words) {
        if (value == word.value) {
            return word.text;
        }
    }
    return "";
}

// A number from 1 to most, or off: 0.
std::optional<uint64_t> number_or_off(View text, uint64_t most) {
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 1 || value > most) {
        return text == "off" ? std::optional<uint64_t>(0) : std::nullopt;
    }
    return value;
}

// once, always, a count or off.
std::optional<uint64_t> repetition(View text) {
    if (text == "once" || text == "always") {
        return text == "once" ? 1 : kChipAlways;
    }
    return number_or_off(text, kMaxCount);
}

std::string repetition_text(uint64_t left) {
    return left == kChipAlways ? "always" : std::to_string(left);
}

// Stores a value if there is one.
template <class Value, class Given> bool store(Value& value, const std::optional<Given>& given) {
    value = given ? static_cast<Value>(*given) : value;
    return given.has_value();
}

Texts shown(bool on, const std::string& value) {
    return on ? Texts{value} : Texts{};
}

bool set_switch(bool& fault, View value) {
    fault = value == "on" || (value != "off" && fault);
    return value == "on" || value == "off";
}

// on: both, or one of the two by its name.
bool set_pair(bool& first, bool& second, const char* const (&names)[2], View value) {
    if (value != "on" && value != names[0] && value != names[1] && value != "off") {
        return false;
    }
    first = value == "on" || value == names[0];
    second = value == "on" || value == names[1];
    return true;
}

Texts show_pair(bool first, bool second, const char* const (&names)[2]) {
    return shown(first || second, first && second ? "on" : names[first ? 0 : 1]);
}

// Cuts NAME after the mark off VALUE; nothing when there is no mark.
std::optional<View> cut(View& value, char mark) {
    const size_t at = value.find(mark);
    if (at == View::npos) {
        return std::nullopt;
    }
    const View name = value.substr(at + 1);
    value = value.substr(0, at);
    return name;
}

// Cuts @COMMAND off the value; nothing when the command is unknown.
std::optional<uint16_t> cut_command(View& value) {
    const auto name = cut(value, '@');
    return name ? value_of(kCommands, *name) : kChipAnyCommand;
}

std::string command_text(uint16_t command) {
    if (command == kChipAgentUpload) {
        return std::string(kUpload);
    }
    return command == kChipAnyCommand ? "" : "@" + text_of(kCommands, command);
}

bool set_rule(ChipFaultRule& rule, View value) {
    const auto command = cut_command(value);
    const bool every = value.starts_with(kEvery) && value != "every:off";
    const auto number = every ? number_or_off(value.substr(kEvery.size()), kMaxCount) : repetition(value);
    if (!command || !number) {
        return false;
    }
    rule = {every ? 0 : *number, every ? *number : 0, 0, *command};
    return true;
}

Texts show_rule(const ChipFaultRule& rule) {
    return shown(
        rule.every > 0 || rule.left > 0,
        (rule.every > 0 ? std::string(kEvery) + std::to_string(rule.every) : repetition_text(rule.left)) +
            command_text(rule.command));
}

bool set_status_error(Faults& faults, View value) {
    const auto name = cut(value, ':');
    const auto times = repetition(value);
    const auto mask = name ? value_of(kMasks, *name) : kDefaultErrorMask;
    return times && store(faults.status_mask, mask) && store(faults.status_errors, times);
}

bool set_nack(Faults& faults, View value) {
    const auto name = cut(value, ':');
    const auto times = repetition(value);
    if (times && !name) {
        faults.i2c_nacks.fill(*times);
        return true;
    }
    const auto port = name ? value_of(kPorts, *name) : std::nullopt;
    return port && store(faults.i2c_nacks[*port], times);
}

Texts show_nack(const Faults& faults) {
    Texts texts;
    for (const auto& [name, port] : kPorts) {
        if (faults.i2c_nacks[port] > 0) {
            texts.push_back(repetition_text(faults.i2c_nacks[port]) + ":" + name);
        }
    }
    return texts;
}

bool set_handshake(Faults& faults, View value) {
    const auto name = cut(value, ':');
    const auto times = name ? repetition(*name) : 1;
    const auto byte = number_or_off(value, kChipHandshakeSize);
    return times && store(faults.handshake_byte, byte) &&
           store(faults.handshakes_left, *byte == 0 ? byte : times);
}

bool set_late(Faults& faults, View value) {
    const auto command = cut_command(value);
    return command && store(faults.late_ms, number_or_off(value, kMaxLateMs)) &&
           store(faults.late_command, command);
}

bool set_power(Faults& faults, View value) {
    const bool upload = value.ends_with(kUpload);
    const auto command = upload ? kChipAgentUpload : cut_command(value);
    value = value.substr(0, value.find('@'));
    return command && store(faults.power_in, number_or_off(value, kMaxCount)) &&
           store(faults.power_command, command);
}

template <bool Faults::*fault> constexpr Row switched(const char* name, const char* help) {
    return {{name, "on|off", help},
            [](Faults& faults, View value) { return set_switch(faults.*fault, value); },
            [](const Faults& faults) { return shown(faults.*fault, "on"); }};
}

template <uint32_t Faults::*fault> constexpr Row numbered(const char* name, const char* help) {
    return {{name, "N|off", help},
            [](Faults& faults, View value) { return store(faults.*fault, number_or_off(value, kMaxNumber)); },
            [](const Faults& faults) { return shown(faults.*fault > 0, std::to_string(faults.*fault)); }};
}

template <ChipAnswerFault fault> constexpr Row answered(const char* name, const char* help) {
    return {{name, "once|N|always|every:N|off[@COMMAND]", help},
            [](Faults& faults, View value) { return set_rule(faults.answers[fault], value); },
            [](const Faults& faults) { return show_rule(faults.answers[fault]); }};
}

constexpr Row kRows[] = {
    {{"status-error", "once|N|always|off[:0x08|:0x10|:0x18]",
      "error bits in the next status reads (0x08 without a mask)"},
     set_status_error,
     [](const Faults& f) {
         return shown(f.status_errors > 0,
                      repetition_text(f.status_errors) + ":" + text_of(kMasks, f.status_mask));
     }},
    switched<&Faults::silence>("silence", "0xFF on everything, no acknowledge on I2C; nothing is taken"),
    switched<&Faults::zero>("zero", "0x00 on everything; nothing is taken"),
    {{"garbage", "on|status|data|off", "random answers: to everything, in the status, in lengths and data"},
     [](Faults& f, View value) { return store(f.garbage, value_of(kGarbages, value)); },
     [](const Faults& f) { return shown(f.garbage != ChipGarbage::off, text_of(kGarbages, f.garbage)); }},
    switched<&Faults::unpowered>("unpowered", "the SPI interface stays unpowered"),
    switched<&Faults::never_ready>("never-ready", "no command and no data phase is ever done"),
    {{"transfer-fail", "once|N|always|every:N|off", "the next transfers fail, or every N-th"},
     [](Faults& f, View value) { return value.find('@') == View::npos && set_rule(f.transfer_fail, value); },
     [](const Faults& f) { return show_rule(f.transfer_fail); }},
    switched<&Faults::bytewise>("bytewise", "never more than one byte to read at once"),
    {{"hostile-length", "on|tx|rx|off", "length registers say 0xFFFFFFFF"},
     [](Faults& f, View value) { return set_pair(f.hostile_tx, f.hostile_rx, kLengths, value); },
     [](const Faults& f) { return show_pair(f.hostile_tx, f.hostile_rx, kLengths); }},
    {{"zero-length", "on|tx|rx|off", "length registers say 0"},
     [](Faults& f, View value) { return set_pair(f.zero_tx, f.zero_rx, kLengths, value); },
     [](const Faults& f) { return show_pair(f.zero_tx, f.zero_rx, kLengths); }},
    {{"backlog", "BYTES", "sentences of this many bytes wait at once"},
     [](Faults& f, View value) {
         return value != "off" && store(f.backlog, number_or_off(value, kMaxBacklog));
     },
     [](const Faults&) { return Texts{}; }},
    {{"i2c-nack", "once|N|always|off[:0x50|:0x54|:0x58]",
      "the next attempts at an I2C address, or at each, are not acknowledged"},
     set_nack,
     show_nack},
    {{"i2c-short", "on|read|write|off", "I2C reads and data writes move half their bytes"},
     [](Faults& f, View value) { return set_pair(f.i2c_short_read, f.i2c_short_write, kDirections, value); },
     [](const Faults& f) { return show_pair(f.i2c_short_read, f.i2c_short_write, kDirections); }},
    switched<&Faults::asleep>("asleep", "download: a wake-up never ends"),
    switched<&Faults::boot_silent>("boot-silent", "the boot ROM answers nothing"),
    {{"handshake-bad", "1|2|3|4[:once|:N|:always]|off", "answer to this byte of the handshake is wrong"},
     set_handshake,
     [](const Faults& f) {
         return shown(f.handshakes_left > 0,
                      std::to_string(f.handshake_byte) + ":" + repetition_text(f.handshakes_left));
     }},
    numbered<&Faults::bad_echo>("echo-bad", "N-th echo after the next handshake is wrong"),
    numbered<&Faults::bad_word>("boot-status", "N-th status word after the next handshake is an error"),
    {{"checksum-bad", "once|N|always|off", "wrong checksum of the download agent"},
     [](Faults& f, View value) { return store(f.checksums_left, repetition(value)); },
     [](const Faults& f) { return shown(f.checksums_left > 0, repetition_text(f.checksums_left)); }},
    answered<kChipAnswerLost>("response-lost", "the agent's response never comes"),
    answered<kChipAnswerTwice>("response-twice", "the agent's response comes again"),
    answered<kChipAnswerForeign>("response-foreign", "a response to another command comes first"),
    answered<kChipAnswerStatus>("response-status", "the agent says that it failed"),
    answered<kChipAnswerLog>("agent-log", "a log notification comes first"),
    answered<kChipAnswerGarbage>("agent-garbage", "bytes of no frame come first"),
    {{"response-late", "MS[@COMMAND]|off", "the agent's responses come late"},
     set_late,
     [](const Faults& f) {
         return shown(f.late_ms > 0, std::to_string(f.late_ms) + command_text(f.late_command));
     }},
    {{"power-loss", "N[@COMMAND|@agent]|off",
      "power fails at the N-th agent command, or block of the agent itself"},
     set_power,
     [](const Faults& f) {
         return shown(f.power_in > 0, std::to_string(f.power_in) + command_text(f.power_command));
     }},
    {{"all", "off", "ends every fault"},
     [](Faults& f, View value) { return value == "off" && (f = {}, true); },
     [](const Faults&) { return Texts{}; }},
};

const Row* row_of(const std::string& name) {
    for (const Row& row : kRows) {
        if (name == row.info.name) {
            return &row;
        }
    }
    return nullptr;
}

// Why the value is not taken.
std::string refusal(const ChipFaultInfo& info, const std::string& value) {
    const std::string begin = "fault " + std::string(info.name) + ": \"" + value + "\" is ";
    if (strcmp(info.values, "BYTES") == 0) {
        return begin + "not a number of bytes up to " + std::to_string(kMaxBacklog);
    }
    const bool commands = strstr(info.values, "COMMAND") != nullptr;
    return begin + "none of " + info.values +
           (commands ? "; COMMAND is one of " + chip_fault_commands() : "");
}

} // namespace

std::vector<ChipFaultInfo> chip_fault_list() {
    std::vector<ChipFaultInfo> list(std::size(kRows));
    std::transform(std::begin(kRows), std::end(kRows), list.begin(), [](const Row& row) { return row.info; });
    return list;
}

std::string chip_fault_commands() {
    std::string text;
    for (const Word<uint16_t>& command : kCommands) {
        text += (text.empty() ? "" : ", ") + std::string(command.text);
    }
    return text;
}

std::string chip_fault_set(ChipFaultState& faults, const std::string& name, const std::string& value) {
    const Row* row = row_of(name);
    if (row == nullptr) {
        return "no fault is called \"" + name + "\"";
    }
    return row->set(faults, value) ? "" : refusal(row->info, value);
}

std::vector<std::string> chip_fault_active(const ChipFaultState& faults) {
    std::vector<std::string> active;
    for (const Row& row : kRows) {
        for (const std::string& value : row.show(faults)) {
            active.push_back(row.info.name + (" " + value));
        }
    }
    return active;
}

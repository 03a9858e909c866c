#include "chip/chip_download_fault.h"

#include "chip/chip.h"

#include <algorithm>

namespace {

constexpr uint64_t kUsPerMs = 1000;
constexpr uint64_t kMaxLateMs = 3600000;
constexpr uint64_t kMaxNumber = 1000; // of an echo or a status word
constexpr size_t kGarbageSize = 8;    // bytes
constexpr uint8_t kFrameStart = 0x05; // what garbage must not hold, or it might swallow the frame behind it
constexpr uint16_t kForeignIdentifier = 0x21FF;
constexpr uint16_t kLogIdentifier = 0x0F10;
constexpr size_t kLogHeadSize = 6; // bytes between identifier and text

constexpr std::array<const char*, kChipAnswerFaults> kAnswerNames = {
    "response-lost", "response-twice", "response-foreign", "response-status", "agent-log", "agent-garbage"};

struct CommandName {
    const char* name;
    uint16_t command;
};

constexpr CommandName kCommandNames[] = {
    {"address", kChipAgentFlashAddress}, {"size", kChipAgentFlashSize}, {"id", kChipAgentFlashId},
    {"erase", kChipAgentErase},          {"write", kChipAgentWrite},    {"check", kChipAgentCheck},
    {"finish", kChipAgentFinish},        {"read", kChipAgentRead},
};

std::optional<uint16_t> command_of(std::string_view name) {
    for (const CommandName& entry : kCommandNames) {
        if (name == entry.name) {
            return entry.command;
        }
    }
    return std::nullopt;
}

std::string command_text(uint16_t command) {
    if (command == kChipAgentUpload) {
        return "@agent";
    }
    for (const CommandName& entry : kCommandNames) {
        if (command == entry.command) {
            return std::string("@") + entry.name;
        }
    }
    return "";
}

// Splits VALUE[@COMMAND]; nothing when the command is unknown.
std::optional<uint16_t> take_command(std::string_view& value) {
    const size_t at = value.find('@');
    if (at == std::string_view::npos) {
        return kChipAnyCommand;
    }
    const std::string_view name = value.substr(at + 1);
    value = value.substr(0, at);
    return command_of(name);
}

bool set_number(uint32_t& number, std::string_view value, uint64_t most) {
    const auto count = value == "off" ? std::optional<uint64_t>(0) : chip_fault_count(value);
    if (!count || *count > most) {
        return false;
    }
    number = static_cast<uint32_t>(*count);
    return true;
}

bool set_handshake(ChipDownloadFaults& faults, std::string_view value) {
    const size_t colon = value.find(':');
    const auto times = colon == std::string_view::npos ? std::optional<uint64_t>(1)
                                                       : chip_fault_repetition(value.substr(colon + 1));
    uint32_t byte = 0;
    if (!times || !set_number(byte, value.substr(0, colon), kChipHandshakeSize)) {
        return false;
    }
    faults.handshake_byte = byte;
    faults.handshakes_left = byte == 0 ? 0 : *times;
    return true;
}

bool set_repetition(uint64_t& left, std::string_view value) {
    const auto times = chip_fault_repetition(value);
    left = times.value_or(left);
    return times.has_value();
}

bool set_answer(ChipAnswerRule& rule, std::string_view value) {
    constexpr std::string_view kEvery = "every:";
    const auto command = take_command(value);
    const bool every = value.starts_with(kEvery);
    const auto number = every ? chip_fault_count(value.substr(kEvery.size())) : chip_fault_repetition(value);
    if (!command || !number) {
        return false;
    }
    rule = {every ? 0 : *number, every ? *number : 0, 0, *command};
    return true;
}

bool set_late(ChipDownloadFaults& faults, std::string_view value) {
    const auto command = take_command(value);
    return command && set_number(faults.late_ms, value, kMaxLateMs) && (faults.late_command = *command, true);
}

bool set_power(ChipDownloadFaults& faults, std::string_view value) {
    const bool upload = value.ends_with("@agent");
    const auto command = upload ? std::optional<uint16_t>(kChipAgentUpload) : take_command(value);
    value = value.substr(0, value.find('@'));
    const auto count = value == "off" ? std::optional<uint64_t>(0) : chip_fault_count(value);
    if (!command || !count) {
        return false;
    }
    faults.power_in = *count;
    faults.power_command = *command;
    return true;
}

bool strikes(ChipAnswerRule& rule, uint16_t command) {
    if (rule.command != kChipAnyCommand && rule.command != command) {
        return false;
    }
    return rule.every > 0 ? ++rule.count % rule.every == 0 : chip_fault_use_up(rule.left);
}

bool strike_once(uint32_t& number, uint32_t reached) {
    const bool now = number != 0 && number == reached;
    number = now ? 0 : number;
    return now;
}

std::vector<uint8_t> log_frame(uint16_t command) {
    std::vector<uint8_t> body(kLogHeadSize);
    const std::string text = "done: 0x" + std::string(1, "0123456789ABCDEF"[command & 0xF]);
    body.insert(body.end(), text.begin(), text.end());
    return chip_agent_frame(']', kLogIdentifier, body);
}

std::vector<uint8_t> garbage(Chip& chip) {
    std::vector<uint8_t> bytes(kGarbageSize);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(chip.random()); });
    std::replace(bytes.begin(), bytes.end(), kFrameStart, uint8_t{0});
    return bytes;
}

void add(std::vector<std::string>& active, const char* name, const std::string& value) {
    active.push_back(std::string(name) + " " + value);
}

void add_answers(const ChipDownloadFaults& faults, std::vector<std::string>& active) {
    for (size_t i = 0; i < faults.answers.size(); ++i) {
        const ChipAnswerRule& rule = faults.answers[i];
        if (rule.every > 0 || rule.left > 0) {
            add(active, kAnswerNames[i],
                (rule.every > 0 ? "every:" + std::to_string(rule.every)
                                : chip_fault_repetition_text(rule.left)) +
                    command_text(rule.command));
        }
    }
}

} // namespace

const std::vector<ChipFaultInfo>& chip_download_fault_table() {
    static const char* const kAnswerValues = "once|N|always|every:N|off[@COMMAND]";
    static const std::vector<ChipFaultInfo> table = {
        {"asleep", "on|off", "download: a wake-up never ends"},
        {"boot-silent", "on|off", "the boot ROM answers nothing"},
        {"handshake-bad", "1|2|3|4[:once|:N|:always]|off", "answer to this byte of the handshake is wrong"},
        {"echo-bad", "N|off", "N-th echo behind the next handshake is wrong"},
        {"boot-status", "N|off", "N-th status word behind the next handshake is an error"},
        {"checksum-bad", "once|N|always|off", "wrong checksum of the download agent"},
        {"response-lost", kAnswerValues, "the agent's response never comes"},
        {"response-late", "MS[@COMMAND]|off", "the agent's responses come late"},
        {"response-twice", kAnswerValues, "the agent's response comes again"},
        {"response-foreign", kAnswerValues, "a response to another command comes first"},
        {"response-status", kAnswerValues, "the agent says that it failed"},
        {"agent-log", kAnswerValues, "a log notification comes first"},
        {"agent-garbage", kAnswerValues, "bytes of no frame come first"},
        {"power-loss", "N[@COMMAND|@agent]|off",
         "power fails at the N-th agent command, or block of the agent itself"},
    };
    return table;
}

std::string chip_download_fault_commands() {
    std::string text;
    for (const CommandName& entry : kCommandNames) {
        text += (text.empty() ? "" : ", ") + std::string(entry.name);
    }
    return text;
}

bool chip_download_fault_known(const std::string& name) {
    const auto& table = chip_download_fault_table();
    return std::any_of(table.begin(), table.end(),
                       [&](const ChipFaultInfo& info) { return name == info.name; });
}

bool chip_download_fault_set(ChipDownloadFaults& faults, const std::string& name, const std::string& value) {
    const auto answer = std::find(kAnswerNames.begin(), kAnswerNames.end(), name);
    if (answer != kAnswerNames.end()) {
        return set_answer(faults.answers[static_cast<size_t>(answer - kAnswerNames.begin())], value);
    }
    if (name == "asleep" || name == "boot-silent") {
        return chip_fault_switch(name == "asleep" ? faults.asleep : faults.boot_silent, value);
    }
    if (name == "handshake-bad") {
        return set_handshake(faults, value);
    }
    if (name == "echo-bad" || name == "boot-status") {
        return set_number(name == "echo-bad" ? faults.bad_echo : faults.bad_word, value, kMaxNumber);
    }
    if (name == "checksum-bad") {
        return set_repetition(faults.checksums_left, value);
    }
    return name == "response-late" ? set_late(faults, value) : set_power(faults, value);
}

void chip_download_fault_active(const ChipDownloadFaults& faults, std::vector<std::string>& active) {
    if (faults.asleep) {
        add(active, "asleep", "on");
    }
    if (faults.boot_silent) {
        add(active, "boot-silent", "on");
    }
    if (faults.handshakes_left > 0) {
        add(active, "handshake-bad",
            std::to_string(faults.handshake_byte) + ":" + chip_fault_repetition_text(faults.handshakes_left));
    }
    if (faults.bad_echo > 0) {
        add(active, "echo-bad", std::to_string(faults.bad_echo));
    }
    if (faults.bad_word > 0) {
        add(active, "boot-status", std::to_string(faults.bad_word));
    }
    if (faults.checksums_left > 0) {
        add(active, "checksum-bad", chip_fault_repetition_text(faults.checksums_left));
    }
    add_answers(faults, active);
    if (faults.late_ms > 0) {
        add(active, "response-late", std::to_string(faults.late_ms) + command_text(faults.late_command));
    }
    if (faults.power_in > 0) {
        add(active, "power-loss", std::to_string(faults.power_in) + command_text(faults.power_command));
    }
}

bool chip_download_fault_handshake(ChipDownloadFaults& faults, uint32_t byte) {
    return faults.handshake_byte == byte && chip_fault_use_up(faults.handshakes_left);
}

bool chip_download_fault_echo(ChipDownloadFaults& faults, uint32_t echo) {
    return strike_once(faults.bad_echo, echo);
}

bool chip_download_fault_word(ChipDownloadFaults& faults, uint32_t word) {
    return strike_once(faults.bad_word, word);
}

bool chip_download_fault_checksum(ChipDownloadFaults& faults) {
    return chip_fault_use_up(faults.checksums_left);
}

bool chip_download_fault_power(ChipDownloadFaults& faults, uint16_t command) {
    const bool counts = faults.power_command == command ||
                        (faults.power_command == kChipAnyCommand && command != kChipAgentUpload);
    return counts && faults.power_in > 0 && --faults.power_in == 0;
}

ChipAnswerFaultSet chip_download_fault_answer(ChipDownloadFaults& faults, uint16_t command) {
    ChipAnswerFaultSet set;
    std::transform(faults.answers.begin(), faults.answers.end(), set.on.begin(),
                   [command](ChipAnswerRule& rule) { return strikes(rule, command); });
    const bool late = faults.late_command == kChipAnyCommand || faults.late_command == command;
    set.late_us = late ? faults.late_ms * kUsPerMs : 0;
    return set;
}

void chip_download_fault_send(Chip& chip, const ChipAnswerFaultSet& faults, const std::vector<uint8_t>& frame,
                              uint64_t now_us) {
    const uint64_t due_us = now_us + faults.late_us;
    const uint8_t* identifier = frame.data() + 4;
    if (faults.on[kChipAnswerGarbage]) {
        chip_spim_send(chip, garbage(chip), due_us);
    }
    if (faults.on[kChipAnswerLog]) {
        chip_spim_send(chip, log_frame(identifier[0]), due_us);
    }
    if (faults.on[kChipAnswerForeign]) {
        chip_spim_send(chip, chip_agent_frame('[', kForeignIdentifier, {0, 0, 0, 0, 0}), due_us);
    }
    if (!faults.on[kChipAnswerLost]) {
        chip_spim_send(chip, frame, due_us);
    }
    if (faults.on[kChipAnswerTwice]) {
        chip_spim_send(chip, frame, due_us);
    }
}

#include "chip/chip_command.h"

#include "chip/chip_sentence.h"

#include <string_view>
#include <vector>

namespace {

constexpr std::string_view kTalker = "PZUL";
constexpr size_t kNumberSize = 3; // digits of a command number

enum class Result : uint8_t { done = 0, unknown = 1, bad_parameters = 2 };

bool is_number(const std::string& text) {
    return text.size() == kNumberSize && text.find_first_not_of("0123456789") == std::string::npos;
}

void log_command(const ChipCommandParts& chip, std::string_view sentence, bool good, uint64_t now_us) {
    while (sentence.ends_with('\n') || sentence.ends_with('\r')) {
        sentence.remove_suffix(1);
    }
    ++(good ? chip.status.commands_good : chip.status.commands_bad);
    chip.status.last_command = chip_printable(sentence);
    chip.commands.log.push_back({chip.status.last_command, good, now_us});
    if (chip.commands.log.size() > kChipCommandLogSize) {
        chip.commands.log.pop_front();
    }
}

void acknowledge(ChipFifo& transmit, const std::string& number, Result result) {
    chip_fifo_offer(transmit,
                    chip_sentence("PZUL001," + number + "," + std::to_string(static_cast<int>(result))));
}

Result carry_out(const ChipCommandParts& chip, const std::vector<std::string>& fields, uint64_t now_us) {
    if (fields[0] == "590" || fields[0] == "600") {
        return chip_aiding_answer(chip.aiding, fields, now_us) ? Result::done : Result::bad_parameters;
    }
    if (fields[0] == "471") {
        return chip_orbit_answer(chip.orbits, fields, now_us) ? Result::done : Result::bad_parameters;
    }
    return Result::done;
}

// A sentence with wrong framing or checksum is logged and not answered, since its number can't be trusted.
void sentence_complete(const ChipCommandParts& chip, std::string_view sentence, uint64_t now_us) {
    std::string_view body;
    if (!chip_sentence_check(sentence, body).empty() || !body.starts_with(kTalker)) {
        return log_command(chip, sentence, false, now_us);
    }
    const std::vector<std::string> fields = chip_split(body.substr(kTalker.size()));
    const bool known = is_number(fields[0]);
    log_command(chip, sentence, known, now_us);
    if (known) {
        acknowledge(chip.transmit, fields[0], carry_out(chip, fields, now_us));
    } else {
        acknowledge(chip.transmit, "000", Result::unknown);
    }
}

void byte_received(const ChipCommandParts& chip, char byte, uint64_t now_us) {
    std::string& line = chip.commands.line;
    if (line.empty() && byte != '$') {
        ++chip.status.bytes_noise;
        return;
    }
    if (!line.empty() && byte == '$') { // the one before never ended
        log_command(chip, line, false, now_us);
        line.clear();
    }
    line += byte;
    if (byte == '\n') {
        sentence_complete(chip, line, now_us);
        line.clear();
    } else if (line.size() >= kChipCommandMaxSize) {
        log_command(chip, line, false, now_us);
        line.clear();
    }
}

} // namespace

void chip_command_receive(const ChipCommandParts& chip, const uint8_t* data, size_t length, uint64_t now_us) {
    for (size_t i = 0; i < length; ++i) {
        byte_received(chip, static_cast<char>(data[i]), now_us);
    }
}

#include "chip/chip_sentence.h"

#include <cstddef>
#include <cstdint>

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";
constexpr size_t kTailSize = 5; // '*', two digits, CR LF
constexpr size_t kSmallest = 1 + kTailSize;

std::string two_digits(uint8_t value) {
    return {kDigits[value >> 4], kDigits[value & 15]};
}

uint8_t exclusive_or(std::string_view text) {
    uint8_t sum = 0;
    for (const char c : text) {
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
    }
    return sum;
}

} // namespace

std::string chip_sentence(std::string_view body) {
    std::string sentence = "$";
    sentence.append(body);
    sentence += '*';
    sentence += two_digits(exclusive_or(body));
    return sentence + "\r\n";
}

std::string chip_sentence_check(std::string_view sentence, std::string_view& body) {
    if (sentence.size() < kSmallest || sentence.front() != '$') {
        return "no sentence";
    }
    const size_t star = sentence.size() - kTailSize;
    if (sentence.substr(star + 3) != "\r\n") {
        return "no CR LF at the end";
    }
    if (sentence[star] != '*') {
        return "no checksum before the end of the line";
    }
    body = sentence.substr(1, star - 1);
    if (sentence.substr(star + 1, 2) != two_digits(exclusive_or(body))) {
        return "wrong checksum";
    }
    return "";
}

std::vector<std::string> chip_split(std::string_view body) {
    std::vector<std::string> fields(1);
    for (const char c : body) {
        if (c == ',') {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

std::string chip_printable(std::string_view text) {
    std::string printable;
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            printable += c;
        } else {
            printable += "\\x" + two_digits(static_cast<uint8_t>(c));
        }
    }
    return printable;
}

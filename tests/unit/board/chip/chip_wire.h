// The host's side of the multiplexer, written from the wire for tests of the chip.
#ifndef TAVOR_TESTS_CHIP_WIRE_H
#define TAVOR_TESTS_CHIP_WIRE_H

#include "chip/chip.h"
#include "support/bytes.h"

#include <cstdint>
#include <string>
#include <vector>

// Noon of a day in 2024, so that the texts of times and dates are known.
inline constexpr uint64_t kNoonUs = 1718193600000000; // 2024-06-12 12:00:00 UTC
inline constexpr uint64_t kSecondUs = 1000000;

// A chip that sends nothing by itself.
inline ChipOptions quiet() {
    ChipOptions options;
    options.source = ChipSource::none;
    return options;
}

struct Host {
    // A chip with the options, powered at clock 0 with its interface switched on, unless off is asked for.
    explicit Host(ChipOptions options = {}, bool on = true);

    // Sends one frame and returns what came back; fails the test when the transfer fails.
    Bytes frame(const Bytes& tx);
    uint8_t status() {
        return frame({0x06, 0x00})[1];
    }
    void interface_on() {
        frame({0x04});
    }
    void interface_off() {
        frame({0x02});
    }
    // Reads a length register: 0x08 (to read) or 0x04 (to write).
    uint32_t read_register(uint8_t address);
    // Reads exactly this many bytes of the transmit buffer.
    std::string read_data(uint32_t length);
    // Reads up to limit bytes at once.
    std::string read_some(uint32_t limit = 4095);
    // Reads until nothing waits.
    std::string read_all();
    // Writes data as one announced data phase.
    void write(const std::string& data);
    ChipStatus seen() {
        return chip_status(chip);
    }

    Chip chip;
    uint64_t now_us = 0;
};

// Lines with their line ends.
std::vector<std::string> sentences_of(const std::string& text);

// Fields between the commas, the checksum cut off.
std::vector<std::string> fields_of(const std::string& sentence);

// Whether it is "$...*CS\r\n" with the right upper-case checksum.
bool is_valid_sentence(const std::string& sentence);

// How many of them have the three letters of this formatter after the talker.
size_t count_formatter(const std::vector<std::string>& sentences, const std::string& formatter);

#endif

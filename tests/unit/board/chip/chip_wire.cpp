#include "chip_wire.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>

Host::Host(ChipOptions options, bool on) {
    if (options.utc_at_zero_us == 0) {
        options.utc_at_zero_us = kNoonUs;
    }
    EXPECT_EQ(chip_options_error(options), "");
    chip_init(chip, std::move(options));
    if (on) {
        chip_power(chip, true, now_us);
        interface_on();
    }
}

Bytes Host::frame(const Bytes& tx) {
    Bytes rx(tx.size(), 0xEE);
    EXPECT_TRUE(chip_spi_transfer(chip, tx.data(), rx.data(), static_cast<uint32_t>(tx.size()), now_us));
    return rx;
}

uint32_t Host::read_register(uint8_t address) {
    frame({0x0A, address, 0, 0, 0, 3, 0, 0, 0});
    EXPECT_EQ(status() & 0x05, 0x05);
    return le_at(frame({0x81, 0, 0, 0, 0}), 1, 4);
}

std::string Host::read_data(uint32_t length) {
    const uint32_t last = length - 1;
    frame({0x0A, 0x00, 0x20, 0, 0, static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8), 0, 0});
    EXPECT_EQ(status() & 0x05, 0x05);
    Bytes tx(length + 1);
    tx[0] = 0x81;
    const Bytes rx = frame(tx);
    EXPECT_EQ(status() & 0x21, 0x21);
    return {rx.begin() + 1, rx.end()};
}

std::string Host::read_some(uint32_t limit) {
    const uint32_t waiting = read_register(0x08);
    return waiting == 0 ? "" : read_data(std::min(waiting, limit));
}

std::string Host::read_all() {
    std::string all;
    for (std::string some = read_some(); !some.empty(); some = read_some()) {
        all += some;
    }
    return all;
}

void Host::write(const std::string& data) {
    EXPECT_GE(read_register(0x04), data.size());
    const size_t last = data.size() - 1;
    frame({0x0C, 0x00, 0x10, 0, 0, static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8), 0, 0});
    EXPECT_EQ(status() & 0x05, 0x05);
    Bytes tx = {0x0E};
    tx.insert(tx.end(), data.begin(), data.end());
    frame(tx);
    EXPECT_EQ(status() & 0x21, 0x21);
}

std::vector<std::string> sentences_of(const std::string& text) {
    std::vector<std::string> sentences;
    for (size_t start = 0; start < text.size();) {
        const size_t end = text.find('\n', start);
        const size_t next = end == std::string::npos ? text.size() : end + 1;
        sentences.push_back(text.substr(start, next - start));
        start = next;
    }
    return sentences;
}

std::vector<std::string> fields_of(const std::string& sentence) {
    std::vector<std::string> fields(1);
    for (const char c : sentence.substr(0, sentence.find('*'))) {
        if (c == ',') {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

bool is_valid_sentence(const std::string& sentence) {
    const size_t star = sentence.find('*');
    if (sentence.empty() || sentence[0] != '$' || star == std::string::npos) {
        return false;
    }
    unsigned sum = 0;
    for (size_t i = 1; i < star; ++i) {
        sum ^= static_cast<unsigned char>(sentence[i]);
    }
    char tail[8];
    snprintf(tail, sizeof tail, "*%02X\r\n", sum);
    return sentence.substr(star) == tail;
}

size_t count_formatter(const std::vector<std::string>& sentences, const std::string& formatter) {
    return static_cast<size_t>(
        std::count_if(sentences.begin(), sentences.end(), [&](const std::string& sentence) {
            return sentence.size() > 6 && sentence.compare(3, 3, formatter) == 0;
        }));
}

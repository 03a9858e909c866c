#include "chip_download_wire.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kFrameUs = 100; // of the chip's clock
constexpr uint32_t kBlock = 4096;

void append(Bytes& bytes, uint32_t value, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

} // namespace

ChipOptions DownloadHost::small() {
    ChipOptions options;
    options.source = ChipSource::none;
    options.flash_size = 0x40000;
    return options;
}

DownloadHost::DownloadHost(ChipOptions options) {
    chip_init(chip, std::move(options));
    power(true);
}

Bytes DownloadHost::frame(const Bytes& tx) {
    now_us += kFrameUs;
    Bytes rx(tx.size());
    EXPECT_TRUE(chip_spi_transfer(chip, tx.data(), rx.data(), static_cast<uint32_t>(tx.size()), now_us));
    return rx;
}

void DownloadHost::fault(const std::string& name, const std::string& value) {
    EXPECT_EQ(chip_fault(chip, name, value, now_us), "") << name << " " << value;
}

void DownloadHost::write(const Bytes& data) {
    const auto last = static_cast<uint32_t>(data.size() - 1);
    frame({0x04, 0, 0, 0xAA, 0x55, static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8), 0, 0});
    EXPECT_EQ(status(), 0x05);
    Bytes block = {0x06};
    block.insert(block.end(), data.begin(), data.end());
    frame(block);
    EXPECT_EQ(status() & 0x20, 0x20);
}

Bytes DownloadHost::read(uint32_t length) {
    const uint32_t last = length - 1;
    frame({0x02, 0, 0, 0xAA, 0x55, static_cast<uint8_t>(last), static_cast<uint8_t>(last >> 8), 0, 0});
    EXPECT_EQ(status(), 0x05);
    Bytes block(length + 1);
    block[0] = 0x81;
    block = frame(block);
    EXPECT_EQ(status() & 0x20, 0x20);
    return {block.begin() + 1, block.end()};
}

uint32_t DownloadHost::read_number(uint32_t size) {
    return le_at(read(size), 0, size);
}

bool DownloadHost::echo(uint32_t value, uint32_t size) {
    Bytes bytes;
    append(bytes, value, size);
    write(bytes);
    return read(size) == bytes;
}

bool DownloadHost::handshake() {
    for (const uint8_t byte : Bytes{0xA0, 0x0A, 0x50, 0x05}) {
        write({byte});
        if (read(1)[0] != static_cast<uint8_t>(~byte)) {
            return false;
        }
    }
    return true;
}

bool DownloadHost::set_register(uint32_t address, uint16_t value) {
    return echo(0xD2, 1) && echo(address, 4) && echo(1, 4) && read_number(2) == 0 && echo(value, 2) &&
           read_number(2) == 0;
}

bool DownloadHost::send_agent(const Bytes& agent) {
    if (!echo(0xD7, 1) || !echo(0x4200000, 4) || !echo(static_cast<uint32_t>(agent.size()), 4) ||
        !echo(0, 4) || read_number(2) != 0) {
        return false;
    }
    uint32_t checksum = 0;
    for (size_t at = 0; at < agent.size(); at += 1024) {
        const size_t end = std::min(agent.size(), at + 1024);
        write(Bytes(agent.begin() + static_cast<ptrdiff_t>(at), agent.begin() + static_cast<ptrdiff_t>(end)));
    }
    for (size_t i = 0; i < agent.size(); ++i) {
        checksum ^= static_cast<uint32_t>(agent[i]) << (i % 2 == 0 ? 0 : 8);
    }
    return read_number(2) == checksum && read_number(2) == 0;
}

bool DownloadHost::jump() {
    return echo(0xD5, 1) && echo(0x4200000, 4) && read_number(2) == 0;
}

bool DownloadHost::start_agent() {
    return handshake() && set_register(0xA2080000, 0x10) && set_register(0xA2080030, 0x40) &&
           send_agent(Bytes(1025, 0x5A)) && jump();
}

Bytes DownloadHost::command(uint16_t identifier, const Bytes& payload, bool crc, uint32_t size) {
    Bytes bytes = {0x05, 0x5A};
    append(bytes, static_cast<uint32_t>(2 + payload.size() + (crc ? 4 : 0)), 2);
    append(bytes, identifier, 2);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    if (crc) {
        append(bytes, slow_crc32(bytes), 4);
    }
    for (size_t at = 0; at < bytes.size(); at += 4095) {
        const size_t end = std::min(bytes.size(), at + 4095);
        write(Bytes(bytes.begin() + static_cast<ptrdiff_t>(at), bytes.begin() + static_cast<ptrdiff_t>(end)));
    }
    return read(size);
}

AgentResponse DownloadHost::ask(uint16_t identifier, const Bytes& payload, bool crc) {
    const Bytes bytes = command(identifier, payload, crc, 4095);
    AgentResponse response;
    if (bytes[0] != 0x05 || bytes[1] != '[') {
        return response;
    }
    const size_t end = 4 + le_at(bytes, 2, 2);
    response.identifier = static_cast<uint16_t>(le_at(bytes, 4, 2));
    response.status = bytes[6];
    response.payload.assign(bytes.begin() + 7, bytes.begin() + static_cast<ptrdiff_t>(end));
    EXPECT_EQ(Bytes(bytes.begin() + static_cast<ptrdiff_t>(end), bytes.end()), Bytes(4095 - end));
    return response;
}

uint8_t DownloadHost::write_block(uint32_t address, Bytes data) {
    data.resize(kBlock, 0xFF);
    Bytes payload = numbers({address});
    append(payload, kBlock, 2);
    payload.insert(payload.end(), data.begin(), data.end());
    const AgentResponse response = ask(0x2100, payload, true);
    EXPECT_EQ(response.identifier, 0x2100);
    EXPECT_EQ(response.payload, numbers({address}));
    return response.status;
}

AgentResponse DownloadHost::check(uint32_t address, const Bytes& image) {
    Bytes padded = image;
    padded.resize((image.size() + 3) / 4 * 4, 0xFF);
    return ask(0x211A, numbers({address, static_cast<uint32_t>(image.size()), slow_crc32(padded)}), true);
}

Bytes DownloadHost::numbers(const std::vector<uint32_t>& values) {
    Bytes bytes;
    for (const uint32_t value : values) {
        append(bytes, value, 4);
    }
    return bytes;
}

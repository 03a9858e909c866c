// The host's side of a firmware download, written from the wire for tests of the chip.
#ifndef TAVOR_TESTS_CHIP_DOWNLOAD_WIRE_H
#define TAVOR_TESTS_CHIP_DOWNLOAD_WIRE_H

#include "chip/chip.h"
#include "support/bytes.h"

#include <cstdint>
#include <string>
#include <vector>

// A response of the agent; identifier 0: none came.
struct AgentResponse {
    uint16_t identifier = 0;
    uint8_t status = 0;
    Bytes payload;
};

struct DownloadHost {
    // A chip with a flash of 256 KiB, no source of sentences, just powered up.
    explicit DownloadHost(ChipOptions options = small());
    static ChipOptions small();

    void power(bool high) {
        chip_power(chip, high, now_us);
    }
    Bytes frame(const Bytes& tx);
    uint8_t status() {
        return frame({0x0A, 0x00})[1];
    }
    void fault(const std::string& name, const std::string& value);
    ChipDownloadStatus seen() {
        return chip_status(chip).download;
    }

    // One block, announced and moved; each expects the done bits.
    void write(const Bytes& data);
    Bytes read(uint32_t length);
    // Reads that many bytes as a number.
    uint32_t read_number(uint32_t size);
    // Sends and expects the same back.
    bool echo(uint32_t value, uint32_t size);

    // Each returns whether the boot ROM answered as it should.
    bool handshake();
    bool set_register(uint32_t address, uint16_t value);
    bool send_agent(const Bytes& agent);
    bool jump();
    // All of them, with both registers.
    bool start_agent();

    // A command with its CRC where it has one, and the bytes that the agent sends within size.
    Bytes command(uint16_t identifier, const Bytes& payload, bool crc, uint32_t size);
    // The same; expects one response and nothing else.
    AgentResponse ask(uint16_t identifier, const Bytes& payload, bool crc);
    uint8_t erase(uint32_t address, uint32_t length) {
        return ask(0x2104, numbers({address, length}), true).status;
    }
    uint8_t write_block(uint32_t address, Bytes data); // filled up with 0xFF
    AgentResponse check(uint32_t address, const Bytes& image);
    uint8_t finish() {
        return ask(0x2106, {0}, false).status;
    }

    static Bytes numbers(const std::vector<uint32_t>& values); // little-endian, 4 bytes each

    Chip chip;
    uint64_t now_us = 0;
};

#endif

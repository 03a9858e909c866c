#include "spim_slave.h"

#include "download/hdl_progress.h"
#include "support/capture.h"
#include "support/fake_clock.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

SpimSlave spim_slave;

namespace {

constexpr int32_t kDescriptor = 7;

Chip chip;
uint8_t last_command = 0; // that a status speaks of

uint8_t reversed(uint8_t byte) {
    unsigned result = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        result |= (byte >> bit & 1U) << (7 - bit);
    }
    return static_cast<uint8_t>(result);
}

// With bit order 1 the device runs most significant bit first, and both sides' bytes are turned around.
uint8_t on_wire(uint8_t byte) {
    return spim_slave.port.bit_order == 1 ? reversed(byte) : byte;
}

uint64_t now_us() {
    return static_cast<uint64_t>(fake_clock.now_ms - kFakeNoonMs) * 1000;
}

Bytes chip_answer(const Bytes& frame) {
    Bytes rx(frame.size());
    chip_spi_transfer(chip, frame.data(), rx.data(), static_cast<uint32_t>(frame.size()), now_us());
    return rx;
}

int next_status() {
    if (!spim_slave.statuses.empty()) {
        const int status = spim_slave.statuses.front();
        spim_slave.statuses.pop_front();
        return status;
    }
    const bool data = last_command == 0x06 || last_command == 0x81;
    return data && spim_slave.data_status ? *spim_slave.data_status : chip_answer({0x0A, 0x00})[1];
}

int32_t answer_status(uint8_t* rx, uint32_t len) {
    ++spim_slave.status_reads;
    const int status = next_status();
    if (status == kFails) {
        return -1;
    }
    rx[1] = on_wire(static_cast<uint8_t>(status));
    return static_cast<int32_t>(len);
}

int32_t take_frame(const Bytes& frame, uint8_t* rx) {
    spim_slave.frames.push_back(frame);
    spim_slave.has_rx.push_back(rx != nullptr);
    last_command = frame[0];
    spim_slave.at_frame();
    if (spim_slave.fails(frame)) {
        return spim_slave.failed_result;
    }
    const Bytes answer = chip_answer(frame);
    if (rx != nullptr) {
        std::transform(answer.begin(), answer.end(), rx, on_wire);
    }
    return static_cast<int32_t>(frame.size());
}

} // namespace

int32_t location_spi_init(int32_t* fd, const location_spi_config* config) {
    spim_slave.opened.push_back(*config);
    if (spim_slave.open_result == 0) {
        *fd = kDescriptor;
    }
    return spim_slave.open_result;
}

int32_t location_spi_deinit(int32_t fd) {
    spim_slave.closed.push_back(fd);
    return spim_slave.close_result;
}

int32_t location_spi_transfer(int32_t fd, const uint8_t* tx_buf, uint8_t* rx_buf, uint32_t len) {
    EXPECT_EQ(fd, kDescriptor);
    Bytes frame(tx_buf, tx_buf + len);
    std::transform(frame.begin(), frame.end(), frame.begin(), on_wire);
    if (frame[0] != 0x0A) {
        return take_frame(frame, rx_buf);
    }
    EXPECT_EQ(frame, (Bytes{0x0A, 0x00}));
    return answer_status(rx_buf, len);
}

SpimTest::SpimTest() {
    start();
}

SpimTest::~SpimTest() {
    spim_close();
    fake_clock_stop();
}

int32_t SpimTest::start(uint32_t bit_order) {
    capture_stdout([] { spim_close(); });
    fake_clock_start();
    hdl_progress_start();
    spim_slave = {};
    spim_slave.port.bit_order = bit_order;
    last_command = 0;
    ChipOptions options;
    options.source = ChipSource::none;
    options.sleepy_polls = 0;
    chip = {};
    chip_init(chip, options);
    chip_power(chip, true, 0);
    chip_answer({0x0A, 0x00}); // a frame of this transport keeps the chip in its boot ROM
    return spim_open(spim_slave.port);
}

void SpimTest::run(const std::function<void()>& body) {
    log = without_stamps(capture_stdout(body));
}

void SpimTest::chip_sends(const Bytes& data) {
    chip_spim_send(chip.spim, data, 0);
}

void SpimTest::chip_has(const std::string& fault, const std::string& value) {
    EXPECT_EQ(chip_fault(chip, fault, value, now_us()), "");
}

uint64_t SpimTest::violations() {
    return chip_status(chip).violations;
}

Lines frames_as_text() {
    Lines texts;
    for (const Bytes& frame : spim_slave.frames) {
        std::string text;
        for (const uint8_t byte : frame) {
            char hex[4];
            snprintf(hex, sizeof hex, text.empty() ? "%02X" : " %02X", byte);
            text += hex;
        }
        texts.push_back(text);
    }
    return texts;
}

uint32_t frames_with(uint8_t opcode) {
    return static_cast<uint32_t>(std::count_if(spim_slave.frames.begin(), spim_slave.frames.end(),
                                               [opcode](const Bytes& frame) { return frame[0] == opcode; }));
}

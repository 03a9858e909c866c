// What the firmware download stands on, replaced: a link with a scripted other end, a clock that moves only
// when somebody waits, and log lines as texts.
#ifndef TAVOR_TESTS_HDL_FAKES_H
#define TAVOR_TESTS_HDL_FAKES_H

#include "support/bytes.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

struct HdlFakes {
    int64_t now = 1'000'000;
    int64_t set = 0;           // by how much the time of day was set: no time has passed
    int64_t receive_ms = 50;   // what a receive without bytes takes
    Texts log;                 // "[E] TEXT" or "[I] TEXT", line ends included
    Texts calls;               // "sleep 100", "set_speed 921600", "hook 1", "send 7 flag 1", "receive 11"
    std::vector<Bytes> sent;   // what went out and what was refused
    std::deque<Bytes> arrives; // one receive takes from one of them
    std::function<void(const Bytes&)> on_send = [](const Bytes&) {};
    std::function<void()> on_receive = [] {};
    std::function<bool(const Bytes&)> accepts = [](const Bytes&) { return true; };
    bool set_speed_result = true;
};

extern HdlFakes g_fakes;

// Starts over, with empty settings and an empty pool.
void hdl_fakes_reset();

// The lines that begin with this.
Texts hdl_fakes_log_with(const std::string& start);

// With its CRC-32 after it.
Bytes with_crc(const Bytes& data);

// A frame of the agent: 0x05, type, length, identifier, status, payload.
Bytes agent_frame(uint16_t id, uint8_t status, const Bytes& payload = {});
// 0x05, type, the given length, body.
Bytes raw_frame(char type, uint16_t length, const Bytes& body);
// A log notification.
Bytes agent_log(const std::string& text);

#endif

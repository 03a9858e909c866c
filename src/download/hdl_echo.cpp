#include "download/hdl_echo.h"

#include "base/byte_order.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_text.h"
#include "download/tool_time.h"

namespace {

constexpr int64_t kPollMs = 20;
constexpr int64_t kAnsweredAtOnceMs = 10;
constexpr int64_t kReadU16LimitMs = 1000;

// Turns a word around between this machine's order and the link's.
void reverse_on_serial(uint8_t* word, uint32_t n) {
    if (g_download_settings.link_type == HDL_LINK_UART) {
        tool_reverse_bytes(word, n);
    }
}

bool send_word(uint8_t* word, uint32_t n) {
    reverse_on_serial(word, n);
    return hdl_transport_send(word, n, kHdlSendFlag);
}

bool receive_within_limit(uint8_t* word, uint32_t n) {
    const int64_t start = tool_time_passed_ms();
    while (hdl_transport_receive(word, n) == 0) {
        if (tool_time_passed_ms() - start > kReadU16LimitMs || hdl_progress_given_up()) {
            return false;
        }
        tool_sleep_ms(kPollMs);
    }
    return true;
}

bool receive_in_two_tries(uint8_t* word, uint32_t n) {
    if (hdl_transport_receive(word, n) > 0) {
        return true;
    }
    tool_sleep_ms(kPollMs);
    return hdl_transport_receive(word, n) > 0;
}

// An echo that is the expected one is progress.
bool is_echo(uint32_t received, uint32_t expect) {
    if (received == expect) {
        hdl_progress_mark();
    }
    return received == expect;
}

// An answer that came at once is followed by a pause of its own.
bool receive_echo(uint8_t* byte) {
    if (hdl_transport_receive(byte, 1) > 0) {
        tool_sleep_ms(kAnsweredAtOnceMs);
        return true;
    }
    tool_sleep_ms(kPollMs);
    return hdl_transport_receive(byte, 1) > 0;
}

} // namespace

bool readU16(uint16_t* value) {
    uint8_t word[sizeof *value] = {};
    if (!receive_within_limit(word, sizeof word)) {
        return false;
    }
    reverse_on_serial(word, sizeof word);
    *value = load_le16(word);
    return true;
}

bool readU32(uint32_t* value) {
    uint8_t word[sizeof *value] = {};
    if (!receive_in_two_tries(word, sizeof word)) {
        return false;
    }
    reverse_on_serial(word, sizeof word);
    *value = load_le32(word);
    return true;
}

bool echoU8(uint8_t value, uint8_t expect) {
    tool_log_info("echoU8 Send 0x%X\n", value);
    if (!hdl_transport_send(&value, sizeof value, kHdlSendFlag)) {
        return false;
    }
    tool_sleep_ms(kPollMs);
    uint8_t received = 0;
    if (!receive_echo(&received)) {
        return false;
    }
    tool_log_info("echoU8 receiveChar 0x%X\n", expect); // Kept: not what was received
    return is_echo(received, expect);
}

bool echoU16(uint16_t value, uint16_t expect) {
    tool_log_info("echoU16 Send 0x%X\n", value);
    uint8_t word[sizeof value];
    store_le16(word, value);
    uint16_t received = 0;
    return send_word(word, sizeof word) && readU16(&received) && is_echo(received, expect);
}

bool echoU32(uint32_t value, uint32_t expect) {
    tool_log_info("echoU32 Send 0x%X\n", value);
    uint8_t word[sizeof value];
    store_le32(word, value);
    uint32_t received = 0;
    if (!send_word(word, sizeof word) || !readU32(&received)) {
        return false;
    }
    if (!is_echo(received, expect)) {
        tool_log_error("echoU32 want receiveChar 0x%X8,  receiveChar 0x%X8\n", expect, received);
        return false;
    }
    return true;
}

#include "hdl_fakes.h"

#include "download/hdl_pool.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_time.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

HdlFakes g_fakes;

namespace {

__attribute__((format(printf, 2, 0))) void log_line(const char* level, const char* format, va_list values) {
    char text[8192];
    vsnprintf(text, sizeof text, format, values);
    g_fakes.log.push_back(level + std::string(text));
}

} // namespace

void hdl_fakes_reset() {
    g_fakes = HdlFakes{};
    g_download_settings = {};
    g_download_settings.link_type = HDL_LINK_SPI;
    tool_rx_buffer_clear();
    hdl_progress_start();
}

Texts hdl_fakes_log_with(const std::string& start) {
    Texts found;
    for (const std::string& line : g_fakes.log) {
        if (line.rfind(start, 0) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

Bytes with_crc(const Bytes& data) {
    return data + le32(slow_crc32(data));
}

Bytes agent_frame(uint16_t id, uint8_t status, const Bytes& payload) {
    const Bytes body = le16(id) + Bytes{status} + payload;
    return raw_frame('[', static_cast<uint16_t>(body.size()), body);
}

Bytes raw_frame(char type, uint16_t length, const Bytes& body) {
    return Bytes{0x05, static_cast<uint8_t>(type)} + le16(length) + body;
}

Bytes agent_log(const std::string& text) {
    const Bytes body = le16(0x0F10) + Bytes(6, 0xEE) + Bytes(text.begin(), text.end());
    return raw_frame(']', static_cast<uint16_t>(body.size()), body);
}

void tool_log_error(const char* format, ...) {
    va_list values;
    va_start(values, format);
    log_line("[E] ", format, values);
    va_end(values);
}

void tool_log_info(const char* format, ...) {
    va_list values;
    va_start(values, format);
    log_line("[I] ", format, values);
    va_end(values);
}

int64_t tool_time_now_ms() {
    return g_fakes.now + g_fakes.set;
}

int64_t tool_time_passed_ms() {
    return g_fakes.now;
}

void tool_time_start() {
    g_fakes.calls.emplace_back(g_fakes.log.empty() ? "time_start" : "time_start behind a line");
}

void tool_sleep_ms(int64_t ms) {
    g_fakes.calls.push_back("sleep " + std::to_string(ms));
    g_fakes.now += ms;
}

bool hdl_transport_send(const uint8_t* data, uint32_t n, uint32_t send_flag) {
    g_fakes.calls.push_back("send " + std::to_string(n) + " flag " + std::to_string(send_flag));
    const Bytes frame(data, data + n);
    g_fakes.sent.push_back(frame);
    if (!g_fakes.accepts(frame)) {
        return false;
    }
    g_fakes.on_send(frame);
    return true;
}

bool hdl_transport_taken() {
    return true;
}

uint32_t hdl_transport_receive(uint8_t* buffer, uint32_t n) {
    g_fakes.calls.push_back("receive " + std::to_string(n));
    g_fakes.on_receive();
    if (g_fakes.arrives.empty()) {
        g_fakes.now += g_fakes.receive_ms;
        return 0;
    }
    Bytes& next = g_fakes.arrives.front();
    const auto count = static_cast<uint32_t>(std::min<size_t>(n, next.size()));
    std::copy_n(next.begin(), count, buffer);
    next.erase(next.begin(), next.begin() + count);
    if (next.empty()) {
        g_fakes.arrives.pop_front();
    }
    return count;
}

bool hdl_transport_set_speed(uint32_t baud) {
    g_fakes.calls.push_back("set_speed " + std::to_string(baud));
    return g_fakes.set_speed_result;
}

void hdl_transport_link_hook(uint32_t value) {
    g_fakes.calls.push_back("hook " + std::to_string(value));
}

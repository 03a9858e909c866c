#include "download/tool_text.h"

#include "device/location_uart_escape.h"
#include "download/tool_log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct State {
    bool escaped = false; // the last byte seen was an escape byte
} state;

} // namespace

void tool_reverse_bytes(uint8_t* buffer, uint32_t n) {
    if (buffer != nullptr) {
        std::reverse(buffer, buffer + n);
    }
}

uint32_t tool_escape_flow_control(const uint8_t* input, uint32_t n, uint8_t* output) {
    if (input == nullptr || output == nullptr || n == 0) {
        return 0;
    }
    uint32_t pairs = 0;
    uint32_t written = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t partner = location_uart_partner_of(input[i]);
        if (written + (partner == 0 ? 1 : 2) > kToolEscapeSize) {
            break;
        }
        if (partner == 0) {
            output[written++] = input[i];
            continue;
        }
        output[written++] = kUartEscape;
        output[written++] = partner;
        ++pairs;
    }
    const uint32_t result = n + pairs;
    // Kept: a last position that has no room for a pair keeps its earlier content.
    std::fill(output + std::min(result, kToolEscapeSize), output + kToolEscapeSize, uint8_t{0});
    return result;
}

uint32_t tool_unescape_flow_control(uint8_t* buffer, uint32_t n) {
    if (buffer == nullptr || n == 0) {
        return 0;
    }
    uint32_t length = n;
    uint32_t written = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t byte = buffer[i];
        if (byte == kUartEscape) {
            state.escaped = true;
            continue;
        }
        if (!state.escaped) {
            buffer[written++] = byte;
            continue;
        }
        state.escaped = false;
        if (const uint8_t plain = location_uart_plain_of(byte); plain != 0) {
            buffer[written] = plain;
            --length;
        } else {
            tool_log_error("unrecognized char 0x%X\n", byte);
        }
        ++written; // Kept: after an unknown pair this position keeps its earlier content
    }
    std::fill(buffer + length, buffer + n, uint8_t{0});
    return length;
}

char* tool_concat(const char* a, const char* b) {
    const size_t a_length = strlen(a);
    const size_t b_size = strlen(b) + 1;
    auto* text = static_cast<char*>(malloc(a_length + b_size));
    if (text == nullptr) {
        tool_log_error("concat malloc fail\n");
        return nullptr;
    }
    std::copy_n(a, a_length, text);
    std::copy_n(b, b_size, text + a_length);
    return text;
}

void tool_hex_dump(const uint8_t* bytes, const char* label, uint32_t n) {
    printf("[I]%s:", label);
    for (uint32_t i = 0; i < n; ++i) {
        printf(i == 0 ? "%02X" : ":%02X", bytes[i]);
    }
    putchar('\n');
}

#include "device/location_uart_escape.h"

#include <cstdio>
#include <cstring>

namespace {

// Second byte of the two that stand for the escape byte, XOFF and XON.
constexpr uint8_t kPartnerOfEscape = 0x88;
constexpr uint8_t kPartnerOfXoff = 0xEC;
constexpr uint8_t kPartnerOfXon = 0xEE;

} // namespace

uint8_t location_uart_partner_of(uint8_t plain) {
    switch (plain) {
    case kUartEscape:
        return kPartnerOfEscape;
    case kUartXoff:
        return kPartnerOfXoff;
    case kUartXon:
        return kPartnerOfXon;
    default:
        return 0;
    }
}

uint8_t location_uart_plain_of(uint8_t partner) {
    switch (partner) {
    case kPartnerOfEscape:
        return kUartEscape;
    case kPartnerOfXoff:
        return kUartXoff;
    case kPartnerOfXon:
        return kUartXon;
    default:
        return 0;
    }
}

uint32_t location_uart_escape(const uint8_t* input, uint32_t length, uint8_t* output) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < length; ++i) {
        const uint8_t partner = location_uart_partner_of(input[i]);
        if (partner == 0) {
            output[count++] = input[i];
            continue;
        }
        output[count++] = kUartEscape;
        output[count++] = partner;
    }
    return count;
}

uint32_t location_uart_unescape(uint8_t* buffer, uint32_t n, uint32_t* escape_state) {
    uint32_t count = n + (*escape_state == 1 ? 1U : 0U);
    uint32_t position = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t byte = buffer[i];
        if (byte == kUartEscape) {
            *escape_state = 1;
            continue;
        }
        if (*escape_state == 0) {
            buffer[position++] = byte;
            continue;
        }
        *escape_state = 0;
        const uint8_t plain = location_uart_plain_of(byte);
        if (plain == 0) {
            printf("[LOCSERV] ERR: [UART]unrecognized char 0x%x\n", byte);
            ++position; // Kept: the slot counts as delivered, with whatever stood in it.
            continue;
        }
        buffer[position++] = plain;
        --count;
    }
    if (*escape_state == 1) {
        --count;
    }
    if (count < n) {
        memset(buffer + count, 0, n - count);
    }
    return count;
}

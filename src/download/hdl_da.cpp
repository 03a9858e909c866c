#include "download/hdl_da.h"

#include "base/byte_order.h"
#include "base/free_block.h"
#include "download/hdl_kite.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/hdl_wait.h"
#include "download/tool_log.h"
#include "download/tool_rx_buffer.h"

#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr int64_t kFrameLimitMs = 999;
constexpr int64_t kInstantRoundMs = 1;
constexpr int64_t kAgentStartMs = 100;
constexpr int64_t kSpeedChangeMs = 100;
constexpr uint32_t kBadLengthSkip = 2; // bytes
constexpr uint32_t kLogTextSpare = 2;  // zero bytes behind a log text
constexpr uint32_t kSendFlag = 1;
constexpr uint32_t kFlowControlSendFlag = 0;
constexpr uint32_t kLinkHookValue = 1;

constexpr uint32_t kCrcAt = 11; // in a response with data
constexpr uint32_t kDataAt = 15;

// Sizes of responses to ask for.
constexpr uint32_t kPlainResponse = 7;
constexpr uint32_t kFlashIdResponse = 10;
constexpr uint32_t kU32Response = 11;
constexpr uint32_t kDfuResponse = 0; // kept: these responses are taken as they are

struct State {
    uint8_t received[kKiteFrameSize];
};

State state;

// The text may hold anything: it ends at its first NUL and is never a format.
void print_agent_log(ToolRxBuffer* pool, uint32_t size) {
    const uint32_t n = kite_log_text_size(size);
    const std::unique_ptr<char, FreeBlock> text(static_cast<char*>(calloc(n + kLogTextSpare, 1)));
    if (text == nullptr) {
        tool_log_error("parsing_kite malloc con fail\n");
        return;
    }
    memcpy(text.get(), pool->data + kKiteLogTextAt, n);
    tool_log_info("[DA Log] %s\n", text.get());
    tool_rx_buffer_consume(pool, size);
}

enum class Arrival { kNothing, kPooled, kOverflow };

Arrival receive_to_pool(ToolRxBuffer* pool, uint32_t expected) {
    const uint32_t wanted = g_download_settings.link_type == HDL_LINK_SPI ? expected : kKiteFrameSize;
    const uint32_t n = hdl_transport_receive(state.received, wanted);
    // kept: a pool that is filled to its last byte counts as overflown
    if (pool->count + n >= kToolRxBufferSize || !tool_rx_buffer_append(pool, state.received, n)) {
        return Arrival::kOverflow;
    }
    memset(state.received, 0, n);
    return pool->count == 0 ? Arrival::kNothing : Arrival::kPooled;
}

// Returns the bytes of the complete frame at the head of the pool, or 0.
uint32_t receive_once(ToolRxBuffer* pool, uint32_t expected) {
    const Arrival arrival = receive_to_pool(pool, expected);
    if (arrival == Arrival::kOverflow) {
        tool_log_error("read_dma_to_pool overflow, need to clear rx pool!\n");
        tool_rx_buffer_clear();
    }
    return arrival == Arrival::kPooled ? parsing_kite() : 0;
}

uint32_t judge_response(const uint8_t* frame, uint32_t size, uint16_t id, uint32_t needed) {
    if (!kite_has_id(frame, size, id)) {
        return HDL_DA_FOREIGN;
    }
    return size >= needed && frame[kKiteStatusAt] == 0 ? HDL_DA_OK : HDL_DA_FAILED;
}

// Waits for a frame and judges it. It stays at the head of the pool: the caller takes what it needs and drops
// size bytes, none after a time-out.
uint32_t wait_frame(uint16_t id, uint32_t expected, uint32_t needed, uint32_t* size) {
    *size = 0;
    if (!read_dma_to_pool(expected, size)) {
        return HDL_DA_TIMEOUT;
    }
    return judge_response(tool_rx_buffer_get()->data, *size, id, needed);
}

void copy_u32(const uint8_t* frame, void* out) {
    const uint32_t value = load_le32(frame + kKitePayloadAt);
    memcpy(out, &value, sizeof value);
}

void copy_dfu_result(const uint8_t* frame, void* out) {
    const uint16_t value = load_le16(frame + kKiteStatusAt); // kept: the status is its low byte
    memcpy(out, &value, sizeof value);
}

void copy_payload(const uint8_t* frame, uint16_t id, void* out) {
    switch (id) {
    case KITE_WRITE_BLOCK:
    case KITE_FORMAT:
    case KITE_FLASH_ADDRESS:
    case KITE_FLASH_SIZE:
    case KITE_IMAGE_CRC:
        return copy_u32(frame, out);
    case KITE_FLASH_ID:
        memcpy(out, frame + kKitePayloadAt, kFlashIdSize);
        return;
    case KITE_DFU_START:
        return copy_dfu_result(frame, out);
    case KITE_DFU_RESET:
        memset(out, 0, 1);
        return;
    default:
        return;
    }
}

// The transport's answer is not asked for: a command that was not sent has no response.
void send_command(const KiteCommand& command, uint32_t send_flag = kSendFlag) {
    hdl_transport_send(command.bytes, command.size, send_flag);
}

void send_plain(uint16_t id) {
    KiteCommand command;
    kite_begin(&command, id);
    kite_end(&command);
    send_command(command);
}

uint32_t ask_u32(uint16_t id, uint32_t* out) {
    send_plain(id);
    return hdl_da_wait_response(id, out, kU32Response);
}

uint32_t ask_dfu(uint16_t id, uint8_t parameter, void* out) {
    KiteCommand command;
    kite_begin(&command, id);
    kite_add_u8(&command, parameter);
    kite_end_with_crc(&command);
    send_command(command);
    return hdl_da_wait_response(id, out, kDfuResponse);
}

bool raise_serial_speed() {
    const uint32_t baud = g_download_settings.baudrate;
    if (!hdl_speedup_slave_baudrate(baud) || !hdl_transport_set_speed(baud)) {
        return false;
    }
    tool_sleep_ms(kSpeedChangeMs);
    return true;
}

bool prepare_link() {
    if (g_download_settings.link_type == HDL_LINK_OTHER) {
        hdl_transport_link_hook(kLinkHookValue);
    }
    return g_download_settings.link_type != HDL_LINK_UART || raise_serial_speed();
}

bool ask_flash_info(FlashInfo* info) {
    uint32_t code = hdl_da_get_flash_address(&info->address);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_flash_address_kite error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    code = hdl_da_get_flash_size(&info->size);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_flash_size_kite error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    code = hdl_da_get_flash_id(info->id);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_flash_id_kite error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    return true;
}

} // namespace

uint32_t parsing_kite() {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    tool_rx_buffer_consume(pool, kite_noise(pool->data, pool->count));
    if (pool->count < kKiteHeadSize) {
        return 0;
    }
    const uint32_t size = kite_announced_size(pool->data);
    if (size > kKiteFrameSize) {
        tool_rx_buffer_consume(pool, kBadLengthSkip);
        return 0;
    }
    if (pool->count < size) {
        return 0;
    }
    if (kite_is_log(pool->data, size)) {
        print_agent_log(pool, size);
        return 0;
    }
    return size;
}

bool read_dma_to_pool(uint32_t expected, uint32_t* size) {
    if (expected > kKiteFrameSize) {
        return false;
    }
    ToolRxBuffer* pool = tool_rx_buffer_get();
    int64_t start = tool_time_now_ms();
    for (int64_t elapsed = 0; elapsed <= kFrameLimitMs; elapsed = hdl_wait_elapsed(&start)) {
        const uint32_t found = receive_once(pool, expected);
        if (found != 0) {
            *size = found;
            return true;
        }
        if (hdl_wait_elapsed(&start) == elapsed) {
            tool_sleep_ms(kInstantRoundMs); // a link that fails at once would fill the log
        }
    }
    return false;
}

uint32_t hdl_da_wait_response(uint16_t id, void* out, uint32_t expected) {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    uint32_t size = 0;
    const uint32_t code = wait_frame(id, expected, kite_response_size(id), &size);
    if (code == HDL_DA_OK && out != nullptr) {
        copy_payload(pool->data, id, out);
    }
    tool_rx_buffer_consume(pool, size);
    return code;
}

uint32_t hdl_da_wait_flash_id(uint16_t id, uint8_t* out) {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    uint32_t size = 0;
    const uint32_t code = wait_frame(id, kFlashIdResponse, kFlashIdResponse, &size);
    if (code == HDL_DA_OK) {
        memcpy(out, pool->data + kKitePayloadAt, kFlashIdSize);
    }
    tool_rx_buffer_consume(pool, size);
    return code;
}

uint32_t hdl_da_wait_data(uint16_t id, uint32_t* address, uint32_t* crc, uint8_t* data, uint32_t room,
                          uint32_t expected) {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    uint32_t size = 0;
    uint32_t code = wait_frame(id, expected, kDataAt, &size);
    if (code == HDL_DA_OK && size - kDataAt > room) {
        code = HDL_DA_FAILED;
    }
    if (code == HDL_DA_OK) {
        *address = load_le32(pool->data + kKitePayloadAt);
        *crc = load_le32(pool->data + kCrcAt);
    }
    if (code == HDL_DA_OK && size > kDataAt) {
        memcpy(data, pool->data + kDataAt, size - kDataAt);
    }
    tool_rx_buffer_consume(pool, size);
    return code;
}

uint32_t hdl_dfu_start_kite(uint8_t parameter, uint16_t* out) {
    tool_log_info("hdl_dfu_start_kite start\n");
    return ask_dfu(KITE_DFU_START, parameter, out);
}

uint32_t hdl_dfu_reset_kite(uint8_t parameter, uint8_t* out) {
    tool_log_info("hdl_dfu_reset_kite start\n");
    return ask_dfu(KITE_DFU_RESET, parameter, out);
}

uint32_t hdl_da_get_flash_address(uint32_t* out) {
    tool_log_info("hdl_da_get_flash_address start\n");
    return out == nullptr ? uint32_t{HDL_DA_OK} : ask_u32(KITE_FLASH_ADDRESS, out);
}

uint32_t hdl_da_get_flash_size(uint32_t* out) {
    tool_log_info("hdl_da_get_flash_size start\n");
    return out == nullptr ? uint32_t{HDL_DA_OK} : ask_u32(KITE_FLASH_SIZE, out);
}

uint32_t hdl_da_get_flash_id(uint8_t* out) {
    tool_log_info("hdl_da_get_flash_id start\n");
    if (out == nullptr) {
        return HDL_DA_OK;
    }
    send_plain(KITE_FLASH_ID);
    return hdl_da_wait_flash_id(KITE_FLASH_ID, out);
}

bool hdl_speedup_slave_baudrate(uint32_t baud) {
    tool_log_info("hdl_speedup_slave_baudrate start\n");
    KiteCommand command;
    kite_begin(&command, KITE_LINE_SPEED);
    kite_add_u32(&command, baud);
    kite_end(&command);
    send_command(command);
    const uint32_t code = hdl_da_wait_response(KITE_LINE_SPEED, nullptr, kPlainResponse);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_speedup_slave_baudrate error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    tool_log_info("hdl_speedup_slave_baudrate res done\n");
    return true;
}

bool hdl_finish_kite(uint8_t parameter) {
    KiteCommand command;
    kite_begin(&command, KITE_FINISH);
    kite_add_u8(&command, parameter);
    kite_end(&command);
    send_command(command);
    const uint32_t code = hdl_da_wait_response(KITE_FINISH, nullptr, kPlainResponse);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_finish_kite error, ErrorCode:%d\n", static_cast<int>(code));
    }
    return code == HDL_DA_OK;
}

bool hdl_open_slave_flow_ctrl() {
    constexpr uint8_t kOn = 1;
    KiteCommand command;
    kite_begin(&command, KITE_FLOW_CONTROL);
    kite_add_u8(&command, kOn);
    kite_end(&command);
    send_command(command, kFlowControlSendFlag);
    tool_log_info("hdl_open_slave_flow_ctrl start\n");
    const uint32_t code = hdl_da_wait_response(KITE_FLOW_CONTROL, nullptr, kPlainResponse);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_open_slave_flow_ctrl error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    tool_log_info("hdl_open_slave_flow_ctrl res done\n");
    return true;
}

bool hdl_da_get_flash_info(FlashInfo* info) {
    if (info == nullptr) {
        return false;
    }
    tool_rx_buffer_clear();
    tool_sleep_ms(kAgentStartMs);
    if (!prepare_link() || !ask_flash_info(info)) {
        return false;
    }
    tool_log_info("########## Flash address: 0x%X\n", info->address);
    tool_log_info("########## Flash size: 0x%X\n", info->size);
    tool_log_info("########## Flash id: 0x%X%X%X\n", info->id[0], info->id[1], info->id[2]);
    return true;
}

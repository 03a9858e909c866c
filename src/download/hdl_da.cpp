#include "download/hdl_da.h"

#include "base/byte_order.h"
#include "download/hdl_kite.h"
#include "download/hdl_pool.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"

#include <cstring>

namespace {

constexpr int64_t kAgentStartMs = 100;
constexpr int64_t kSpeedChangeMs = 100;
constexpr uint32_t kFlowControlSendFlag = 0;
constexpr uint32_t kLinkHookValue = 1;

uint32_t judge_response(const uint8_t* frame, uint32_t size, uint16_t id, uint32_t least) {
    if (!kite_has_id(frame, size, id)) {
        return HDL_DA_FOREIGN;
    }
    return size >= least && frame[kKiteStatusAt] == 0 ? HDL_DA_OK : HDL_DA_FAILED;
}

// Waits for a frame and judges it. It stays at the head of the pool: the caller takes what it needs and drops
// size bytes, none after a time-out.
uint32_t wait_frame(uint16_t id, uint32_t expected, uint32_t least, uint32_t* size) {
    *size = 0;
    if (!read_dma_to_pool(expected, size)) {
        return HDL_DA_TIMEOUT;
    }
    return judge_response(tool_rx_buffer_get()->data, *size, id, least);
}

void copy_u32(const uint8_t* frame, void* out) {
    const uint32_t value = load_le32(frame + kKitePayloadAt);
    memcpy(out, &value, sizeof value);
}

void copy_dfu_result(const uint8_t* frame, void* out) {
    const uint16_t value = load_le16(frame + kKiteStatusAt); // Kept: the status is its low byte
    memcpy(out, &value, sizeof value);
}

void copy_payload(const uint8_t* frame, KitePayload payload, void* out) {
    switch (payload) {
    case KitePayload::u32:
        return copy_u32(frame, out);
    case KitePayload::flash_id:
        memcpy(out, frame + kKitePayloadAt, kFlashIdSize);
        return;
    case KitePayload::dfu:
        return copy_dfu_result(frame, out);
    case KitePayload::cleared:
        memset(out, 0, 1);
        return;
    case KitePayload::none:
    case KitePayload::data:
        return;
    }
}

// Whether it was sent is not asked: without its response the command has failed either way.
void send_command(const KiteCommand& command, uint32_t send_flag = kHdlSendFlag) {
    hdl_progress_mark();
    hdl_transport_send(command.bytes, command.size, send_flag);
}

void send_plain(uint16_t id) {
    KiteCommand command;
    kite_begin(&command, id);
    kite_end(&command);
    send_command(command);
}

uint32_t wait_response(uint16_t id, void* out) {
    return hdl_da_wait_response(id, out, kite_kind(id).expected);
}

uint32_t ask_u32(uint16_t id, uint32_t* out) {
    send_plain(id);
    return wait_response(id, out);
}

uint32_t ask_dfu(uint16_t id, uint8_t parameter, void* out) {
    KiteCommand command;
    kite_begin(&command, id);
    kite_add_u8(&command, parameter);
    kite_end_with_crc(&command);
    send_command(command);
    return wait_response(id, out);
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

uint32_t hdl_da_wait_response(uint16_t id, void* out, uint32_t expected) {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    uint32_t size = 0;
    const KiteKind& kind = kite_kind(id);
    const uint32_t code = wait_frame(id, expected, kind.least, &size);
    if (code == HDL_DA_OK && out != nullptr) {
        copy_payload(pool->data, kind.payload, out);
    }
    tool_rx_buffer_consume(pool, size);
    return code;
}

uint32_t hdl_da_wait_flash_id(uint16_t id, uint8_t* out) {
    ToolRxBuffer* pool = tool_rx_buffer_get();
    uint32_t size = 0;
    const KiteKind& kind = kite_kind(KITE_FLASH_ID);
    const uint32_t code = wait_frame(id, kind.expected, kind.least, &size);
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
    uint32_t code = wait_frame(id, expected, kKiteDataAt, &size);
    if (code == HDL_DA_OK && size - kKiteDataAt > room) {
        code = HDL_DA_FAILED;
    }
    if (code == HDL_DA_OK) {
        *address = load_le32(pool->data + kKitePayloadAt);
        *crc = load_le32(pool->data + kKiteDataCrcAt);
    }
    if (code == HDL_DA_OK && size > kKiteDataAt) {
        memcpy(data, pool->data + kKiteDataAt, size - kKiteDataAt);
    }
    tool_rx_buffer_consume(pool, size);
    return code;
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
    const uint32_t code = wait_response(KITE_LINE_SPEED, nullptr);
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
    const uint32_t code = wait_response(KITE_FINISH, nullptr);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_finish_kite error, ErrorCode:%d\n", static_cast<int>(code));
    }
    return code == HDL_DA_OK;
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

uint32_t hdl_dfu_start_kite(uint8_t parameter, uint16_t* out) {
    tool_log_info("hdl_dfu_start_kite start\n");
    return ask_dfu(KITE_DFU_START, parameter, out);
}

uint32_t hdl_dfu_reset_kite(uint8_t parameter, uint8_t* out) {
    tool_log_info("hdl_dfu_reset_kite start\n");
    return ask_dfu(KITE_DFU_RESET, parameter, out);
}

bool hdl_open_slave_flow_ctrl() {
    constexpr uint8_t kOn = 1;
    KiteCommand command;
    kite_begin(&command, KITE_FLOW_CONTROL);
    kite_add_u8(&command, kOn);
    kite_end(&command);
    send_command(command, kFlowControlSendFlag);
    tool_log_info("hdl_open_slave_flow_ctrl start\n");
    const uint32_t code = wait_response(KITE_FLOW_CONTROL, nullptr);
    if (code != HDL_DA_OK) {
        tool_log_error("hdl_open_slave_flow_ctrl error, ErrorCode:%d\n", static_cast<int>(code));
        return false;
    }
    tool_log_info("hdl_open_slave_flow_ctrl res done\n");
    return true;
}

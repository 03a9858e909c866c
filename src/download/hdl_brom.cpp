#include "download/hdl_brom.h"

#include "base/byte_order.h"
#include "device/location_gpio.h"
#include "download/hdl_echo.h"
#include "download/hdl_progress.h"
#include "download/hdl_settings.h"
#include "download/hdl_transport.h"
#include "download/tool_file.h"
#include "download/tool_log.h"
#include "download/tool_sleep.h"
#include "download/tool_time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

constexpr uint32_t kChunkSize = 1024;
constexpr uint16_t kFirstErrorStatus = 0x1000;

constexpr uint8_t kSetRegister = 0xD2;
constexpr uint8_t kJump = 0xD5;
constexpr uint8_t kSendAgent = 0xD7;
constexpr uint8_t kSetBaudrate = 0xDC;
constexpr uint8_t kReadUid = 0xE9;

// The boot ROM answers each handshake byte with its complement.
constexpr uint8_t kSync = 0xA0;
constexpr uint8_t kSyncAnswer = 0x5F;
constexpr int64_t kPowerOffMs = 500;
constexpr int64_t kHandshakeLimitMs = 10000;
constexpr int64_t kHandshakeDoneMs = 20;
constexpr int64_t kHandshakeAgainMs = 2000;
constexpr int64_t kPauseStepMs = 100;

constexpr uint32_t kUidResponseSize = 1 + kBromUidSize + 2; // command, identifier, status
constexpr int64_t kUidStartMs = 100;
constexpr int64_t kUidLimitMs = 499;
constexpr int64_t kUidPollMs = 1;

constexpr uint32_t kRegisterOfAll = 0xA2080000;
constexpr uint16_t kValueOfAll = 0x10;
constexpr uint32_t kRegisterOfVariant1 = 0xA2080030;
constexpr uint16_t kValueOfVariant1 = 0x40;
constexpr uint32_t kOneRegister = 1;

constexpr uint32_t kAgentAddress = 0x4000000;
constexpr uint32_t kAgentAddressVariant1 = 0x4200000;
constexpr uint32_t kNoSignature = 0;
constexpr uint32_t kAgentBaud = 115200;
constexpr int64_t kAfterChunkMs = 10;
constexpr int64_t kAfterBaudMs = 100;

struct CloseFile {
    void operator()(FILE* file) const {
        fclose(file);
    }
};
using File = std::unique_ptr<FILE, CloseFile>;

// A line that can't be driven has logged it; the time limit then ends the handshake.
// Returns when the wait for the answer begins.
int64_t power_cycle() {
    location_gpio_power_off();
    tool_sleep_ms(kPowerOffMs);
    const int64_t start = tool_time_passed_ms();
    tool_log_info("Please reboot chip again:\n");
    location_gpio_power_on();
    hdl_progress_mark();
    return start;
}

bool synchronise(int64_t start) {
    while (!echoU8(kSync, kSyncAnswer)) {
        if (tool_time_passed_ms() - start > kHandshakeLimitMs) {
            tool_log_error("Handshake timeout, please retry!\n");
            return false;
        }
        if (hdl_progress_given_up()) {
            return false;
        }
    }
    return true;
}

// The pause before the next round. One garbled byte is overcome whatever waits; a handshake that is garbled
// round after round acknowledges its first byte each time, so that the second such round ends it when a stop
// waits. Returns false to end it.
bool pause_before_next_round(bool garbled_before) {
    for (int64_t slept = 0; slept < kHandshakeAgainMs; slept += kPauseStepMs) {
        if (garbled_before && hdl_progress_give_up_now()) {
            return false;
        }
        tool_sleep_ms(kPauseStepMs);
    }
    return true;
}

// What an operation logs when a step fails that every operation takes.
struct StepTexts {
    const char* command; // + command
    const char* word;    // + value
    const char* read;    // + what was there before
    const char* status;  // + status
};

constexpr StepTexts kSetRegisterTexts = {
    "hdl_brom_set_register echoU8(0x%X) error\n",
    "hdl_brom_set_register echoU32(0x%X) error\n",
    "hdl_brom_set_register readU16 error\n",
    "hdl_brom_set_register get status error %d\n",
};

constexpr StepTexts kSetBaudrateTexts = {
    "hdl_brom_set_baudrate echoU8(0x%X) error\n",
    "hdl_brom_set_baudrate echoU32(0x%x) error\n",
    "hdl_brom_set_baudrate readU16 error %d\n",
    "hdl_brom_set_baudrate get status error %d\n",
};

constexpr StepTexts kSendAgentTexts = {
    "hdl_brom_send_da echoU8(0x%X) error\n",
    "hdl_brom_send_da echoU32(0x%X) error\n",
    "hdl_brom_send_da readU16 error\n",
    "hdl_brom_send_da get status error %d\n",
};

constexpr StepTexts kJumpTexts = {
    "hdl_brom_jump_da echoU8(0x%X) error\n",
    "hdl_brom_jump_da echoU32(0x%X) error\n",
    "hdl_brom_jump_da readU16 error\n",
    "hdl_brom_jump_da get status error %d\n",
};

bool echo_command(const StepTexts& texts, uint8_t command) {
    if (echoU8(command, command)) {
        return true;
    }
    tool_log_error_text(texts.command, command);
    return false;
}

bool echo_word(const StepTexts& texts, uint32_t value) {
    if (echoU32(value, value)) {
        return true;
    }
    tool_log_error_text(texts.word, value);
    return false;
}

bool read_word(const StepTexts& texts, uint16_t* value) {
    if (readU16(value)) {
        return true;
    }
    tool_log_error_text(texts.read, *value);
    return false;
}

bool is_good(const StepTexts& texts, uint16_t status) {
    if (status < kFirstErrorStatus) {
        return true;
    }
    tool_log_error_text(texts.status, status);
    return false;
}

bool read_good_status(const StepTexts& texts) {
    uint16_t status = 0;
    return read_word(texts, &status) && is_good(texts, status);
}

bool uid_mismatch(uint8_t answer) {
    tool_log_error("BRom_1Bytes_req_19Bytes_rsp, result = fail, input_value = 0x%X, output_value = 0x%X, "
                   "error_message = input output mismatch\n",
                   kReadUid, answer);
    return false;
}

bool collect_uid(uint8_t (&response)[kUidResponseSize]) {
    const int64_t start = tool_time_passed_ms();
    for (uint32_t count = 0;;) {
        const uint32_t room = kUidResponseSize - count;
        const uint32_t received = std::min(hdl_transport_receive(response + count, room), room);
        count += received;
        if (count >= 2 && response[0] != kReadUid) {
            return uid_mismatch(response[0]);
        }
        if (count == kUidResponseSize) {
            return true;
        }
        if (tool_time_passed_ms() - start > kUidLimitMs) {
            tool_log_error("BRom_1Bytes_req_19Bytes_rsp timeout, please retry!\n");
            return false;
        }
        if (received == 0) {
            tool_sleep_ms(kUidPollMs); // spares the processor
        }
    }
}

uint32_t agent_address() {
    const DownloadSettings& settings = g_download_settings;
    const bool high =
        settings.chip_variant == 1 || (settings.chip_variant == 0 && settings.link_type == HDL_LINK_SPI);
    return high ? kAgentAddressVariant1 : kAgentAddress;
}

bool announce_agent(uint32_t size, uint16_t* status) {
    if (!echo_command(kSendAgentTexts, kSendAgent) || !echo_word(kSendAgentTexts, agent_address()) ||
        !echo_word(kSendAgentTexts, size) || !echo_word(kSendAgentTexts, kNoSignature) ||
        !read_word(kSendAgentTexts, status)) {
        return false;
    }
    if (*status >= kFirstErrorStatus) {
        tool_log_error("hdl_brom_send_da get status error %d (0x%X)\n", *status, *status);
        return false;
    }
    return true;
}

// Sends the file and returns the checksum of what was sent.
uint16_t send_agent_file(FILE* file, uint32_t size) {
    uint8_t chunk[kChunkSize];
    uint16_t checksum = 0;
    for (uint32_t total = 0; total < size && !hdl_progress_given_up();) {
        const uint32_t chunk_size = std::min(kChunkSize, size - total);
        memset(chunk, 0, sizeof chunk);
        if (fread(chunk, 1, chunk_size, file) != chunk_size) {
            tool_log_error("Reading error ( %d )\n", 0);
        }
        total += chunk_size;
        hdl_transport_send(chunk, chunk_size, kHdlSendFlag); // what is lost shows in the checksum
        if (hdl_transport_taken()) {
            hdl_progress_mark();
        }
        checksum ^= bromChecksum(chunk, chunk_size);
        tool_log_info("SEND %d bytes OK,total %d\n", static_cast<int>(chunk_size), static_cast<int>(total));
        tool_sleep_ms(kAfterChunkMs);
    }
    return checksum;
}

bool compare_checksum(uint16_t own) {
    uint16_t of_brom = 0;
    if (!readU16(&of_brom)) {
        tool_log_error("hdl_brom_send_da read btrom_crc error\n");
        return false;
    }
    if (of_brom != own) {
        tool_log_error("btrom checksum fail, 0x%x/0x%x\n", own, of_brom);
        return false;
    }
    tool_log_info("btrom response checksum 0x%x\n", of_brom);
    return true;
}

// Returns the last status word that was read, or 1 after a success. Kept: the caller takes any value but 0
// for success, so a status that is an error counts as success too.
uint16_t upload_agent(FILE* file, uint32_t size) {
    uint16_t status = 0;
    if (!announce_agent(size, &status)) {
        return status;
    }
    const uint16_t own = send_agent_file(file, size);
    if (hdl_progress_given_up()) { // nothing of it counts: a link that was given up reads as zeros
        return 0;
    }
    if (!compare_checksum(own) || !read_word(kSendAgentTexts, &status) || !is_good(kSendAgentTexts, status)) {
        return status;
    }
    tool_log_info("send DA successful\n");
    return 1;
}

} // namespace

bool hdl_brom_handshake() {
    for (bool garbled = false;; garbled = true) {
        if (!synchronise(power_cycle())) {
            return false;
        }
        if (echoU8(0x0A, 0xF5) && echoU8(0x50, 0xAF) && echoU8(0x05, 0xFA)) {
            tool_sleep_ms(kHandshakeDoneMs);
            return true;
        }
        if (!pause_before_next_round(garbled)) {
            return false;
        }
    }
}

bool hdl_brom_read_uid(uint8_t* uid) {
    const uint8_t command = kReadUid;
    if (!hdl_transport_send(&command, sizeof command, kHdlSendFlag)) {
        return false;
    }
    tool_sleep_ms(kUidStartMs);
    uint8_t response[kUidResponseSize] = {};
    if (!collect_uid(response)) {
        return false;
    }
    memcpy(uid, response + 1, kBromUidSize);
    const uint8_t* end = response + 1 + kBromUidSize;
    const auto status = static_cast<uint16_t>(end[0] << 8U | end[1]);
    // Kept: a good status is logged as an error, and none fails the exchange.
    if (status <= kFirstErrorStatus) {
        tool_log_error("BRom_1Bytes_req_19Bytes_rsp, result = fail, error_code = 0x%X, error_message = "
                       "response error code\n",
                       status);
    }
    return true;
}

bool hdl_brom_set_register(uint32_t addr, uint16_t value) {
    tool_log_info("hdl_brom_set_register addr(0x%X) val(0x%X)\n", addr, value);
    if (!echo_command(kSetRegisterTexts, kSetRegister) || !echo_word(kSetRegisterTexts, addr) ||
        !echo_word(kSetRegisterTexts, kOneRegister) || !read_good_status(kSetRegisterTexts)) {
        return false;
    }
    if (!echoU16(value, value)) {
        tool_log_error("hdl_brom_set_register echoU16(0x%X) error\n", value);
        return false;
    }
    return read_good_status(kSetRegisterTexts);
}

bool hdl_brom_set_registers() {
    const uint32_t variant = g_download_settings.chip_variant;
    if (variant > 1) {
        return true;
    }
    return hdl_brom_set_register(kRegisterOfAll, kValueOfAll) &&
           (variant == 0 || hdl_brom_set_register(kRegisterOfVariant1, kValueOfVariant1));
}

bool hdl_brom_set_baudrate(uint32_t baud) {
    if (!echo_command(kSetBaudrateTexts, kSetBaudrate) || !echo_word(kSetBaudrateTexts, baud) ||
        !read_good_status(kSetBaudrateTexts) || !hdl_transport_set_speed(baud)) {
        return false;
    }
    tool_sleep_ms(kAfterBaudMs);
    return true;
}

bool hdl_brom_send_da() {
    const char* path = g_download_settings.da_path;
    const auto size = static_cast<uint32_t>(getFileSize(path)); // as the boot ROM is told it
    if (size == 0) {
        tool_log_error("DA len is zero!\n");
        return false;
    }
    const File file(tool_file_open(path));
    if (file == nullptr) {
        tool_log_error("Open da file %s fail\n", path);
        return false;
    }
    return upload_agent(file.get(), size) != 0;
}

bool hdl_brom_jump_da() {
    if (!echo_command(kJumpTexts, kJump) || !echo_word(kJumpTexts, agent_address()) ||
        !read_good_status(kJumpTexts)) {
        return false;
    }
    // The agent starts at this speed.
    if (g_download_settings.link_type == HDL_LINK_UART && g_download_settings.high_speed != 0) {
        if (!hdl_transport_set_speed(kAgentBaud)) {
            return false;
        }
        tool_sleep_ms(kAfterBaudMs);
    }
    tool_log_info("Jump to DA OK\n");
    return true;
}

uint16_t bromChecksum(const uint8_t* data, uint32_t n) {
    if (data == nullptr) {
        return 0;
    }
    uint16_t checksum = 0;
    for (; n >= 2; n -= 2) {
        checksum ^= load_le16(data);
        data += 2;
    }
    return n == 0 ? checksum : static_cast<uint16_t>(checksum ^ *data);
}

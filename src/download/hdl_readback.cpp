#include "download/hdl_readback.h"

#include "base/descriptor_guard.h"
#include "base/regular_file.h"
#include "download/crc32_calc.h"
#include "download/hdl_da.h"
#include "download/hdl_kite.h"
#include "download/hdl_transport.h"
#include "download/tool_file.h"
#include "download/tool_log.h"
#include "download/tool_time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace {

constexpr int kAttempts = 3;
constexpr int64_t kAttemptMs = 1000;
constexpr uint32_t kOtpStep = 4096; // Kept: twice what one request can carry
constexpr mode_t kFileMode = 0666;
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

struct Response {
    uint32_t address; // Kept: not checked
    uint32_t crc;
    uint8_t data[kReadbackSize];
};

struct Request {
    KiteId id;
    uint32_t address;
    uint32_t length; // bytes of data
};

bool checksum_fits(const Request& request, const Response& response) {
    const uint32_t crc = crc32_calc(response.data, request.length);
    if (crc == response.crc) {
        return true;
    }
    tool_log_info("hdl_readback_kite CRC fail: addr=0x%X, crc_cal=0x%X, crc_resp=0x%X\n", request.address,
                  crc, response.crc);
    return false;
}

bool wait_for_data(const Request& request, Response* response) {
    const int64_t start = tool_time_passed_ms();
    while (tool_time_passed_ms() - start < kAttemptMs) {
        *response = {};
        const uint32_t code = hdl_da_wait_data(request.id, &response->address, &response->crc, response->data,
                                               sizeof response->data, kite_kind(request.id).expected);
        if (code == HDL_DA_OK && checksum_fits(request, *response)) {
            return true;
        }
    }
    tool_log_info("hdl_readback_kite res retry: addr=0x%X\n", request.address);
    return false;
}

bool request_data(const Request& request, const KiteCommand& command, Response* response) {
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        hdl_transport_send(command.bytes, command.size, kHdlSendFlag);
        if (wait_for_data(request, response)) {
            return true;
        }
    }
    return false;
}

FILE* open_to_append(const char* path) {
    DescriptorGuard descriptor(regular_file_open(path, O_WRONLY | O_CREAT | O_APPEND, kFileMode));
    FILE* file = descriptor.fd < 0 ? nullptr : fdopen(descriptor.fd, "a");
    if (file == nullptr) {
        tool_log_error("can not open %s\n", path);
        return nullptr;
    }
    descriptor.release();
    return file;
}

bool append_readback(const char* path, const Response& response) {
    FILE* file = open_to_append(path);
    if (file == nullptr) {
        return false;
    }
    const bool whole = fwrite(response.data, 1, kReadbackSize, file) == kReadbackSize;
    if (fclose(file) != 0) {
        tool_log_error("hdl_readback_kite The file(%s) could not closed.\n", path);
        return false;
    }
    return whole;
}

bool append_otp(const char* path, const Response& response, uint32_t length) {
    FILE* file = open_to_append(path);
    if (file == nullptr) {
        return false;
    }
    // Kept: only a whole request counts as written
    const bool whole = fwrite(response.data, 1, length, file) == kReadbackSize;
    const bool closed = fclose(file) == 0;
    if (!closed && whole) {
        tool_log_error("The file(%s) could not closed.\n", path);
    } else if (!closed) {
        tool_log_error("hdl_read_otp_kite The file(%s) could not closed.\n", path);
    }
    return whole && closed;
}

// A file that opens is there.
bool delete_old_file(const char* path) {
    FILE* file = tool_file_open(path);
    if (file == nullptr) {
        return true;
    }
    if (!tool_file_close(file, path)) {
        return false;
    }
    if (remove(path) != 0) {
        tool_log_error("The file(%s) is not deleted.\n", path);
        return false;
    }
    tool_log_info("The file(%s) is deleted successfully.\n", path);
    return true;
}

uint64_t range_end(uint32_t start, uint32_t length) {
    return std::min(uint64_t{start} + length, kAddressEnd);
}

} // namespace

bool hdl_readback_kite(const char* path, uint32_t address) {
    const Request request = {KITE_READ_BACK, address, kReadbackSize};
    KiteCommand command;
    kite_begin(&command, request.id);
    kite_add_u32(&command, address);
    kite_add_u16(&command, kReadbackSize);
    kite_end_with_crc(&command);
    Response response;
    if (!request_data(request, command, &response) || !append_readback(path, response)) {
        return false;
    }
    tool_log_info("hdl_readback_kite res done: addr=0x%X\n", address);
    return true;
}

bool hdl_read_otp_kite(const char* path, uint32_t address, uint32_t length) {
    if (length > kReadbackSize) {
        return false;
    }
    const Request request = {KITE_READ_OTP, address, length};
    KiteCommand command;
    kite_begin(&command, request.id);
    kite_add_u32(&command, address);
    kite_add_u32(&command, length);
    kite_end_with_crc(&command);
    Response response;
    if (!request_data(request, command, &response) || !append_otp(path, response, length)) {
        return false;
    }
    // Kept: the same text as the readback's.
    tool_log_info("hdl_readback_kite res done: addr=0x%X\n", address);
    return true;
}

bool hdl_readback_to_file(const char* path, uint32_t start, uint32_t length) {
    if (!delete_old_file(path)) {
        return false;
    }
    for (uint64_t at = start; at < range_end(start, length); at += kReadbackSize) {
        const auto address = static_cast<uint32_t>(at);
        if (!hdl_readback_kite(path, address)) {
            tool_log_error("hdl_readback_kite addr=0x%08X fail!\n", address);
            return false;
        }
    }
    return true;
}

bool hdl_read_otp_to_file(const char* path, uint32_t start, uint32_t length) {
    if (!delete_old_file(path)) {
        return false;
    }
    for (uint64_t at = start; at < range_end(start, length); at += kOtpStep) {
        const auto address = static_cast<uint32_t>(at);
        if (!hdl_read_otp_kite(path, address, length)) { // Kept: the whole length at every step
            tool_log_error("hdl_read_otp_kite addr=0x%08X fail!\n", address);
            return false;
        }
    }
    return true;
}

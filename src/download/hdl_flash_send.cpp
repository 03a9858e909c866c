#include "download/hdl_flash_send.h"

#include "download/hdl_kite.h"
#include "download/hdl_transport.h"
#include "download/tool_log.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr int kSendAttempts = 3;
constexpr uint32_t kSendFlag = 1;
constexpr int kErased = 0xFF;

bool send_with_attempts(const KiteCommand& command) {
    for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
        if (hdl_transport_send(command.bytes, command.size, kSendFlag)) {
            return true;
        }
    }
    return false;
}

// Reads from offset on; what the file does not hold is left. Returns success.
bool read_at(FILE* file, uint32_t offset, uint8_t* data, const char* name) {
    if (fseek(file, static_cast<long>(offset), SEEK_SET) != 0) {
        if (fclose(file) != 0) {
            tool_log_error("The file(%s) could not closed.\n", name);
        }
        return false;
    }
    if (fread(data, 1, kFlashBlockSize, file) != kFlashBlockSize) {
        tool_log_info("Not-4K-Alignment ( %d )\n", 0);
    }
    if (fclose(file) != 0) {
        tool_log_error("download_send_single_block The file(%s) could not closed.\n", name);
        return false;
    }
    return true;
}

bool read_image_block(const char* name, uint32_t offset, uint8_t* data) {
    FILE* file = fopen(name, "rb");
    if (file == nullptr) {
        tool_log_error("can not open %s\n", name);
        return false;
    }
    memset(data, kErased, kFlashBlockSize);
    return read_at(file, offset, data, name);
}

} // namespace

bool format_send_single_block(const FormatBlock* block) {
    KiteCommand command;
    kite_begin(&command, KITE_FORMAT);
    kite_add_u32(&command, block->address);
    kite_add_u32(&command, block->length);
    kite_end_with_crc(&command);
    return send_with_attempts(command);
}

bool download_send_single_block(uint32_t address, const ImageEntry* image) {
    if (image->begin_address > address) {
        return false;
    }
    uint8_t data[kFlashBlockSize];
    if (!read_image_block(image->name, address - image->begin_address, data)) {
        return false;
    }
    KiteCommand command;
    kite_begin(&command, KITE_WRITE_BLOCK);
    kite_add_u32(&command, address);
    kite_add_u16(&command, kFlashBlockSize);
    kite_add_bytes(&command, data, kFlashBlockSize);
    kite_end_with_crc(&command);
    return send_with_attempts(command);
}

#include "download/hdl_flash.h"

#include "base/free_block.h"
#include "download/hdl_da.h"
#include "download/hdl_kite.h"
#include "download/hdl_progress.h"
#include "download/hdl_transport.h"
#include "download/hdl_window.h"
#include "download/tool_file.h"
#include "download/tool_log.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;
constexpr uint64_t kMostBlocks = kAddressEnd / kFlashBlockSize; // all that have an address
constexpr uint64_t kSmallestImage = 2;                          // Kept: one byte is refused as well as none

using BlockTable = std::unique_ptr<FlashBlock[], FreeBlock>;

struct Walk {
    uint64_t address;
    uint64_t end;
    bool large_allowed; // Kept: an erase shorter than a large block is made of small ones only
};

Walk walk_start(uint32_t start, uint32_t length) {
    return {start, std::min(uint64_t{start} + length, kAddressEnd), length >= kFlashLargeBlockSize};
}

// Small blocks up to the first large boundary, large ones from there on: they stay on their boundary.
uint32_t walk_length(const Walk& walk) {
    const bool large = walk.large_allowed && walk.address % kFlashLargeBlockSize == 0;
    return large ? kFlashLargeBlockSize : kFlashBlockSize;
}

BlockTable make_table(uint64_t count) {
    return BlockTable(static_cast<FlashBlock*>(calloc(static_cast<size_t>(count), sizeof(FlashBlock))));
}

// The blocks of an image of this many bytes, or null. No table is made for a file that no flash can hold.
BlockTable make_image_table(const ImageEntry& image, uint64_t count) {
    BlockTable table = count <= kMostBlocks ? make_table(count) : nullptr;
    for (uint32_t i = 0; table != nullptr && i < count; ++i) {
        table[i].address = image.begin_address + i * kFlashBlockSize;
        table[i].length = kFlashBlockSize;
    }
    return table;
}

} // namespace

uint32_t hdl_erase_plan_count(uint32_t start, uint32_t length) {
    uint32_t count = 0;
    for (Walk walk = walk_start(start, length); walk.address < walk.end; walk.address += walk_length(walk)) {
        ++count;
    }
    return count;
}

void hdl_erase_plan_fill(uint32_t start, uint32_t length, FormatBlock* blocks) {
    for (Walk walk = walk_start(start, length); walk.address < walk.end; walk.address += walk_length(walk)) {
        *blocks++ = {static_cast<uint32_t>(walk.address), walk_length(walk), 0, 0};
    }
}

bool da_format_flash(uint32_t start, uint32_t length) {
    const uint32_t count = hdl_erase_plan_count(start, length);
    if (count == 0) {
        return false;
    }
    const BlockTable table = make_table(count);
    if (table == nullptr) {
        tool_log_error("da_format_flash malloc pData fail\n");
        return false;
    }
    hdl_erase_plan_fill(start, length, table.get());
    if (!format_sliding_window_flow(table.get(), count)) {
        tool_log_error("format_sliding_window_flow fail\n");
        return false;
    }
    return true;
}

bool download_image(const ImageEntry* image, uint64_t* size) {
    *size = getFileSize(image->name);
    if (*size < kSmallestImage) {
        tool_log_error("download_image getFileSize fail, image length smaller than 1 byte.\n");
        return false;
    }
    const uint64_t count = (*size - 1) / kFlashBlockSize + 1;
    const BlockTable table = make_image_table(*image, count);
    if (table == nullptr) {
        tool_log_error("download_image malloc pData fail\n");
        return false;
    }
    if (!download_sliding_window_flow(table.get(), static_cast<uint32_t>(count), image, *size)) {
        tool_log_error("download_sliding_window_flow fail\n");
        return false;
    }
    return true;
}

bool download_all_images(const ImageEntry* images, uint32_t count) {
    for (const ImageEntry* image = images; image != images + count; ++image) {
        uint64_t size = 0;
        if (!download_image(image, &size)) {
            tool_log_error("download %s FAILED\n", image->name);
            return false;
        }
    }
    return true;
}

bool check_image_crc(const ImageEntry* image, uint64_t size) {
    const uint32_t own_crc = image_crc32(image->name);
    if (!tool_file_unchanged(image->name, size)) {
        return false;
    }
    KiteCommand command;
    kite_begin(&command, KITE_IMAGE_CRC);
    kite_add_u32(&command, image->begin_address);
    kite_add_u32(&command, static_cast<uint32_t>(size));
    kite_add_u32(&command, own_crc);
    kite_end_with_crc(&command);
    hdl_progress_mark();
    hdl_transport_send(command.bytes, command.size, kHdlSendFlag);

    uint32_t crc = 0;
    const uint32_t code = hdl_da_wait_response(KITE_IMAGE_CRC, &crc, kite_kind(KITE_IMAGE_CRC).expected);
    if (code != HDL_DA_OK) {
        tool_log_error("check_image_crc error, ErrorCode:%d, res_crc=  0x%08X\n", static_cast<int>(code),
                       crc);
        return false;
    }
    tool_log_info("check_image_crc done, image name:%s, response_crc=  0x%08X\n", image->name, crc);
    return true;
}

#include "download/hdl_window.h"

#include "download/hdl_da.h"
#include "download/hdl_kite.h"
#include "download/hdl_progress.h"
#include "download/hdl_transport.h"
#include "download/tool_file.h"
#include "download/tool_log.h"
#include "download/tool_time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kSendAttempts = 3;
constexpr int kErased = 0xFF;
constexpr int64_t kFormatLimitMs = 45000;
constexpr int64_t kDownloadBlockLimitMs = 1000;

bool send_with_attempts(const KiteCommand& command) {
    for (int attempt = 0; attempt < kSendAttempts; ++attempt) {
        if (hdl_transport_send(command.bytes, command.size, kHdlSendFlag)) {
            return true;
        }
    }
    return false;
}

// Reads a block from offset on, of which it leaves what the file does not hold, and closes the file. Returns
// success.
bool read_at(FILE* file, uint32_t offset, uint8_t* data, const char* name) {
    if (fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0) {
        tool_file_close(file, name);
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
    FILE* file = tool_file_open(name);
    if (file == nullptr) {
        tool_log_error("can not open %s\n", name);
        return false;
    }
    memset(data, kErased, kFlashBlockSize);
    return read_at(file, offset, data, name);
}

// What tells the two users of the window apart.
struct Rules {
    KiteId command;
    const char* send;         // + address
    const char* first_failed; // the first block could not be sent; null: no line
    const char* response;     // + address
    const char* timeout;
    const char* resend;    // + count
    const char* exhausted; // nothing left to try; null: no line
};

constexpr Rules kFormatRules = {
    KITE_FORMAT,
    "########## Format send address(0x%X)\n",
    nullptr,
    "Format resp address(0x%X)\n",
    "format_sliding_window_flow TIMEOUT\n",
    "FORMAT Re-Send: count = %d\n",
    "FORMAT_TIMEOUT\n",
};

constexpr Rules kDownloadRules = {
    KITE_WRITE_BLOCK,
    "########## Download send address(0x%X)\n",
    "########## Download send address(0x%X) fail\n",
    "Download resp address(0x%X)\n",
    "download_sliding_window_flow TIMEOUT\n",
    "DOWNLOAD Re-Send: count = %d\n",
    nullptr,
};

struct Window {
    const Rules& rules;
    FlashBlock* blocks;
    uint32_t count;
    const ImageEntry* image = nullptr; // null for an erase
    uint64_t image_size = 0;           // when its first block was read
    int64_t limit_ms;
    int64_t start_ms = 0; // of the first pass
    bool resending = false;
};

enum class Outcome { kDone, kEnded, kUsedUp };

// Sends the erase of a block, up to three times until the transport takes it. Returns success.
bool format_send_single_block(const FormatBlock* block) {
    KiteCommand command;
    kite_begin(&command, KITE_FORMAT);
    kite_add_u32(&command, block->address);
    kite_add_u32(&command, block->length);
    kite_end_with_crc(&command);
    return send_with_attempts(command);
}

bool send_block(const Window& window, FlashBlock* block) {
    tool_log_info_text(window.rules.send, block->address);
    const bool sent = window.image == nullptr ? format_send_single_block(block)
                                              : download_send_single_block(block->address, window.image);
    block->sent = sent ? 1 : 0;
    return sent;
}

bool send_first(const Window& window) {
    if (window.count == 0 || window.blocks[0].sent != 0 || send_block(window, &window.blocks[0])) {
        return true;
    }
    if (window.rules.first_failed != nullptr) {
        tool_log_error_text(window.rules.first_failed, window.blocks[0].address);
    }
    return false;
}

// Sends the first block that is not sent; one that can't be sent stays so. Returns false when all were sent
// before.
bool send_next(const Window& window) {
    FlashBlock* end = window.blocks + window.count;
    FlashBlock* next = std::find_if(window.blocks, end, [](const FlashBlock& b) { return b.sent == 0; });
    if (next == end) {
        return false;
    }
    send_block(window, next);
    return true;
}

bool all_acknowledged(const Window& window) {
    return std::all_of(window.blocks, window.blocks + window.count,
                       [](const FlashBlock& block) { return block.acked != 0; });
}

// The window moves by one block; only when there is none left can everything be done.
bool advance(const Window& window) {
    return !send_next(window) && all_acknowledged(window);
}

// Returns whether a block waited for this response: duplicates and foreign addresses move nothing.
bool acknowledge(const Window& window, uint32_t address) {
    FlashBlock* end = window.blocks + window.count;
    FlashBlock* block = std::find_if(window.blocks, end, [address](const FlashBlock& b) {
        return b.sent != 0 && b.acked == 0 && b.address == address;
    });
    if (block == end) {
        return false;
    }
    block->acked = 1;
    hdl_progress_mark();
    return true;
}

// Returns whether everything is done. Without a response the first pass goes on to the next block, so that a
// lost one does not stall it; the second pass only uses up a wait.
bool wait_once(const Window& window) {
    uint32_t address = 0;
    const KiteId command = window.rules.command;
    if (hdl_da_wait_response(command, &address, kite_kind(command).expected) != HDL_DA_OK) {
        return !window.resending && !hdl_progress_given_up() && advance(window);
    }
    tool_log_info_text(window.rules.response, address);
    return acknowledge(window, address) && advance(window);
}

bool image_changed(const Window& window) {
    return window.image != nullptr && tool_file_changed(window.image->name, window.image_size);
}

bool image_unchanged(const Window& window) {
    return window.image == nullptr || tool_file_unchanged(window.image->name, window.image_size);
}

Outcome run_pass(Window* window, uint32_t waits) {
    for (uint32_t wait = 0; wait < waits; ++wait) {
        if (tool_time_passed_ms() - window->start_ms > window->limit_ms) {
            tool_log_error_text(window->rules.timeout);
            return Outcome::kEnded;
        }
        if (hdl_progress_given_up() || image_changed(*window)) {
            return Outcome::kEnded;
        }
        if (wait_once(*window)) {
            return Outcome::kDone;
        }
    }
    return Outcome::kUsedUp;
}

// Makes every block that was not acknowledged one to be sent; returns how many there are.
uint32_t reopen(const Window& window) {
    uint32_t open = 0;
    for (FlashBlock* block = window.blocks; block != window.blocks + window.count; ++block) {
        if (block->sent == 0 || block->acked == 0) {
            block->sent = 0;
            ++open;
        }
    }
    return open;
}

Outcome resend(Window* window) {
    const uint32_t count = reopen(*window);
    if (count == 0) {
        return Outcome::kUsedUp;
    }
    tool_log_info_text(window->rules.resend, count);
    window->resending = true;
    send_next(*window);
    return run_pass(window, count);
}

bool run(Window* window) {
    if (!send_first(*window)) {
        return false;
    }
    window->start_ms = tool_time_passed_ms();
    Outcome outcome = run_pass(window, window->count);
    if (outcome == Outcome::kUsedUp) {
        outcome = resend(window);
    }
    if (outcome == Outcome::kUsedUp && window->rules.exhausted != nullptr) {
        tool_log_error_text(window->rules.exhausted);
    }
    return outcome == Outcome::kDone && image_unchanged(*window);
}

} // namespace

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

bool format_sliding_window_flow(FormatBlock* blocks, uint32_t count) {
    Window window = {.rules = kFormatRules, .blocks = blocks, .count = count, .limit_ms = kFormatLimitMs};
    return run(&window);
}

bool download_sliding_window_flow(DownloadBlock* blocks, uint32_t count, const ImageEntry* image,
                                  uint64_t size) {
    Window window = {.rules = kDownloadRules,
                     .blocks = blocks,
                     .count = count,
                     .image = image,
                     .image_size = size,
                     .limit_ms = count * kDownloadBlockLimitMs};
    return run(&window);
}

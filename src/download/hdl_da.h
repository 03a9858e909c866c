// The download agent: commands, and the waits for their responses, which come through the receive pool. One
// thread only.
#ifndef TAVOR_HDL_DA_H
#define TAVOR_HDL_DA_H

#include "download/hdl_kite.h"

#include <cstdint>

// What a wait ended with.
enum HdlDaCode : uint32_t {
    HDL_DA_OK = 0,      // the response, with status 0
    HDL_DA_TIMEOUT = 1, // no frame within a second
    HDL_DA_FOREIGN = 2, // a frame with another identifier, or with none
    // The response with another status, shorter than its kind or longer than the caller's room.
    HDL_DA_FAILED = 3,
};

struct FlashInfo {
    uint32_t address;
    uint32_t size; // bytes
    uint8_t id[kFlashIdSize];
};

// Wait for one frame, a second at most, and take it from the pool. expected: bytes to ask an SPI link for;
// it and the id of hdl_da_wait_flash_id are the interface's: the daemon gives those of kite_kind and
// KITE_FLASH_ID. What the response carries goes to the other arguments, with HDL_DA_OK only. Return an
// HdlDaCode. out: uint32_t for addresses, sizes and CRCs, 3 bytes for the flash id, uint16_t for
// KITE_DFU_START, one byte for KITE_DFU_RESET; else unused. May be null.
uint32_t hdl_da_wait_response(uint16_t id, void* out, uint32_t expected);
uint32_t hdl_da_wait_flash_id(uint16_t id, uint8_t* out);
// data: room bytes; a shorter frame fills the front only.
uint32_t hdl_da_wait_data(uint16_t id, uint32_t* address, uint32_t* crc, uint8_t* data, uint32_t room,
                          uint32_t expected);

// Single commands. Return an HdlDaCode; a null out area is HDL_DA_OK with nothing sent.
uint32_t hdl_da_get_flash_address(uint32_t* out);
uint32_t hdl_da_get_flash_size(uint32_t* out);
uint32_t hdl_da_get_flash_id(uint8_t* out);

// Single commands that log their failure. Return success.
bool hdl_speedup_slave_baudrate(uint32_t baud);
bool hdl_finish_kite(uint8_t parameter);

// Begins to talk to an agent that has just been started: empties the pool, raises a serial line's speed and
// asks for the flash. Returns success.
bool hdl_da_get_flash_info(FlashInfo* info);

// The rest completes the interface; the daemon does not call it.

// Single commands. The first two return an HdlDaCode, the last one success after logging its failure.
uint32_t hdl_dfu_start_kite(uint8_t parameter, uint16_t* out);
uint32_t hdl_dfu_reset_kite(uint8_t parameter, uint8_t* out);
bool hdl_open_slave_flow_ctrl();

#endif

// Frames of the download agent's protocol: the host's commands are built, the agent's frames looked at. No
// I/O, no state. All fields are little-endian.
#ifndef TAVOR_HDL_KITE_H
#define TAVOR_HDL_KITE_H

#include <cstdint>

inline constexpr uint32_t kKiteFrameSize = 4112; // bytes of the longest frame, either way

enum KiteId : uint16_t {
    KITE_LOG = 0x0F10, // notification of the agent
    KITE_WRITE_BLOCK = 0x2100,
    KITE_READ_BACK = 0x2101,
    KITE_FORMAT = 0x2104,
    KITE_FINISH = 0x2106,
    KITE_READ_OTP = 0x210D,
    KITE_FLASH_ADDRESS = 0x210E,
    KITE_FLASH_SIZE = 0x210F,
    KITE_FLASH_ID = 0x2110,
    KITE_LINE_SPEED = 0x2115,
    KITE_FLOW_CONTROL = 0x2116,
    KITE_IMAGE_CRC = 0x211A,
    KITE_DFU_START = 0x211B,
    KITE_DFU_RESET = 0x211C,
};

// What a response carries after its status.
enum class KitePayload : uint8_t {
    none,
    u32,      // an address, a size or a checksum
    flash_id, // kFlashIdSize bytes
    dfu,      // Kept: one byte, which with the status before it makes a 16-bit word
    cleared,  // Kept: nothing, but the caller's first byte is cleared
    data,     // an address, a CRC-32, the data
};

// A command of the agent.
struct KiteKind {
    KiteId id;
    KitePayload payload; // of the response
    uint32_t least;      // bytes of the shortest response; the data of a readback aside
    uint32_t expected;   // bytes of the response that an SPI link is asked for
};

// The row of a command; that of a response without payload for an identifier that is none.
const KiteKind& kite_kind(uint16_t id);

inline constexpr uint32_t kFlashIdSize = 3;     // bytes: manufacturer, type, capacity
inline constexpr uint32_t kReadbackSize = 2048; // bytes of data that one readback asks for

// Places in an agent's frame.
inline constexpr uint32_t kKiteStatusAt = 6;
inline constexpr uint32_t kKitePayloadAt = 7;
inline constexpr uint32_t kKiteDataCrcAt = 11; // in a response with data, after its address
inline constexpr uint32_t kKiteDataAt = 15;
inline constexpr uint32_t kKiteLogTextAt = 12; // in a log notification

inline constexpr uint32_t kKiteHeadSize = 6; // bytes that are needed to look at a frame

struct KiteCommand {
    uint32_t size; // bytes used
    uint8_t bytes[kKiteFrameSize];
};

// Builds a command: begin, its payload field by field, and one of the two ends. The longest payload is that
// of KITE_WRITE_BLOCK; what would pass the buffer's end is left out.
void kite_begin(KiteCommand* command, uint16_t id);
void kite_add_u8(KiteCommand* command, uint8_t value);
void kite_add_u16(KiteCommand* command, uint16_t value);
void kite_add_u32(KiteCommand* command, uint32_t value);
void kite_add_bytes(KiteCommand* command, const uint8_t* data, uint32_t n);
void kite_end(KiteCommand* command);
void kite_end_with_crc(KiteCommand* command);

// How many of count bytes come before what may be a frame of the agent. Looks for a start only while a whole
// head (6 bytes) is there.
uint32_t kite_noise(const uint8_t* data, uint32_t count);

// Bytes of the frame that begins at data (a whole head), as it announces itself; 4 to 65539.
uint32_t kite_announced_size(const uint8_t* data);

// Whether the size bytes of a whole frame hold this identifier.
bool kite_has_id(const uint8_t* frame, uint32_t size, uint16_t id);

// Whether a whole frame is a log notification.
bool kite_is_log(const uint8_t* frame, uint32_t size);

// Bytes of a log notification's text; 0 when the frame is too short for any.
uint32_t kite_log_text_size(uint32_t size);

#endif

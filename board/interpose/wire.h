// What preload library and board server say to each other: one request and one reply per system call, each
// one message of a SOCK_SEQPACKET connection. A connection is one open device node. Both ends run on one
// machine and are built together.
#ifndef TAVOR_BOARD_WIRE_H
#define TAVOR_BOARD_WIRE_H

#include <cstdint>

// Name of the server's socket in the board's directory.
inline constexpr char kWireSocketName[] = "board.sock";

// Most bytes after a header.
inline constexpr uint32_t kWirePayloadMax = 65536;

// Most parts of one SPI message: what the size in an ioctl request can say.
inline constexpr uint32_t kWirePartsMax = 511;

enum WireOperation : uint32_t {
    WIRE_OPEN = 1,        // number: flags; payload: path
    WIRE_ACCESS = 2,      // payload: path
    WIRE_READ = 3,        // number: bytes wanted; reply payload: the bytes
    WIRE_WRITE = 4,       // payload: the bytes
    WIRE_SPI_MESSAGE = 5, // number: parts; payload: WirePart each, then the bytes of parts with
                          // kWirePartSends; the reply's payload: the bytes of parts with kWirePartReceives
    WIRE_SPI_SET = 6,     // number: setting (BoardSpiSetting); payload: uint32 value
    WIRE_SPI_GET = 7,     // number: setting; reply payload: uint32 value
    WIRE_I2C_SLAVE = 9,   // number: address
    WIRE_CONTROL = 8,     // payload: a JSON object; reply payload: a JSON object
    WIRE_SEEK = 10,       // number: SEEK_SET ...; payload: int64 offset
    WIRE_I2C_SET = 11,    // number: setting (BoardI2cSetting); payload: uint64 value
    WIRE_I2C_READ = 12,   // one message; number: address, length in the upper half; reply payload: the bytes
    WIRE_I2C_WRITE = 13,  // one message; number: address; payload: the bytes
};

struct WireRequest {
    uint32_t operation;
    uint32_t number;
    uint32_t length; // of the payload
};

inline constexpr uint8_t kWirePartSends = 1;
inline constexpr uint8_t kWirePartReceives = 2;

struct WirePart {
    uint32_t length;
    uint8_t flags;
    uint8_t bits_per_word = 0; // 0: the device's
    uint8_t tx_lines = 0;      // data lines, 0: one
    uint8_t rx_lines = 0;
};

inline constexpr uint32_t kWireLengthShift = 16; // of WIRE_I2C_READ

struct WireReply {
    int32_t result;  // of the system call
    int32_t error;   // errno when result is -1
    uint32_t length; // of the payload
};

#endif

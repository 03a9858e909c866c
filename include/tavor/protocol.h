/**
 * tavor client protocol: datagrams on the daemon's Unix socket. C and C++.
 *
 * A client binds an address of its own (without one it gets no answer) and sends a tavor_request; the daemon
 * answers the address of the latest request with tavor_response datagrams, and pushes everything that the
 * chip sends to that address too. All numbers are in host byte order.
 */
#ifndef TAVOR_PROTOCOL_H
#define TAVOR_PROTOCOL_H

#include <stdint.h>

/** Path of the daemon's datagram socket. */
#define TAVOR_SOCKET_PATH "/etc/default/tavor/tavor_sun_path"
/** Path of the relay's datagram socket, which speaks the same protocol with any number of clients. */
#define TAVOR_RELAY_SOCKET_PATH "/run/tavor/relay.sock"
/** Added to the path of a relay's socket: a stream socket that serves its metrics, HTTP's GET /metrics. */
#define TAVOR_RELAY_METRICS_SUFFIX ".metrics"

/** Bytes of text in a request, its NUL included. */
#define TAVOR_TEXT_SIZE 512
/** Bytes of payload in a response. */
#define TAVOR_PAYLOAD_SIZE 512
/** Bytes of the payload that a TAVOR_CODE_POSITION response fills: a tavor_location_record, then zeros. */
#define TAVOR_POSITION_BLOCK_SIZE 256

/** Bytes of every request, of every response and of a location record. */
#define TAVOR_REQUEST_SIZE 516
#define TAVOR_RESPONSE_SIZE 520
#define TAVOR_LOCATION_RECORD_SIZE 94

/**
 * Bytes of the address that a client should bind: the whole sockaddr_un. The daemon gives each receive the
 * length of the previous sender's address, so a longer address is cut for one datagram, and its answer goes
 * astray.
 *
 * Best is an abstract address: a NUL, a name of one's own, NULs up to the end.
 *
 *     C:       struct sockaddr_un own = {.sun_family = AF_UNIX};
 *              snprintf(own.sun_path + 1, sizeof own.sun_path - 1, "example-%d", (int)getpid());
 *              bind(fd, (struct sockaddr*)&own, sizeof own);
 *     Python:  s.bind((b"\0example-%d" % os.getpid()).ljust(108, b"\0"))
 *
 * A path counts only up to its NUL: it takes slashes to make it 107 characters long ("/run/x///...//name").
 * It must not lie in /tmp, /var/tmp, /home, /root or /run/user: the daemon's service does not see those of
 * others.
 */
#define TAVOR_ADDRESS_SIZE 110

/** First TAVOR_CODE_NMEA payload after a start request. */
#define TAVOR_VERSION_BANNER "TAVOR Version:V1.3\n"

/** What a client asks for. */
enum tavor_request_type {
    TAVOR_REQUEST_START = 0,         /**< start positioning */
    TAVOR_REQUEST_STOP = 1,          /**< stop positioning */
    TAVOR_REQUEST_DOWNLOAD = 2,      /**< write new firmware into the chip */
    TAVOR_REQUEST_SAVE_LOCATION = 3, /**< write the last position to the location file */
    TAVOR_REQUEST_DEBUG_OFF = 4,     /**< debug outlet off */
    TAVOR_REQUEST_DEBUG_FILE = 5,    /**< debug outlet: log file */
    TAVOR_REQUEST_DEBUG_SERIAL = 6,  /**< debug outlet: serial line */
    TAVOR_REQUEST_DEBUG_TCP = 7,     /**< debug outlet: TCP clients */
    TAVOR_REQUEST_COMMAND = 8,       /**< send the text to the chip as the body of a $PZUL sentence */
    TAVOR_REQUEST_ASSIST = 9         /**< start the assistance download */
};

/** What a response tells. */
enum tavor_response_code {
    TAVOR_CODE_START = 0,         /**< value: result of start, 0 or 0xFFFFFFFF */
    TAVOR_CODE_STOP = 1,          /**< value: result of stop */
    TAVOR_CODE_DOWNLOAD = 2,      /**< value: result of the firmware download */
    TAVOR_CODE_SAVE_LOCATION = 3, /**< value: result of saving */
    TAVOR_CODE_DEBUG = 4,         /**< value: result of a debug mode switch */
    TAVOR_CODE_CHIP = 5,          /**< value: result of a command, or payload: a $PZUL sentence of the chip */
    TAVOR_CODE_NMEA = 6,          /**< payload: one NMEA sentence with its CR LF, or the start banner */
    TAVOR_CODE_ASSIST = 7,        /**< the assistance download was started */
    TAVOR_CODE_ASSIST_RESULT = 8, /**< value: result of one assistance download */
    TAVOR_CODE_POSITION = 9       /**< payload: a position block of TAVOR_POSITION_BLOCK_SIZE bytes */
};

/** Value of a response when the operation failed. */
#define TAVOR_VALUE_FAILED 0xFFFFFFFFu

/** Client to daemon, 516 bytes. */
struct tavor_request {
    uint32_t type;              /**< enum tavor_request_type */
    char text[TAVOR_TEXT_SIZE]; /**< NUL-terminated, used by TAVOR_REQUEST_COMMAND only */
};

/** Daemon to client, always 520 bytes. */
struct tavor_response {
    uint32_t code;                       /**< enum tavor_response_code */
    uint32_t value;                      /**< result or number */
    uint8_t payload[TAVOR_PAYLOAD_SIZE]; /**< zero-filled after its content */
};

/**
 * The latest position as text, 94 bytes. Each field ends with a NUL when its text is shorter than the field;
 * a height of ten or more characters runs on into majorAxis until the next GST sentence rewrites that field.
 */
struct tavor_location_record {
    char utc[12];                 /**< time of the fix as the chip sent it, hhmmss.ss */
    char latitude[15];            /**< decimal degrees, south negative */
    char longitude[15];           /**< decimal degrees, west negative */
    char height[10];              /**< metres above the ellipsoid */
    char majorAxis[10];           /**< error ellipse: semi-major axis, metres */
    char minorAxis[10];           /**< error ellipse: semi-minor axis, metres */
    char orientation[10];         /**< error ellipse: orientation, degrees from true north */
    char verticalUncertainty[12]; /**< metres */
};

#endif

#include "link/location_command.h"

#include "base/format.h"
#include "mux/location_serial_port.h"
#include "nmea/location_frame.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t kTextSize = 352;     // talker and body, the NUL included
constexpr size_t kSentenceSize = 359; // '$', the text, '*', two digits, CR LF, NUL

uint8_t checksum_of(const char* text) {
    return location_nmea_checksum(reinterpret_cast<const uint8_t*>(text), static_cast<int32_t>(strlen(text)));
}

} // namespace

int32_t location_command_send(const char* body) {
    char text[kTextSize];
    if (body == nullptr || format(text, sizeof text, "PZUL%s", body) < 0) {
        puts("[LOCSERV] ERR: location_command_send get temp_buffer fail");
        return -1;
    }
    char sentence[kSentenceSize];
    snprintf(sentence, sizeof sentence, "$%s*%02X\r\n", text, checksum_of(text));
    printf("[LOCSERV] INF: location_command_send, %s\n", sentence);

    const auto length = static_cast<uint32_t>(strlen(sentence));
    const auto* bytes = reinterpret_cast<const uint8_t*>(sentence);
    return location_serial_port_gnss_write(bytes, length) < 1 ? -1 : 0;
}

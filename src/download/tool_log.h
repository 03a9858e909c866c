// Log lines of the firmware download: two stamps, then the text. The stamps live in static buffers: one
// thread only.
#ifndef TAVOR_TOOL_LOG_H
#define TAVOR_TOOL_LOG_H

#include <cstdint>

// Local wall-clock time as "2024-05-01 12:00:00.123", valid until the next call; null when it can't be
// determined.
const char* tool_log_timestamp();

// "[   1.234]": seconds since tool_time_start, valid until the next call. Meaningless before the first start.
const char* tool_log_elapsed();

// Print "TIMESTAMP [E]ELAPSED " or "TIMESTAMP [I]ELAPSED ", then the text as printf does; the line end
// belongs to the text. A timestamp that can't be determined is empty.
void tool_log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void tool_log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For log texts kept in tables. The text is a printf format with at most one %X or %d, for value. Never pass
// text from outside.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
inline void tool_log_error_text(const char* text, uint32_t value = 0) {
    tool_log_error(text, value);
}
inline void tool_log_info_text(const char* text, uint32_t value = 0) {
    tool_log_info(text, value);
}
#pragma GCC diagnostic pop

#endif

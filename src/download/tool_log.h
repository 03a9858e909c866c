// Log lines of the firmware download: the two stamps of tool_time.h, then the text.
#ifndef TAVOR_TOOL_LOG_H
#define TAVOR_TOOL_LOG_H

#include <cstdint>

// Print "TIMESTAMP [E]ELAPSED " or "TIMESTAMP [I]ELAPSED ", then the text as printf does; the line end
// belongs to the text. A timestamp that can't be told is empty.
void tool_log_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void tool_log_info(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The same with a text that is data, where one step is taken by many: its only conversion, if any, is of
// value
// (%X or %d). Never a text from outside.
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

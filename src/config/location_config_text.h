// How a setting is found in the text of the file: pure, no I/O.
#ifndef TAVOR_LOCATION_CONFIG_TEXT_H
#define TAVOR_LOCATION_CONFIG_TEXT_H

#include <cstddef>
#include <cstdint>

// A longer line arrives in pieces, each searched as a line of its own. Bytes, the NUL included.
inline constexpr std::size_t kConfigLineSize = 256;

// Of a larger file no more than this is read, bytes.
inline constexpr std::size_t kConfigContentMax = 16UL * 1024 * 1024;

// The content of the file; no bytes: there is none.
struct ConfigText {
    const char* bytes;
    std::size_t size;
};

// Copies the next line with its newline, or as much of it as fits, to line (kConfigLineSize bytes) and moves
// at past it. Returns false at the end of the text.
bool config_text_next_line(const ConfigText& text, std::size_t* at, char* line);

// Copies what follows the key in the first line that holds it anywhere, without the line's end, to value
// (kConfigLineSize bytes). Returns false when no line holds it.
bool config_text_find(const ConfigText& text, const char* key, char* value);

// As atoi, but with a result for any number of digits.
int32_t config_text_number(const char* text);

#endif

// One sentence of the chip, cut into its fields: pure parsing, no I/O. Every byte may be hostile; what is no
// good value is absent.
#ifndef TAVOR_CLIENT_SENTENCE_H
#define TAVOR_CLIENT_SENTENCE_H

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

// A moment of UTC.
using Utc = std::chrono::sys_time<std::chrono::milliseconds>;

inline constexpr size_t kSentenceFields = 24; // of the sentences that are read; the longest has 21

struct Sentence {
    std::string_view talker;                              // "GP"
    std::string_view type;                                // "GGA"; empty when it is no sentence of a talker
    std::array<std::string_view, kSentenceFields> fields; // [0] is talker and type; the checksum is left out
    size_t count = 0; // of fields; those that have no room are not counted
};

// Cuts a sentence, line end included or not. The fields point into it.
Sentence sentence_split(std::string_view text);

// Whether the text is a sentence with a good checksum.
bool sentence_is_whole(std::string_view text);

// A number from 0 to a million that fills the whole text, and the same with a sign.
std::optional<double> sentence_number(std::string_view text);
std::optional<double> sentence_signed(std::string_view text);
std::optional<int> sentence_count(std::string_view text);

// Of hhmmss or hhmmss.sss, and of ddmmyy.
std::optional<std::chrono::milliseconds> sentence_time(std::string_view text);
std::optional<std::chrono::sys_days> sentence_day(std::string_view text);

// Degrees of dddmm.mmm with its hemisphere (N, S, E or W), south and west negative; at most so many degrees.
std::optional<double> sentence_angle(std::string_view text, std::string_view hemisphere, double most);

#endif

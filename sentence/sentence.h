// One NMEA sentence, cut into its fields, and the values in them: pure parsing, no I/O. Every byte may be
// hostile; what is no good value is absent.
#ifndef TAVOR_SENTENCE_SENTENCE_H
#define TAVOR_SENTENCE_SENTENCE_H

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

inline constexpr size_t kSentenceFields = 24; // of the sentences that are read; the longest has 21

struct Sentence {
    std::string_view talker;                              // "GP"
    std::string_view type;                                // "GGA"; empty when it is no sentence of a talker
    std::array<std::string_view, kSentenceFields> fields; // [0] is "$GPGGA"; the checksum is left out
    size_t count = 0; // of fields; those that have no room are not counted
};

// Cuts a sentence, line end and checksum included or not. The fields point into it.
Sentence sentence_split(std::string_view text);

// Whether the text is a sentence with a good checksum.
bool sentence_is_whole(std::string_view text);

// A decimal number from 0 to a million that fills the whole text, without an exponent; the same with a minus
// sign or none; the same of digits only.
std::optional<double> sentence_number(std::string_view text);
std::optional<double> sentence_signed(std::string_view text);
std::optional<int> sentence_count(std::string_view text);

// The quality of a fix as GGA numbers it (0: none), from the modes that GNS gives for each system: the best
// of them, or none where there is no letter of a mode.
std::optional<int> sentence_quality(std::string_view modes);

// A speed that is given in knots, in metres a second.
std::optional<double> sentence_speed(std::string_view knots);

struct SentencePlace {
    double latitude;  // degrees, south negative
    double longitude; // degrees, west negative
};

// The place of four fields from this one on: ddmm.mmm, N or S, dddmm.mmm, E or W.
std::optional<SentencePlace> sentence_place(const Sentence& sentence, size_t first);

#endif

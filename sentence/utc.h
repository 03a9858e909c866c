// Times and dates of sentences, and moments of them: pure, no I/O.
#ifndef TAVOR_SENTENCE_UTC_H
#define TAVOR_SENTENCE_UTC_H

#include "sentence/sentence.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

// A moment of UTC.
using Utc = std::chrono::sys_time<std::chrono::milliseconds>;

// Of hhmmss or hhmmss.sss, and of ddmmyy, which is of this century.
std::optional<std::chrono::milliseconds> utc_time(std::string_view text);
std::optional<std::chrono::sys_days> utc_day(std::string_view text);

// Of the three fields of a ZDA sentence: dd, mm, yyyy.
std::optional<std::chrono::sys_days> utc_day_of_zda(const Sentence& zda);

// The moment of a time of day that is less than half a day away from the other moment.
Utc utc_nearest(std::chrono::milliseconds of_day, Utc other);

// "2026-11-21T15:16:20.000Z", and the moment of such a text; years of four digits.
std::string utc_iso(Utc moment);
std::optional<Utc> utc_of_iso(std::string_view text);

#endif

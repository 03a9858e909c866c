// Words that are almost others.
#ifndef TAVOR_CLIENT_WORDS_H
#define TAVOR_CLIENT_WORDS_H

#include <cstddef>
#include <string_view>
#include <vector>

// Single changes that turn one text into the other: a letter more, less or another, or two neighbours
// swapped.
std::size_t words_distance(std::string_view from, std::string_view to);

// Which of the names (at least one) is meant by the word: one that begins with it, else the nearest; of
// several the nearest, then the one that shares the longest beginning with it, for the first letters are
// seldom the mistyped ones; then the first.
std::size_t words_nearest(std::string_view word, const std::vector<std::string_view>& names);

#endif

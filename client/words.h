// Words that are almost others.
#ifndef TAVOR_CLIENT_WORDS_H
#define TAVOR_CLIENT_WORDS_H

#include <cstddef>
#include <string_view>

// Single changes of letters that make one text of the other.
std::size_t words_distance(std::string_view from, std::string_view to);

#endif

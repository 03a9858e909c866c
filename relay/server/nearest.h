// Names that are almost others.
#ifndef TAVOR_RELAY_NEAREST_H
#define TAVOR_RELAY_NEAREST_H

#include <string>
#include <vector>

// Of the names (at least one) the one that the fewest changes of a letter turn the word into; of several the
// first.
std::string nearest_name(const std::string& word, const std::vector<std::string>& names);

#endif

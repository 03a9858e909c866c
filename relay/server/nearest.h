// Names that are almost others.
#ifndef TAVOR_RELAY_NEAREST_H
#define TAVOR_RELAY_NEAREST_H

#include <string>
#include <vector>

// The one of the names (at least one) that takes the fewest changes of a letter to come from the word; of
// several the first.
std::string nearest_name(const std::string& word, const std::vector<std::string>& names);

#endif

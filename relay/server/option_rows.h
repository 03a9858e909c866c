// All settings of the relay, by the names that they have on the command line and in the file.
#ifndef TAVOR_RELAY_OPTION_ROWS_H
#define TAVOR_RELAY_OPTION_ROWS_H

#include "server/options.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct OptionRow {
    const char* name;  // on the command line after two dashes
    const char* type;  // what its value is; choices stand in braces, where completion finds them
    const char* usual; // the default, nullptr when it has none; that of Options is the same
    const char* help;
    // Takes the value over. Returns what is wrong with it, nothing when all is well.
    std::string (*take)(Options& options, const std::string& value);
};

// In the order in which help shows them.
std::span<const OptionRow> option_rows();

// The row of the name, nullptr when there is none.
const OptionRow* option_row(std::string_view name);

std::vector<std::string> option_names();

#endif

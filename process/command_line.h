// What the parser of command lines takes and should refuse: a value of an option that has none, and an option
// that lacks its value, for which the parser takes the next word or does without.
#ifndef TAVOR_PROCESS_COMMAND_LINE_H
#define TAVOR_PROCESS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>

// The option that a word ("--name" or "--name=value") is for the commands that were given, null: none.
inline const CLI::Option* command_line_option(const CLI::App& app, const std::string& word) {
    for (const CLI::App* command : app.get_subcommands()) {
        if (const CLI::Option* const option = command_line_option(*command, word)) {
            return option;
        }
    }
    return word.rfind('-', 0) == 0 ? app.get_option_no_throw(word.substr(0, word.find('='))) : nullptr;
}

// A flag with a type is one that may have a value.
inline bool command_line_takes_value(const CLI::Option& option) {
    return option.get_items_expected_max() > 0 || !option.get_type_name().empty();
}

// What to write for an option, of its type's name what stands before its limits.
inline std::string command_line_usage(const CLI::Option& option) {
    const std::string name = option.get_name();
    const std::string type = option.get_type_name();
    std::string valued = name + "=" + type.substr(0, type.find(':'));
    if (option.get_items_expected_max() > 0) {
        return valued;
    }
    return command_line_takes_value(option) ? name + " or " + valued : name;
}

// Whether the word after an option can't be meant as its value; null: the line ends there.
inline bool command_line_is_no_value(const CLI::App& app, const char* next) {
    const std::string word = next == nullptr ? "" : next;
    return word.empty() || word == "--" || command_line_option(app, word) != nullptr;
}

// To be asked after a parse, whatever its end was. Tells what is wrong with the value of the first option for
// which that is so, and what to write; empty: there is none.
inline std::string command_line_value_problem(const CLI::App& app, int argc, const char* const* argv) {
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        const std::string word = argv[i];
        const size_t sign = word.find('=');
        const CLI::Option* const option = command_line_option(app, word);
        if (option == nullptr || (sign == std::string::npos && option->get_items_expected_min() == 0)) {
            continue;
        }
        if (!command_line_takes_value(*option)) {
            return word + " takes no value: write " + command_line_usage(*option);
        }
        const bool lacks = sign == std::string::npos
                               ? command_line_is_no_value(app, i + 1 < argc ? argv[i + 1] : nullptr)
                               : sign == word.size() - 1;
        if (lacks) {
            return word + " has no value: write " + command_line_usage(*option);
        }
    }
    return "";
}

#endif

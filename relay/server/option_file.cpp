#include "server/option_file.h"

#include "server/file_head.h"
#include "server/nearest.h"
#include "server/option_rows.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t kFileMax = size_t{64} * 1024;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

std::string unquoted(std::string_view text) {
    const bool quoted =
        text.size() >= 2 && text.front() == text.back() && (text.front() == '"' || text.front() == '\'');
    return std::string(quoted ? text.substr(1, text.size() - 2) : text);
}

// What is wrong with the line.
std::string take_line(std::string_view line, Options& options) {
    line = trimmed(line.substr(0, line.find('#'))); // also after a value
    if (line.empty() || line.front() == ';') {
        return "";
    }
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return "'" + std::string(line) + "' is no option=value";
    }
    const std::string name(trimmed(line.substr(0, equals)));
    const OptionRow* const row = option_row(name);
    if (row == nullptr) {
        return "there is no setting '" + name + "', the nearest is '" + nearest_name(name, option_names()) +
               "'";
    }
    const std::string problem = row->take(options, unquoted(trimmed(line.substr(equals + 1))));
    return problem.empty() ? "" : name + ": " + problem;
}

std::string take_text(std::string_view text, const std::string& path, Options& options) {
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (const std::string problem = take_line(line, options); !problem.empty()) {
            return std::string(path)
                .append(", line ")
                .append(std::to_string(number))
                .append(": ")
                .append(problem);
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return "";
}

} // namespace

std::string option_file_read(const std::string& path, bool must_be, Options& options) {
    const std::optional<std::string> text = file_head(path, kFileMax + 1);
    if (!text) {
        return errno == ENOENT && !must_be ? "" : "can't read " + path + ": " + strerror(errno);
    }
    if (text->size() > kFileMax || text->find('\0') != std::string::npos) {
        return path + " is no file with settings";
    }
    return take_text(*text, path, options);
}

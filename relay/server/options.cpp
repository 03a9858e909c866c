#include "server/options.h"

#include "process/process.h"
#include "server/exit_status.h"
#include "server/nearest.h"
#include "server/option_file.h"
#include "server/option_rows.h"
#include "server/options_mqtt.h"

#include <algorithm>
#include <cstdio>
#include <getopt.h>
#include <iterator>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr char kIntroduction[] = R"(Serves many clients with what the location daemon tavor sends to one.
Usage: tavor-relay [OPTIONS]

Options:
)";

constexpr char kFooter[] = R"(
Each option but the first three may stand in the configuration file, a line "option=value" without the dashes.

Exit status:
  0  ended by SIGTERM or SIGINT
  1  a socket can't be had: it is in use, or there is no right to it; or the files for TLS can't be read, or
     the program with MQTT is not installed; or this text or the version can't be written
  2  the command line or the configuration file is wrong, or the password's file can't be read

Examples:
  tavor-relay
  tavor-relay --positioning demand --stop-delay 60
  tavor-relay --daemon /tmp/board/etc/default/tavor/tavor_sun_path --socket /tmp/relay.sock
)";

constexpr int kHelpColumn = 30;

// What getopt_long returns for an option. Rows count up from the last.
enum : int { kHelp = 'h', kVersion = 256, kConfig, kFirstRow };

// What stands on the command line.
struct CommandLine {
    std::vector<std::pair<const OptionRow*, std::string>> settings; // in their order
    std::optional<std::string> file;
    bool help = false;
    bool version = false;
    std::string problem; // empty: none
};

void print_option(const std::string& option, const char* help) {
    const bool fits = option.size() < kHelpColumn;
    printf("%-*s%s", fits ? kHelpColumn : 0, option.c_str(), fits ? "" : "\n");
    printf("%*s%s\n", fits ? 0 : kHelpColumn, "", help);
}

void print_help(const char* config_path) {
    fputs(kIntroduction, stdout);
    print_option("  -h,--help", "Print this help and exit");
    print_option("  --version", "Print the version and exit");
    print_option("  --config FILE=" + std::string(config_path), "File with settings");
    for (const OptionRow& row : option_rows()) {
        const std::string usual = row.usual == nullptr ? "" : std::string("=") + row.usual;
        print_option(std::string("  --") + row.name + " " + row.type + usual, row.help);
    }
    fputs(kFooter, stdout);
}

std::vector<option> long_options() {
    std::vector<option> all = {{"help", no_argument, nullptr, kHelp},
                               {"version", no_argument, nullptr, kVersion},
                               {"config", required_argument, nullptr, kConfig}};
    int value = kFirstRow;
    for (const OptionRow& row : option_rows()) {
        all.push_back({row.name, required_argument, nullptr, value++});
    }
    all.push_back({});
    return all;
}

std::string choice(const std::vector<std::string>& names) {
    std::string all;
    for (const std::string& name : names) {
        all += (all.empty() ? "'" : " or '") + name + "'";
    }
    return all;
}

// What is wrong with the word that getopt_long refused.
std::string refused(const std::string& word, bool lacks_value) {
    const std::string name = word.substr(0, word.find('='));
    if (lacks_value) {
        return name + " takes a value";
    }
    std::string unknown = "there is no option '" + name + "'";
    if (!name.starts_with("--")) {
        return unknown;
    }
    std::vector<std::string> names = {"--help", "--version", "--config"};
    for (const std::string& setting : option_names()) {
        names.push_back("--" + setting);
    }
    std::vector<std::string> meant;
    std::copy_if(names.begin(), names.end(), std::back_inserter(meant),
                 [&](const std::string& one) { return one.starts_with(name); });
    if (meant.size() > 1) {
        return "'" + name + "' may be " + choice(meant) + ": write more of it";
    }
    return meant.empty() ? unknown + ", the nearest is '" + nearest_name(name, names) + "'"
                         : meant.front() + " takes no value";
}

// Whether the next option was taken for a value that was forgotten. A value that begins with a dash is told
// with =.
bool is_option_next(const char* value, const char* word) {
    return value == word && std::string_view(word).starts_with('-');
}

CommandLine read_command_line(int argc, char* const* argv) {
    const std::vector<option> options = long_options();
    CommandLine line;
    opterr = 0;
    optind = 0; // anew, should this not be the first call
    while (line.problem.empty()) {
        const char* const word = argv[std::max(optind, 1)];
        const int found = getopt_long(argc, argv, "+:h", options.data(), nullptr);
        if (found == -1) {
            break;
        }
        if (found >= kConfig && is_option_next(optarg, argv[optind - 1])) {
            line.problem = refused(word, true);
        } else if (found >= kFirstRow) {
            line.settings.emplace_back(&option_rows()[static_cast<size_t>(found - kFirstRow)], optarg);
        } else if (found == kConfig) {
            line.file = optarg;
        } else if (found == kHelp || found == kVersion) {
            (found == kHelp ? line.help : line.version) = true;
        } else {
            line.problem = refused(word, found == ':');
        }
    }
    if (line.problem.empty() && optind < argc) {
        line.problem = std::string("'") + argv[optind] + "' is no option";
    }
    return line;
}

// The file first, the command line over it. Returns what is wrong.
std::string take_settings(const CommandLine& line, const char* config_path, Options& options) {
    std::string problem = option_file_read(line.file.value_or(config_path), line.file.has_value(), options);
    if (!problem.empty()) {
        return problem;
    }
    for (const auto& [row, value] : line.settings) {
        if (const std::string wrong = row->take(options, value); !wrong.empty()) {
            return std::string("--") + row->name + ": " + wrong;
        }
    }
    return options_mqtt_complete(options.mqtt);
}

int usage_error(std::string problem) {
    std::replace(problem.begin(), problem.end(), '\n', ' ');
    fprintf(stderr, "tavor-relay: %s; see 'tavor-relay --help'\n", problem.c_str());
    return kExitUsage;
}

int output_status() {
    return process_output_written("tavor-relay") ? kExitSuccess : kExitFailed;
}

} // namespace

std::optional<int> options_parse(int argc, char* const* argv, Options& options, const char* config_path) {
    const CommandLine line = read_command_line(argc, argv);
    if (line.help) {
        print_help(config_path);
        return output_status();
    }
    if (line.version) {
        puts("tavor-relay " TAVOR_VERSION);
        return output_status();
    }
    const std::string problem =
        line.problem.empty() ? take_settings(line, config_path, options) : line.problem;
    return problem.empty() ? std::nullopt : std::optional(usage_error(problem));
}

#include "client/options.h"

#include "client/command_table.h"
#include "client/connection.h"
#include "client/exit_status.h"
#include "client/print.h"
#include "client/session.h"
#include "client/words.h"
#include "process/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kSocketPathMax = 107;
// The daemon cuts a command at 351 characters, the talker "PZUL" included.
constexpr size_t kBodyMax = 347;
constexpr size_t kMistypedMax = 2;                   // letters
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U; // of the chip
constexpr double kFixWaitS = 120;
constexpr double kNumberMax = 366.0 * 24 * 60 * 60; // seconds of a year; metres have the same limit
constexpr char kUpTo[] = " up to 31622400";

std::string footer() {
    std::string text = "Exit status:\n";
    for (const ExitMeaning& meaning : kExitMeanings) {
        text += "  " + std::to_string(meaning.status) + "  " + meaning.text + "\n";
    }
    return text + kExamples;
}

// Text as a number of seconds or metres, none when it is no such number.
std::optional<double> read_number(const std::string& text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool good = result.ec == std::errc() && result.ptr == end && value >= 0 && value <= kNumberMax;
    return good ? std::optional(value) : std::nullopt;
}

// Problem of a text as seconds, empty when it is a number of them.
std::string check_seconds(const std::string& text) {
    return read_number(text) ? "" : print_safe(text) + " is no number of seconds" + kUpTo;
}

// The same where 0 has no meaning.
std::string check_positive_seconds(const std::string& text) {
    return read_number(text).value_or(0) > 0 ? ""
                                             : print_safe(text) + " is no positive number of seconds" + kUpTo;
}

std::string check_positive_metres(const std::string& text) {
    return read_number(text).value_or(0) > 0 ? ""
                                             : print_safe(text) + " is no positive number of metres" + kUpTo;
}

// An empty name is a variable of a script that holds nothing; it would count as none.
std::string check_file(const std::string& text) {
    return text.empty() ? "a file has a name" : "";
}

// Problem of a text as a count, empty when it is a positive number.
std::string check_count(const std::string& text) {
    int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool good = result.ec == std::errc() && result.ptr == end && value > 0;
    return good ? "" : print_safe(text) + " is no positive number";
}

// "BEGIN+SIZE" as a place in 32 bits of addresses, none when it is no such text.
std::optional<FlashRange> read_flash(const std::string& text) {
    char* end = nullptr;
    FlashRange flash;
    flash.begin = strtoull(text.c_str(), &end, 0);
    const bool signs = text.find('-') != std::string::npos || text.find('+') != text.rfind('+');
    if (end == text.c_str() || *end != '+' || signs) {
        return std::nullopt;
    }
    const char* size = end + 1;
    flash.size = strtoull(size, &end, 0);
    const bool good = end != size && *end == '\0' && flash.size > 0 && flash.begin < kAddressEnd &&
                      flash.size <= kAddressEnd - flash.begin;
    return good ? std::optional(flash) : std::nullopt;
}

std::string check_flash(const std::string& text) {
    return read_flash(text) ? "" : print_safe(text) + " is no flash: write BEGIN+SIZE as 0x08000000+0x200000";
}

// Adds an option of seconds; the variable holds a number only when it was given.
void add_seconds(CLI::App& app, const std::string& name, std::optional<double>& value,
                 const std::string& help, std::string (*check)(const std::string&) = check_seconds) {
    app.add_option_function<double>(
           name, [&value](double seconds) { value = seconds; }, help)
        ->type_name("SECONDS")
        ->check(CLI::Validator(check, ""));
}

// Options of the tool that may stand before and after the command.
void add_common(CLI::App& app, Options& options) {
    app.add_option("--socket", options.socket, "The daemon's socket (or set TAVOR_SOCKET)")
        ->type_name("PATH");
    add_seconds(app, "--timeout", options.timeout_s,
                "How long to wait, 0 for ever; each command has its own default");
    app.add_flag("--json", options.json, "Print JSON, one object a line");
}

void add_follow_options(CLI::App& app, Options& options) {
    add_seconds(app, "--duration", options.duration_s, "End after so many seconds", check_positive_seconds);
    app.add_flag("--stop", options.stop, "Stop positioning at the end");
}

void add_watch_options(CLI::App& app, Options& options) {
    app.add_flag("--raw", options.raw, "Print NMEA sentences only, as the chip sent them");
    app.add_option("--count", options.count, "End after so many lines of output")
        ->type_name("LINES")
        ->check(CLI::Validator(check_count, ""));
    add_follow_options(app, options);
}

void add_start_options(CLI::App& app, Options& options) {
    app.add_flag("--wait{10}", options.start_wait,
                 "Wait until the chip sends: 10 s, or as --wait=SECONDS says")
        ->type_name("SECONDS")
        ->check(CLI::Validator(check_positive_seconds, ""));
    app.add_flag("--fix", options.fix, "Wait until the chip has a fix: 120 s, or as --wait says");
}

void add_log(CLI::App& app, Options& options) {
    app.add_option("--log", options.log, "File that the daemon's log goes to (the journal of its service)")
        ->type_name("FILE");
}

void add_record_options(CLI::App& app, Options& options) {
    app.add_option("FILE", options.file, "Where to, '-' for standard output")
        ->required()
        ->check(CLI::Validator(check_file, ""));
    app.add_flag("--stamps", options.stamps,
                 "Tell in comment lines when sentences came, by this host's clock");
    CLI::Option* append = app.add_flag("--append", options.append, "Go on after what the file holds");
    app.add_flag("--force", options.force, "Replace the file")->excludes(append);
    add_follow_options(app, options);
}

void add_export_options(CLI::App& app, Options& options) {
    CLI::Option_group* formats = app.add_option_group("format");
    for (const FormatRow& row : kFormats) {
        formats->add_flag_callback(
            row.option, [&options, &row] { options.format = row.format; }, row.help);
    }
    formats->require_option(1);
    app.add_option("RECORDING", options.file, "File of sentences, '-' for standard input; none: live")
        ->type_name("FILE")
        ->check(CLI::Validator(check_file, ""));
    add_seconds(app, "--gap", options.gap_s, "A new segment after so many seconds without a point (10)",
                check_positive_seconds);
    add_seconds(app, "--every", options.every_s, "Leave out points less than so many seconds after the last",
                check_positive_seconds);
    app.add_option("--distance", options.every_m, "Leave out points less than so many metres from the last")
        ->type_name("METRES")
        ->check(CLI::Validator(check_positive_metres, ""));
    add_follow_options(app, options);
}

// Without a default: the compiler names a command that is missing here.
void add_own_options(CLI::App& app, Command command, Options& options) {
    switch (command) {
    case Command::kStart:
        add_start_options(app, options);
        break;
    case Command::kPosition:
        add_seconds(app, "--max-age", options.max_age_s, "Wait for a position that is no older",
                    check_positive_seconds);
        break;
    case Command::kWatch:
        add_watch_options(app, options);
        break;
    case Command::kSend:
        app.add_option("BODY", options.body, "Command body, for example 353,1")
            ->required()
            ->check(CLI::Validator(options_check_body, ""));
        add_seconds(app, "--wait", options.wait_s, "How long to print answers of the chip (1)");
        break;
    case Command::kDebug:
        app.add_option("OUTLET", options.outlet, "off, file, serial or tcp")
            ->required()
            ->check(CLI::IsMember({"off", "file", "serial", "tcp"}));
        break;
    case Command::kAssist:
        app.add_flag("--once", options.once, "End after the first full cycle");
        add_seconds(app, "--wait", options.wait_s, "End when no download has ended for so long (--once: 30)");
        add_log(app, options);
        break;
    case Command::kRecord:
        add_record_options(app, options);
        break;
    case Command::kExport:
        add_export_options(app, options);
        break;
    case Command::kMonitor:
        app.add_flag("--once", options.once, "Print one frame as text");
        app.add_flag("--stop", options.stop, "Stop positioning at the end");
        break;
    case Command::kDownload:
        add_log(app, options);
        app.add_flag("--check", options.check, "Only look at list, agent and images; nothing is requested");
        app.add_flag("--force", options.force, "Request it without that look")
            ->excludes(app.get_option("--check"));
        app.add_option("--flash", options.flash_text,
                       "Where the flash lies, for that look: 0x08000000+0x200000")
            ->type_name("BEGIN+SIZE")
            ->check(CLI::Validator(check_flash, ""));
        break;
    case Command::kStatus:
        add_log(app, options);
        break;
    case Command::kStop:
    case Command::kSave:
    case Command::kCheck:
        break; // none of their own
    }
}

void add_commands(CLI::App& app, Options& options) {
    for (const CommandRow& row : kCommands) {
        CLI::App* sub = app.add_subcommand(row.name, row.description);
        sub->footer(row.footer);
        sub->callback([&options, command = row.command] { options.command = command; });
        add_own_options(*sub, row.command, options);
        add_common(*sub, options);
        if (row.command == Command::kExport || row.command == Command::kMonitor) {
            sub->get_option("--json")->group(""); // it is refused: no place in the help
        }
    }
}

// Problem of values that are good each by itself, empty when there is none.
std::string check_together(const CLI::App& app, const Options& options) {
    if (app.get_subcommands().empty()) {
        return "no command given";
    }
    if (options.socket.empty() || options.socket.size() > kSocketPathMax) {
        return "--socket: a socket's path has 1 to 107 characters";
    }
    if (options.raw && options.json) {
        return "--raw excludes --json";
    }
    const bool own = options.command == Command::kExport || options.command == Command::kMonitor;
    if (options.json && (own || (options.command == Command::kRecord && options.file == "-"))) {
        return "--json excludes what goes to standard output itself";
    }
    return "";
}

// Prints the help or the version that was asked for. Returns the status.
int print_asked(const CLI::App& app, const CLI::ParseError& asked, const Options& options) {
    std::ostringstream text;
    app.exit(asked, text, text);
    Session session{options, {}};
    session_emit(session, text.str());
    return session_output_status(session);
}

// ", but 'start' is" when a command is called almost like the word.
std::string suggestion(const std::string& word) {
    std::vector<std::string_view> names;
    for (const CommandRow& row : kCommands) {
        names.emplace_back(row.name);
    }
    const std::string_view nearest = names[words_nearest(word, names)];
    const bool near = nearest.starts_with(word) || words_distance(word, nearest) <= kMistypedMax;
    return near && word.size() > kMistypedMax ? ", but '" + std::string(nearest) + "' is" : "";
}

// How to write a number that stands after 'start': "--wait" takes a value after '=' only. Else empty.
std::string wait_remedy(const CLI::App& command, const std::string& word) {
    const bool meant = command.get_name() == "start" && check_positive_seconds(word).empty();
    return meant ? "; how long to wait is given as --wait=" + word : "";
}

// What the parser says, what it did not expect in the order that was typed, or which command there is not.
std::string parse_problem(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> rest = app.remaining(true);
    const auto used = app.get_subcommands();
    if (used.empty() && !rest.empty() && !rest.front().starts_with('-')) {
        return "no command is called '" + rest.front() + "'" + suggestion(rest.front());
    }
    if (rest.empty() || error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError)) {
        return error.what();
    }
    return "not expected: " + CLI::detail::join(rest, " ") +
           (used.empty() ? "" : wait_remedy(*used.front(), rest.front()));
}

// One line, whatever the parser's text holds.
int usage_error(const CLI::App& app, std::string problem, bool json) {
    std::replace(problem.begin(), problem.end(), '\n', ' ');
    const auto used = app.get_subcommands();
    const std::string name = used.empty() ? "" : used.front()->get_name() + " ";
    const std::string text = print_safe(problem) + "; see 'tavorctl " + name + "--help'";
    if (json) {
        fputs(print_error_json(kExitUsage, text).c_str(), stdout);
    }
    fprintf(stderr, "tavorctl: %s\n", text.c_str());
    return kExitUsage;
}

} // namespace

std::string options_check_body(const std::string& body) {
    const auto is_bad = [](char c) { return c < ' ' || c > '~' || c == '$' || c == '*'; };
    if (body.empty() || body.size() > kBodyMax) {
        return "a command body has 1 to 347 characters";
    }
    if (std::any_of(body.begin(), body.end(), is_bad)) {
        return "a command body is printable ASCII without '$' and '*': the daemon adds start and checksum";
    }
    if (body.compare(0, 4, "PZUL") == 0) {
        return "leave PZUL out: the daemon adds it";
    }
    return "";
}

std::optional<int> options_parse(int argc, const char* const* argv, Options& options) {
    CLI::App app("Drives the location daemon tavor.", "tavorctl");
    app.set_version_flag("--version", "tavorctl " TAVOR_VERSION);
    app.footer(footer());
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.require_subcommand(0, 1); // none is told below: the parser would not name an unknown one
    const char* const socket = getenv("TAVOR_SOCKET");
    options.socket = socket != nullptr && *socket != '\0' ? socket : connection_usual_path();
    add_common(app, options);
    add_commands(app, options);
    const bool json =
        std::find(argv, argv + argc, std::string_view("--json")) != argv + argc; // also of a wrong line
    std::string problem;
    try {
        app.parse(argc, argv);
        problem = check_together(app, options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return print_asked(app, error, options);
        }
        problem = parse_problem(app, error);
    }
    if (const std::string value = command_line_value_problem(app, argc, argv); !value.empty()) {
        problem = value; // what the parser makes of it misleads
    }
    if (!problem.empty()) {
        return usage_error(app, problem, json);
    }
    if (options.fix || !options.start_wait.empty()) {
        options.wait_s = options.start_wait.empty() ? kFixWaitS : read_number(options.start_wait);
    }
    options.flash = read_flash(options.flash_text);
    return std::nullopt;
}

#include "server/options.h"

#include "process/command_line.h"
#include "server/clock_file.h"
#include "server/control.h"
#include "server/file_content.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <sstream>

namespace {

constexpr int kUsageError = 2;
constexpr int64_t kLongestAdvanceS = int64_t{366} * 24 * 3600;

constexpr char kExamples[] = R"(
Examples:
  tavor-board run -- build/dev/bin/tavor
  tavor-board run --dir /tmp/board
  tavor-board exec --dir /tmp/board -- build/dev/bin/tavor
  tavor-board ctl --dir /tmp/board status)";

constexpr char kRunExamples[] = R"(
Examples:
  tavor-board run -- build/dev/bin/tavor
  tavor-board run --log tavor.log --rate 10 --aiding -- build/dev/bin/tavor
  tavor-board run --dir /tmp/board --source replay log.nmea --full-speed
  tavor-board run --dir /tmp/board --fault silence=on --conf "debug socket port=7105"

One line "ready DIRECTORY" tells that programs may come, and one below it where the
daemon's debug outlet listens: on standard output without a program, on standard
error with one.)";

constexpr char kExecExamples[] = R"(
Examples:
  tavor-board exec --dir /tmp/board -- build/dev/bin/tavor
  tavor-board exec --dir /tmp/board -- cat /etc/default/tavor/tavor.conf)";

constexpr char kControlExamples[] = R"(
Examples:
  tavor-board ctl --dir /tmp/board status --json
  tavor-board ctl --dir /tmp/board fault silence on
  tavor-board ctl --dir /tmp/board fault all off
  tavor-board ctl --dir /tmp/board send GNTXT,01,01,02,hello
  tavor-board ctl --dir /tmp/board send --hex 04240A
  tavor-board ctl --dir /tmp/board commands
  tavor-board ctl --dir /tmp/board time --advance 3600

Exit codes: 0 done, 1 the board refused or the output can't be written, 2 usage,
3 no board runs there or can be reached.)";

// What CLI11 fills and the options hold in another shape.
struct Raw {
    std::vector<std::string> source = {"trajectory"};
    std::vector<std::string> faults;
};

void take_source(const std::vector<std::string>& source, ChipOptions& chip) {
    const std::string& kind = source[0];
    if ((kind == "replay") != (source.size() == 2)) {
        throw CLI::ValidationError("--source",
                                   "replay takes a file, trajectory and none take nothing after them");
    }
    if (kind == "replay") {
        chip.source = ChipSource::replay;
        const std::string problem = file_content(source[1], &chip.replay);
        if (!problem.empty()) {
            throw CLI::ValidationError("--source", problem);
        }
    } else if (kind == "trajectory" || kind == "none") {
        chip.source = kind == "none" ? ChipSource::none : ChipSource::trajectory;
    } else {
        throw CLI::ValidationError("--source", "\"" + kind + "\" is none of trajectory, replay FILE, none");
    }
}

std::pair<std::string, std::string> split_pair(const std::string& text, const std::string& option) {
    const size_t at = text.find('=');
    if (at == std::string::npos || at == 0) {
        throw CLI::ValidationError(option, "\"" + text + "\" is not NAME=VALUE");
    }
    return {text.substr(0, at), text.substr(at + 1)};
}

// Tries the faults on a chip and a server of no further use.
void take_faults(const std::vector<std::string>& faults, RunOptions& run) {
    Chip trial;
    AssistFaultState server;
    chip_init(trial, {});
    for (const std::string& fault : faults) {
        run.faults.push_back(split_pair(fault, "--fault"));
        const auto& [name, value] = run.faults.back();
        const std::string error =
            assist_fault_is(name) ? assist_fault_set(server, name, value) : chip_fault(trial, name, value, 0);
        if (!error.empty()) {
            throw CLI::ValidationError("--fault", error);
        }
    }
}

// An empty word is a variable of a script that holds nothing.
std::string word_error(const std::string& text) {
    return text.empty() ? "it is empty" : "";
}

void take_program(const std::vector<std::string>& program) {
    const std::string problem = program.empty() ? "" : word_error(program[0]);
    if (!problem.empty()) {
        throw CLI::ValidationError("program", problem);
    }
}

// The parser would take -1 for the largest number.
std::string count_error(const std::string& text) {
    return text.rfind('-', 0) == 0 ? "\"" + text + "\" is no count" : "";
}

std::string spi_node_error(const std::string& path) {
    return path.rfind("/dev/spidev", 0) == 0 ? "" : "the device node must begin with /dev/spidev";
}

std::string time_error(const std::string& text) {
    int64_t utc = 0;
    return clock_parse(text, &utc) ? "" : "\"" + text + "\" is no time like 2026-11-21T10:00:00Z";
}

std::string i2c_node_error(const std::string& path) {
    return path.rfind("/dev/i2c-", 0) == 0 ? "" : "the device node must begin with /dev/i2c-";
}

void finish_run(const Raw& raw, RunOptions& run) {
    take_source(raw.source, run.board.chip);
    take_faults(raw.faults, run);
    for (const std::string& line : run.configuration) {
        split_pair(line, "--conf");
    }
    if (!run.log.empty() && run.program.empty()) {
        throw CLI::ValidationError("--log", "it takes a program's output, and there is no program");
    }
    const std::string error = chip_options_error(run.board.chip);
    if (!error.empty()) {
        throw CLI::ValidationError(error);
    }
}

std::string run_footer() {
    std::ostringstream text;
    text << kRunExamples << "\n\nFaults (--fault NAME=VALUE, or ctl fault NAME VALUE):\n";
    for (const ChipFaultInfo& fault : control_faults()) {
        text << "  " << fault.name << " " << fault.values << ": " << fault.help << "\n";
    }
    text << "COMMAND is one of " << chip_fault_commands() << ".\n";
    return text.str();
}

// Adds an option whose default stands in the help; what the type's name is stands there for the value.
template <typename T>
CLI::Option* add_value(CLI::App* app, const std::string& name, T& value, const std::string& type,
                       const std::string& help) {
    return app->add_option(name, value, help)->type_name(type)->capture_default_str();
}

// A check whose limits stand in the help's words.
CLI::Validator speed_range() {
    return CLI::Range(1U, kBoardClockFastest).description("");
}

void add_chip_options(CLI::App* app, ChipOptions& chip, Raw& raw) {
    app->add_option("--source", raw.source, "trajectory, replay FILE or none: what the chip sends by itself")
        ->expected(1, 2)
        ->trigger_on_parse() // of two only the last counts, with its own number of words
        ->type_name("KIND [FILE]")
        ->default_str("trajectory");
    add_value(app, "--rate", chip.rate_hz, "HZ", "epochs a second, 1 to 10");
    app->add_flag("--full-speed", chip.full_speed, "send as fast as the program reads, without pacing");
    app->add_flag("--loop", chip.loop, "start the replay again at its end");
    add_value(app, "--sentences", chip.sentence_limit, "N", "silence after so many sentences, 0 for no end")
        ->check(count_error);
    add_value(app, "--rx-window", chip.rx_window, "BYTES", "bytes that the chip takes at once");
    add_value(app, "--busy-polls", chip.busy_polls, "N",
              "status reads until a command is done, at most 10000");
    add_value(app, "--seed", chip.seed, "N", "of everything random");
    app->add_flag_callback(
        "--aiding", [&chip] { chip.aiding_requests = chip.orbit_requests = true; },
        "ask for reference time, position and orbit data after power-up");
    add_value(app, "--first-fix", chip.time_to_first_fix_ms, "MS",
              "milliseconds from power-up to the first fix");
    add_value(app, "--assisted-fix", chip.assisted_first_fix_ms, "MS",
              "the same once time and GPS orbits have come from the host");
    add_value(app, "--latitude", chip.latitude, "DEGREES", "-90 to 90, south negative");
    add_value(app, "--longitude", chip.longitude, "DEGREES", "-180 to 180, west negative");
    add_value(app, "--altitude", chip.altitude_m, "METRES", "above the geoid, -500 to 18000");
    add_value(app, "--ground-speed", chip.speed_mps, "SPEED", "metres a second, 0 to 515");
    add_value(app, "--course", chip.course_deg, "DEGREES", "from true north, 0 to 360");
}

void add_flash_options(CLI::App* app, BoardOptions& board) {
    ChipOptions& chip = board.chip;
    add_value(app, "--flash-size", chip.flash_size, "BYTES",
              "size of the chip's flash, blocks of 4096 up to 64 MiB");
    add_value(app, "--flash-base", chip.flash_base, "ADDRESS", "of the flash, a multiple of 65536")
        ->default_str("0x08000000");
    add_value(app, "--flash-id", chip.flash_id, "N", "manufacturer, type and capacity in bytes 0, 1 and 2")
        ->default_str("0x15605A");
    app->add_flag("--flash-empty", chip.flash_empty, "a new flash holds no firmware");
    add_value(app, "--boot-window", chip.boot_window_ms, "MS",
              "milliseconds from power-up that the boot ROM listens, at most 3600000");
    add_value(app, "--sleepy-polls", chip.sleepy_polls, "N",
              "wake-up polls that find the boot ROM asleep, at most 10000");
    app->add_flag(
        "--msb-first", [&board](int64_t count) { board.lsb_first = count == 0; },
        "the chip's multiplexer reads the most significant bit first (\"SPI bit order=1\")");
}

void add_device_options(CLI::App* command, BoardOptions& board) {
    add_value(command, "--spi-path", board.spi_path, "NODE", "device node of the chip: /dev/spidev...")
        ->check(spi_node_error);
    add_value(command, "--i2c-path", board.i2c_path, "NODE", "I2C node of the chip: /dev/i2c-...")
        ->check(i2c_node_error);
    add_value(command, "--power-gpio", board.power_pin, "N", "line that powers the chip, 0 to 511")
        ->check(CLI::Range(0, board.pin_count - 1).description(""));
}

void add_clock_options(CLI::App* command, RunOptions& run) {
    add_value(command, "--speed", run.speed, "N",
              "how many times as fast as the host's the clock runs, 1 to 100000")
        ->check(speed_range());
    command
        ->add_option("--time", run.time, "time at the start, like 2026-11-21T10:00:00Z (default: the host's)")
        ->type_name("UTC")
        ->check(time_error);
}

CLI::App* add_run(CLI::App& app, RunOptions& run, Raw& raw) {
    CLI::App* command = app.add_subcommand("run", "run a board, and a program on it");
    add_chip_options(command, run.board.chip, raw);
    add_flash_options(command, run.board);
    command->add_option("--fault", raw.faults, "NAME=VALUE, a fault from the start on; may be repeated")
        ->type_name("NAME=VALUE")
        ->expected(1)
        ->take_all();
    add_device_options(command, run.board);
    command
        ->add_option("--conf", run.configuration,
                     "KEY=VALUE line of the daemon's configuration; may be repeated")
        ->type_name("KEY=VALUE")
        ->expected(1)
        ->take_all();
    command
        ->add_option("--dir", run.directory,
                     "the board's directory; kept at the end (default: one of its own)")
        ->type_name("DIR");
    command->add_flag("--keep", run.keep, "keep the directory at the end");
    add_clock_options(command, run);
    command->add_flag_callback(
        "--no-assist", [&run] { run.assistance = false; }, "run no assistance server");
    command
        ->add_option("--kernel-device", run.kernel_device,
                     "serve the kernel's own spidev, i2c-dev and GPIO through this device of the module in "
                     "board/kernel; the program is started without the preload library")
        ->type_name("PATH");
    command->add_option("--log", run.log, "file that the program's output is appended to")->type_name("FILE");
    command->add_option("program", run.program, "program and its arguments, after --");
    command->footer(run_footer());
    return command;
}

CLI::App* add_exec(CLI::App& app, ExecOptions& exec) {
    CLI::App* command = app.add_subcommand("exec", "start a program on a running board");
    command->add_option("--dir", exec.directory, "the board's directory")->type_name("DIR")->required();
    command->add_option("--speed", exec.speed, "give the board's clock this speed first, 1 to 100000")
        ->type_name("N")
        ->check(speed_range());
    command->add_option("program", exec.program, "program and its arguments, after --")->required();
    command->footer(kExecExamples);
    return command;
}

void add_time(CLI::App* time, ControlOptions& control) {
    time->add_option("--speed", control.speed, "times the host's from now on, 1 to 100000")
        ->type_name("N")
        ->check(speed_range());
    auto* advance =
        time->add_option("--advance", control.advance_s, "put it forward by so many seconds, 1 to 31622400")
            ->type_name("SECONDS")
            ->check(CLI::Range(int64_t{1}, kLongestAdvanceS).description(""));
    time->add_option("--set", control.time, "put it forward to this time, like 2026-11-21T10:00:00Z")
        ->type_name("UTC")
        ->check(time_error)
        ->excludes(advance);
    time->add_flag("--json", control.json, "as one JSON object");
}

CLI::App* add_control(CLI::App& app, ControlOptions& control) {
    CLI::App* ctl = app.add_subcommand("ctl", "ask or change a running board");
    ctl->add_option("--dir", control.directory, "the board's directory")->type_name("DIR")->required();
    ctl->require_subcommand(0, 1);
    ctl->footer(kControlExamples);
    const auto add = [&](const char* name, const char* help) {
        CLI::App* command = ctl->add_subcommand(name, help);
        command->callback([&control, name] { control.command = name; });
        command->fallthrough(); // --dir may follow it
        return command;
    };
    add("status", "counters, levels and verdicts")->add_flag("--json", control.json, "as one JSON object");
    CLI::App* fault = add("fault", "start, change or end a fault");
    fault->add_option("name", control.name, "see --list");
    fault->add_option("value", control.value, "see --list");
    fault->add_flag("--list", control.list, "names, values and what they do");
    CLI::App* send = add("send", "let the chip send something");
    send->add_option("body", control.body, "sentence without $ and checksum")->check(word_error);
    send->add_option("--hex", control.hex, "raw bytes, two hexadecimal digits each")->type_name("DIGITS");
    send->add_option("--file", control.file, "raw bytes of a file")->type_name("FILE");
    send->require_option(1);
    add("commands", "sentences that the chip received")
        ->add_flag("--json", control.json, "as one JSON object");
    add("power", "level of the power line");
    add("rate", "change the rate")
        ->add_option("hz", control.rate_hz, "epochs a second, 1 to 10")
        ->type_name("HZ")
        ->required()
        ->check(word_error);
    add_time(add("time", "show or change the board's clock"), control);
    add("quit", "end the board");
    return ctl;
}

// What the parser says, in the order that was typed, or which command there is not.
std::string parse_problem(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError)) {
        return error.what();
    }
    const std::vector<std::string> rest = app.remaining(true);
    const bool is_command = app.get_subcommands().empty() && rest.front().rfind('-', 0) != 0;
    return is_command ? "no command is called \"" + rest.front() + "\""
                      : "not expected: " + CLI::detail::join(rest, " ");
}

// One line, with the help of the command that was given.
int usage_error(const CLI::App& app, const std::string& problem) {
    std::string command = app.get_name();
    for (auto used = app.get_subcommands(); !used.empty(); used = used.front()->get_subcommands()) {
        command += " " + used.front()->get_name();
    }
    fprintf(stderr, "tavor-board: %s; see '%s --help'\n", problem.c_str(), command.c_str());
    return kUsageError;
}

} // namespace

int read_options(int argc, char** argv, Options* options) {
    CLI::App app("Simulated board: runs the location daemon without hardware.", "tavor-board");
    app.set_version_flag("--version", "tavor-board " TAVOR_VERSION);
    app.footer(kExamples);
    app.require_subcommand(0, 1); // a missing one is told below, after an unknown one
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    Raw raw;
    const CLI::App* run = add_run(app, options->run, raw);
    const CLI::App* exec = add_exec(app, options->exec);
    const CLI::App* control = add_control(app, options->control);
    std::string problem;
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty() || (control->parsed() && control->get_subcommands().empty())) {
            throw CLI::RequiredError("A command");
        }
        if (run->parsed()) {
            finish_run(raw, options->run);
        }
        take_program(exec->parsed() ? options->exec.program : options->run.program);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            return app.exit(error);
        }
        problem = parse_problem(app, error);
    }
    if (const std::string value = command_line_value_problem(app, argc, argv); !value.empty()) {
        problem = value; // what the parser makes of it misleads
    }
    if (!problem.empty()) {
        return usage_error(app, problem);
    }
    options->action = run->parsed()    ? Options::Action::kRun
                      : exec->parsed() ? Options::Action::kExec
                                       : Options::Action::kControl;
    return -1;
}

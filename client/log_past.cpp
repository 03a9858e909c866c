#include "client/log_past.h"

#include "client/log_source.h"
#include "client/place.h"
#include "client/tool_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace {

constexpr size_t kFilePart = size_t{512} << 10;
constexpr std::chrono::milliseconds kJournalLimit{600}; // of each of the two readers
// What changes a state, so that it is found however far it lies back.
constexpr char kEvents[] = "location_service_task_main|location_service_message_handle:(0|1|2|4|5|6|15)$|"
                           "Download (start|Finish|Fail)";

struct Journal {
    ToolOutput output;
    std::vector<PastLine> lines; // the oldest first
};

std::vector<std::string> split(const std::string& text, bool whole) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    if (!whole && !lines.empty()) {
        lines.pop_back(); // cut in its middle
    }
    return lines;
}

Journal read_journal(const std::vector<std::string>& filter,
                     const std::optional<std::chrono::system_clock::time_point>& since) {
    std::vector<std::string> arguments = {"journalctl",         kLogSourceNamespace, "--unit=tavor",
                                          "--no-pager",         "--quiet",           "--reverse",
                                          "--output=short-unix"};
    arguments.insert(arguments.end(), filter.begin(), filter.end());
    if (since) {
        arguments.push_back("--since=@" + std::to_string(std::chrono::system_clock::to_time_t(*since)));
    }
    Journal journal = {tool_output(arguments, kJournalLimit), {}};
    for (const std::string& line : split(journal.output.text, journal.output.whole)) {
        if (const auto parsed = log_past_journal_line(line)) {
            journal.lines.push_back(*parsed);
        }
    }
    std::reverse(journal.lines.begin(), journal.lines.end());
    return journal;
}

} // namespace

PastLog log_past_file(const std::string& path) {
    PastLog log;
    const auto text = place_read_end(path, kFilePart);
    if (!text) {
        log.why = "the log can't be read: " + place_failure(errno);
        return log;
    }
    log.whole = text->size() < kFilePart;
    const bool ended = text->empty() || text->back() == '\n';
    std::vector<std::string> lines = split(*text, ended);
    const auto first = log.whole || lines.empty() ? lines.begin() : lines.begin() + 1;
    std::transform(first, lines.end(), std::back_inserter(log.lines), [](const std::string& line) {
        return PastLine{line, std::nullopt};
    });
    log.why = log.lines.empty() ? "the log is empty" : "";
    return log;
}

PastLog log_past_journal(const std::optional<std::chrono::system_clock::time_point>& since) {
    PastLog log;
    if (!log_source_journal_is_readable()) {
        log.why = std::string("the journal may not be read: ") + kLogSourceRights;
        return log;
    }
    Journal events = read_journal({"--lines=100", std::string("--grep=") + kEvents}, since);
    Journal latest = read_journal({"--lines=1500"}, since);
    log.whole = since && events.output.whole && !events.lines.empty();
    log.lines = std::move(events.lines);
    log.lines.insert(log.lines.end(), latest.lines.begin(), latest.lines.end());
    if (!latest.output.started) {
        log.why = "there is no journal here: name the log with --log";
    } else if (log.lines.empty()) {
        log.why = latest.output.whole ? "the journal has no line of the service: name the log with --log"
                                      : "the journal could not be read in time";
    }
    return log;
}

std::optional<PastLine> log_past_journal_line(std::string_view line) {
    const std::string text(line);
    char* end = nullptr;
    const double at = strtod(text.c_str(), &end);
    const size_t message = text.find("]: ");
    if (end == text.c_str() || *end != ' ' || message == std::string::npos) {
        return std::nullopt;
    }
    return PastLine{text.substr(message + 3), at};
}

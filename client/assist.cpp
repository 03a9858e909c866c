#include "client/assist.h"

#include "client/assist_log.h"
#include "client/assist_view.h"
#include "client/daemon_files.h"
#include "client/exchange.h"
#include "client/log_source.h"
#include "client/print.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>

namespace {

constexpr double kAnswerLimitS = 5;
constexpr double kSettleS = 1;      // that the log may lag behind a result
constexpr int64_t kSoonMs = 3000;   // the delay of a download that is due
constexpr double kAssistWaitS = 30; // the daemon starts the next due download after three seconds

constexpr char kAssistFailure[] =
    "assistance data could not be downloaded: the daemon answered failure and tries again later; check the "
    "identity ('XOD vendor=', 'XOD project=', 'XOD device id='), 'XOD host=' and the network";

// What following the downloads has seen.
struct Downloads {
    int64_t count = 0;
    bool failed = false; // the last one
    std::string failure; // of the last one that failed
    Place place = {};
    LogSource source = {};
    AssistLog log = {};
    size_t told = 0;                        // of the ends that the log has
    std::vector<AssistanceFile> files = {}; // as they were before
};

void read_log(Downloads& downloads) {
    log_source_read(downloads.source, [&](std::string_view line) { assist_log_line(downloads.log, line); });
}

// Without a log the daemon's answers tell neither which file it was nor why it failed.
void open_log(Session& session, Downloads& downloads) {
    downloads.place = place_of(session.options.socket);
    downloads.files = daemon_files_assistance(downloads.place).value_or(std::vector<AssistanceFile>());
    const std::string& path = session.options.log;
    if (!path.empty() && !log_source_open_file(downloads.source, path)) {
        session_note("cannot read the log " + print_safe(path) + ": " + strerror(errno) +
                     "; which file it is and why one fails is not shown");
    } else if (path.empty() && downloads.place.usual && log_source_journal_is_readable()) {
        log_source_open_journal(downloads.source);
    } else if (path.empty() && downloads.place.usual) {
        session_note(
            "which file it is and why one fails is told by the log only: see 'journalctl --namespace=tavor'");
    }
}

bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The file that was written since the last look; none when none or several were.
std::optional<AssistanceFile> changed_file(Downloads& downloads) {
    const auto now = daemon_files_assistance(downloads.place);
    std::vector<AssistanceFile> changed;
    for (const AssistanceFile& file : now.value_or(std::vector<AssistanceFile>())) {
        const auto before = std::find_if(downloads.files.begin(), downloads.files.end(),
                                         [&](const AssistanceFile& one) { return one.name == file.name; });
        const bool same = before != downloads.files.end() && same_time(before->written, file.written);
        if (file.size && !same) {
            changed.push_back(file);
        }
    }
    downloads.files = now.value_or(downloads.files);
    return changed.size() == 1 ? std::optional(changed.front()) : std::nullopt;
}

std::optional<uint64_t> size_of(const Downloads& downloads, const std::string& name) {
    for (const AssistanceFile& file : downloads.files) {
        if (file.name == name) {
            return file.size;
        }
    }
    return std::nullopt;
}

// What the log and the files tell of a download whose result has come. The daemon logs its end right after
// the result, so the log may lag.
DownloadedFile file_of(Downloads& downloads, bool ok) {
    const auto changed = changed_file(downloads);
    const Clock::time_point end = deadline_in(kSettleS);
    read_log(downloads);
    while (downloads.source.fd >= 0 && downloads.log.ended.size() <= downloads.told && Clock::now() < end) {
        const timespec pause = {0, 20'000'000};
        nanosleep(&pause, nullptr);
        read_log(downloads);
    }
    if (downloads.log.ended.size() <= downloads.told) {
        const bool known = ok && changed;
        return {known ? changed->name : "", known ? changed->size : std::nullopt, ok, "", "", std::nullopt};
    }
    if (!ok) { // when it is tried again stands in the next line
        const timespec pause = {0, 50'000'000};
        nanosleep(&pause, nullptr);
        read_log(downloads);
    }
    const AssistEnd& told = downloads.log.ended[downloads.told++];
    const auto size = told.verified ? size_of(downloads, told.name) : std::nullopt;
    return {told.name, size, told.verified, told.cause, told.advice, told.retry_ms};
}

std::string failure_text(const DownloadedFile& file) {
    return file.name.empty() ? kAssistFailure : print_assist_failure(file);
}

// Shows a download's outcome. False when there is nothing more to wait for.
bool show_download(Session& session, const Record& record, Downloads& downloads) {
    const DownloadedFile file = file_of(downloads, record_ok(record));
    ++downloads.count;
    downloads.failed = !record_ok(record);
    downloads.failure = downloads.failed ? failure_text(file) : downloads.failure;
    const bool json = session.options.json;
    const std::string text = json ? print_json(record) + print_assist_json(file)
                                  : (file.name.empty() ? print_result(record) : print_assist_file(file));
    if ((!downloads.failed || json) && !session_emit(session, text)) {
        return false;
    }
    if (downloads.failed && !session.options.once) {
        session_note(downloads.failure);
    }
    return !(downloads.failed && session.options.once); // it is tried again in minutes only
}

// Why no result came, as far as the log has told.
std::string no_result_reason(Downloads& downloads) {
    read_log(downloads);
    if (downloads.log.waits) {
        return "the log says that a download or the retry of one waits for its time already; 'systemctl restart "
               "tavor' and a new request begin at once";
    }
    if (downloads.log.next_ms.value_or(0) > kSoonMs) {
        return "the log says that the stored data are fresh; the next download is due in " +
               print_duration(static_cast<double>(*downloads.log.next_ms) / 1000);
    }
    return "the stored data are fresh, the server is slow, or a download that failed waits for its retry; the "
           "daemon goes on by itself and logs which";
}

// Status of a run whose failure, if any, has been told.
int last_status(Session& session, const Downloads& downloads) {
    return downloads.failed ? kExitFailed : session_output_status(session);
}

int downloads_status(Session& session, Downloads& downloads, double wait_s) {
    if (downloads.failed && session.options.once) {
        return session_fail(session, kExitFailed, downloads.failure);
    }
    if (downloads.count == 0) {
        session_note("no download ended within " + print_seconds(wait_s) +
                     " s: " + no_result_reason(downloads));
    }
    return last_status(session, downloads);
}

// Shows each download's outcome until none has come for wait_s seconds, 0: for ever.
int follow_downloads(Session& session, Downloads& downloads, double wait_s) {
    for (bool goes_on = true; goes_on;) {
        const int64_t before = downloads.count;
        const Outcome outcome =
            exchange_collect(session.connection, deadline_in(wait_s), [&](const Record& record) {
                const bool is_result =
                    record.kind == RecordKind::kResult && record.code == TAVOR_CODE_ASSIST_RESULT;
                goes_on = !is_result || show_download(session, record, downloads);
                return !is_result;
            });
        if (outcome == Outcome::kInterrupted && wait_s <= 0) {
            return last_status(session, downloads); // the ordinary way to end it
        }
        if (outcome != Outcome::kDone && outcome != Outcome::kTimeout) {
            return session_end_status(session, outcome, wait_s);
        }
        goes_on = goes_on && downloads.count > before;
    }
    return downloads_status(session, downloads, wait_s);
}

} // namespace

int assist_run(Session& session) {
    const Options& options = session.options;
    const double limit_s = options.timeout_s.value_or(kAnswerLimitS);
    Downloads downloads;
    if (options.wait_s != 0.0) {
        open_log(session, downloads);
    }
    // Not repeatable: a second request while a download runs would set up its schedule twice.
    const Request request = {TAVOR_REQUEST_ASSIST, TAVOR_CODE_ASSIST, "", limit_s, false};
    std::optional<Record> answer;
    const Outcome outcome = exchange_ask(
        session.connection, request, [](const Record&) { return true; }, answer);
    if (!answer) {
        return session_end_status(session, outcome, limit_s);
    }
    const int status =
        session_report(session, *answer,
                       "the assistance download could not be started: the daemon answered failure; see "
                       "'journalctl --namespace=tavor'");
    if (status != kExitSuccess || options.wait_s == 0.0) {
        return status;
    }
    return follow_downloads(session, downloads, options.wait_s.value_or(options.once ? kAssistWaitS : 0));
}

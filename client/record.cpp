#include "client/record.h"

#include "base/non_copyable.h"
#include "client/follow.h"
#include "client/nmea.h"
#include "client/output.h"
#include "client/print.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::chrono::milliseconds kStampEvery{100}; // sentences of one moment have one stamp
constexpr char kStandardOutput[] = "-";

// A recording under way.
struct Recording : private NonCopyable {
    Session& session;
    int fd = -1;
    bool own = false;      // fd is a file of its own
    bool terminal = false; // fd is a terminal
    int error = 0;         // of the first failed write
    uint64_t sentences = 0;
    uint64_t bytes = 0;
    Clock::time_point begin = Clock::now();
    std::chrono::system_clock::time_point stamped = {};

    explicit Recording(Session& of) : session(of) {}
    ~Recording() {
        if (own) {
            close(fd);
        }
    }
};

// Straight to the kernel, so that what ends this process loses nothing.
bool put(Recording& recording, std::string_view text) {
    const int interrupt = recording.session.connection.interrupt;
    recording.error = output_write(recording.fd, text, interrupt, recording.bytes);
    return recording.error == 0;
}

// A terminal is no place for the chip's bytes as they are.
bool put_sentence(Recording& recording, const Record& record) {
    return put(recording, recording.terminal ? print_sentence(record) : print_raw(record));
}

bool put_stamp(Recording& recording) {
    const auto now = std::chrono::system_clock::now();
    if (now - recording.stamped < kStampEvery && now >= recording.stamped) {
        return true;
    }
    recording.stamped = now;
    return put(recording, "# " + utc_iso(std::chrono::floor<std::chrono::milliseconds>(now)) + "\r\n");
}

// Ends a line that an earlier recording has not ended.
bool end_last_line(Recording& recording, off_t size) {
    char last = '\n';
    const bool known = size == 0 || pread(recording.fd, &last, 1, size - 1) == 1;
    return known && (last == '\n' || put(recording, "\r\n"));
}

bool open_file(Recording& recording) {
    const Options& options = recording.session.options;
    const int how = options.append ? O_CREAT | O_APPEND : options.force ? O_CREAT : O_CREAT | O_EXCL;
    // A FIFO would hold it up, and a terminal become its own.
    recording.fd = open(options.file.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | how, 0666);
    if (recording.fd < 0) {
        return false;
    }
    recording.own = true;
    struct stat status = {};
    if (fstat(recording.fd, &status) != 0) {
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENODEV;
        return false;
    }
    return options.append ? end_last_line(recording, status.st_size) : ftruncate(recording.fd, 0) == 0;
}

// A directory, a device or similar, which no option lets it replace.
bool is_no_file(const std::string& path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

int report_unopened(Session& session, int error) {
    const std::string place = print_safe(session.options.file) + ": ";
    const bool no_file = error == ENODEV || (error == EEXIST && is_no_file(session.options.file));
    if (error == EEXIST && !no_file) {
        return session_fail(session, kExitIo,
                            place +
                                "there is a file already; --append goes on after it, --force replaces it");
    }
    if (no_file) {
        return session_fail(session, kExitIo, place + "no regular file; '-' is standard output");
    }
    return session_fail(session, kExitIo, "cannot write " + place + strerror(error));
}

bool record_one(Recording& recording, const Record& record) {
    if (follow_is_failed_start(recording.session, record)) {
        return false;
    }
    if (record.kind != RecordKind::kNmea && record.kind != RecordKind::kChip) {
        return true;
    }
    if ((recording.session.options.stamps && !put_stamp(recording)) || !put_sentence(recording, record)) {
        return false;
    }
    ++recording.sentences;
    return true;
}

void summarise(Recording& recording) {
    Session& session = recording.session;
    const double seconds = std::chrono::duration<double>(Clock::now() - recording.begin).count();
    if (session.options.json && recording.own) {
        session_emit(session, print_recording_json(
                                  {session.options.file, recording.sentences, recording.bytes, seconds}));
        return;
    }
    std::array<char, 96> text = {};
    snprintf(text.data(), text.size(), "%llu sentences, %llu bytes in %.1f s",
             static_cast<unsigned long long>(recording.sentences),
             static_cast<unsigned long long>(recording.bytes), seconds);
    session_note(std::string(text.data()) + (recording.own ? " to " + print_safe(session.options.file) : ""));
}

int write_failed(const Recording& recording) {
    const std::string place = recording.own ? print_safe(recording.session.options.file) : "standard output";
    return session_fail(recording.session, kExitIo,
                        "cannot write " + place + ": " + strerror(recording.error) +
                            "; what came before is there");
}

} // namespace

int record_run(Session& session) {
    Recording recording(session);
    if (session.options.file == kStandardOutput) {
        recording.fd = STDOUT_FILENO;
        recording.terminal = isatty(STDOUT_FILENO) != 0;
        session.connection.output = STDOUT_FILENO;
    } else if (!open_file(recording)) {
        return report_unopened(session, errno);
    }
    const Followed followed =
        follow_for_options(session, [&](const Record& record) { return record_one(recording, record); });
    // A reader that has gone is an ordinary end of a pipe, and has seen enough.
    const bool left =
        !recording.own && (recording.error == EPIPE || followed.outcome == Outcome::kOutputClosed);
    if (recording.error == EINTR) {
        session.output_error = EINTR; // the end takes the signal, before a stop that --stop asks for
    } else if (!left) {
        summarise(recording);
    }
    const int status = follow_finish(session, followed);
    const bool failed = recording.error != 0 && recording.error != EINTR && !left;
    return failed ? write_failed(recording) : status;
}

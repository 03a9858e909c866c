#include "client/export.h"

#include "client/follow.h"
#include "client/print.h"
#include "client/track_format.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kLineMax = 1024; // bytes; a sentence has 82, some chips send longer ones
constexpr char kStandardInput[] = "-";

// An export under way.
struct Export {
    Session& session;
    Track track = {};
    TrackText text = {};
    std::string line = {}; // whose end has not come
    bool skips = false;    // the rest of a line that is too long

    explicit Export(Session& of) : session(of) {
        track.gap_s = of.options.gap_s.value_or(kTrackGapS);
        track.every_s = of.options.every_s.value_or(0);
        track.every_m = of.options.every_m;
        text.format = of.options.format;
    }
};

// What writes each point that is complete.
TrackVisitor writer(Export& run) {
    return [&run](const TrackPoint& point) {
        const std::string text = track_format_point(run.text, point);
        if (!text.empty() && run.session.output_error == 0) {
            session_emit(run.session, text);
        }
    };
}

void take_byte(Export& run, char byte, const TrackVisitor& visit) {
    if (byte != '\n') {
        run.skips = run.skips || run.line.size() == kLineMax;
        if (!run.skips) {
            run.line += byte;
        }
        return;
    }
    if (run.skips) {
        ++run.track.refused;
    } else {
        track_line(run.track, run.line, visit);
    }
    run.line.clear();
    run.skips = false;
}

// "1 point", "2 points".
std::string counted(uint64_t count, const std::string& what) {
    return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

void tell_counts(const Track& track) {
    std::string text = counted(track.points, "point") + " in " + counted(track.segments, "segment") +
                       ", from " + counted(track.sentences, "sentence");
    if (track.refused > 0) {
        text += "; " + counted(track.refused, "line") + " left out, damaged or too long";
    }
    session_note(text);
}

// Writes the end of the track, so that what there is can be read however the run ended.
int finish(Export& run, int status) {
    const bool failed = run.session.output_error != 0; // which the status tells
    if (!failed) {
        track_end(run.track, writer(run));
        session_emit(run.session, track_format_end(run.text));
    }
    if (run.session.output_error == EINTR) {
        return session_interrupted(run.session); // one that doesn't read sees nothing
    }
    if (run.session.output_error == EPIPE) {
        return status; // a reader that has gone has seen enough
    }
    tell_counts(run.track);
    if (failed || run.session.output_error != 0) {
        return failed ? status : session_output_status(run.session);
    }
    const bool empty = status == kExitSuccess && run.track.points == 0;
    return empty ? session_fail(run.session, kExitNoFix, "no position: the track is empty") : status;
}

// Why the reading ended.
enum class Ended { kWhole, kInterrupted, kFailed, kUnread };

Ended read_lines(Export& run, int fd) {
    const TrackVisitor visit = writer(run);
    std::array<char, 16384> bytes = {};
    while (run.session.output_error == 0) {
        std::array<pollfd, 2> waits = {{{fd, POLLIN, 0}, {run.session.connection.interrupt, POLLIN, 0}}};
        poll(waits.data(), waits.size(), -1);
        if (waits[1].revents != 0) {
            return Ended::kInterrupted;
        }
        const ssize_t count = waits[0].revents != 0 ? read(fd, bytes.data(), bytes.size()) : 0;
        if (count < 0 && errno != EINTR && errno != EAGAIN) {
            return Ended::kFailed;
        }
        if (count == 0 && waits[0].revents != 0) {
            return Ended::kWhole;
        }
        for (ssize_t i = 0; i < count; ++i) {
            take_byte(run, bytes.at(static_cast<size_t>(i)), visit);
        }
    }
    return Ended::kUnread;
}

std::string unreadable(const std::string& path, int error) {
    return "cannot read " + (path == kStandardInput ? "standard input" : print_safe(path)) + ": " +
           strerror(error);
}

int unopened(Session& session, int error) {
    return session_fail(session, kExitIo,
                        unreadable(session.options.file, error) +
                            "; name a recording, or '-' for standard input");
}

int status_of(Session& session, Ended ended, int error) {
    switch (ended) {
    case Ended::kInterrupted:
        return session_interrupted(session);
    case Ended::kFailed:
        return session_fail(session, kExitIo,
                            unreadable(session.options.file, error) + "; the track is not whole");
    default:
        return session_output_status(session);
    }
}

int export_from(Session& session, int fd) {
    char none = 0;
    if (read(fd, &none, 0) < 0) { // a directory opens, and no byte of it can be read: no track begins
        return unopened(session, errno);
    }
    Export run(session);
    session_emit(session, track_format_begin(run.text));
    const Ended ended = read_lines(run, fd);
    const int error = errno;
    if (ended == Ended::kWhole && !run.line.empty()) {
        take_byte(run, '\n', writer(run)); // the last line may have no end
    }
    return finish(run, status_of(session, ended, error));
}

} // namespace

int export_run(Session& session) {
    Export run(session);
    session.connection.output = STDOUT_FILENO;
    session_emit(session, track_format_begin(run.text));
    const TrackVisitor visit = writer(run);
    const Followed followed = follow_for_options(session, [&](const Record& record) {
        if (record.kind == RecordKind::kNmea) {
            track_line(run.track, record.text, visit);
        }
        return session.output_error == 0 && !follow_is_failed_start(session, record);
    });
    return finish(run, follow_finish(session, followed));
}

int export_run_file(Session& session) {
    const std::string& path = session.options.file;
    if (path == kStandardInput) {
        return export_from(session, STDIN_FILENO);
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return unopened(session, errno);
    }
    const int status = export_from(session, fd);
    close(fd);
    return status;
}

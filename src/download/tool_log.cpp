#include "download/tool_log.h"

#include "download/tool_time.h"

#include <cstdarg>
#include <cstdio>

namespace {

// The stamps are made before the stream is taken: a clock that fails logs a line of its own. Holding the
// stream until funlockfile keeps other threads' lines out of this one.
void begin_line(const char* level) {
    const char* timestamp = tool_log_timestamp();
    const char* elapsed = tool_log_elapsed();
    flockfile(stdout);
    printf("%s [%s]%s ", timestamp == nullptr ? "" : timestamp, level, elapsed);
}

} // namespace

void tool_log_error(const char* format, ...) {
    begin_line("E");
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}

void tool_log_info(const char* format, ...) {
    begin_line("I");
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    funlockfile(stdout);
}

// Sentences and answers made of any bytes: the monitor keeps within its bounds, and its picture is printable
// in every size.
#include "client/monitor_view.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr size_t kUsedMax = 512;

void check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "monitor: %s\n", what);
        abort();
    }
}

void check_picture(const Monitor& monitor, int width, int height, Clock::time_point now) {
    const Grid grid = monitor_draw(monitor, width, height, now);
    check(grid.rows.size() == static_cast<size_t>(height), "another height");
    for (const std::string& row : grid.rows) {
        check(row.size() == static_cast<size_t>(width), "another width");
        check(std::all_of(row.begin(), row.end(), [](char c) { return c >= ' ' && c <= '~'; }),
              "a byte that is not printable");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    Monitor monitor;
    auto now = Clock::time_point(std::chrono::seconds(1000));
    monitor.begin = now;
    for (size_t at = 0; at < input.size();) {
        const size_t end = std::min(input.find('\n', at), input.size());
        Record record;
        record.kind = input.compare(at, 5, "$PZUL") == 0 ? RecordKind::kChip : RecordKind::kNmea;
        record.text = input.substr(at, end - at);
        monitor_take(monitor, record, now);
        monitor_key(monitor, static_cast<unsigned char>(record.text.empty() ? '\n' : record.text.back()));
        now += std::chrono::milliseconds(37);
        at = end + 1;
    }
    check(monitor.sky.used.size() <= kUsedMax, "too many satellites in use");
    check_picture(monitor, kMonitorWidth, kMonitorHeight, now);
    check_picture(monitor, 7, 3, now);
    check_picture(monitor, 131, 50, now);
    return 0;
}

#include "client/relay_status.h"

#include "base/descriptor_guard.h"
#include "client/print.h"
#include "tavor/protocol.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

using Clock = std::chrono::steady_clock;
using Series = std::map<std::string, double, std::less<>>; // by name with labels

constexpr std::string_view kRequest = "GET /metrics HTTP/1.0\r\n\r\n";
constexpr std::string_view kGood = "HTTP/1.1 200 ";
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kName = "tavor_relay_";
constexpr size_t kAnswerMax = size_t{256} * 1024;
constexpr double kCountMax = 1e15;

// Where the labels of a series end: after the brace that is in no label's text.
size_t labels_end(std::string_view line, size_t at) {
    bool quoted = false;
    for (; at < line.size(); ++at) {
        if (quoted && line[at] == '\\') {
            ++at;
        } else if (line[at] == '"') {
            quoted = !quoted;
        } else if (line[at] == '}' && !quoted) {
            return at + 1;
        }
    }
    return std::string_view::npos;
}

void take_line(Series& series, std::string_view line) {
    const size_t name_end = line.find_first_of("{ ");
    const bool labelled = name_end != std::string_view::npos && line[name_end] == '{';
    const size_t end = labelled ? labels_end(line, name_end) : name_end;
    if (!line.starts_with(kName) || end >= line.size() || line[end] != ' ') {
        return;
    }
    double value = 0;
    const char* const number = line.data() + end + 1;
    const auto [rest, error] = std::from_chars(number, line.data() + line.size(), value);
    if (error == std::errc() && rest == line.data() + line.size()) {
        series[std::string(line.substr(kName.size(), end - kName.size()))] = value;
    }
}

Series series_of(std::string_view metrics) {
    Series series;
    for (size_t at = 0; at < metrics.size();) {
        const size_t end = metrics.find('\n', at);
        if (end == std::string_view::npos) {
            break; // it has not come in full
        }
        take_line(series, metrics.substr(at, end - at));
        at = end + 1;
    }
    return series;
}

std::optional<double> number(const Series& series, std::string_view name) {
    const auto found = series.find(name);
    return found == series.end() || !std::isfinite(found->second) ? std::nullopt
                                                                  : std::optional(found->second);
}

uint64_t count(const Series& series, std::string_view name) {
    const double value = number(series, name).value_or(0);
    return value > 0 && value < kCountMax ? static_cast<uint64_t>(value) : 0;
}

// The sum over a label of any text.
uint64_t sum(const Series& series, const std::string& name) {
    uint64_t all = 0;
    for (auto one = series.lower_bound(name + "{"); one != series.end() && one->first.starts_with(name + "{");
         ++one) {
        all += count(series, one->first);
    }
    return all;
}

// Text of the one label of an information; none when there is no such series.
std::optional<std::string> label(const Series& series, const std::string& begin) {
    const auto one = series.lower_bound(begin);
    if (one == series.end() || !one->first.starts_with(begin)) {
        return std::nullopt;
    }
    std::string text;
    for (size_t at = begin.size(); at < one->first.size() && one->first[at] != '"'; ++at) {
        const bool special = one->first[at] == '\\' && at + 1 < one->first.size();
        at += special ? 1 : 0;
        text += special && one->first[at] == 'n' ? '\n' : one->first[at];
    }
    return text;
}

bool wait_for(int fd, short events, Clock::time_point end) {
    pollfd wait = {fd, events, 0};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return left.count() > 0 && poll(&wait, 1, static_cast<int>(left.count())) > 0;
}

// All that comes until the other side ends; none when it doesn't by then.
std::optional<std::string> read_all(int fd, Clock::time_point end) {
    std::string text;
    std::array<char, 4096> bytes = {};
    while (text.size() <= kAnswerMax && wait_for(fd, POLLIN, end)) {
        const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size == 0) {
            return text;
        }
        if (size < 0 && errno != EAGAIN && errno != EINTR) {
            break;
        }
        text.append(bytes.data(), static_cast<size_t>(size > 0 ? size : 0));
    }
    return std::nullopt;
}

// Returns 0 or an error number.
int try_connect(int fd, const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return ENOENT; // no relay makes one there
    }
    path.copy(address.sun_path, path.size());
    return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : errno;
}

RelayStatus silent(std::string why) {
    RelayStatus status;
    status.why = std::move(why);
    return status;
}

RelayStatus ask(int fd, std::chrono::milliseconds limit) {
    const auto end = Clock::now() + limit;
    const bool sent = send(fd, kRequest.data(), kRequest.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
                      static_cast<ssize_t>(kRequest.size());
    const auto answer = sent ? read_all(fd, end) : std::nullopt;
    if (!answer) {
        return silent("it does not answer within " +
                      print_seconds(std::chrono::duration<double>(limit).count()) + " s");
    }
    const size_t body = answer->find(kHeadEnd);
    if (!answer->starts_with(kGood) || body == std::string::npos) {
        return silent("its answer is none");
    }
    const std::string_view metrics = std::string_view(*answer).substr(body + kHeadEnd.size());
    return relay_status_parse(metrics).value_or(silent("its answer is none"));
}

} // namespace

std::optional<RelayStatus> relay_status_parse(std::string_view metrics) {
    const Series series = series_of(metrics);
    const auto version = label(series, "build_info{version=\"");
    const auto daemon = label(series, "daemon_info{socket=\""); // the last line: all has come
    if (!version || !daemon) {
        return std::nullopt;
    }
    RelayStatus status;
    status.version = *version;
    status.daemon = *daemon;
    status.daemon_up = number(series, "daemon_up") == 1.0;
    status.positioning = number(series, "positioning") == 1.0;
    status.sentence_age_s = number(series, "sentence_age_seconds");
    status.fix_age_s = number(series, "fix_age_seconds");
    const auto quality = number(series, "fix_quality");
    status.quality =
        quality && *quality >= 0 && *quality <= 9 ? std::optional(static_cast<int>(*quality)) : std::nullopt;
    status.satellites_used = static_cast<int>(count(series, "satellites{state=\"used\"}") % 1000);
    status.local_consumers = count(series, "consumers{kind=\"local\"}");
    status.gpsd_consumers = count(series, "consumers{kind=\"gpsd\"}");
    status.dropped = sum(series, "dropped_total");
    status.let_go = count(series, "clients_let_go_total");
    status.daemon_restarts = count(series, "daemon_restarts_total");
    return status;
}

std::optional<RelayStatus> relay_status_ask(const std::string& socket, std::chrono::milliseconds limit) {
    const DescriptorGuard fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = fd.fd < 0 ? errno : try_connect(fd.fd, socket + TAVOR_RELAY_METRICS_SUFFIX);
    if (error == ENOENT || error == ENOTDIR || error == ECONNREFUSED) {
        return std::nullopt;
    }
    RelayStatus status = error == 0        ? ask(fd.fd, limit)
                         : error == EAGAIN ? silent("it does not answer")
                                           : silent(std::string("it can't be reached: ") + strerror(error));
    status.socket = socket;
    return status;
}

#include "chrony/chrony.h"

#include "chrony/chrony_sample.h"
#include "upstream/positioning.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kHeldS = 5; // after a sentence that may have waited

struct ChronyState {
    ChronySettings settings;
    int fd = -1;
    std::optional<int> problem;      // of the latest sample, 0: it was taken
    bool doubted = false;            // the latest time was not plausible
    std::chrono::sys_seconds latest; // second of the latest sample
    std::chrono::steady_clock::time_point held_until;
};

ChronyState state;

// 0, or the number of the error.
int send_sample(const ChronySample& sample) {
    sockaddr_un to = {};
    to.sun_family = AF_UNIX;
    state.settings.path.copy(to.sun_path, sizeof to.sun_path - 1);
    const ssize_t sent = sendto(state.fd, &sample, sizeof sample, MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? errno : 0;
}

// A line when it is another than before.
void tell_problem(int problem) {
    if (state.problem == problem) {
        return;
    }
    state.problem = problem;
    const char* const path = state.settings.path.c_str();
    if (problem == 0) {
        printf("tavor-relay: chronyd takes the time at %s\n", path);
    } else {
        printf("tavor-relay: chronyd does not take the time at %s: %s\n", path, strerror(problem));
    }
}

bool is_doubted(Utc time) {
    const bool doubted = !chrony_sample_is_plausible(time);
    if (doubted && !state.doubted) {
        printf("tavor-relay: the chip's time %s is not told to chronyd\n", utc_iso(time).c_str());
    }
    state.doubted = doubted;
    return doubted;
}

void take(std::string_view sentence, HubTime arrived) {
    const auto time = chrony_sample_time(sentence);
    if (!time || is_doubted(*time)) {
        return;
    }
    const auto second = std::chrono::floor<std::chrono::seconds>(*time);
    if (second != state.latest) {
        state.latest = second;
        tell_problem(send_sample(chrony_sample_make(*time, arrived)));
    }
}

void on_item(const HubItem& item) {
    const auto now = std::chrono::steady_clock::now();
    if (!item.arrived) {
        state.held_until = now + kHeldS * state.settings.second;
    } else if (item.kind == HubKind::kSentence && now >= state.held_until) {
        take(hub_text(item), *item.arrived);
    }
}

} // namespace

bool chrony_open(const ChronySettings& settings) {
    state = {};
    state.settings = settings;
    state.fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (state.fd < 0) {
        return false;
    }
    hub_take(on_item);
    positioning_want(+1);
    return true;
}

void chrony_close() {
    const int fd = state.fd;
    state = {};
    if (fd >= 0) {
        close(fd);
    }
}

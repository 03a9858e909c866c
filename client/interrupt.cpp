#include "client/interrupt.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 3> kEndingSignals = {SIGINT, SIGTERM, SIGHUP};
constexpr int kSignalStatusBase = 128; // a shell's status of a process that a signal ended

bool is_ignored(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

int interrupt_open() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : kEndingSignals) {
        if (!is_ignored(signal)) { // taking one that nohup has ignored would undo nohup
            sigaddset(&signals, signal);
        }
    }
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return -1;
    }
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

int interrupt_take(int descriptor) {
    signalfd_siginfo info = {};
    if (read(descriptor, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return SIGINT;
    }
    return static_cast<int>(info.ssi_signo);
}

int interrupt_pending() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    for (const int signal : kEndingSignals) {
        if (sigismember(&pending, signal) == 1) {
            return signal;
        }
    }
    return 0;
}

void interrupt_end(int signal) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    ::signal(signal, SIG_DFL);
    raise(signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    _exit(kSignalStatusBase + signal);
}

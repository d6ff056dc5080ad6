#include "signals.h"

#include "failure.h"

#include <orva/orva.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace {

// The signal that has requested the end, and the pipe that wakes a waiting reader; -1 exactly while closed. Several
// threads that read input use them.
std::atomic<int> gAsked{0};
std::atomic<int> gWake[2] = {-1, -1};
static_assert(std::atomic<int>::is_always_lock_free, "a handler may use no other");

extern "C" void onSignal(int signal) {
    if (gWake[1] >= 0) {
        const int error = errno;
        gAsked = signal;
        [[maybe_unused]] const auto written = ::write(gWake[1], "", 1);  // a full pipe has already woken the reader
        errno = error;
        return;
    }
    orva::remove_unfinished();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

}  // namespace

void handleSignals() {
    for (const int signal : {SIGPIPE, SIGXFSZ}) std::signal(signal, SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU}) {
        if (std::signal(signal, onSignal) == SIG_IGN) std::signal(signal, SIG_IGN);  // stays ignored, as under nohup
    }
}

signalDeferral::signalDeferral() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throwReadFailed("a pipe");
    gWake[0] = ends[0];
    gWake[1] = ends[1];
}

signalDeferral::~signalDeferral() {
    for (std::atomic<int>& end : gWake) ::close(end.exchange(-1));
}

int signalDescriptor() {
    return gWake[0];
}

void throwIfEndAsked() {
    if (gAsked != 0) throw endedBySignal{gAsked};
}

void endBy(int signal) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::abort();
}

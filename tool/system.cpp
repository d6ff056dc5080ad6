#include "system.h"

#include "signals.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace {

// Waits until the descriptor is ready. Its errors are left to the transfer that follows.
void waitFor(int descriptor, short event) {
    pollfd wanted[] = {{descriptor, event, 0}, {event == POLLIN ? signalDescriptor() : -1, POLLIN, 0}};
    while (::poll(wanted, 2, -1) < 0 && errno == EINTR) {
    }
    if (wanted[1].revents != 0) throwIfEndAsked();
}

// Moves `count` bytes by `transfer(bytes done, bytes left)` until all are done or it returns 0 or an error. Only a
// reader must notice a signal while it waits, so only a reader waits before it tries.
template <class Transfer>
int moved(int descriptor, short event, unsigned int count, Transfer transfer) {
    unsigned int done = 0;
    while (done < count) {
        if (event == POLLIN) waitFor(descriptor, event);
        const ssize_t size = transfer(done, count - done);
        if (size == 0) break;
        if (size > 0) {
            done += static_cast<unsigned int>(size);
        } else if (errno == EAGAIN) {
            waitFor(descriptor, event);
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return static_cast<int>(done);
}

}  // namespace

int readWaiting(int descriptor, void* buffer, unsigned int count) {
    auto* to = static_cast<char*>(buffer);
    return moved(descriptor, POLLIN, count,
                 [&](unsigned int done, unsigned int left) { return ::read(descriptor, to + done, left); });
}

int writeWaiting(int descriptor, const void* buffer, unsigned int count) {
    const auto* from = static_cast<const char*>(buffer);
    return moved(descriptor, POLLOUT, count,
                 [&](unsigned int done, unsigned int left) { return ::write(descriptor, from + done, left); });
}

int terminalWidth() {
    const char* kind = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): nothing here sets variables
    if (isatty(STDERR_FILENO) != 1 || (kind != nullptr && kind == std::string_view("dumb"))) return 0;
    winsize size{};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

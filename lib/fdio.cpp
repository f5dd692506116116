// fdio: descriptor reads and writes with the interruption/quit rule, and
// the poll()-based readiness probes. Owns no state.
#include "fdio.h"

#include <poll.h>

#include <cerrno>

#include "log.h"
#include "syswrap.h"
#include "util.h"

LOG_MODULE(LOG_MOD_FDIO);

// Runs one data call until it is not merely interrupted. A pending quit
// turns the interruption into a failure (errno 0) so that loops reading or
// writing during shut-down end promptly. The retry is bounded by signal
// delivery: without a new signal the call is not interrupted again.
template <class Call>
static ssize_t retry_intr(Call call) {
    for (;;) {
        ssize_t n = call();
        if (n >= 0) return n;
        if (errno != EINTR) return -1;
        errno = 0;
        if (g_quit) return -1;
    }
}

ssize_t nread(int fd, void *buf, size_t len, int flags) {
    if (len == 0) return 0;
    return retry_intr([&] { return W_read_f("nread", fd, buf, len, flags); });
}

ssize_t nwrite(int fd, const void *buf, size_t len, int flags) {
    if (len == 0) return 0;
    return retry_intr([&] { return W_write_f("nwrite", fd, buf, len, flags); });
}

ssize_t npread(int fd, void *buf, size_t len, off_t offset, int flags) {
    if (len == 0) return 0;
    return retry_intr([&] { return W_pread_f("npread", fd, buf, len, offset, flags); });
}

int poll_on_socket(int fd, short events, int timeout_ms) {
    pollfd pfd{.fd = fd, .events = events, .revents = 0};
    int rc = W_poll("poll_on_socket", &pfd, 1, timeout_ms);
    if (rc < 0) return -1;
    return rc == 0 ? 0 : (pfd.revents & 0xffff);
}

static int wait_for(int fd, short event, int timeout_ms) {
    int rev = poll_on_socket(fd, event, timeout_ms);
    if (rev < 0 || (rev & POLLERR) != 0) return -1;
    return (rev & event) != 0 ? 0 : 1;
}

int wait_to_read(int fd, int timeout_ms) { return wait_for(fd, POLLIN, timeout_ms); }

int wait_to_write(int fd, int timeout_ms) { return wait_for(fd, POLLOUT, timeout_ms); }

ssize_t test_read_fd(int fd, int timeout_ms) {
    char scratch[512];
    ssize_t nrd = 0;
    int rc = wait_to_read(fd, timeout_ms);
    if (rc == 0)
        nrd = nread(fd, scratch, sizeof(scratch), 0);
    else if (rc < 0)
        nrd = -1;
    if (nrd > 0)
        LOG_DBG("%s: fd=%d is readable [%ld bytes]\n", __func__, fd, long(nrd));
    else
        LOG_ERR("%s: cannot read from fd=%d, nrd=%ld\n", __func__, fd, long(nrd));
    return nrd;
}

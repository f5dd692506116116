// fwait: the wait for a final file (see fwait.h).
#include "fwait.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Without a terminal to update, a slow tick is enough: it only covers the
// moment between looking for a directory and watching it.
constexpr long TICK_MS = 1000;
constexpr long PROGRESS_TICK_MS = 100;
constexpr size_t PROGRESS_NAME_MAX = 48;

[[gnu::format(printf, 4, 5)]] int fail(char *why, size_t size, int rc, const char *fmt, ...) {
    if (why != nullptr && size > 0) {
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(why, size, fmt, ap);
        va_end(ap);
        if (n < 0) why[0] = '\0';
    }
    return rc;
}

long since_ms(const timespec &t0) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return long(now.tv_sec - t0.tv_sec) * 1000 + (now.tv_nsec - t0.tv_nsec) / 1000000;
}

bool is_dir(const char *path) {
    struct stat st {};
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Length of the deepest existing directory on the way from the data
// directory to the file (the file's own name excluded).
size_t deepest_dir(fw_ctx *w) {
    size_t best = w->base_len;
    const char *last = strrchr(w->path + w->base_len, '/');
    size_t limit = last != nullptr ? size_t(last - w->path) : w->base_len;
    for (size_t i = w->base_len + 1; i <= limit; ++i) {
        if (i != limit && w->path[i] != '/') continue;
        char saved = w->path[i];
        w->path[i] = '\0';
        bool there = is_dir(w->path);
        w->path[i] = saved;
        if (!there) break;
        best = i;
    }
    return best;
}

// Moves the watch to the deepest existing directory. The directory is looked
// for again after each new watch, since the daemon may make the next level
// between the look and the watch; the path's depth bounds the loop.
void rewatch(fw_ctx *w) {
    for (size_t round = 0; round < FW_PATH_SIZE; ++round) {
        size_t d = deepest_dir(w);
        if (d == w->watched_len && w->wd >= 0) return;
        char saved = w->path[d];
        w->path[d] = '\0';
        int wd = inotify_add_watch(w->ifd, w->path, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
        w->path[d] = saved;
        if (wd < 0) return;  // gone again: the next tick looks once more
        if (w->wd >= 0 && w->wd != wd) (void)inotify_rm_watch(w->ifd, w->wd);
        w->wd = wd;
        w->watched_len = d;
    }
}

bool file_there(const fw_ctx *w, long long *size) {
    struct stat st {};
    if (stat(w->path, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    *size = static_cast<long long>(st.st_size);
    return true;
}

void drain(int ifd) {
    alignas(inotify_event) char buf[4096];
    for (int i = 0; i < 64 && read(ifd, buf, sizeof buf) > 0; ++i) {
    }
}

void show_progress(const fw_ctx *w, int fd, long elapsed_ms) {
    const char *name = w->path + w->base_len + 1;
    size_t n = strlen(name);
    const char *cut = n > PROGRESS_NAME_MAX ? "..." : "";
    if (n > PROGRESS_NAME_MAX) name += n - PROGRESS_NAME_MAX;
    char line[128];
    int len = snprintf(line, sizeof line, "\rtrov-order: waiting for %s%s: %ld.%ld s ", cut, name,
                       elapsed_ms / 1000, (elapsed_ms % 1000) / 100);
    if (len > 0 && size_t(len) < sizeof line) (void)!write(fd, line, size_t(len));
}

void clear_progress(int fd) {
    static constexpr char CLEAR[] = "\r\033[K";
    (void)!write(fd, CLEAR, sizeof CLEAR - 1);
}

}  // namespace

int fw_open(fw_ctx *w, const char *data_dir, const char *rel, char *why, size_t why_size) {
    w->ifd = -1;
    w->wd = -1;
    w->watched_len = 0;
    w->path[0] = '\0';
    struct stat st {};
    if (stat(data_dir, &st) != 0) {
        int err = errno;
        return fail(why, why_size, err == ENOENT ? 2 : -1, "data directory [%s]: %s", data_dir,
                    strerror(err));
    }
    if (!S_ISDIR(st.st_mode))
        return fail(why, why_size, 20, "data directory [%s] is not a directory", data_dir);
    size_t dlen = strlen(data_dir);
    while (dlen > 1 && data_dir[dlen - 1] == '/') --dlen;
    int n = snprintf(w->path, sizeof w->path, "%.*s/%s", int(dlen), data_dir, rel);
    if (n < 0 || size_t(n) >= sizeof w->path)
        return fail(why, why_size, 36, "the file's path is too long");
    w->base_len = dlen;
    long long size = 0;
    if (file_there(w, &size))
        return fail(why, why_size, 17,
                    "%s is already there (%lld bytes); the daemon leaves it alone", w->path, size);
    w->ifd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (w->ifd < 0) {
        int err = errno;
        return fail(why, why_size, -1, "inotify_init1: %s", strerror(err));
    }
    fw_mark(w);
    return 0;
}

void fw_mark(fw_ctx *w) { clock_gettime(CLOCK_MONOTONIC, &w->start); }

int fw_wait(fw_ctx *w, long timeout_ms, int progress_fd, long long *size, long *elapsed_ms) {
    long tick = progress_fd >= 0 ? PROGRESS_TICK_MS : TICK_MS;
    int rc = 62;
    // Bounded by the monotonic deadline alone: every pass waits at most one
    // tick, and a count limit would end the wait early in a busy directory,
    // where every file the daemon makes wakes the loop once.
    while (true) {
        rewatch(w);
        if (file_there(w, size)) {
            rc = 0;
            break;
        }
        long elapsed = since_ms(w->start);
        if (elapsed >= timeout_ms) break;
        if (progress_fd >= 0) show_progress(w, progress_fd, elapsed);
        long left = timeout_ms - elapsed;
        pollfd p{w->ifd, POLLIN, 0};
        int r = poll(&p, 1, int(left < tick ? left : tick));
        if (r > 0) drain(w->ifd);
    }
    if (progress_fd >= 0) clear_progress(progress_fd);
    *elapsed_ms = since_ms(w->start);
    return rc;
}

void fw_close(fw_ctx *w) {
    if (w->ifd >= 0) (void)close(w->ifd);
    w->ifd = -1;
    w->wd = -1;
    w->watched_len = 0;
}

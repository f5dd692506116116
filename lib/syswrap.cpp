// syswrap: the W_ wrappers (see syswrap.h). The success path of each is the
// call plus one level test; lines are formatted only when they are shown, and
// errno is put back after logging so callers see what the call left there.
#include "syswrap.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "log.h"

LOG_MODULE(2);

// One log statement of this module that leaves errno as it found it: the
// stream write behind a log line can fail and set errno of its own.
#define SYSW_LOG(level, ...)                                                        \
    do {                                                                            \
        if (g_log->lh != nullptr || log_is_on(&s_loglevel, (level))) [[unlikely]] { \
            const int saved_errno = errno;                                          \
            log_stmt(g_log, &s_loglevel, (level), __VA_ARGS__);                     \
            errno = saved_errno;                                                    \
        }                                                                           \
    } while (0)

bool no_fault(int err, int flags) {
    if (flags != 0) return false;
    return err == EAGAIN || err == EPIPE || err == EINTR || err == ECONNRESET;
}

int W_close(const char *who, int fd) {
    int rc = close(fd);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: close(fd%d) ERROR(%d): %s\n", who, fd, err, strerror(err));
    } else {
        SYSW_LOG(LL_DEBUG, "%s: CLOSED(fd%d)\n", who, fd);
    }
    return rc;
}

void *W_calloc(const char *who, size_t n, size_t size) {
    void *p = calloc(n, size);
    if (p == nullptr) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: calloc(%ld, %ld) ERROR(%d): %s\n", who, long(n), long(size), err,
                 strerror(err));
    }
    return p;
}

void *W_realloc(const char *who, void *ptr, size_t size) {
    void *p = realloc(ptr, size);
    if (p == nullptr && size != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: realloc(%p, %ld) ERROR(%d): %s\n", who, ptr, long(size), err,
                 strerror(err));
    }
    return p;
}

off_t W_lseek(const char *who, int fd, off_t offset, int whence) {
    off_t rc = lseek(fd, offset, whence);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: lseek(%d, %ld, %d) ERROR(%d): %s\n", who, fd, long(offset), whence,
                 err, strerror(err));
    }
    return rc;
}

int W_unlink(const char *who, const char *path) {
    int rc = unlink(path);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: unlink(%s) ERROR(%d): %s\n", who, path, err, strerror(err));
    }
    return rc;
}

int W_ftruncate(const char *who, int fd, off_t length) {
    int rc = ftruncate(fd, length);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: ftruncate(%d, %ld) ERROR(%d): %s\n", who, fd, long(length), err,
                 strerror(err));
    }
    return rc;
}

int W_open(const char *who, const char *path, int flags, mode_t mode) {
    // Callers that do not care about the mode pass 0; a created file must
    // still be readable by the services that serve it.
    if (mode == 0) mode = 0644;
    int fd = open(path, flags, mode);
    if (fd < 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: open('%s', %d, 0x%lx) ERROR(%d): %s\n", who, path, flags,
                 static_cast<unsigned long>(mode), err, strerror(err));
    }
    return fd;
}

int W_connect(const char *who, int fd, const sockaddr *addr, socklen_t len) {
    int rc = connect(fd, addr, len);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        if (err == EINPROGRESS) {
            SYSW_LOG(LL_INFO, "%s: non-blocking connect in progress for fd%d\n", __func__, fd);
        } else {
            SYSW_LOG(LL_ERROR, "%s: connect(%d, %p, %ld) ERROR(%d): %s\n", who, fd,
                     static_cast<const void *>(addr), long(len), err, strerror(err));
        }
    }
    return rc;
}

ssize_t W_write_f(const char *who, int fd, const void *buf, size_t len, int flags) {
    ssize_t rc = write(fd, buf, len);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_LOG(LL_ERROR, "%s: write(%d, %p, %ld) ERROR(%d): %s\n", who, fd, buf, long(len),
                     err, strerror(err));
    }
    return rc;
}

ssize_t W_read_f(const char *who, int fd, void *buf, size_t len, int flags) {
    ssize_t rc = read(fd, buf, len);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_LOG(LL_ERROR, "%s: read(%d, %p, %ld) ERROR(%d): %s\n", who, fd, buf, long(len),
                     err, strerror(err));
    }
    return rc;
}

ssize_t W_pread_f(const char *who, int fd, void *buf, size_t n, off_t offset, int flags) {
    ssize_t rc = pread(fd, buf, n, offset);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        if (!no_fault(err, flags))
            SYSW_LOG(LL_ERROR, "%s: pread(%d, %p, %ld, %ld) ERROR(%d): %s\n", who, fd, buf, long(n),
                     long(offset), err, strerror(err));
    }
    return rc;
}

ssize_t W_sendfile_f(const char *who, int out_fd, int in_fd, off_t *offset, size_t count,
                     int flags) {
    ssize_t rc = sendfile(out_fd, in_fd, offset, count);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        // Without an offset pointer the file position is used; -1 says so.
        // The line has no newline of its own and that is kept: the caller's
        // next line continues it.
        if (!no_fault(err, flags))
            SYSW_LOG(LL_ERROR, "%s: LNX sendfile(%d<-%d, %ld, %ld) ERROR(%d): %s", who, out_fd,
                     in_fd, offset != nullptr ? long(*offset) : -1L, long(count), err,
                     strerror(err));
    }
    return rc;
}

int W_socket(const char *who, int domain, int type, int protocol) {
    int fd = socket(domain, type, protocol);
    if (fd < 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: socket(%d, %d, %d) ERROR(%d): %s\n", who, domain, type, protocol,
                 err, strerror(err));
    } else {
        SYSW_LOG(LL_DEBUG, "%s opened socket fd=%d (%d, %d, %d)\n", who, fd, domain, type,
                 protocol);
    }
    return fd;
}

int W_getsockopt(const char *who, int fd, int level, int name, void *val, socklen_t *len) {
    int rc = getsockopt(fd, level, name, val, len);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: getsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", who, fd, level,
                 name, val, len != nullptr ? long(*len) : 0L, err, strerror(err));
    }
    return rc;
}

int W_setsockopt(const char *who, int fd, int level, int name, const void *val, socklen_t len) {
    int rc = setsockopt(fd, level, name, val, len);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: setsockopt(%d, %d, %d, %p, %ld) ERROR(%d): %s\n", who, fd, level,
                 name, val, long(len), err, strerror(err));
    }
    return rc;
}

int W_bind(const char *who, int fd, const sockaddr *addr, socklen_t len) {
    int rc = bind(fd, addr, len);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: bind(%d, %p, %ld): ERROR(%d): %s\n", who, fd,
                 static_cast<const void *>(addr), long(len), err, strerror(err));
    }
    return rc;
}

int W_listen(const char *who, int fd, int backlog) {
    int rc = listen(fd, backlog);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: listen(%d, %d) ERROR(%d): %s\n", who, fd, backlog, err,
                 strerror(err));
    }
    return rc;
}

int W_getaddrinfo(const char *who, const char *node, const char *service, const addrinfo *hints,
                  addrinfo **res) {
    int rc = getaddrinfo(node, service, hints, res);
    if (rc != 0) [[unlikely]] {
        // getaddrinfo has its own codes; errno matters only for EAI_SYSTEM,
        // but both go into the line.
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: getaddrinfo(%s, %s, %p, %p): ERROR(%d:%d): %s\n", who,
                 node != nullptr ? node : "(null)", service != nullptr ? service : "(null)",
                 static_cast<const void *>(hints), static_cast<void *>(res), rc, err,
                 gai_strerror(rc));
    }
    return rc;
}

int W_select(const char *who, int n, fd_set *r, fd_set *w, fd_set *e, timeval *tv) {
    int rc = select(n, r, w, e, tv);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        // A signal ending the wait is routine; it is only of interest when
        // tracing this module.
        if (err != EINTR || LOG_DBG_ON())
            SYSW_LOG(LL_ERROR, "%s: select(%d, %p, %p, %p, %p) ERROR(%d): %s\n", who, n,
                     static_cast<void *>(r), static_cast<void *>(w), static_cast<void *>(e),
                     static_cast<void *>(tv), err, strerror(err));
    }
    return rc;
}

int W_accept(const char *who, int fd, sockaddr *addr, socklen_t *len) {
    return W_accept4(who, fd, addr, len, 0);
}

int W_accept4(const char *who, int fd, sockaddr *addr, socklen_t *len, int flags) {
    int rc = accept4(fd, addr, len, flags);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        if (err != EAGAIN)
            SYSW_LOG(LL_ERROR, "%s: accept(%d, %p, %ld) ERROR(%d): %s\n", who, fd,
                     static_cast<void *>(addr), len != nullptr ? long(*len) : 0L, err,
                     strerror(err));
    }
    return rc;
}

int W_poll(const char *who, pollfd *fds, nfds_t n, int timeout_ms) {
    int rc = poll(fds, n, timeout_ms);
    if (rc <= 0) [[unlikely]] {
        if (rc == 0) {
            SYSW_LOG(LL_WARN, "%s: poll() has timed out after %d ms\n", who, timeout_ms);
        } else {
            const int err = errno;
            SYSW_LOG(LL_ERROR, "%s: poll(%p, %ld, %d) ERROR(%d): %s\n", who,
                     static_cast<void *>(fds), long(n), timeout_ms, err, strerror(err));
        }
    }
    return rc;
}

int W_dup2(const char *who, int oldfd, int newfd) {
    int rc = dup2(oldfd, newfd);
    if (rc < 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: dup2(%d, %d) ERROR(%d): %s\n", who, oldfd, newfd, err,
                 strerror(err));
    }
    return rc;
}

int W_pipe(const char *who, int fds[2]) {
    int rc = pipe(fds);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: pipe([%d,%d]) ERROR(%d): %s\n", who, fds[0], fds[1], err,
                 strerror(err));
    }
    return rc;
}

pid_t W_fork(const char *who) {
    pid_t pid = fork();
    if (pid < 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: fork() ERROR(%d): %s\n", who, err, strerror(err));
    }
    return pid;
}

int W_kill(const char *who, pid_t pid, int sig) {
    int rc = kill(pid, sig);
    if (rc != 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: kill(%ld, %d) ERROR(%d): %s\n", who, long(pid), sig, err,
                 strerror(err));
    }
    return rc;
}

ssize_t W_sendto(const char *who, int fd, const void *buf, size_t len, int flags,
                 const sockaddr *addr, socklen_t addrlen) {
    ssize_t rc = sendto(fd, buf, len, flags, addr, addrlen);
    if (rc <= 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: sendto(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", who, fd, buf,
                 static_cast<unsigned long>(len), flags, err, strerror(err));
    }
    return rc;
}

ssize_t W_recvfrom(const char *who, int fd, void *buf, size_t len, int flags, sockaddr *addr,
                   socklen_t *addrlen) {
    ssize_t rc = recvfrom(fd, buf, len, flags, addr, addrlen);
    // An empty datagram is logged too: no sender of ours ever produces one,
    // so errno here is whatever it held before the call.
    if (rc <= 0) [[unlikely]] {
        const int err = errno;
        SYSW_LOG(LL_ERROR, "%s: recvfrom(%d, %p, %lu, %d, ...) ERROR(%d): %s\n", who, fd, buf,
                 static_cast<unsigned long>(len), flags, err, strerror(err));
    }
    return rc;
}

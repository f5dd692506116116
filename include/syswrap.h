// syswrap: the W_ wrappers around system calls and allocation. Each takes the
// calling function's name first, makes the call unchanged and, on failure,
// logs one error line naming the caller, the call, errno and its text. The
// result and errno are exactly the call's. Log module 2, so SYSW_DEBUG=1 can
// raise their tracing alone.
#pragma once

#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

// Expected-error filter of the data-moving (_f) wrappers: with flags 0,
// EAGAIN, EPIPE, EINTR and ECONNRESET are normal events and not logged.
bool no_fault(int err, int flags);
inline bool is_eagain(int err) { return err == EAGAIN; }

// Success is traced at debug.
int W_close(const char *who, int fd);
void *W_calloc(const char *who, size_t n, size_t size);
// A size of 0 frees ptr and may give null; that is not a failure and not logged.
void *W_realloc(const char *who, void *ptr, size_t size);
off_t W_lseek(const char *who, int fd, off_t offset, int whence);
int W_unlink(const char *who, const char *path);
int W_ftruncate(const char *who, int fd, off_t length);
// A mode of 0 is replaced by 0644.
int W_open(const char *who, const char *path, int flags, mode_t mode);
// EINPROGRESS on a non-blocking socket is not an error: it is traced at info.
int W_connect(const char *who, int fd, const sockaddr *addr, socklen_t len);
// flags: 0 lets no_fault() silence the expected errors, non-zero logs them all.
ssize_t W_write_f(const char *who, int fd, const void *buf, size_t len, int flags);
ssize_t W_read_f(const char *who, int fd, void *buf, size_t len, int flags);
ssize_t W_pread_f(const char *who, int fd, void *buf, size_t n, off_t offset, int flags);
// The failure line has no newline of its own; offset may be null.
ssize_t W_sendfile_f(const char *who, int out_fd, int in_fd, off_t *offset, size_t count,
                     int flags);
// Success is traced at debug (fd and arguments).
int W_socket(const char *who, int domain, int type, int protocol);
int W_getsockopt(const char *who, int fd, int level, int name, void *val, socklen_t *len);
int W_setsockopt(const char *who, int fd, int level, int name, const void *val, socklen_t len);
int W_bind(const char *who, int fd, const sockaddr *addr, socklen_t len);
int W_listen(const char *who, int fd, int backlog);
int W_getaddrinfo(const char *who, const char *node, const char *service, const addrinfo *hints,
                  addrinfo **res);
// EINTR is logged only while the module is at debug.
int W_select(const char *who, int n, fd_set *r, fd_set *w, fd_set *e, timeval *tv);
// EAGAIN is silent: a non-blocking listener was drained.
int W_accept(const char *who, int fd, sockaddr *addr, socklen_t *len);
// accept4: flags (SOCK_NONBLOCK, SOCK_CLOEXEC) apply to the new socket in the
// same call. Logged as accept.
int W_accept4(const char *who, int fd, sockaddr *addr, socklen_t *len, int flags);
// A result of 0 (time-out) is logged at warning.
int W_poll(const char *who, pollfd *fds, nfds_t n, int timeout_ms);
int W_dup2(const char *who, int oldfd, int newfd);
int W_pipe(const char *who, int fds[2]);
pid_t W_fork(const char *who);
int W_kill(const char *who, pid_t pid, int sig);
// Both log any result of 0 or less: an empty datagram is never expected.
ssize_t W_sendto(const char *who, int fd, const void *buf, size_t len, int flags,
                 const sockaddr *addr, socklen_t addrlen);
ssize_t W_recvfrom(const char *who, int fd, void *buf, size_t len, int flags, sockaddr *addr,
                   socklen_t *addrlen);

// fdio: reading and writing descriptors. One read or write that retries on
// interruption unless the process is quitting, and the poll()-based
// readiness probes. Log module 4.
#pragma once

#include <sys/types.h>

#include <cstddef>

// flags of the data calls go to the wrappers' expected-error filter: bit 0
// logs every error; 0 keeps EAGAIN, EPIPE, EINTR and ECONNRESET silent.
constexpr int FDIO_LOG_ALL = 1;

// One read. Bytes read (> 0); 0 at end of stream or for len 0; -1 on error
// with errno standing (EAGAIN included), or with errno 0 when a signal
// interrupted it while g_quit was set.
ssize_t nread(int fd, void *buf, size_t len, int flags);
// One write, same rules; 0 for len 0 or a zero-byte write. A short write is
// the caller's to finish.
ssize_t nwrite(int fd, const void *buf, size_t len, int flags);
// nread at a file offset.
ssize_t npread(int fd, void *buf, size_t len, off_t offset, int flags);

// One poll() of fd for events. The returned event bits (0 on time-out), or
// -1 when poll failed.
int poll_on_socket(int fd, short events, int timeout_ms);
// 0 = input is there, 1 = nothing readable within timeout_ms, -1 = poll
// error or POLLERR (even with input flagged too).
int wait_to_read(int fd, int timeout_ms);
// 0 = writable, 1 = not writable within timeout_ms, -1 = poll error or POLLERR.
int wait_to_write(int fd, int timeout_ms);

// Diagnostic: waits up to timeout_ms for input and reads up to 512 bytes of
// it. The bytes read, or 0/-1 when nothing could be read (logged).
ssize_t test_read_fd(int fd, int timeout_ms);

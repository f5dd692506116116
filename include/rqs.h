// rqs: the reactor. Owns the one epoll instance of the process and the
// loop's notion of "now"; hands every readiness event, with the object
// registered for it, to the application's callback table. Also services
// non-pollable descriptors and inotify file watches. Knows nothing about
// downloads.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

constexpr uint32_t RQS_EVENT_READ = 1;   // EPOLLIN
constexpr uint32_t RQS_EVENT_WRITE = 4;  // EPOLLOUT

// Flags handed to read/write/error callbacks.
constexpr int RQS_FL_ERR = 1;  // EPOLLERR
constexpr int RQS_FL_HUP = 2;  // EPOLLHUP or EPOLLRDHUP

// Change flags handed to on_file_modified.
constexpr int RQS_FCHG_GONE = 0x4;
constexpr int RQS_FCHG_MOVED = 0x10000;
constexpr int RQS_FCHG_DELETED = 0x20000;
constexpr int RQS_FCHG_ATTRIB = 0x40000;

using rqs_event_cb = int (*)(int fd, int flags, void *udata, void *aux);

// The application's callbacks, in slot order; an empty slot is skipped.
struct rqs_callbacks {
    void (*update_tmout)(timespec *ts);  // negative field: wait without limit; zero: do not block
    int (*on_idle)();
    rqs_event_cb read;
    rqs_event_cb write;
    rqs_event_cb error;
    int (*post_process)();
    void (*on_file_modified)(int wd, int flags, void *udata, void *aux);
    void (*time_out)();
    bool (*is_dormant)();
};

struct rqs_config {
    rqs_callbacks cb;
    unsigned quit_on_zero_fds : 1;
};

// Creates the epoll instance and the inotify descriptor; the configuration
// is copied. 0, -1 (epoll/inotify) or the watch map's error code.
[[nodiscard]] int rqs_init(const rqs_config *cfg);
// Runs until quit; the first non-zero code that ended it, else the number of
// handlers that failed in the last pass (0 on a clean quit).
int rqs_event_loop();
void rqs_destroy();

// Level-triggered registration; udata (when not null) is what the callbacks
// receive and must stay valid until fd is removed. 0 or -1.
[[nodiscard]] int rqs_add_reader(int fd, void *udata);
[[nodiscard]] int rqs_add_writer(int fd, void *udata);
[[nodiscard]] int rqs_mod_reader(int fd, void *udata);
// flags: 1 adds EPOLLIN, 2 adds EPOLLOUT, 0 leaves only hang-up and error.
[[nodiscard]] int rqs_mod(int fd, void *udata, int flags);
// Removes fd; must come before fd is closed. No-op (0) after rqs_destroy.
int rqs_rm_fd(int fd, ...);

int rqs_add_nopoll_reader(int fd, ssize_t *index, void *udata);
int rqs_add_nopoll_writer(int fd, ssize_t *index, void *udata);
int rqs_rm_nopoll(ssize_t j);
// Schedules slot j for removal at the next purge: safe inside a callback.
int rqs_pprm_nopoll(ssize_t j);
int rqs_purge_nopoll_rm();

// The watch descriptor, or -1.
int rqs_add_file_watch(void *udata, const char *path);
int rqs_rm_file_watch(int wd);

// spec 0: pollable + no-poll, 1: pollable, 2: no-poll.
size_t rqs_fd_count(int spec);
// type 1: the loop stage (0 wait, 1 dispatch, 2 post-process, 3 after idle).
int rqs_ctx(int type);

// The loop's current time (monotonic), stamped after every wait. The
// pointer form lets the application overwrite it.
timespec rqs_now();
timespec *rqs_now_ref();

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

// fd is the low half of the registered data: the descriptor only for a
// registration without user data. flags: RQS_FL_* (0 for no-poll entries).
// aux is always null. Non-zero counts the event as failed and ends the loop
// after the pass, so return it only for a condition that must stop the program.
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

// Creates the epoll instance and the inotify descriptor with its watch map,
// and stamps the loop time; the configuration is copied, so cfg need not
// outlive the call. A null cfg is a fatal assertion. 0; -1 when epoll or
// inotify cannot be created; the map's error code when the map cannot (the
// loop time is stamped all the same). Call rqs_destroy after a failure too.
[[nodiscard]] int rqs_init(const rqs_config *cfg);
// Runs passes until a quit condition: g_quit, a non-zero post_process or
// on_idle, a failed no-poll service, a failed wait (other than an
// interruption with g_quit clear), a pass in which a handler failed, or
// nothing registered with quit_on_zero_fds set. The first non-zero code that
// ended it, else the number of handlers that failed in the last pass (0 on a
// clean quit). Fatal assertion before rqs_init.
int rqs_event_loop();
// Closes the epoll and inotify descriptors and releases every container.
// Safe on a reactor that was never initialised and safe to repeat.
void rqs_destroy();

// Level-triggered registration. udata, when not null, is what the callbacks
// receive and must stay valid until fd is removed; when null, the callbacks
// receive the descriptor number in its place. 0, or -1 with errno from
// epoll_ctl (logged). Fatal assertion after rqs_destroy.
[[nodiscard]] int rqs_add_reader(int fd, void *udata);
[[nodiscard]] int rqs_add_writer(int fd, void *udata);
// Changes an existing registration to input only.
[[nodiscard]] int rqs_mod_reader(int fd, void *udata);
// flags: 1 adds EPOLLIN, 2 adds EPOLLOUT, 0 leaves only hang-up and error.
[[nodiscard]] int rqs_mod(int fd, void *udata, int flags);
// Removes fd; must come before fd is closed, or the count of registered
// descriptors drifts. The epoll_ctl result; a no-op (0) after rqs_destroy.
// Further arguments are ignored. An event of fd already in this pass's
// buffer is still dispatched: the callee must recognise stale user data.
int rqs_rm_fd(int fd, ...);
// For a descriptor the caller closes right after and has never duplicated:
// the close itself takes it out of the epoll set, so only the count of
// registered descriptors is adjusted (one system call less per connection).
int rqs_forget_fd(int fd);

// No-poll entries are serviced on every pass (read or write callback with
// flags 0) and make the wait return at once. The slot index is written to
// *index when given. Always 0; running out of memory aborts.
int rqs_add_nopoll_reader(int fd, ssize_t *index, void *udata);
int rqs_add_nopoll_writer(int fd, ssize_t *index, void *udata);
// Frees slot j at once; *index is left alone. A slot that is not taken is
// fatal. 0.
int rqs_rm_nopoll(ssize_t j);
// Schedules slot j for removal at the next purge: the safe way from inside a
// callback. Negative j is fatal. 0.
int rqs_pprm_nopoll(ssize_t j);
// Writes -1 through each scheduled entry's index, then frees the slot; a
// slot that is not taken is fatal. 0.
int rqs_purge_nopoll_rm();

// Watches path for content, attribute, deletion and move changes, reported
// to on_file_modified with udata. The watch descriptor, or -1. The same
// file twice gives the same watch descriptor, which is refused (-1) while
// the first registration stays intact.
int rqs_add_file_watch(void *udata, const char *path);
// 0, -1 when the kernel refuses (a watch the kernel already dropped after a
// deletion too: it stays counted), or the map's error code.
int rqs_rm_file_watch(int wd);

// spec 0: pollable + no-poll, 1: pollable, 2: no-poll; anything else is a
// fatal assertion.
size_t rqs_fd_count(int spec);
// type 1: the loop stage (0 wait, 1 dispatch, 2 post-process after the
// events, 3 post-process after idle). Other types: logged, 0.
int rqs_ctx(int type);

// The loop's current time (monotonic), stamped after every wait. The
// pointer form lets the application overwrite it.
timespec rqs_now();
timespec *rqs_now_ref();

// rqs: the reactor. Owns the epoll instance, the event buffer, the no-poll
// table, the inotify descriptor with its watch map, and the loop time; all of
// it is module-static because there is exactly one loop per process.
#include "rqs.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <type_traits>

#include "fdio.h"
#include "gkh.h"
#include "log.h"
#include "syswrap.h"
#include "tags.h"
#include "timeop.h"
#include "util.h"
#include "xvdat.h"

LOG_MODULE(0);

namespace {

// One no-poll registration. Slots are recycled without being cleared, so
// every field is written on registration.
struct nopoll_ref {
    uint32_t events;  // RQS_EVENT_READ or RQS_EVENT_WRITE
    int fd;
    void *udata;
    ssize_t *index;  // the owner's copy of the slot index; null = none
};
static_assert(std::is_trivially_copyable_v<nopoll_ref>);

struct rqs_context {
    int loopfd;          // 0 = never initialised, -1 = destroyed
    xvec events;         // epoll_event records; len = count of the last wait
    xvec changes;        // never filled; released by rqs_destroy
    size_t poll_fds;     // descriptors registered with epoll
    xvlst nopoll;        // nopoll_ref; the slot index is the entry's identity
    xvec nopoll_rm;      // ssize_t slot indices waiting for the next purge
    timespec tmout;      // written by update_tmout; a negative field = no limit
    timespec itime;      // loop time, CLOCK_MONOTONIC
    int loop_stage;      // 0 wait, 1 dispatch, 2 post-process, 3 after idle
    sigset_t wait_mask;  // the signal mask in force while waiting
};

// Signals that talk to the loop through flags (quit, debug toggle, and the
// two whose handlers a program may install). While the loop runs they are
// blocked and only let through inside the wait: a signal that came between
// the loop's look at the quit flag and the wait would otherwise set the flag
// with nobody left to see it until some descriptor happened to wake the loop.
constexpr int LOOP_SIGNALS[] = {SIGTERM, SIGINT, SIGQUIT, SIGHUP, SIGUSR1, SIGUSR2};

sigset_t loop_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : LOOP_SIGNALS) sigaddset(&set, sig);
    return set;
}

constexpr size_t INO_BUF_SIZE = 4096;
constexpr n32_tag INO_TAG = mk_tag("ino");
constexpr uint32_t INO_WATCH_MASK =
    IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
static_assert(INO_WATCH_MASK == 0xC0E);

struct inotify_ctx {
    n32_tag tag;  // "ino": this record is the epoll user data of fd
    int fd;       // -1 = not open
    bool in_epoll;
    alignas(inotify_event) char buf[INO_BUF_SIZE];
    nkht_t wfd_ht;      // watch descriptor -> the udata given for it
    ssize_t wfd_count;  // active watches
};

constexpr size_t EVBUF_BLK = 10;
constexpr size_t NOPOLL_FIRST = 20;
constexpr size_t NOPOLL_BLK = 10;
constexpr int WARN_EVENTS_ABOVE = 15;

rqs_context s_rqs;
rqs_config s_cfg;
inotify_ctx s_ino = {
    .tag = INO_TAG, .fd = -1, .in_epoll = false, .buf = {}, .wfd_ht = 0, .wfd_count = 0};

epoll_event *ev_at(size_t i) { return static_cast<epoll_event *>(s_rqs.events.data) + i; }
nopoll_ref *np_at(size_t j) { return static_cast<nopoll_ref *>(s_rqs.nopoll.data) + j; }
ssize_t *rm_at(size_t i) { return static_cast<ssize_t *>(s_rqs.nopoll_rm.data) + i; }

const char *op_name(int op) {
    switch (op) {
        case EPOLL_CTL_ADD:
            return "EPOLL_CTL_ADD";
        case EPOLL_CTL_MOD:
            return "EPOLL_CTL_MOD";
        default:
            return "EPOLL_CTL_DEL";
    }
}

void stamp_time(const char *who) {
    set_now(&s_rqs.itime);
    LOG_DBG("%s: rqs time: %lu.%09lu\n", who, static_cast<unsigned long>(s_rqs.itime.tv_sec),
            static_cast<unsigned long>(s_rqs.itime.tv_nsec));
}

// Level-triggered on purpose: a callback may take only part of what is ready
// and be called again on the next pass.
int epoll_reg(const char *who, int op, int fd, void *udata, uint32_t bits) {
    XASSERT(s_rqs.loopfd >= 0);
    epoll_event ev{};
    ev.events = bits;
    // Without user data the callbacks get the descriptor number in its place.
    ev.data.u64 = udata != nullptr ? reinterpret_cast<uintptr_t>(udata)
                                   : static_cast<uint64_t>(static_cast<uint32_t>(fd));
    if (epoll_ctl(s_rqs.loopfd, op, fd, &ev) != 0) {
        int err = errno;
        LOG_ERR("%s: epoll_ctl(%d, %s, %d, {0x%lx, %p}) ERROR(%d): %s\n", who, s_rqs.loopfd,
                op_name(op), fd, static_cast<unsigned long>(bits), udata, err, strerror(err));
        errno = err;
        return -1;
    }
    LOG_DBG("%s: OK fd=%d %s to epoll with events=0x%lx, data=%p\n", who, fd,
            op == EPOLL_CTL_ADD ? "added" : "modified", static_cast<unsigned long>(bits),
            ev.data.ptr);
    if (op == EPOLL_CTL_ADD) {
        s_rqs.poll_fds += 1;
        LOG_DBG("%s: fd%d, poll_fds count=%lu\n", who, fd, s_rqs.poll_fds);
    }
    return 0;
}

// The buffer holds one record per registered descriptor so that one wait
// drains all readiness. It is never shrunk, and it always has room for at
// least one record: epoll_wait refuses a zero-sized buffer, and a reactor
// with nothing registered should still sleep out its time-out (and wake for
// a signal) instead of failing.
void size_event_buffer() {
    size_t want = s_rqs.poll_fds > 0 ? s_rqs.poll_fds : 1;
    if (want <= s_rqs.events.max_len) return;
    if (xvec_reserve(&s_rqs.events, want, sizeof(epoll_event), EVBUF_BLK) != 0) {
        LOG_ERR("%s: xvec_reserve failed\n", __func__);
        log_abort_here();
    }
}

int wait_timeout_ms() {
    const timespec &t = s_rqs.tmout;
    int ms = -1;
    if (t.tv_sec >= 0 && t.tv_nsec >= 0) {
        // Clamped: a far deadline must not wrap into a negative (endless) wait.
        long long v = static_cast<long long>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
        ms = v > INT_MAX ? INT_MAX : static_cast<int>(v);
    }
    if (s_rqs.nopoll.len > 0) {
        LOG_DBG("%s: no-poll events present: changing to 0 timeout\n", __func__);
        ms = 0;
    }
    LOG_DBG("%s: timeout=%f sec\n", __func__, ms < 0 ? -1.0 : ms / 1000.0);
    return ms;
}

// The count of events, or negative with errno standing.
int wait4events(int timeout_ms) {
    const int maxev = static_cast<int>(s_rqs.events.max_len);
    int n = epoll_pwait(s_rqs.loopfd, ev_at(0), maxev, timeout_ms, &s_rqs.wait_mask);
    int err = errno;
    if (n < 0) {
        if (err != EINTR)
            LOG_ERR("%s: epoll_wait(%d...) ERROR(%d): %s\n", __func__, s_rqs.loopfd, err,
                    strerror(err));
        else
            LOG_INF("%s interrupted, quit=%d\n", __func__, g_quit);
    } else {
        if (n > WARN_EVENTS_ABOVE && n == maxev)
            LOG_WRN("%s: all event slots populated, might need more\n", __func__);
        s_rqs.events.len = static_cast<size_t>(n);
        if (n > 0) LOG_DBG("%s: got %d events\n", __func__, n);
    }
    stamp_time(__func__);
    errno = err;
    return n;
}

// One letter per inotify mask bit, in a fixed order, for the debug trace.
void mask_letters(uint32_t mask, char *out) {
    static constexpr struct {
        uint32_t bit;
        char letter;
    } k_letters[] = {{IN_ACCESS, 'A'},    {IN_ATTRIB, 'T'},      {IN_CREATE, 'c'},
                     {IN_DELETE, 'd'},    {IN_DELETE_SELF, 'D'}, {IN_MODIFY, 'y'},
                     {IN_MOVE_SELF, 'M'}, {IN_MOVED_FROM, 'f'},  {IN_MOVED_TO, 't'},
                     {IN_OPEN, 'O'},      {IN_CLOSE_WRITE, 'W'}, {IN_CLOSE_NOWRITE, 'w'}};
    for (const auto &l : k_letters)
        if ((mask & l.bit) != 0) *out++ = l.letter;
    *out = '\0';
}

void on_file_change(int wd, uint32_t mask) {
    void *udata = nullptr;
    if (nkht_get(s_ino.wfd_ht, wd, &udata) != 0) {
        LOG_ERR("%s: wfd=%d is not found.\n", __func__, wd);
        return;
    }
    if (s_cfg.cb.on_file_modified == nullptr) return;
    int chg = 0;
    if ((mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) chg |= RQS_FCHG_GONE;
    if ((mask & IN_MOVE_SELF) != 0) chg |= RQS_FCHG_MOVED;
    if ((mask & IN_DELETE_SELF) != 0) chg |= RQS_FCHG_DELETED;
    if ((mask & IN_ATTRIB) != 0) chg |= RQS_FCHG_ATTRIB;
    s_cfg.cb.on_file_modified(wd, chg, udata, nullptr);
}

int read_inotify(int flags) {
    if (flags != 0) {
        LOG_PNC("%s: error condition on inotify fd=%d\n", __func__, s_ino.fd);
        log_abort_here();
    }
    int avail = 0;
    if (int rc = ioctl(s_ino.fd, FIONREAD, &avail); rc != 0) {
        int err = errno;
        LOG_ERR("%s: ioctl FIONREAD ERROR(%d): %s\n", __func__, err, strerror(err));
        return rc;
    }
    if (avail < 0 || static_cast<size_t>(avail) > INO_BUF_SIZE) {
        LOG_ERR("%s: incompatible buffer size (avail=%ld bytes, max=%ld)\n", __func__,
                static_cast<long>(avail), static_cast<long>(INO_BUF_SIZE));
        // Nothing is read, so the level-triggered descriptor stays ready: a
        // success here would spin the loop on it for ever.
        return 34;
    }
    ssize_t got = nread(s_ino.fd, s_ino.buf, static_cast<size_t>(avail), 0);
    if (got < 0) return g_quit ? 0 : -1;  // logged by nread unless the quit cut it short
    LOG_DBG("%s: %ld/%ld bytes of inotify data expected/read\n", __func__, static_cast<long>(avail),
            static_cast<long>(got));
    long records = 0;
    size_t off = 0;
    const size_t end = static_cast<size_t>(got);
    while (off + sizeof(inotify_event) <= end) {
        const auto *ie = reinterpret_cast<const inotify_event *>(s_ino.buf + off);
        const size_t reclen = sizeof(inotify_event) + ie->len;
        if (off + reclen > end) break;  // the kernel never splits a record; stay inside the read
        if (LOG_DBG_ON()) {
            char letters[16];
            mask_letters(ie->mask, letters);
            LOG_DBG("INOTIFY (ev=%p): wd%d, mask=0x%04x [%s] cookie=%u [%s]\n",
                    static_cast<const void *>(ie), ie->wd, ie->mask, letters, ie->cookie,
                    ie->len > 0 ? ie->name : "");
        }
        if ((ie->mask & INO_WATCH_MASK) != 0)
            on_file_change(ie->wd, ie->mask);
        else if ((ie->mask & IN_IGNORED) != 0)
            LOG_DBG("%s: IN_IGNORED (0x%lx)\n", __func__, static_cast<unsigned long>(ie->mask));
        else
            LOG_WRN("%s: unhandled inotify mask: 0x%lx\n", __func__,
                    static_cast<unsigned long>(ie->mask));
        off += reclen;
        records += 1;
    }
    LOG_DBG("%s: %ld inotify_event records processed\n", __func__, records);
    return 0;
}

// Dispatches events[i]; non-zero counts it as failed.
int on_event(size_t i) {
    XASSERT(s_rqs.events.max_len != 0);
    const epoll_event *ev = ev_at(i);
    const uint32_t e = ev->events;
    int flags = 0;
    if ((e & EPOLLERR) != 0) flags |= RQS_FL_ERR;
    if ((e & (EPOLLHUP | EPOLLRDHUP)) != 0) flags |= RQS_FL_HUP;
    // Only meaningful for registrations without user data; otherwise it is
    // the low half of the pointer.
    const int fd = static_cast<int>(static_cast<uint32_t>(ev->data.u64));
    void *udata = ev->data.ptr;
    const rqs_callbacks &cb = s_cfg.cb;

    if ((e & (EPOLLIN | EPOLLOUT)) == 0 && flags != 0)
        return cb.error != nullptr ? cb.error(fd, flags, udata, nullptr) : 0;
    if ((e & EPOLLIN) != 0) {
        // Identity, not the tag: registrations without user data carry a
        // descriptor number here, which must never be dereferenced.
        if (udata == &s_ino && s_ino.tag.num == INO_TAG.num) return read_inotify(flags);
        return cb.read != nullptr ? cb.read(fd, flags, udata, nullptr) : 0;
    }
    if ((e & EPOLLOUT) != 0) return cb.write != nullptr ? cb.write(fd, flags, udata, nullptr) : 0;
    LOG_ERR("%s: unsupported event mask: 0x%lx\n", __func__, static_cast<unsigned long>(e));
    return -1;
}

// Visits every occupied slot in slot order. The table may grow or lose
// entries inside a callback, so nothing is cached across calls.
int service_nopoll() {
    int rc = 0;
    const rqs_callbacks &cb = s_cfg.cb;
    for (size_t j = 0; j <= s_rqs.nopoll.last && j < s_rqs.nopoll.max_len; ++j) {
        if (s_rqs.nopoll.taken[j] == 0) continue;
        const nopoll_ref r = *np_at(j);
        LOG_DBG("%s: idx=%ld fd=%d udata=%p\n", __func__, static_cast<long>(j), r.fd, r.udata);
        if (r.events == RQS_EVENT_READ) {
            if (cb.read != nullptr) rc = cb.read(r.fd, 0, r.udata, nullptr);
        } else if (r.events == RQS_EVENT_WRITE) {
            if (cb.write != nullptr) rc = cb.write(r.fd, 0, r.udata, nullptr);
        } else {
            LOG_ERR("%s: unrecognized event mask: 0x%lx\n", __func__,
                    static_cast<unsigned long>(r.events));
        }
    }
    if (rc != 0) LOG_ERR("%s: FAILED(%d)\n", __func__, rc);
    return rc;
}

bool nopoll_slot_taken(ssize_t j) {
    const xvlst &l = s_rqs.nopoll;
    return j >= 0 && static_cast<size_t>(j) < l.max_len && static_cast<size_t>(j) <= l.last &&
           l.taken != nullptr && l.taken[j] != 0;
}

int add_nopoll(const char *who, int fd, ssize_t *index, void *udata, uint32_t events) {
    ssize_t j = xvlst_add(&s_rqs.nopoll, sizeof(nopoll_ref), NOPOLL_BLK);
    if (j < 0) {
        LOG_PNC("%s: cannot add an item to nopoll\n", who);
        log_abort_here();
    }
    *np_at(static_cast<size_t>(j)) =
        nopoll_ref{.events = events, .fd = fd, .udata = udata, .index = index};
    if (index != nullptr) *index = j;
    LOG_DBG("%s[%ld]: fd%d, events=0x%lx, udata=%p, total=%ld events.\n", who, static_cast<long>(j),
            fd, static_cast<unsigned long>(events), udata, static_cast<long>(s_rqs.nopoll.len));
    return 0;
}

int wfd_map_add(int wd, void *udata) {
    void *stored = udata;
    int rc = nkht_add(s_ino.wfd_ht, wd, &stored);
    if (rc == GKH_PRESENT) {
        LOG_ERR("%s: key wfd=%d is already taken [%p]\n", __func__, wd, stored);
    } else if (rc != 0) {
        LOG_ERR("%s: ERROR(%d) adding wfd=%d, udata=%p: %s\n", __func__, rc, wd, udata,
                strerror(rc));
    } else {
        LOG_DBG("%s: wfd=%d, udata=%p\n", __func__, wd, udata);
    }
    return rc;
}

int wfd_map_rm(int wd) {
    void *udata = nullptr;
    int rc = nkht_rm(s_ino.wfd_ht, wd, &udata);
    if (rc != 0)
        LOG_ERR("%s: ERROR(%d): %s\n", __func__, rc, strerror(rc));
    else
        LOG_DBG("%s: wfd=%d, udata=%p removed.\n", __func__, wd, udata);
    return rc;
}

int rm_watch(const char *who, int wd) {
    if (inotify_rm_watch(s_ino.fd, wd) != 0) {
        int err = errno;
        LOG_ERR("%s: inotify_rm_watch(%d, %d) ERROR(%d): %s\n", who, s_ino.fd, wd, err,
                strerror(err));
        return -1;
    }
    return 0;
}

}  // namespace

int rqs_init(const rqs_config *cfg) {
    XASSERT(cfg != nullptr);
    s_cfg = *cfg;
    int fd = epoll_create(128);
    if (fd < 0) {
        int err = errno;
        // The text names the newer call; kept so the line stays searchable.
        LOG_ERR("%s: epoll_create1() ERROR(%d): %s\n", __func__, err, strerror(err));
        s_rqs.loopfd = -1;
        return -1;
    }
    if (fd == 0) {
        // A daemon starts with descriptor 0 closed, but 0 means "never
        // initialised" here: move the instance out of its way.
        int hi = fcntl(fd, F_DUPFD, 1);
        int err = errno;
        (void)W_close(__func__, fd);
        if (hi < 0) {
            LOG_ERR("%s: fcntl(F_DUPFD) ERROR(%d): %s\n", __func__, err, strerror(err));
            s_rqs.loopfd = -1;
            return -1;
        }
        fd = hi;
    }
    s_rqs.loopfd = fd;
    s_rqs.poll_fds = 0;
    s_rqs.loop_stage = 0;
    // The table takes nopoll_ref entries; the removal vector slot indices.
    if (xvlst_reserve(&s_rqs.nopoll, NOPOLL_FIRST, sizeof(nopoll_ref), NOPOLL_BLK) != 0 ||
        xvec_reserve(&s_rqs.nopoll_rm, NOPOLL_FIRST, sizeof(ssize_t), NOPOLL_BLK) != 0) {
        LOG_PNC("%s: cannot reserve memory for g_rqs.nopoll/rm\n", __func__);
        log_abort_here();
    }
    s_rqs.tmout = timespec{.tv_sec = -1, .tv_nsec = 0};

    s_ino.tag = INO_TAG;
    s_ino.in_epoll = false;
    s_ino.wfd_count = 0;
    s_ino.fd = inotify_init();
    if (s_ino.fd < 0) {
        int err = errno;
        LOG_ERR("%s: inotify_init1 ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    int rc = nkht_create(&s_ino.wfd_ht, 1024, tw_shift);
    if (rc != 0) LOG_ERR("%s: failed to create wfd/inotify lookup\n", __func__);
    stamp_time(__func__);
    return rc;
}

void rqs_destroy() {
    if (s_ino.fd >= 0) {
        (void)W_close(__func__, s_ino.fd);
        s_ino.fd = -1;
    }
    if (s_ino.wfd_ht != 0) {
        nkht_destroy(s_ino.wfd_ht, nullptr);
        s_ino.wfd_ht = 0;
    }
    s_ino.in_epoll = false;
    s_ino.wfd_count = 0;
    if (s_rqs.loopfd > 0) (void)W_close(__func__, s_rqs.loopfd);
    s_rqs.loopfd = -1;
    s_rqs.poll_fds = 0;
    xvlst_reset(&s_rqs.nopoll);
    xvec_reset(&s_rqs.nopoll_rm);
    xvec_reset(&s_rqs.events);
    xvec_reset(&s_rqs.changes);
}

int rqs_add_reader(int fd, void *udata) {
    return epoll_reg(__func__, EPOLL_CTL_ADD, fd, udata, EPOLLIN);
}

int rqs_add_writer(int fd, void *udata) {
    return epoll_reg(__func__, EPOLL_CTL_ADD, fd, udata, EPOLLOUT);
}

int rqs_mod_reader(int fd, void *udata) {
    return epoll_reg(__func__, EPOLL_CTL_MOD, fd, udata, EPOLLIN);
}

int rqs_mod(int fd, void *udata, int flags) {
    uint32_t bits = 0;
    char letters[3];
    char *p = letters;
    if ((flags & 1) != 0) {
        bits |= EPOLLIN;
        *p++ = 'R';
    }
    if ((flags & 2) != 0) {
        bits |= EPOLLOUT;
        *p++ = 'W';
    }
    if (bits == 0) {
        // Stays registered but quiet: only hang-up and error are reported.
        bits = EPOLLHUP;
        *p++ = 'H';
    }
    *p = '\0';
    // Kept without a newline of its own, as the line has always been written.
    LOG_DBG("%s: fd%d, udata=%p, flags='%s'", __func__, fd, udata, letters);
    return epoll_reg(__func__, EPOLL_CTL_MOD, fd, udata, bits);
}

int rqs_rm_fd(int fd, ...) {
    if (s_rqs.loopfd < 0) return 0;
    epoll_event ev{};  // kernels before 2.6.9 insist on a non-null event
    int rc = epoll_ctl(s_rqs.loopfd, EPOLL_CTL_DEL, fd, &ev);
    if (rc != 0) {
        int err = errno;
        LOG_ERR("%s: epoll_ctl(%d, EPOLL_CTL_DEL, %d,..) ERROR(%d): %s\n", __func__, s_rqs.loopfd,
                fd, err, strerror(err));
        errno = err;
    } else {
        XASSERT(s_rqs.poll_fds > 0);
        s_rqs.poll_fds -= 1;
        LOG_DBG("%s: fd%d, poll_fds count=%lu\n", __func__, fd, s_rqs.poll_fds);
    }
    LOG_DBG("%s: REMOVE fd=%d from epoll %s [rc=%d]\n", __func__, fd, rc != 0 ? "FAILED" : "OK",
            rc);
    return rc;
}

int rqs_add_nopoll_reader(int fd, ssize_t *index, void *udata) {
    return add_nopoll(__func__, fd, index, udata, RQS_EVENT_READ);
}

int rqs_add_nopoll_writer(int fd, ssize_t *index, void *udata) {
    return add_nopoll(__func__, fd, index, udata, RQS_EVENT_WRITE);
}

int rqs_rm_nopoll(ssize_t j) {
    XASSERT(j >= 0);
    if (!nopoll_slot_taken(j) || xvlst_del(&s_rqs.nopoll, static_cast<size_t>(j), nullptr) != 0) {
        LOG_PNC("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
        log_abort_here();
    }
    return 0;
}

int rqs_pprm_nopoll(ssize_t j) {
    XASSERT(j >= 0);
    ssize_t pos = xvec_add(&s_rqs.nopoll_rm, sizeof(ssize_t), 1);
    if (pos < 0) {
        LOG_PNC("%s: cannot add an item to nopoll_rm\n", __func__);
        log_abort_here();
    }
    *rm_at(static_cast<size_t>(pos)) = j;
    LOG_DBG("%s: added no-poll event[%ld] at pos=%ld, total: %ld no-poll events.\n", __func__,
            static_cast<long>(j), static_cast<long>(pos), static_cast<long>(s_rqs.nopoll.len));
    return 0;
}

int rqs_purge_nopoll_rm() {
    for (size_t i = 0; i < s_rqs.nopoll_rm.len; ++i) {
        const ssize_t j = *rm_at(i);
        // Checked before the entry is read: a stale index would otherwise
        // have -1 written through an owner pointer that is no longer ours.
        if (!nopoll_slot_taken(j)) {
            LOG_PNC("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
            log_abort_here();
        }
        const nopoll_ref *r = np_at(static_cast<size_t>(j));
        LOG_DBG("%s: fd=%d, udata=%p (j=%ld)\n", __func__, r->fd, r->udata, static_cast<long>(j));
        if (r->index != nullptr) *r->index = -1;
        if (xvlst_del(&s_rqs.nopoll, static_cast<size_t>(j), nullptr) != 0) {
            LOG_PNC("%s: failed to remove j=%ld\n", __func__, static_cast<long>(j));
            log_abort_here();
        }
    }
    s_rqs.nopoll_rm.len = 0;
    return 0;
}

int rqs_add_file_watch(void *udata, const char *path) {
    int wd = inotify_add_watch(s_ino.fd, path, INO_WATCH_MASK);
    if (wd < 0) {
        int err = errno;
        LOG_ERR("%s: inotify_add_watch(%p, '%s', %lu) ERROR(%d): %s\n", __func__,
                static_cast<void *>(&s_ino), path, static_cast<unsigned long>(INO_WATCH_MASK), err,
                strerror(err));
        return -1;
    }
    if (int rc = wfd_map_add(wd, udata); rc != 0) {
        // The kernel hands out the same watch for the same file, so a taken
        // key is an earlier registration's live watch: leave it alone.
        if (rc != GKH_PRESENT) (void)rm_watch(__func__, wd);
        return -1;
    }
    if (!s_ino.in_epoll) {
        if (rqs_add_reader(s_ino.fd, &s_ino) != 0) {
            (void)wfd_map_rm(wd);
            (void)rm_watch(__func__, wd);
            return -1;
        }
        LOG_DBG("inotify fd%d will be watched.\n", s_ino.fd);
        s_ino.in_epoll = true;
    }
    s_ino.wfd_count += 1;
    LOG_DBG("%s: inotify watch=%d for [%s]: udata=%p, wfd_count=%ld\n", __func__, wd, path, udata,
            static_cast<long>(s_ino.wfd_count));
    return wd;
}

int rqs_rm_file_watch(int wd) {
    // A watch the kernel dropped by itself (its file deleted) fails here too
    // and stays counted, as any refused removal does.
    if (inotify_rm_watch(s_ino.fd, wd) != 0) {
        int err = errno;
        LOG_ERR("%s: inotify_rm_watch(%d, %d) ERROR(%d): %s\n", __func__, s_ino.fd, wd, err,
                strerror(err));
        return -1;
    }
    s_ino.wfd_count -= 1;
    XASSERT(s_ino.wfd_count >= 0);
    if (s_ino.wfd_count == 0 && s_ino.in_epoll) {
        (void)rqs_rm_fd(s_ino.fd);
        LOG_DBG("inotify fd%d is no longer watched.\n", s_ino.fd);
        s_ino.in_epoll = false;
    }
    return wfd_map_rm(wd);
}

namespace {
// Runs the handlers of the loop's signals that are waiting, if any: the
// mask is opened only when something is pending. A busy loop looks at the
// pending set once per tick of the coarse clock (a few milliseconds, read
// without a system call), not once per pass: a signal then waits at most a
// tick and a pass, and a pass that handles one order costs no extra call.
void deliver_pending(const sigset_t &blocked) {
    static timespec last_look;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (now.tv_sec == last_look.tv_sec && now.tv_nsec == last_look.tv_nsec) return;
    last_look = now;
    sigset_t pending;
    if (sigpending(&pending) != 0) return;
    bool any = false;
    for (int sig : LOOP_SIGNALS) any = any || sigismember(&pending, sig) == 1;
    if (!any) return;
    sigprocmask(SIG_SETMASK, &s_rqs.wait_mask, nullptr);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
}
}  // namespace

int rqs_event_loop() {
    XASSERT(s_rqs.loopfd != 0);
    const rqs_callbacks &cb = s_cfg.cb;
    if (cb.update_tmout != nullptr) cb.update_tmout(&s_rqs.tmout);
    LOG_INF("Entering event loop\n");
    const sigset_t blocked = loop_signals();
    sigprocmask(SIG_BLOCK, &blocked, &s_rqs.wait_mask);
    int rc = 0;
    long failed = 0;
    while (rc == 0 && !g_quit) {
        s_rqs.loop_stage = 0;
        bool nothing = s_rqs.poll_fds == 0 && s_rqs.nopoll.len == 0;
        if (nothing && cb.is_dormant != nullptr) nothing = cb.is_dormant();
        if (s_cfg.quit_on_zero_fds && nothing) {
            LOG_CRI("%s: no fd's, no activity, quitting now.\n", __func__);
            break;
        }
        s_rqs.events.len = 0;
        failed = 0;
        // With only no-poll entries there is nothing to wait for: spin over them.
        if (s_rqs.poll_fds != 0 || s_rqs.nopoll.len == 0) {
            if (cb.update_tmout != nullptr) cb.update_tmout(&s_rqs.tmout);
            size_event_buffer();
            if (wait4events(wait_timeout_ms()) < 0) {
                int err = errno;
                if (err != EINTR || g_quit) {
                    rc = err;
                    break;
                }
            }
            // A wait that found descriptors ready returns at once without
            // delivering the signals that are pending: let them in now, or a
            // descriptor that stays ready would keep the loop deaf to them.
            if (s_rqs.events.len > 0) deliver_pending(blocked);
            if (g_quit) break;
            if (cb.time_out != nullptr) cb.time_out();
        } else {
            // No wait to let the signals through.
            deliver_pending(blocked);
            if (g_quit) break;
        }
        // Room for one removal per entry, so scheduling one from a callback
        // needs no allocation. Removals still pending from the idle work of
        // the previous pass are kept for the purge below.
        if (xvec_reserve(&s_rqs.nopoll_rm, s_rqs.nopoll.len, sizeof(ssize_t), 1) != 0) {
            LOG_PNC("Failed to reserve %ld elements for nopoll_rm container.\n",
                    static_cast<long>(s_rqs.nopoll.len));
            log_abort_here();
        }
        if (s_rqs.nopoll.len > 0 && (rc = service_nopoll()) != 0) break;
        if ((rc = rqs_purge_nopoll_rm()) != 0) break;
        const size_t nev = s_rqs.events.len;
        if (nev > 0)
            LOG_DBG("%s: processing %d pollable events\n", __func__, static_cast<int>(nev));
        s_rqs.loop_stage = 1;
        for (size_t i = 0; i < nev; ++i)
            if (on_event(i) != 0) failed += 1;
        s_rqs.loop_stage = 2;
        if (cb.post_process != nullptr && (rc = cb.post_process()) != 0) break;
        if ((rc = rqs_purge_nopoll_rm()) != 0) break;
        if (failed != 0) {
            LOG_DBG("%s: failed %ld events\n", __func__, failed);
            break;
        }
        if (cb.on_idle != nullptr && (rc = cb.on_idle()) != 0) break;
        s_rqs.loop_stage = 3;
        if (cb.post_process != nullptr && (rc = cb.post_process()) != 0) break;
    }
    sigprocmask(SIG_SETMASK, &s_rqs.wait_mask, nullptr);
    if (rc == EINTR && g_quit) rc = 0;
    LOG_INF("Exiting event loop, %d failed, rc=%d, quit=%d\n", static_cast<int>(failed), rc,
            g_quit);
    return rc != 0 ? rc : static_cast<int>(failed);
}

int rqs_forget_fd(int fd) {
    XASSERT(s_rqs.poll_fds > 0);
    s_rqs.poll_fds -= 1;
    LOG_DBG("%s: fd%d, poll_fds count=%lu\n", __func__, fd,
            static_cast<unsigned long>(s_rqs.poll_fds));
    return 0;
}

size_t rqs_fd_count(int spec) {
    switch (spec) {
        case 0:
            return s_rqs.poll_fds + s_rqs.nopoll.len;
        case 1:
            return s_rqs.poll_fds;
        case 2:
            return s_rqs.nopoll.len;
        default:
            LOG_ERR("%s: invalid specifier: %d\n", __func__, spec);
            XASSERT(spec >= 0 && spec <= 2);
            return 0;
    }
}

int rqs_ctx(int type) {
    if (type == 1) return s_rqs.loop_stage;
    LOG_ERR("%s: invalid request type: %d\n", __func__, type);
    return 0;
}

timespec rqs_now() { return s_rqs.itime; }
timespec *rqs_now_ref() { return &s_rqs.itime; }

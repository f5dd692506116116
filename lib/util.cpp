// util: process-level services (see util.h): daemon mode, the pid file, user
// switch, CPU pinning, core dumps, the runtime home, signal handlers with the
// flags they set, and small file-system helpers. Owns the g_ signal flags.
#include "util.h"

#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "scope_exit.h"
#include "syswrap.h"

LOG_MODULE(0);

volatile int g_quit = 0;
volatile int g_goodbye = 0;
volatile int g_hup = 0;
volatile int g_usr1 = 0;
volatile int g_tdbg = 0;
volatile int g_sigctx = 0;

int daemonize() {
    pid_t pid = W_fork(__func__);
    if (pid < 0) return -1;
    // _exit, not exit: the parent must not flush stdio buffers or run
    // destructors that the child inherited and still owns.
    if (pid > 0) _exit(0);

    const char *step = nullptr;
    if (setsid() < 0)
        step = "setsid";
    else if (chdir("/") != 0)
        step = "chdir";
    if (step != nullptr) {
        const int err = errno;
        LOG_ERR("%s: failed at %s, ERROR(%d): %s\n", __func__, step, err, strerror(err));
        return -1;
    }
    umask(0);
    // Descriptors 0 and 1 are about to close; a log on one of them would
    // follow whatever the next open() puts there.
    if (fileno(log_fp(g_log)) < 3) log_default(g_log, stderr);
    // Descriptor 2 stays: the log may still write there until start-up has
    // opened the log file. 0 and 1 are not just closed: the next open() would
    // get them, and a stray write to standard output would land in that file.
    if (std_fd_to_null(0) != 0 || std_fd_to_null(1) != 0) return -1;

    pid = W_fork(__func__);
    if (pid < 0) return -1;
    if (pid > 0) _exit(0);
    return 0;
}

int std_fd_to_null(int fd) {
    int nfd = W_open(__func__, "/dev/null", O_RDWR, 0);
    if (nfd < 0) return -1;
    int rc = nfd == fd ? 0 : W_dup2(__func__, nfd, fd);
    if (nfd != fd) (void)W_close(__func__, nfd);
    return rc < 0 ? -1 : 0;
}

int run_as_user(const char *name) {
    errno = 0;
    const passwd *pw = getpwnam(name);
    if (pw == nullptr) {
        const int err = errno;
        // getpwnam reports an absent user as null with errno 0 or, on some
        // back ends, one of these codes.
        if (err == 0 || err == ENOENT || err == ESRCH || err == EBADF || err == EPERM)
            LOG_ERR("%s: getpwnam: user %s not found\n", __func__, name);
        else
            LOG_ERR("%s: getpwnam(%s): %s\n", __func__, name, strerror(err));
        return -1;
    }
    // Root's supplementary groups would otherwise stay with the process after
    // the switch: take the user's own instead (only root may, and only root
    // needs to).
    if (geteuid() == 0 && initgroups(pw->pw_name, pw->pw_gid) != 0) {
        const int err = errno;
        LOG_ERR("%s: initgroups(%s) ERROR(%d): %s\n", __func__, pw->pw_name, err, strerror(err));
        return -1;
    }
    return run_as_user_id(pw->pw_uid, pw->pw_gid);
}

int run_as_user_id(uid_t uid, gid_t gid) {
    // The group goes first: once the uid is dropped setgid is not allowed.
    if (setgid(gid) != 0) {
        const int err = errno;
        LOG_ERR("%s: setgid(%ld) ERROR(%d): %s\n", __func__, long(gid), err, strerror(err));
        return -1;
    }
    if (setuid(uid) != 0) {
        const int err = errno;
        LOG_ERR("%s: setuid(%ld) ERROR(%d): %s\n", __func__, long(uid), err, strerror(err));
        return -1;
    }
    return 0;
}

int write_lock(int fd) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;  // to the end of the file, however long it grows
    return fcntl(fd, F_SETLK, &fl);
}

// Everything between open and close of the pid file; the caller closes fd.
// Lines carry the caller's name: the pid file is its business.
static int fill_pidfile(const char *who, int fd, const char *path, pid_t pid, ino_t *inode_out,
                        int flags) {
    if (write_lock(fd) != 0) {
        const int err = errno;
        if (flags & 1)
            LOG_ERR("Another instance is already running\n");
        else if (err == EAGAIN || err == EACCES)
            LOG_ERR("%s: file [%s] is locked (another instance of daemon must be running)\n", who,
                    path);
        else
            LOG_ERR("fcntl write-lock ERROR(%d): %s\n", err, strerror(err));
        return -1;
    }
    if (W_ftruncate(who, fd, 0) != 0) return -1;

    char text[21];  // a long in decimal: at most 20 characters
    int n = snprintf(text, sizeof text, "%ld", long(pid));
    if (n < 0 || size_t(n) >= sizeof text) {
        LOG_ERR("%s: ERROR(%d) or not enough space for pid\n", who, n);
        return -1;
    }
    if (W_write_f(who, fd, text, size_t(n), 1) != n) return -1;

    if (inode_out != nullptr) {
        struct stat st {};
        if (fstat(fd, &st) != 0) {
            const int err = errno;
            LOG_ERR("%s: fstat(fd%d,..) ERROR(%d): %s\n", who, fd, err, strerror(err));
            return -1;
        }
        *inode_out = st.st_ino;
    }
    return 0;
}

int create_pidfile_extra(const char *path, pid_t pid, ino_t *inode_out, int flags) {
    XASSERT(path != nullptr);
    XASSERT(pid >= 1);
    if (path[0] == '\0') {
        LOG_ERR("%s: no path specified\n", __func__);
        return -1;
    }
    int rc = -1;
    int fd = W_open(__func__, path, O_WRONLY | O_CREAT | O_NOCTTY, 0644);
    if (fd >= 0) {
        rc = fill_pidfile(__func__, fd, path, pid, inode_out, flags);
        // Closing drops the lock. That is intended: the lock only keeps two
        // instances from writing the file at the same moment, and a later
        // instance is allowed to overwrite it.
        if (W_close(__func__, fd) != 0) rc = -1;
    }
    if ((flags & 1) == 0) {
        if (rc == 0)
            LOG_INF("Created pidfile [%s] with pid=%ld.\n", path, long(pid));
        else
            LOG_ERR("%s: failed to create pidfile [%s] with pid=%ld.\n", __func__, path, long(pid));
    }
    return rc;
}

int pin2cpu(int cpu) {
    cpu_set_t set;  // CPU_SETSIZE bits, 1024 with glibc
    CPU_ZERO(&set);
    // CPU_SET ignores a number outside the set, so an out-of-range cpu
    // leaves the set empty and the kernel refuses it with EINVAL.
    CPU_SET(cpu, &set);
    int rc = sched_setaffinity(getpid(), sizeof set, &set);
    if (rc != 0) {
        const int err = errno;
        LOG_ERR("%s: sched_setaffinity(cpu=%d) ERROR(%d): %s\n", __func__, cpu, err, strerror(err));
    }
    return rc;
}

int set_unlimited_core(rlimit *rlimit_out) {
    // After setuid the kernel clears the dumpable flag; without it no core
    // is written whatever the limit says.
    if (prctl(PR_GET_DUMPABLE) == 0) {
        LOG_INF("%s: process is currently NOT core-dumpable; will enforce\n", __func__);
        if (prctl(PR_SET_DUMPABLE, 1) != 0) {
            const int err = errno;
            LOG_ERR("%s: prctl(PR_SET_DUMPABLE, 1) ERROR(%d): %s\n", __func__, err, strerror(err));
            return -1;
        }
    }
    rlimit local{};
    rlimit *rl = rlimit_out != nullptr ? rlimit_out : &local;
    if (getrlimit(RLIMIT_CORE, rl) != 0) {
        const int err = errno;
        LOG_ERR("%s: getrlimit ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    if (rl->rlim_cur == RLIM_INFINITY) {
        LOG_DBG("%s: already set\n", __func__);
        return 0;
    }
    LOG_DBG("%s: current=%ld/%ld\n", __func__, long(rl->rlim_cur), long(rl->rlim_max));
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) != 0) {
        const int err = errno;
        LOG_ERR("%s: setrlimit ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    LOG_DBG("%s: OK\n", __func__);
    return 0;
}

int goto_runtime_home(const char *dir, const char *alt) {
    const char *target = alt;
    if (dir != nullptr) {
        if (chdir(dir) == 0) return 0;
        const int err = errno;
        if (err != EACCES) {
            LOG_ERR("chdir(%s) (param) ERROR(%d): %s\n", dir, err, strerror(err));
            return -1;
        }
        // The start-up directory may be closed to the user we switched to;
        // its home is the next best place for core files.
        const uid_t euid = geteuid();
        errno = 0;
        const passwd *pw = getpwuid(euid);
        if (pw == nullptr) {
            const int perr = errno;
            LOG_ERR("getpwuid(%ld) ERROR(%d): %s\n", long(euid), perr, strerror(perr));
            return -1;
        }
        LOG_DBG("%s: EUID(%ld) home: %s\n", __func__, long(euid), pw->pw_dir);
        target = pw->pw_dir;
    }
    XASSERT(target != nullptr);
    if (chdir(target) != 0) {
        const int err = errno;
        LOG_ERR("chdir(%s) (alt) ERROR(%d): %s\n", target, err, strerror(err));
        return -1;
    }
    return 0;
}

// No SA_RESTART: a quit signal must end the reactor's wait with EINTR so
// the loop sees g_quit at once.
static int install(int signo, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    return sigaction(signo, &sa, nullptr);
}

int handle_quit_signals(void (*handler)(int)) {
    for (int signo : {SIGTERM, SIGQUIT, SIGINT}) {
        if (install(signo, handler) != 0) {
            const int err = errno;
            LOG_ERR("%s: sigaction (quit) ERROR(%d): %s\n", __func__, err, strerror(err));
            return -1;
        }
    }
    return 0;
}

int handle_sig(int signo, void (*handler)(int)) {
    if (install(signo, handler) != 0) {
        const int err = errno;
        LOG_ERR("%s: sigaction (signo=%d) ERROR(%d): %s\n", __func__, signo, err, strerror(err));
        return -1;
    }
    return 0;
}

int ignore_sigpipe() {
    if (install(SIGPIPE, SIG_IGN) != 0) {
        const int err = errno;
        LOG_ERR("%s: sigaction (SIGPIPE) ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    return 0;
}

// glibc rescans from the start, and reinitialises its internal state, only
// when optind is 0; 1 would keep state from the previous pass.
void reset_getopt_state() { optind = 0; }

const char *pick_first_file(const char *const *paths, size_t count) {
    for (size_t i = 0; i < count; ++i)
        if (paths[i] != nullptr && access(paths[i], F_OK) == 0) return paths[i];
    return nullptr;
}

int dir_check(char *path, int strip_slash) {
    if (strcmp(path, "/") == 0) return 0;
    if (strip_slash) {
        size_t len = strlen(path);
        if (len > 0 && path[len - 1] == '/') path[len - 1] = '\0';
    }
    DIR *d = opendir(path);
    if (d == nullptr) {
        const int err = errno;
        LOG_ERR("%s: opendir('%s', ...) ERROR(%d): %s\n", __func__, path, err, strerror(err));
        return err;
    }
    (void)closedir(d);
    return 0;
}

int mk_fpath_dirs(const char *path, mode_t mode) {
    const char *last = strrchr(path, '/');
    if (last == nullptr) return 0;  // a bare file name: nothing to create
    char dirs[PATH_MAX];
    const size_t len = size_t(last - path);
    if (len >= sizeof dirs) {
        LOG_ERR("%s: path too long (%zu bytes), max=%zu\n", __func__, len, sizeof dirs - 1);
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(dirs, path, len);
    dirs[len] = '\0';
    LOG_DBG("%s: dirs=%s\n", __func__, dirs);

    // The common case is a directory that is there already (every order
    // into the same directory): one attempt on the whole path settles it.
    if (dirs[0] != '\0' && (mkdir(dirs, mode) == 0 || errno == EEXIST)) return 0;

    // Each prefix is made in turn; the loop also runs once for the whole
    // copy, where the terminating zero stands in for the next "/".
    char *p = dirs[0] == '/' ? dirs + 1 : dirs;
    for (;; ++p) {
        const char c = *p;
        if (c != '/' && c != '\0') continue;
        *p = '\0';
        if (dirs[0] != '\0' && mkdir(dirs, mode) != 0 && errno != EEXIST) {
            const int err = errno;
            LOG_ERR("%s: mkdir(%s) ERROR(%d): %s\n", __func__, dirs, err, strerror(err));
            errno = err;
            return -1;
        }
        *p = c;
        if (c == '\0') break;
    }
    return 0;
}

ssize_t read_file_buf(const char *path, char *buf, size_t size) {
    int fd = W_open(__func__, path, O_RDONLY, 0);
    if (fd < 0) return -1;
    scope_exit close_fd{[fd, who = __func__] { (void)W_close(who, fd); }};

    struct stat st {};
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        LOG_ERR("%s: fstat(fd%d,..) ERROR(%d): %s\n", __func__, fd, err, strerror(err));
        return -1;
    }
    if (st.st_size < 0 || size_t(st.st_size) > size) {
        LOG_ERR("%s: file size (%ld bytes) is too big for buffer (%ld bytes)\n", __func__,
                long(st.st_size), long(size));
        return -1;
    }
    const size_t want = size_t(st.st_size);
    size_t got = 0;
    // A regular file gives everything at once; the loop only covers a read
    // cut short by a signal. It ends at EOF, so it is bounded by the size.
    while (got < want) {
        ssize_t n = W_read_f(__func__, fd, buf + got, want - got, 1);
        if (n < 0) return -1;
        if (n == 0) break;
        got += size_t(n);
    }
    if (got < want)
        LOG_ERR("%s: [%s] under-read: %ld/%ld\n", __func__, path, long(got), long(want));
    return ssize_t(got);
}

namespace {
// Every handler marks the in-signal state while it logs (no syslog, no
// rotation from inside a handler) and keeps errno: it interrupts code that
// may be about to read it.
template <class F>
void in_handler(F body) {
    const int saved_errno = errno;
    g_sigctx = 1;
    body();
    g_sigctx = 0;
    errno = saved_errno;
}
}  // namespace

void on_sigquit(int signo) {
    in_handler([signo] {
        g_quit = 1;
        if (signo == SIGTERM || signo == SIGINT) g_goodbye = 1;
        LOG_NRM("QUIT-SIG(%d)\n", signo);
        // Nothing else may interrupt the shut-down.
        for (int s : {SIGCHLD, SIGHUP, SIGUSR1}) (void)install(s, SIG_IGN);
    });
}

void on_sighup(int signo) {
    in_handler([signo] {
        g_hup = 1;
        LOG_NRM("SIGHUP(%d)\n", signo);
    });
}

void on_sigusr1(int signo) {
    in_handler([signo] {
        g_usr1 = 1;
        LOG_NRM("SIGUSR1(%d)\n", signo);
    });
}

void on_tdbg(int signo) {
    in_handler([signo] {
        g_tdbg = 1;
        LOG_NRM("T-DBG SIG(%d)\n", signo);
    });
}

// util: process-level services for start-up: daemon mode, pid file, user
// switch, CPU pinning, core dumps, runtime home, signal handlers and the
// process-wide flags they set, and file-system helpers.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstddef>

// Written by signal handlers, read by the main loop.
extern volatile int g_quit;     // leave the event loop
extern volatile int g_goodbye;  // the quit came from SIGTERM or SIGINT
extern volatile int g_hup;
extern volatile int g_usr1;
extern volatile int g_tdbg;    // toggle debug logging at the next idle cycle
extern volatile int g_sigctx;  // a handler is logging: no syslog, no rotation

// Two-fork detach; the parents exit 0. 0 or -1.
[[nodiscard]] int daemonize();
[[nodiscard]] int run_as_user(const char *name);
[[nodiscard]] int run_as_user_id(uid_t uid, gid_t gid);
// Writes pid (no newline) to path under a momentary write lock; with flags
// bit 0 the outcome is not logged. 0 or -1.
[[nodiscard]] int create_pidfile_extra(const char *path, pid_t pid, ino_t *inode_out, int flags);
int write_lock(int fd);
[[nodiscard]] int pin2cpu(int cpu);
[[nodiscard]] int set_unlimited_core(rlimit *rlimit_out);
[[nodiscard]] int goto_runtime_home(const char *dir, const char *alt);
[[nodiscard]] int handle_quit_signals(void (*handler)(int));
[[nodiscard]] int handle_sig(int signo, void (*handler)(int));
[[nodiscard]] int ignore_sigpipe();
void reset_getopt_state();
// The first path for which access(F_OK) succeeds, or null.
const char *pick_first_file(const char *const *paths, size_t count);
// 0 or the errno of opendir; "/" always passes; strip_slash removes one
// trailing "/" in place.
[[nodiscard]] int dir_check(char *path, int strip_slash);
// Creates every directory on the way to the file. 0 or -1.
[[nodiscard]] int mk_fpath_dirs(const char *path, mode_t mode);
// Reads a whole file into buf; the byte count or -1.
ssize_t read_file_buf(const char *path, char *buf, size_t size);

void on_sigquit(int signo);
void on_sighup(int signo);
void on_sigusr1(int signo);
void on_tdbg(int signo);

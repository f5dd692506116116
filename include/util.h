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

// Two-fork detach: setsid, cwd "/", umask 0, descriptors 0 and 1 on /dev/null (2
// stays open for the log). The parents _exit(0); the grandchild gets 0.
// -1 on failure, in whichever process it happened.
[[nodiscard]] int daemonize();
// Points descriptor fd (0, 1 or 2) at /dev/null: a write to a standard
// stream then goes nowhere, and no descriptor the process makes later can
// be given that number. 0 or -1.
[[nodiscard]] int std_fd_to_null(int fd);
// Looks the user up and switches to its uid and gid. 0 or -1.
[[nodiscard]] int run_as_user(const char *name);
// setgid first, then setuid. 0 or -1.
[[nodiscard]] int run_as_user_id(uid_t uid, gid_t gid);
// Writes pid in decimal (no newline) to path, mode 0644, under a write lock
// held only while writing: a later instance may overwrite the file. The
// inode is stored in inode_out when given. With flags bit 0 the outcome is
// not logged and a held lock reads "Another instance is already running".
// A null path or a pid below 1 is a fatal assertion. 0 or -1.
[[nodiscard]] int create_pidfile_extra(const char *path, pid_t pid, ino_t *inode_out, int flags);
// Whole-file write lock without waiting; the fcntl result, errno kept.
int write_lock(int fd);
// Restricts the process to one CPU. The sched_setaffinity result.
[[nodiscard]] int pin2cpu(int cpu);
// Makes the process dumpable with an unlimited core size; the limits found
// are stored in rlimit_out when given. 0 or -1.
[[nodiscard]] int set_unlimited_core(rlimit *rlimit_out);
// chdir to dir; if dir refuses us (EACCES), to the effective user's home;
// with a null dir, to alt. 0 or -1.
[[nodiscard]] int goto_runtime_home(const char *dir, const char *alt);
// Installs handler for SIGTERM, SIGQUIT and SIGINT, without SA_RESTART.
[[nodiscard]] int handle_quit_signals(void (*handler)(int));
// Installs one handler with an empty mask and no flags. 0 or -1.
[[nodiscard]] int handle_sig(int signo, void (*handler)(int));
[[nodiscard]] int ignore_sigpipe();
// Makes the next getopt_long scan the command line from the start.
void reset_getopt_state();
// The first path for which access(F_OK) succeeds, or null.
const char *pick_first_file(const char *const *paths, size_t count);
// 0 or the errno of opendir; "/" always passes; strip_slash removes one
// trailing "/" in place.
[[nodiscard]] int dir_check(char *path, int strip_slash);
// Creates every directory on the way to the file (not the file's own name);
// existing ones are fine. 0, or -1 with errno from the failing mkdir.
[[nodiscard]] int mk_fpath_dirs(const char *path, mode_t mode);
// Reads a whole file into buf, which is not zero-terminated; a file larger
// than size is refused. The byte count or -1.
ssize_t read_file_buf(const char *path, char *buf, size_t size);

// Signal handlers: each sets its flag and logs one line with g_sigctx set.
// on_sigquit also sets g_goodbye for SIGTERM and SIGINT, and then ignores
// SIGCHLD, SIGHUP and SIGUSR1 so that nothing interrupts the shut-down.
void on_sigquit(int signo);
void on_sighup(int signo);
void on_sigusr1(int signo);
void on_tdbg(int signo);

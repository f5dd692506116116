// daemon: runs the daemon (or any program) as a child of an end-to-end test.
// Owns a private temporary directory with the configuration, log and output;
// starts, waits on, signals and reaps the child with deadlines.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "netclient.h"

// What daemon_render_config turns into a configuration file.
struct daemon_conf {
    std::string level = "debug";
    bool web = true;            // false leaves the web listener out
    std::string udp_url;        // empty leaves the UDP order channel out
    std::string udp_mcast_ifc;  // empty = key left out
    bool udp_must_lock = true;
    std::string udp_lock_dir;  // empty = the runner's lock directory
    std::string udp_extra;     // raw text placed inside udp_input, last
    int lbdb_port = 0;         // 0 leaves the load-balancer DB out
    std::string lbdb_sha1_dir;
    std::string data_dir;          // empty = the runner's data directory
    std::string local_url_prefix;  // empty = key left out
    bool pidfile = false;          // true: runtime.pidfile = pid_path
    long max_tasks = 64, max_mmap_mb = 8, urq_tmout_sec = 1, task_tmout_ms = 5000;
    std::string extra;  // raw text placed inside the top-level group, last
};

// One child process and its directory, filled by daemon_init.
struct daemon_proc {
    std::string bin;                  // the program started
    std::string dir;                  // private temporary directory; empty = none
    std::string data_dir, lock_dir;   // <dir>/data, <dir>/lock
    std::string conf_path, pid_path;  // <dir>/trov.conf, <dir>/trov.pid
    std::string log_path;             // <dir>/log/trov.log, the log the rendered config names
    std::string out_path, err_path;   // the child's standard output and error
    std::vector<std::string> env;     // "NAME=value" added to the child's environment
    int port;                         // web listener port of the last rendered config; 0 = none
    pid_t pid;                        // 0 = not running
    int status;                       // the last wait status; -1 = none yet
};

constexpr int DAEMON_TIMEOUT = -1;  // the deadline passed
constexpr int DAEMON_EXITED = -2;   // the child ended first; its wait status is in status

// Makes the private directory under /tmp with data, log and lock directories.
// 0, or -1 with the reason on stderr (as for every int result below).
[[nodiscard]] int daemon_init(daemon_proc *d, const std::string &bin);

// A configuration for d's directories with a free web port (kept in
// d->port); writing it to d->conf_path, or both in one step.
std::string daemon_render_config(daemon_proc *d, const daemon_conf &c = daemon_conf{});
[[nodiscard]] int daemon_write_config(daemon_proc *d, const std::string &text);
[[nodiscard]] int daemon_configure(daemon_proc *d, const daemon_conf &c = daemon_conf{});

// Starts bin with args ("-T -C <conf_path>" when empty) in d->dir, input from
// /dev/null, output into out_path and err_path, no descriptor beyond 0-2; it
// is killed if the test process dies.
[[nodiscard]] int daemon_start(daemon_proc *d, const std::vector<std::string> &args = {});

// Waits until at least min_count lines of the log from byte offset from
// contain text (or match the ECMAScript expression re). 0, DAEMON_TIMEOUT or
// DAEMON_EXITED (after a last look, so lines written just before the exit count).
[[nodiscard]] int daemon_wait_log(daemon_proc *d, const std::string &text, int timeout_ms,
                                  int min_count = 1, size_t from = 0);
[[nodiscard]] int daemon_wait_log_regex(daemon_proc *d, const std::string &re, int timeout_ms,
                                        int min_count = 1, size_t from = 0);

// Lines of the log from offset from that contain text (an unfinished last
// line included); the log's size, as an offset for from.
int daemon_count_log(const daemon_proc *d, const std::string &text, size_t from = 0);
size_t daemon_log_mark(const daemon_proc *d);

// A whole file; "" when missing. Whether path exists. Every "-Trov" file
// under dir, one a line (empty when there is none).
std::string daemon_read_file(const std::string &path);
bool path_exists(const std::string &path);
// A fresh private directory /tmp/trov-<name>-XXXXXX; "" when none can be made.
std::string scratch_dir(const std::string &name);
std::string daemon_temp_files(const std::string &dir);

// Sends sig to the child. 0, or -errno (-ESRCH when it is not running).
int daemon_signal(daemon_proc *d, int sig);
// Waits up to timeout_ms for the child to end and reaps it: its wait status.
// At the deadline it is killed with SIGKILL and reaped, the wait fails with
// -1 and status holds the status of the kill. -1 as well when nothing runs.
int daemon_wait_exit(daemon_proc *d, int timeout_ms);
// SIGTERM, then daemon_wait_exit(timeout_ms); and whether the child still
// runs (an ended child is reaped there, status kept).
int daemon_stop(daemon_proc *d, int timeout_ms = 5000);
bool daemon_running(daemon_proc *d);

// Open descriptors and resident KiB of the running child; -1 when unreadable.
int daemon_fd_count(const daemon_proc *d);
long daemon_rss_kb(const daemon_proc *d);

// Stops a running child as daemon_stop does, prints the tails of its log and
// standard error when the current test has failed, removes the directory.
void daemon_destroy(daemon_proc *d);

// "exited 0", "killed by signal 9", ...
std::string daemon_status_text(int status);

// Runs bin with args and env in a private directory to its end (killed after
// timeout_ms), its output in *out and *err when not null: the exit status, or
// -1 when it did not exit normally.
int daemon_run(const std::string &bin, const std::vector<std::string> &args, int timeout_ms,
               std::string *out, std::string *err, const std::vector<std::string> &env = {});

// The program's path from PATH; empty when it is not installed.
std::string daemon_find_program(const std::string &name);

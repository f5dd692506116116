// daemon: runs the real daemon binary (or any stand-in) as a child process
// for the end-to-end tests. Owns a private temporary directory (data, log and
// lock directories, the configuration file, the captured output), renders a
// typical configuration, starts the child, waits for readiness, signals and
// reaps it with deadlines, and reads its log and its /proc figures.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "netclient.h"

// What daemon_render_config turns into a configuration file. Strings that
// are empty leave their key or section out, as noted per field.
struct daemon_conf {
    // Log section.
    std::string level = "debug";
    std::string time_format = "local";
    int log_max_size_mb = -1;  // -1 = key left out
    // Web listener section; web = false leaves it out (a UDP-only daemon, or a
    // test writing its own listeners in extra).
    bool web = true;
    std::string web_ifc = "127.0.0.1";
    int web_port = 0;  // 0 = a free TCP port, picked when rendering
    // UDP order channel; an empty url leaves the section out.
    std::string udp_url;
    std::string udp_mcast_ifc;  // empty = key left out
    bool udp_gzipped = false;
    bool udp_must_lock = true;
    std::string udp_lock_dir;  // empty = the runner's lock directory
    // Load-balancer DB section; lbdb_port 0 leaves it out.
    std::string lbdb_host = "127.0.0.1";
    int lbdb_port = 0;
    int lbdb_connect_tmout_ms = 500;
    std::string lbdb_sha1_dir;
    // Top-level keys.
    std::string data_dir;          // empty = the runner's data directory
    std::string local_url_prefix;  // empty = key left out
    bool pidfile = false;          // true: runtime.pidfile = <dir>/trov.pid
    long max_tasks = 64;
    long max_mmap_mb = 8;
    long urq_tmout_sec = 1;
    long task_tmout_ms = 5000;
    std::string extra;  // raw text placed inside the top-level group, last
};

// One child process and its directory. Fill it with daemon_init; the strings
// are paths the test may read or write (the configuration may be rewritten
// before a start).
struct daemon_proc {
    std::string bin;               // the program started
    std::string dir;               // private temporary directory; empty = none
    std::string data_dir;          // <dir>/data
    std::string log_dir;           // <dir>/log
    std::string lock_dir;          // <dir>/lock
    std::string conf_path;         // <dir>/trov.conf
    std::string log_path;          // <dir>/log/trov.log, the log file the rendered config names
    std::string pid_path;          // <dir>/trov.pid, named when daemon_conf::pidfile is set
    std::string out_path;          // the child's standard output
    std::string err_path;          // the child's standard error
    std::vector<std::string> env;  // "NAME=value" added to the child's environment
    int port;                      // web listener port of the last rendered config; 0 = none
    pid_t pid;                     // 0 = not running
    int status;                    // the last wait status; -1 = none yet
};

// Readiness results other than 0.
constexpr int DAEMON_TIMEOUT = -1;  // the deadline passed
constexpr int DAEMON_EXITED = -2;   // the child ended first; its wait status is in status

// Makes the private directory (under /tmp) with its data, log and lock
// directories. 0, or -1 with the reason on stderr.
[[nodiscard]] int daemon_init(daemon_proc *d, const std::string &bin);

// A configuration in the daemon's syntax for d's directories. Picks a free
// port when c.web_port is 0 and keeps the chosen one in d->port.
std::string daemon_render_config(daemon_proc *d, const daemon_conf &c = daemon_conf{});

// Writes text to d->conf_path. 0, or -1 with the reason on stderr.
[[nodiscard]] int daemon_write_config(daemon_proc *d, const std::string &text);

// Renders and writes in one step. 0 or -1.
[[nodiscard]] int daemon_configure(daemon_proc *d, const daemon_conf &c = daemon_conf{});

// "-T -C <conf_path>": a foreground daemon reading the written configuration.
std::vector<std::string> daemon_default_args(const daemon_proc *d);

// Starts bin with args (daemon_default_args when args is empty) in d->dir,
// standard input from /dev/null and the output streams into out_path and
// err_path (truncated). The child gets no descriptor of the test other than
// 0-2, and is killed if the test process dies. 0, or -1 with the reason on
// stderr.
[[nodiscard]] int daemon_start(daemon_proc *d, const std::vector<std::string> &args = {});

// Waits until the child owns a listening TCP socket on port (0 = d->port)
// (proto "tcp"), or a bound UDP socket on it ("udp"). Looks at /proc and
// does not connect, so it leaves no trace in the child's log. 0,
// DAEMON_TIMEOUT or DAEMON_EXITED.
[[nodiscard]] int daemon_wait_socket(daemon_proc *d, int port, int timeout_ms,
                                     const char *proto = "tcp");

// Waits until a TCP connection to 127.0.0.1:port (0 = d->port) succeeds,
// closing each probe at once (the child sees connections that end without a
// request). 0, DAEMON_TIMEOUT or DAEMON_EXITED.
[[nodiscard]] int daemon_wait_connect(daemon_proc *d, int port, int timeout_ms);

// Waits until at least min_count lines of the log file, counted from byte
// offset from, contain text. 0, DAEMON_TIMEOUT or DAEMON_EXITED (checked
// after a last look at the log, so lines written just before exit count).
[[nodiscard]] int daemon_wait_log(daemon_proc *d, const std::string &text, int timeout_ms,
                                  int min_count = 1, size_t from = 0);

// The same with an ECMAScript regular expression searched in each line.
[[nodiscard]] int daemon_wait_log_regex(daemon_proc *d, const std::string &re, int timeout_ms,
                                        int min_count = 1, size_t from = 0);

// Lines of the log file from offset from that contain text / match re.
int daemon_count_log(const daemon_proc *d, const std::string &text, size_t from = 0);
int daemon_count_log_regex(const daemon_proc *d, const std::string &re, size_t from = 0);

// The log file's current size: an offset for the from arguments above, so a
// test can look only at what is logged after a point.
size_t daemon_log_mark(const daemon_proc *d);

// The whole log file, its lines, and the captured output streams ("" when
// missing).
std::string daemon_read_log(const daemon_proc *d);
std::vector<std::string> daemon_log_lines(const daemon_proc *d, size_t from = 0);
std::string daemon_read_file(const std::string &path);

// Sends sig to the child. 0, or -errno (-ESRCH when it is not running).
int daemon_signal(daemon_proc *d, int sig);

// Waits up to timeout_ms for the child to end and reaps it: its wait status.
// At the deadline it is killed with SIGKILL and reaped, the wait fails with
// -1 and status holds the status of the kill. -1 as well when nothing runs.
int daemon_wait_exit(daemon_proc *d, int timeout_ms);

// SIGTERM, then daemon_wait_exit(timeout_ms).
int daemon_stop(daemon_proc *d, int timeout_ms = 5000);

// True while the child runs (it is reaped here when it has ended, with its
// status kept).
bool daemon_running(daemon_proc *d);

// Open descriptors of the running child (-1 when unreadable), and their
// targets as "fd -> target" lines, for a test that finds a leak.
int daemon_fd_count(const daemon_proc *d);
std::vector<std::string> daemon_fd_list(const daemon_proc *d);

// Resident set size in KiB and CPU time (user + system) in ms of the running
// child; -1 when unreadable.
long daemon_rss_kb(const daemon_proc *d);
long daemon_cpu_ms(const daemon_proc *d);

// Prints the last lines of the log and of the standard error to stderr.
void daemon_print_tail(const daemon_proc *d, int lines = 40);

// Stops a running child (SIGTERM, 5 seconds, then SIGKILL), prints the tail of
// its log when the current test has failed, and removes the directory unless
// TROV_KEEP_TEST_DIRS is set in the environment (the path is then printed).
void daemon_destroy(daemon_proc *d);

// Describes a wait status ("exited 0", "killed by signal 9", ...).
std::string daemon_status_text(int status);

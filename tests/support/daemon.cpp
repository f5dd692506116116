// daemon: the child-process runner of the end-to-end tests (see daemon.h).
// Every wait is bounded in count and time; the child is ended only by its PID.
#include "daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

extern char **environ;

namespace {

using line_match = std::function<bool(const std::string &)>;

// Reaps the child if it has ended. True when it has (status kept, pid 0).
bool reap_if_done(daemon_proc *d) {
    if (d->pid <= 0) return true;
    int st = 0;
    pid_t r = waitpid(d->pid, &st, WNOHANG);
    if (r != d->pid && !(r < 0 && errno == ECHILD)) return false;
    if (r == d->pid) d->status = st;
    d->pid = 0;
    return true;
}

int count_lines(const std::string &path, size_t from, const line_match &match) {
    std::string text = daemon_read_file(path);
    std::istringstream in(text.substr(std::min(from, text.size())));
    int n = 0;
    for (std::string line; std::getline(in, line);) n += match(line) ? 1 : 0;
    return n;
}

int wait_lines(daemon_proc *d, int timeout_ms, int min_count, size_t from, const line_match &m) {
    int rc = DAEMON_TIMEOUT;
    (void)wait_until(timeout_ms, [&] {
        // Reaped before the look at the log, so that lines written just
        // before the exit still count.
        bool ended = reap_if_done(d);
        rc = count_lines(d->log_path, from, m) >= min_count ? 0
             : ended                                        ? DAEMON_EXITED
                                                            : DAEMON_TIMEOUT;
        return rc != DAEMON_TIMEOUT;
    });
    return rc;
}

line_match containing(const std::string &text) {
    return [text](const std::string &l) { return l.find(text) != std::string::npos; };
}

std::string tail(const std::string &path) {  // what a failed test shows of a file
    std::string text = daemon_read_file(path);
    return text.substr(text.size() > 4096 ? text.size() - 4096 : 0);
}

std::string qstr(const std::string &s) { return "\"" + s + "\""; }  // paths need no escapes

}  // namespace

int daemon_init(daemon_proc *d, const std::string &bin) {
    std::string dir = scratch_dir("it");  // short: the daemon's paths are limited to 127 bytes
    *d = daemon_proc{.bin = bin,
                     .dir = dir,
                     .data_dir = dir + "/data",
                     .lock_dir = dir + "/lock",
                     .conf_path = dir + "/trov.conf",
                     .pid_path = dir + "/trov.pid",
                     .log_path = dir + "/log/trov.log",
                     .out_path = dir + "/stdout.txt",
                     .err_path = dir + "/stderr.txt",
                     .env = {},
                     .port = 0,
                     .pid = 0,
                     .status = -1};
    for (const std::string &sub : {d->data_dir, d->lock_dir, dir + "/log"}) {
        if (dir.empty() || mkdir(sub.c_str(), 0755) != 0) {
            fprintf(stderr, "daemon: cannot make %s: %s\n", sub.c_str(), strerror(errno));
            return -1;
        }
    }
    return 0;
}

std::string daemon_render_config(daemon_proc *d, const daemon_conf &c) {
    std::string t = "trov: {\n  log: { file = " + qstr(d->log_path) + "; level = " + qstr(c.level) +
                    "; time_format = \"local\"; enable_syslog = false; };\n"
                    "  runtime: { non_daemon = true; enforce_core_dumps = false;" +
                    (c.pidfile ? " pidfile = " + qstr(d->pid_path) + ";" : "") + " };\n";
    d->port = c.web ? pick_free_port(SOCK_STREAM) : 0;
    if (c.web)
        t += "  web_input: { alias = \"web\"; ifc = \"127.0.0.1\"; port = " +
             std::to_string(d->port) + "; };\n";
    if (!c.udp_url.empty())
        t += "  udp_input: { url = " + qstr(c.udp_url) +
             "; is_gzipped = false; must_lock = " + (c.udp_must_lock ? "true" : "false") +
             "; lock_dir = " + qstr(c.udp_lock_dir.empty() ? d->lock_dir : c.udp_lock_dir) + ";" +
             (c.udp_mcast_ifc.empty() ? "" : " mcast_ifc = " + qstr(c.udp_mcast_ifc) + ";") + " " +
             c.udp_extra + " };\n";
    if (c.lbdb_port != 0)
        t += "  lbdb: { host = \"127.0.0.1\"; port = " + std::to_string(c.lbdb_port) +
             "; connect_tmout_ms = 500; sha1_dir = " + qstr(c.lbdb_sha1_dir) + "; };\n";
    t += "  data_dir = " + qstr(c.data_dir.empty() ? d->data_dir : c.data_dir) + ";\n";
    if (!c.local_url_prefix.empty())
        t += "  local_url_prefix = " + qstr(c.local_url_prefix) + ";\n";
    return t + "  max_tasks = " + std::to_string(c.max_tasks) +
           "; max_mmap_mb = " + std::to_string(c.max_mmap_mb) +
           "; urq_tmout_sec = " + std::to_string(c.urq_tmout_sec) +
           "; task_tmout_ms = " + std::to_string(c.task_tmout_ms) + ";\n  " + c.extra + "\n};\n";
}

int daemon_write_config(daemon_proc *d, const std::string &text) {
    if (std::ofstream f(d->conf_path); f << text && f.flush()) return 0;
    fprintf(stderr, "daemon: cannot write %s\n", d->conf_path.c_str());
    return -1;
}

int daemon_configure(daemon_proc *d, const daemon_conf &c) {
    return daemon_write_config(d, daemon_render_config(d, c));
}

int daemon_start(daemon_proc *d, const std::vector<std::string> &args) {
    if (!reap_if_done(d) || d->dir.empty() || access(d->bin.c_str(), X_OK) != 0) {
        fprintf(stderr, "daemon: cannot start [%s] in [%s] (pid %ld)\n", d->bin.c_str(),
                d->dir.c_str(), long(d->pid));
        return -1;
    }
    // Everything the child needs is built before the fork: between fork and
    // exec only async-signal-safe calls are allowed, and the origin's threads
    // may hold the allocator's lock. The additions to the environment go
    // first, as the C library's getenv takes the first match.
    std::vector<std::string> av = {d->bin}, ev = d->env;
    av.insert(av.end(), args.begin(), args.end());
    if (args.empty()) av.insert(av.end(), {"-T", "-C", d->conf_path});
    for (char **e = environ; *e != nullptr; ++e) ev.emplace_back(*e);
    std::vector<char *> argv, envp;
    for (std::string &a : av) argv.push_back(a.data());
    for (std::string &e : ev) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        // The death signal follows the forking thread; tests fork from their
        // main thread, which lives as long as the test.
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        (void)sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int s = 1; s < NSIG; ++s) (void)signal(s, SIG_DFL);  // an ignored one would stay so
        int in = open("/dev/null", O_RDONLY);
        int o = open(d->out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);  // no allocation
        int e = open(d->err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 ||
            chdir(d->dir.c_str()) != 0)
            _exit(127);
        // Descriptors the test holds without close-on-exec (client libraries
        // open them so) must not reach the child: they would skew its count.
        (void)close_range(3, ~0u, 0);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    if (pid < 0) {
        fprintf(stderr, "daemon: fork: %s\n", strerror(errno));
        return -1;
    }
    d->pid = pid;
    d->status = -1;
    return 0;
}

int daemon_wait_log(daemon_proc *d, const std::string &text, int timeout_ms, int min_count,
                    size_t from) {
    return wait_lines(d, timeout_ms, min_count, from, containing(text));
}

int daemon_wait_log_regex(daemon_proc *d, const std::string &re, int timeout_ms, int min_count,
                          size_t from) {
    std::regex rx(re);
    return wait_lines(d, timeout_ms, min_count, from,
                      [&](const std::string &l) { return std::regex_search(l, rx); });
}

int daemon_count_log(const daemon_proc *d, const std::string &text, size_t from) {
    return count_lines(d->log_path, from, containing(text));
}

size_t daemon_log_mark(const daemon_proc *d) {
    struct stat st {};
    return stat(d->log_path.c_str(), &st) == 0 ? size_t(st.st_size) : 0;
}

std::string daemon_read_file(const std::string &path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::string scratch_dir(const std::string &name) {
    std::string tmpl = "/tmp/trov-" + name + "-XXXXXX";
    return mkdtemp(tmpl.data()) != nullptr ? tmpl : "";
}

bool path_exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

std::string daemon_temp_files(const std::string &dir) {
    namespace fs = std::filesystem;
    std::string found;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().string().ends_with("-Trov")) found += it->path().string() + "\n";
    return found;
}

int daemon_signal(daemon_proc *d, int sig) {
    if (reap_if_done(d)) return -ESRCH;
    return kill(d->pid, sig) == 0 ? 0 : -errno;
}

int daemon_wait_exit(daemon_proc *d, int timeout_ms) {
    if (d->pid <= 0) return -1;
    if (wait_until(timeout_ms, [d] { return reap_if_done(d); })) return d->status;
    fprintf(stderr, "daemon: pid %ld still running after %d ms, killing it\n", long(d->pid),
            timeout_ms);
    (void)kill(d->pid, SIGKILL);
    (void)wait_until(10000, [d] { return reap_if_done(d); });
    return -1;
}

int daemon_stop(daemon_proc *d, int timeout_ms) {
    return daemon_signal(d, SIGTERM) == 0 ? daemon_wait_exit(d, timeout_ms) : -1;
}

bool daemon_running(daemon_proc *d) { return !reap_if_done(d); }

int daemon_fd_count(const daemon_proc *d) {
    DIR *dp = d->pid > 0 ? opendir(("/proc/" + std::to_string(d->pid) + "/fd").c_str()) : nullptr;
    if (dp == nullptr) return -1;
    int n = 0;
    for (dirent *e = readdir(dp); e != nullptr; e = readdir(dp)) n += e->d_name[0] != '.';
    closedir(dp);
    return n;
}

long daemon_rss_kb(const daemon_proc *d) {
    std::string st =
        d->pid > 0 ? daemon_read_file("/proc/" + std::to_string(d->pid) + "/status") : "";
    size_t at = st.find("\nVmRSS:");
    return at == std::string::npos ? -1 : atol(st.c_str() + at + 7);
}

void daemon_destroy(daemon_proc *d) {
    if (!reap_if_done(d) && daemon_stop(d) < 0) fprintf(stderr, "daemon: had to kill the child\n");
    if (!d->dir.empty() && ::testing::Test::HasFailure())
        fprintf(stderr, "daemon: [%s] last %s\n---- %s\n%s---- %s\n%s", d->bin.c_str(),
                daemon_status_text(d->status).c_str(), d->log_path.c_str(),
                tail(d->log_path).c_str(), d->err_path.c_str(), tail(d->err_path).c_str());
    std::error_code ec;
    if (!d->dir.empty()) (void)std::filesystem::remove_all(d->dir, ec);
    *d = daemon_proc{};
    d->status = -1;
}

std::string daemon_status_text(int status) {
    if (status < 0) return "no status";
    if (WIFEXITED(status)) return "exited " + std::to_string(WEXITSTATUS(status));
    return "killed by signal " + std::to_string(WTERMSIG(status));  // nothing waits for stops
}

int daemon_run(const std::string &bin, const std::vector<std::string> &args, int timeout_ms,
               std::string *out, std::string *err, const std::vector<std::string> &env) {
    daemon_proc p{};
    int rc = -1;
    if (daemon_init(&p, bin) == 0) {
        p.env = env;
        if (daemon_start(&p, args) == 0) {
            int st = daemon_wait_exit(&p, timeout_ms);
            if (st >= 0 && WIFEXITED(st)) rc = WEXITSTATUS(st);
        }
        if (out != nullptr) *out = daemon_read_file(p.out_path);
        if (err != nullptr) *err = daemon_read_file(p.err_path);
    }
    daemon_destroy(&p);
    return rc;
}

std::string daemon_find_program(const std::string &name) {
    const char *path = getenv("PATH");
    std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
    return "";
}

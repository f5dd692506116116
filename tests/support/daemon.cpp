// daemon: the child-process runner of the end-to-end tests (see daemon.h).
// Every wait is bounded in count and time; the child is ended only by its PID.
#include "daemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string_view>

extern char **environ;

namespace {

constexpr int k_poll_ms = 10;
constexpr int k_reap_after_kill_ms = 10000;
constexpr int k_destroy_stop_ms = 5000;
constexpr size_t k_read_chunk = 1 << 20;

long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

void sleep_ms(int ms) {
    timespec ts{.tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// libconfig strings take C-like escapes; a path with a quote or a backslash
// must not end the string early.
std::string cfg_str(const std::string &s) {
    std::string q = "\"";
    for (char ch : s) {
        if (ch == '"' || ch == '\\') q += '\\';
        q += ch;
    }
    return q + "\"";
}

const char *yes_no(bool b) { return b ? "true" : "false"; }

bool make_dir(const std::string &path) {
    if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
    fprintf(stderr, "daemon: mkdir %s: %s\n", path.c_str(), strerror(errno));
    return false;
}

// A test may have left a directory without write or search permission (to
// provoke a failure); give them back so that the removal can go through.
int open_up(const char *path, const struct stat *st, int type, FTW *) {
    if (type == FTW_D || type == FTW_DNR) (void)chmod(path, (st->st_mode & 07777) | S_IRWXU);
    return 0;
}

int remove_one(const char *path, const struct stat *, int, FTW *) {
    (void)remove(path);
    return 0;
}

void remove_tree(const std::string &dir) {
    (void)chmod(dir.c_str(), S_IRWXU);
    (void)nftw(dir.c_str(), open_up, 16, FTW_PHYS);
    (void)nftw(dir.c_str(), remove_one, 16, FTW_DEPTH | FTW_PHYS);
}

// Reaps the child if it has ended. True when it has (status kept, pid 0).
bool reap_if_done(daemon_proc *d) {
    if (d->pid <= 0) return true;
    int st = 0;
    pid_t r = waitpid(d->pid, &st, WNOHANG);
    if (r == d->pid || (r < 0 && errno == ECHILD)) {
        if (r == d->pid) d->status = st;
        d->pid = 0;
        return true;
    }
    return false;
}

// Line scanning over a growing file: counts the lines that the matcher
// accepts, reading only what was appended since the last call.
struct log_scan {
    size_t pos;           // next byte of the file to read
    std::string partial;  // an unfinished last line
    int count;            // matching complete lines so far
};

using line_match = std::function<bool(std::string_view)>;

void scan_more(const std::string &path, log_scan *s, const line_match &match, size_t from) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    struct stat st {};
    if (fstat(fd, &st) == 0 && size_t(st.st_size) < s->pos) {
        // The file was replaced by a shorter one (a restart moves the old log
        // aside): start over.
        s->pos = std::min(from, size_t(st.st_size));
        s->partial.clear();
        s->count = 0;
    }
    std::string buf(k_read_chunk, '\0');
    for (int i = 0; i < 4096; ++i) {  // bounded: at most 4 GiB per call
        ssize_t n = pread(fd, buf.data(), buf.size(), off_t(s->pos));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        s->pos += size_t(n);
        std::string_view chunk(buf.data(), size_t(n));
        for (size_t nl = chunk.find('\n'); nl != std::string_view::npos; nl = chunk.find('\n')) {
            if (s->partial.empty()) {
                if (match(chunk.substr(0, nl))) ++s->count;
            } else {
                s->partial.append(chunk.substr(0, nl));
                if (match(s->partial)) ++s->count;
                s->partial.clear();
            }
            chunk.remove_prefix(nl + 1);
        }
        s->partial.append(chunk);
    }
    close(fd);
}

int count_lines(const std::string &path, const line_match &match, size_t from) {
    log_scan s{.pos = from, .partial = {}, .count = 0};
    scan_more(path, &s, match, from);
    return s.count + (!s.partial.empty() && match(s.partial) ? 1 : 0);
}

int wait_lines(daemon_proc *d, const line_match &match, int timeout_ms, int min_count,
               size_t from) {
    log_scan s{.pos = from, .partial = {}, .count = 0};
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_poll_ms + 1; ++i) {
        // Reaped before the look at the log, so that lines written just
        // before the exit still count.
        bool ended = reap_if_done(d);
        scan_more(d->log_path, &s, match, from);
        int n = s.count + (!s.partial.empty() && match(s.partial) ? 1 : 0);
        if (n >= min_count) return 0;
        if (ended) return DAEMON_EXITED;
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    return DAEMON_TIMEOUT;
}

std::set<unsigned long> socket_inodes(pid_t pid) {
    std::set<unsigned long> inodes;
    std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *dp = opendir(dir.c_str());
    if (dp == nullptr) return inodes;
    for (dirent *e = readdir(dp); e != nullptr; e = readdir(dp)) {
        char link[128];
        ssize_t n = readlinkat(dirfd(dp), e->d_name, link, sizeof link - 1);
        if (n <= 0) continue;
        link[n] = '\0';
        unsigned long ino = 0;
        if (sscanf(link, "socket:[%lu]", &ino) == 1) inodes.insert(ino);
    }
    closedir(dp);
    return inodes;
}

// True when one of pid's sockets in /proc/<pid>/net/<table> has local port
// port (and, for TCP, is listening).
bool owns_socket(pid_t pid, const std::string &table, int port, bool tcp) {
    std::set<unsigned long> mine = socket_inodes(pid);
    if (mine.empty()) return false;
    std::string path = "/proc/" + std::to_string(pid) + "/net/" + table;
    FILE *fp = fopen(path.c_str(), "re");
    if (fp == nullptr) return false;
    char line[512];
    bool found = false;
    (void)fgets(line, sizeof line, fp);  // the column titles
    for (int i = 0; i < 100000 && !found && fgets(line, sizeof line, fp) != nullptr; ++i) {
        char local[64], remote[64];
        unsigned st = 0;
        unsigned long ino = 0;
        // sl local rem st tx:rx tr:when retrnsmt uid timeout inode
        if (sscanf(line, " %*s %63s %63s %x %*s %*s %*s %*s %*s %lu", local, remote, &st, &ino) !=
            4)
            continue;
        const char *colon = strrchr(local, ':');
        if (colon == nullptr || strtol(colon + 1, nullptr, 16) != port) continue;
        if (tcp && st != 0x0a) continue;  // TCP_LISTEN
        found = mine.count(ino) > 0;
    }
    fclose(fp);
    return found;
}

std::string proc_path(const daemon_proc *d, const char *leaf) {
    return "/proc/" + std::to_string(d->pid) + "/" + leaf;
}

std::vector<std::string> tail_lines(const std::string &text, int n) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    if (lines.size() > size_t(n)) lines.erase(lines.begin(), lines.end() - n);
    return lines;
}

}  // namespace

int daemon_init(daemon_proc *d, const std::string &bin) {
    *d = daemon_proc{};
    d->status = -1;
    d->bin = bin;
    char tmpl[] = "/tmp/trov-it-XXXXXX";  // short: the daemon's paths are limited to 127 bytes
    if (mkdtemp(tmpl) == nullptr) {
        fprintf(stderr, "daemon: mkdtemp: %s\n", strerror(errno));
        return -1;
    }
    d->dir = tmpl;
    d->data_dir = d->dir + "/data";
    d->log_dir = d->dir + "/log";
    d->lock_dir = d->dir + "/lock";
    d->conf_path = d->dir + "/trov.conf";
    d->log_path = d->log_dir + "/trov.log";
    d->pid_path = d->dir + "/trov.pid";
    d->out_path = d->dir + "/stdout.txt";
    d->err_path = d->dir + "/stderr.txt";
    if (!make_dir(d->data_dir) || !make_dir(d->log_dir) || !make_dir(d->lock_dir)) return -1;
    return 0;
}

std::string daemon_render_config(daemon_proc *d, const daemon_conf &c) {
    std::string t = "trov: {\n";
    t += "  log: { file = " + cfg_str(d->log_path) + "; level = " + cfg_str(c.level) +
         "; time_format = " + cfg_str(c.time_format) + "; enable_syslog = false;";
    if (c.log_max_size_mb >= 0) t += " max_size_mb = " + std::to_string(c.log_max_size_mb) + ";";
    t += " };\n";
    t += "  runtime: { non_daemon = true; enforce_core_dumps = false;";
    if (c.pidfile) t += " pidfile = " + cfg_str(d->pid_path) + ";";
    t += " };\n";
    d->port = 0;
    if (c.web) {
        d->port = c.web_port > 0 ? c.web_port : pick_free_port(SOCK_STREAM);
        t += "  web_input: { alias = \"web\"; ifc = " + cfg_str(c.web_ifc) +
             "; port = " + std::to_string(d->port) + "; };\n";
    }
    if (!c.udp_url.empty()) {
        t += "  udp_input: { url = " + cfg_str(c.udp_url) +
             "; is_gzipped = " + yes_no(c.udp_gzipped) +
             "; must_lock = " + yes_no(c.udp_must_lock) + ";";
        t += " lock_dir = " + cfg_str(c.udp_lock_dir.empty() ? d->lock_dir : c.udp_lock_dir) + ";";
        if (!c.udp_mcast_ifc.empty()) t += " mcast_ifc = " + cfg_str(c.udp_mcast_ifc) + ";";
        t += " };\n";
    }
    if (c.lbdb_port != 0) {
        t += "  lbdb: { host = " + cfg_str(c.lbdb_host) +
             "; port = " + std::to_string(c.lbdb_port) +
             "; connect_tmout_ms = " + std::to_string(c.lbdb_connect_tmout_ms) +
             "; sha1_dir = " + cfg_str(c.lbdb_sha1_dir) + "; };\n";
    }
    t += "  data_dir = " + cfg_str(c.data_dir.empty() ? d->data_dir : c.data_dir) + ";\n";
    if (!c.local_url_prefix.empty())
        t += "  local_url_prefix = " + cfg_str(c.local_url_prefix) + ";\n";
    t += "  max_tasks = " + std::to_string(c.max_tasks) +
         "; max_mmap_mb = " + std::to_string(c.max_mmap_mb) +
         "; urq_tmout_sec = " + std::to_string(c.urq_tmout_sec) +
         "; task_tmout_ms = " + std::to_string(c.task_tmout_ms) + ";\n";
    if (!c.extra.empty()) t += "  " + c.extra + "\n";
    t += "};\n";
    return t;
}

int daemon_write_config(daemon_proc *d, const std::string &text) {
    FILE *fp = fopen(d->conf_path.c_str(), "we");
    if (fp == nullptr) {
        fprintf(stderr, "daemon: cannot write %s: %s\n", d->conf_path.c_str(), strerror(errno));
        return -1;
    }
    bool ok = fwrite(text.data(), 1, text.size(), fp) == text.size();
    ok = fclose(fp) == 0 && ok;
    if (!ok) fprintf(stderr, "daemon: short write to %s\n", d->conf_path.c_str());
    return ok ? 0 : -1;
}

int daemon_configure(daemon_proc *d, const daemon_conf &c) {
    return daemon_write_config(d, daemon_render_config(d, c));
}

std::vector<std::string> daemon_default_args(const daemon_proc *d) {
    return {"-T", "-C", d->conf_path};
}

int daemon_start(daemon_proc *d, const std::vector<std::string> &args) {
    if (d->pid > 0 && !reap_if_done(d)) {
        fprintf(stderr, "daemon: already running as %ld\n", long(d->pid));
        return -1;
    }
    if (d->dir.empty() || access(d->bin.c_str(), X_OK) != 0) {
        fprintf(stderr, "daemon: cannot run [%s] (dir [%s]): %s\n", d->bin.c_str(), d->dir.c_str(),
                strerror(errno));
        return -1;
    }
    // Everything the child needs is built before the fork: between fork and
    // exec only async-signal-safe calls are allowed, the origin's thread may
    // hold the allocator's lock.
    std::vector<std::string> av = args.empty() ? daemon_default_args(d) : args;
    av.insert(av.begin(), d->bin);
    std::vector<char *> argv;
    for (std::string &a : av) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> ev;
    for (char **e = environ; e != nullptr && *e != nullptr; ++e) {
        std::string_view cur(*e);
        std::string_view name = cur.substr(0, cur.find('='));
        bool replaced = std::any_of(d->env.begin(), d->env.end(), [&](const std::string &x) {
            return std::string_view(x).substr(0, x.find('=')) == name;
        });
        if (!replaced) ev.emplace_back(cur);
    }
    ev.insert(ev.end(), d->env.begin(), d->env.end());
    std::vector<char *> envp;
    for (std::string &e : ev) envp.push_back(e.data());
    envp.push_back(nullptr);
    const char *dir = d->dir.c_str(), *out = d->out_path.c_str(), *err = d->err_path.c_str();
    const char *bin = d->bin.c_str();

    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        fprintf(stderr, "daemon: fork: %s\n", strerror(errno));
        return -1;
    }
    if (pid == 0) {
        // The death signal follows the forking thread; tests fork from their
        // main thread, which lives as long as the test.
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        (void)sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        for (int s = 1; s < NSIG; ++s) (void)sigaction(s, &dfl, nullptr);
        int in = open("/dev/null", O_RDONLY);
        int o = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(err, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 ||
            chdir(dir) != 0)
            _exit(127);
        // Descriptors the test holds without close-on-exec (client libraries
        // open them so) must not reach the child: they would skew its count.
        (void)close_range(3, ~0u, 0);
        execve(bin, argv.data(), envp.data());
        static const char msg[] = "daemon: execve failed\n";
        (void)!write(2, msg, sizeof msg - 1);
        _exit(127);
    }
    d->pid = pid;
    d->status = -1;
    return 0;
}

int daemon_wait_socket(daemon_proc *d, int port, int timeout_ms, const char *proto) {
    if (port == 0) port = d->port;
    bool tcp = strcmp(proto, "udp") != 0;
    std::string t4 = tcp ? "tcp" : "udp", t6 = tcp ? "tcp6" : "udp6";
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_poll_ms + 1; ++i) {
        if (reap_if_done(d)) return DAEMON_EXITED;
        if (owns_socket(d->pid, t4, port, tcp) || owns_socket(d->pid, t6, port, tcp)) return 0;
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    return DAEMON_TIMEOUT;
}

int daemon_wait_connect(daemon_proc *d, int port, int timeout_ms) {
    if (port == 0) port = d->port;
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_poll_ms + 1; ++i) {
        if (reap_if_done(d)) return DAEMON_EXITED;
        int fd = net_connect(port, std::max(1, int(std::min(100L, deadline - now_ms()))));
        if (fd >= 0) {
            close(fd);
            return 0;
        }
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    return DAEMON_TIMEOUT;
}

int daemon_wait_log(daemon_proc *d, const std::string &text, int timeout_ms, int min_count,
                    size_t from) {
    return wait_lines(
        d, [&](std::string_view l) { return l.find(text) != std::string_view::npos; }, timeout_ms,
        min_count, from);
}

int daemon_wait_log_regex(daemon_proc *d, const std::string &re, int timeout_ms, int min_count,
                          size_t from) {
    std::regex rx(re);
    return wait_lines(
        d, [&](std::string_view l) { return std::regex_search(l.begin(), l.end(), rx); },
        timeout_ms, min_count, from);
}

int daemon_count_log(const daemon_proc *d, const std::string &text, size_t from) {
    return count_lines(
        d->log_path, [&](std::string_view l) { return l.find(text) != std::string_view::npos; },
        from);
}

int daemon_count_log_regex(const daemon_proc *d, const std::string &re, size_t from) {
    std::regex rx(re);
    return count_lines(
        d->log_path, [&](std::string_view l) { return std::regex_search(l.begin(), l.end(), rx); },
        from);
}

size_t daemon_log_mark(const daemon_proc *d) {
    struct stat st {};
    return stat(d->log_path.c_str(), &st) == 0 ? size_t(st.st_size) : 0;
}

std::string daemon_read_file(const std::string &path) {
    std::string text;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return text;
    char buf[65536];
    for (int i = 0; i < 65536; ++i) {  // bounded: 4 GiB
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buf, size_t(n));
    }
    close(fd);
    return text;
}

std::string daemon_read_log(const daemon_proc *d) { return daemon_read_file(d->log_path); }

std::vector<std::string> daemon_log_lines(const daemon_proc *d, size_t from) {
    std::string text = daemon_read_log(d);
    std::vector<std::string> lines;
    std::istringstream in(from < text.size() ? text.substr(from) : std::string());
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

int daemon_signal(daemon_proc *d, int sig) {
    if (d->pid <= 0 || reap_if_done(d)) return -ESRCH;
    return kill(d->pid, sig) == 0 ? 0 : -errno;
}

int daemon_wait_exit(daemon_proc *d, int timeout_ms) {
    if (d->pid <= 0) return -1;
    long deadline = now_ms() + timeout_ms;
    for (int i = 0; i <= timeout_ms / k_poll_ms + 1; ++i) {
        if (reap_if_done(d)) return d->status;
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    if (reap_if_done(d)) return d->status;
    fprintf(stderr, "daemon: pid %ld still running after %d ms, killing it\n", long(d->pid),
            timeout_ms);
    (void)kill(d->pid, SIGKILL);
    for (int i = 0; i <= k_reap_after_kill_ms / k_poll_ms; ++i) {
        if (reap_if_done(d)) return -1;
        sleep_ms(k_poll_ms);
    }
    fprintf(stderr, "daemon: pid %ld did not die from SIGKILL\n", long(d->pid));
    return -1;
}

int daemon_stop(daemon_proc *d, int timeout_ms) {
    if (daemon_signal(d, SIGTERM) != 0) return -1;
    return daemon_wait_exit(d, timeout_ms);
}

bool daemon_running(daemon_proc *d) { return !reap_if_done(d); }

int daemon_fd_count(const daemon_proc *d) {
    if (d->pid <= 0) return -1;
    DIR *dp = opendir(proc_path(d, "fd").c_str());
    if (dp == nullptr) return -1;
    int n = 0;
    for (dirent *e = readdir(dp); e != nullptr; e = readdir(dp))
        if (e->d_name[0] != '.') ++n;
    closedir(dp);
    return n;
}

std::vector<std::string> daemon_fd_list(const daemon_proc *d) {
    std::vector<std::string> out;
    if (d->pid <= 0) return out;
    DIR *dp = opendir(proc_path(d, "fd").c_str());
    if (dp == nullptr) return out;
    for (dirent *e = readdir(dp); e != nullptr; e = readdir(dp)) {
        if (e->d_name[0] == '.') continue;
        char link[512];
        ssize_t n = readlinkat(dirfd(dp), e->d_name, link, sizeof link - 1);
        link[n > 0 ? n : 0] = '\0';
        out.push_back(std::string(e->d_name) + " -> " + link);
    }
    closedir(dp);
    std::sort(out.begin(), out.end(), [](const std::string &a, const std::string &b) {
        return atoi(a.c_str()) < atoi(b.c_str());
    });
    return out;
}

long daemon_rss_kb(const daemon_proc *d) {
    if (d->pid <= 0) return -1;
    FILE *fp = fopen(proc_path(d, "status").c_str(), "re");
    if (fp == nullptr) return -1;
    char line[256];
    long kb = -1;
    for (int i = 0; i < 200 && fgets(line, sizeof line, fp) != nullptr; ++i)
        if (sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    fclose(fp);
    return kb;
}

long daemon_cpu_ms(const daemon_proc *d) {
    if (d->pid <= 0) return -1;
    std::string stat = daemon_read_file(proc_path(d, "stat"));
    size_t paren = stat.rfind(')');  // the command name may hold blanks and parentheses
    if (paren == std::string::npos) return -1;
    unsigned long ut = 0, st = 0;
    // After the name: state ppid pgrp session tty tpgid flags minflt cminflt
    // majflt cmajflt utime stime.
    if (sscanf(stat.c_str() + paren + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
               &ut, &st) != 2)
        return -1;
    long hz = sysconf(_SC_CLK_TCK);
    return hz > 0 ? long((ut + st) * 1000 / unsigned(hz)) : -1;
}

void daemon_print_tail(const daemon_proc *d, int lines) {
    fprintf(stderr, "---- %s (last %d lines)\n", d->log_path.c_str(), lines);
    for (const std::string &l : tail_lines(daemon_read_log(d), lines))
        fprintf(stderr, "  | %s\n", l.c_str());
    fprintf(stderr, "---- %s (last %d lines)\n", d->err_path.c_str(), lines);
    for (const std::string &l : tail_lines(daemon_read_file(d->err_path), lines))
        fprintf(stderr, "  | %s\n", l.c_str());
}

void daemon_destroy(daemon_proc *d) {
    if (d->pid > 0 && !reap_if_done(d)) {
        int st = daemon_stop(d, k_destroy_stop_ms);
        if (st < 0) fprintf(stderr, "daemon: had to kill the child\n");
    }
    if (!d->dir.empty()) {
        if (::testing::Test::HasFailure()) {
            fprintf(stderr, "daemon: [%s] last %s\n", d->bin.c_str(),
                    d->status >= 0 ? daemon_status_text(d->status).c_str() : "status unknown");
            daemon_print_tail(d);
        }
        if (getenv("TROV_KEEP_TEST_DIRS") != nullptr)
            fprintf(stderr, "daemon: keeping %s\n", d->dir.c_str());
        else
            remove_tree(d->dir);
    }
    *d = daemon_proc{};
    d->status = -1;
}

std::string daemon_status_text(int status) {
    if (status < 0) return "no status";
    if (WIFEXITED(status)) return "exited " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
        std::string s = "killed by signal " + std::to_string(WTERMSIG(status));
        if (const char *name = strsignal(WTERMSIG(status)); name != nullptr)
            s += std::string(" (") + name + ")";
        if (WCOREDUMP(status)) s += ", core dumped";
        return s;
    }
    char txt[32];
    snprintf(txt, sizeof txt, "status 0x%x", unsigned(status));
    return txt;
}

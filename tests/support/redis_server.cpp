// redis_server: starting, probing and stopping a test redis-server (see
// redis_server.h). Waits are bounded in both count and time.
#include "redis_server.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int k_poll_ms = 20;
constexpr int k_ready_ms = 10000;
constexpr int k_stop_ms = 5000;
constexpr int k_loader_ms = 30000;
constexpr int k_start_attempts = 3;

void sleep_ms(int ms) {
    timespec ts{.tv_sec = ms / 1000, .tv_nsec = (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

// The kernel's choice of a free port. Another process may take it before the
// server binds; the start then fails and is tried again with a new port.
int pick_free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) == 0)
        port = ntohs(sa.sin_port);
    close(fd);
    return port;
}

// Starts argv[0] (looked up in PATH) with stdin from /dev/null and both
// output streams into out_path. The child is killed when the test process
// dies, so a crashed test leaves no server behind. The PID or -1.
pid_t spawn(char *const argv[], const char *out_path) {
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;  // the PID, or -1 with errno
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    int in = open("/dev/null", O_RDONLY);
    int out = open(out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(127);
    execvp(argv[0], argv);
    _exit(127);
}

// Waits up to ms for pid to end. The wait status, or -1 when it still runs.
int wait_bounded(pid_t pid, int ms) {
    long deadline = now_ms() + ms;
    for (int i = 0; i <= ms / k_poll_ms + 1; ++i) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) return status;
        if (r < 0 && errno != EINTR) return -1;
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    return -1;
}

// SIGKILL and a blocking reap, for a child that did not end in time.
int kill_and_reap(pid_t pid) {
    (void)kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

bool answers_ping(int port) {
    timeval tv{.tv_sec = 0, .tv_usec = 200000};
    redisContext *c = redisConnectWithTimeout("127.0.0.1", port, tv);
    bool ok = false;
    if (c != nullptr && c->err == 0) {
        auto *r = static_cast<redisReply *>(redisCommand(c, "PING"));
        ok = r != nullptr && r->type == REDIS_REPLY_STATUS && strcmp(r->str, "PONG") == 0;
        if (r != nullptr) freeReplyObject(r);
    }
    if (c != nullptr) redisFree(c);
    return ok;
}

void print_file(const char *path) {
    FILE *fp = fopen(path, "r");
    if (fp == nullptr) return;
    char line[512];
    for (int i = 0; i < 200 && fgets(line, sizeof line, fp) != nullptr; ++i)
        fprintf(stderr, "  | %s", line);
    fclose(fp);
}

// One try on one port: 0 when the server answers, -1 when it exited or did
// not answer in time (it is then reaped).
int start_once(redis_server *srv) {
    const char *bin = getenv("TROV_REDIS_SERVER");
    char port_txt[16];
    snprintf(port_txt, sizeof port_txt, "%d", srv->port);
    const char *argv[] = {bin != nullptr && bin[0] != '\0' ? bin : "redis-server",
                          "--port",
                          port_txt,
                          "--bind",
                          "127.0.0.1",
                          "--save",
                          "",
                          "--appendonly",
                          "no",
                          "--dir",
                          srv->dir,
                          "--daemonize",
                          "no",
                          "--logfile",
                          "",
                          nullptr};
    pid_t pid = spawn(const_cast<char *const *>(argv), srv->log_path);
    if (pid < 0) {
        fprintf(stderr, "redis_server: fork: %s\n", strerror(errno));
        return -1;
    }
    long deadline = now_ms() + k_ready_ms;
    for (int i = 0; i <= k_ready_ms / k_poll_ms; ++i) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            fprintf(stderr, "redis_server: exited early (status 0x%x) on port %d:\n", status,
                    srv->port);
            print_file(srv->log_path);
            return -1;
        }
        if (answers_ping(srv->port)) {
            srv->pid = pid;
            return 0;
        }
        if (now_ms() >= deadline) break;
        sleep_ms(k_poll_ms);
    }
    fprintf(stderr, "redis_server: no answer on port %d in %d ms\n", srv->port, k_ready_ms);
    print_file(srv->log_path);
    (void)kill_and_reap(pid);
    return -1;
}

}  // namespace

int redis_server_start(redis_server *srv) {
    if (srv->pid != 0) {
        fprintf(stderr, "redis_server: already running as %ld\n", long(srv->pid));
        return -1;
    }
    if (srv->dir[0] == '\0') {
        char tmpl[] = "/tmp/trov-redis-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            fprintf(stderr, "redis_server: mkdtemp: %s\n", strerror(errno));
            return -1;
        }
        snprintf(srv->dir, sizeof srv->dir, "%s", tmpl);
        snprintf(srv->log_path, sizeof srv->log_path, "%s/redis.out", tmpl);
    }
    for (int attempt = 0; attempt < k_start_attempts; ++attempt) {
        srv->port = pick_free_port();
        if (srv->port > 0 && start_once(srv) == 0) return 0;
    }
    return -1;
}

int redis_server_stop(redis_server *srv) {
    if (srv->pid == 0) return -1;
    pid_t pid = srv->pid;
    srv->pid = 0;
    (void)kill(pid, SIGTERM);
    int status = wait_bounded(pid, k_stop_ms);
    return status >= 0 ? status : kill_and_reap(pid);
}

void redis_server_destroy(redis_server *srv) {
    (void)redis_server_stop(srv);
    if (srv->dir[0] != '\0') {
        // The server writes nothing but its output here; no sub-directories.
        if (DIR *d = opendir(srv->dir); d != nullptr) {
            int dfd = dirfd(d);
            for (dirent *e = readdir(d); e != nullptr; e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                    (void)unlinkat(dfd, e->d_name, 0);
            closedir(d);
        }
        (void)rmdir(srv->dir);
    }
    memset(srv, 0, sizeof *srv);
}

redisContext *redis_server_client(const redis_server *srv) {
    timeval tv{.tv_sec = 2, .tv_usec = 0};
    redisContext *c = redisConnectWithTimeout("127.0.0.1", srv->port, tv);
    if (c != nullptr && c->err != 0) {
        fprintf(stderr, "redis_server: connect to %d: %s\n", srv->port, c->errstr);
        redisFree(c);
        return nullptr;
    }
    if (c != nullptr) (void)redisSetTimeout(c, tv);
    return c;
}

int redis_server_load_lbdb(const redis_server *srv, const char *src_dir, const char *sha_dir) {
    char loader[256], port_txt[16], out_path[192];
    int n1 = snprintf(loader, sizeof loader, "%s/scripts/lbdb-load", src_dir);
    int n2 = snprintf(out_path, sizeof out_path, "%s/lbdb-load.out", srv->dir);
    snprintf(port_txt, sizeof port_txt, "%d", srv->port);
    if (n1 < 0 || size_t(n1) >= sizeof loader || n2 < 0 || size_t(n2) >= sizeof out_path) {
        fprintf(stderr, "redis_server: path too long\n");
        return -1;
    }
    const char *argv[] = {"bash", loader, "127.0.0.1", port_txt, sha_dir, nullptr};
    pid_t pid = spawn(const_cast<char *const *>(argv), out_path);
    if (pid < 0) {
        fprintf(stderr, "redis_server: fork: %s\n", strerror(errno));
        return -1;
    }
    int status = wait_bounded(pid, k_loader_ms);
    if (status < 0) status = kill_and_reap(pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    fprintf(stderr, "redis_server: lbdb-load failed (status 0x%x):\n", status);
    print_file(out_path);
    return -1;
}

// orderer: the benchmark's stand-in for the service that orders downloads.
// Keeps N orders outstanding against a running daemon, over HTTP or as UDP
// datagrams, and orders the next file as soon as one appears under its final
// name (inotify on the destination directory, blocking waits only). Written
// in C++ rather than in the Python driver so that the orders cost the CPU the
// daemon shares with them as little as possible. Prints one JSON object.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

struct options {
    bool udp = false;
    std::string host = "127.0.0.1";
    int port = 0;
    std::string src_base;    // "http://127.0.0.1:PORT/f/c/": a name is appended
    std::string dst_prefix;  // destination relative to the data directory: prefix + name
    std::string watch_dir;   // where the final files appear
    std::string list_path;   // one file name per line
    int conc = 1;
    double timeout_s = 600;
    long pid = 0;           // daemon whose memory is sampled
    long sample_every = 0;  // completions between two samples; 0: none
    long expiry = 1900000000;
};

struct http_order {
    size_t idx;
    bool sent;
    char head[16];
    size_t head_len;
};

double now_s() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

double cpu_self_s() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// VmRSS and VmHWM of pid, in KiB; false when they cannot be read.
bool read_rss(long pid, long *rss, long *hwm) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%ld/status", pid);
    FILE *fp = fopen(path, "r");
    if (fp == nullptr) return false;
    char line[256];
    *rss = *hwm = -1;
    while (fgets(line, sizeof line, fp) != nullptr) {
        if (strncmp(line, "VmRSS:", 6) == 0) *rss = atol(line + 6);
        if (strncmp(line, "VmHWM:", 6) == 0) *hwm = atol(line + 6);
    }
    fclose(fp);
    return *rss >= 0 && *hwm >= 0;
}

[[noreturn]] void usage() {
    fprintf(
        stderr,
        "usage: orderer -m http|udp -a HOST:PORT -s SRC_BASE -d DST_PREFIX -w WATCH_DIR\n"
        "               -l NAMES -n CONC [-T TIMEOUT_S] [-p PID -k SAMPLE_EVERY] [-e EXPIRY]\n");
    exit(2);
}

options parse_args(int argc, char **argv) {
    options o;
    for (int c; (c = getopt(argc, argv, "m:a:s:d:w:l:n:T:p:k:e:")) != -1;) {
        switch (c) {
            case 'm':
                o.udp = strcmp(optarg, "udp") == 0;
                break;
            case 'a': {
                const char *colon = strrchr(optarg, ':');
                if (colon == nullptr) usage();
                o.host.assign(optarg, size_t(colon - optarg));
                o.port = atoi(colon + 1);
                break;
            }
            case 's':
                o.src_base = optarg;
                break;
            case 'd':
                o.dst_prefix = optarg;
                break;
            case 'w':
                o.watch_dir = optarg;
                break;
            case 'l':
                o.list_path = optarg;
                break;
            case 'n':
                o.conc = atoi(optarg);
                break;
            case 'T':
                o.timeout_s = atof(optarg);
                break;
            case 'p':
                o.pid = atol(optarg);
                break;
            case 'k':
                o.sample_every = atol(optarg);
                break;
            case 'e':
                o.expiry = atol(optarg);
                break;
            default:
                usage();
        }
    }
    if (o.port <= 0 || o.src_base.empty() || o.watch_dir.empty() || o.list_path.empty() ||
        o.conc < 1)
        usage();
    return o;
}

std::vector<std::string> read_names(const std::string &path) {
    std::vector<std::string> names;
    FILE *fp = fopen(path.c_str(), "r");
    if (fp == nullptr) {
        perror(path.c_str());
        exit(2);
    }
    char line[512];
    while (fgets(line, sizeof line, fp) != nullptr) {
        size_t n = strcspn(line, "\r\n");
        if (n > 0) names.emplace_back(line, n);
    }
    fclose(fp);
    return names;
}

std::string json_escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) continue;
        out += c;
    }
    return out;
}

}  // namespace

int main(int argc, char **argv) {
    options opt = parse_args(argc, argv);
    std::vector<std::string> names = read_names(opt.list_path);
    std::unordered_map<std::string, size_t> by_name;
    for (size_t i = 0; i < names.size(); ++i) by_name.emplace(names[i], i);

    int ep = epoll_create1(EPOLL_CLOEXEC);
    int ino = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (ep < 0 || ino < 0) {
        perror("epoll/inotify");
        return 2;
    }
    if (inotify_add_watch(ino, opt.watch_dir.c_str(), IN_MOVED_TO) < 0) {
        perror(opt.watch_dir.c_str());
        return 2;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = ino;
    (void)epoll_ctl(ep, EPOLL_CTL_ADD, ino, &ev);

    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(opt.port));
    if (inet_pton(AF_INET, opt.host.c_str(), &to.sin_addr) != 1) usage();
    int udp_fd = -1;
    if (opt.udp) {
        udp_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (udp_fd < 0) {
            perror("socket");
            return 2;
        }
    }

    std::unordered_map<int, http_order> http;  // order connections by descriptor
    std::unordered_set<size_t> done;
    std::map<int, long> statuses;  // answers to HTTP orders
    long failed = 0, send_errors = 0, stray = 0, overflows = 0;
    size_t next = 0;
    std::vector<std::pair<long, std::pair<long, long>>> samples;  // done -> (rss, hwm)

    auto place_order = [&](size_t i) {
        char msg[1024];
        const std::string &name = names[i];
        int n;
        if (opt.udp) {
            n = snprintf(msg, sizeof msg, "#!o%07zu http://0/src/%s%s/dst/%s%s %ld", i,
                         opt.src_base.c_str(), name.c_str(), opt.dst_prefix.c_str(), name.c_str(),
                         opt.expiry);
            if (n <= 0 || size_t(n) >= sizeof msg ||
                sendto(udp_fd, msg, size_t(n), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) !=
                    n) {
                ++send_errors;
                ++failed;
                return false;
            }
            return true;
        }
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            ++send_errors;
            ++failed;
            return false;
        }
        int rc = connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to);
        if (rc != 0 && errno != EINPROGRESS) {
            close(fd);
            ++send_errors;
            ++failed;
            return false;
        }
        http_order o{};
        o.idx = i;
        http.emplace(fd, o);
        epoll_event e{};
        e.events = EPOLLOUT;
        e.data.fd = fd;
        (void)epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e);
        return true;
    };
    // Orders the next file; a failed order is counted and the next is tried,
    // so that the number outstanding stays where it should be.
    auto order_next = [&]() {
        while (next < names.size()) {
            if (place_order(next++)) return;
        }
    };
    auto finish_http = [&](int fd, http_order &o) {
        int code = 0;
        if (o.head_len >= 12 && memcmp(o.head, "HTTP/1.", 7) == 0) code = atoi(o.head + 9);
        ++statuses[code];
        (void)epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr);
        close(fd);
        bool ok = code == 200;
        http.erase(fd);
        if (!ok) {
            // Refused orders never complete: keep the window full.
            ++failed;
            order_next();
        }
    };

    double cpu0 = cpu_self_s();
    double t0 = now_s();
    double t_first = -1, t_last = -1;
    for (int i = 0; i < opt.conc; ++i) order_next();
    double deadline = t0 + opt.timeout_s;

    alignas(inotify_event) char ibuf[64 * 1024];
    epoll_event evs[256];
    bool timed_out = false;
    while (done.size() + size_t(failed) < names.size()) {
        double left = deadline - now_s();
        if (left <= 0) {
            timed_out = true;
            break;
        }
        int n = epoll_wait(ep, evs, 256, int(left * 1000) + 1);
        if (n < 0) {
            if (errno == EINTR) continue;
            perror("epoll_wait");
            break;
        }
        for (int k = 0; k < n; ++k) {
            int fd = evs[k].data.fd;
            if (fd == ino) {
                for (;;) {
                    ssize_t r = read(ino, ibuf, sizeof ibuf);
                    if (r <= 0) break;
                    for (char *p = ibuf; p < ibuf + r;) {
                        auto *ie = reinterpret_cast<inotify_event *>(p);
                        p += sizeof(inotify_event) + ie->len;
                        if ((ie->mask & IN_Q_OVERFLOW) != 0) {
                            ++overflows;
                            continue;
                        }
                        if ((ie->mask & IN_MOVED_TO) == 0 || ie->len == 0) continue;
                        auto it = by_name.find(ie->name);
                        if (it == by_name.end() || !done.insert(it->second).second) {
                            ++stray;
                            continue;
                        }
                        double t = now_s();
                        if (t_first < 0) t_first = t;
                        t_last = t;
                        if (opt.pid > 0 && opt.sample_every > 0 &&
                            done.size() % size_t(opt.sample_every) == 0) {
                            long rss = 0, hwm = 0;
                            if (read_rss(opt.pid, &rss, &hwm))
                                samples.push_back({long(done.size()), {rss, hwm}});
                        }
                        order_next();
                    }
                }
                continue;
            }
            auto it = http.find(fd);
            if (it == http.end()) continue;
            http_order &o = it->second;
            if (!o.sent) {
                int err = 0;
                socklen_t len = sizeof err;
                (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                if (err != 0) {
                    ++send_errors;
                    finish_http(fd, o);
                    continue;
                }
                const std::string &name = names[o.idx];
                char req[1024];
                // Host and User-Agent make the head long enough for the
                // listener's receive low-water mark.
                int m = snprintf(req, sizeof req,
                                 "GET /src/%s%s/dst/%s%s?expiry=%ld HTTP/1.1\r\nHost: %s:%d\r\n"
                                 "User-Agent: trov-bench\r\n\r\n",
                                 opt.src_base.c_str(), name.c_str(), opt.dst_prefix.c_str(),
                                 name.c_str(), opt.expiry, opt.host.c_str(), opt.port);
                if (m <= 0 || size_t(m) >= sizeof req ||
                    send(fd, req, size_t(m), MSG_NOSIGNAL) != m) {
                    ++send_errors;
                    finish_http(fd, o);
                    continue;
                }
                o.sent = true;
                epoll_event e{};
                e.events = EPOLLIN | EPOLLRDHUP;
                e.data.fd = fd;
                (void)epoll_ctl(ep, EPOLL_CTL_MOD, fd, &e);
                continue;
            }
            char buf[512];
            for (;;) {
                ssize_t r = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
                if (r > 0) {
                    size_t take = std::min(size_t(r), sizeof o.head - o.head_len);
                    memcpy(o.head + o.head_len, buf, take);
                    o.head_len += take;
                    continue;
                }
                if (r < 0 && (errno == EAGAIN || errno == EINTR)) break;
                finish_http(fd, o);  // end of the answer (or an error)
                break;
            }
        }
    }
    double t_end = now_s();
    double cpu = cpu_self_s() - cpu0;
    long rss = -1, hwm = -1;
    if (opt.pid > 0) (void)read_rss(opt.pid, &rss, &hwm);
    // Late answers are not waited for; their connections simply close.
    for (auto &kv : http) close(kv.first);

    printf(
        "{\"mode\": \"%s\", \"files\": %zu, \"ordered\": %zu, \"completed\": %zu, "
        "\"failed\": %ld, \"send_errors\": %ld, \"stray_events\": %ld, \"overflows\": %ld, "
        "\"timed_out\": %s, \"wall_s\": %.6f, \"first_done_s\": %.6f, "
        "\"orderer_cpu_s\": %.6f, \"rss_kb\": %ld, \"hwm_kb\": %ld, \"statuses\": {",
        opt.udp ? "udp" : "http", names.size(), next, done.size(), failed, send_errors, stray,
        overflows, timed_out ? "true" : "false", (t_last > 0 ? t_last : t_end) - t0,
        t_first > 0 ? t_first - t0 : -1.0, cpu, rss, hwm);
    bool first = true;
    for (auto &kv : statuses) {
        printf("%s\"%d\": %ld", first ? "" : ", ", kv.first, kv.second);
        first = false;
    }
    printf("}, \"rss_samples\": [");
    first = true;
    for (auto &s : samples) {
        printf("%s[%ld, %ld, %ld]", first ? "" : ", ", s.first, s.second.first, s.second.second);
        first = false;
    }
    printf("], \"watch_dir\": \"%s\"}\n", json_escape(opt.watch_dir).c_str());
    return done.size() == names.size() ? 0 : 1;
}

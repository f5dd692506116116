// ordcli: the trov-order command (see ordcli.h).
#include "ordcli.h"

#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "fwait.h"
#include "order.h"
#include "scope_exit.h"

namespace {

constexpr const char *PROG = "trov-order";
constexpr long DEFAULT_EXPIRY_IN = 3600;  // seconds after now
constexpr long DEFAULT_TIMEOUT_MS = 60000;
constexpr long MAX_TIMEOUT_MS = 7L * 24 * 3600 * 1000;
constexpr size_t ANSWER_SIZE = 4096;

constexpr char HELP[] =
    "Usage:\n"
    "  trov-order http HOST:PORT SOURCE-URL [DEST] [OPTIONS]\n"
    "  trov-order udp  HOST:PORT ID SOURCE-URL [DEST] [OPTIONS]\n"
    "  trov-order stats HOST:PORT [--timeout SECONDS]\n"
    "  trov-order --help\n"
    "\n"
    "Orders the trov daemon to download SOURCE-URL into DEST below its data\n"
    "directory.\n"
    "\n"
    "  http   sends GET /src/SOURCE-URL/dst/DEST?expiry=N to a web listener of the\n"
    "         daemon at HOST:PORT and prints the status line of its answer, which\n"
    "         comes once the source's response head has been judged (200 OK: the\n"
    "         body is being written; 403: the file exists; 400, 500 or the\n"
    "         source's own status: refused).\n"
    "  udp    sends one datagram \"#!ID http://0/src/SOURCE-URL/dst/DEST N\" to the\n"
    "         daemon's UDP order channel at HOST:PORT (unicast or a multicast\n"
    "         group) and prints it. The channel never answers; its log tells.\n"
    "  stats  fetches /metrics from the daemon's admin listener at HOST:PORT and\n"
    "         prints a short summary: orders, answers by status, downloads, bytes,\n"
    "         running tasks, dropped datagrams.\n"
    "\n"
    "Arguments:\n"
    "  HOST:PORT   the daemon's listener; [ADDRESS]:PORT for IPv6.\n"
    "  ID          order identifier, 4 to 31 printable characters without blanks\n"
    "              or \"/\". With locking on, the daemon skips an order whose ID\n"
    "              an earlier order still holds (for at most 30 seconds).\n"
    "  SOURCE-URL  http://HOST[:PORT]/PATH, at most 127 characters (the daemon\n"
    "              fetches plain HTTP only). A query is carried over UDP only.\n"
    "  DEST        path of the file below the data directory, at most 121\n"
    "              characters (\"<data_dir>/<DEST>-Trov\" must fit in 127); leading\n"
    "              slashes are dropped; it must name a file (no trailing \"/\" or\n"
    "              \".\"), have no \"..\" segment and not end in \"-Trov\". Without\n"
    "              DEST the source's path is used, under the same rules.\n"
    "\n"
    "Options:\n"
    "  -e, --expiry TIME     expiry handed on with the order: seconds since the\n"
    "                        epoch, or +SECONDS from now [+3600]\n"
    "  -w, --wait DATA_DIR   after ordering, wait until DATA_DIR/DEST appears (the\n"
    "                        daemon renames it into place when the last byte is\n"
    "                        in), then print its size and the time taken; DATA_DIR\n"
    "                        is the daemon's data_dir as seen from here. Refuses\n"
    "                        to order when the file is already there. On a\n"
    "                        terminal, shows the time elapsed while waiting.\n"
    "  -t, --timeout SECONDS give up after this long, counted from the order: the\n"
    "                        HTTP answer and the wait together [60]\n"
    "  -h, --help            print this help and exit\n"
    "\n"
    "The order is checked before it is sent, by the rules the daemon reads it\n"
    "with: an order it would reject or misread is refused here, saying why, and\n"
    "nothing is sent. Characters that would change how the daemon splits the\n"
    "path (blank, %, +, ?, #, @, and src or dst segments inside the source) are\n"
    "percent-encoded with upper-case digits and reach the daemon as typed.\n"
    "Only printable ASCII can be ordered. A datagram holds 32 to 1400 bytes and\n"
    "its order URL's path (\"0/src/SOURCE/dst/DEST\", encoded) at most 127\n"
    "characters; an HTTP request head at most 1023 bytes.\n"
    "\n"
    "Exit status:\n"
    "  0  answered 200 or 204, or the datagram was sent; with --wait, the file\n"
    "     is there\n"
    "  1  another answer, no answer, a network error, or the file was already\n"
    "     there\n"
    "  2  a bad command line, or an order the daemon would reject (not sent)\n"
    "  3  no answer or no file before the time-out\n"
    "\n"
    "Examples:\n"
    "  trov-order http 127.0.0.1:8080 http://origin/live/a.ts cache/a.ts\n"
    "  trov-order udp 239.1.1.1:5000 a1b2c3 http://origin/live/a.ts --expiry +600\n"
    "  trov-order http 127.0.0.1:8080 http://origin/live/a.ts --wait /var/lib/trov\n";

[[gnu::format(printf, 1, 2)]] void say(const char *fmt, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    fprintf(stderr, "%s: %s\n", PROG, line);
}

int refused(const char *why) {
    say("%s", why);
    return ORDCLI_REFUSED;
}

struct cli_args {
    bool stats;
    bool http;
    const char *endpoint;
    const char *lid;
    const char *src;
    const char *dst;
    const char *expiry_text;
    const char *wait_dir;
    long timeout_ms;
};

long left_ms(const timespec &t0, long timeout_ms) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    long spent = long(now.tv_sec - t0.tv_sec) * 1000 + (now.tv_nsec - t0.tv_nsec) / 1000000;
    return timeout_ms - spent;
}

// Waits for one poll event within the time left. 1 ready, 0 time-out, -1 error.
int wait_fd(int fd, short events, const timespec &t0, long timeout_ms) {
    while (true) {
        long left = left_ms(t0, timeout_ms);
        if (left <= 0) return 0;
        pollfd p{fd, events, 0};
        int r = poll(&p, 1, int(left));
        if (r >= 0) return r > 0 ? 1 : 0;
        if (errno != EINTR) return -1;
    }
}

// host:port's addresses for socktype (numeric port), or null (said why).
addrinfo *resolve(const char *host, const char *port, int socktype) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = socktype;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *ai = nullptr;
    if (int rc = getaddrinfo(host, port, &hints, &ai); rc != 0) {
        say("cannot resolve [%s]: %s", host, gai_strerror(rc));
        return nullptr;
    }
    return ai;
}

// A connected TCP socket to one of host:port's addresses, or -1 (said why;
// *timed_out tells a time-out from a refusal).
int tcp_connect(const char *host, const char *port, const timespec &t0, long timeout_ms,
                bool *timed_out) {
    addrinfo *ai = resolve(host, port, SOCK_STREAM);
    if (ai == nullptr) return -1;
    scope_exit free_ai{[ai] { freeaddrinfo(ai); }};
    int last_err = 0;
    for (addrinfo *a = ai; a != nullptr; a = a->ai_next) {
        int fd =
            socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            last_err = errno;
            continue;
        }
        scope_exit close_fd{[fd] { (void)close(fd); }};
        if (connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            if (errno != EINPROGRESS) {
                last_err = errno;
                continue;
            }
            int r = wait_fd(fd, POLLOUT, t0, timeout_ms);
            if (r == 0) {
                *timed_out = true;
                say("no connection to %s:%s within the time-out", host, port);
                return -1;
            }
            int err = 0;
            socklen_t len = sizeof err;
            if (r < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
                last_err = r < 0 ? errno : err;
                continue;
            }
        }
        close_fd.release();
        return fd;
    }
    say("cannot connect to %s:%s: %s", host, port, strerror(last_err));
    return -1;
}

// Sends the request and reads the answer's head. The exit status.
int send_http(const char *host, const char *port, const char *req, size_t len, const timespec &t0,
              long timeout_ms) {
    bool timed_out = false;
    int fd = tcp_connect(host, port, t0, timeout_ms, &timed_out);
    if (fd < 0) return timed_out ? ORDCLI_TIMEOUT : ORDCLI_FAILED;
    scope_exit close_fd{[fd] { (void)close(fd); }};

    for (size_t off = 0; off < len;) {
        ssize_t n = send(fd, req + off, len - off, MSG_NOSIGNAL);
        if (n > 0) {
            off += size_t(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            say("sending the order failed: %s", strerror(errno));
            return ORDCLI_FAILED;
        }
        if (int r = wait_fd(fd, POLLOUT, t0, timeout_ms); r <= 0) {
            say("the order could not be sent within the time-out");
            return ORDCLI_TIMEOUT;
        }
    }

    // The daemon writes its whole (short) answer and closes; the head is all
    // we need.
    char ans[ANSWER_SIZE];
    size_t got = 0;
    bool closed = false;
    while (got + 1 < sizeof ans) {
        ans[got] = '\0';
        if (strstr(ans, "\r\n\r\n") != nullptr) break;
        ssize_t n = recv(fd, ans + got, sizeof ans - 1 - got, 0);
        if (n > 0) {
            got += size_t(n);
            continue;
        }
        if (n == 0) {
            closed = true;
            break;
        }
        if (errno == ECONNRESET) {
            closed = true;
            break;
        }
        if (errno != EAGAIN && errno != EINTR) {
            say("reading the answer failed: %s", strerror(errno));
            return ORDCLI_FAILED;
        }
        if (int r = wait_fd(fd, POLLIN, t0, timeout_ms); r <= 0) {
            if (got == 0) {
                say("no answer within the time-out");
                return ORDCLI_TIMEOUT;
            }
            break;
        }
    }
    ans[got] = '\0';
    if (got == 0) {
        say("the daemon closed the connection without an answer%s",
            closed ? "" : " (nothing read)");
        return ORDCLI_FAILED;
    }
    std::string_view head(ans, got);
    std::string_view status = head.substr(0, head.find_first_of("\r\n"));
    printf("%.*s\n", int(status.size()), status.data());
    int code = 0;
    if (status.starts_with("HTTP/1.") && status.size() >= 12) code = atoi(status.data() + 9);
    return code == 200 || code == 204 ? ORDCLI_OK : ORDCLI_FAILED;
}

int send_udp(const char *host, const char *port, const char *msg, size_t len) {
    addrinfo *ai = resolve(host, port, SOCK_DGRAM);
    if (ai == nullptr) return ORDCLI_FAILED;
    scope_exit free_ai{[ai] { freeaddrinfo(ai); }};
    int last_err = 0;
    for (addrinfo *a = ai; a != nullptr; a = a->ai_next) {
        int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            last_err = errno;
            continue;
        }
        ssize_t n = sendto(fd, msg, len, 0, a->ai_addr, a->ai_addrlen);
        last_err = errno;
        (void)close(fd);
        if (n == ssize_t(len)) {
            printf("%.*s\n", int(len), msg);
            return ORDCLI_OK;
        }
    }
    say("cannot send to %s:%s: %s", host, port, strerror(last_err));
    return ORDCLI_FAILED;
}

// Reads options and arguments. 0, or the exit status to end with.
// "stats HOST:PORT [--timeout SECONDS]", the command word as argv[0].
int parse_stats_args(int argc, char **argv, cli_args *a) {
    for (int i = 1; i < argc; ++i) {
        std::string_view w = argv[i];
        if ((w == "-t" || w == "--timeout") && i + 1 < argc) {
            if (ordcli_parse_timeout(argv[++i], &a->timeout_ms) != 0)
                return refused("bad --timeout: a number of seconds above 0, at most a week");
        } else if (!w.starts_with('-') && a->endpoint == nullptr) {
            a->endpoint = argv[i];
        } else {
            say("stats takes HOST:PORT [--timeout SECONDS] (see --help)");
            return ORDCLI_REFUSED;
        }
    }
    if (a->endpoint == nullptr) return refused("stats takes HOST:PORT (see --help)");
    return 0;
}

// Fetches /metrics from an admin listener and prints the summary.
int run_stats(const cli_args &a) {
    char host[ORDCLI_HOST_SIZE], port[ORDCLI_PORT_SIZE];
    if (ordcli_parse_endpoint(a.endpoint, host, sizeof host, port, sizeof port) != 0)
        return refused("HOST:PORT expected, e.g. 127.0.0.1:9100");
    timespec t0{};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    bool timed_out = false;
    int fd = tcp_connect(host, port, t0, a.timeout_ms, &timed_out);
    if (fd < 0) return timed_out ? ORDCLI_TIMEOUT : ORDCLI_FAILED;
    scope_exit close_fd{[fd] { (void)close(fd); }};
    char req[512];
    int n = snprintf(req, sizeof req,
                     "GET /metrics HTTP/1.1\r\nHost: %s\r\nUser-Agent: %s\r\n"
                     "Accept: text/plain\r\nConnection: close\r\n\r\n",
                     host, PROG);
    if (n < 0 || size_t(n) >= sizeof req) return refused("host name too long");
    if (send(fd, req, size_t(n), MSG_NOSIGNAL) != n) {
        say("sending the request failed: %s", strerror(errno));
        return ORDCLI_FAILED;
    }
    static char ans[1 << 16];  // the whole answer: the admin listener closes after it
    size_t got = 0;
    while (got + 1 < sizeof ans) {
        ssize_t r = recv(fd, ans + got, sizeof ans - 1 - got, 0);
        if (r > 0) {
            got += size_t(r);
            continue;
        }
        if (r == 0 || errno == ECONNRESET) break;
        if (errno != EAGAIN && errno != EINTR) {
            say("reading the answer failed: %s", strerror(errno));
            return ORDCLI_FAILED;
        }
        if (wait_fd(fd, POLLIN, t0, a.timeout_ms) <= 0) {
            say("no whole answer within the time-out");
            return ORDCLI_TIMEOUT;
        }
    }
    ans[got] = '\0';
    std::string_view text(ans, got);
    size_t body = text.find("\r\n\r\n");
    if (!text.starts_with("HTTP/1.1 200 ") || body == std::string_view::npos) {
        std::string_view line = text.substr(0, text.find('\r'));
        if (line.empty()) line = "no answer";
        say("no metrics at %s: %.*s", a.endpoint, int(line.size()), line.data());
        return ORDCLI_FAILED;
    }
    return ordcli_print_stats(text.substr(body + 4), stdout) == 0 ? ORDCLI_OK : ORDCLI_FAILED;
}

int parse_args(int argc, char **argv, cli_args *a) {
    *a = cli_args{};
    a->timeout_ms = DEFAULT_TIMEOUT_MS;
    if (argc < 2) {
        say("which order? trov-order http|udp ... (see --help)");
        return ORDCLI_REFUSED;
    }
    std::string_view cmd = argv[1];
    if (cmd == "-h" || cmd == "--help") {
        ordcli_usage(stdout);
        return -1;
    }
    if (cmd == "stats") {
        a->stats = true;
        return parse_stats_args(argc - 1, argv + 1, a);
    }
    if (cmd != "http" && cmd != "udp") {
        say("unknown command [%s]: http, udp or stats (see --help)", argv[1]);
        return ORDCLI_REFUSED;
    }
    a->http = cmd == "http";

    static const option LONG_OPTS[] = {
        {"expiry", required_argument, nullptr, 'e'},
        {"wait", required_argument, nullptr, 'w'},
        {"timeout", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    // getopt sees the command as the program name and permutes, so options
    // may stand before or after the arguments.
    int sub_argc = argc - 1;
    char **sub_argv = argv + 1;
    optind = 1;
    opterr = 0;
    for (int c; (c = getopt_long(sub_argc, sub_argv, ":e:w:t:h", LONG_OPTS, nullptr)) != -1;) {
        switch (c) {
            case 'e':
                a->expiry_text = optarg;
                break;
            case 'w':
                a->wait_dir = optarg;
                break;
            case 't':
                if (ordcli_parse_timeout(optarg, &a->timeout_ms) != 0) {
                    say("bad --timeout [%s]: a number of seconds above 0, at most a week", optarg);
                    return ORDCLI_REFUSED;
                }
                break;
            case 'h':
                ordcli_usage(stdout);
                return -1;
            case ':':
                say("option %s needs an argument", sub_argv[optind - 1]);
                return ORDCLI_REFUSED;
            default:
                if (optopt != 0)
                    say("unknown option -%c (see --help)", optopt);
                else
                    say("unknown option %s (see --help)", sub_argv[optind - 1]);
                return ORDCLI_REFUSED;
        }
    }
    int nargs = sub_argc - optind;
    char **args = sub_argv + optind;
    int need = a->http ? 2 : 3;
    if (nargs < need || nargs > need + 1) {
        say("%s takes %s (see --help)", a->http ? "http" : "udp",
            a->http ? "HOST:PORT SOURCE-URL [DEST]" : "HOST:PORT ID SOURCE-URL [DEST]");
        return ORDCLI_REFUSED;
    }
    int i = 0;
    a->endpoint = args[i++];
    if (!a->http) a->lid = args[i++];
    a->src = args[i++];
    a->dst = i < nargs ? args[i] : "";
    return 0;
}

int run(const cli_args &a) {
    char host[ORDCLI_HOST_SIZE];
    char port[ORDCLI_PORT_SIZE];
    if (ordcli_parse_endpoint(a.endpoint, host, sizeof host, port, sizeof port) != 0) {
        say("bad HOST:PORT [%s]: give a host or address and a port from 1 to 65535", a.endpoint);
        return ORDCLI_REFUSED;
    }
    ord_spec o{a.src, a.dst, a.lid, 0};
    long now = long(time(nullptr));
    if (a.expiry_text == nullptr) {
        o.expiry = now + DEFAULT_EXPIRY_IN;
    } else if (ord_parse_expiry(a.expiry_text, now, &o.expiry) != 0) {
        say("bad --expiry [%s]: seconds since the epoch, or +SECONDS from now", a.expiry_text);
        return ORDCLI_REFUSED;
    }

    char why[ORD_WHY_SIZE] = "";
    char msg[ORD_HEAD_MAX + ORD_MSG_MAX + 2];
    size_t len = 0;
    int rc = a.http ? ord_build_http(&o, a.endpoint, msg, sizeof msg, &len, why, sizeof why)
                    : ord_build_datagram(&o, msg, sizeof msg, &len, why, sizeof why);
    if (rc != 0) return refused(why);

    fw_ctx w{};
    w.ifd = -1;
    scope_exit close_wait{[&w] { fw_close(&w); }};
    if (a.wait_dir != nullptr) {
        char rel[ORD_DST_MAX + 1];
        if (ord_final_path(&o, rel, sizeof rel, why, sizeof why) != 0) return refused(why);
        // Watching starts before the order goes out, so a quick download
        // cannot slip by unseen.
        int wrc = fw_open(&w, a.wait_dir, rel, why, sizeof why);
        if (wrc != 0) {
            say("%s", why);
            return wrc == 17 ? ORDCLI_FAILED : ORDCLI_REFUSED;
        }
    }

    timespec t0{};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    fw_mark(&w);
    rc =
        a.http ? send_http(host, port, msg, len, t0, a.timeout_ms) : send_udp(host, port, msg, len);
    fflush(stdout);
    if (rc != ORDCLI_OK || a.wait_dir == nullptr) return rc;

    long long size = 0;
    long elapsed = 0;
    int progress_fd = isatty(STDERR_FILENO) ? STDERR_FILENO : -1;
    if (fw_wait(&w, a.timeout_ms, progress_fd, &size, &elapsed) != 0) {
        say("%s did not appear within %ld.%03ld s", w.path, a.timeout_ms / 1000,
            a.timeout_ms % 1000);
        return ORDCLI_TIMEOUT;
    }
    printf("%s: %lld bytes in %ld.%03ld s\n", w.path, size, elapsed / 1000, elapsed % 1000);
    return ORDCLI_OK;
}

}  // namespace

int ordcli_parse_endpoint(const char *text, char *host, size_t host_size, char *port,
                          size_t port_size) {
    if (text == nullptr) return 22;
    std::string_view t(text);
    size_t colon = t.rfind(':');
    if (colon == std::string_view::npos) return 22;
    std::string_view h = t.substr(0, colon);
    std::string_view p = t.substr(colon + 1);
    if (h.starts_with('[')) {
        if (!h.ends_with(']') || h.size() < 3) return 22;
        h = h.substr(1, h.size() - 2);
    } else if (h.find(':') != std::string_view::npos) {
        return 22;  // a bare IPv6 address: which colon ends it is a guess
    }
    if (h.empty() || h.size() + 1 > host_size) return 22;
    if (p.empty() || p.size() > 5 || p.size() + 1 > port_size) return 22;
    long v = 0;
    for (char c : p) {
        if (c < '0' || c > '9') return 22;
        v = v * 10 + (c - '0');
    }
    if (v < 1 || v > 65535) return 22;
    memcpy(host, h.data(), h.size());
    host[h.size()] = '\0';
    memcpy(port, p.data(), p.size());
    port[p.size()] = '\0';
    return 0;
}

int ordcli_parse_timeout(const char *text, long *ms) {
    if (text == nullptr || text[0] == '\0') return 22;
    errno = 0;
    char *end = nullptr;
    double s = strtod(text, &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(s) || s <= 0) return 22;
    double v = std::ceil(s * 1000.0);
    if (v > double(MAX_TIMEOUT_MS)) return 22;
    *ms = long(v);
    return 0;
}

void ordcli_usage(FILE *fp) { fputs(HELP, fp); }

int ordcli_main(int argc, char **argv) {
    cli_args a{};
    int rc = parse_args(argc, argv, &a);
    if (rc == -1) return ORDCLI_OK;  // help printed
    if (rc != 0) return rc;
    return a.stats ? run_stats(a) : run(a);
}

// Tests of the end-to-end harness itself: the origin server seen from plain
// sockets, the content checks, the clients, and the process runner driven
// against a stand-in that this very binary becomes when the environment
// asks for it.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libconfig.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 5000;  // upper bound of every wait that should succeed

// ---------------------------------------------------------------------------
// The stand-in: when TROV_HARNESS_STANDIN is set, this binary does not run
// its tests but plays a small daemon for the runner, before main() starts.
// It reads the configuration named by -C, listens on the configured web port
// (and binds the UDP port of udp_input), writes lines to the configured log
// and reacts to signals: SIGUSR1 is logged, SIGUSR2 opens three descriptors
// and burns 100 ms of CPU, SIGTERM ends it with status 0. Modes:
// "serve", "ignore-term" (SIGTERM ignored) and "exit:<n>" (ends at once).

void standin_log(const std::string &path, const std::string &line) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string l = line + "\n";
    (void)!write(fd, l.data(), l.size());
    close(fd);
}

std::string standin_conf_path() {
    std::string cmd;
    int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    close(fd);
    if (n > 0) cmd.assign(buf, size_t(n));
    std::vector<std::string> args;
    for (size_t p = 0; p < cmd.size();) {
        size_t z = cmd.find('\0', p);
        args.push_back(cmd.substr(p, z - p));
        p = z == std::string::npos ? cmd.size() : z + 1;
    }
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == "-C") return args[i + 1];
    return "";
}

int standin_socket(int type, int port) {
    int fd = socket(AF_INET, type, 0);
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return -1;
    if (type == SOCK_STREAM && listen(fd, 16) != 0) return -1;
    return fd;
}

void burn_cpu(long ms) {
    timespec ts{};
    for (long i = 0; i < 1000000000L; ++i) {  // bounded; the clock ends it long before
        if ((i & 0xffff) == 0) {
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
            if (ts.tv_sec * 1000L + ts.tv_nsec / 1000000L >= ms) return;
        }
    }
}

int standin_main(const std::string &mode) {
    config_t cf;
    config_init(&cf);
    std::string conf = standin_conf_path();
    if (config_read_file(&cf, conf.c_str()) != CONFIG_TRUE) {
        fprintf(stderr, "stand-in: cannot read [%s]\n", conf.c_str());
        return 90;
    }
    const char *logp = nullptr, *udp = nullptr;
    int port = 0;
    (void)config_lookup_string(&cf, "trov.log.file", &logp);
    (void)config_lookup_int(&cf, "trov.web_input.port", &port);
    (void)config_lookup_string(&cf, "trov.udp_input.url", &udp);
    std::string log = logp != nullptr ? logp : "";
    int udp_port = udp != nullptr && strrchr(udp, ':') != nullptr ? atoi(strrchr(udp, ':') + 1) : 0;
    config_destroy(&cf);

    if (mode.starts_with("exit:")) {
        standin_log(log, "stand-in giving up");
        return atoi(mode.c_str() + 5);
    }
    printf("stand-in stdout\n");
    fflush(stdout);
    fprintf(stderr, "stand-in stderr\n");
    if (port > 0 && standin_socket(SOCK_STREAM, port) < 0) return 91;
    if (udp_port > 0 && standin_socket(SOCK_DGRAM, udp_port) < 0) return 92;

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    sigaddset(&set, SIGUSR2);
    if (mode == "ignore-term")
        signal(SIGTERM, SIG_IGN);
    else
        sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    standin_log(log, "stand-in STARTING pid=" + std::to_string(getpid()));
    timespec tick{.tv_sec = 0, .tv_nsec = 100000000L};
    for (int i = 0; i < 300; ++i) {  // 30 seconds at most
        int sig = sigtimedwait(&set, nullptr, &tick);
        if (sig == SIGTERM) {
            standin_log(log, "stand-in shut down");
            return 0;
        }
        if (sig == SIGUSR1) standin_log(log, "stand-in got signal " + std::to_string(sig));
        if (sig == SIGUSR2) {
            for (int k = 0; k < 3; ++k) (void)open("/dev/null", O_RDONLY);
            burn_cpu(100);
            standin_log(log, "stand-in opened 3, burned");
        }
    }
    return 99;
}

struct standin_hook {
    standin_hook() {
        if (const char *mode = getenv("TROV_HARNESS_STANDIN"); mode != nullptr)
            _exit(standin_main(mode));
    }
} g_standin_hook;

std::string self_exe() {
    char buf[512];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, size_t(n)) : "";
}

// ---------------------------------------------------------------------------

int count_entries(const char *dir) {
    DIR *d = opendir(dir);
    if (d == nullptr) return -1;
    int n = 0;
    for (dirent *e = readdir(d); e != nullptr; e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

std::string body_of(int size, const std::string &name, size_t off = 0) {
    std::string b(size_t(size), '\0');
    origin_fill(name, off, b.data(), b.size());
    return b;
}

std::string get_rq(const std::string &target) {
    return "GET " + target + " HTTP/1.1\r\nHost: test\r\n\r\n";
}

// Waits up to ms for fd to become readable; true when it did.
bool readable(int fd, int ms) {
    pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&p, 1, ms) == 1;
}

// Every test gets a running origin and a runner with its directory; both
// are cheap, and one fixture keeps every case in the one suite.
class Harness : public ::testing::Test {
   protected:
    void SetUp() override {
        origin_cfg cfg;
        cfg.split_pause_ms = 300;
        cfg.slow_piece = 500;
        cfg.slow_pause_ms = 5;
        o = origin_start(cfg);
        ASSERT_NE(o, nullptr);
        ASSERT_EQ(daemon_init(&d, self_exe()), 0);
    }
    void TearDown() override {
        origin_destroy(o);
        daemon_destroy(&d);
    }
    int port() const { return origin_port(o); }
    // Starts this binary as the stand-in in the given mode.
    void start(const char *mode, const daemon_conf &c = daemon_conf{}) {
        ASSERT_EQ(daemon_configure(&d, c), 0);
        d.env = {std::string("TROV_HARNESS_STANDIN=") + mode};
        ASSERT_EQ(daemon_start(&d), 0);
    }
    origin *o = nullptr;
    daemon_proc d{};
};

TEST_F(Harness, OriginServesBodyWithExactHead) {
    net_reply r = http_get(port(), "/f/1000/live/a.ts", {}, WAIT_MS);
    ASSERT_EQ(r.err, 0);
    EXPECT_TRUE(r.peer_closed);
    EXPECT_EQ(r.data.substr(0, r.head_len),
              "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
              "Content-Length: 1000\r\nConnection: close\r\n\r\n");
    std::string body = net_body(r);
    ASSERT_EQ(body.size(), 1000u);
    EXPECT_EQ(origin_check_bytes(body.data(), body.size(), "live/a.ts"), "");
    EXPECT_NE(origin_check_bytes(body.data(), body.size(), "live/b.ts"), "");

    net_reply h = net_exchange(port(), "HEAD /f/1000/live/a.ts HTTP/1.1\r\n\r\n", WAIT_MS);
    EXPECT_EQ(h.status, 200);
    EXPECT_EQ(net_header(h, "content-length"), "1000");
    EXPECT_EQ(h.data.size(), h.head_len) << "HEAD must get no body";
}

TEST_F(Harness, ByteStreamDependsOnNameAndOffset) {
    std::string a = body_of(4096, "seg/1.ts"), shifted = body_of(4091, "seg/1.ts", 5);
    EXPECT_EQ(a.substr(5), shifted) << "a range read at an offset must continue the same stream";
    for (uint64_t i : {0ull, 7ull, 8ull, 4095ull})
        EXPECT_EQ(uint8_t(a[i]), origin_byte("seg/1.ts", i)) << "at " << i;
    std::string b = body_of(4096, "seg/2.ts");
    int same = 0;
    for (size_t i = 0; i < a.size(); ++i) same += a[i] == b[i];
    EXPECT_LT(same, 100) << "two names must not share content";
    std::string bad = a;
    bad[1234] = char(bad[1234] ^ 0x01);
    EXPECT_NE(origin_check_bytes(bad.data(), bad.size(), "seg/1.ts").find("byte 1234"),
              std::string::npos);
}

TEST_F(Harness, OriginAnswerShapes) {
    struct row {
        const char *target;
        int status;
        const char *clen;  // nullptr = no Content-Length
        size_t body;       // bytes of body expected
        const char *name;  // body checked against this name's stream; nullptr = not a stream
    } rows[] = {
        {"/nolen/500/n/x.ts", 200, nullptr, 500, "n/x.ts"},
        {"/zero/z.ts", 200, "0", 0, nullptr},
        {"/status/404/s.ts", 404, "11", 11, nullptr},
        {"/status/503/s.ts?expiry=1", 503, "11", 11, nullptr},
        {"/status/204/s.ts", 204, nullptr, 0, nullptr},
        {"/short/1000/300/sh.ts", 200, "1000", 300, "sh.ts"},
        {"/long/100/20/lo.ts", 200, "100", 120, "lo.ts"},
        {"/once/300/on.ts", 200, "300", 300, "on.ts"},
        {"/slow/3000/sl.ts", 200, "3000", 3000, "sl.ts"},
        {"/delay/30/f/10/d.ts?x=1", 200, "10", 10, "d.ts"},
        {"/nosuch/10/x", 404, "18", 18, nullptr},
        {"/f/12x/x", 400, "19", 19, nullptr},
        {"/f/10", 400, "13", 13, nullptr},
    };
    for (const row &w : rows) {
        SCOPED_TRACE(w.target);
        net_reply r = http_get(port(), w.target, {}, WAIT_MS);
        EXPECT_TRUE(r.peer_closed);
        EXPECT_EQ(r.status, w.status);
        bool has = false;
        std::string clen = net_header(r, "Content-Length", &has);
        EXPECT_EQ(has, w.clen != nullptr);
        if (w.clen != nullptr) {
            EXPECT_EQ(clen, w.clen);
        }
        std::string body = net_body(r);
        EXPECT_EQ(body.size(), w.body);
        if (w.name != nullptr) {
            EXPECT_EQ(origin_check_bytes(body.data(), body.size(), w.name), "");
        }
    }
    EXPECT_EQ(net_body(http_get(port(), "/status/404/s.ts", {}, WAIT_MS)), "status 404\n");
    EXPECT_EQ(net_exchange(port(), "POST /f/1/x HTTP/1.1\r\n\r\n", WAIT_MS).status, 405);
}

TEST_F(Harness, SplitHeadArrivesInTwoReads) {
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/split/20/sp.ts"), WAIT_MS), 0);
    ASSERT_TRUE(readable(fd, WAIT_MS));
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buf, size_t(n)), "HTTP/1.1 200 OK\r\n")
        << "the status line must come alone, the rest after the pause";
    net_reply rest = net_read_reply(fd, WAIT_MS);
    EXPECT_TRUE(rest.peer_closed);
    std::string all = std::string(buf, size_t(n)) + rest.data;
    size_t head = all.find("\r\n\r\n");
    ASSERT_NE(head, std::string::npos);
    EXPECT_NE(all.find("Content-Length: 20\r\n"), std::string::npos);
    EXPECT_EQ(origin_check_bytes(all.data() + head + 4, all.size() - head - 4, "sp.ts"), "");
    EXPECT_EQ(all.size() - head - 4, 20u);
    close(fd);
}

TEST_F(Harness, OnceSendsHeadAndBodyInOneRead) {
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/once/200/o.ts"), WAIT_MS), 0);
    ASSERT_TRUE(readable(fd, WAIT_MS));
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    std::string first(buf, size_t(n > 0 ? n : 0));
    size_t head = first.find("\r\n\r\n");
    ASSERT_NE(head, std::string::npos);
    EXPECT_EQ(first.size() - head - 4, 200u) << "the body must come in the same read as the head";
    close(fd);
}

TEST_F(Harness, ResetEndsWithConnectionReset) {
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/reset/100000/r.ts"), WAIT_MS), 0);
    net_reply r = net_read_reply(fd, WAIT_MS);
    close(fd);
    EXPECT_TRUE(r.reset) << "err=" << r.err << " closed=" << r.peer_closed;
    EXPECT_FALSE(r.peer_closed);
    EXPECT_EQ(net_header(r, "Content-Length"), "100000");
    std::string body = net_body(r);
    EXPECT_EQ(body.size(), 50000u) << "half the body is sent and acknowledged before the reset";
    EXPECT_EQ(origin_check_bytes(body.data(), body.size(), "r.ts"), "");
}

TEST_F(Harness, StallKeepsConnectionOpenUntilStop) {
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/stall/1000/100/st.ts"), WAIT_MS), 0);
    net_reply first = net_read_reply(fd, 200);
    EXPECT_TRUE(first.timed_out);
    EXPECT_FALSE(first.peer_closed);
    EXPECT_EQ(net_body(first).size(), 100u);
    EXPECT_EQ(origin_open_connections(o), 1);
    origin_stop(o);
    net_reply after = net_read_reply(fd, WAIT_MS);
    EXPECT_TRUE(after.peer_closed) << "a stopped server closes what it held";
    EXPECT_EQ(after.data, "");
    close(fd);
}

TEST_F(Harness, DelayHoldsTheAnswer) {
    origin_set_delay(o, 400);
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/f/10/dl.ts"), WAIT_MS), 0);
    ASSERT_TRUE(origin_wait_requests(o, 1, WAIT_MS));
    EXPECT_FALSE(readable(fd, 50)) << "nothing may come before the delay has passed";
    net_reply r = net_read_reply(fd, WAIT_MS);
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(net_body(r).size(), 10u);
    close(fd);
}

TEST_F(Harness, RequestLogRecordsEveryRequest) {
    EXPECT_EQ(http_get(port(), "/f/5/a.ts?expiry=17&k=v", {"X-Probe: one"}, WAIT_MS).status, 200);
    EXPECT_EQ(http_get(port(), "/zero/b.ts", {}, WAIT_MS).status, 200);
    int fd = net_connect(port(), WAIT_MS);  // a connection that never sends a request
    ASSERT_GE(fd, 0);
    EXPECT_EQ(net_exchange(port(), "HEAD /f/5/c.ts HTTP/1.0\r\n\r\n", WAIT_MS).status, 200);
    close(fd);

    std::vector<origin_request> rq = origin_requests(o);
    ASSERT_EQ(rq.size(), 3u);
    EXPECT_EQ(rq[0].method, "GET");
    EXPECT_EQ(rq[0].target, "/f/5/a.ts?expiry=17&k=v");
    EXPECT_EQ(rq[0].path, "/f/5/a.ts");
    EXPECT_EQ(rq[0].query, "expiry=17&k=v");
    EXPECT_TRUE(rq[0].head.starts_with("GET /f/5/a.ts?expiry=17&k=v HTTP/1.1\r\n"));
    EXPECT_NE(rq[0].head.find("\r\nX-Probe: one\r\n"), std::string::npos);
    EXPECT_TRUE(rq[0].head.ends_with("\r\n\r\n"));
    EXPECT_EQ(rq[1].query, "");
    EXPECT_EQ(rq[2].method, "HEAD");
    EXPECT_NE(rq[0].conn_id, rq[1].conn_id);
    EXPECT_EQ(origin_request_count(o, ".ts"), 3u);
    EXPECT_EQ(origin_request_count(o, "/zero/"), 1u);
    EXPECT_EQ(origin_request_count(o, "expiry"), 0u) << "the query is not part of the path";
    EXPECT_EQ(origin_connections(o), 4);
    EXPECT_TRUE(origin_wait_idle(o, WAIT_MS));
    EXPECT_FALSE(origin_wait_requests(o, 4, 20));
}

TEST_F(Harness, ManyConnectionsAreServedAtOnce) {
    constexpr int N = 64;
    std::vector<int> fds;
    std::vector<std::string> got(N);
    std::vector<bool> done(N, false);
    for (int i = 0; i < N; ++i) {
        int fd = net_connect(port(), WAIT_MS);
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
    }
    // All requests go out before any answer is read, so the server has to
    // keep every connection going at the same time.
    for (int i = 0; i < N; ++i)
        ASSERT_EQ(
            net_send_all(fds[i],
                         get_rq("/f/" + std::to_string(1000 * (i + 1)) + "/m" + std::to_string(i)),
                         WAIT_MS),
            0);
    int left = N;
    for (int round = 0; round < 10000 && left > 0; ++round) {
        std::vector<pollfd> p;
        for (int i = 0; i < N; ++i)
            p.push_back({.fd = done[i] ? -1 : fds[i], .events = POLLIN, .revents = 0});
        ASSERT_GT(poll(p.data(), p.size(), WAIT_MS), 0);
        for (int i = 0; i < N; ++i) {
            if (done[i] || p[i].revents == 0) continue;
            char buf[65536];
            ssize_t n = recv(fds[i], buf, sizeof buf, 0);
            if (n > 0) got[i].append(buf, size_t(n));
            if (n <= 0) {
                done[i] = true;
                --left;
            }
        }
    }
    EXPECT_EQ(left, 0);
    for (int i = 0; i < N; ++i) {
        close(fds[i]);
        size_t head = got[i].find("\r\n\r\n");
        ASSERT_NE(head, std::string::npos) << i;
        EXPECT_EQ(got[i].size() - head - 4, size_t(1000 * (i + 1))) << i;
        EXPECT_EQ(origin_check_bytes(got[i].data() + head + 4, got[i].size() - head - 4,
                                     "m" + std::to_string(i)),
                  "")
            << i;
    }
    EXPECT_EQ(origin_connections(o), N);
}

TEST_F(Harness, LargeBodyStreamsWithoutBuildingIt) {
    constexpr uint64_t SIZE = 32u << 20;
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/f/" + std::to_string(SIZE) + "/big.ts"), WAIT_MS), 0);
    std::string pending;
    uint64_t body = 0;
    bool in_body = false, closed = false;
    std::string mismatch;
    std::vector<char> buf(1 << 20);
    for (int i = 0; i < 100000 && !closed && readable(fd, WAIT_MS); ++i) {
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n <= 0) {
            closed = n == 0;
            break;
        }
        const char *p = buf.data();
        size_t len = size_t(n);
        if (!in_body) {
            pending.append(p, len);
            size_t head = pending.find("\r\n\r\n");
            if (head == std::string::npos) continue;
            in_body = true;
            p = pending.data() + head + 4;
            len = pending.size() - head - 4;
        }
        if (mismatch.empty()) mismatch = origin_check_bytes(p, len, "big.ts", body);
        body += len;
    }
    close(fd);
    EXPECT_TRUE(closed);
    EXPECT_EQ(body, SIZE);
    EXPECT_EQ(mismatch, "");
}

TEST_F(Harness, StopClosesEveryConnectionAndLeavesNothing) {
    origin_destroy(o);
    o = nullptr;
    int fds0 = count_entries("/proc/self/fd"), threads0 = count_entries("/proc/self/task");
    origin_cfg cfg;
    o = origin_start(cfg);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(count_entries("/proc/self/task"), threads0 + 1);
    // One connection in each state: head half sent, answer delayed, stalled.
    const char *sends[] = {"GET /f/10/x HTTP/1.1\r\nHo", "GET /delay/60000/f/10/x HTTP/1.1\r\n\r\n",
                           "GET /stall/100/10/x HTTP/1.1\r\n\r\n"};
    std::vector<int> fds;
    for (const char *s : sends) {
        int fd = net_connect(port(), WAIT_MS);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(net_send_all(fd, s, WAIT_MS), 0);
        fds.push_back(fd);
    }
    ASSERT_TRUE(origin_wait_requests(o, 2, WAIT_MS));
    EXPECT_EQ(origin_open_connections(o), 3);
    origin_stop(o);
    origin_stop(o);  // a second stop is harmless
    EXPECT_EQ(origin_open_connections(o), 0);
    for (int fd : fds) {
        net_reply r = net_read_reply(fd, WAIT_MS);
        EXPECT_TRUE(r.peer_closed || r.reset) << "every accepted connection is closed";
        close(fd);
    }
    origin_destroy(o);
    o = nullptr;
    EXPECT_EQ(count_entries("/proc/self/fd"), fds0);
    EXPECT_EQ(count_entries("/proc/self/task"), threads0);
}

TEST_F(Harness, RestartsOnTheSamePortAndSeesClientsLeave) {
    int fd = net_connect(port(), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get_rq("/stall/100/10/x"), WAIT_MS), 0);
    ASSERT_TRUE(origin_wait_requests(o, 1, WAIT_MS));
    EXPECT_FALSE(origin_wait_idle(o, 20));
    close(fd);
    EXPECT_TRUE(origin_wait_idle(o, WAIT_MS)) << "a client that closes is noticed";

    int old = port();
    origin_stop(o);
    EXPECT_NE(net_exchange(old, get_rq("/zero/x"), WAIT_MS).err, 0);
    origin_cfg cfg;
    cfg.port = old;
    origin *again = origin_start(cfg);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(origin_port(again), old);
    EXPECT_EQ(http_get(old, "/zero/x", {}, WAIT_MS).status, 200);
    EXPECT_EQ(origin_url(again, "/f/1/x"), "http://127.0.0.1:" + std::to_string(old) + "/f/1/x");
    origin_destroy(again);
}

TEST_F(Harness, ExpectFileFindsWrongByteAndLength) {
    char dir[] = "/tmp/trov-harness-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/f.bin";
    constexpr size_t SIZE = (1 << 20) + 3;  // the checker reads in 1 MiB pieces
    std::string body = body_of(SIZE, "file/one.ts");
    auto write_file = [&](const std::string &text) {
        FILE *fp = fopen(path.c_str(), "w");
        ASSERT_NE(fp, nullptr);
        ASSERT_EQ(fwrite(text.data(), 1, text.size(), fp), text.size());
        fclose(fp);
    };
    write_file(body);
    EXPECT_EQ(origin_expect_file(path, "file/one.ts", SIZE), "");
    EXPECT_NE(origin_expect_file(path, "file/two.ts", SIZE), "");

    std::string bad = body;
    bad[SIZE - 2] = char(bad[SIZE - 2] + 1);  // in the second piece
    write_file(bad);
    std::string msg = origin_expect_file(path, "file/one.ts", SIZE);
    EXPECT_NE(msg.find("byte " + std::to_string(SIZE - 2)), std::string::npos) << msg;

    write_file(body.substr(0, SIZE - 1));
    msg = origin_expect_file(path, "file/one.ts", SIZE);
    EXPECT_NE(msg.find(std::to_string(SIZE - 1) + " bytes, expected " + std::to_string(SIZE)),
              std::string::npos)
        << msg;
    unlink(path.c_str());
    EXPECT_NE(origin_expect_file(path, "file/one.ts", SIZE).find("cannot open"), std::string::npos);
    rmdir(dir);
}

TEST_F(Harness, DatagramsReachUnicastAndMulticastMembers) {
    int port = pick_free_port(SOCK_DGRAM);
    ASSERT_GT(port, 0);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int one = 1;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one), 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    sa.sin_addr.s_addr = htonl(INADDR_ANY);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    ip_mreq mr{};
    inet_pton(AF_INET, "239.255.17.3", &mr.imr_multiaddr);
    mr.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mr, sizeof mr), 0);

    char buf[2048];
    ASSERT_EQ(udp_send(port, "#!unicast", 9), 0);
    ASSERT_TRUE(readable(fd, WAIT_MS));
    EXPECT_EQ(recv(fd, buf, sizeof buf, 0), 9);
    EXPECT_EQ(std::string(buf, 9), "#!unicast");

    ASSERT_EQ(udp_send_mcast("239.255.17.3", port, "#!multicast", 11), 0);
    ASSERT_TRUE(readable(fd, WAIT_MS));
    sockaddr_in from{};
    socklen_t fl = sizeof from;
    ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
    EXPECT_EQ(std::string(buf, size_t(n > 0 ? n : 0)), "#!multicast");
    EXPECT_EQ(ntohl(from.sin_addr.s_addr), INADDR_LOOPBACK) << "sent out through lo";
    EXPECT_EQ(udp_send_mcast("not-a-group", port, "x", 1), -EINVAL);
    close(fd);
}

TEST_F(Harness, ClientReportsRefusalAndFindsHeaders) {
    int port = pick_free_port(SOCK_STREAM);
    ASSERT_GT(port, 0);
    net_reply r = net_exchange(port, "GET / HTTP/1.1\r\n\r\n", WAIT_MS);
    EXPECT_EQ(r.err, ECONNREFUSED);
    EXPECT_EQ(r.status, -1);
    EXPECT_EQ(net_connect(port, WAIT_MS), -ECONNREFUSED);

    net_reply h{};
    h.data = "HTTP/1.1 204 No Content\r\nServer:  trv/0.2 \r\nX-Empty:\r\n\r\nServer: body";
    h.head_len = h.data.find("\r\n\r\n") + 4;
    bool has = false;
    EXPECT_EQ(net_header(h, "server", &has), "trv/0.2");
    EXPECT_TRUE(has);
    EXPECT_EQ(net_header(h, "X-EMPTY", &has), "");
    EXPECT_TRUE(has);
    EXPECT_EQ(net_header(h, "Serve", &has), "");
    EXPECT_FALSE(has);
    EXPECT_EQ(net_body(h), "Server: body");
}

// ---------------------------------------------------------------------------

TEST_F(Harness, RenderedConfigReadsBack) {
    daemon_conf c;
    c.udp_url = "udp://239.1.1.1:5500";
    c.udp_mcast_ifc = "lo";
    c.lbdb_port = 6379;
    c.lbdb_sha1_dir = d.dir + "/sha";
    c.local_url_prefix = "http://127.0.0.1:9/seg";
    c.max_mmap_mb = 0;
    c.task_tmout_ms = 250;
    c.pidfile = true;
    c.extra = "user_key = \"x\\\"y\";";
    c.data_dir = "/tmp/odd \"dir\"";
    std::string text = daemon_render_config(&d, c);
    ASSERT_GT(d.port, 0);

    config_t cf;
    config_init(&cf);
    ASSERT_EQ(config_read_string(&cf, text.c_str()), CONFIG_TRUE)
        << config_error_text(&cf) << " at line " << config_error_line(&cf) << "\n"
        << text;
    auto str = [&](const char *path) {
        const char *v = nullptr;
        return config_lookup_string(&cf, path, &v) == CONFIG_TRUE ? std::string(v) : "<absent>";
    };
    auto num = [&](const char *path) {
        int v = -12345;
        (void)config_lookup_int(&cf, path, &v);
        return v;
    };
    auto flag = [&](const char *path) {
        int v = -1;
        (void)config_lookup_bool(&cf, path, &v);
        return v;
    };
    EXPECT_EQ(str("trov.log.file"), d.log_path);
    EXPECT_EQ(str("trov.log.level"), "debug");
    EXPECT_EQ(flag("trov.log.enable_syslog"), 0);
    EXPECT_EQ(flag("trov.runtime.non_daemon"), 1);
    EXPECT_EQ(str("trov.runtime.pidfile"), d.pid_path);
    EXPECT_EQ(str("trov.web_input.ifc"), "127.0.0.1");
    EXPECT_EQ(num("trov.web_input.port"), d.port);
    EXPECT_EQ(str("trov.udp_input.url"), "udp://239.1.1.1:5500");
    EXPECT_EQ(str("trov.udp_input.lock_dir"), d.lock_dir);
    EXPECT_EQ(str("trov.udp_input.mcast_ifc"), "lo");
    EXPECT_EQ(flag("trov.udp_input.must_lock"), 1);
    EXPECT_EQ(num("trov.lbdb.port"), 6379);
    EXPECT_EQ(str("trov.lbdb.sha1_dir"), d.dir + "/sha");
    EXPECT_EQ(num("trov.lbdb.connect_tmout_ms"), 500);
    EXPECT_EQ(str("trov.local_url_prefix"), "http://127.0.0.1:9/seg");
    EXPECT_EQ(str("trov.data_dir"), "/tmp/odd \"dir\"");
    EXPECT_EQ(num("trov.max_tasks"), 64);
    EXPECT_EQ(num("trov.max_mmap_mb"), 0);
    EXPECT_EQ(num("trov.urq_tmout_sec"), 1);
    EXPECT_EQ(num("trov.task_tmout_ms"), 250);
    EXPECT_EQ(str("trov.user_key"), "x\"y");
    config_destroy(&cf);

    daemon_conf bare;
    bare.web = false;
    text = daemon_render_config(&d, bare);
    config_init(&cf);
    ASSERT_EQ(config_read_string(&cf, text.c_str()), CONFIG_TRUE) << text;
    EXPECT_EQ(config_lookup(&cf, "trov.web_input"), nullptr);
    EXPECT_EQ(config_lookup(&cf, "trov.udp_input"), nullptr);
    EXPECT_EQ(config_lookup(&cf, "trov.lbdb"), nullptr);
    EXPECT_EQ(config_lookup(&cf, "trov.local_url_prefix"), nullptr);
    EXPECT_EQ(config_lookup(&cf, "trov.runtime.pidfile"), nullptr);
    EXPECT_EQ(str("trov.data_dir"), d.data_dir);
    EXPECT_EQ(d.port, 0);
    config_destroy(&cf);
}

TEST_F(Harness, StartsWaitsSignalsAndStops) {
    daemon_conf c;
    c.udp_url = "udp://127.0.0.1:" + std::to_string(pick_free_port(SOCK_DGRAM));
    int udp_port = atoi(strrchr(c.udp_url.c_str(), ':') + 1);
    start("serve", c);
    ASSERT_EQ(daemon_wait_log(&d, "stand-in STARTING", WAIT_MS), 0);
    ASSERT_EQ(daemon_wait_socket(&d, 0, WAIT_MS), 0);
    ASSERT_EQ(daemon_wait_socket(&d, udp_port, WAIT_MS, "udp"), 0);
    EXPECT_EQ(daemon_wait_socket(&d, udp_port, 30, "tcp"), DAEMON_TIMEOUT)
        << "a UDP socket is no TCP listener";
    EXPECT_EQ(daemon_wait_socket(&d, port(), 30), DAEMON_TIMEOUT)
        << "the origin's listener belongs to the test, not to the child";
    ASSERT_EQ(daemon_wait_connect(&d, 0, WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log_regex(&d, "STARTING pid=" + std::to_string(d.pid) + "$"), 1);

    int fds = daemon_fd_count(&d);
    EXPECT_GE(fds, 5) << "0-2, the listener and the UDP socket";
    for (const std::string &f : daemon_fd_list(&d))
        EXPECT_EQ(f.find("pipe:"), std::string::npos) << "leaked from the test: " << f;
    EXPECT_GT(daemon_rss_kb(&d), 0);

    size_t mark = daemon_log_mark(&d);
    EXPECT_EQ(daemon_wait_log(&d, "got signal", 30, 1, mark), DAEMON_TIMEOUT);
    ASSERT_EQ(daemon_signal(&d, SIGUSR1), 0);
    ASSERT_EQ(daemon_signal(&d, SIGUSR2), 0);
    ASSERT_EQ(daemon_wait_log(&d, "opened 3, burned", WAIT_MS, 1, mark), 0);
    ASSERT_EQ(daemon_wait_log(&d, "got signal " + std::to_string(SIGUSR1), WAIT_MS, 1, mark), 0);
    EXPECT_EQ(daemon_count_log(&d, "stand-in", mark), 2);
    EXPECT_EQ(daemon_count_log(&d, "stand-in"), 3);
    EXPECT_EQ(daemon_log_lines(&d, mark).size(), 2u);
    EXPECT_EQ(daemon_fd_count(&d), fds + 3);
    EXPECT_GE(daemon_cpu_ms(&d), 80) << "100 ms of CPU were burned";

    int st = daemon_stop(&d, WAIT_MS);
    ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
    EXPECT_EQ(WEXITSTATUS(st), 0);
    EXPECT_FALSE(daemon_running(&d));
    EXPECT_EQ(daemon_count_log(&d, "stand-in shut down"), 1);
    EXPECT_EQ(daemon_read_file(d.out_path), "stand-in stdout\n");
    EXPECT_EQ(daemon_read_file(d.err_path), "stand-in stderr\n");
    EXPECT_EQ(daemon_signal(&d, SIGTERM), -ESRCH);
    EXPECT_EQ(daemon_fd_count(&d), -1);
}

TEST_F(Harness, LogLineWrittenInPiecesIsMatchedWhole) {
    start("serve");
    ASSERT_EQ(daemon_wait_log(&d, "STARTING", WAIT_MS), 0);
    auto append = [&](const char *text) {
        int fd = open(d.log_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, text, strlen(text)), ssize_t(strlen(text)));
        close(fd);
    };
    size_t mark = daemon_log_mark(&d);
    // The second half comes while the wait is polling, so the wait must keep
    // the unfinished line between two looks at the file.
    std::thread writer([&] {
        append("downloaded: 10 bytes, [http://h/a.t");
        for (int i = 0; i < 100 && daemon_log_mark(&d) == mark; ++i) usleep(1000);
        usleep(50000);
        append("s] to [x]\nnext line\n");
    });
    EXPECT_EQ(
        daemon_wait_log_regex(&d, "^downloaded: 10 bytes, \\[http://h/a\\.ts\\]", WAIT_MS, 1, mark),
        0);
    writer.join();
    EXPECT_EQ(daemon_count_log(&d, "a.ts] to [x]", mark), 1);
    EXPECT_EQ(daemon_count_log(&d, "line"), 1);
    append("unfinished");
    EXPECT_EQ(daemon_count_log(&d, "unfinished"), 1) << "a last line without its end counts";
}

TEST_F(Harness, ReportsEarlyExit) {
    start("exit:3");
    EXPECT_EQ(daemon_wait_socket(&d, 0, WAIT_MS), DAEMON_EXITED);
    EXPECT_TRUE(WIFEXITED(d.status) && WEXITSTATUS(d.status) == 3) << daemon_status_text(d.status);
    EXPECT_EQ(daemon_count_log(&d, "giving up"), 1);
    EXPECT_EQ(daemon_wait_log(&d, "never written", WAIT_MS), DAEMON_EXITED);
    EXPECT_EQ(daemon_wait_log(&d, "giving up", WAIT_MS), 0) << "lines from before the exit count";
    EXPECT_EQ(daemon_wait_exit(&d, WAIT_MS), -1) << "nothing is left to wait for";

    d.bin = d.dir + "/missing";
    EXPECT_NE(daemon_start(&d), 0);
}

TEST_F(Harness, KillsAChildThatOutlivesTheDeadline) {
    start("ignore-term");
    ASSERT_EQ(daemon_wait_log(&d, "STARTING", WAIT_MS), 0);
    pid_t pid = d.pid;
    EXPECT_EQ(daemon_stop(&d, 100), -1);
    EXPECT_TRUE(WIFSIGNALED(d.status) && WTERMSIG(d.status) == SIGKILL)
        << daemon_status_text(d.status);
    EXPECT_EQ(d.pid, 0);
    EXPECT_EQ(kill(pid, 0), -1) << "the child is gone and reaped";
    EXPECT_EQ(daemon_count_log(&d, "shut down"), 0);
}

TEST_F(Harness, ChildSeesNoTestDescriptorsAndGetsItsEnvironment) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);  // without close-on-exec, as some client libraries leave theirs
    d.bin = "/bin/sh";
    d.env = {"TROV_PROBE=seen"};
    ASSERT_EQ(daemon_start(&d, {"-c", "echo \"$TROV_PROBE\" > probe.txt; ls -l /proc/$$/fd"}), 0);
    int st = daemon_wait_exit(&d, WAIT_MS);
    close(p[0]);
    close(p[1]);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << daemon_status_text(st);
    EXPECT_EQ(daemon_read_file(d.dir + "/probe.txt"), "seen\n") << "runs in its directory";
    std::string fds = daemon_read_file(d.out_path);
    EXPECT_NE(fds.find(d.out_path), std::string::npos) << fds;
    EXPECT_EQ(fds.find("pipe:"), std::string::npos) << "a descriptor of the test leaked:\n" << fds;
}

TEST_F(Harness, DirectoryIsRemovedUnlessKept) {
    std::string kept;
    for (bool keep : {false, true}) {
        SCOPED_TRACE(keep ? "kept" : "removed");
        daemon_proc t{};
        ASSERT_EQ(daemon_init(&t, "/bin/true"), 0);
        std::string dir = t.dir;
        struct stat st {};
        ASSERT_EQ(stat(t.data_dir.c_str(), &st), 0);
        ASSERT_EQ(stat(t.log_dir.c_str(), &st), 0);
        ASSERT_EQ(stat(t.lock_dir.c_str(), &st), 0);
        std::string sub = t.data_dir + "/a/b";
        ASSERT_EQ(mkdir((t.data_dir + "/a").c_str(), 0755), 0);
        ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
        FILE *fp = fopen((sub + "/f-Trov").c_str(), "w");
        ASSERT_NE(fp, nullptr);
        fclose(fp);
        ASSERT_EQ(chmod(sub.c_str(), 0500), 0);  // a test that made a directory read-only
        if (keep) setenv("TROV_KEEP_TEST_DIRS", "1", 1);
        daemon_destroy(&t);
        unsetenv("TROV_KEEP_TEST_DIRS");
        EXPECT_EQ(stat(dir.c_str(), &st) == 0, keep);
        EXPECT_TRUE(t.dir.empty());
        if (keep) kept = dir;
    }
    if (!kept.empty()) {
        daemon_proc t{};
        t.dir = kept;  // the runner's own removal, now without the variable
        daemon_destroy(&t);
        struct stat st {};
        EXPECT_NE(stat(kept.c_str(), &st), 0);
    }
}

}  // namespace

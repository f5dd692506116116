// End to end with trov-order: the built command orders the real daemon over
// its UDP channel and its web listener, fetching from the test origin, and
// waits for the file; orders it refuses never leave the machine's loopback
// socket; the wait shows its progress line only on a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 10000;
constexpr int ORDER_MS = 30000;

struct run_result {
    int status;  // exit status; -1 when it did not exit normally in time
    std::string out;
    std::string err;
};

// Runs the built command with args, its output captured, within ORDER_MS.
run_result run_order(const std::vector<std::string> &args) {
    run_result r{-1, "", ""};
    daemon_proc p{};
    if (daemon_init(&p, TROV_ORDER_BIN) != 0) return r;
    if (daemon_start(&p, args) == 0) {
        int st = daemon_wait_exit(&p, ORDER_MS);
        if (st >= 0 && WIFEXITED(st)) r.status = WEXITSTATUS(st);
        r.out = daemon_read_file(p.out_path);
        r.err = daemon_read_file(p.err_path);
    }
    daemon_destroy(&p);
    return r;
}

// Runs the command with its standard error (and output) on a pseudo
// terminal; what the terminal showed goes to *screen. The exit status, or -1.
int run_on_pty(const std::vector<std::string> &args, std::string *screen) {
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return -1;
    std::vector<std::string> av = args;
    av.insert(av.begin(), TROV_ORDER_BIN);
    std::vector<char *> argv;
    for (std::string &a : av) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        (void)setsid();
        int null = open("/dev/null", O_RDONLY);
        (void)dup2(null, 0);
        (void)dup2(slave, 1);
        (void)dup2(slave, 2);
        (void)close(master);
        execv(argv[0], argv.data());
        _exit(127);
    }
    (void)close(slave);
    if (pid < 0) {
        (void)close(master);
        return -1;
    }
    // The master reads EIO once the child has closed its side.
    timespec t0{};
    clock_gettime(CLOCK_MONOTONIC, &t0);
    for (int i = 0; i < 100000; ++i) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        long spent = long(now.tv_sec - t0.tv_sec) * 1000 + (now.tv_nsec - t0.tv_nsec) / 1000000;
        if (spent > ORDER_MS) break;
        pollfd pf{master, POLLIN, 0};
        if (poll(&pf, 1, 100) <= 0) continue;
        char buf[4096];
        ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0) break;
        screen->append(buf, size_t(n));
    }
    (void)close(master);
    // The terminal closes a moment before the process is gone.
    int st = 0;
    for (int i = 0; i < 500; ++i) {
        pid_t w = waitpid(pid, &st, WNOHANG);
        if (w == pid) return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
        if (w < 0) return -1;
        usleep(10000);
    }
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, &st, 0);
    return -1;
}

// A UDP socket of our own on loopback, to see what the command sends.
struct udp_sink {
    int fd = -1;
    int port = 0;
    udp_sink() {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~udp_sink() {
        if (fd >= 0) close(fd);
    }
    udp_sink(const udp_sink &) = delete;
    udp_sink &operator=(const udp_sink &) = delete;
    // What is queued, without waiting: the command has exited by now.
    std::string take() {
        char buf[2048];
        ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? std::string(buf, size_t(n)) : "";
    }
    std::string endpoint() const { return "127.0.0.1:" + std::to_string(port); }
};

std::string first_line(const std::string &s) { return s.substr(0, s.find('\n')); }

class ItOrder : public ::testing::Test {
   protected:
    void SetUp() override {
        if (std::string(TROV_BIN).empty() || std::string(TROV_ORDER_BIN).empty())
            GTEST_SKIP() << "the daemon or trov-order is not built";
        org_ = origin_start();
        ASSERT_NE(org_, nullptr);
        ASSERT_EQ(daemon_init(&d_, TROV_BIN), 0);
    }
    void TearDown() override {
        daemon_destroy(&d_);
        origin_destroy(org_);
    }
    void start(const daemon_conf &c) {
        ASSERT_EQ(daemon_configure(&d_, c), 0);
        ASSERT_EQ(daemon_start(&d_), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }

    origin *org_ = nullptr;
    daemon_proc d_{};
};

TEST_F(ItOrder, UdpOrderWithWaitFetchesTheFileUnderItsOwnName) {
    int uport = pick_free_port(SOCK_DGRAM);
    ASSERT_GT(uport, 0);
    daemon_conf c;
    c.web = false;
    c.udp_url = "udp://127.0.0.1:" + std::to_string(uport);
    start(c);
    ASSERT_EQ(daemon_wait_socket(&d_, uport, WAIT_MS, "udp"), 0);

    // A "src" segment and a "+" in the source, blanks in the destination:
    // all must reach the origin and the disk as typed.
    std::string src = origin_url(org_, "/f/5000/src/a+b.ts");
    run_result r =
        run_order({"udp", "127.0.0.1:" + std::to_string(uport), "it-order-1", src, "got/x y.ts",
                   "--wait", d_.data_dir, "--timeout", "20", "--expiry", "1900000000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(first_line(r.out).rfind("#!it-order-1 http://0/src/", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n" + d_.data_dir + "/got/x y.ts: 5000 bytes in "), std::string::npos)
        << r.out;
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/got/x y.ts", "src/a+b.ts", 5000), "");
    EXPECT_EQ(origin_request_count(org_, "/f/5000/src/a+b.ts"), 1u);
    EXPECT_EQ(daemon_wait_log(&d_, "expiry time: 1900000000", WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log(&d_, "request failed"), 0);
}

TEST_F(ItOrder, HttpOrderIsAnsweredBeforeTheFileAndARepeatIsRefused) {
    start(daemon_conf{});
    std::string ep = "127.0.0.1:" + std::to_string(d_.port);
    // A slow body: the answer comes with the head, the file much later.
    std::string src = origin_url(org_, "/slow/40000/b.bin");
    run_result r = run_order({"http", ep, src, "b.bin", "--wait", d_.data_dir, "-t", "20"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(first_line(r.out), "HTTP/1.1 200 OK") << r.out;
    EXPECT_NE(r.out.find("\n" + d_.data_dir + "/b.bin: 40000 bytes in "), std::string::npos)
        << r.out;
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/b.bin", "b.bin", 40000), "");

    // Ordered again: the daemon asks the source, then leaves the file alone
    // and says so.
    r = run_order({"http", ep, src, "b.bin"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(first_line(r.out).rfind("HTTP/1.1 403", 0), 0u) << r.out;

    // With --wait the command sees the file first and orders nothing.
    size_t mark = daemon_log_mark(&d_);
    size_t asked = origin_request_count(org_, "/slow/40000/b.bin");
    r = run_order({"http", ep, src, "b.bin", "--wait", d_.data_dir});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("already there (40000 bytes)"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(daemon_count_log(&d_, ") created", mark), 0);
    EXPECT_EQ(origin_request_count(org_, "/slow/40000/b.bin"), asked);
}

TEST_F(ItOrder, RefusedOrdersNeverLeaveAndGoodOnesArriveAsPrinted) {
    udp_sink sink;
    ASSERT_GT(sink.port, 0);
    const std::string ep = sink.endpoint();
    const std::string src = "http://127.0.0.1:9/live/a.ts";
    struct Case {
        std::vector<std::string> args;
        const char *says;
    } cases[] = {
        {{"fetch", ep, "abcd", src}, "unknown command [fetch]"},
        {{"udp", ep, "abcd"}, "udp takes HOST:PORT ID SOURCE-URL [DEST]"},
        {{"udp", ep, "abcd", src, "x", "extra"}, "udp takes"},
        {{"udp", ep, "abc", src}, "4 to 31"},
        {{"udp", ep, "abcd", "https://o/a.ts"}, "plain http:// only"},
        {{"udp", ep, "abcd", src, "a/../../etc/passwd"}, "\"..\" segment"},
        {{"udp", "127.0.0.1", "abcd", src}, "bad HOST:PORT [127.0.0.1]"},
        {{"udp", ep, "abcd", src, "--expiry", "tomorrow"}, "bad --expiry [tomorrow]"},
        {{"udp", ep, "abcd", src, "--timeout", "0"}, "bad --timeout [0]"},
        {{"udp", ep, "abcd", src, "--wait", "/nonexistent/trov-data"}, "No such file"},
        {{"udp", ep, "abcd", src, "--bogus"}, "unknown option --bogus"},
        {{"udp", ep, "abcd", src, "-w"}, "needs an argument"},
    };
    for (const Case &c : cases) {
        std::string line;
        for (const std::string &a : c.args) line += a + " ";
        SCOPED_TRACE(line);
        run_result r = run_order(c.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(sink.take(), "");
    }

    run_result r = run_order({"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage:\n", 0), 0u);
    EXPECT_EQ(r.err, "");

    r = run_order({"udp", ep, "ok-order", src, "/x/a.ts", "-e", "+0"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string sent = sink.take();
    EXPECT_EQ(first_line(r.out), sent);
    EXPECT_EQ(sent.rfind("#!ok-order http://0/src/http://127.0.0.1:9/live/a.ts/dst/x/a.ts ", 0), 0u)
        << sent;
    long expiry = std::stol(sent.substr(sent.rfind(' ') + 1));
    EXPECT_LE(expiry, long(time(nullptr)));
    EXPECT_GT(expiry, long(time(nullptr)) - 60);
}

TEST_F(ItOrder, WaitThatRunsOutShowsItsProgressOnlyOnATerminal) {
    udp_sink sink;
    ASSERT_GT(sink.port, 0);
    // The sink never fetches anything, so the wait must run out.
    std::vector<std::string> args = {
        "udp",    sink.endpoint(), "late-order", "http://127.0.0.1:9/late.ts",
        "--wait", d_.data_dir,     "--timeout",  "0.5"};
    std::string screen;
    EXPECT_EQ(run_on_pty(args, &screen), 3) << screen;
    EXPECT_NE(screen.find("\rtrov-order: waiting for late.ts: 0."), std::string::npos) << screen;
    EXPECT_NE(screen.find("\r\033[K"), std::string::npos) << screen;
    EXPECT_NE(screen.find("late.ts did not appear within 0.500 s"), std::string::npos) << screen;
    EXPECT_NE(sink.take(), "");

    run_result r = run_order(args);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("did not appear"), std::string::npos) << r.err;
}

}  // namespace

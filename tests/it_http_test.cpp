// End to end over HTTP: the real daemon as a subprocess, ordered by plain
// HTTP clients, fetching from a test origin that misbehaves on request.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"

// A configuration names only the keys a test changes; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

constexpr int WAIT_MS = 10000;
constexpr size_t NPOS = std::string::npos;

// A GET whose head passes the listener's 32-byte low-water mark.
std::string order(const std::string &t, std::string method = "GET", const char *v = "HTTP/1.1") {
    return method + " " + t + " " + v + "\r\nHost: 127.0.0.1\r\nUser-Agent: it-test/1.0\r\n\r\n";
}

// A detached daemon is no child of ours: it is killed with the test when it
// still runs, found by its pid file or its start line.
struct detached_guard {
    const daemon_proc *d;
    pid_t pid() const {
        std::string text = daemon_read_file(d->pid_path), log = daemon_read_file(d->log_path);
        size_t at = log.find("STARTING. PID=");
        return pid_t(atol(!text.empty() || at == NPOS ? text.c_str() : log.c_str() + at + 14));
    }
    ~detached_guard() {
        pid_t p = pid();
        std::string cmd = daemon_read_file("/proc/" + std::to_string(p) + "/cmdline");
        if (p > 1 && cmd.starts_with(TROV_BIN)) kill(p, SIGKILL);
    }
};

class ItHttp : public DaemonTest {
   protected:
    void start(const daemon_conf &c = daemon_conf{}) {
        ASSERT_EQ(daemon_configure(&d_, c), 0);
        ASSERT_EQ(daemon_start(&d_), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }
    // Orders path of the origin into dst; the requester's answer.
    net_reply fetch(const std::string &path, const std::string &dst, const std::string &q = "") {
        return net_exchange(d_.port, order("/src/" + origin_url(org_, path) + "/dst/" + dst + q),
                            WAIT_MS);
    }
    bool logged(const std::string &text, size_t from = 0, int count = 1) {
        return daemon_wait_log(&d_, text, WAIT_MS, count, from) == 0;
    }
    std::string data(const std::string &rel) { return d_.data_dir + "/" + rel; }
};

TEST_F(ItHttp, ForegroundRunFromStartToSigterm) {
    start({.level = "info"});
    // On a foreground terminal the configuration is dumped and the log mirrored.
    std::string err = daemon_read_file(d_.err_path);
    EXPECT_NE(err.find("Misc:\n\tdata directory       = [" + d_.data_dir + "]\n"), NPOS) << err;
    EXPECT_NE(err.find("STARTING. PID="), NPOS) << err;
    EXPECT_NE(daemon_read_file(d_.log_path).find("---------------\nLog (regular):\n"), NPOS);

    net_reply r = net_exchange(d_.port, order("/"), WAIT_MS);
    EXPECT_EQ(r.data, "HTTP/1.1 204 No Content\r\nServer: trv/0.2-0.15 (tellurix)\r\n\r\n");
    // Debug lines only between two SIGUSR2: whether a ping logs any.
    auto ping_debug = [&] {
        size_t mark = daemon_log_mark(&d_);
        EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);
        EXPECT_TRUE(logged("urq_rm:", mark));
        return daemon_count_log(&d_, "(DBG)", mark) > 0;
    };
    EXPECT_FALSE(ping_debug());
    ASSERT_EQ(daemon_signal(&d_, SIGUSR2), 0);
    ASSERT_TRUE(logged("Log level PUSH (DEBUG)"));
    EXPECT_TRUE(logged("do_idle_tasks: now all DEBUG messages will be recorded"));
    EXPECT_TRUE(ping_debug());
    ASSERT_EQ(daemon_signal(&d_, SIGUSR2), 0);
    ASSERT_TRUE(logged("Log level POP (DEBUG)"));
    EXPECT_FALSE(ping_debug());

    EXPECT_EQ(daemon_status_text(daemon_stop(&d_, WAIT_MS)), "exited 0");
    std::string log = daemon_read_file(d_.log_path);
    for (const char *line : {"QUIT-SIG(15)", "wait4events interrupted, quit=1\n",
                             "trv has been asked to quit.\n", "trv shut down\n", "EXIT(0). PID="})
        EXPECT_NE(log.find(line), NPOS) << line;

    // -q keeps the terminal quiet.
    ASSERT_EQ(unlink(d_.log_path.c_str()), 0);  // so the wait sees the new run only
    ASSERT_EQ(daemon_start(&d_, {"-T", "-q", "-C", d_.conf_path}), 0);
    ASSERT_TRUE(logged("STARTING. PID="));
    EXPECT_EQ(daemon_read_file(d_.err_path).find("STARTING"), NPOS);
}

TEST_F(ItHttp, DaemonModeDetachesWritesThePidFileAndRemovesItOnExit) {
    if (geteuid() != 0) GTEST_SKIP() << "only root runs as a daemon";
    std::string text = daemon_render_config(&d_, {.pidfile = true});
    size_t at = text.find("non_daemon = true");
    ASSERT_NE(at, NPOS);
    ASSERT_EQ(daemon_write_config(&d_, text.replace(at, 17, "non_daemon = false")), 0);
    detached_guard guard{&d_};
    // Without -T a root start detaches: the process we started exits at once.
    ASSERT_EQ(daemon_start(&d_, {"-C", d_.conf_path}), 0);
    EXPECT_EQ(daemon_status_text(daemon_wait_exit(&d_, WAIT_MS)), "exited 0");
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "STARTING. PID=") > 0; }));
    pid_t pid = guard.pid();
    ASSERT_GT(pid, 1);
    EXPECT_EQ(daemon_read_file(d_.pid_path), std::to_string(pid));  // no newline
    EXPECT_EQ(daemon_count_log(&d_, "STARTING. PID=" + std::to_string(pid)), 1);
    EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);

    // The standard descriptors lead nowhere, so what is written to them can
    // never end up in a file the daemon writes (here: the relay's pipe).
    const std::string fds = "/proc/" + std::to_string(pid) + "/fd/";
    for (int fd = 0; fd <= 2; ++fd) {
        char target[64] = {};
        EXPECT_GT(readlink((fds + std::to_string(fd)).c_str(), target, sizeof target - 1), 0);
        EXPECT_STREQ(target, "/dev/null") << "descriptor " << fd;
    }
    const uint64_t big = 9u << 20;  // above max_mmap_mb: through the relay
    for (const char *name : {"relay1", "relay2"}) {
        const std::string dst = std::string(name) + ".ts";
        EXPECT_EQ(fetch("/f/" + std::to_string(big) + "/" + name, dst).status, 200);
        const std::string line = "downloaded: " + std::to_string(big) + " bytes";
        ASSERT_TRUE(
            wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, line) == name[5] - '0'; }));
        EXPECT_EQ(origin_expect_file(data(dst), name, big), "") << name;
        for (int fd = 1; fd <= 2; ++fd) {  // a stray message, as a library might write one
            std::ofstream(fds + std::to_string(fd)) << "stray message on descriptor " << fd;
        }
    }
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(wait_until(
        WAIT_MS, [&] { return daemon_count_log(&d_, "EXIT(0). PID=" + std::to_string(pid)) > 0; }));
    // Gone, or a zombie waiting for whoever adopted it to reap it.
    EXPECT_TRUE(wait_until(WAIT_MS, [pid] {
        std::string st = daemon_read_file("/proc/" + std::to_string(pid) + "/stat");
        return st.empty() || st.find(") Z ") != NPOS;
    }));
    EXPECT_FALSE(path_exists(d_.pid_path));
}

TEST_F(ItHttp, CommandLineRefusalsExitWithOneAndSayWhy) {
    ASSERT_EQ(daemon_configure(&d_), 0);
    const std::string conf = d_.conf_path, long128(128, 'p');
    struct Case {
        std::vector<std::string> args;  // empty: no argument at all
        const char *says;
    } cases[] = {
        {{}, "= output this option guide\n\n----\nlibvlm/1.5-6.20 ("},
        {{"-h"}, "Usage: trv PARAMETERS [OPTIONS]\n\nParameters:\n"},
        {{"-V"}, "trv (Download manager) 0.2-0.15 tellurix regular ["},
        {{"-C", conf, "-T", "-x"}, "Unknown option: x\n"},
        {{"-C", conf, "-T", "--bogus"}, "Unknown option: --bogus\n"},
        {{"-C", conf, "--bogus=1", "-T"}, "Unknown option: --bogus\n"},
        {{"-C", conf, "-T", "-l", long128}, "Log path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", conf, "-T", "-p", long128},
         "Pidfile path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", conf, "-T", "-D", long128}, "Data path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", conf, "-T", "-P", "abc"}, "Invalid CPU #: abc\n"},
        {{"-C", conf, "-T", "-L", "loud"}, "Invalid log level: loud\n"},
        {{"-C", d_.dir + "/missing.conf"}, "Failed to load ["},
        {{"-T"}, "Invalid or unspecified config [(null)], please use -C path\n"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.says);
        std::string err;
        // The runner always passes arguments; a shell exec passes none.
        int rc = c.args.empty() ? daemon_run("/bin/sh", {"-c", std::string("exec ") + TROV_BIN},
                                             WAIT_MS, nullptr, &err)
                                : daemon_run(TROV_BIN, c.args, WAIT_MS, nullptr, &err);
        EXPECT_EQ(rc, 1);
        EXPECT_NE(err.find(c.says), NPOS) << err;
        // An unknown option is one line, not the guide.
        if (std::string_view(c.says).starts_with("Unknown")) {
            EXPECT_EQ(err, c.says);
        }
    }
    // A 127-byte path and a negative CPU are accepted.
    std::string long127 = "/tmp/" + std::string(122, 'p');
    ASSERT_EQ(daemon_start(&d_, {"-C", conf, "-T", "-p", long127, "-P", "-5"}), 0);
    EXPECT_TRUE(logged("STARTING. PID="));
}

TEST_F(ItHttp, UnusableRequestsAreAnsweredOrDroppedAndNeverReachTheSource) {
    start({.task_tmout_ms = 100});  // requesters are checked for time-outs at most this often
    const std::string src = "/src/" + origin_url(org_, "/f/10/a"),
                      bad = "HTTP/1.1 400 Bad request\r\n";
    struct Case {
        std::string head;
        std::string first_line;  // empty: no answer at all
    } cases[] = {
        {order("/ping"), bad},
        {order("/PING/"), bad},
        {order("/favicon.ico"), bad},
        {order(src + "/dst/x", "POST"), bad},
        {order("/src/https://127.0.0.1/a/dst/x"), bad},
        {order(src), bad},
        {order(src + "/dst/x", "GET", "HTTP/2.0"), bad},
        {order(src + "/dst/x", "HEAD"), ""},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.head);
        net_reply r = net_exchange(d_.port, c.head, WAIT_MS);
        EXPECT_EQ(r.data.substr(0, r.data.find('\n') + 1), c.first_line);
        EXPECT_TRUE(r.peer_closed);
    }
    // A head never completed: dropped after a second without a word.
    int fd = net_connect(d_.port, WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, "GET /src/", WAIT_MS), 0);
    net_reply r = net_read_reply(fd, 15000);
    close(fd);
    // Closed with our bytes unread, the kernel resets rather than closes.
    EXPECT_TRUE((r.peer_closed || r.reset) && !r.timed_out && r.data.empty());
    EXPECT_TRUE(logged("urq_timeout: TIME-OUT URQ [u"));
    EXPECT_TRUE(logged(": 1 [URQ] requests timed out"));
    EXPECT_TRUE(logged("nothing to do for HEAD request"));
    EXPECT_TRUE(logged("malformed HTTP request", 0, 7));
    EXPECT_EQ(origin_request_count(org_), 0u);
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
}

// A head may arrive in pieces, and its last piece may be shorter than the
// listener's low-water mark: the request must still wake and be answered.
TEST_F(ItHttp, HeadsArrivingInPiecesAreAnsweredHoweverShortTheLastPiece) {
    start();
    const std::string head = order("/");
    for (std::vector<size_t> cuts : {std::vector<size_t>{head.size() - 2}, std::vector<size_t>{10},
                                     std::vector<size_t>{40, 45}}) {
        SCOPED_TRACE(cuts.front());
        int fd = net_connect(d_.port, WAIT_MS);
        ASSERT_GE(fd, 0);
        size_t from = 0;
        cuts.push_back(head.size());
        for (size_t cut : cuts) {
            ASSERT_EQ(net_send_all(fd, head.substr(from, cut - from), WAIT_MS), 0);
            from = cut;
            usleep(150 * 1000);  // each piece its own segment, read before the next
        }
        // The request time-out (1 s) would close the connection unanswered.
        net_reply r = net_read_reply(fd, WAIT_MS);
        close(fd);
        EXPECT_EQ(r.status, 204) << r.data;
    }
    EXPECT_EQ(daemon_count_log(&d_, "TIME-OUT URQ"), 0);
}

TEST_F(ItHttp, DownloadsLandByteExactOnBothWritePaths) {
    start({.max_mmap_mb = 1});
    int fds_before = daemon_fd_count(&d_);
    struct Case {
        std::string path, name;
        uint64_t size;
        const char *how;
    } cases[] = {
        {"/f/1048576/m1", "m1", 1048576, "created mmap"},  // at the limit
        {"/f/1048577/r1", "r1", 1048577, "created file"},  // just over it
        {"/f/41943040/big", "big", 41943040, "created file"},
        {"/once/3000/once", "once", 3000, "created mmap"},  // head and body in one write
    };
    for (auto &k : cases) {
        SCOPED_TRACE(k.path);
        size_t mark = daemon_log_mark(&d_);
        EXPECT_EQ(fetch(k.path, "a/" + k.name + ".ts", "?expiry=1700000000").status, 200);
        ASSERT_TRUE(logged("downloaded: " + std::to_string(k.size) + " bytes", mark));
        EXPECT_EQ(origin_expect_file(data("a/" + k.name + ".ts"), k.name, k.size), "");
        EXPECT_EQ(daemon_count_log(&d_, k.how, mark), 1);
        // The start and end lines both carry the order's expiry.
        EXPECT_TRUE(logged("expiry=1700000000 lid=[]", mark, 2));
    }
    EXPECT_EQ(origin_request_count(org_, "?"), 0u);  // the order's query stays here
    EXPECT_EQ(daemon_temp_files(d_.data_dir), "");
    ASSERT_TRUE(origin_wait_idle(org_, WAIT_MS));
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return daemon_fd_count(&d_) == fds_before; }));
}

// The daemon remembers the destination directory it last made; an operator
// who removes it between two orders must not make the second one fail.
TEST_F(ItHttp, ADestinationDirectoryRemovedBetweenOrdersIsMadeAgain) {
    start();
    EXPECT_EQ(fetch("/f/3000/a", "d/e/a.ts").status, 200);
    ASSERT_TRUE(logged("downloaded: 3000 bytes"));
    std::filesystem::remove_all(data("d"));
    EXPECT_EQ(fetch("/f/5000/b", "d/e/b.ts").status, 200);
    ASSERT_TRUE(logged("downloaded: 5000 bytes"));
    EXPECT_EQ(origin_expect_file(data("d/e/b.ts"), "b", 5000), "");
    EXPECT_EQ(daemon_count_log(&d_, "ERROR"), 0);
}

TEST_F(ItHttp, RequesterGetsTheAnswerOfTheSourceOrTheDestination) {
    start();
    struct Case {
        std::string path;
        const char *status;
    } cases[] = {
        {"/status/404/nf", "HTTP/1.1 404 Not Found"},
        {"/status/503/busy", "HTTP/1.1 503 Service Unavailable"},
        {"/nolen/100/nl", "HTTP/1.1 500 Service error"},
        {"/zero/z", "HTTP/1.1 500 Service error"},
        {"/split/100/sp", "HTTP/1.1 500 Service error"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.path);
        net_reply r = fetch(c.path, "out.ts");
        EXPECT_EQ(r.data.rfind(c.status, 0), 0u) << r.data;
        EXPECT_FALSE(path_exists(data("out.ts")));
    }
    EXPECT_TRUE(logged("expected HTTP 2xx, got HTTP 404"));
    EXPECT_TRUE(logged("invalid/missing content length", 0, 2));

    // The final file is there already: 403, and it is left alone.
    std::ofstream(data("have.ts")) << "old";
    EXPECT_EQ(fetch("/f/10/have", "have.ts").status, 403);
    EXPECT_TRUE(logged("is BUSY (already there)"));
    EXPECT_EQ(daemon_read_file(data("have.ts")), "old");

    // A fresh temporary file: the destination is being written, 400; once it
    // is older than 30 seconds it is taken for a leftover.
    std::ofstream(data("b2.ts-Trov")) << "partial";
    EXPECT_EQ(fetch("/f/10/b2", "b2.ts").status, 400);
    EXPECT_TRUE(logged("b2.ts-Trov] already exists"));
    utimbuf old{time(nullptr) - 40, time(nullptr) - 40};
    ASSERT_EQ(utime(data("b2.ts-Trov").c_str(), &old), 0);
    EXPECT_EQ(fetch("/f/10/b2", "b2.ts").status, 200);
    ASSERT_TRUE(logged("to [" + data("b2.ts") + "]"));
    EXPECT_EQ(origin_expect_file(data("b2.ts"), "b2", 10), "");
    EXPECT_EQ(daemon_temp_files(d_.data_dir), "");
}

TEST_F(ItHttp, TasksEndCutShortWithoutAFileAndAreOnePerUrlAndBoundedInNumber) {
    start({.max_tasks = 2});
    for (std::string p : {"/short/200000/5000/sh", "/reset/200000/rs"}) {
        SCOPED_TRACE(p);
        size_t mark = daemon_log_mark(&d_);
        EXPECT_EQ(fetch(p, "early.ts").status, 200);  // answered as soon as the body starts
        // The partial file goes last, after the task's end line.
        ASSERT_TRUE(logged("removing unfinished", mark));
        EXPECT_EQ(daemon_count_log(&d_, "TASK-END", mark), 1);
        EXPECT_EQ(daemon_count_log(&d_, "downloaded:", mark), 0);
        EXPECT_EQ(daemon_temp_files(d_.data_dir), "");
        EXPECT_FALSE(path_exists(data("early.ts")));
    }
    // An ended task's URL is free again.
    EXPECT_EQ(fetch("/short/200000/5000/sh", "again.ts").status, 200);
    ASSERT_TRUE(logged("removing unfinished", 0, 3));
    // Downloads that stay in flight: the source sends part and stalls.
    EXPECT_EQ(fetch("/stall/100000/10/s1", "s1.ts").status, 200);
    EXPECT_EQ(fetch("/stall/100000/10/s1", "other.ts").status, 500);  // the same URL
    EXPECT_TRUE(logged("task already present"));
    EXPECT_EQ(fetch("/stall/100000/10/s2", "s2.ts").status, 200);
    EXPECT_EQ(fetch("/f/10/third", "third.ts").status, 500);
    EXPECT_TRUE(logged("mk_dw_task: limit on tasks exceeded [2]"));
    EXPECT_FALSE(path_exists(data("third.ts")) || path_exists(data("other.ts-Trov")));
    EXPECT_TRUE(path_exists(data("s1.ts-Trov")));
}

}  // namespace

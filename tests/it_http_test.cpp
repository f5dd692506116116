// End to end over HTTP: the real daemon as a subprocess, ordered by plain
// HTTP clients, fetching from a test origin that misbehaves on request.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <fstream>
#include <string>
#include <vector>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 10000;

bool exists(const std::string &p) { return access(p.c_str(), F_OK) == 0; }

// Waits for a log line of a detached daemon: the process the runner started
// has exited by design, so its exit is no reason to stop waiting.
bool wait_detached_log(const daemon_proc *d, const std::string &text) {
    for (int i = 0; i < 1000; ++i) {
        if (daemon_count_log(d, text) > 0) return true;
        usleep(10000);
    }
    return false;
}

// Every "-Trov" file under dir, recursively.
void find_temp(const std::string &dir, std::vector<std::string> *out) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n == "." || n == "..") continue;
        std::string p = dir + "/" + n;
        if (e->d_type == DT_DIR)
            find_temp(p, out);
        else if (n.size() >= 5 && n.compare(n.size() - 5, 5, "-Trov") == 0)
            out->push_back(p);
    }
    closedir(d);
}

// A GET whose head passes the listener's 32-byte low-water mark.
std::string order(const std::string &target) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: it-test/1.0\r\n\r\n";
}

class ItHttp : public ::testing::Test {
   protected:
    void SetUp() override {
        if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
        org_ = origin_start();
        ASSERT_NE(org_, nullptr);
        ASSERT_EQ(daemon_init(&d_, TROV_BIN), 0);
    }
    void TearDown() override {
        daemon_destroy(&d_);
        origin_destroy(org_);
    }
    void start(const daemon_conf &c = daemon_conf{}, std::vector<std::string> args = {}) {
        ASSERT_EQ(daemon_configure(&d_, c), 0);
        ASSERT_EQ(daemon_start(&d_, args), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }
    // Orders src into dst and returns the requester's answer.
    net_reply fetch(const std::string &path, const std::string &dst, const std::string &q = "") {
        std::string target =
            "/src/" + origin_url(org_, path) + "/dst" + (dst.empty() ? "" : "/" + dst) + q;
        return net_exchange(d_.port, order(target), WAIT_MS);
    }
    std::string data(const std::string &rel) { return d_.data_dir + "/" + rel; }
    std::vector<std::string> temp_files() {
        std::vector<std::string> v;
        find_temp(d_.data_dir, &v);
        return v;
    }

    origin *org_ = nullptr;
    daemon_proc d_{};
};

TEST_F(ItHttp, StartsAnswersPingAndQuitsCleanlyOnSigterm) {
    start();
    net_reply r = net_exchange(d_.port, order("/"), WAIT_MS);
    EXPECT_EQ(r.status, 204);
    EXPECT_NE(r.data.find("HTTP/1.1 204 No Content\r\nServer: trv/0.2-0.15 (tellurix)\r\n\r\n"),
              std::string::npos)
        << r.data;
    int st = daemon_stop(&d_, WAIT_MS);
    ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
    EXPECT_EQ(WEXITSTATUS(st), 0);
    std::string log = daemon_read_file(d_.log_path);
    EXPECT_NE(log.find("QUIT-SIG(15)"), std::string::npos);
    EXPECT_NE(log.find("trv has been asked to quit.\n"), std::string::npos);
    EXPECT_NE(log.find("trv shut down\n"), std::string::npos);
    EXPECT_NE(log.find("EXIT(0). PID="), std::string::npos);
    EXPECT_NE(log.find("urq_read: PONG!"), std::string::npos);
}

TEST_F(ItHttp, DaemonModeDetachesWritesThePidFileAndRemovesItOnExit) {
    if (geteuid() != 0) GTEST_SKIP() << "only root runs as a daemon";
    daemon_conf c;
    c.pidfile = true;
    std::string text = daemon_render_config(&d_, c);
    size_t at = text.find("non_daemon = true");
    ASSERT_NE(at, std::string::npos);
    text.replace(at, 17, "non_daemon = false");
    ASSERT_EQ(daemon_write_config(&d_, text), 0);
    // Without -T a root start detaches: the process we started exits at once.
    ASSERT_EQ(daemon_start(&d_, {"-C", d_.conf_path}), 0);
    int st = daemon_wait_exit(&d_, WAIT_MS);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << daemon_status_text(st);
    ASSERT_TRUE(wait_detached_log(&d_, "STARTING. PID="));
    std::string pid_text = daemon_read_file(d_.pid_path);
    ASSERT_FALSE(pid_text.empty());
    EXPECT_EQ(pid_text.find('\n'), std::string::npos);
    pid_t pid = pid_t(std::stol(pid_text));
    ASSERT_GT(pid, 1);
    // The detached daemon is no child of ours: make sure it goes with the test.
    struct reaper {
        pid_t pid;
        ~reaper() {
            if (kill(pid, 0) == 0) kill(pid, SIGKILL);
        }
    } guard{pid};
    EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    ASSERT_TRUE(wait_detached_log(&d_, "EXIT(0). PID=" + pid_text));
    // Gone, or a zombie waiting for whoever adopted it to reap it.
    auto ended = [pid] {
        std::string st = daemon_read_file("/proc/" + std::to_string(pid) + "/stat");
        size_t p = st.rfind(')');
        return st.empty() || (p != std::string::npos && st.compare(p, 4, ") Z ") == 0);
    };
    for (int i = 0; i < 500 && !ended(); ++i) usleep(10000);
    EXPECT_TRUE(ended());
    EXPECT_FALSE(exists(d_.pid_path));
}

TEST_F(ItHttp, CommandLineRefusalsExitWithOneAndSayWhy) {
    ASSERT_EQ(daemon_configure(&d_), 0);
    std::string long128(128, 'p'), long127 = "/tmp/" + std::string(122, 'p');
    struct Case {
        std::vector<std::string> args;
        const char *says;
    } cases[] = {
        {{"-C", d_.conf_path, "-T", "-x"}, "Unknown option: x\n"},
        {{"-C", d_.conf_path, "-T", "-K"}, "Unknown option: K\n"},
        {{"-C", d_.conf_path, "-T", "-l", long128},
         "Log path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", d_.conf_path, "-T", "-p", long128},
         "Pidfile path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", d_.conf_path, "-T", "-D", long128},
         "Data path is too long (128 bytes), max=128 bytes.\n"},
        {{"-C", d_.conf_path, "-T", "-P", "abc"}, "Invalid CPU #: abc\n"},
        {{"-C", d_.conf_path, "-T", "-L", "loud"}, "Invalid log level: loud\n"},
        {{"-C", d_.dir + "/missing.conf"}, "Failed to load ["},
        {{"-T"}, "Invalid or unspecified config [(null)], please use -C path\n"},
        {{"-V"}, "trv (Download manager) 0.2-0.15 tellurix regular ["},
        {{"-h"}, "  -u|--runas   {user}        = run as user [root|current]\n"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.says);
        ASSERT_EQ(daemon_start(&d_, c.args), 0);
        int st = daemon_wait_exit(&d_, WAIT_MS);
        ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
        EXPECT_EQ(WEXITSTATUS(st), 1);
        std::string err = daemon_read_file(d_.err_path);
        EXPECT_NE(err.find(c.says), std::string::npos) << err;
    }
    // A 127-byte path is accepted.
    ASSERT_EQ(daemon_start(&d_, {"-C", d_.conf_path, "-T", "-p", long127, "-P", "-5"}), 0);
    EXPECT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    EXPECT_EQ(daemon_stop(&d_, WAIT_MS), 0);
}

TEST_F(ItHttp, NoArgumentsPrintsTheGuide) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int fd = open((d_.dir + "/bare.err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        execl(TROV_BIN, TROV_BIN, static_cast<char *>(nullptr));
        _exit(127);
    }
    int st = 0;
    ASSERT_EQ(waitpid(pid, &st, 0), pid);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 1);
    std::string err = daemon_read_file(d_.dir + "/bare.err");
    EXPECT_NE(err.find("Usage: trv PARAMETERS [OPTIONS]\n\nParameters:\n"), std::string::npos);
    EXPECT_NE(
        err.find(
            "  -h|?|--help                = output this option guide\n\n----\nlibvlm/1.5-6.20 ("),
        std::string::npos)
        << err;
}

TEST_F(ItHttp, ConfigurationIsDumpedAndTheLogMirroredOnAForegroundTerminal) {
    daemon_conf c;
    c.level = "info";
    start(c);
    std::string err = daemon_read_file(d_.err_path);
    EXPECT_NE(err.find("Misc:\n\tdata directory       = [" + d_.data_dir + "]\n"),
              std::string::npos)
        << err;
    EXPECT_NE(err.find("STARTING. PID="), std::string::npos);
    std::string log = daemon_read_file(d_.log_path);
    EXPECT_NE(log.find("-----------------------------------\nLog (regular):\n"), std::string::npos);
    // -q keeps the terminal quiet.
    ASSERT_EQ(daemon_stop(&d_, WAIT_MS), 0);
    ASSERT_EQ(unlink(d_.log_path.c_str()), 0);  // so the wait below sees the new run only
    ASSERT_EQ(daemon_start(&d_, {"-T", "-q", "-C", d_.conf_path}), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    EXPECT_EQ(daemon_read_file(d_.err_path).find("STARTING"), std::string::npos);
}

TEST_F(ItHttp, Sigusr2TogglesDebugLogging) {
    daemon_conf c;
    c.level = "info";
    start(c);
    EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);
    EXPECT_EQ(daemon_count_log(&d_, "(DBG)"), 0);
    ASSERT_EQ(daemon_signal(&d_, SIGUSR2), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "Log level PUSH (DEBUG)", WAIT_MS), 0);
    EXPECT_EQ(
        daemon_wait_log(&d_, "do_idle_tasks: now all DEBUG messages will be recorded", WAIT_MS), 0);
    size_t mark = daemon_log_mark(&d_);
    EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);
    EXPECT_EQ(daemon_wait_log(&d_, "(DBG)", WAIT_MS, 1, mark), 0);
    ASSERT_EQ(daemon_signal(&d_, SIGUSR2), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "Log level POP (DEBUG)", WAIT_MS), 0);
    mark = daemon_log_mark(&d_);
    EXPECT_EQ(net_exchange(d_.port, order("/"), WAIT_MS).status, 204);
    ASSERT_EQ(daemon_wait_log(&d_, "urq_rm:", WAIT_MS, 1, mark), 0);
    EXPECT_EQ(daemon_count_log(&d_, "(DBG)", mark), 0);
}

TEST_F(ItHttp, UnusableRequestsAreAnsweredAndNeverReachTheSource) {
    start();
    std::string src = origin_url(org_, "/f/10/a");
    struct Case {
        std::string head;
        int status;
    } cases[] = {
        {order("/ping"), 400},
        {order("/PING/"), 400},
        {"POST /src/" + src + "/dst/x HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: t\r\n\r\n", 400},
        {order("/src/https://127.0.0.1/a/dst/x"), 400},
        {order("/src/" + src), 400},
        {"GET /src/" + src + "/dst/x HTTP/2.0\r\nHost: 127.0.0.1\r\nUser-Agent: t\r\n\r\n", 400},
        {order("/favicon.ico"), 400},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.head);
        net_reply r = net_exchange(d_.port, c.head, WAIT_MS);
        EXPECT_EQ(r.status, c.status) << r.data;
        EXPECT_TRUE(r.peer_closed);
    }
    EXPECT_NE(net_exchange(d_.port, order("/ping"), WAIT_MS).data.find("400 Bad request\r\n"),
              std::string::npos);
    // HEAD: no answer, no task, the connection closed.
    net_reply h = net_exchange(
        d_.port, "HEAD /src/" + src + "/dst/x HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: t\r\n\r\n",
        WAIT_MS);
    EXPECT_TRUE(h.data.empty());
    EXPECT_TRUE(h.peer_closed);
    EXPECT_EQ(origin_request_count(org_), 0u);
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
    EXPECT_GT(daemon_count_log(&d_, "malformed HTTP request"), 0);
    EXPECT_EQ(daemon_count_log(&d_, "nothing to do for HEAD request"), 1);
}

TEST_F(ItHttp, DownloadsLandByteExactOnBothWritePaths) {
    daemon_conf c;
    c.max_mmap_mb = 1;
    start(c);
    int fds_before = daemon_fd_count(&d_);
    struct Case {
        std::string path, name, dst;
        uint64_t size;
        const char *how;
    } cases[] = {
        {"/f/1048576/m1", "m1", "a/m1.ts", 1048576, "created mmap"},
        {"/f/1048577/r1", "r1", "a/r1.ts", 1048577, "created file"},
        {"/f/41943040/big", "big", "b/big.ts", 41943040, "created file"},
        {"/once/3000/once", "once", "once.ts", 3000, "created mmap"},
        {"/slow/200000/slow", "slow", "slow.ts", 200000, "created mmap"},
    };
    for (auto &k : cases) {
        SCOPED_TRACE(k.path);
        size_t mark = daemon_log_mark(&d_);
        net_reply r = fetch(k.path, k.dst, "?expiry=1700000000");
        EXPECT_EQ(r.status, 200) << r.data;
        EXPECT_TRUE(r.peer_closed);
        ASSERT_EQ(daemon_wait_log(&d_, "downloaded: " + std::to_string(k.size) + " bytes", WAIT_MS,
                                  1, mark),
                  0);
        EXPECT_EQ(origin_expect_file(data(k.dst), k.name, k.size), "");
        EXPECT_EQ(daemon_count_log(&d_, k.how, mark), 1);
        // The start and end lines both carry the order's expiry.
        EXPECT_EQ(daemon_wait_log(&d_, "expiry=1700000000 lid=[]", WAIT_MS, 2, mark), 0);
    }
    // The source was asked without the order's query.
    EXPECT_EQ(origin_request_count(org_, "?"), 0u);
    // Without a destination the source's path is used.
    net_reply r = fetch("/f/500/nodst", "");
    EXPECT_EQ(r.status, 200);
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 500 bytes", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("f/500/nodst"), "nodst", 500), "");
    EXPECT_TRUE(temp_files().empty());
    ASSERT_TRUE(origin_wait_idle(org_, WAIT_MS));
    EXPECT_EQ(daemon_fd_count(&d_), fds_before);
}

TEST_F(ItHttp, RequesterGetsTheAnswerOfTheSourceOrTheDestination) {
    start();
    struct Case {
        std::string path, dst;
        int status;
        const char *reason;
    } cases[] = {
        {"/status/404/nf", "nf.ts", 404, "404 Not Found"},
        {"/status/503/busy", "busy.ts", 503, "503 Service Unavailable"},
        {"/nolen/100/nl", "nl.ts", 500, "500 Service error"},
        {"/zero/z", "z.ts", 500, "500 Service error"},
        {"/split/100/sp", "sp.ts", 500, "500 Service error"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.path);
        net_reply r = fetch(c.path, c.dst);
        EXPECT_EQ(r.status, c.status) << r.data;
        EXPECT_NE(r.data.find(c.reason), std::string::npos) << r.data;
        EXPECT_FALSE(exists(data(c.dst)));
    }
    EXPECT_EQ(daemon_wait_log(&d_, "expected HTTP 2xx, got HTTP 404", WAIT_MS), 0);
    EXPECT_GE(daemon_count_log(&d_, "invalid/missing content length"), 2);

    // The final file is there already: 403, and it is left alone.
    { std::ofstream(data("have.ts")) << "old"; }
    net_reply r = fetch("/f/10/have", "have.ts");
    EXPECT_EQ(r.status, 403);
    EXPECT_EQ(daemon_read_file(data("have.ts")), "old");
    EXPECT_GT(daemon_count_log(&d_, "is BUSY (already there)"), 0);

    // A fresh temporary file: the destination is being written, 400.
    { std::ofstream(data("busy2.ts-Trov")) << "partial"; }
    r = fetch("/f/10/b2", "busy2.ts");
    EXPECT_EQ(r.status, 400);
    EXPECT_GT(daemon_count_log(&d_, "already exists"), 0);
    // Once it is older than 30 seconds it is taken for a leftover.
    time_t old = time(nullptr) - 40;
    utimbuf ub{old, old};
    ASSERT_EQ(utime(data("busy2.ts-Trov").c_str(), &ub), 0);
    r = fetch("/f/10/b2", "busy2.ts");
    EXPECT_EQ(r.status, 200);
    ASSERT_EQ(daemon_wait_log(&d_, "to [" + data("busy2.ts") + "]", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("busy2.ts"), "b2", 10), "");
    EXPECT_TRUE(temp_files().empty());
}

TEST_F(ItHttp, OneTaskPerUrlAndNoMoreTasksThanTheLimit) {
    daemon_conf c;
    c.max_tasks = 2;
    start(c);
    // Downloads that stay in flight: the source sends part and stalls.
    EXPECT_EQ(fetch("/stall/100000/10/s1", "s1.ts").status, 200);
    EXPECT_EQ(fetch("/stall/100000/10/s1", "other.ts").status, 500);  // same URL
    EXPECT_EQ(daemon_wait_log(&d_, "task already present", WAIT_MS), 0);
    EXPECT_EQ(fetch("/stall/100000/10/s2", "s2.ts").status, 200);
    EXPECT_EQ(fetch("/f/10/third", "third.ts").status, 500);
    EXPECT_EQ(daemon_wait_log(&d_, "mk_dw_task: limit on tasks exceeded [2]", WAIT_MS), 0);
    EXPECT_FALSE(exists(data("third.ts")));
    EXPECT_TRUE(exists(data("s1.ts-Trov")));
    // Shutting down with downloads in flight leaves no partial file.
    int st = daemon_stop(&d_, WAIT_MS);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << daemon_status_text(st);
    EXPECT_TRUE(temp_files().empty());
    EXPECT_FALSE(exists(data("s1.ts")));
    EXPECT_EQ(daemon_count_log(&d_, "removing unfinished"), 2);
}

TEST_F(ItHttp, ASourceThatClosesOrResetsEarlyLeavesNoFile) {
    start();
    for (std::string p : {"/short/200000/5000/sh", "/reset/200000/rs"}) {
        SCOPED_TRACE(p);
        size_t mark = daemon_log_mark(&d_);
        std::string dst = p.substr(1, 2) + ".ts";
        EXPECT_EQ(fetch(p, dst).status, 200);  // answered as soon as the body starts
        // The partial file goes last, after the task's end line.
        ASSERT_EQ(daemon_wait_log(&d_, "removing unfinished", WAIT_MS, 1, mark), 0);
        EXPECT_EQ(daemon_count_log(&d_, "TASK-END", mark), 1);
        EXPECT_EQ(daemon_count_log(&d_, "downloaded:", mark), 0);
        EXPECT_FALSE(exists(data(dst)));
    }
    EXPECT_TRUE(temp_files().empty());
    // The URL is free again for a new order.
    EXPECT_EQ(fetch("/f/100/again", "again.ts").status, 200);
    EXPECT_EQ(daemon_wait_log(&d_, "downloaded: 100 bytes", WAIT_MS), 0);
}

TEST_F(ItHttp, SilentRequesterIsDroppedAfterItsTimeOut) {
    daemon_conf c;
    c.urq_tmout_sec = 1;
    c.task_tmout_ms = 100;
    start(c);
    int fd = net_connect(d_.port, WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, "GET /src/", WAIT_MS), 0);  // never completed
    net_reply r = net_read_reply(fd, 15000);
    close(fd);
    // Closed with our bytes unread, the kernel resets rather than closes.
    EXPECT_TRUE(r.peer_closed || r.reset);
    EXPECT_FALSE(r.timed_out);
    EXPECT_TRUE(r.data.empty());
    EXPECT_EQ(daemon_count_log(&d_, "urq_timeout: TIME-OUT URQ [u0001]"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "requests timed out"), 1);
}

}  // namespace

// Tests of the reactor: dispatch of real descriptor events, the order of a
// pass, time-outs and quitting, no-poll entries, the event buffer, and file
// watches. The reactor is process-wide, so every test initialises and
// destroys it itself and leaves g_quit clear.
#include "rqs.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "log.h"
#include "timeop.h"
#include "tmout.h"
#include "util.h"

namespace {

struct Call {
    std::string what;
    int fd;
    int flags;
    void *udata;
    int stage;  // rqs_ctx(1) at the time of the call
};

struct FileChange {
    int wd;
    int flags;
    void *udata;
};

// What the callbacks saw and how they answer; reset by the fixture.
struct Recorder {
    std::vector<Call> calls;
    std::vector<FileChange> files;
    std::map<const void *, int> result;  // read/write/error result per user data
    timespec tmout;                      // what update_tmout hands the reactor
    int tmout_calls;
    int passes;      // on_idle calls
    int quit_after;  // on_idle sets g_quit on this pass; 0 = never
    int idle_rc;
    int pp_calls;
    int (*read_hook)(int fd, void *udata);  // runs inside the read callback
};
Recorder s_rec;

int record(const char *what, int fd, int flags, void *udata, void *aux) {
    EXPECT_EQ(aux, nullptr);
    s_rec.calls.push_back({what, fd, flags, udata, rqs_ctx(1)});
    auto it = s_rec.result.find(udata);
    return it == s_rec.result.end() ? 0 : it->second;
}
int cb_read(int fd, int flags, void *udata, void *aux) {
    int rc = record("read", fd, flags, udata, aux);
    if (s_rec.read_hook != nullptr) rc |= s_rec.read_hook(fd, udata);
    return rc;
}
int cb_write(int fd, int flags, void *udata, void *aux) {
    return record("write", fd, flags, udata, aux);
}
int cb_error(int fd, int flags, void *udata, void *aux) {
    return record("error", fd, flags, udata, aux);
}
int cb_pp() {
    s_rec.calls.push_back({"pp", -1, 0, nullptr, rqs_ctx(1)});
    // A safety net for a loop that would otherwise never end.
    if (++s_rec.pp_calls > 2000) g_quit = 1;
    return 0;
}
int cb_idle() {
    s_rec.calls.push_back({"idle", -1, 0, nullptr, rqs_ctx(1)});
    if (++s_rec.passes == s_rec.quit_after) g_quit = 1;
    return s_rec.idle_rc;
}
void cb_update_tmout(timespec *ts) {
    *ts = s_rec.tmout;
    s_rec.tmout_calls += 1;
}
void cb_time_out() { s_rec.calls.push_back({"time_out", -1, 0, nullptr, rqs_ctx(1)}); }
void cb_file(int wd, int flags, void *udata, void *aux) {
    EXPECT_EQ(aux, nullptr);
    s_rec.files.push_back({wd, flags, udata});
}

rqs_config full_config() {
    rqs_config cfg{};
    cfg.cb = rqs_callbacks{.update_tmout = cb_update_tmout,
                           .on_idle = cb_idle,
                           .read = cb_read,
                           .write = cb_write,
                           .error = cb_error,
                           .post_process = cb_pp,
                           .on_file_modified = cb_file,
                           .time_out = cb_time_out,
                           .is_dormant = nullptr};
    cfg.quit_on_zero_fds = 0;
    return cfg;
}

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

size_t count_of(const std::string &text, const std::string &part) {
    size_t n = 0;
    for (size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + 1)) ++n;
    return n;
}

::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << part << "] not in:\n" << text;
}

void *tag_ptr(int n) { return reinterpret_cast<void *>(static_cast<uintptr_t>(0x1000 + n)); }

class Rqs : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        char tmpl[] = "/tmp/trov-rqs-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        log_path_ = dir_ + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, log_path_.c_str(), 1), 0);
        log_set_modules(g_log, LL_DEBUG);
        log_timefmt(g_log, TMF_NOTIME);
        s_rec = Recorder{};
        s_rec.quit_after = 1;
        g_quit = 0;
    }
    void TearDown() override {
        rqs_destroy();
        for (int fd : fds_) close(fd);
        g_quit = 0;
        log_close(g_log);
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        log_timefmt(g_log, TMF_LOCAL);
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    }

    void init(const rqs_config &cfg) { ASSERT_EQ(rqs_init(&cfg), 0); }
    // One run of the loop with a fresh record; g_quit is left clear.
    int run() {
        s_rec.calls.clear();
        s_rec.files.clear();
        s_rec.passes = 0;
        int rc = rqs_event_loop();
        g_quit = 0;
        return rc;
    }
    void make_pipe(int p[2]) {
        ASSERT_EQ(pipe(p), 0);
        keep(p[0]);
        keep(p[1]);
    }
    int keep(int fd) {
        EXPECT_GE(fd, 0);
        fds_.push_back(fd);
        return fd;
    }
    void socket_pair(int sv[2]) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
        keep(sv[0]);
        keep(sv[1]);
    }
    // Closes an fd this fixture tracks, before the test ends.
    void drop(int fd) {
        for (auto &f : fds_)
            if (f == fd) f = -1;
        close(fd);
    }
    std::string log_text() {
        fflush(log_fp(g_log));
        return slurp(log_path_);
    }
    std::vector<std::string> sequence() const {
        std::vector<std::string> v;
        for (const auto &c : s_rec.calls) v.push_back(c.what);
        return v;
    }
    std::vector<Call> calls_of(const std::string &what) const {
        std::vector<Call> v;
        for (const auto &c : s_rec.calls)
            if (c.what == what) v.push_back(c);
        return v;
    }

    std::string dir_;
    std::string log_path_;
    std::vector<int> fds_;
};

// Each case puts one real descriptor in a state the kernel reports with a
// known set of bits, and checks which callback gets it and with what flags.
TEST_F(Rqs, DispatchFollowsTheEventBitsOfRealDescriptors) {
    struct Expect {
        const char *what;
        int flags;
    };
    auto one_pass = [&](const char *name, Expect want, void *ud = tag_ptr(1)) {
        SCOPED_TRACE(name);
        EXPECT_EQ(run(), 0);
        std::vector<Call> ev;
        for (const auto &c : s_rec.calls)
            if (c.what == "read" || c.what == "write" || c.what == "error") ev.push_back(c);
        EXPECT_EQ(ev.size(), 1u);
        if (ev.size() != 1) return -1;
        EXPECT_EQ(ev[0].what, want.what);
        EXPECT_EQ(ev[0].flags, want.flags);
        EXPECT_EQ(ev[0].udata, ud);
        EXPECT_EQ(ev[0].stage, 1);
        return ev[0].fd;
    };
    init(full_config());

    {  // A pipe whose writer is gone and which holds nothing: hang-up alone.
        int p[2];
        make_pipe(p);
        drop(p[1]);
        ASSERT_EQ(rqs_add_reader(p[0], tag_ptr(1)), 0);
        one_pass("pipe hang-up", {"error", RQS_FL_HUP});
        ASSERT_EQ(rqs_rm_fd(p[0]), 0);
    }
    {  // Input and output both ready: input wins.
        int sv[2];
        socket_pair(sv);
        ASSERT_EQ(write(sv[1], "x", 1), 1);
        ASSERT_EQ(rqs_add_reader(sv[0], tag_ptr(1)), 0);
        ASSERT_EQ(rqs_mod(sv[0], tag_ptr(1), 3), 0);
        one_pass("readable and writable", {"read", 0});
        // Output only: the write callback.
        ASSERT_EQ(rqs_mod(sv[0], tag_ptr(1), 2), 0);
        one_pass("writable", {"write", 0});
        // Hang-up only: pending input is not reported...
        ASSERT_EQ(rqs_mod(sv[0], tag_ptr(1), 0), 0);
        EXPECT_EQ(run(), 0);
        EXPECT_TRUE(calls_of("read").empty());
        EXPECT_EQ(calls_of("idle").size(), 1u);
        // ...but the peer's close is, as an error.
        drop(sv[1]);
        one_pass("hang-up registration, peer closed", {"error", RQS_FL_HUP});
        // A hang-up together with readiness goes to read or write as flags.
        ASSERT_EQ(rqs_mod_reader(sv[0], tag_ptr(1)), 0);
        one_pass("readable after peer close", {"read", RQS_FL_HUP});
        ASSERT_EQ(rqs_mod(sv[0], tag_ptr(1), 2), 0);
        one_pass("writable after peer close", {"write", RQS_FL_HUP});
        ASSERT_EQ(rqs_rm_fd(sv[0]), 0);
    }
    {  // A connected datagram socket holding a datagram and the refusal of
        // a later send to a port nobody listens on: input with an error.
        int a = keep(socket(AF_INET, SOCK_DGRAM, 0));
        int b = socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(b, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(a, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
        ASSERT_EQ(bind(b, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
        sockaddr_in aa{}, ba{};
        socklen_t len = sizeof aa;
        ASSERT_EQ(getsockname(a, reinterpret_cast<sockaddr *>(&aa), &len), 0);
        len = sizeof ba;
        ASSERT_EQ(getsockname(b, reinterpret_cast<sockaddr *>(&ba), &len), 0);
        ASSERT_EQ(connect(a, reinterpret_cast<sockaddr *>(&ba), sizeof ba), 0);
        ASSERT_EQ(sendto(b, "y", 1, 0, reinterpret_cast<sockaddr *>(&aa), sizeof aa), 1);
        close(b);
        ASSERT_EQ(send(a, "z", 1, 0), 1);
        pollfd pf{a, POLLIN, 0};
        ASSERT_EQ(poll(&pf, 1, 5000), 1);
        ASSERT_EQ(pf.revents, POLLIN | POLLERR);
        ASSERT_EQ(rqs_add_reader(a, tag_ptr(1)), 0);
        one_pass("datagram with a refusal", {"read", RQS_FL_ERR});
        ASSERT_EQ(rqs_rm_fd(a), 0);
    }
    {  // Without user data the descriptor number stands in for it.
        int efd = keep(eventfd(1, EFD_NONBLOCK));
        ASSERT_EQ(rqs_add_reader(efd, nullptr), 0);
        void *as_ptr = reinterpret_cast<void *>(static_cast<uintptr_t>(efd));
        EXPECT_EQ(one_pass("no user data", {"read", 0}, as_ptr), efd);
        ASSERT_EQ(rqs_rm_fd(efd), 0);
    }
    EXPECT_EQ(rqs_fd_count(1), 0u);
}

TEST_F(Rqs, OneFailedHandlerEndsTheLoopAfterPostProcessing) {
    init(full_config());
    s_rec.quit_after = 0;
    int sv[3][2];
    for (int i = 0; i < 3; ++i) {
        socket_pair(sv[i]);
        ASSERT_EQ(write(sv[i][1], "x", 1), 1);
        ASSERT_EQ(rqs_add_reader(sv[i][0], tag_ptr(i)), 0);
    }
    s_rec.result[tag_ptr(1)] = 7;  // the middle one fails
    EXPECT_EQ(rqs_event_loop(), 1);
    EXPECT_EQ(calls_of("read").size(), 3u);
    EXPECT_EQ(calls_of("pp").size(), 1u);
    EXPECT_EQ(calls_of("pp")[0].stage, 2);
    EXPECT_TRUE(calls_of("idle").empty());
    const std::string log = log_text();
    EXPECT_TRUE(has(log, "rqs_event_loop: failed 1 events\n"));
    EXPECT_TRUE(has(log, "Exiting event loop, 1 failed, rc=0, quit=0\n"));

    // Two failures in the next run are both counted.
    s_rec.result[tag_ptr(2)] = -1;
    EXPECT_EQ(run(), 2);
    EXPECT_EQ(calls_of("read").size(), 3u);
}

TEST_F(Rqs, PassRunsInOrderAndAQuitFromACallbackEndsItWithZero) {
    init(full_config());
    s_rec.quit_after = 2;
    int p[2];
    make_pipe(p);
    ASSERT_EQ(rqs_add_reader(p[0], tag_ptr(1)), 0);  // never readable: the waits time out
    EXPECT_EQ(run(), 0);
    const std::vector<std::string> want = {"time_out", "pp", "idle", "pp",
                                           "time_out", "pp", "idle", "pp"};
    EXPECT_EQ(sequence(), want);
    std::vector<int> stages;
    for (const auto &c : calls_of("pp")) stages.push_back(c.stage);
    EXPECT_EQ(stages, (std::vector<int>{2, 3, 2, 3}));
    // Once before the loop, then before each wait.
    EXPECT_EQ(s_rec.tmout_calls, 3);

    // A quit set by a read handler still lets the pass finish.
    s_rec.quit_after = 0;
    s_rec.read_hook = [](int, void *) {
        g_quit = 1;
        return 0;
    };
    ASSERT_EQ(write(p[1], "x", 1), 1);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(sequence(), (std::vector<std::string>{"time_out", "read", "pp", "idle", "pp"}));
    EXPECT_TRUE(has(log_text(), "Exiting event loop, 0 failed, rc=0, quit=1\n"));

    // A non-zero idle or post-processing result is the loop's result.
    s_rec.read_hook = nullptr;
    s_rec.idle_rc = 41;
    EXPECT_EQ(run(), 41);
    EXPECT_EQ(sequence(), (std::vector<std::string>{"time_out", "read", "pp", "idle"}));
    rqs_config cfg = full_config();
    cfg.cb.post_process = [] { return 9; };
    cfg.cb.on_idle = nullptr;  // empty slots are skipped
    cfg.cb.time_out = nullptr;
    rqs_destroy();
    init(cfg);
    EXPECT_EQ(run(), 9);
    EXPECT_TRUE(s_rec.calls.empty());
}

TEST_F(Rqs, WaitTimeOutFollowsTheUpdatedValue) {
    struct Case {
        timespec ts;
        bool nopoll;
        const char *line;
    } cases[] = {
        {{0, 0}, false, "wait_timeout_ms: timeout=0.000000 sec\n"},
        {{1, 500999999}, false, "wait_timeout_ms: timeout=1.500000 sec\n"},
        {{-1, 0}, false, "wait_timeout_ms: timeout=-1.000000 sec\n"},
        {{3, -1}, false, "wait_timeout_ms: timeout=-1.000000 sec\n"},
        // Far beyond what epoll takes: clamped, not wrapped into "no limit".
        {{4000000, 0}, false, "wait_timeout_ms: timeout=2147483.647000 sec\n"},
        {{-1, 0}, true, "wait_timeout_ms: timeout=0.000000 sec\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        init(full_config());
        s_rec = Recorder{};
        s_rec.quit_after = 1;
        s_rec.tmout = c.ts;
        // Something always ready, so even a wait without limit returns.
        int efd = keep(eventfd(1, EFD_NONBLOCK));
        ASSERT_EQ(rqs_add_reader(efd, tag_ptr(1)), 0);
        ssize_t idx = -5;
        if (c.nopoll) {
            ASSERT_EQ(rqs_add_nopoll_reader(efd, &idx, tag_ptr(2)), 0);
        }
        const size_t before = log_text().size();
        EXPECT_EQ(run(), 0);
        const std::string log = log_text().substr(before);
        EXPECT_TRUE(has(log, c.line));
        EXPECT_EQ(count_of(log, "no-poll events present: changing to 0 timeout"),
                  c.nopoll ? 1u : 0u);
        rqs_destroy();
    }
}

// The timeout registry's minimum, converted the way the application does it,
// drives the wait; deadlines are then judged against the loop time.
tmout_registry s_reg;
timespec s_start, s_span;

TEST_F(Rqs, RegistryMinimumBoundsTheWaitAndTheLoopTimeAdvances) {
    reg_init_timeout(&s_reg);
    reg_set_timeout(&s_reg, TMOUT_KEY_URQ, 20);
    reg_set_timeout(&s_reg, 2, 5000);
    rqs_config cfg = full_config();
    cfg.cb.update_tmout = [](timespec *ts) { ms2timespec(reg_min_timeout(&s_reg), ts); };
    // Ends the loop once the loop time is past start + 10 ms; nothing is ever
    // ready, so each pass is one wait of at most 20 ms.
    cfg.cb.on_idle = [] { return timed_out(&s_start, &s_span) == 1 ? 55 : 0; };
    init(cfg);
    s_start = rqs_now();
    s_span = timespec{0, 10 * 1000000};
    int p[2];
    make_pipe(p);
    ASSERT_EQ(rqs_add_reader(p[0], tag_ptr(1)), 0);
    EXPECT_EQ(run(), 55);
    EXPECT_TRUE(has(log_text(), "wait_timeout_ms: timeout=0.020000 sec\n"));
    EXPECT_EQ(timed_out(&s_start, &s_span), 1);
}

volatile sig_atomic_t s_alarms;

void on_alarm(int) {
    s_alarms = s_alarms + 1;
    if (s_alarms >= 5) g_quit = 1;
}

// A signal interrupts a wait without limit: with the quit flag clear the pass
// goes on, with it set the loop ends with 0.
TEST_F(Rqs, InterruptedWaitContinuesUntilQuitIsSet) {
    init(full_config());
    s_rec.quit_after = 0;
    s_rec.tmout = {-1, 0};
    int p[2];
    make_pipe(p);
    ASSERT_EQ(rqs_add_reader(p[0], tag_ptr(1)), 0);
    s_alarms = 0;
    struct sigaction sa {
    }, old{};
    sa.sa_handler = on_alarm;
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    itimerval tv{{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &tv, nullptr), 0);
    int rc = rqs_event_loop();
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(rc, 0);
    // Nothing ever becomes ready, so every idle call followed an interrupted wait.
    EXPECT_GE(calls_of("idle").size(), 1u);
    EXPECT_TRUE(calls_of("read").empty());
    EXPECT_TRUE(has(log_text(), "wait4events interrupted, quit=0\n"));
}

// A quit signal that lands after the loop has looked at the quit flag but
// before it waits (here: from update_tmout, the last call before the wait)
// must still end a wait without limit.
void raise_term_on_second_update(timespec *ts) {
    *ts = timespec{-1, 0};
    if (++s_rec.tmout_calls == 2) raise(SIGTERM);
}

TEST_F(Rqs, QuitSignalJustBeforeTheWaitIsNotLost) {
    rqs_config cfg = full_config();
    cfg.cb.update_tmout = raise_term_on_second_update;
    init(cfg);
    s_rec.quit_after = 0;
    int p[2];
    make_pipe(p);
    ASSERT_EQ(rqs_add_reader(p[0], tag_ptr(1)), 0);
    struct sigaction sa {
    }, old{};
    sa.sa_handler = on_sigquit;
    ASSERT_EQ(sigaction(SIGTERM, &sa, &old), 0);
    // A lost signal would leave the loop waiting for ever: the alarm's
    // default action then ends the test process instead of hanging it.
    alarm(5);
    int rc = rqs_event_loop();
    alarm(0);
    sigaction(SIGTERM, &old, nullptr);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(g_quit, 1);
    EXPECT_TRUE(has(log_text(), "wait4events interrupted, quit=1\n"));
    // The loop leaves the signal mask as it found it.
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGTERM));
}

TEST_F(Rqs, NothingRegisteredQuitsOnlyWhenAllowedAndDormant) {
    rqs_config cfg = full_config();
    cfg.quit_on_zero_fds = 1;
    init(cfg);
    s_rec.quit_after = 0;
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(s_rec.calls.empty());
    EXPECT_TRUE(has(log_text(), "rqs_event_loop: no fd's, no activity, quitting now.\n"));
    rqs_destroy();

    // The application is not dormant: the loop waits (here without
    // blocking) with an empty buffer guarded instead of failing.
    static int s_dormant_calls;
    s_dormant_calls = 0;
    cfg.cb.is_dormant = [] { return ++s_dormant_calls >= 3; };
    init(cfg);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(s_dormant_calls, 3);
    EXPECT_EQ(calls_of("idle").size(), 2u);
    EXPECT_EQ(count_of(log_text(), "epoll_wait("), 0u);
    rqs_destroy();

    // Without quit_on_zero_fds an empty reactor just keeps passing.
    init(full_config());
    s_rec.quit_after = 2;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(calls_of("time_out").size(), 2u);
}

TEST_F(Rqs, OnlyNoPollEntriesSpinWithoutWaiting) {
    init(full_config());
    s_rec.tmout = {-1, 0};  // a wait would block for ever
    s_rec.quit_after = 5;
    const std::string path = dir_ + "/np";
    int a = keep(open(path.c_str(), O_RDWR | O_CREAT, 0600));
    int b = keep(open(path.c_str(), O_RDONLY));
    ssize_t ia = -9, ib = -9, iw = -9;
    ASSERT_EQ(rqs_add_nopoll_reader(a, &ia, tag_ptr(1)), 0);
    ASSERT_EQ(rqs_add_nopoll_reader(b, &ib, tag_ptr(2)), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(a, &iw, tag_ptr(3)), 0);
    EXPECT_EQ(ia, 0);
    EXPECT_EQ(ib, 1);
    EXPECT_EQ(iw, 2);
    EXPECT_EQ(rqs_fd_count(0), 3u);
    EXPECT_EQ(rqs_fd_count(1), 0u);
    EXPECT_EQ(rqs_fd_count(2), 3u);

    // Entry 1 removes itself on its third call.
    static ssize_t *s_ib;
    s_ib = &ib;
    s_rec.read_hook = [](int, void *udata) {
        int mine = 0;
        for (const auto &c : s_rec.calls)
            if (c.udata == udata) ++mine;
        if (udata == tag_ptr(2) && mine == 3) return rqs_pprm_nopoll(*s_ib);
        return 0;
    };
    EXPECT_EQ(rqs_event_loop(), 0);
    EXPECT_TRUE(calls_of("time_out").empty());
    EXPECT_EQ(s_rec.tmout_calls, 1);  // only the one before the loop
    EXPECT_EQ(ib, -1);
    EXPECT_EQ(ia, 0);
    EXPECT_EQ(rqs_fd_count(2), 2u);
    int n1 = 0, n2 = 0, n3 = 0;
    for (const auto &c : s_rec.calls) {
        if (c.udata == tag_ptr(1)) ++n1;
        if (c.udata == tag_ptr(2)) ++n2;
        if (c.udata == tag_ptr(3)) ++n3;
        if (c.what == "read" || c.what == "write") {
            EXPECT_EQ(c.flags, 0);
            EXPECT_EQ(c.stage, 0);
        }
    }
    EXPECT_EQ(n1, 5);
    EXPECT_EQ(n2, 3);
    EXPECT_EQ(n3, 5);
    // Slot order within a pass.
    const std::vector<std::string> first = {"read", "read", "write", "pp", "idle", "pp"};
    const std::vector<std::string> seq = sequence();
    ASSERT_GE(seq.size(), first.size());
    EXPECT_EQ(std::vector<std::string>(seq.begin(), seq.begin() + 6), first);
    EXPECT_EQ(s_rec.calls[0].fd, a);
    EXPECT_EQ(s_rec.calls[1].fd, b);

    // The freed slot is the next one taken.
    ssize_t again = -9;
    ASSERT_EQ(rqs_add_nopoll_reader(b, &again, tag_ptr(4)), 0);
    EXPECT_EQ(again, 1);
}

TEST_F(Rqs, NoPollServiceResultIsTheLastCallbacksResult) {
    init(full_config());
    s_rec.quit_after = 1;
    int efd = keep(eventfd(0, EFD_NONBLOCK));
    ssize_t i0 = -1, i1 = -1;
    ASSERT_EQ(rqs_add_nopoll_reader(efd, &i0, tag_ptr(1)), 0);
    ASSERT_EQ(rqs_add_nopoll_writer(efd, &i1, tag_ptr(2)), 0);
    // An early failure is masked by a later success: the pass goes on.
    s_rec.result[tag_ptr(1)] = 5;
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(calls_of("idle").size(), 1u);
    // A failing last entry ends the loop before any post-processing.
    s_rec.result = {{tag_ptr(2), 6}};
    EXPECT_EQ(run(), 6);
    EXPECT_EQ(sequence(), (std::vector<std::string>{"read", "write"}));
    EXPECT_TRUE(has(log_text(), "service_nopoll: FAILED(6)\n"));
}

TEST_F(Rqs, ScheduledNoPollRemovalsAreCarriedOutOnce) {
    init(full_config());
    int efd = keep(eventfd(0, EFD_NONBLOCK));
    ssize_t idx[4] = {-9, -9, -9, -9};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(rqs_add_nopoll_reader(efd, &idx[i], tag_ptr(i)), 0);
    // Outside the loop: nothing happens until the purge.
    ASSERT_EQ(rqs_pprm_nopoll(idx[1]), 0);
    ASSERT_EQ(rqs_pprm_nopoll(idx[3]), 0);
    EXPECT_EQ(idx[1], 1);
    EXPECT_EQ(rqs_fd_count(2), 4u);
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0);
    EXPECT_EQ(idx[1], -1);
    EXPECT_EQ(idx[3], -1);
    EXPECT_EQ(idx[2], 2);
    EXPECT_EQ(rqs_fd_count(2), 2u);
    EXPECT_EQ(rqs_purge_nopoll_rm(), 0);  // nothing left to do
    // Immediate removal leaves the owner's variable alone.
    ASSERT_EQ(rqs_rm_nopoll(idx[2]), 0);
    EXPECT_EQ(idx[2], 2);
    EXPECT_EQ(rqs_fd_count(2), 1u);

    // A removal scheduled by the idle work is not lost to the next pass.
    static ssize_t *s_idx0;
    s_idx0 = &idx[0];
    rqs_config cfg = full_config();
    cfg.cb.on_idle = [] {
        s_rec.passes += 1;
        if (s_rec.passes == 1) return rqs_pprm_nopoll(*s_idx0);
        if (s_rec.passes == 3) g_quit = 1;
        return 0;
    };
    rqs_destroy();
    init(cfg);
    s_rec = Recorder{};
    idx[0] = -9;
    ASSERT_EQ(rqs_add_nopoll_reader(efd, &idx[0], tag_ptr(0)), 0);
    ASSERT_EQ(rqs_add_nopoll_reader(efd, nullptr, tag_ptr(5)), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(idx[0], -1);
    EXPECT_EQ(rqs_fd_count(2), 1u);
    int n0 = 0;
    for (const auto &c : s_rec.calls) n0 += c.udata == tag_ptr(0);
    EXPECT_EQ(n0, 2);  // the scheduling pass and the one before the purge
}

// The buffer is one record per registered descriptor, in blocks of ten,
// and never shrinks; only a full buffer of more than 15 events warns.
TEST_F(Rqs, EventSlotWarningOnlyForMoreThanFifteenFillingTheBuffer) {
    std::vector<int> efds;
    for (int i = 0; i < 30; ++i) efds.push_back(keep(eventfd(1, EFD_NONBLOCK)));
    struct Step {
        int registered;  // first this many eventfds are registered (all readable)
        bool warn;
    } steps[] = {{10, false}, {16, false}, {20, true}, {30, true}, {20, false}, {10, false}};
    init(full_config());
    int now_registered = 0;
    for (const auto &st : steps) {
        SCOPED_TRACE(st.registered);
        for (; now_registered < st.registered; ++now_registered)
            ASSERT_EQ(rqs_add_reader(efds[now_registered], tag_ptr(now_registered)), 0);
        for (; now_registered > st.registered; --now_registered)
            ASSERT_EQ(rqs_rm_fd(efds[now_registered - 1]), 0);
        ASSERT_EQ(rqs_fd_count(1), static_cast<size_t>(st.registered));
        const size_t before = log_text().size();
        EXPECT_EQ(run(), 0);
        const std::string log = log_text().substr(before);
        EXPECT_EQ(calls_of("read").size(), static_cast<size_t>(st.registered));
        EXPECT_EQ(count_of(log, "wait4events: all event slots populated, might need more\n"),
                  st.warn ? 1u : 0u);
        EXPECT_TRUE(has(log, "wait4events: got " + std::to_string(st.registered) + " events\n"));
    }
}

TEST_F(Rqs, FileWatchesReportChangeFlagsAndRegisterInotifyOnlyWhileWatching) {
    init(full_config());
    const std::string f1 = dir_ + "/watched", f2 = dir_ + "/doomed", f3 = dir_ + "/moved";
    for (const auto &f : {f1, f2, f3}) {
        int fd = open(f.c_str(), O_WRONLY | O_CREAT, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
    EXPECT_EQ(rqs_fd_count(1), 0u);
    int w1 = rqs_add_file_watch(tag_ptr(1), f1.c_str());
    ASSERT_GE(w1, 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    int w2 = rqs_add_file_watch(tag_ptr(2), f2.c_str());
    int w3 = rqs_add_file_watch(tag_ptr(3), f3.c_str());
    ASSERT_GE(w2, 0);
    ASSERT_GE(w3, 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);  // one inotify descriptor for all watches
    EXPECT_EQ(rqs_add_file_watch(tag_ptr(9), (dir_ + "/absent").c_str()), -1);
    // The same file again is the same kernel watch: refused, first kept.
    EXPECT_EQ(rqs_add_file_watch(tag_ptr(8), f1.c_str()), -1);

    auto pass = [&] {
        EXPECT_EQ(run(), 0);
        std::vector<std::pair<int, void *>> v;
        for (const auto &c : s_rec.files) v.emplace_back(c.flags, c.udata);
        return v;
    };
    {  // Content changes carry no flags.
        int fd = open(f1.c_str(), O_WRONLY | O_APPEND);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, "data", 4), 4);
        close(fd);
        auto v = pass();
        ASSERT_FALSE(v.empty());
        for (const auto &[flags, ud] : v) {
            EXPECT_EQ(flags, 0);
            EXPECT_EQ(ud, tag_ptr(1));
        }
        EXPECT_EQ(s_rec.files[0].wd, w1);
        EXPECT_TRUE(calls_of("read").empty());  // inotify is the reactor's own
    }
    {
        ASSERT_EQ(chmod(f1.c_str(), 0600), 0);
        auto v = pass();
        EXPECT_EQ(v, (std::vector<std::pair<int, void *>>{{RQS_FCHG_ATTRIB, tag_ptr(1)}}));
    }
    {
        ASSERT_EQ(rename(f3.c_str(), (dir_ + "/elsewhere").c_str()), 0);
        auto v = pass();
        EXPECT_EQ(
            v, (std::vector<std::pair<int, void *>>{{RQS_FCHG_GONE | RQS_FCHG_MOVED, tag_ptr(3)}}));
    }
    {  // Unlinking drops the link count (attributes) and then the file.
        ASSERT_EQ(unlink(f2.c_str()), 0);
        auto v = pass();
        EXPECT_EQ(
            v, (std::vector<std::pair<int, void *>>{
                   {RQS_FCHG_ATTRIB, tag_ptr(2)}, {RQS_FCHG_GONE | RQS_FCHG_DELETED, tag_ptr(2)}}));
        const std::string log = log_text();
        EXPECT_TRUE(has(log, "mask=0x0400 [D] cookie=0 []\n"));
        EXPECT_TRUE(has(log, "read_inotify: IN_IGNORED (0x8000)\n"));
    }
    // The kernel dropped the deleted file's watch itself; ours goes too.
    EXPECT_EQ(rqs_rm_file_watch(w2), 0);
    EXPECT_EQ(rqs_rm_file_watch(w2), -1);
    EXPECT_EQ(rqs_rm_file_watch(w3), 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    EXPECT_EQ(count_of(log_text(), "is no longer watched.\n"), 0u);
    EXPECT_EQ(rqs_rm_file_watch(w1), 0);
    EXPECT_EQ(rqs_fd_count(1), 0u);
    EXPECT_EQ(count_of(log_text(), "is no longer watched.\n"), 1u);
    // A change while nothing is watched is not seen; a new watch registers
    // the descriptor again.
    ASSERT_EQ(chmod(f1.c_str(), 0644), 0);
    EXPECT_TRUE(pass().empty());
    int w4 = rqs_add_file_watch(tag_ptr(4), f1.c_str());
    ASSERT_GE(w4, 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    ASSERT_EQ(chmod(f1.c_str(), 0600), 0);
    auto v = pass();
    ASSERT_FALSE(v.empty());
    EXPECT_EQ(v.back(), (std::pair<int, void *>{RQS_FCHG_ATTRIB, tag_ptr(4)}));
}

TEST_F(Rqs, RegistrationFailuresLeaveTheCountAlone) {
    init(full_config());
    const std::string path = dir_ + "/plain";
    int file = keep(open(path.c_str(), O_RDWR | O_CREAT, 0600));
    int sv[2];
    socket_pair(sv);
    EXPECT_EQ(rqs_add_reader(file, tag_ptr(1)), -1);  // regular files cannot be polled
    EXPECT_EQ(errno, EPERM);
    ASSERT_EQ(rqs_add_writer(sv[0], nullptr), 0);
    EXPECT_EQ(rqs_add_reader(sv[0], nullptr), -1);
    EXPECT_EQ(rqs_mod(sv[1], tag_ptr(2), 1), -1);  // never added
    EXPECT_EQ(rqs_rm_fd(sv[1]), -1);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    const std::string log = log_text();
    char line[256];
    snprintf(line, sizeof line, ", EPOLL_CTL_ADD, %d, {0x1, %p}) ERROR(1): ", file, tag_ptr(1));
    EXPECT_TRUE(has(log, line));
    snprintf(line, sizeof line, "rqs_mod: fd%d, udata=%p, flags='R'", sv[1], tag_ptr(2));
    EXPECT_TRUE(has(log, line));
    snprintf(line, sizeof line, "rqs_rm_fd: REMOVE fd=%d from epoll FAILED [rc=-1]\n", sv[1]);
    EXPECT_TRUE(has(log, line));
    EXPECT_EQ(rqs_ctx(7), 0);
    EXPECT_TRUE(has(log_text(), "rqs_ctx: invalid request type: 7\n"));
    // After destruction removal is a quiet no-op, and destroying again is fine.
    rqs_destroy();
    EXPECT_EQ(rqs_rm_fd(sv[0]), 0);
    rqs_destroy();
}

TEST_F(Rqs, MisuseIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Each statement runs in a freshly started copy of this program, where the
    // reactor has never been initialised. The copy's own fixture directory
    // goes first, and its log is sent to stderr for the matcher.
    auto child = [this] {
        log_close(g_log);
        log_default(g_log, stderr);
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    };
    auto child_init = [&] {
        child();
        rqs_config cfg{};
        if (rqs_init(&cfg) != 0) _exit(3);
    };
    EXPECT_EXIT(
        {
            child();
            if (fcntl(0, F_GETFD) == -1) (void)open("/dev/null", O_RDONLY);
            rqs_destroy();
            _exit(fcntl(0, F_GETFD) == -1 ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_DEATH(
        {
            child();
            (void)rqs_event_loop();
        },
        "ASSERT at:");
    EXPECT_DEATH(
        {
            child();
            (void)rqs_init(nullptr);
        },
        "ASSERT at:");
    EXPECT_DEATH(
        {
            child_init();
            (void)rqs_fd_count(3);
        },
        "invalid specifier: 3");
    EXPECT_DEATH(
        {
            child_init();
            (void)rqs_pprm_nopoll(-1);
        },
        "ASSERT at:");
    EXPECT_DEATH(
        {
            child_init();
            (void)rqs_add_nopoll_reader(0, nullptr, nullptr);
            (void)rqs_pprm_nopoll(0);
            (void)rqs_pprm_nopoll(0);  // the same slot twice
            (void)rqs_purge_nopoll_rm();
        },
        "failed to remove j=0");
}

}  // namespace

// Tests of the reactor on real descriptors: dispatch per event bits, the
// order of a pass, time-outs and quitting, no-poll entries and file watches.
#include "rqs.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "log.h"
#include "timeop.h"
#include "util.h"

namespace {

// The callbacks write one token per call to the trace: "t" time_out, "i"
// on_idle, "p<stage>" post_process, "F<id>:<letters>" a file change, and
// "r", "w" or "e" (read, write, error) with the id of tag(id) or "#<fd>",
// then ":e" / ":h" for the flags and "@<stage>" when not in dispatch.
struct Recorder {
    std::string trace, log;  // the log of the last run
    int result[32];          // descriptor callback result per tag id
    timespec tmout;          // what update_tmout hands over
    int tmout_calls, passes, idle_rc, pp_rc;
    int quit_after;                       // on_idle sets g_quit on this pass; 0 = never
    int (*hook)(char what, void *udata);  // runs inside read ('r') and on_idle ('i')
};
Recorder s_rec;

void *tag(int n) { return reinterpret_cast<void *>(static_cast<uintptr_t>(0x1000 + n)); }
void note(const std::string &tok) { s_rec.trace += (s_rec.trace.empty() ? "" : " ") + tok; }
int hook(char what, void *ud) { return s_rec.hook != nullptr ? s_rec.hook(what, ud) : 0; }

int on_fd(char what, int fd, int flags, void *ud, void *aux) {
    EXPECT_EQ(aux, nullptr);
    const auto n = reinterpret_cast<uintptr_t>(ud);
    std::string tok = what + (n >= 0x1000 ? std::to_string(n - 0x1000) : "#" + std::to_string(fd));
    EXPECT_TRUE(n >= 0x1000 || n == uintptr_t(fd));
    if (flags != 0)
        tok += std::string(":") + (flags & RQS_FL_ERR ? "e" : "") + (flags & 2 ? "h" : "");
    if (rqs_ctx(1) != 1) tok += "@" + std::to_string(rqs_ctx(1));
    note(tok);
    return (n >= 0x1000 ? s_rec.result[n - 0x1000] : 0) | (what == 'r' ? hook('r', ud) : 0);
}

int cb_idle() {
    note("i");
    if (++s_rec.passes == s_rec.quit_after) g_quit = 1;
    return s_rec.idle_rc | hook('i', nullptr);
}
int cb_pp() {
    note("p" + std::to_string(rqs_ctx(1)));
    if (s_rec.trace.size() > 20000) g_quit = 1;  // bounds a loop that would never end
    return s_rec.pp_rc;
}
void cb_file(int, int fl, void *ud, void *) {
    note("F" + std::to_string(reinterpret_cast<uintptr_t>(ud) - 0x1000) + ":" +
         (fl & RQS_FCHG_ATTRIB ? "a" : "") + (fl & RQS_FCHG_GONE ? "g" : "") +
         (fl & RQS_FCHG_MOVED ? "m" : "") + (fl & RQS_FCHG_DELETED ? "d" : ""));
}

rqs_config full_config() {
    rqs_config cfg{};
    cfg.cb = rqs_callbacks{
        .update_tmout = [](timespec *ts) { *ts = s_rec.tmout, ++s_rec.tmout_calls; },
        .on_idle = cb_idle,
        .read = [](int fd, int fl, void *ud, void *aux) { return on_fd('r', fd, fl, ud, aux); },
        .write = [](int fd, int fl, void *ud, void *aux) { return on_fd('w', fd, fl, ud, aux); },
        .error = [](int fd, int fl, void *ud, void *aux) { return on_fd('e', fd, fl, ud, aux); },
        .post_process = cb_pp,
        .on_file_modified = cb_file,
        .time_out = [] { note("t"); },
        .is_dormant = nullptr};
    return cfg;
}

::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << part << "] not in:\n" << text;
}

class Rqs : public ::testing::Test {
   protected:
    void SetUp() override {
        log_timefmt(g_log, TMF_NOTIME);
        s_rec = Recorder{};
        s_rec.quit_after = 1;
        const rqs_config cfg = full_config();
        ASSERT_EQ(rqs_init(&cfg), 0);
    }
    void TearDown() override {
        rqs_destroy();
        for (int fd : fds_) close(fd);
        log_timefmt(g_log, TMF_LOCAL);
    }
    // One run of the loop with a fresh trace and its log; g_quit is left clear.
    static int run() {
        s_rec.trace.clear();
        s_rec.passes = 0;
        log_set_modules(g_log, LL_DEBUG);
        testing::internal::CaptureStderr();
        int rc = rqs_event_loop();
        s_rec.log = testing::internal::GetCapturedStderr();
        log_set_modules(g_log, LL_NORM);
        g_quit = 0;
        return rc;
    }
    // One pass that dispatches exactly the given events.
    static void pass(const std::string &events) {
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(s_rec.trace, "t " + events + (events.empty() ? "" : " ") + "p2 i p3");
    }
    int keep(int fd) { return fds_.push_back(fd), fd; }
    int idle_reader(void *ud = tag(1)) {  // registered, never readable; gives the write end
        int p[2];
        EXPECT_EQ(pipe(p), 0);
        EXPECT_EQ(rqs_add_reader(keep(p[0]), ud), 0);
        return keep(p[1]);
    }
    std::vector<int> fds_;
};

// Each step puts a real descriptor in a state the kernel reports with known bits.
TEST_F(Rqs, DispatchFollowsTheEventBitsOfRealDescriptors) {
    int p[2], sv[2];
    ASSERT_EQ(pipe(p), 0);
    close(p[1]);  // an empty pipe without writer: hang-up alone
    ASSERT_EQ(rqs_add_reader(keep(p[0]), tag(1)), 0);
    pass("e1:h");
    ASSERT_EQ(rqs_rm_fd(p[0]), 0);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(write(sv[1], "x", 1), 1);
    ASSERT_EQ(rqs_add_reader(keep(sv[0]), tag(1)), 0);
    ASSERT_EQ(rqs_mod(sv[0], tag(1), 3), 0);
    pass("r1");  // readable and writable: input wins
    ASSERT_EQ(rqs_mod(sv[0], tag(1), 2), 0);
    pass("w1");
    ASSERT_EQ(rqs_mod(sv[0], tag(1), 0), 0);
    pass("");  // hang-up only: pending input is not reported, the peer's close is
    close(sv[1]);
    pass("e1:h");
    ASSERT_EQ(rqs_mod_reader(sv[0], tag(1)), 0);
    pass("r1:h");
    ASSERT_EQ(rqs_mod(sv[0], tag(1), 2), 0);
    pass("w1:h");
    ASSERT_EQ(rqs_rm_fd(sv[0]), 0);

    ASSERT_EQ(pipe(p), 0);
    close(p[0]);  // a pipe without reader: writable, with an error
    ASSERT_EQ(rqs_add_writer(keep(p[1]), tag(1)), 0);
    pass("w1:e");
    ASSERT_EQ(rqs_rm_fd(p[1]), 0);
    int efd = keep(eventfd(1, EFD_NONBLOCK));
    ASSERT_EQ(rqs_add_reader(efd, nullptr), 0);
    pass("r#" + std::to_string(efd));
}

TEST_F(Rqs, PassRunsInOrderUntilQuitAFailureOrANonZeroResult) {
    s_rec.quit_after = 0;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(write(idle_reader(tag(i)), "x", 1), 1);
    s_rec.result[1] = 7;  // one failure: the pass is dispatched and post-processed, no idle
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(s_rec.trace, "t r0 r1 r2 p2");
    EXPECT_TRUE(has(s_rec.log, "Exiting event loop, 1 failed, rc=0, quit=0\n"));
    s_rec.result[1] = 0;
    s_rec.hook = [](char, void *) { return g_quit = 1, 0; };
    pass("r0 r1 r2");  // a quit set by a handler still lets the pass finish
    s_rec.hook = nullptr;
    s_rec.idle_rc = 41;
    EXPECT_EQ(run(), 41);
    s_rec.pp_rc = 9;
    EXPECT_EQ(run(), 9);
    EXPECT_EQ(s_rec.trace, "t r0 r1 r2 p2");
}

TEST_F(Rqs, WaitTimeOutFollowsTheUpdatedValue) {
    int efd = keep(eventfd(1, EFD_NONBLOCK));  // always ready, so no wait blocks
    ASSERT_EQ(rqs_add_reader(efd, tag(1)), 0);
    const std::pair<timespec, const char *> cases[] = {
        {{0, 0}, "0.000000"},  // returns at once
        {{3, -1}, "-1.000000"},
        {{4000000, 0}, "2147483.647000"},  // clamped, not wrapped into "no limit"
    };
    for (const auto &[ts, secs] : cases) {
        s_rec.tmout = ts;
        EXPECT_EQ(run(), 0);
        EXPECT_TRUE(has(s_rec.log, std::string("wait_timeout_ms: timeout=") + secs + " sec\n"));
    }
    // A no-poll entry turns even a wait without limit into none.
    ASSERT_EQ(rqs_add_nopoll_reader(efd, nullptr, tag(2)), 0);
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(has(s_rec.log, "to 0 timeout\n(DBG) wait_timeout_ms: timeout=0.000000 sec\n"));
}

// A signal raised from update_tmout, after the loop looked at the quit flag,
// must still interrupt a wait without limit: SIGUSR1 leaves the quit flag
// clear and the loop goes on; SIGTERM on the next pass ends it.
TEST_F(Rqs, QuitSignalJustBeforeTheWaitIsNotLost) {
    rqs_config cfg = full_config();
    cfg.cb.update_tmout = [](timespec *ts) {
        *ts = timespec{-1, 0};
        if (++s_rec.tmout_calls > 1) raise(s_rec.tmout_calls == 2 ? SIGUSR1 : SIGTERM);
    };
    rqs_destroy();
    ASSERT_EQ(rqs_init(&cfg), 0);
    s_rec.quit_after = 0;
    idle_reader();
    ASSERT_EQ(handle_sig(SIGUSR1, on_sigusr1) | handle_quit_signals(on_sigquit), 0);
    alarm(5);  // a lost signal would wait for ever: the alarm ends the process instead
    EXPECT_EQ(run(), 0);
    alarm(0);
    for (int sig : {SIGTERM, SIGQUIT, SIGINT, SIGUSR1, SIGCHLD, SIGHUP}) signal(sig, SIG_DFL);
    EXPECT_TRUE(g_usr1 == 1 && g_goodbye == 1);
    g_usr1 = 0;
    g_goodbye = 0;
    EXPECT_EQ(s_rec.trace, "t p2 i p3");
    EXPECT_TRUE(has(s_rec.log, "interrupted, quit=0\n"));
    EXPECT_TRUE(has(s_rec.log, "interrupted, quit=1\n"));
    sigset_t now;  // the loop leaves the signal mask as it found it
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGTERM));
}

// Entry 1 schedules its own removal on its second call, the second idle work
// entry 0's; entry 0 always fails, which the later successes mask.
TEST_F(Rqs, NoPollEntriesSpinWithoutWaitingAndGoOnlyAtThePurge) {
    s_rec.tmout = {-1, 0};  // a wait would block for ever
    s_rec.quit_after = 4;
    int fd = keep(eventfd(0, EFD_NONBLOCK));  // never polled, so any descriptor does
    static ssize_t idx[3];
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ((i < 2 ? rqs_add_nopoll_reader : rqs_add_nopoll_writer)(fd, &idx[i], tag(i)), 0);
        EXPECT_EQ(idx[i], i);
    }
    s_rec.result[0] = 5;
    s_rec.hook = [](char what, void *ud) {
        if (what == 'r' && ud == tag(1) && s_rec.passes == 1) return rqs_pprm_nopoll(idx[1]);
        return what == 'i' && s_rec.passes == 2 ? rqs_pprm_nopoll(idx[0]) : 0;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(s_rec.trace,
              "r0@0 r1@0 w2@0 p2 i p3 r0@0 r1@0 w2@0 p2 i p3 r0@0 w2@0 p2 i p3 w2@0 p2 i p3");
    EXPECT_EQ((std::vector<ssize_t>{idx[0], idx[1], idx[2]}), (std::vector<ssize_t>{-1, -1, 2}));
    s_rec.result[2] = 6;  // a failing last entry ends the loop before post-processing
    EXPECT_EQ(run(), 6);
    EXPECT_EQ(s_rec.trace, "w2@0");
    EXPECT_TRUE(has(s_rec.log, "service_nopoll: FAILED(6)\n"));
}

TEST_F(Rqs, FileWatchesReportChangeFlagsAndRegisterInotifyOnlyWhileWatching) {
    char tmpl[] = "/tmp/trov-rqs-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, f1 = dir + "/watched", f2 = dir + "/doomed", f3 = dir + "/moved";
    for (const auto &f : {f1, f2, f3}) std::ofstream{f};
    int w1 = rqs_add_file_watch(tag(1), f1.c_str());
    int w2 = rqs_add_file_watch(tag(2), f2.c_str());
    int w3 = rqs_add_file_watch(tag(3), f3.c_str());
    ASSERT_TRUE(w1 >= 0 && w2 >= 0 && w3 >= 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);  // one inotify descriptor for all watches
    EXPECT_EQ(rqs_add_file_watch(tag(8), f1.c_str()), -1);  // same kernel watch: refused
    // The inotify descriptor is the reactor's own: no read callback for it.
    std::ofstream(f1, std::ios::app) << "data";
    pass("F1: F1:");  // the write and the close after it
    ASSERT_EQ(chmod(f1.c_str(), 0600), 0);
    pass("F1:a");
    ASSERT_EQ(rename(f3.c_str(), (dir + "/elsewhere").c_str()), 0);
    pass("F3:gm");
    ASSERT_EQ(unlink(f2.c_str()), 0);
    pass("F2:a F2:gd");                   // the link count, then the file
    EXPECT_EQ(rqs_rm_file_watch(w2), 0);  // the kernel dropped it already; ours goes too
    EXPECT_EQ(rqs_rm_file_watch(w3), 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    EXPECT_EQ(rqs_rm_file_watch(w1), 0);
    EXPECT_EQ(rqs_fd_count(1), 0u);
    std::filesystem::remove_all(dir);
}

}  // namespace

// Tests of the reactor on real descriptors: dispatch per event bits, the
// order of a pass, time-outs and quitting, no-poll entries and file watches.
#include "rqs.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "daemon.h"
#include "log.h"
#include "strcat.h"
#include "timeop.h"
#include "util.h"

namespace {

// Each callback adds a token to the trace: "t" time_out, "i" on_idle, "p<stage>" post_process,
// "F<id>:<letters>" a file change; "r", "w", "e" (read, write, error) with tag(id)'s id or
// "#<fd>", then ":e" / ":h" for the flags and "@<stage>" outside dispatch.
struct Recorder {
    std::string trace, log;  // the log of the last run
    timespec tmout;          // what update_tmout hands over
    int quit_after = 1;      // on_idle sets g_quit on this pass; 0 = never
    int result[32], tmout_calls, passes, idle_rc, pp_rc;  // result: per tag id
    int (*hook)(char what, void *udata);  // in update_tmout 'u', read 'r', on_idle 'i'
};
Recorder s_rec;

void *tag(int n) { return reinterpret_cast<void *>(static_cast<uintptr_t>(0x1000 + n)); }
void note(const std::string &tok) { s_rec.trace += (s_rec.trace.empty() ? "" : " ") + tok; }
int hook(char what, void *ud) { return s_rec.hook != nullptr ? s_rec.hook(what, ud) : 0; }

int on_fd(char what, int fd, int flags, void *ud, void *aux) {
    const auto n = reinterpret_cast<uintptr_t>(ud);
    EXPECT_TRUE(aux == nullptr && (n >= 0x1000 || n == uintptr_t(fd)));
    std::string tok(1, what);
    tok += n >= 0x1000 ? std::to_string(n - 0x1000) : str_cat("#", std::to_string(fd));
    tok += str_cat(flags & RQS_FL_ERR ? ":e" : "", flags & RQS_FL_HUP ? ":h" : "");
    note(str_cat(tok, rqs_ctx(1) != 1 ? str_cat("@", std::to_string(rqs_ctx(1))) : ""));
    return (n >= 0x1000 ? s_rec.result[n - 0x1000] : 0) | (what == 'r' ? hook('r', ud) : 0);
}

void cb_tmout(timespec *ts) { *ts = s_rec.tmout, ++s_rec.tmout_calls, hook('u', nullptr); }
int cb_idle() {
    note("i");
    if (++s_rec.passes == s_rec.quit_after) g_quit = 1;
    return s_rec.idle_rc | hook('i', nullptr);
}
int cb_pp() {
    note(str_cat("p", std::to_string(rqs_ctx(1))));
    if (s_rec.trace.size() > 20000) g_quit = 1;  // bounds a loop that would never end
    return s_rec.pp_rc;
}
void cb_file(int, int fl, void *ud, void *) {
    note(str_cat("F", std::to_string(reinterpret_cast<uintptr_t>(ud) - 0x1000), ":",
                 fl & RQS_FCHG_ATTRIB ? "a" : "", fl & RQS_FCHG_GONE ? "g" : "",
                 fl & RQS_FCHG_MOVED ? "m" : "", fl & RQS_FCHG_DELETED ? "d" : ""));
}

const rqs_config s_cfg{
    .cb = {.update_tmout = cb_tmout,
           .on_idle = cb_idle,
           .read = [](int fd, int fl, void *ud, void *aux) { return on_fd('r', fd, fl, ud, aux); },
           .write = [](int fd, int fl, void *ud, void *aux) { return on_fd('w', fd, fl, ud, aux); },
           .error = [](int fd, int fl, void *ud, void *aux) { return on_fd('e', fd, fl, ud, aux); },
           .post_process = cb_pp,
           .on_file_modified = cb_file,
           .time_out = [] { note("t"); },
           .is_dormant = nullptr},
    .quit_on_zero_fds = 0};

class Rqs : public ::testing::Test {
   protected:
    void SetUp() override { ASSERT_EQ(rqs_init(&s_cfg), 0); }
    void TearDown() override {
        rqs_destroy();
        for (int fd : fds_) close(fd);
        s_rec = Recorder{};
    }
    // One run of the loop with a fresh trace and its log; g_quit is left clear.
    static int run() {
        s_rec.trace.clear(), s_rec.passes = 0;
        log_set_modules(g_log, LL_DEBUG);
        testing::internal::CaptureStderr();
        int rc = rqs_event_loop();
        s_rec.log = testing::internal::GetCapturedStderr();
        g_quit = 0, log_set_modules(g_log, LL_NORM);
        return rc;
    }
    static bool logged(const std::string &part) { return s_rec.log.find(part) != s_rec.log.npos; }
    // After a step that must succeed, one pass that dispatches exactly the given events.
    static void pass(int step_rc, const std::string &events) {
        EXPECT_EQ(step_rc, 0);
        EXPECT_EQ(run(), 0);
        EXPECT_EQ(s_rec.trace, "t " + events + (events.empty() ? "" : " ") + "p2 i p3");
    }
    int keep(int fd) { return fds_.push_back(fd), fd; }
    std::vector<int> fds_;
};

TEST_F(Rqs, DispatchFollowsTheEventBitsOfRealDescriptors) {
    int p[2], sv[2];
    ASSERT_EQ(pipe(p), 0);  // an empty pipe without writer: hang-up alone
    pass(close(p[1]) | rqs_add_reader(keep(p[0]), tag(1)), "e1:h");
    ASSERT_EQ(rqs_rm_fd(p[0]), 0);

    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_EQ(write(sv[1], "x", 1), 1);
    ASSERT_EQ(rqs_add_reader(keep(sv[0]), tag(1)), 0);
    pass(rqs_mod(sv[0], tag(1), 3), "r1");  // readable and writable: input wins
    pass(rqs_mod(sv[0], tag(1), 2), "w1");
    pass(rqs_mod(sv[0], tag(1), 0), "");  // hang-up only: pending input is not reported,
    pass(close(sv[1]), "e1:h");           // the peer's close is
    pass(rqs_mod_reader(sv[0], tag(1)), "r1:h");
    pass(rqs_mod(sv[0], tag(1), 2), "w1:h");
    ASSERT_EQ(rqs_rm_fd(sv[0]), 0);

    ASSERT_EQ(pipe(p), 0);  // a pipe without reader: writable, with an error
    pass(close(p[0]) | rqs_add_writer(keep(p[1]), tag(1)), "w1:e");
}

TEST_F(Rqs, PassRunsInOrderUntilQuitAFailureOrANonZeroResult) {
    s_rec.quit_after = 0;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(rqs_add_reader(keep(eventfd(1, EFD_NONBLOCK)), tag(i)), 0);
    s_rec.result[1] = 7;  // one failure: the pass is dispatched and post-processed, no idle
    EXPECT_EQ(run(), 1);
    EXPECT_EQ(s_rec.trace, "t r0 r1 r2 p2");
    EXPECT_TRUE(logged("Exiting event loop, 1 failed, rc=0, quit=0\n")) << s_rec.log;
    s_rec.result[1] = 0;
    s_rec.hook = [](char what, void *) { return what == 'r' ? (g_quit = 1, 0) : 0; };
    pass(0, "r0 r1 r2");  // a quit set by a handler still lets the pass finish
    s_rec.idle_rc = 41;
    EXPECT_EQ(run(), 41);
    s_rec.pp_rc = 9;
    EXPECT_EQ(run(), 9);
    EXPECT_EQ(s_rec.trace, "t r0 r1 r2 p2");
}

// A negative field waits without limit; far too long a wait is clamped, not wrapped into that.
TEST_F(Rqs, WaitTimeOutFollowsTheUpdatedValue) {
    int efd = keep(eventfd(1, EFD_NONBLOCK));  // always ready, so no wait blocks
    ASSERT_EQ(rqs_add_reader(efd, nullptr), 0);
    const std::pair<timespec, const char *> cases[] = {
        {{0, 0}, "0.000000"}, {{3, -1}, "-1.000000"}, {{4000000, 0}, "2147483.647000"}};
    for (const auto &[ts, secs] : cases) {
        s_rec.tmout = ts;
        EXPECT_EQ(run(), 0);
        EXPECT_TRUE(logged(std::string("wait_timeout_ms: timeout=") + secs + " sec\n")) << secs;
        EXPECT_EQ(s_rec.trace, "t r#" + std::to_string(efd) + " p2 i p3");  // no user data
    }
}

// A signal raised from update_tmout, after the loop looked at the quit flag, must still
// interrupt a wait without limit: after SIGUSR1 the loop goes on; SIGTERM next ends it.
TEST_F(Rqs, QuitSignalJustBeforeTheWaitIsNotLost) {
    s_rec.tmout = {-1, 0};
    s_rec.quit_after = 0;
    s_rec.hook = [](char what, void *) {
        if (what == 'u' && s_rec.tmout_calls > 1) raise(s_rec.tmout_calls == 2 ? SIGUSR1 : SIGTERM);
        return 0;
    };
    ASSERT_EQ(rqs_add_reader(keep(eventfd(0, EFD_NONBLOCK)), tag(1)), 0);  // never ready
    ASSERT_EQ(handle_sig(SIGUSR1, on_sigusr1) | handle_quit_signals(on_sigquit), 0);
    alarm(5);  // a lost signal would wait for ever: the alarm ends the process instead
    EXPECT_EQ(run(), 0);
    alarm(0);
    for (int sig : {SIGTERM, SIGQUIT, SIGINT, SIGUSR1, SIGCHLD, SIGHUP}) signal(sig, SIG_DFL);
    EXPECT_TRUE(g_usr1 == 1 && g_goodbye == 1);
    g_usr1 = 0;
    g_goodbye = 0;
    EXPECT_EQ(s_rec.trace, "t p2 i p3");
    EXPECT_TRUE(logged("interrupted, quit=0\n") && logged("interrupted, quit=1\n")) << s_rec.log;
    sigset_t now;  // the loop leaves the signal mask as it found it
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGTERM));
}

// A descriptor that never stops being ready means no wait ever blocks, so the signals never get
// the wait's window: they must still be run at the start of the next pass. SIGUSR2 raised on
// the third read is seen by the fourth pass's idle work; SIGTERM on the fifth ends the loop.
TEST_F(Rqs, SignalsReachABusyLoopWhoseDescriptorStaysReady) {
    s_rec.tmout = {-1, 0};
    s_rec.quit_after = 0;
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    ASSERT_EQ(write(keep(p[1]), "x", 1), 1);  // never read: ready for ever
    ASSERT_EQ(rqs_add_reader(keep(p[0]), tag(1)), 0);
    static int reads, tdbg_seen_at, term_at;
    static std::chrono::steady_clock::time_point term_raised;
    reads = tdbg_seen_at = term_at = 0;
    s_rec.hook = [](char what, void *) {
        if (what == 'r' && ++reads == 3) raise(SIGUSR2);
        if (what == 'i' && g_tdbg != 0 && tdbg_seen_at == 0) tdbg_seen_at = reads;
        if (what == 'r' && tdbg_seen_at != 0 && term_at == 0) {
            term_at = reads;
            term_raised = std::chrono::steady_clock::now();
            raise(SIGTERM);
        }
        return 0;
    };
    ASSERT_EQ(handle_sig(SIGUSR2, on_tdbg) | handle_quit_signals(on_sigquit), 0);
    alarm(5);  // a signal that is never let in would spin for ever: the alarm ends it
    EXPECT_EQ(run(), 0);
    auto took = std::chrono::steady_clock::now() - term_raised;
    alarm(0);
    for (int sig : {SIGTERM, SIGQUIT, SIGINT, SIGUSR2, SIGCHLD, SIGHUP, SIGUSR1})
        signal(sig, SIG_DFL);
    // Each signal is let in within a tick of the coarse clock, whatever the
    // number of passes that takes.
    EXPECT_GT(tdbg_seen_at, 3);
    EXPECT_GT(term_at, tdbg_seen_at);
    EXPECT_GE(reads, term_at);
    EXPECT_LT(took, std::chrono::milliseconds(200));
    EXPECT_EQ(g_goodbye, 1);
    g_tdbg = 0;
    g_goodbye = 0;
    EXPECT_TRUE(logged("Exiting event loop, 0 failed, rc=0, quit=1\n")) << s_rec.log;
}

// Entry 1 schedules its own removal on its second call, the second idle work
// entry 0's; entry 0 always fails, which the later successes mask.
TEST_F(Rqs, NoPollEntriesSpinWithoutWaitingAndGoOnlyAtThePurge) {
    s_rec.tmout = {-1, 0};  // a wait would block for ever
    s_rec.quit_after = 4;
    int fd = keep(eventfd(0, EFD_NONBLOCK));  // never polled, so any descriptor does
    static ssize_t idx[3];
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ((i < 2 ? rqs_add_nopoll_reader : rqs_add_nopoll_writer)(fd, &idx[i], tag(i)), 0);
    s_rec.result[0] = 5;
    s_rec.hook = [](char what, void *ud) {
        if (what == 'r' && ud == tag(1) && s_rec.passes == 1) return rqs_pprm_nopoll(idx[1]);
        return what == 'i' && s_rec.passes == 2 ? rqs_pprm_nopoll(idx[0]) : 0;
    };
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(s_rec.trace,
              "r0@0 r1@0 w2@0 p2 i p3 r0@0 r1@0 w2@0 p2 i p3 r0@0 w2@0 p2 i p3 w2@0 p2 i p3");
    EXPECT_EQ((std::vector<ssize_t>{idx[0], idx[1], idx[2]}), (std::vector<ssize_t>{-1, -1, 2}));
    // With a pollable descriptor too, the no-poll entry still makes the wait return at once.
    s_rec.result[2] = 6;  // and a failing last entry ends the loop before post-processing
    ASSERT_EQ(rqs_add_reader(fd, tag(3)), 0);
    EXPECT_EQ(run(), 6);
    EXPECT_EQ(s_rec.trace, "t w2@0");
    EXPECT_TRUE(logged("changing to 0 timeout\n") && logged("timeout=0.000000 sec\n")) << s_rec.log;
    EXPECT_TRUE(logged("service_nopoll: FAILED(6)\n")) << s_rec.log;
}

TEST_F(Rqs, FileWatchesReportChangeFlagsAndRegisterInotifyOnlyWhileWatching) {
    const std::string dir = scratch_dir("rqs"),
                      f[] = {dir + "/watched", dir + "/doomed", dir + "/moved"};
    for (const auto &name : f) std::ofstream{name};
    int w[3];
    for (int i = 0; i < 3; ++i) ASSERT_GE(w[i] = rqs_add_file_watch(tag(i + 1), f[i].c_str()), 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);  // one inotify descriptor for all watches
    EXPECT_EQ(rqs_add_file_watch(tag(8), f[0].c_str()), -1);  // same kernel watch: refused
    // The inotify descriptor is the reactor's own: no read callback for it.
    std::ofstream(f[0], std::ios::app) << "data";
    pass(0, "F1: F1:");  // the write and the close after it
    pass(chmod(f[0].c_str(), 0600), "F1:a");
    pass(rename(f[2].c_str(), (dir + "/elsewhere").c_str()), "F3:gm");
    pass(unlink(f[1].c_str()), "F2:a F2:gd");  // the link count, then the file
    // The kernel has dropped the deleted file's watch itself: refused, and
    // counted on, so inotify stays registered.
    testing::internal::CaptureStderr();
    EXPECT_EQ(rqs_rm_file_watch(w[1]), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(", " + std::to_string(w[1]) + ") ERROR(22): "), std::string::npos) << err;
    EXPECT_EQ(rqs_rm_file_watch(w[2]) | rqs_rm_file_watch(w[0]), 0);
    EXPECT_EQ(rqs_fd_count(1), 1u);
    std::filesystem::remove_all(dir);
}

}  // namespace

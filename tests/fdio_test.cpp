// Tests of descriptor I/O on real socketpairs and pipes; interruptions come
// from a repeating interval timer.
#include "fdio.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "util.h"

namespace {

TEST(Fdio, ReadsAndProbesReportWhatTheDescriptorHolds) {
    int sv[2];
    char c = 0;
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    EXPECT_EQ(nread(sv[1], &c, 1, 0), -1);  // errno stands, EAGAIN included
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(wait_to_read(sv[1], 10), 1);  // 1: nothing within the time
    ASSERT_EQ(nwrite(sv[0], "x", 1, 0), 1);
    EXPECT_EQ(wait_to_read(sv[1], 10), 0);
    close(sv[0]);
    EXPECT_EQ(nread(sv[1], &c, 1, 0), 1);
    EXPECT_EQ(nread(sv[1], &c, 1, 0), 0);  // the peer closed
    close(sv[1]);
    ASSERT_EQ(pipe(sv), 0);
    close(sv[0]);
    EXPECT_EQ(wait_to_read(sv[1], 10), -1);  // a pipe without reader is in error
    close(sv[1]);
}

// Ticks interrupt a blocked read every 5 ms; the byte comes on the third, or when
// quitting, with the quit flag set, on the 200th, so a read that never gives up ends.
volatile sig_atomic_t s_ticks, s_quitting;
int s_feed = -1;

TEST(Fdio, InterruptedReadIsRepeatedUnlessQuitting) {
    struct sigaction sa {
    }, old{};
    sa.sa_handler = [](int) {  // without SA_RESTART: the blocked read sees EINTR
        const int saved = errno;
        s_ticks = s_ticks + 1;
        if (s_quitting) g_quit = 1;
        if (s_ticks == (s_quitting ? 200 : 3)) (void)!write(s_feed, "x", 1);
        errno = saved;
    };
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    for (int quitting : {0, 1}) {
        int p[2];
        char c = 0;
        ASSERT_EQ(pipe(p), 0);
        s_feed = p[1];
        s_ticks = 0;
        s_quitting = quitting;
        itimerval tick{{0, 5000}, {0, 5000}}, off{};
        ASSERT_EQ(setitimer(ITIMER_REAL, &tick, nullptr), 0);
        const ssize_t n = nread(p[0], &c, 1, 0);
        const int err = errno;
        setitimer(ITIMER_REAL, &off, nullptr);
        g_quit = 0;
        EXPECT_EQ(n, quitting ? -1 : 1);
        EXPECT_TRUE(quitting ? s_ticks < 200 && err == 0 : s_ticks >= 3) << s_ticks << " " << err;
        close(p[0]);
        close(p[1]);
    }
    signal(SIGALRM, SIG_IGN);  // a tick raised just before the timer stopped
    sigaction(SIGALRM, &old, nullptr);
}

}  // namespace

// Tests of descriptor I/O on real descriptors: socketpairs, pipes, UDP and
// a temporary file; interruptions come from a repeating interval timer.
#include "fdio.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util.h"

namespace {

void set_nonblock(int fd) { ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0); }

struct Pair {
    int fd[2] = {-1, -1};
    explicit Pair(bool pipe_pair = false) {
        if (pipe_pair)
            EXPECT_EQ(pipe2(fd, O_CLOEXEC), 0);
        else
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0);
    }
    ~Pair() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
    void close_end(int i) {
        close(fd[i]);
        fd[i] = -1;
    }
};

// The interval timer's handler. It interrupts the blocked call a few times
// and then either ends the wait (writes a byte or drains a pipe) or raises
// the quit flag, depending on the mode.
volatile sig_atomic_t s_ticks = 0;
volatile sig_atomic_t s_mode = 0;  // 0: feed, 1: quit, 2: drain
int s_feed_fd = -1;
int s_drain_fd = -1;
constexpr int kTicksBeforeRelease = 3;
constexpr int kTickLimit = 500;  // ends any wait even if the code under test loops

void on_tick(int) {
    int t = s_ticks + 1;
    s_ticks = t;
    if (s_mode == 1) {
        g_quit = 1;
        if (t < kTickLimit) return;
    } else if (t < kTicksBeforeRelease) {
        return;
    }
    int saved = errno;
    if (s_mode == 2) {
        static char sink[65536];
        for (int i = 0; i < 64 && read(s_drain_fd, sink, sizeof(sink)) > 0; ++i) {
        }
    } else if (t == kTicksBeforeRelease || t == kTickLimit) {
        (void)!write(s_feed_fd, "x", 1);
    }
    errno = saved;
}

// Installs the handler without SA_RESTART, so blocked calls see EINTR, and
// ticks every 5 ms until destroyed.
class Ticker {
   public:
    explicit Ticker(int mode) {
        s_ticks = 0;
        s_mode = mode;
        struct sigaction sa {};
        sa.sa_handler = on_tick;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;
        EXPECT_EQ(sigaction(SIGALRM, &sa, &old_), 0);
        itimerval it{{0, 5000}, {0, 5000}};
        EXPECT_EQ(setitimer(ITIMER_REAL, &it, nullptr), 0);
    }
    ~Ticker() {
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        // A tick raised just before the timer stopped must not reach the
        // default action, which would end the test program.
        signal(SIGALRM, SIG_IGN);
        sigaction(SIGALRM, &old_, nullptr);
        g_quit = 0;
    }

   private:
    struct sigaction old_ {};
};

class Fdio : public ::testing::Test {
   protected:
    static void SetUpTestSuite() { signal(SIGPIPE, SIG_IGN); }
};

TEST_F(Fdio, ReadWriteMoveBytesAndReportEndOfStream) {
    Pair p;
    EXPECT_EQ(nwrite(p.fd[0], "hello", 5, 0), 5);
    char buf[16] = {};
    EXPECT_EQ(nread(p.fd[1], buf, sizeof(buf), 0), 5);
    EXPECT_STREQ(buf, "hello");
    // Zero lengths never reach the descriptor, even an invalid one.
    EXPECT_EQ(nread(-1, buf, 0, 0), 0);
    EXPECT_EQ(nwrite(-1, buf, 0, 0), 0);
    EXPECT_EQ(npread(-1, buf, 0, 0, 0), 0);
    p.close_end(0);
    EXPECT_EQ(nread(p.fd[1], buf, sizeof(buf), 0), 0);
}

TEST_F(Fdio, ErrorsLeaveErrnoForTheCaller) {
    Pair p;
    set_nonblock(p.fd[1]);
    char buf[8];
    errno = 0;
    EXPECT_EQ(nread(p.fd[1], buf, sizeof(buf), 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    p.close_end(1);
    errno = 0;
    EXPECT_EQ(nwrite(p.fd[0], "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    errno = 0;
    EXPECT_EQ(nread(p.fd[0] + 1000, buf, sizeof(buf), FDIO_LOG_ALL), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Fdio, PositionalReadUsesTheOffset) {
    char path[] = "/tmp/trov-fdio-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    unlink(path);
    ASSERT_EQ(nwrite(fd, "0123456789", 10, 0), 10);
    char buf[8] = {};
    EXPECT_EQ(npread(fd, buf, 4, 3, 0), 4);
    EXPECT_STREQ(buf, "3456");
    EXPECT_EQ(npread(fd, buf, 4, 10, 0), 0);  // at the end
    close(fd);
}

TEST_F(Fdio, InterruptedReadIsRepeated) {
    Pair p(true);
    s_feed_fd = p.fd[1];
    char c = 0;
    ssize_t n = 0;
    {
        Ticker t(0);
        n = nread(p.fd[0], &c, 1, 0);  // blocks until the third tick writes
    }
    EXPECT_EQ(n, 1);
    EXPECT_EQ(c, 'x');
    EXPECT_GE(s_ticks, kTicksBeforeRelease);
}

TEST_F(Fdio, InterruptionDuringQuitEndsTheRead) {
    Pair p(true);
    s_feed_fd = p.fd[1];
    char c = 0;
    ssize_t n = 0;
    int err = -1;
    {
        Ticker t(1);
        n = nread(p.fd[0], &c, 1, 0);
        err = errno;
    }
    EXPECT_EQ(n, -1);
    EXPECT_EQ(err, 0);
    EXPECT_LT(s_ticks, kTickLimit);
}

TEST_F(Fdio, InterruptedWriteIsRepeated) {
    Pair p(true);
    set_nonblock(p.fd[1]);
    std::string chunk(4096, 'a');
    for (int i = 0; i < 1024 && write(p.fd[1], chunk.data(), chunk.size()) > 0; ++i) {
    }
    ASSERT_EQ(errno, EAGAIN);
    ASSERT_EQ(fcntl(p.fd[1], F_SETFL, fcntl(p.fd[1], F_GETFL) & ~O_NONBLOCK), 0);
    set_nonblock(p.fd[0]);  // the handler drains without blocking
    s_drain_fd = p.fd[0];
    ssize_t n = 0;
    {
        Ticker t(2);
        n = nwrite(p.fd[1], chunk.data(), chunk.size(), 0);  // blocks: the pipe is full
    }
    EXPECT_GT(n, 0);
    EXPECT_GE(s_ticks, kTicksBeforeRelease);
}

TEST_F(Fdio, WaitToReadSense) {
    Pair p;
    EXPECT_EQ(wait_to_read(p.fd[1], 10), 1);  // idle: nothing within the time
    ASSERT_EQ(write(p.fd[0], "x", 1), 1);
    EXPECT_EQ(wait_to_read(p.fd[1], 10), 0);
    EXPECT_NE(poll_on_socket(p.fd[1], POLLIN, 0) & POLLIN, 0);
    EXPECT_EQ(poll_on_socket(p.fd[0], POLLIN, 0), 0);  // time-out: no bits
    EXPECT_EQ(test_read_fd(p.fd[1], 10), 1);
    EXPECT_EQ(test_read_fd(p.fd[1], 10), 0);  // nothing left
}

TEST_F(Fdio, WaitToWriteSense) {
    Pair p;
    EXPECT_EQ(wait_to_write(p.fd[0], 10), 0);
    set_nonblock(p.fd[0]);
    std::string chunk(65536, 'a');
    for (int i = 0; i < 1024 && write(p.fd[0], chunk.data(), chunk.size()) > 0; ++i) {
    }
    EXPECT_EQ(wait_to_write(p.fd[0], 10), 1);

    // The write end of a pipe whose reader is gone is in error.
    Pair pp(true);
    pp.close_end(0);
    EXPECT_EQ(wait_to_write(pp.fd[1], 10), -1);
    EXPECT_EQ(wait_to_read(pp.fd[1], 10), -1);
}

// A connected UDP socket with both a pending datagram and a pending error
// (port unreachable from an earlier send) reports POLLIN | POLLERR.
TEST_F(Fdio, ErrorWinsOverPendingInput) {
    auto udp = [] {
        int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
        return fd;
    };
    auto addr_of = [](int fd) {
        sockaddr_in a{};
        socklen_t len = sizeof(a);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len), 0);
        return a;
    };
    int a = udp();
    int b = udp();
    sockaddr_in baddr = addr_of(b);
    sockaddr_in aaddr = addr_of(a);
    close(b);  // nobody listens on b's port now
    ASSERT_EQ(connect(a, reinterpret_cast<sockaddr *>(&baddr), sizeof(baddr)), 0);
    ASSERT_EQ(send(a, "x", 1, 0), 1);
    int rev = 0;
    for (int i = 0; i < 100 && (rev & POLLERR) == 0; ++i) rev = poll_on_socket(a, POLLIN, 10);
    ASSERT_NE(rev & POLLERR, 0);

    int c = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(c, reinterpret_cast<sockaddr *>(&baddr), sizeof(baddr)), 0);
    ASSERT_EQ(sendto(c, "y", 1, 0, reinterpret_cast<sockaddr *>(&aaddr), sizeof(aaddr)), 1);
    rev = 0;
    for (int i = 0; i < 100 && (rev & POLLIN) == 0; ++i) rev = poll_on_socket(a, POLLIN, 10);
    ASSERT_EQ(rev & (POLLIN | POLLERR), POLLIN | POLLERR);
    EXPECT_EQ(wait_to_read(a, 10), -1);
    close(c);
    close(a);
}

}  // namespace

// Tests of the W_ wrappers: results and errno pass through, lines appear when due.
#include "syswrap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "log.h"
#include "timeop.h"

namespace {

// The log goes to /dev/full, where every write fails: a wrapper that forgets
// to restore errno after logging is caught. A mirror on stderr is read back.
class Syswrap : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_NE(full_ = fopen("/dev/full", "w"), nullptr);
        setvbuf(full_, nullptr, _IONBF, 0);
        log_default(g_log, full_);
        log_mirror(g_log, stderr);
        log_timefmt(g_log, TMF_NOTIME);
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        (void)testing::internal::GetCapturedStderr();
        log_timefmt(g_log, TMF_LOCAL);
        log_set_module_level(LOG_MOD_SYSWRAP, LL_NORM);
        log_mirror(g_log, nullptr);
        setvbuf(stderr, nullptr, _IONBF, 0);  // as it was before the mirror
        log_default(g_log, stderr);
        fclose(full_);
    }
    // The lines logged since the previous call.
    static std::string logged() {
        std::string text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text;
    }
    FILE *full_ = nullptr;
};

TEST_F(Syswrap, LinesAppearOnlyWhenDueAndErrnoPassesThrough) {
    errno = 0;
    EXPECT_EQ(W_close("c1", -1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(logged(), "(ERR) c1: close(fd-1) ERROR(9): Bad file descriptor\n");
    EXPECT_EQ(W_open("c2", "/nonexistent-trov/f", O_RDONLY, 0), -1);  // mode 0 becomes 0644
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(logged().starts_with("(ERR) c2: open('/nonexistent-trov/f', 0, 0x1a4) ERROR(2): "));
    // A zero-byte datagram is worth a line, whatever errno holds; content is not.
    int sv[2];
    char buf[16];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
    EXPECT_EQ(W_sendto("tx", sv[0], "ab", 2, 0, nullptr, 0), 2);
    EXPECT_EQ(W_recvfrom("rx", sv[1], buf, sizeof buf, 0, nullptr, nullptr), 2);
    EXPECT_EQ(W_sendto("tx", sv[0], "", 0, 0, nullptr, 0), 0);
    EXPECT_TRUE(logged().starts_with("(ERR) tx: sendto(" + std::to_string(sv[0]) + ", "));
    EXPECT_EQ(W_recvfrom("rx", sv[1], buf, sizeof buf, 0, nullptr, nullptr), 0);
    EXPECT_TRUE(logged().starts_with("(ERR) rx: recvfrom(" + std::to_string(sv[1]) + ", "));
    close(sv[0]);
    close(sv[1]);
    // A peer gone is routine for flags 0 and a fault for flags 1.
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    for (int flags : {0, 1}) {
        EXPECT_EQ(W_write_f("wr", sv[0], "x", 1, flags), -1);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(logged().starts_with("(ERR) wr: write("), flags == 1);
    }
    close(sv[0]);

    // Success is traced only at debug.
    log_set_module_level(LOG_MOD_SYSWRAP, LL_DEBUG);
    int lfd = W_socket("mk", AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    EXPECT_EQ(logged(), "(DBG) mk opened socket fd=" + std::to_string(lfd) + " (2, 2049, 0)\n");
    EXPECT_EQ(W_close("rm", lfd), 0);
    EXPECT_EQ(logged(), "(DBG) rm: CLOSED(fd" + std::to_string(lfd) + ")\n");
    log_set_module_level(LOG_MOD_SYSWRAP, LL_NORM);
    EXPECT_EQ(W_close("rm", W_socket("mk", AF_INET, SOCK_DGRAM, 0)), 0);
    EXPECT_EQ(logged(), "");
}

}  // namespace

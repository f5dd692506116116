// Tests for the W_ wrappers: results and errno pass through unchanged, the
// failure lines appear exactly when the filter and the module level say so.
#include "syswrap.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "log.h"
#include "timeop.h"

namespace {

// Sends the log to a stream whose every write fails with EPIPE, so that a
// wrapper which forgets to restore errno is caught, and mirrors it to a
// temporary file that the test reads back.
class Syswrap : public ::testing::Test {
   protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        glog_init("tst");
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        close(p[0]);
        broken_ = fdopen(p[1], "w");
        ASSERT_NE(broken_, nullptr);
        setvbuf(broken_, nullptr, _IONBF, 0);
        mirror_ = tmpfile();
        ASSERT_NE(mirror_, nullptr);
        log_default(g_log, broken_);
        log_mirror(g_log, mirror_);
        log_set_module_level(LOG_MOD_SYSWRAP, LL_NORM);
        log_timefmt(g_log, TMF_NOTIME);  // lines start with the level tag
    }
    void TearDown() override {
        log_timefmt(g_log, TMF_LOCAL);
        log_set_module_level(LOG_MOD_SYSWRAP, LL_NORM);
        log_mirror(g_log, nullptr);
        log_default(g_log, stderr);
        if (broken_ != nullptr) fclose(broken_);
        if (mirror_ != nullptr) fclose(mirror_);
    }
    // Everything logged so far; the next call returns only newer lines.
    std::string take_log() {
        fflush(mirror_);
        std::string out;
        char buf[512];
        fseek(mirror_, long(seen_), SEEK_SET);
        for (size_t n; (n = fread(buf, 1, sizeof buf, mirror_)) > 0;) out.append(buf, n);
        seen_ += out.size();
        return out;
    }
    FILE *broken_ = nullptr;
    FILE *mirror_ = nullptr;
    size_t seen_ = 0;
};

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

TEST_F(Syswrap, WriteToClosedPeerIsSilentOnlyWithoutFlags) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    for (int flags : {0, 1}) {
        SCOPED_TRACE(flags);
        errno = 0;
        EXPECT_EQ(W_write_f("writer", sv[0], "x", 1, flags), -1);
        EXPECT_EQ(errno, EPIPE);
        std::string log = take_log();
        if (flags == 0)
            EXPECT_EQ(log, "");
        else
            EXPECT_TRUE(has(log, "writer: write(" + std::to_string(sv[0]) + ", ")) << log;
        EXPECT_EQ(flags != 0, has(log, ", 1) ERROR(32): Broken pipe\n")) << log;
    }
    close(sv[0]);
}

// Each failing call must log its line, and errno must be the call's even
// though writing the line itself failed.
TEST_F(Syswrap, FailuresAreLoggedAndKeepErrno) {
    char dir[] = "/tmp/syswrapXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string missing = std::string(dir) + "/none/f";
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *res = nullptr;
    int dummy = 0;
    struct Case {
        const char *name;
        std::function<long()> call;
        int err;  // errno after the call; 0 = not checked
        std::string line;
    } cases[] = {
        {"close", [] { return long(W_close("c1", -1)); }, EBADF,
         "(ERR) c1: close(fd-1) ERROR(9): Bad file descriptor\n"},
        {"lseek", [] { return long(W_lseek("c2", -1, 7, SEEK_SET)); }, EBADF,
         "c2: lseek(-1, 7, 0) ERROR(9): "},
        {"unlink", [&] { return long(W_unlink("c3", missing.c_str())); }, ENOENT,
         "c3: unlink(" + missing + ") ERROR(2): "},
        {"open", [&] { return long(W_open("c4", missing.c_str(), O_RDONLY, 0)); }, ENOENT,
         "c4: open('" + missing + "', 0, 0x1a4) ERROR(2): "},
        {"getsockopt without length",
         [&] { return long(W_getsockopt("c5", -1, SOL_SOCKET, SO_ERROR, &dummy, nullptr)); }, EBADF,
         "c5: getsockopt(-1, 1, 4, "},
        {"dup2", [] { return long(W_dup2("c6", -1, 100)); }, EBADF, "c6: dup2(-1, 100) ERROR(9)"},
        {"getaddrinfo", [&] { return long(W_getaddrinfo("c7", "no host", "80", &hints, &res)); }, 0,
         "c7: getaddrinfo(no host, 80, "},
        // The one line without a newline of its own.
        {"sendfile", [] { return long(W_sendfile_f("c8", -1, -1, nullptr, 10, 1)); }, EBADF,
         "c8: LNX sendfile(-1<--1, -1, 10) ERROR(9): Bad file descriptor"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        errno = 0;
        const long rc = c.call();
        const int err = errno;
        EXPECT_NE(rc, 0);
        if (c.err != 0) {
            EXPECT_EQ(err, c.err);
        }
        std::string log = take_log();
        EXPECT_TRUE(has(log, c.line)) << log;
        EXPECT_EQ(log.ends_with('\n'), std::string(c.name) != "sendfile") << log;
    }
    rmdir(dir);
}

TEST_F(Syswrap, OpenWithModeZeroCreatesReadableFile) {
    char dir[] = "/tmp/syswrapXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const mode_t old_mask = umask(0);
    struct {
        mode_t asked;
        mode_t got;
    } cases[] = {{0, 0644}, {0600, 0600}};
    for (auto c : cases) {
        SCOPED_TRACE(c.asked);
        std::string path = std::string(dir) + "/f" + std::to_string(c.asked);
        int fd = W_open("op", path.c_str(), O_CREAT | O_WRONLY, c.asked);
        ASSERT_GE(fd, 0);
        struct stat st {};
        ASSERT_EQ(fstat(fd, &st), 0);
        EXPECT_EQ(st.st_mode & 0777, c.got);
        close(fd);
        unlink(path.c_str());
    }
    umask(old_mask);
    rmdir(dir);
}

TEST_F(Syswrap, ZeroByteDatagramsAreLogged) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
    EXPECT_EQ(W_sendto("tx", sv[0], "", 0, 0, nullptr, 0), 0);
    EXPECT_TRUE(has(take_log(), "tx: sendto(" + std::to_string(sv[0]) + ", "));
    char buf[16];
    EXPECT_EQ(W_recvfrom("rx", sv[1], buf, sizeof buf, 0, nullptr, nullptr), 0);
    std::string log = take_log();
    EXPECT_TRUE(has(log, "rx: recvfrom(" + std::to_string(sv[1]) + ", ")) << log;
    EXPECT_TRUE(has(log, ", 16, 0, ...) ERROR(")) << log;
    // A datagram with content is not worth a line.
    EXPECT_EQ(W_sendto("tx", sv[0], "ab", 2, 0, nullptr, 0), 2);
    EXPECT_EQ(W_recvfrom("rx", sv[1], buf, sizeof buf, 0, nullptr, nullptr), 2);
    EXPECT_EQ(take_log(), "");
    close(sv[0]);
    close(sv[1]);
}

TEST_F(Syswrap, SuccessIsTracedOnlyAtDebug) {
    for (int level : {LL_NORM, LL_DEBUG}) {
        SCOPED_TRACE(level);
        log_set_module_level(LOG_MOD_SYSWRAP, level);
        int fd = W_socket("mk", AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(W_close("rm", fd), 0);
        std::string expect;
        if (level == LL_DEBUG)
            expect = "(DBG) mk opened socket fd=" + std::to_string(fd) + " (2, 2, 0)\n" +
                     "(DBG) rm: CLOSED(fd" + std::to_string(fd) + ")\n";
        std::string log = take_log();
        EXPECT_TRUE(expect.empty() ? log.empty() : has(log, expect)) << log;
    }
}

// Results that are routine on non-blocking descriptors: a connect that is
// still under way, an empty accept queue, a poll that timed out, a select
// cut short by a signal.
TEST_F(Syswrap, RoutineResultsUseTheirOwnLevels) {
    log_set_module_level(LOG_MOD_SYSWRAP, LL_INFO);
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GE(lfd, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t slen = sizeof sa;
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&sa), slen), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&sa), &slen), 0);

    EXPECT_EQ(W_accept("acc", lfd, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(take_log(), "");

    int cfd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    ASSERT_GE(cfd, 0);
    // Linux answers a non-blocking TCP connect with EINPROGRESS even on
    // loopback: the handshake is never finished inside the call.
    EXPECT_EQ(W_connect("conn", cfd, reinterpret_cast<sockaddr *>(&sa), slen), -1);
    EXPECT_EQ(errno, EINPROGRESS);
    EXPECT_EQ(take_log(), "(INF) W_connect: non-blocking connect in progress for fd" +
                              std::to_string(cfd) + "\n");
    close(cfd);
    close(lfd);

    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pollfd pfd{p[0], POLLIN, 0};
    EXPECT_EQ(W_poll("pl", &pfd, 1, 0), 0);
    EXPECT_TRUE(has(take_log(), "(WRN) pl: poll() has timed out after 0 ms\n"));
    close(p[0]);
    close(p[1]);

    struct sigaction sa_alrm {
    }, old{};
    sa_alrm.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &sa_alrm, &old), 0);
    for (int level : {LL_NORM, LL_DEBUG}) {
        SCOPED_TRACE(level);
        log_set_module_level(LOG_MOD_SYSWRAP, level);
        itimerval it{{0, 0}, {0, 20000}};
        ASSERT_EQ(setitimer(ITIMER_REAL, &it, nullptr), 0);
        timeval tv{5, 0};  // the timer ends the wait long before this
        EXPECT_EQ(W_select("sel", 0, nullptr, nullptr, nullptr, &tv), -1);
        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(level == LL_DEBUG, has(take_log(), "sel: select(0, ")) << level;
    }
    sigaction(SIGALRM, &old, nullptr);
}

}  // namespace

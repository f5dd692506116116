// Source keep-alive end to end: idle connections to the origin reused across
// downloads, a dead one retried unseen, never reused after an answer that
// does not allow it, closed when idle and at shut-down.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <iterator>
#include <string>
#include <vector>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"
#include "strcat.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

constexpr int WAIT_MS = 10000;
constexpr size_t NPOS = std::string::npos;

class ItKeepalive : public DaemonTest {
   protected:
    void start(int idle_ms, int per_origin = 4) {
        ASSERT_EQ(
            daemon_configure(
                &d_, {.extra = "source_keepalive: { per_origin = " + std::to_string(per_origin) +
                               "; idle_ms = " + std::to_string(idle_ms) + "; };"}),
            0);
        ASSERT_EQ(daemon_start(&d_), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }
    // Orders path into dst and waits until its task has ended.
    void fetch(const std::string &path, const std::string &dst, int status = 200) {
        const int ends = daemon_count_log(&d_, "TASK-END");
        std::string h = str_cat("GET /src/", origin_url(org_, path), "/dst/", dst,
                                " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: it-ka/1\r\n\r\n");
        EXPECT_EQ(net_exchange(d_.port, h, WAIT_MS).status, status) << path;
        EXPECT_TRUE(wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "TASK-END") > ends; }));
    }
    std::string file(const std::string &dst) { return d_.data_dir + "/" + dst; }
    // Orders n files at once (each source answer delayed 200 ms, so that
    // every order takes a connection of its own) and waits for their ends.
    void fetch_together(const std::string &prefix, int n) {
        const int ends = daemon_count_log(&d_, "TASK-END");
        std::vector<int> fds;
        for (int i = 0; i < n; ++i) {
            const std::string f = str_cat(prefix, std::to_string(i));
            int fd = net_connect(d_.port, WAIT_MS);
            ASSERT_GE(fd, 0);
            fds.push_back(fd);
            ASSERT_EQ(
                net_send_all(
                    fd,
                    str_cat("GET /src/", origin_url(org_, str_cat("/delay/200/f/100/", f)), "/dst/",
                            f, ".ts HTTP/1.1\r\nHost: h\r\nUser-Agent: it-ka/1\r\n\r\n"),
                    WAIT_MS),
                0);
        }
        for (int fd : fds) {
            EXPECT_EQ(net_read_reply(fd, WAIT_MS).status, 200);
            close(fd);
        }
        ASSERT_TRUE(
            wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "TASK-END") == ends + n; }));
    }
};

TEST_F(ItKeepalive, DownloadsOneAfterAnotherShareOneConnectionUntilItIdlesOut) {
    origin_set_keepalive(org_, 100);
    start(600);
    EXPECT_EQ(daemon_count_log(&d_, "\tsource keep-alive    = 4 per origin, 600 ms"), 1);
    for (int i = 0; i < 8; ++i) {
        const std::string n = str_cat("k", std::to_string(i));
        fetch(str_cat("/f/", std::to_string(1000 + i), "/", n), n + ".ts");
        EXPECT_EQ(origin_expect_file(file(n + ".ts"), n, 1000 + i), "");
    }
    EXPECT_EQ(daemon_count_log(&d_, "downloaded:"), 8);
    EXPECT_EQ(origin_connections(org_), 1u);
    EXPECT_NE(origin_last_head(org_).find("\r\nConnection: keep-alive\r\n"), NPOS);
    // Idle past idle_ms, the connection is closed by the daemon.
    EXPECT_TRUE(origin_wait_idle(org_, WAIT_MS));
    EXPECT_TRUE(daemon_running(&d_));
    fetch("/f/500/after-idle", "after-idle.ts");
    EXPECT_EQ(origin_connections(org_), 2u);
}

// The origin drops every kept connection just as it is reused: each reuse
// fails before a byte of the answer and is retried once on a new connection,
// with nothing for the requester or the task lines to see.
TEST_F(ItKeepalive, ReusedConnectionTheOriginClosedIsRetriedUnseen) {
    origin_set_keepalive(org_, 1);
    start(60000);
    for (int i = 0; i < 5; ++i) {
        const std::string n = str_cat("r", std::to_string(i));
        fetch(str_cat("/f/3000/", n), n + ".ts");
        EXPECT_EQ(origin_expect_file(file(n + ".ts"), n, 3000), "");
    }
    EXPECT_EQ(daemon_count_log(&d_, "downloaded:"), 5);
    EXPECT_EQ(origin_connections(org_), 5u);
    EXPECT_EQ(origin_request_count(org_, "/f/3000/r"), 9u);  // 4 of them met a closed connection
    EXPECT_EQ(daemon_count_log(&d_, "retrying on a new one"), 4);
    EXPECT_EQ(daemon_count_log(&d_, "(ERR)"), 0);
    EXPECT_EQ(daemon_count_log(&d_, "(WRN)"), 0);
}

// After an answer that said "Connection: close", a body longer or shorter
// than announced, the connection is not kept: the next download opens a new
// one. Each case starts with no idle connection.
TEST_F(ItKeepalive, ConnectionIsNeverReusedAfterCloseOrAWrongLength) {
    origin_set_keepalive(org_, 100);
    start(300);
    struct Case {
        std::string path;
        int status;
        bool lands;
    } cases[] = {
        {"/fclose/2000/c", 200, true},
        {"/long/2000/16/l", 200, true},  // the first 2000 bytes land, the rest is never reused
        {"/short/2000/700/s", 200, false},
        {"/status/404/n", 404, false},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        SCOPED_TRACE(c.path);
        ASSERT_TRUE(origin_wait_idle(org_, WAIT_MS));
        const size_t before = origin_connections(org_);
        const std::string n = std::to_string(i);
        fetch(c.path, str_cat("x", n, ".ts"), c.status);
        EXPECT_EQ(path_exists(file(str_cat("x", n, ".ts"))), c.lands);
        fetch(str_cat("/f/1000/after", n), str_cat("after", n, ".ts"));
        EXPECT_EQ(origin_connections(org_), before + 2);
    }
    EXPECT_EQ(origin_expect_file(file("x1.ts"), "l", 2000), "");
}

TEST_F(ItKeepalive, ShutDownClosesEveryIdleConnection) {
    origin_set_keepalive(org_, 100);
    start(60000);
    fetch_together("s", 3);  // three connections, all idle afterwards
    EXPECT_EQ(origin_open_connections(org_), 3);
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_, WAIT_MS)), "exited 0");
    EXPECT_TRUE(origin_wait_idle(org_, WAIT_MS));
}

// No more than per_origin connections stay idle, whether a connection comes
// back from its first download or from a reuse: the others are closed.
TEST_F(ItKeepalive, IdleConnectionsStayWithinPerOriginAcrossReuse) {
    origin_set_keepalive(org_, 100);
    start(60000, 2);
    fetch_together("a", 4);
    EXPECT_EQ(origin_connections(org_), 4u);
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return origin_open_connections(org_) == 2; }));
    fetch_together("b", 4);  // two reused, two new
    EXPECT_EQ(origin_connections(org_), 6u);
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return origin_open_connections(org_) == 2; }));
    fetch("/f/700/c", "c.ts");  // one after another: a kept one serves
    fetch("/f/800/d", "d.ts");
    EXPECT_EQ(origin_connections(org_), 6u);
    EXPECT_EQ(origin_expect_file(file("d.ts"), "d", 800), "");
    EXPECT_EQ(daemon_count_log(&d_, "downloaded:"), 10);
    EXPECT_EQ(daemon_count_log(&d_, "(ERR)"), 0);
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_, WAIT_MS)), "exited 0");
    EXPECT_TRUE(origin_wait_idle(org_, WAIT_MS));
}

}  // namespace

// Tests of the end-to-end harness itself: the origin behaviours the
// integration tests depend on, seen from plain sockets, the content checker,
// and the runner's kill of a child that outlives its deadline.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 5000;

std::string get(const std::string &target) {
    return "GET " + target + " HTTP/1.1\r\nHost: t\r\n\r\n";
}

std::string head_of(size_t size) {
    return "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
           std::to_string(size) + "\r\nConnection: close\r\n\r\n";
}

class Harness : public ::testing::Test {
   protected:
    void SetUp() override {
        o = origin_start();
        ASSERT_NE(o, nullptr);
    }
    void TearDown() override { origin_destroy(o); }
    origin *o = nullptr;
};

TEST_F(Harness, AnswersEndAsAnnouncedWithEveryByteOfTheirName) {
    struct Case {
        const char *target;
        size_t announced, sent;
        bool closed, reset;  // neither: held open
    } cases[] = {
        {"/f/100003/m.ts?expiry=1", 100003, 100003, true, false},
        {"/short/1000/300/m.ts", 1000, 300, true, false},
        {"/reset/100000/m.ts", 100000, 50000, false, true},  // acknowledged before the reset
        {"/stall/1000/100/m.ts", 1000, 100, false, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target);
        net_reply r =
            net_exchange(origin_port(o), get(c.target), c.closed || c.reset ? WAIT_MS : 300);
        EXPECT_EQ(r.peer_closed, c.closed);
        EXPECT_EQ(r.reset, c.reset);
        ASSERT_EQ(r.data.substr(0, head_of(c.announced).size()), head_of(c.announced));
        std::string body = r.data.substr(head_of(c.announced).size());
        EXPECT_EQ(body.size(), c.sent);
        EXPECT_EQ(origin_check_bytes(body.data(), body.size(), "m.ts"), "");
    }
    EXPECT_EQ(origin_request_count(o, "/m.ts?expiry=1"), 1u) << "targets are kept whole";
}

TEST_F(Harness, CheckersCatchAWrongByteAndAWrongLength) {
    constexpr size_t SIZE = 100003;  // many of the checker's pieces, and a part of one
    net_reply r = net_exchange(origin_port(o), get("/f/100003/a.ts"), WAIT_MS);
    std::string body = r.data.substr(head_of(SIZE).size());
    ASSERT_EQ(body.size(), SIZE);
    EXPECT_NE(origin_check_bytes(body.data(), body.size(), "b.ts"), "") << "names share content";
    daemon_proc tmp{};
    ASSERT_EQ(daemon_init(&tmp, ""), 0);
    std::string path = tmp.data_dir + "/f";
    std::ofstream(path, std::ios::binary) << body;
    EXPECT_EQ(origin_expect_file(path, "a.ts", SIZE), "");
    EXPECT_NE(origin_expect_file(path, "a.ts", SIZE + 1).find("100003 bytes, expected 100004"),
              std::string::npos);
    body[SIZE - 2] = char(body[SIZE - 2] ^ 0x10);
    std::ofstream(path, std::ios::binary) << body;
    std::string why = origin_expect_file(path, "a.ts", SIZE);
    EXPECT_NE(why.find("byte 100001 of [a.ts]"), std::string::npos) << why;
    daemon_destroy(&tmp);
    EXPECT_NE(origin_expect_file(path, "a.ts", SIZE).find("cannot open"), std::string::npos);
}

TEST_F(Harness, SplitHeadSendsTheStatusLineAlone) {
    int fd = net_connect(origin_port(o), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get("/split/20/sp.ts"), WAIT_MS), 0);
    pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
    ASSERT_EQ(poll(&p, 1, WAIT_MS), 1);
    char buf[4096];
    ssize_t n = recv(fd, buf, sizeof buf, 0);
    net_reply rest = net_read_reply(fd, WAIT_MS);
    close(fd);
    std::string first(buf, size_t(n > 0 ? n : 0));
    EXPECT_EQ(first, "HTTP/1.1 200 OK\r\n");
    EXPECT_TRUE(rest.peer_closed);
    EXPECT_EQ((first + rest.data).substr(0, head_of(20).size()), head_of(20));
    EXPECT_EQ(first.size() + rest.data.size(), head_of(20).size() + 20);
}

TEST_F(Harness, StopEndsAHeldConnection) {
    int fd = net_connect(origin_port(o), WAIT_MS);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(net_send_all(fd, get("/stall/1000/100/st.ts"), WAIT_MS), 0);
    EXPECT_TRUE(net_read_reply(fd, 300).timed_out);
    EXPECT_FALSE(origin_wait_idle(o, 50));
    origin_stop(o);
    EXPECT_EQ(origin_open_connections(o), 0);
    net_reply after = net_read_reply(fd, WAIT_MS);
    close(fd);
    EXPECT_TRUE(after.peer_closed);
    EXPECT_EQ(after.data, "");
}

TEST_F(Harness, RunnerKillsAChildThatOutlivesItsDeadline) {
    daemon_proc d{};
    ASSERT_EQ(daemon_init(&d, "/bin/sh"), 0);
    // The ignored SIGTERM survives the exec, so only the kill ends it.
    ASSERT_EQ(daemon_start(&d, {"-c", "trap '' TERM; echo ready >> log/trov.log; exec sleep 30"}),
              0);
    ASSERT_EQ(daemon_wait_log(&d, "ready", WAIT_MS), 0);
    pid_t pid = d.pid;
    EXPECT_EQ(daemon_stop(&d, 100), -1);
    EXPECT_TRUE(WIFSIGNALED(d.status) && WTERMSIG(d.status) == SIGKILL)
        << daemon_status_text(d.status);
    EXPECT_EQ(d.pid, 0);
    EXPECT_EQ(kill(pid, 0), -1) << "killed and reaped";
    daemon_destroy(&d);
}

}  // namespace

// End to end over the UDP order channel: real datagrams to the real daemon,
// unicast, and to two agents sharing a multicast group of the loopback.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utime.h>

#include <fstream>
#include <string>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 10000;

class ItUdp : public DaemonTest {
   protected:
    void TearDown() override {
        daemon_destroy(&d2_);
        DaemonTest::TearDown();
    }
    // A unicast agent, or one on group when it is given.
    void start(daemon_proc *d, const std::string &group = "", const std::string &lock_dir = "") {
        daemon_conf c;
        c.web = false;
        c.udp_url =
            "udp://" + (group.empty() ? "127.0.0.1" : group) + ":" + std::to_string(udp_port_);
        c.udp_mcast_ifc = group.empty() ? "" : "lo";
        c.udp_lock_dir = lock_dir;
        ASSERT_EQ(daemon_configure(d, c), 0);
        ASSERT_EQ(daemon_start(d), 0);
        ASSERT_EQ(daemon_wait_log(d, "STARTING. PID=", WAIT_MS), 0);
    }
    std::string order_url(const std::string &path, const std::string &dst) {
        return "http://0/src/" + origin_url(org_, path) + "/dst/" + dst;
    }
    std::string datagram(const std::string &id, const std::string &path, const std::string &dst) {
        return "#!" + id + " " + order_url(path, dst) + " 1900000000";
    }
    void send(const std::string &text) {
        ASSERT_EQ(udp_send(udp_port_, text.data(), text.size()), 0);
    }
    bool logged(const std::string &text, int count = 1, size_t from = 0) {
        return daemon_wait_log(&d_, text, WAIT_MS, count, from) == 0;
    }
    std::string data(const std::string &rel) { return d_.data_dir + "/" + rel; }

    daemon_proc d2_{};  // a second agent when a test starts one
};

TEST_F(ItUdp, MalformedDatagramsAreDroppedGoodOnesLandAndOneWithoutExpiryAborts) {
    start(&d_);
    const std::string good = order_url("/f/10/x", "x.ts");
    std::string long_url =
        "http://0/" + std::string(130, 'p') + "/src/" + origin_url(org_, "/f/10/x") + "/dst/x.ts";
    std::ofstream(data("busy.ts-Trov")) << "partial";
    std::string too_long = "#!ab12 " + good + " 1";
    too_long.resize(1401, ' ');
    struct Case {
        std::string text, line;
    } cases[] = {
        {std::string(31, 'x'), "invalid message length: 31 (min/max=32/1400)"},
        {too_long, "invalid message length: 1401 (min/max=32/1400)"},
        {"xxab12 " + good + " 1", "invalid message prefix"},
        {"#!ab12 http://0/src/https://h/a.ts/dst 1",
         "[ab12] request failed; url=[http://0/src/https://h/a.ts/dst], rc=22"},
        {"#!ab13 " + long_url + " 1", "[ab13] request failed; url=[" + long_url + "], rc=34"},
        {datagram("ab14", "/f/10/busy", "busy.ts"),
         "[ab14] request failed; url=[" + order_url("/f/10/busy", "busy.ts") + "], rc=17"},
        {datagram("ab15", "/f/10/dots", "a/../../escape.ts"),
         "unsafe destination path [a/../../escape.ts]"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.line);
        size_t mark = daemon_log_mark(&d_);
        send(c.text);
        EXPECT_TRUE(logged(c.line, 1, mark));
    }
    EXPECT_TRUE(logged("[ab15] request failed;"));
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
    EXPECT_FALSE(path_exists(d_.dir + "/escape.ts") || path_exists(data("escape.ts")));
    // The failed orders released their locks, and the channel still reads.
    EXPECT_FALSE(path_exists(d_.lock_dir + "/ab12.lock") ||
                 path_exists(d_.lock_dir + "/ab15.lock"));
    send("#!ab12 " + order_url("/f/70000/u1", "a/u1.ts") + " 1900000001\n");
    ASSERT_TRUE(logged("downloaded: 70000 bytes"));
    EXPECT_EQ(origin_expect_file(data("a/u1.ts"), "u1", 70000), "");
    EXPECT_EQ(daemon_count_log(&d_, "expiry=1900000001 lid=[ab12]"), 2);  // start and end
    // Without an expiry the daemon stops on purpose.
    send("#!noexp http://0/src/http://h/a.ts/dst");
    EXPECT_EQ(daemon_status_text(daemon_wait_exit(&d_, WAIT_MS)), "killed by signal 6");
    EXPECT_EQ(daemon_count_log(&d_, "parse_msg: no expiry data passed"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "ASSERT at:"), 1);
}

TEST_F(ItUdp, LockFileHeldWhileTheTaskLivesRepeatsSkippedStaleLocksExpired) {
    start(&d_);
    const std::string lock = d_.lock_dir + "/ord9.lock", unlock = "lid_unlock: ord9 at [" + lock;
    send(datagram("ord9", "/delay/700/f/1000/held", "held.ts"));
    ASSERT_TRUE(logged("TASK-START"));
    EXPECT_TRUE(path_exists(lock));
    // The same identifier again while the first runs: skipped quietly.
    send(datagram("ord9", "/f/1000/other", "other.ts"));
    EXPECT_TRUE(logged("[ord9] already engaged, will skip"));
    ASSERT_TRUE(logged("downloaded: 1000 bytes"));
    ASSERT_TRUE(logged(unlock));
    EXPECT_FALSE(path_exists(lock));
    EXPECT_EQ(daemon_count_log(&d_, "request failed"), 0);
    EXPECT_FALSE(path_exists(data("other.ts")));

    // A lock left behind by a dead agent counts for 30 seconds.
    std::ofstream(lock) << "";
    send(datagram("ord9", "/f/10/again", "again.ts"));
    EXPECT_TRUE(logged("[ord9] already engaged, will skip", 2));
    utimbuf old{time(nullptr) - 31, time(nullptr) - 31};
    ASSERT_EQ(utime(lock.c_str(), &old), 0);
    send(datagram("ord9", "/f/10/again", "again.ts"));
    ASSERT_TRUE(logged("downloaded: 10 bytes"));
    EXPECT_EQ(daemon_count_log(&d_, "expired stale lock [" + lock + "]"), 1);
    ASSERT_TRUE(logged(unlock, 2));
    EXPECT_FALSE(path_exists(lock));
}

TEST_F(ItUdp, TwoAgentsOnAMulticastGroupOfTheLoopbackFetchEachOrderOnce) {
    if (!net_lo_multicast_ready()) GTEST_SKIP() << "lo has no MULTICAST flag and it cannot be set";
    daemon_proc &d2 = d2_;
    ASSERT_EQ(daemon_init(&d2, TROV_BIN), 0);
    start(&d_, "239.7.7.8", d_.lock_dir);
    start(&d2, "239.7.7.8", d_.lock_dir);  // the lock directory both agents share
    // Each order takes a while at the source, so the winner still holds the
    // lock when the other agent reads the same datagram.
    constexpr int N = 12;
    for (int i = 100; i < 100 + N; ++i) {
        std::string text = datagram("shr" + std::to_string(i),
                                    "/delay/300/f/2000/s" + std::to_string(i), std::to_string(i));
        ASSERT_EQ(udp_send_mcast("239.7.7.8", udp_port_, text.data(), text.size()), 0);
    }
    auto both = [&](const char *text) {
        return daemon_count_log(&d_, text) + daemon_count_log(&d2, text);
    };
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return both("downloaded:") >= N; }));
    EXPECT_EQ(both("downloaded:"), N);
    EXPECT_EQ(both("already engaged"), N);
    for (int i = 100; i < 100 + N; ++i) {
        SCOPED_TRACE(i);
        std::string n = std::to_string(i), mine = data(n), other = d2.data_dir + "/" + n;
        EXPECT_EQ(origin_request_count(org_, "/s" + n), 1u);
        EXPECT_NE(path_exists(mine), path_exists(other));
        EXPECT_EQ(origin_expect_file(path_exists(mine) ? mine : other, "s" + n, 2000), "");
    }
}

}  // namespace

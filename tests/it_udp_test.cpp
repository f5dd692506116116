// End to end over the UDP order channel: real datagrams to the real daemon,
// unicast and on a multicast group of the loopback interface, one agent and
// two agents sharing a group through their lock files.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 10000;

bool exists(const std::string &p) { return access(p.c_str(), F_OK) == 0; }

// Multicast on lo needs the interface's MULTICAST flag; root may set it.
std::string lo_multicast_ready() {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0) return "no socket";
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    bool on = ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_MULTICAST) != 0;
    if (!on && geteuid() == 0) {
        ifr.ifr_flags |= IFF_MULTICAST;
        on = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(s);
    return on ? "" : "the loopback interface has no MULTICAST flag and it cannot be set here";
}

class ItUdp : public ::testing::Test {
   protected:
    void SetUp() override {
        if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
        org_ = origin_start();
        ASSERT_NE(org_, nullptr);
        ASSERT_EQ(daemon_init(&d_, TROV_BIN), 0);
        udp_port_ = pick_free_port(SOCK_DGRAM);
        ASSERT_GT(udp_port_, 0);
    }
    void TearDown() override {
        daemon_destroy(&d_);
        origin_destroy(org_);
    }
    daemon_conf conf() {
        daemon_conf c;
        c.web = false;
        c.udp_url = "udp://127.0.0.1:" + std::to_string(udp_port_);
        return c;
    }
    void start(daemon_proc *d, const daemon_conf &c) {
        ASSERT_EQ(daemon_configure(d, c), 0);
        ASSERT_EQ(daemon_start(d), 0);
        ASSERT_EQ(daemon_wait_log(d, "STARTING. PID=", WAIT_MS), 0);
    }
    std::string order_url(const std::string &path, const std::string &dst) {
        return "http://0/src/" + origin_url(org_, path) + "/dst" + (dst.empty() ? "" : "/" + dst);
    }
    std::string datagram(const std::string &id, const std::string &path, const std::string &dst,
                         const std::string &expiry = "1900000000") {
        return "#!" + id + " " + order_url(path, dst) + " " + expiry;
    }
    void send(const std::string &text) {
        ASSERT_EQ(udp_send(udp_port_, text.data(), text.size()), 0);
    }
    std::string data(const std::string &rel) { return d_.data_dir + "/" + rel; }

    origin *org_ = nullptr;
    daemon_proc d_{};
    int udp_port_ = 0;
};

TEST_F(ItUdp, DatagramOrderLandsAFileWithItsExpiry) {
    start(&d_, conf());
    send(datagram("ord1", "/f/70000/u1", "a/u1.ts", "1900000001") + "\n");
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 70000 bytes", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("a/u1.ts"), "u1", 70000), "");
    EXPECT_EQ(daemon_count_log(&d_, "expiry=1900000001 lid=[ord1]"), 2);
    // Without a destination the source's path is used.
    send(datagram("ord2", "/f/100/u2", ""));
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 100 bytes", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("f/100/u2"), "u2", 100), "");
    // A word in place of the time: the order goes on with expiry 0.
    send(datagram("ord3", "/f/10/u3", "u3.ts", "soon"));
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 10 bytes", WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log(&d_, "NO EXPIRY: sscanf('soon',..) expected 1, got 0"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "expiry=0 lid=[ord3]"), 2);
}

TEST_F(ItUdp, MalformedDatagramsAreDroppedAndTheChannelKeepsReading) {
    start(&d_, conf());
    const std::string good_url = order_url("/f/10/x", "x.ts");
    std::string long_path =
        "http://0/" + std::string(130, 'p') + "/src/" + origin_url(org_, "/f/10/x") + "/dst/x.ts";
    { std::ofstream(data("busy.ts-Trov")) << "partial"; }
    std::string too_long = "#!ab12 " + good_url + " 1";
    too_long.resize(1401, ' ');
    std::string url15 = "#!ab12 http://0/src/xy 1";  // a 15-character URL
    url15.resize(32, ' ');
    struct Case {
        std::string text;
        std::string line;
    } cases[] = {
        {std::string(31, 'x'), "invalid message length: 31 (min/max=32/1400)"},
        {too_long, "invalid message length: 1401 (min/max=32/1400)"},
        {"xxab12 " + good_url + " 1", "invalid message prefix"},
        {"#!abc " + good_url + " 1", "id length (3) out of bounds: 4/31"},
        {"#!" + std::string(32, 'i') + " " + good_url + " 1", "id length (32) out of bounds: 4/31"},
        {"#!ab12  " + good_url + " 1", "URL length is too small: 0/16 bytes"},
        {url15, "URL length is too small: 15/16"},
        {"#!ab12 http://0/src/https://h/a.ts/dst 1",
         "[ab12] request failed; url=[http://0/src/https://h/a.ts/dst], rc=22"},
        {"#!ab13 " + long_path + " 1", "[ab13] request failed; url=[" + long_path.substr(0, 20)},
        {datagram("ab14", "/f/10/busy", "busy.ts"), "[ab14] request failed;"},
        {datagram("ab15", "/f/10/dots", "a/../../escape.ts"),
         "unsafe destination path [a/../../escape.ts]"},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.line.c_str());
        size_t mark = daemon_log_mark(&d_);
        send(c.text);
        EXPECT_EQ(daemon_wait_log(&d_, c.line, WAIT_MS, 1, mark), 0);
    }
    EXPECT_EQ(daemon_count_log(&d_, "rc=34"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "rc=17"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
    EXPECT_FALSE(exists(d_.dir + "/escape.ts"));
    EXPECT_FALSE(exists(d_.data_dir + "/escape.ts"));
    // The failed orders released their locks, and the channel still reads.
    EXPECT_FALSE(exists(d_.lock_dir + "/ab12.lock"));
    send(datagram("ab12", "/f/10/x", "x.ts"));
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 10 bytes", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("x.ts"), "x", 10), "");
}

TEST_F(ItUdp, LockFileHeldWhileTheTaskLivesAndRepeatsAreSkipped) {
    start(&d_, conf());
    std::string lock = d_.lock_dir + "/ord9.lock";
    send(datagram("ord9", "/delay/700/f/1000/held", "held.ts"));
    ASSERT_EQ(daemon_wait_log(&d_, "TASK-START", WAIT_MS), 0);
    EXPECT_TRUE(exists(lock));
    // The same identifier again while the first runs: skipped quietly.
    send(datagram("ord9", "/f/1000/other", "other.ts"));
    EXPECT_EQ(daemon_wait_log(&d_, "[ord9] already engaged, will skip", WAIT_MS), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 1000 bytes", WAIT_MS), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "lid_unlock: ord9 at [" + lock + "]", WAIT_MS), 0);
    EXPECT_FALSE(exists(lock));
    EXPECT_EQ(daemon_count_log(&d_, "request failed"), 0);
    EXPECT_FALSE(exists(data("other.ts")));

    // A lock left behind by a dead agent counts for 30 seconds.
    { std::ofstream(lock) << ""; }
    send(datagram("ord9", "/f/10/again", "again.ts"));
    EXPECT_EQ(daemon_wait_log(&d_, "[ord9] already engaged, will skip", WAIT_MS, 2), 0);
    time_t old = time(nullptr) - 31;
    utimbuf ub{old, old};
    ASSERT_EQ(utime(lock.c_str(), &ub), 0);
    send(datagram("ord9", "/f/10/again", "again.ts"));
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 10 bytes", WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log(&d_, "expired stale lock"), 1);
    EXPECT_FALSE(exists(lock));
}

TEST_F(ItUdp, LocalUrlNeedsNoDownload) {
    daemon_conf c = conf();
    c.local_url_prefix = "http://edge1/seg/";
    start(&d_, c);
    send("#!loc1 http://0/src/http://EDGE1/seg/a/b.ts/dst 1900000000");
    EXPECT_EQ(daemon_wait_log(&d_, "is local URL, no download required", WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
}

TEST_F(ItUdp, OrdersOnAMulticastGroupOfTheLoopback) {
    std::string why = lo_multicast_ready();
    if (!why.empty()) GTEST_SKIP() << why;
    daemon_conf c = conf();
    c.udp_url = "udp://239.7.7.7:" + std::to_string(udp_port_);
    c.udp_mcast_ifc = "lo";
    start(&d_, c);
    std::string text = datagram("mc01", "/f/5000/mc", "mc.ts");
    ASSERT_EQ(udp_send_mcast("239.7.7.7", udp_port_, text.data(), text.size()), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 5000 bytes", WAIT_MS), 0);
    EXPECT_EQ(origin_expect_file(data("mc.ts"), "mc", 5000), "");
}

TEST_F(ItUdp, TwoAgentsOnOneGroupFetchEachOrderOnce) {
    std::string why = lo_multicast_ready();
    if (!why.empty()) GTEST_SKIP() << why;
    daemon_proc d2{};
    ASSERT_EQ(daemon_init(&d2, TROV_BIN), 0);
    struct cleanup {
        daemon_proc *d;
        ~cleanup() { daemon_destroy(d); }
    } c2{&d2};
    daemon_conf c = conf();
    c.udp_url = "udp://239.7.7.8:" + std::to_string(udp_port_);
    c.udp_mcast_ifc = "lo";
    c.udp_lock_dir = d_.lock_dir;  // the lock directory both agents share
    start(&d_, c);
    start(&d2, c);
    // Each order takes a while at the source, so the winner still holds the
    // lock when the other agent reads the same datagram.
    constexpr int N = 12;
    for (int i = 0; i < N; ++i) {
        std::string id = "shr" + std::to_string(100 + i);
        std::string name = "s" + std::to_string(100 + i);
        std::string text = datagram(id, "/delay/300/f/2000/" + name, name + ".ts");
        ASSERT_EQ(udp_send_mcast("239.7.7.8", udp_port_, text.data(), text.size()), 0);
    }
    for (int i = 0; i < 500; ++i) {
        if (daemon_count_log(&d_, "downloaded:") + daemon_count_log(&d2, "downloaded:") >= N) break;
        usleep(20000);
    }
    EXPECT_EQ(daemon_count_log(&d_, "downloaded:") + daemon_count_log(&d2, "downloaded:"), N);
    EXPECT_EQ(daemon_count_log(&d_, "already engaged") + daemon_count_log(&d2, "already engaged"),
              N);
    for (int i = 0; i < N; ++i) {
        SCOPED_TRACE(i);
        std::string name = "s" + std::to_string(100 + i);
        EXPECT_EQ(origin_request_count(org_, "/" + name), 1u);
        std::string f = "/" + name + ".ts";
        EXPECT_NE(exists(d_.data_dir + f), exists(d2.data_dir + f));
    }
}

TEST_F(ItUdp, DatagramWithoutExpiryEndsTheProcess) {
    start(&d_, conf());
    send("#!noexp http://0/src/http://h/a.ts/dst");
    int st = daemon_wait_exit(&d_, WAIT_MS);
    ASSERT_TRUE(WIFSIGNALED(st)) << daemon_status_text(st);
    EXPECT_EQ(WTERMSIG(st), SIGABRT);
    EXPECT_EQ(daemon_count_log(&d_, "parse_msg: no expiry data passed"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "ASSERT at:"), 1);
}

}  // namespace

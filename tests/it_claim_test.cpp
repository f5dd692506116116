// Several agents on one multicast group of the loopback coordinating through
// order claims in a real redis-server, against lock files, private or shared.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"
#include "redis_server.h"

namespace {

constexpr int WAIT_MS = 20000;
constexpr const char *GROUP = "239.7.7.9";

class ItClaim : public DaemonTest {
   protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (!set_up()) return;
        if (!net_lo_multicast_ready()) GTEST_SKIP() << "lo has no MULTICAST flag";
        ASSERT_EQ(redis_server_start(&rs_), 0);
        sha_dir_ = d_.dir + "/sha1";
        ASSERT_EQ(redis_server_load_lbdb(&rs_, TROV_SOURCE_DIR, sha_dir_.c_str()), 0);
        redis_ = redis_server_client(&rs_);
        ASSERT_NE(redis_, nullptr);
        ASSERT_EQ(daemon_init(&d2_, TROV_BIN), 0);
    }
    void TearDown() override {
        if (redis_ != nullptr) redisFree(redis_);
        daemon_destroy(&d2_);
        DaemonTest::TearDown();
        redis_server_destroy(&rs_);
    }
    // An agent on the group with its own lock directory unless lock_dir is
    // given; claim is "file" or "redis".
    void start(daemon_proc *d, const std::string &claim, const std::string &lock_dir = "") {
        daemon_conf c;
        c.level = "info";
        c.web = false;
        c.udp_url = std::string("udp://") + GROUP + ":" + std::to_string(udp_port_);
        c.udp_mcast_ifc = "lo";
        c.udp_lock_dir = lock_dir;
        c.udp_extra = "claim = \"" + claim + "\";";
        c.max_tasks = 1024;
        c.lbdb_port = rs_.port;
        c.lbdb_sha1_dir = sha_dir_;
        c.local_url_prefix = "http://edge.example/";
        ASSERT_EQ(daemon_configure(d, c), 0);
        (void)unlink(d->log_path.c_str());  // so the wait below sees this run's start
        ASSERT_EQ(daemon_start(d), 0);
        ASSERT_EQ(daemon_wait_log(d, "STARTING. PID=", WAIT_MS), 0);
    }
    // Orders ids first..first+n-1; each source answers after delay_ms, so the
    // agent that takes an order still holds it when the other reads it.
    void order(int first, int n, int delay_ms = 300) {
        for (int i = first; i < first + n; ++i) {
            const std::string id = "clm" + std::to_string(i);
            const std::string dg = "#!" + id + " http://0/src/" +
                                   origin_url(org_, "/delay/" + std::to_string(delay_ms) +
                                                        "/f/1000/c" + std::to_string(i)) +
                                   "/dst/c" + std::to_string(i) + ".ts 1900000000";
            ASSERT_EQ(udp_send_mcast(GROUP, udp_port_, dg.data(), dg.size()), 0);
        }
    }
    int both(const std::string &text) {
        return daemon_count_log(&d_, text) + daemon_count_log(&d2_, text);
    }
    // Waits until both agents have no task left (every order ended).
    bool settled(int downloads) {
        return wait_until(WAIT_MS, [&] {
            return both("downloaded:") >= downloads && both("TASK-END") >= both("downloaded:");
        });
    }
    long claim_keys() {
        auto *r = static_cast<redisReply *>(redisCommand(redis_, "KEYS trov:claim:*"));
        long n = (r != nullptr && r->type == REDIS_REPLY_ARRAY) ? long(r->elements) : -1;
        if (r != nullptr) freeReplyObject(r);
        return n;
    }
    std::string command(const std::string &cmd) {
        auto *r = static_cast<redisReply *>(redisCommand(redis_, cmd.c_str()));
        std::string v = r == nullptr ? "(null)" : (r->str != nullptr ? r->str : "");
        if (r != nullptr) freeReplyObject(r);
        return v;
    }

    redis_server rs_{};
    redisContext *redis_ = nullptr;
    std::string sha_dir_;
    daemon_proc d2_{};
};

TEST_F(ItClaim, TwoAgentsWithRedisClaimsFetchEveryOrderOnceAndLeaveNoClaim) {
    start(&d_, "redis");
    start(&d2_, "redis");
    EXPECT_EQ(daemon_count_log(&d_, "lk=[redis]"), 1);
    constexpr int N = 200;
    order(1000, N);
    ASSERT_TRUE(settled(N));
    EXPECT_EQ(both("downloaded:"), N);
    EXPECT_EQ(both("already engaged, will skip"), N);
    EXPECT_EQ(both("claim failed"), 0);
    EXPECT_EQ(origin_request_count(org_, "/f/1000/c"), size_t(N));
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return claim_keys() == 0; })) << claim_keys();
    // Neither agent made a lock file.
    EXPECT_EQ(daemon_read_file(d_.lock_dir), "");
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_)), "exited 0");
    EXPECT_EQ(daemon_status_text(daemon_stop(&d2_)), "exited 0");
}

// Lock files coordinate only agents that share their directory.
TEST_F(ItClaim, LockFilesInPrivateDirectoriesFetchTwiceInASharedOneOnce) {
    constexpr int N = 40;
    start(&d_, "file");
    start(&d2_, "file");  // each in its own lock directory
    order(2000, N);
    ASSERT_TRUE(settled(2 * N));
    EXPECT_EQ(both("downloaded:"), 2 * N);
    EXPECT_EQ(both("already engaged"), 0);
    ASSERT_EQ(daemon_stop(&d2_), 0);

    start(&d2_, "file", d_.lock_dir);  // now both use the first agent's directory
    const size_t mark = size_t(both("downloaded:"));
    order(3000, N);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("downloaded:") >= int(mark) + N; }));
    EXPECT_EQ(both("already engaged"), N);
    EXPECT_EQ(origin_request_count(org_, "/f/1000/c3"), size_t(N));  // c3000..c3039 once each
    EXPECT_EQ(claim_keys(), 0);  // lock files never touch the database
}

// A claim left by an agent that died holds the order until it expires; the
// same order sent again after that is fetched. A claim another agent took
// over is not released by the first one.
TEST_F(ItClaim, ClaimOfADeadAgentHoldsTheOrderUntilItExpires) {
    start(&d_, "redis");
    EXPECT_EQ(command("SET trov:claim:clm4000 deadhost:1 PX 1500"), "OK");
    order(4000, 1, 0);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("[clm4000] already engaged") == 1; }));
    EXPECT_EQ(origin_request_count(org_, "/c4000"), 0u);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return claim_keys() == 0; }));  // expired
    order(4000, 1, 0);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("downloaded:") == 1; }));
    EXPECT_EQ(origin_request_count(org_, "/c4000"), 1u);
    EXPECT_TRUE(wait_until(WAIT_MS, [&] { return claim_keys() == 0; }));

    // The task outlives its claim, which another agent takes meanwhile.
    order(4001, 1, 2500);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return claim_keys() == 1; }));
    EXPECT_EQ(command("SET trov:claim:clm4001 otherhost:7"), "OK");
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("downloaded:") == 2; }));
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("TASK-END") >= 2; }));
    EXPECT_EQ(command("GET trov:claim:clm4001"), "otherhost:7");
}

// Without the database the agents go on: each order is fetched, twice at most.
TEST_F(ItClaim, LostDatabaseFetchesEveryOrderAtMostTwiceWithAWarning) {
    start(&d_, "redis");
    start(&d2_, "redis");
    order(5000, 5);
    ASSERT_TRUE(settled(5));
    (void)redis_server_stop(&rs_);
    constexpr int N = 30;
    order(6000, N);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("fetching anyway") >= N; }));
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return both("TASK-END") >= 5 + N; }));
    for (int i = 6000; i < 6000 + N; ++i) {
        SCOPED_TRACE(i);
        const size_t fetched = origin_request_count(org_, "/c" + std::to_string(i));
        EXPECT_TRUE(fetched >= 1 && fetched <= 2) << fetched;
    }
    EXPECT_EQ(both("] claim failed ("), both("fetching anyway"));
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_)), "exited 0");
}

TEST_F(ItClaim, StartIsRefusedWithoutTheDatabaseOrItsClaimScripts) {
    daemon_conf c;
    c.web = false;
    c.udp_url = std::string("udp://") + GROUP + ":" + std::to_string(udp_port_);
    c.udp_extra = "claim = \"redis\";";
    ASSERT_EQ(daemon_configure(&d_, c), 0);
    std::string err;
    EXPECT_EQ(daemon_run(TROV_BIN, {"-T", "-C", d_.conf_path}, WAIT_MS, nullptr, &err), 1);
    EXPECT_NE(err.find("load_config: claim = redis needs the lbdb section\n"), std::string::npos)
        << err;

    c.udp_extra = "claim = \"zookeeper\";";
    ASSERT_EQ(daemon_configure(&d_, c), 0);
    EXPECT_EQ(daemon_run(TROV_BIN, {"-T", "-C", d_.conf_path}, WAIT_MS, nullptr, &err), 1);
    EXPECT_NE(err.find("claim must be \"file\" or \"redis\", not [zookeeper]"), std::string::npos)
        << err;

    // The server has the registration script but not the claim scripts.
    EXPECT_EQ(command("SCRIPT FLUSH"), "OK");
    const std::string add = daemon_read_file(std::string(TROV_SOURCE_DIR) + "/lbdb/add_url.lua");
    auto *r = static_cast<redisReply *>(redisCommand(redis_, "SCRIPT LOAD %s", add.c_str()));
    ASSERT_TRUE(r != nullptr && r->type == REDIS_REPLY_STRING);
    freeReplyObject(r);
    c.udp_extra = "claim = \"redis\";";
    c.lbdb_port = rs_.port;
    c.lbdb_sha1_dir = sha_dir_;
    c.local_url_prefix = "http://edge.example/";
    ASSERT_EQ(daemon_configure(&d_, c), 0);
    EXPECT_NE(daemon_run(TROV_BIN, {"-T", "-C", d_.conf_path}, WAIT_MS, nullptr, &err), 0);
    EXPECT_EQ(daemon_count_log(&d_, "lbdb_connect: failed for 127.0.0.1:"), 1);
}

}  // namespace

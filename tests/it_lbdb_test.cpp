// End to end with the load-balancer database: a real redis-server with the
// reference scripts loaded, the real daemon registering what it downloads.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "daemon.h"
#include "netclient.h"
#include "origin.h"
#include "redis_server.h"

namespace {

constexpr int WAIT_MS = 10000;
// Files under the data directory are served at this prefix; a source URL
// already under it is a local file.
constexpr const char *PREFIX = "http://edge1.example";

std::string order(const std::string &target) {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: it-test/1.0\r\n\r\n";
}

class ItLbdb : public ::testing::Test {
   protected:
    void SetUp() override {
        if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
        ASSERT_EQ(redis_server_start(&rs_), 0);
        org_ = origin_start();
        ASSERT_NE(org_, nullptr);
        ASSERT_EQ(daemon_init(&d_, TROV_BIN), 0);
        sha_dir_ = d_.dir + "/sha1";
        ASSERT_EQ(mkdir(sha_dir_.c_str(), 0755), 0);
        ASSERT_EQ(redis_server_load_lbdb(&rs_, TROV_SOURCE_DIR, sha_dir_.c_str()), 0);
        redis_ = redis_server_client(&rs_);
        ASSERT_NE(redis_, nullptr);
    }
    void TearDown() override {
        if (redis_ != nullptr) redisFree(redis_);
        daemon_destroy(&d_);
        origin_destroy(org_);
        redis_server_destroy(&rs_);
    }
    daemon_conf conf() {
        daemon_conf c;
        c.lbdb_port = rs_.port;
        c.lbdb_sha1_dir = sha_dir_;
        c.local_url_prefix = std::string(PREFIX) + "/";
        return c;
    }
    void start(const daemon_conf &c) {
        ASSERT_EQ(daemon_configure(&d_, c), 0);
        ASSERT_EQ(daemon_start(&d_), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }
    // The expiry registered for url under the segment id, or "" when none.
    std::string registered(const std::string &id, const std::string &url) {
        auto *r = static_cast<redisReply *>(
            redisCommand(redis_, "HGET %s %s", id.c_str(), ("u:" + url).c_str()));
        std::string v = (r != nullptr && r->type == REDIS_REPLY_STRING) ? r->str : "";
        if (r != nullptr) freeReplyObject(r);
        return v;
    }
    net_reply fetch(const std::string &path, const std::string &dst, long expiry) {
        std::string target =
            "/src/" + origin_url(org_, path) + "/dst/" + dst + "?expiry=" + std::to_string(expiry);
        return net_exchange(d_.port, order(target), WAIT_MS);
    }
    // Runs the daemon expecting it to fail at start; its wait status.
    int failed_start(const daemon_conf &c) {
        EXPECT_EQ(daemon_configure(&d_, c), 0);
        EXPECT_EQ(daemon_start(&d_), 0);
        return daemon_wait_exit(&d_, WAIT_MS);
    }

    redis_server rs_{};
    redisContext *redis_ = nullptr;
    origin *org_ = nullptr;
    daemon_proc d_{};
    std::string sha_dir_;
};

TEST_F(ItLbdb, CompletedDownloadIsRegisteredWithItsExpiry) {
    start(conf());
    long expiry = long(time(nullptr)) + 3600;
    EXPECT_EQ(fetch("/f/3000/reg", "live/reg.ts", expiry).status, 200);
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 3000 bytes", WAIT_MS), 0);
    EXPECT_EQ(registered("live/reg.ts", std::string(PREFIX) + "/live/reg.ts"),
              std::to_string(expiry));
    EXPECT_EQ(daemon_count_log(&d_, "add_lbdb_url: id=[live/reg.ts], url=[" + std::string(PREFIX) +
                                        "/live/reg.ts], expiry=" + std::to_string(expiry)),
              1);
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/live/reg.ts", "reg", 3000), "");
}

TEST_F(ItLbdb, LocalUrlIsRegisteredWithoutADownloadOnBothChannels) {
    daemon_conf c = conf();
    int udp_port = pick_free_port(SOCK_DGRAM);
    c.udp_url = "udp://127.0.0.1:" + std::to_string(udp_port);
    start(c);
    long expiry = long(time(nullptr)) + 600;
    std::string local = std::string(PREFIX) + "/a/b.ts";
    net_reply r = net_exchange(
        d_.port, order("/src/" + local + "/dst?expiry=" + std::to_string(expiry)), WAIT_MS);
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(registered("a/b.ts", std::string(PREFIX) + "/a/b.ts"), std::to_string(expiry));

    std::string dgram =
        "#!loc01 http://0/src/" + std::string(PREFIX) + "/c/d.ts/dst " + std::to_string(expiry);
    ASSERT_EQ(udp_send(udp_port, dgram.data(), dgram.size()), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "add_lbdb_url: id=[c/d.ts]", WAIT_MS), 0);
    for (int i = 0; i < 200 && registered("c/d.ts", std::string(PREFIX) + "/c/d.ts").empty(); ++i)
        usleep(10000);
    EXPECT_EQ(registered("c/d.ts", std::string(PREFIX) + "/c/d.ts"), std::to_string(expiry));
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 0);
    EXPECT_EQ(origin_request_count(org_), 0u);
}

TEST_F(ItLbdb, LostDatabaseFailsRegistrationButTheFileStays) {
    start(conf());
    ASSERT_GE(redis_server_stop(&rs_), 0);
    EXPECT_EQ(fetch("/f/500/lost", "lost.ts", long(time(nullptr)) + 60).status, 200);
    ASSERT_EQ(daemon_wait_log(&d_, "downloaded: 500 bytes", WAIT_MS), 0);
    EXPECT_EQ(daemon_count_log(&d_, "lbdb_add_segurl: NULL as reply"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "add_lbdb_url: failed to add [lost.ts]"), 1);
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/lost.ts", "lost", 500), "");
    // The daemon keeps serving orders.
    EXPECT_EQ(fetch("/f/10/after", "after.ts", 0).status, 200);
    EXPECT_EQ(daemon_wait_log(&d_, "downloaded: 10 bytes", WAIT_MS), 0);
}

TEST_F(ItLbdb, StartFailsWithoutTheDatabaseOrItsScripts) {
    // A script missing on the server.
    auto *r = static_cast<redisReply *>(redisCommand(redis_, "SCRIPT FLUSH"));
    ASSERT_NE(r, nullptr);
    freeReplyObject(r);
    int st = failed_start(conf());
    ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
    EXPECT_NE(WEXITSTATUS(st), 0);
    EXPECT_EQ(
        daemon_count_log(&d_, "lbdb_connect: failed for 127.0.0.1:" + std::to_string(rs_.port)), 1);
    EXPECT_EQ(daemon_count_log(&d_, "init_trov_ctx: failed to [?]"), 1);

    // The server down.
    ASSERT_GE(redis_server_stop(&rs_), 0);
    st = failed_start(conf());
    ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
    EXPECT_EQ(WEXITSTATUS(st), 1);
    EXPECT_GE(daemon_count_log(&d_, "redisConnectWithTimeout ERROR"), 1);
}

TEST_F(ItLbdb, DigestFilesOfTheWrongShape) {
    { std::ofstream(sha_dir_ + "/add_url.sha1") << std::string(37, 'a') << "\n"; }
    int st = failed_start(conf());
    ASSERT_TRUE(WIFEXITED(st)) << daemon_status_text(st);
    EXPECT_EQ(WEXITSTATUS(st), 1);
    EXPECT_EQ(daemon_count_log(&d_, "unexpected SHA1 size: 38"), 1);

    // An empty digest file passes the read and stops the start at connect.
    { std::ofstream(sha_dir_ + "/add_url.sha1", std::ios::trunc); }
    st = failed_start(conf());
    ASSERT_TRUE(WIFSIGNALED(st)) << daemon_status_text(st);
    EXPECT_EQ(WTERMSIG(st), SIGABRT);
    EXPECT_GE(daemon_count_log(&d_, "ASSERT at:"), 1);
}

}  // namespace

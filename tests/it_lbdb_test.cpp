// End to end with the load-balancer database: a real redis-server with the
// reference scripts loaded, the real daemon registering what it downloads.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"
#include "redis_server.h"

namespace {

constexpr int WAIT_MS = 10000;
// Files under the data directory are served at this prefix; a source URL
// already under it is a local file.
const std::string PREFIX = "http://edge1.example";

class ItLbdb : public DaemonTest {
   protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (!set_up()) return;
        ASSERT_EQ(redis_server_start(&rs_), 0);
        sha_dir_ = d_.dir + "/sha1";
        ASSERT_EQ(redis_server_load_lbdb(&rs_, TROV_SOURCE_DIR, sha_dir_.c_str()), 0);
        redis_ = redis_server_client(&rs_);
        ASSERT_NE(redis_, nullptr);
        conf_.lbdb_port = rs_.port;
        conf_.lbdb_sha1_dir = sha_dir_;
        conf_.local_url_prefix = PREFIX + "/";
        conf_.udp_url = "udp://127.0.0.1:" + std::to_string(udp_port_);
    }
    void TearDown() override {
        if (redis_ != nullptr) redisFree(redis_);
        DaemonTest::TearDown();
        redis_server_destroy(&rs_);
    }
    // Starts the daemon; when it must refuse, its wait status text instead.
    std::string start(bool refused = false) {
        EXPECT_EQ(daemon_configure(&d_, conf_), 0);
        EXPECT_EQ(daemon_start(&d_), 0);
        if (refused) return daemon_status_text(daemon_wait_exit(&d_, WAIT_MS));
        EXPECT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
        return "";
    }
    // The expiry registered for the file at rel, or "" when none.
    std::string registered(const std::string &rel) {
        auto *r = static_cast<redisReply *>(
            redisCommand(redis_, "HGET %s %s", rel.c_str(), ("u:" + PREFIX + "/" + rel).c_str()));
        std::string v = (r != nullptr && r->type == REDIS_REPLY_STRING) ? r->str : "";
        if (r != nullptr) freeReplyObject(r);
        return v;
    }
    int fetch(const std::string &src, const std::string &dst, long expiry) {
        std::string target = "/src/" + src + "/dst" + dst + "?expiry=" + std::to_string(expiry);
        std::string head =
            "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: t/1\r\n\r\n";
        return net_exchange(d_.port, head, WAIT_MS).status;
    }
    bool logged(const std::string &text) { return daemon_wait_log(&d_, text, WAIT_MS) == 0; }

    redis_server rs_{};
    redisContext *redis_ = nullptr;
    daemon_conf conf_;
    std::string sha_dir_;
};

TEST_F(ItLbdb, DownloadsAndLocalUrlsAreRegisteredAndFilesStayWhenTheServerIsLost) {
    start();
    long expiry = long(time(nullptr)) + 3600;
    EXPECT_EQ(fetch(origin_url(org_, "/f/3000/reg"), "/live/reg.ts", expiry), 200);
    ASSERT_TRUE(logged("downloaded: 3000 bytes"));
    EXPECT_EQ(registered("live/reg.ts"), std::to_string(expiry));
    EXPECT_TRUE(logged("add_lbdb_url: id=[live/reg.ts], url=[" + PREFIX +
                       "/live/reg.ts], expiry=" + std::to_string(expiry)));
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/live/reg.ts", "reg", 3000), "");
    // A local URL is registered without a download, on both channels.
    EXPECT_EQ(fetch(PREFIX + "/a/b.ts", "", expiry + 1), 200);
    EXPECT_EQ(registered("a/b.ts"), std::to_string(expiry + 1));
    std::string dg = "#!loc01 http://0/src/" + PREFIX + "/c/d.ts/dst " + std::to_string(expiry);
    ASSERT_EQ(udp_send(udp_port_, dg.data(), dg.size()), 0);
    EXPECT_TRUE(
        wait_until(WAIT_MS, [&] { return registered("c/d.ts") == std::to_string(expiry); }));
    ASSERT_TRUE(logged("add_lbdb_url: id=[c/d.ts]"));
    EXPECT_EQ(daemon_count_log(&d_, "TASK-START"), 1);
    EXPECT_EQ(origin_request_count(org_), 1u);
    // The server gone, the registration fails and the file stays.
    ASSERT_GE(redis_server_stop(&rs_), 0);
    EXPECT_EQ(fetch(origin_url(org_, "/f/500/lost"), "/lost.ts", expiry), 200);
    ASSERT_TRUE(logged("downloaded: 500 bytes"));
    EXPECT_EQ(daemon_count_log(&d_, "lbdb_add_segurl: NULL as reply"), 1);
    EXPECT_EQ(daemon_count_log(&d_, "add_lbdb_url: failed to add [lost.ts]"), 1);
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/lost.ts", "lost", 500), "");
    EXPECT_EQ(fetch(origin_url(org_, "/f/10/after"), "/after.ts", 0), 200);
    EXPECT_TRUE(logged("downloaded: 10 bytes"));
}

TEST_F(ItLbdb, StartIsRefusedWithoutTheServerItsScriptsOrWellFormedDigests) {
    const std::string digest = sha_dir_ + "/add_url.sha1", good = daemon_read_file(digest);
    std::ofstream(digest, std::ios::trunc) << std::string(37, 'a') << "\n";
    EXPECT_EQ(start(true), "exited 1");
    EXPECT_EQ(daemon_count_log(&d_, "unexpected SHA1 size: 38"), 1);
    // An empty digest file passes the read and stops the start at connect.
    std::ofstream(digest, std::ios::trunc).flush();
    EXPECT_EQ(start(true), "killed by signal 6");
    EXPECT_EQ(daemon_count_log(&d_, "ASSERT at:"), 1);
    // The scripts missing on the server.
    std::ofstream(digest, std::ios::trunc) << good;
    freeReplyObject(redisCommand(redis_, "SCRIPT FLUSH"));
    EXPECT_EQ(start(true), "exited 2");
    EXPECT_EQ(
        daemon_count_log(&d_, "lbdb_connect: failed for 127.0.0.1:" + std::to_string(rs_.port)), 1);
    EXPECT_EQ(daemon_count_log(&d_, "init_trov_ctx: failed to [?]"), 1);
    // The server down.
    ASSERT_GE(redis_server_stop(&rs_), 0);
    EXPECT_EQ(start(true), "exited 1");
    EXPECT_EQ(daemon_count_log(&d_, "redisConnectWithTimeout ERROR"), 1);
}

// Scripts run by digest cannot include one another, so each carries the
// expiry sweep; a fix made to one copy only would make the scripts disagree
// on which URLs are live.
TEST(LbdbScripts, EveryScriptCarriesTheSameExpirySweep) {
    std::string first;
    for (const char *name : {"add_url", "del_url", "next_url", "mbget_url"}) {
        SCOPED_TRACE(name);
        std::string text =
            daemon_read_file(std::string(TROV_SOURCE_DIR) + "/lbdb/" + name + ".lua");
        size_t from = text.find("if redis.replicate_commands");
        size_t fn = text.find("local function refresh(");
        size_t to = fn == std::string::npos ? fn : text.find("\nend\n", fn);
        ASSERT_TRUE(from != std::string::npos && to != std::string::npos && from < fn);
        std::string sweep = text.substr(from, to - from);
        if (first.empty()) first = sweep;
        EXPECT_EQ(sweep, first);
    }
}

}  // namespace

// Tests of the UDP order channel's parsing and lock files, and of the order
// record built from HTTP and datagram orders alike; what only the running
// daemon shows (locks held and expired, dropped datagrams) is tested end to end.
#include "udl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "app.h"
#include "cfg.h"
#include "daemon.h"
#include "log.h"
#include "rq.h"

namespace {

class Orders : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("trv");
        ASSERT_NE(dir_ = scratch_dir("orders"), "");
        ASSERT_EQ(log_open_ex(g_log, (dir_ + "/test.log").c_str(), 1), 0);
        init_trov_config(&g_cfg);
        snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s", dir_.c_str());
    }
    void TearDown() override {
        log_close(g_log);
        log_default(g_log, stderr);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    ::testing::AssertionResult logged(const std::string &line) {
        std::stringstream ss;
        ss << std::ifstream(dir_ + "/test.log").rdbuf();
        if (ss.str().find(line) != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no [" << line << "] in:\n" << ss.str();
    }
    std::string dir_;
};

TEST_F(Orders, DatagramSplitBounds) {
    const std::string url16 = "http://0/src/x/d";  // 16 characters
    struct Case {
        std::string text;
        const char *line;  // null: accepted, with the expiry exp
        time_t exp = 42;
    } cases[] = {
        {"abc " + url16 + " 42", "parse_msg: id length (3) out of bounds: 4/31\n"},
        {"abcd " + url16 + " 42", nullptr},
        {std::string(31, 'i') + " " + url16 + " 42", nullptr},
        {std::string(32, 'i') + " " + url16 + " 42", "id length (32) out of bounds"},
        {"abcd  " + url16 + " 42", "parse_msg: URL length is too small: 0/16 bytes\n"},
        {"abcd " + url16.substr(0, 15) + " 42", "URL length is too small: 15/16 bytes\n"},
        {"abcd", "parse_msg: missing URL part\n"},
        {"abcd\t" + url16 + "\t\t42 trailing words", nullptr},
        {"abcd " + url16 + " soon", nullptr, 0},  // goes on, unexpiring, with a line
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::string buf = c.text;
        char *url = nullptr, *lid = nullptr;
        time_t exp = -5;
        EXPECT_EQ(parse_msg(buf.data(), &url, &lid, &exp), c.line == nullptr ? 0 : -1);
        if (c.line != nullptr) {
            EXPECT_TRUE(logged(c.line));
        } else {
            EXPECT_EQ(std::string(url), url16);
            EXPECT_EQ(std::string(lid), c.text.substr(0, strcspn(c.text.c_str(), " \t")));
            EXPECT_EQ(exp, c.exp);
        }
    }
    EXPECT_TRUE(logged("parse_msg: NO EXPIRY: sscanf('soon',..) expected 1, got 0\n"));
}

TEST(OrdersDeathTest, DatagramWithoutExpiryStopsTheProcess) {
    log_default(g_log, stderr);
    std::string a = "ab12 http://0/src/http://h/a.ts/dst";
    EXPECT_DEATH(parse_msg(a.data(), nullptr, nullptr, nullptr), "no expiry data passed");
    std::string b = "ab12 http://0/src/http://h/a.ts/dst   # comment";
    EXPECT_DEATH(parse_msg(b.data(), nullptr, nullptr, nullptr), "ASSERT at:");
}

TEST_F(Orders, LockingOffTakesNoFileAndAnUnusableDirectoryFailsTheOrder) {
    snprintf(g_cfg.udp_cha.lkdir, sizeof g_cfg.udp_cha.lkdir, "%s", dir_.c_str());
    g_cfg.udp_cha.must_lock = false;
    EXPECT_EQ(lid_lock("ord2"), 0);
    EXPECT_FALSE(path_exists(dir_ + "/ord2.lock"));
    g_cfg.udp_cha.must_lock = true;
    snprintf(g_cfg.udp_cha.lkdir, sizeof g_cfg.udp_cha.lkdir, "%s/missing", dir_.c_str());
    EXPECT_EQ(lid_lock("ord3"), -1);
    EXPECT_TRUE(logged("lid_lock: open(" + dir_ + "/missing/ord3.lock,...) ERROR(2)"));
}

TEST_F(Orders, OrderUrlsAndDestinationsBecomeRecordsWithTemporaryFiles) {
    dw_spec spec{};
    ASSERT_EQ(parse_url("http://0/src/http://origin/live/a%2Bb.ts/dst", "ab12", &spec), 0);
    EXPECT_STREQ(spec.url, "http://origin/live/a+b.ts");
    EXPECT_STREQ(spec.dst_path, "live/a+b.ts");
    EXPECT_EQ(std::string(spec.fpath), dir_ + "/live/a+b.ts-Trov");
    EXPECT_STREQ(spec.lid, "ab12");
    EXPECT_TRUE(path_exists(dir_ + "/live"));
    EXPECT_EQ(parse_url("http://0/src/http://origin/a.ts", "ab12", &spec), -1);

    EXPECT_EQ(setup_dw_spec("http://h", "", 255, &spec), 22);
    EXPECT_TRUE(logged("setup_dw_spec: cannot extract path from source URL: http://h\n"));
    ASSERT_EQ(setup_dw_spec("http://h/a/b.ts", "", 255, &spec), 0);
    EXPECT_STREQ(spec.dst_path, "a/b.ts");

    // A fresh temporary file means the destination is being written; a stale
    // one was left by a dead writer and is removed.
    std::string tmp = dir_ + "/x/y.ts-Trov";
    ASSERT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 0);
    std::ofstream(tmp) << "x";
    EXPECT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 17);
    EXPECT_TRUE(logged("setup_dw_spec: [" + tmp + "] already exists\n"));
    std::filesystem::last_write_time(
        tmp, std::filesystem::file_time_type::clock::now() - std::chrono::seconds(40));
    EXPECT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 0);
    EXPECT_STREQ(spec.dst_path, "x/y.ts");
    EXPECT_FALSE(path_exists(tmp));

    // A data directory ending in "/" adds no second slash; the temporary
    // path must fit in 127 characters.
    std::string dd = dir_ + "/";
    ASSERT_EQ(init_spec(dd.c_str(), "http://h/z", "z", &spec), 0);
    EXPECT_EQ(std::string(spec.fpath), dir_ + "/z-Trov");
    std::string longdst(127 - dir_.size() - 5, 'd');  // one more than fits
    EXPECT_EQ(init_spec(dd.c_str(), "http://h/z", longdst.c_str(), &spec), 34);
    EXPECT_TRUE(logged("init_spec: full path is too long"));
}

TEST_F(Orders, TemporarySuffixHelpersLocalUrlsAndTaskKeys) {
    for (auto [path, rc] : {std::pair{"/d/a.ts-Trov", 0},
                            {"/d/a.ts", 3},
                            {"-Trov", 0},
                            {"", 22},
                            {"/d/a.ts-trov", 3}}) {
        SCOPED_TRACE(path);
        std::string buf = path, cut = rc == 0 ? buf.substr(0, buf.size() - 5) : buf;
        EXPECT_EQ(is_unfinished_seg(buf.c_str()), rc == 0);
        EXPECT_EQ(cutoff_segext(buf.data()), rc);
        EXPECT_EQ(std::string(buf.c_str()), cut);
    }
    snprintf(g_cfg.seg_url_pfx, sizeof g_cfg.seg_url_pfx, "http://edge/seg");
    for (const char *url : {"http://edge/seg", "HTTP://EDGE/SEG/a.ts"})
        EXPECT_TRUE(is_local_url(url)) << url;
    for (const char *url : {"http://edge/segment", "http://edge/se", "http://other/seg/a"})
        EXPECT_FALSE(is_local_url(url)) << url;
    g_cfg.seg_url_pfx[0] = '\0';
    EXPECT_FALSE(is_local_url("http://edge/seg"));
    for (const char *url : {"http://a/b", "ftp://a/b", "a/b"}) EXPECT_STREQ(url2key(url), "a/b");
}

}  // namespace

// Tests of the UDP order channel's parsing and lock files, and of the order
// record built from HTTP and datagram orders alike.
#include "udl.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "app.h"
#include "cfg.h"
#include "log.h"
#include "rq.h"
#include "timeop.h"

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool exists(const std::string &p) { return access(p.c_str(), F_OK) == 0; }

void age_file(const std::string &p, long seconds) {
    time_t t = time(nullptr) - seconds;
    utimbuf ub{t, t};
    ASSERT_EQ(utime(p.c_str(), &ub), 0);
}

void touch(const std::string &p) { std::ofstream(p) << "x"; }

class Orders : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("trv");
        char tmpl[] = "/tmp/trov-orders-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        log_path_ = dir_ + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, log_path_.c_str(), 1), 0);
        log_timefmt(g_log, TMF_NOTIME);
        log_set_modules(g_log, LL_DEBUG);
        init_trov_config(&g_cfg);
        snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s/data", dir_.c_str());
        ASSERT_EQ(mkdir(g_cfg.data_dir, 0755), 0);
        snprintf(g_cfg.udp_cha.lkdir, sizeof g_cfg.udp_cha.lkdir, "%s", dir_.c_str());
        g_cfg.udp_cha.must_lock = true;
    }
    void TearDown() override {
        log_close(g_log);
        log_default(g_log, stderr);
        log_timefmt(g_log, TMF_LOCAL);
        log_set_modules(g_log, LL_NORM);
        init_trov_config(&g_cfg);
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    }
    bool logged(const std::string &line) {
        return slurp(log_path_).find(line) != std::string::npos;
    }

    std::string dir_;
    std::string log_path_;
};

TEST_F(Orders, DatagramSplitBounds) {
    const std::string url16 = "http://0/src/x/d";  // 16 characters
    struct Case {
        std::string text;
        int rc;
        const char *line;
    } cases[] = {
        {"abc " + url16 + " 1700000000", -1, "parse_msg: id length (3) out of bounds: 4/31\n"},
        {"abcd " + url16 + " 1700000000", 0, nullptr},
        {std::string(31, 'i') + " " + url16 + " 1", 0, nullptr},
        {std::string(32, 'i') + " " + url16 + " 1", -1, "id length (32) out of bounds"},
        {"abcd  " + url16 + " 1", -1, "parse_msg: URL length is too small: 0/16 bytes\n"},
        {"abcd " + url16.substr(0, 15) + " 1", -1, "URL length is too small: 15/16 bytes\n"},
        {"abcd", -1, "parse_msg: missing URL part\n"},
        {"abcd\t" + url16 + "\t\t42 trailing words", 0, nullptr},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::string buf = c.text;
        char *url = nullptr, *lid = nullptr;
        time_t exp = -5;
        EXPECT_EQ(parse_msg(buf.data(), &url, &lid, &exp), c.rc);
        if (c.line != nullptr) {
            EXPECT_TRUE(logged(c.line)) << slurp(log_path_);
        }
        if (c.rc == 0) {
            EXPECT_EQ(std::string(url), url16);
            EXPECT_EQ(std::string(lid), c.text.substr(0, strcspn(c.text.c_str(), " \t")));
            EXPECT_GT(exp, 0);
        }
    }
}

TEST_F(Orders, NonNumericExpiryGoesOnWithZero) {
    std::string buf = "ab12 http://0/src/http://h/a.ts/dst soon";
    char *url = nullptr, *lid = nullptr;
    time_t exp = -5;
    ASSERT_EQ(parse_msg(buf.data(), &url, &lid, &exp), 0);
    EXPECT_EQ(exp, 0);
    EXPECT_TRUE(logged("parse_msg: NO EXPIRY: sscanf('soon',..) expected 1, got 0\n"));
}

TEST(OrdersDeathTest, DatagramWithoutExpiryStopsTheProcess) {
    log_default(g_log, stderr);
    std::string a = "ab12 http://0/src/http://h/a.ts/dst";
    EXPECT_DEATH(parse_msg(a.data(), nullptr, nullptr, nullptr), "no expiry data passed");
    std::string b = "ab12 http://0/src/http://h/a.ts/dst   # comment";
    EXPECT_DEATH(parse_msg(b.data(), nullptr, nullptr, nullptr), "ASSERT at:");
}

TEST_F(Orders, LockFilesAreExclusiveAndExpireAfterThirtySeconds) {
    std::string lock = dir_ + "/ord1.lock";
    ASSERT_EQ(lid_lock("ord1"), 0);
    EXPECT_TRUE(exists(lock));
    EXPECT_EQ(lid_lock("ord1"), 16);
    EXPECT_TRUE(logged("check_and_expire: upstanding lock [" + lock + "] (age=0) found\n"));
    age_file(lock, 30);
    EXPECT_EQ(lid_lock("ord1"), 16);
    age_file(lock, 31);
    EXPECT_EQ(lid_lock("ord1"), 0);
    EXPECT_TRUE(logged("expired stale lock [" + lock + "], age=31 sec\n"));
    lid_unlock("ord1");
    EXPECT_FALSE(exists(lock));

    g_cfg.udp_cha.must_lock = false;
    EXPECT_EQ(lid_lock("ord2"), 0);
    EXPECT_FALSE(exists(dir_ + "/ord2.lock"));

    // A lock directory that cannot be used fails the order.
    g_cfg.udp_cha.must_lock = true;
    snprintf(g_cfg.udp_cha.lkdir, sizeof g_cfg.udp_cha.lkdir, "%s/missing", dir_.c_str());
    EXPECT_EQ(lid_lock("ord3"), -1);
    EXPECT_TRUE(logged("lid_lock: open(" + dir_ + "/missing/ord3.lock,...) ERROR(2)"));
}

TEST_F(Orders, OrderUrlBecomesARecord) {
    dw_spec spec{};
    ASSERT_EQ(parse_url("http://0/src/http://origin/live/a%2Bb.ts/dst", "ab12", &spec), 0);
    EXPECT_STREQ(spec.url, "http://origin/live/a+b.ts");
    EXPECT_STREQ(spec.dst_path, "live/a+b.ts");
    EXPECT_EQ(std::string(spec.fpath), std::string(g_cfg.data_dir) + "/live/a+b.ts-Trov");
    EXPECT_STREQ(spec.lid, "ab12");
    EXPECT_EQ(spec.content_length, 0);
    struct stat st {};
    EXPECT_EQ(stat((std::string(g_cfg.data_dir) + "/live").c_str(), &st), 0);

    dw_spec s2{};
    EXPECT_EQ(parse_url("http://0/src/https://origin/a.ts/dst/x", "ab12", &s2), 22);
    EXPECT_EQ(parse_url("http://0/src/http://origin/a.ts", "ab12", &s2), -1);
    std::string too_long = "http://0/src/http://" + std::string(120, 'h') + "/a/dst/x";
    EXPECT_EQ(parse_url(too_long.c_str(), "ab12", &s2), 34);
}

TEST_F(Orders, DestinationsAndTheirTemporaryFiles) {
    dw_spec spec{};
    EXPECT_EQ(setup_dw_spec("http://h", "", 255, &spec), 22);
    EXPECT_TRUE(logged("setup_dw_spec: cannot extract path from source URL: http://h\n"));
    EXPECT_EQ(setup_dw_spec("ftp://h/a", "x", 255, &spec), 22);
    EXPECT_TRUE(logged("setup_dw_spec: non-HTTP or invalid src=[ftp://h/a]\n"));

    ASSERT_EQ(setup_dw_spec("http://h/a/b.ts", "", 255, &spec), 0);
    EXPECT_STREQ(spec.dst_path, "a/b.ts");
    ASSERT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 0);
    EXPECT_STREQ(spec.dst_path, "x/y.ts");

    // A fresh temporary file means the destination is being written.
    std::string tmp = std::string(g_cfg.data_dir) + "/x/y.ts-Trov";
    touch(tmp);
    EXPECT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 17);
    EXPECT_TRUE(logged("setup_dw_spec: [" + tmp + "] already exists\n"));
    age_file(tmp, 31);
    EXPECT_EQ(setup_dw_spec("http://h/a/b.ts", "x/y.ts", 255, &spec), 0);
    EXPECT_FALSE(exists(tmp));

    // Paths: a data directory ending in "/" adds no second slash; the
    // temporary path must fit in 127 characters.
    snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s/data/", dir_.c_str());
    ASSERT_EQ(init_spec(g_cfg.data_dir, "http://h/z", "z", &spec), 0);
    EXPECT_EQ(std::string(spec.fpath), dir_ + "/data/z-Trov");
    std::string longdst(127 - std::string(spec.fpath).size() + 2, 'd');
    EXPECT_EQ(init_spec(g_cfg.data_dir, "http://h/z", longdst.c_str(), &spec), 34);
    EXPECT_TRUE(logged("init_spec: full path is too long"));
}

TEST_F(Orders, TemporarySuffixHelpers) {
    struct Case {
        const char *path;
        bool unfinished;
        int rc;
        const char *after;
    } cases[] = {{"/d/a.ts-Trov", true, 0, "/d/a.ts"},
                 {"/d/a.ts", false, 3, "/d/a.ts"},
                 {"-Trov", true, 0, ""},
                 {"", false, 22, ""},
                 {"/d/a.ts-trov", false, 3, "/d/a.ts-trov"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        char buf[64];
        snprintf(buf, sizeof buf, "%s", c.path);
        EXPECT_EQ(is_unfinished_seg(buf), c.unfinished);
        EXPECT_EQ(cutoff_segext(buf), c.rc);
        EXPECT_STREQ(buf, c.after);
    }
}

TEST_F(Orders, LocalUrlsAndTaskKeys) {
    snprintf(g_cfg.seg_url_pfx, sizeof g_cfg.seg_url_pfx, "http://edge/seg");
    struct Case {
        const char *url;
        bool local;
    } cases[] = {{"http://edge/seg", true},
                 {"HTTP://EDGE/SEG/a.ts", true},
                 {"http://edge/segment", false},
                 {"http://edge/se", false},
                 {"http://other/seg/a", false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.url);
        EXPECT_EQ(is_local_url(c.url), c.local);
    }
    g_cfg.seg_url_pfx[0] = '\0';
    EXPECT_FALSE(is_local_url("http://edge/seg"));
    EXPECT_STREQ(url2key("http://a/b"), "a/b");
    EXPECT_STREQ(url2key("ftp://a/b"), "a/b");
    EXPECT_STREQ(url2key("a/b"), "a/b");
}

}  // namespace

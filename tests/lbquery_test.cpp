// Tests of the load-balancer DB client: configuration, digest files, and the
// commands and answer handling of the connection and the segment URL
// operations, against a loopback peer that answers with canned replies.
#include "lbquery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "log.h"

namespace {

using strings = std::vector<std::string>;

std::string bulk(const std::string &s) {
    return "$" + std::to_string(s.size()) + "\r\n" + s + "\r\n";
}

::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << part << "] not in:\n" << text;
}

// Accepts one connection; records each request's arguments joined by blanks
// and answers it with the next reply; hangs up after the last one.
void run_peer(int lfd, strings replies, strings *got) {
    pollfd p{.fd = lfd, .events = POLLIN, .revents = 0};
    int fd = poll(&p, 1, 5000) == 1 ? accept(lfd, nullptr, nullptr) : -1;
    redisReader *rd = redisReaderCreate();
    for (size_t next = 0, reads = 0; fd >= 0 && next < replies.size() && reads < 100;) {
        void *req = nullptr;
        if (redisReaderGetReply(rd, &req) != REDIS_OK) break;
        if (req == nullptr) {  // no whole request yet
            char buf[4096];
            p = {.fd = fd, .events = POLLIN, .revents = 0};
            ssize_t n = poll(&p, 1, 5000) == 1 ? read(fd, buf, sizeof buf) : -1;
            if (n <= 0 || redisReaderFeed(rd, buf, size_t(n)) != REDIS_OK) break;
            ++reads;
            continue;
        }
        auto *r = static_cast<redisReply *>(req);
        std::string line;
        for (size_t i = 0; i < r->elements; ++i)
            line += (i == 0 ? "" : " ") + std::string(r->element[i]->str, r->element[i]->len);
        freeReplyObject(r);
        got->push_back(line);
        if (write(fd, replies[next].data(), replies[next].size()) < 0) break;
        ++next;
    }
    redisReaderFree(rd);
    if (fd >= 0) close(fd);
}

const std::string A(40, 'a'), D(40, 'b'), N(40, 'c'), M(40, 'd');  // add, del, next, mbget

class Lbquery : public ::testing::Test {
   protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // a write to a peer that hung up must fail, not kill
        glog_init("tst");
        char tmpl[] = "/tmp/trov-lbq-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        const char *files[] = {"add_url", "del_url", "next_url", "mbget_url"};
        for (int i = 0; i < 4; ++i)
            std::ofstream(dir_ + "/" + files[i] + ".sha1") << std::string(40, 'a' + i) << "\n";
        log_mem_ = open_memstream(&log_buf_, &log_len_);
        ASSERT_NE(log_mem_, nullptr);
        log_default(g_log, log_mem_);
        log_set_modules(g_log, LL_DEBUG);
    }
    void TearDown() override {
        lbdb_destroy();
        finish();
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        fclose(log_mem_);
        free(log_buf_);
        std::filesystem::remove_all(dir_);
    }
    strings finish() {  // the requests the peer saw; call it once the client hung up
        if (peer_.joinable()) peer_.join();
        if (lfd_ >= 0) close(lfd_);
        lfd_ = -1;
        return got_;
    }
    std::string new_log() {  // the log written since the previous call
        fflush(log_mem_);
        std::string fresh(log_buf_ + seen_, log_len_ - seen_);
        seen_ = log_len_;
        return fresh;
    }

    std::string dir_;
    FILE *log_mem_ = nullptr;
    char *log_buf_ = nullptr;
    size_t log_len_ = 0, seen_ = 0;
    int lfd_ = -1;
    std::thread peer_;
    strings got_;
};

TEST_F(Lbquery, ConfigDefaultsSplitsAndRefusals) {
    const std::string h127 = "host = \"" + std::string(127, 'h') + "\"; ", s = "sha1_dir = \"/s\";";
    const struct {
        std::string body;
        int rc;
        std::string want;  // "[port sec.usec host-length sha1_dir]", or the error line
    } rows[] = {
        {"host = \"db\"; " + s, 0, "[0 0.500000 2 /s]"},
        {"host = \"db\"; port = 6379; connect_tmout_ms = 1500; " + s, 0, "[6379 1.500000 2 /s]"},
        {h127 + "connect_tmout_ms = 999; " + s, 0, "[0 0.999000 127 /s]"},
        {"port = 6379; " + s, -1, "(ERR) load_lbdb_cfg: missing host setting\n"},
        {"host = \"h" + h127.substr(8) + s, -1,
         "host value is too long (128), max = 128 characters."},
        {"host = \"db\"; port = -1; " + s, -1, "(ERR) load_lbdb_cfg: invalid port value: -1\n"},
        {"host = \"db\"; port = 80;", -1, "(ERR) load_lbdb_cfg: missing sha1_dir setting\n"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.body);
        config_t lc;
        config_init(&lc);
        std::string text = "trov: { lbdb: { " + r.body + " }; };";
        ASSERT_EQ(config_read_string(&lc, text.c_str()), CONFIG_TRUE) << config_error_text(&lc);
        lbdb_cfg cfg;
        memset(&cfg, 0x5a, sizeof cfg);
        EXPECT_EQ(load_lbdb_cfg(config_lookup(&lc, "trov.lbdb"), &cfg), r.rc);
        char got[200];
        snprintf(got, sizeof got, "[%d %ld.%06ld %zu %.127s]", cfg.port, long(cfg.tmout.tv_sec),
                 long(cfg.tmout.tv_usec), strnlen(cfg.host, sizeof cfg.host), cfg.sha1_path);
        EXPECT_TRUE(has(r.rc == 0 ? std::string(got) : new_log(), r.want));
        config_destroy(&lc);
    }
}

TEST_F(Lbquery, DigestLineLengthRuleAndInit) {
    const std::string path = dir_ + "/digest";
    const int rows[][4] = {// digest characters, newline, buffer size, result
                           {38, 0, 42, -1}, {38, 1, 42, 0},  {40, 1, 42, 0},
                           {47, 1, 64, 0},  {48, 1, 64, -1}, {49, 0, 42, 0}};
    for (auto [chars, nl, cap, rc] : rows) {
        std::string text = std::string(chars, 'a') + (nl ? "\n" : "");
        std::ofstream(path) << text;
        char buf[64] = "";
        EXPECT_EQ(read_sha_signature(path.c_str(), buf, cap), rc) << text;
        // A digest buffer reads, and judges, 40 characters at most.
        EXPECT_TRUE(rc == 0 ? has("[" + std::string(buf) + "]",
                                  "[" + std::string(std::min(chars, cap - 2), 'a') + "]")
                            : has(new_log(), "[" + path + "] unexpected SHA1 size: " +
                                                 std::to_string(text.size()) + "\n"));
    }
    char buf[42];
    EXPECT_EQ(read_sha_signature((dir_ + "/none").c_str(), buf, sizeof buf), -1);
    EXPECT_EQ(lbdb_init(std::string(128, 'd').c_str(), LBDB_FN_ADD, 0), 34);
    EXPECT_TRUE(has(new_log(), "lbdb_init: sha1_dir is too long: 128/127"));
}

TEST_F(Lbquery, AnswersAreJudgedAndCommandsCarryTheKeptDigests) {
    const strings shapes = {
        ":0\r\n",           ":7\r\n", "*1\r\n:0\r\n", "*2\r\n:1\r\n:1\r\n", "*1\r\n$1\r\n1\r\n",
        "-ERR unknown\r\n", "+OK\r\n"};
    const int shape_rcs[] = {2, 2, 2, 22, 22, -1, 22};
    const std::string id(1020, 'i');  // "OK " + id is 1023 bytes: the bound
    const struct {
        std::string reply, id;
        int rc;
        std::string log;
    } adds[] = {
        {bulk("OK a.ts"), "a.ts", 0, "lbdb_add_segurl: result=[OK a.ts]"},
        {"*1\r\n" + bulk("OK a.ts"), "a.ts", 0, "lbdb_add_segurl: result=[OK a.ts]"},
        {bulk("OK b.ts"), "a.ts", -1, "lbdb_add_segurl: expected a.ts, got [OK b.ts]"},
        {bulk("OK a.tsx"), "a.ts", -1, "lbdb_add_segurl: expected a.ts, got [OK a.tsx]"},
        {bulk("OK"), "a.ts", -1, "lbdb_add_segurl: failed: OK\n"},
        {bulk("#err: " + std::string(200, 'z')), "a.ts", -1,
         "lbdb_add_segurl: failed: #err: " + std::string(74, 'z') + "\n"},
        {bulk("OK " + id), id, 0, "result=[OK " + id + "]"},
        {bulk("OK " + id + "i"), id + "i", 34,
         "reply_to_str: reply is bigger than buffer: 1024/1023"},
        {"+OK\r\n", "a.ts", -1, "reply_to_str: Redis status: OK"},
        {"-ERR x\r\n", "a.ts", -1, "reply_to_str: Redis error: ERR x"},
        {":1\r\n", "a.ts", 22, "reply_to_str: not expecting reply type=3"},
        {"*2\r\n" + bulk("OK") + bulk("a.ts"), "a.ts", 22, "more than 1 element (2) returned"},
        {"*1\r\n:1\r\n", "a.ts", 22, "reply_to_str: expected string, got 3"},
    };
    strings replies{":1\r\n", "*1\r\n:1\r\n", ":1\r\n", ":1\r\n"};
    replies.insert(replies.end(), shapes.begin(), shapes.end());
    for (const auto &r : adds) replies.push_back(r.reply);
    for (const std::string &u :
         strings{"OK s.ts", "OK " + std::string(125, 'x'), "#err: gone", "http://h1/s.ts",
                 "#err: no url", "http://h2/s.ts", "http://h1/s.ts"})
        replies.push_back(bulk(u));
    lfd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    ASSERT_EQ(bind(lfd_, reinterpret_cast<sockaddr *>(&sa), len), 0);
    ASSERT_EQ(listen(lfd_, 1), 0);
    ASSERT_EQ(getsockname(lfd_, reinterpret_cast<sockaddr *>(&sa), &len), 0);
    peer_ = std::thread(run_peer, lfd_, replies, &got_);
    // Every script is needed, so the connect's own checks take the first four replies.
    ASSERT_EQ(lbdb_init(dir_.c_str(), LBDB_FN_ADD | LBDB_FN_DEL | LBDB_FN_NEXT | LBDB_FN_MBGET,
                        LBDB_OPT_STAY),
              0);
    ASSERT_EQ(lbdb_connect("127.0.0.1", ntohs(sa.sin_port), timeval{.tv_sec = 2, .tv_usec = 0}), 0);

    testing::internal::CaptureStderr();
    for (size_t i = 0; i < shapes.size(); ++i)
        EXPECT_EQ(check_script_exists(A.c_str()), shape_rcs[i]) << shapes[i];
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "check_script_exists: more than 1 element (2) returned\n"
              "check_script_exists: expected integer, got 1\n");

    for (const auto &r : adds) {
        EXPECT_EQ(lbdb_add_segurl(r.id.c_str(), "http://h/a b.ts", 1700000000), r.rc) << r.log;
        EXPECT_TRUE(has(new_log(), r.log));
    }

    EXPECT_EQ(lbdb_del_segurl("s.ts", "http://h/s.ts"), 0);
    EXPECT_EQ(lbdb_del_segurl("s.ts", "http://h/s.ts"), 34);  // 128 bytes, bounded to 127
    EXPECT_EQ(lbdb_del_segurl("s.ts", "http://h/s.ts"), -1);
    char url[128] = "";
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), 0);
    EXPECT_STREQ(url, "http://h1/s.ts");
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), -1);
    EXPECT_STREQ(url, "");
    EXPECT_EQ(lbdb_mb_get_segurl("s.ts", "h3", "client-a", url, sizeof url), 0);
    EXPECT_STREQ(url, "http://h2/s.ts");
    char small[8] = "stale";
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", small, sizeof small), 34);
    EXPECT_STREQ(small, "");
    strcpy(url, "stale");
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), -1);  // the peer has hung up
    EXPECT_STREQ(url, "");
    std::string log = new_log();
    for (const std::string &line :
         strings{"lbdb_del_segurl: result=[OK s.ts]", "reply is bigger than buffer: 128/127",
                 "lbdb_del_segurl: failed: #err: gone", "lbdb_rr_get_segurl: failed: #err: no url",
                 "evalsha " + M + " 1 s.ts h3 client-a -S\n", "lbdb_rr_get_segurl: NULL as reply"})
        EXPECT_TRUE(has(log, line));

    lbdb_destroy();
    strings got = finish();
    ASSERT_EQ(got.size(), replies.size());
    const std::string se = "script exists ",
                      add = "evalsha " + A + " 1 a.ts http://h/a b.ts 1700000000";
    EXPECT_EQ(strings(got.begin(), got.begin() + 5),
              (strings{se + A, se + D, se + N, se + M, se + A}));
    EXPECT_EQ(got[4 + shapes.size()], add);
    // The multi-bucket get is logged with its own digest but sent with the next-URL one.
    const std::string del = "evalsha " + D + " 1 s.ts http://h/s.ts",
                      rr = "evalsha " + N + " 1 s.ts";
    EXPECT_EQ(strings(got.end() - 7, got.end()),
              (strings{del, del, del, rr + " -S", rr + " -S", rr + " h3 client-a -S", rr + " -S"}));
}

}  // namespace

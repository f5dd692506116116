// Tests of the load-balancer DB client against a loopback peer that answers with canned replies.
#include "lbquery.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "log.h"
#include "strcat.h"

namespace {

using strings = std::vector<std::string>;

std::string bulk(const std::string &s) {
    return str_cat("$", std::to_string(s.size()), "\r\n", s, "\r\n");
}

// Accepts one connection, records each request's arguments joined by blanks, answers it with
// the next reply and hangs up after the last. The listener's receive time-out bounds every wait.
void run_peer(int lfd, strings replies, strings *got) {
    int fd = accept(lfd, nullptr, nullptr);  // the accepted socket inherits the time-out
    redisReader *rd = redisReaderCreate();
    char buf[4096];
    for (size_t next = 0, reads = 0; fd >= 0 && next < replies.size();) {
        void *req = nullptr;
        if (redisReaderGetReply(rd, &req) != REDIS_OK) break;
        if (req != nullptr) {
            auto *r = static_cast<redisReply *>(req);
            got->emplace_back();
            for (size_t i = 0; i < r->elements; ++i)
                got->back() +=
                    str_cat(i ? " " : "", std::string_view(r->element[i]->str, r->element[i]->len));
            freeReplyObject(r);
            const std::string &out = replies[next++];
            if (write(fd, out.data(), out.size()) < 0) break;
        } else if (ssize_t n = read(fd, buf, sizeof buf);
                   n <= 0 || ++reads > 100 || redisReaderFeed(rd, buf, size_t(n)) != REDIS_OK) {
            break;
        }
    }
    redisReaderFree(rd);
    if (fd >= 0) close(fd);
}

const std::string A(40, 'a'), D(40, 'd'), N(40, 'n'), M(40, 'm');  // add, del, next, mbget

class Lbquery : public ::testing::Test {
   protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);  // a write to a peer that hung up must fail, not kill
        dir_ = testing::TempDir() + "trov-lbq-" + std::to_string(getpid());
        ASSERT_TRUE(std::filesystem::create_directory(dir_));
        for (const char *f : {"add_url", "del_url", "next_url", "mbget_url"})
            std::ofstream(dir_ + "/" + f + ".sha1") << std::string(40, f[0]) << "\n";
        log_default(g_log, fp_);
        log_set_modules(g_log, LL_DEBUG);
    }
    void TearDown() override {
        lbdb_destroy();
        if (lfd_ >= 0) close(lfd_);
        log_default(g_log, stderr);
        fclose(fp_);
        free(text_);
        std::filesystem::remove_all(dir_);
    }
    std::string new_log() {  // the log written since the previous call
        fflush(fp_);
        return std::string(text_ + std::exchange(seen_, len_), text_ + len_);
    }

    std::string dir_;
    char *text_ = nullptr;
    size_t len_ = 0, seen_ = 0;
    FILE *fp_ = open_memstream(&text_, &len_);
    int lfd_ = -1;
};

TEST_F(Lbquery, ConfigAndDigestFilesAreJudged) {
    const std::string h127 = "host = \"" + std::string(127, 'h') + "\"; ", s = "sha1_dir = \"/s\";";
    // want: "[port sec.usec host-length sha1_dir]", or the error line
    const std::tuple<std::string, int, std::string> rows[] = {
        {"host = \"db\"; " + s, 0, "[0 0.500000 2 /s]"},
        {"host = \"db\"; port = 6379; connect_tmout_ms = 1500; " + s, 0, "[6379 1.500000 2 /s]"},
        {h127 + "connect_tmout_ms = 999; " + s, 0, "[0 0.999000 127 /s]"},
        {"port = 6379; " + s, -1, "(ERR) load_lbdb_cfg: missing host setting\n"},
        {"host = \"h" + h127.substr(8) + s, -1,
         "host value is too long (128), max = 128 characters."},
        {"host = \"db\"; port = -1; " + s, -1, "(ERR) load_lbdb_cfg: invalid port value: -1\n"},
        {"host = \"db\"; port = 80;", -1, "(ERR) load_lbdb_cfg: missing sha1_dir setting\n"},
    };
    for (const auto &[body, rc, want] : rows) {
        SCOPED_TRACE(body);
        config_t lc;
        config_init(&lc);
        const std::string text = "trov: { lbdb: { " + body + " }; };";
        ASSERT_EQ(config_read_string(&lc, text.c_str()), CONFIG_TRUE) << config_error_text(&lc);
        lbdb_cfg cfg;
        memset(&cfg, 0x5a, sizeof cfg);
        EXPECT_EQ(load_lbdb_cfg(config_lookup(&lc, "trov.lbdb"), &cfg), rc);
        char got[200];
        snprintf(got, sizeof got, "[%d %ld.%06ld %zu %.127s]", cfg.port, long(cfg.tmout.tv_sec),
                 long(cfg.tmout.tv_usec), strnlen(cfg.host, sizeof cfg.host), cfg.sha1_path);
        EXPECT_PRED_FORMAT2(testing::IsSubstring, want, rc == 0 ? std::string(got) : new_log());
        config_destroy(&lc);
    }

    const std::string path = dir_ + "/digest";
    const int lens[][4] = {// digest characters, newline, buffer size, result
                           {38, 0, 42, -1}, {38, 1, 42, 0},  {40, 1, 42, 0},
                           {47, 1, 64, 0},  {48, 1, 64, -1}, {49, 0, 42, 0}};
    char buf[64];
    for (auto [chars, nl, cap, rc] : lens) {
        std::string text = std::string(chars, 'a') + (nl ? "\n" : "");
        std::ofstream(path) << text;
        EXPECT_EQ(read_sha_signature(path.c_str(), buf, cap), rc) << text;
        // A digest buffer reads, and judges, 40 characters at most.
        const std::string seen = rc == 0
                                     ? "] -> (" + std::string(std::min(chars, cap - 2), 'a') + ")"
                                     : "] unexpected SHA1 size: " + std::to_string(text.size());
        EXPECT_PRED_FORMAT2(testing::IsSubstring, "[" + path + seen + "\n", new_log());
    }
    EXPECT_EQ(read_sha_signature((dir_ + "/none").c_str(), buf, 42), -1);
    EXPECT_EQ(lbdb_init(std::string(128, 'd').c_str(), LBDB_FN_ADD, 0), 34);
    EXPECT_NE(new_log().find("lbdb_init: sha1_dir is too long: 128/127\n"), std::string::npos);
}

// Every call after the connect, in order: the peer's reply, the code, a log line and the command
// the peer must have seen. The peer hangs up instead of giving the last (empty) reply.
TEST_F(Lbquery, AnswersAreJudgedAndCommandsCarryTheKeptDigests) {
    const std::string z(1021, 'z'), u1 = "http://h1/s.ts", rr = "evalsha " + N + " 1 s.ts ";
    const std::string se = "script exists ", rc_is = "check_script_exists: " + A + ", rc=";
    const struct {
        char op;  // x script exists, a add, d del, r next URL (s: into 8 bytes), m multi-bucket
        std::string reply;
        int rc;
        std::string log, url = {};  // gets: the URL left in the buffer
    } steps[] = {
        {'x', ":0\r\n", 2, "check_script_exists: no such script: " + A},
        {'x', ":7\r\n", 2, rc_is + "2\n"},
        {'x', "*1\r\n:0\r\n", 2, rc_is + "2\n"},
        {'x', "*2\r\n:1\r\n:1\r\n", 22, rc_is + "22\n"},
        {'x', "*1\r\n$1\r\n1\r\n", 22, rc_is + "22\n"},
        {'x', "-ERR unknown\r\n", -1, "check_script_exists: Redis error: ERR unknown\n"},
        {'x', "+OK\r\n", 22, "check_script_exists: not expecting reply type=5\n"},
        {'a', "*1\r\n" + bulk("OK a.ts"), 0, "lbdb_add_segurl: result=[OK a.ts]"},
        {'a', bulk("OK a.tsx"), -1, "lbdb_add_segurl: expected a.ts, got [OK a.tsx]"},
        // 1023 bytes are taken, with no blank after "OK" it is a failure, logged cut to 80
        {'a', bulk("OK" + z), -1, "lbdb_add_segurl: failed: OK" + z.substr(943) + "\n"},
        {'a', bulk("OK" + z + "z"), 34, "reply_to_str: reply is bigger than buffer: 1024/1023"},
        {'a', "+OK\r\n", -1, "reply_to_str: Redis status: OK"},
        {'a', "-ERR x\r\n", -1, "reply_to_str: Redis error: ERR x"},
        {'a', ":1\r\n", 22, "reply_to_str: not expecting reply type=3"},
        {'a', "*2\r\n" + bulk("OK") + bulk("a.ts"), 22, "more than 1 element (2) returned"},
        {'a', "*1\r\n:1\r\n", 22, "reply_to_str: expected string, got 3"},
        {'d', bulk("OK s.ts"), 0, "lbdb_del_segurl: result=[OK s.ts]"},
        {'d', bulk("OK " + std::string(125, 'x')), 34, "reply is bigger than buffer: 128/127"},
        {'d', bulk("#err: gone"), -1, "lbdb_del_segurl: failed: #err: gone"},
        {'r', bulk(u1), 0, "lbdb_rr_get_segurl: result=[" + u1 + "]", u1},
        {'r', bulk("#err: no url"), -1, "lbdb_rr_get_segurl: failed: #err: no url"},
        // Logged with its own digest, sent with the next-URL one.
        {'m', bulk(u1), 0, "evalsha " + M + " 1 s.ts h3 client-a -S\n", u1},
        {'s', bulk(u1), 34, "reply is bigger than buffer: 14/7"},
        {'r', "", -1, "lbdb_rr_get_segurl: NULL as reply"},
    };
    strings replies{":1\r\n", "*1\r\n:1\r\n", ":1\r\n", ":1\r\n"},
        want{se + A, se + D, se + N, se + M}, got;
    for (const auto &s : steps) replies.push_back(s.reply);
    lfd_ = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{5, 0};
    sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof sa;
    auto *ap = reinterpret_cast<sockaddr *>(&sa);
    ASSERT_TRUE(setsockopt(lfd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
                bind(lfd_, ap, len) == 0 && listen(lfd_, 1) == 0 &&
                getsockname(lfd_, ap, &len) == 0);
    std::jthread peer(run_peer, lfd_, replies, &got);  // joined on every way out
    ASSERT_TRUE(lbdb_init(dir_.c_str(), LBDB_FN_ADD | LBDB_FN_DEL | LBDB_FN_NEXT | LBDB_FN_MBGET,
                          LBDB_OPT_STAY) == 0 &&
                lbdb_connect("127.0.0.1", ntohs(sa.sin_port), timeval{2, 0}) == 0);

    testing::internal::CaptureStderr();
    for (const auto &s : steps) {
        SCOPED_TRACE(s.reply.substr(0, 40));
        char url[128] = "stale";
        int rc = s.op == 'x'   ? check_script_exists(A.c_str())
                 : s.op == 'a' ? lbdb_add_segurl("a.ts", "http://h/a b.ts", 17)
                 : s.op == 'd' ? lbdb_del_segurl("s.ts", "http://h/s.ts")
                 : s.op == 'm' ? lbdb_mb_get_segurl("s.ts", "h3", "client-a", url, sizeof url)
                               : lbdb_rr_get_segurl("s.ts", url, s.op == 's' ? 8 : sizeof url);
        EXPECT_EQ(rc, s.rc);
        EXPECT_PRED_FORMAT2(testing::IsSubstring, s.log, new_log());
        EXPECT_EQ(std::string(url), strchr("rsm", s.op) != nullptr ? s.url : "stale");
        want.push_back(s.op == 'x'   ? se + A
                       : s.op == 'a' ? "evalsha " + A + " 1 a.ts http://h/a b.ts 17"
                       : s.op == 'd' ? "evalsha " + D + " 1 s.ts http://h/s.ts"
                       : s.op == 'm' ? rr + "h3 client-a -S"
                                     : rr + "-S");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "check_script_exists: more than 1 element (2) returned\n"
              "check_script_exists: expected integer, got 1\n");
    lbdb_destroy();
    peer.join();
    EXPECT_EQ(got, want);
}

}  // namespace

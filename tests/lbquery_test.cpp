// Tests of the load-balancer DB client: configuration, digest files, the
// connection and its script checks, reply conversion and the segment URL
// operations, against a real redis-server with the reference scripts loaded
// and, for reply shapes a real server never sends, a scripted loopback peer.
#include "lbquery.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "redis_server.h"
#include "timeop.h"

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void put_file(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

// Runs f with file descriptor 2 sent to a file and returns what was written.
template <class F>
std::string capture_stderr(const std::string &path, F f) {
    fflush(stderr);
    int saved = dup(2);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 2);
    f();
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(fd);
    return slurp(path);
}

// Whether text holds part; the whole text is shown when it does not.
::testing::AssertionResult has(const std::string &text, const std::string &part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << part << "] not in:\n" << text;
}

const std::string k_sha40 = "0123456789abcdef0123456789abcdef01234567";

class Lbquery : public ::testing::Test {
   protected:
    void SetUp() override {
        // A write to a connection the server has dropped must fail, not kill.
        signal(SIGPIPE, SIG_IGN);
        glog_init("tst");
        char tmpl[] = "/tmp/trov-lbq-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        sha_dir_ = dir_ + "/sha";
        ASSERT_EQ(mkdir(sha_dir_.c_str(), 0755), 0);
        log_path_ = dir_ + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, log_path_.c_str(), 1), 0);
        log_set_modules(g_log, LL_DEBUG);
        log_timefmt(g_log, TMF_NOTIME);
    }
    void TearDown() override {
        lbdb_destroy();
        if (cli_ != nullptr) redisFree(cli_);
        redis_server_destroy(&srv_);
        log_close(g_log);
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        log_timefmt(g_log, TMF_LOCAL);
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    }

    // A server with the reference scripts loaded and a client of our own.
    void start_server() {
        ASSERT_EQ(redis_server_start(&srv_), 0);
        ASSERT_EQ(redis_server_load_lbdb(&srv_, TROV_SOURCE_DIR, sha_dir_.c_str()), 0);
        cli_ = redis_server_client(&srv_);
        ASSERT_NE(cli_, nullptr);
    }
    int init_connect(int need, int opts = 0) {
        if (int rc = lbdb_init(sha_dir_.c_str(), need, opts); rc != 0) return rc;
        return lbdb_connect("127.0.0.1", srv_.port, tmout_);
    }
    // Our client's answer as text ("" for nil, the number for integers).
    std::string ask(const char *fmt, const char *a = "", const char *b = "") {
        auto *r = static_cast<redisReply *>(redisCommand(cli_, fmt, a, b));
        if (r == nullptr) return "<no reply>";
        std::string s = r->type == REDIS_REPLY_INTEGER ? std::to_string(r->integer)
                        : r->str != nullptr            ? std::string(r->str, r->len)
                                                       : "";
        freeReplyObject(r);
        return s;
    }
    // Loads lua as the script whose digest the client reads from file.
    void install(const char *file, const std::string &lua) {
        std::string sha = ask("SCRIPT LOAD %s", lua.c_str());
        ASSERT_EQ(sha.size(), 40u) << sha;
        put_file(sha_dir_ + "/" + file, sha + "\n");
    }
    std::string sha_of(const char *file) { return slurp(sha_dir_ + "/" + file).substr(0, 40); }
    // The log written since the previous call.
    std::string new_log() {
        std::string all = slurp(log_path_);
        std::string fresh = all.substr(std::min(seen_, all.size()));
        seen_ = all.size();
        return fresh;
    }

    std::string dir_, sha_dir_, log_path_;
    size_t seen_ = 0;
    redis_server srv_{};
    redisContext *cli_ = nullptr;
    timeval tmout_{.tv_sec = 2, .tv_usec = 0};
};

TEST_F(Lbquery, ConfigDefaultsSplitsAndRefusals) {
    struct row {
        std::string body;
        int rc;
        int port;
        long sec, usec;
        const char *msg;
    };
    const std::string host127(127, 'h'), host128(128, 'h');
    const row rows[] = {
        {"host = \"db\"; sha1_dir = \"/s\";", 0, 0, 0, 500000, nullptr},
        {"host = \"db\"; port = 6379; connect_tmout_ms = 1500; sha1_dir = \"/s\";", 0, 6379, 1,
         500000, nullptr},
        {"host = \"" + host127 + "\"; connect_tmout_ms = 999; sha1_dir = \"/s\";", 0, 0, 0, 999000,
         nullptr},
        {"port = 6379; sha1_dir = \"/s\";", -1, 0, 0, 0, "load_lbdb_cfg: missing host setting"},
        {"host = \"\"; sha1_dir = \"/s\";", -1, 0, 0, 0, "load_lbdb_cfg: missing host setting"},
        {"host = \"" + host128 + "\"; sha1_dir = \"/s\";", -1, 0, 0, 0,
         "host value is too long (128), max = 128 characters."},
        {"host = \"db\"; port = -1; sha1_dir = \"/s\";", -1, 0, 0, 0,
         "load_lbdb_cfg: invalid port value: -1"},
        {"host = \"db\"; port = 80;", -1, 0, 0, 0, "load_lbdb_cfg: missing sha1_dir setting"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.body);
        std::string text = "trov: { lbdb: { " + r.body + " }; };";
        config_t lc;
        config_init(&lc);
        ASSERT_EQ(config_read_string(&lc, text.c_str()), CONFIG_TRUE) << config_error_text(&lc);
        lbdb_cfg cfg;
        memset(&cfg, 0x5a, sizeof cfg);
        EXPECT_EQ(load_lbdb_cfg(config_lookup(&lc, "trov.lbdb"), &cfg), r.rc);
        std::string log = new_log();
        if (r.rc == 0) {
            EXPECT_EQ(cfg.port, r.port);
            EXPECT_EQ(cfg.tmout.tv_sec, r.sec);
            EXPECT_EQ(cfg.tmout.tv_usec, r.usec);
            EXPECT_STREQ(cfg.sha1_path, "/s");
            EXPECT_EQ(strlen(cfg.host), r.body.find(host127) != std::string::npos ? 127u : 2u);
        } else {
            EXPECT_TRUE(has(log, "(ERR) "));
            EXPECT_TRUE(has(log, r.msg));
        }
        config_destroy(&lc);
    }
}

TEST_F(Lbquery, DigestLineLengthRule) {
    struct row {
        const char *name;
        std::string text;
        int cap;
        int rc;
        std::string digest;  // buf afterwards when rc is 0
    };
    const std::string d40 = k_sha40;
    const row rows[] = {
        {"38 characters, no newline", d40.substr(0, 38), 42, -1, ""},
        {"37 characters and newline", d40.substr(0, 37) + "\n", 42, -1, ""},
        {"38 characters and newline", d40.substr(0, 38) + "\n", 42, 0, d40.substr(0, 38)},
        {"40 characters and newline", d40 + "\n", 42, 0, d40},
        {"40 characters and newline, wide buffer", d40 + "\n", 64, 0, d40},
        {"47 characters and newline", d40 + "abcdefg\n", 64, 0, d40 + "abcdefg"},
        {"48 characters and newline", d40 + "abcdefgh\n", 64, -1, ""},
        // A digest buffer reads 40 characters at most: a longer line is
        // judged, and kept, by its first 40.
        {"49 characters into a digest buffer", d40 + "abcdefghi", 42, 0, d40},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        std::string path = dir_ + "/digest";
        put_file(path, r.text);
        char buf[64] = "";
        EXPECT_EQ(read_sha_signature(path.c_str(), buf, r.cap), r.rc);
        std::string log = new_log();
        if (r.rc == 0) {
            EXPECT_EQ(buf, r.digest);
            EXPECT_TRUE(has(log, "[" + path + "] -> (" + r.digest + ")\n"));
        } else {
            EXPECT_TRUE(has(log, "read_sha_signature: [" + path +
                                     "] unexpected SHA1 size: " + std::to_string(r.text.size())));
        }
    }

    char buf[42] = "previous";
    EXPECT_EQ(read_sha_signature((dir_ + "/none").c_str(), buf, sizeof buf), -1);
    EXPECT_TRUE(has(new_log(), "read_sha_signature: fopen(" + dir_ +
                                   "/none,...) ERROR(2): No such file or directory"));
    put_file(dir_ + "/empty", "");
    EXPECT_EQ(read_sha_signature((dir_ + "/empty").c_str(), buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "previous");
    EXPECT_TRUE(has(new_log(), "read_sha_signature: fgets(...) ERROR(0): Success"));
}

TEST_F(Lbquery, InitFailuresLeaveTheClientReadyForAnotherInit) {
    std::string longdir(128, 'd');
    EXPECT_EQ(lbdb_init(longdir.c_str(), LBDB_FN_ADD, 0), 34);
    EXPECT_TRUE(has(new_log(), "lbdb_init: sha1_dir is too long: 128/127"));

    put_file(sha_dir_ + "/add_url.sha1", k_sha40 + "\n");
    put_file(sha_dir_ + "/next_url.sha1", "short\n");
    EXPECT_EQ(lbdb_init(sha_dir_.c_str(), LBDB_FN_ADD | LBDB_FN_DEL, 0), -1);
    EXPECT_TRUE(has(new_log(), "del_url.sha1,...) ERROR(2)"));
    EXPECT_EQ(lbdb_init(sha_dir_.c_str(), LBDB_FN_ADD | LBDB_FN_NEXT, 0), -1);
    EXPECT_TRUE(has(new_log(), "next_url.sha1] unexpected SHA1 size: 6"));

    // Only the scripts asked for are read, and the option is recorded.
    EXPECT_EQ(lbdb_init(sha_dir_.c_str(), LBDB_FN_ADD, LBDB_OPT_STAY), 0);
    EXPECT_TRUE(has(new_log(), "lbdb_init: added [-S] flag"));
}

TEST_F(Lbquery, EmptyDigestPassesInitButStopsAtConnect) {
    start_server();
    put_file(sha_dir_ + "/add_url.sha1", "");
    ASSERT_EQ(lbdb_init(sha_dir_.c_str(), LBDB_FN_ADD, 0), 0);
    // The assertion's report goes to the log; send it where the death test
    // looks. The fast style forks, so the server stays this process's child.
    log_default(g_log, stderr);
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_DEATH((void)lbdb_connect("127.0.0.1", srv_.port, tmout_), "ASSERT at:\n.*sha\\[0\\]");
}

TEST_F(Lbquery, ConnectChecksEveryNeededScript) {
    start_server();
    const std::string where = "127.0.0.1:" + std::to_string(srv_.port);
    constexpr int all = LBDB_FN_ADD | LBDB_FN_DEL | LBDB_FN_NEXT | LBDB_FN_MBGET;
    ASSERT_EQ(init_connect(all), 0);
    std::string log = new_log();
    EXPECT_TRUE(has(log, "(INF) lbdb_connect: connected to " + where));
    for (const char *f : {"add_url.sha1", "del_url.sha1", "next_url.sha1", "mbget_url.sha1"})
        EXPECT_TRUE(has(log, "check_script_exists: " + sha_of(f) + ", rc=0"));
    EXPECT_TRUE(has(log, "lbdb_connect: OK, rc=0"));
    lbdb_disconnect();
    EXPECT_TRUE(has(new_log(), "lbdb_disconnect: disconnected from " + where));

    // A server that lost its scripts refuses the connect, which leaves the
    // client unconnected: connecting again is allowed and fails the same way.
    EXPECT_EQ(ask("SCRIPT FLUSH"), "OK");
    EXPECT_EQ(lbdb_connect("127.0.0.1", srv_.port, tmout_), 2);
    EXPECT_TRUE(has(new_log(), "(ERR) lbdb_connect: failed for " + where));
    EXPECT_EQ(lbdb_connect("127.0.0.1", srv_.port, tmout_), 2);
    ASSERT_EQ(redis_server_load_lbdb(&srv_, TROV_SOURCE_DIR, sha_dir_.c_str()), 0);
    EXPECT_EQ(lbdb_connect("127.0.0.1", srv_.port, tmout_), 0);
    lbdb_destroy();

    // One unknown digest fails only a process that needs that script.
    put_file(sha_dir_ + "/del_url.sha1", k_sha40 + "\n");
    EXPECT_EQ(init_connect(all), 2);
    EXPECT_TRUE(has(new_log(), "check_script_exists: " + k_sha40 + ", rc=2"));
    lbdb_destroy();
    EXPECT_EQ(init_connect(LBDB_FN_ADD), 0);
}

TEST_F(Lbquery, ConnectToADeadPortFails) {
    ASSERT_EQ(redis_server_start(&srv_), 0);
    ASSERT_GT(redis_server_stop(&srv_), -1);
    ASSERT_EQ(lbdb_init(sha_dir_.c_str(), 0, 0), 0);
    EXPECT_EQ(lbdb_connect("127.0.0.1", srv_.port, tmout_), -1);
    EXPECT_TRUE(
        has(new_log(), "lbdb_connect: redisConnectWithTimeout ERROR(1): Connection refused"));
    EXPECT_EQ(lbdb_connect("127.0.0.1", srv_.port, tmout_), -1);
}

// Accepts one connection and answers each request with the next canned reply,
// then closes it. Every wait is bounded.
void scripted_peer(int lfd, const std::vector<std::string> &replies) {
    pollfd lp{.fd = lfd, .events = POLLIN, .revents = 0};
    if (poll(&lp, 1, 5000) != 1) return;
    int fd = accept(lfd, nullptr, nullptr);
    if (fd < 0) return;
    for (const std::string &r : replies) {
        pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
        char req[512];
        if (poll(&p, 1, 5000) != 1 || read(fd, req, sizeof req) <= 0) break;
        if (write(fd, r.data(), r.size()) != ssize_t(r.size())) break;
    }
    close(fd);
}

TEST_F(Lbquery, ScriptCheckJudgesEveryReplyShape) {
    struct row {
        const char *resp;
        int rc;
        const char *log;       // expected in the log, if any
        const char *err_text;  // expected on standard error, if any
    };
    const row rows[] = {
        {":1\r\n", 0, nullptr, nullptr},
        {":0\r\n", 2, "(ERR) check_script_exists: no such script: ", nullptr},
        {":7\r\n", 2, nullptr, nullptr},
        {"*1\r\n:1\r\n", 0, nullptr, nullptr},
        {"*1\r\n:0\r\n", 2, nullptr, nullptr},
        {"*2\r\n:1\r\n:1\r\n", 22, nullptr,
         "check_script_exists: more than 1 element (2) returned"},
        {"*0\r\n", 22, nullptr, "check_script_exists: more than 1 element (0) returned"},
        {"*1\r\n$1\r\n1\r\n", 22, nullptr, "check_script_exists: expected integer, got 1"},
        {"-ERR unknown\r\n", -1, "check_script_exists: Redis error: ERR unknown", nullptr},
        {"+OK\r\n", 22, "check_script_exists: not expecting reply type=5", nullptr},
        {"$-1\r\n", 22, "check_script_exists: not expecting reply type=4", nullptr},
    };
    int lfd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(lfd, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    ASSERT_EQ(listen(lfd, 1), 0);
    ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&sa), &len), 0);
    std::vector<std::string> replies;
    for (const row &r : rows) replies.emplace_back(r.resp);
    std::thread peer(scripted_peer, lfd, replies);

    // No needed scripts: the connect sends nothing, each check is one request.
    ASSERT_EQ(lbdb_init(sha_dir_.c_str(), 0, 0), 0);
    ASSERT_EQ(lbdb_connect("127.0.0.1", ntohs(sa.sin_port), tmout_), 0);
    for (const row &r : rows) {
        SCOPED_TRACE(r.resp);
        int rc = 0;
        std::string err =
            capture_stderr(dir_ + "/stderr", [&] { rc = check_script_exists(k_sha40.c_str()); });
        EXPECT_EQ(rc, r.rc);
        std::string log = new_log();
        EXPECT_TRUE(has(log, "check_script_exists: " + k_sha40 + ", rc=" + std::to_string(r.rc)));
        EXPECT_TRUE(has(log, r.log != nullptr ? r.log : ""));
        EXPECT_TRUE(has(err, r.err_text != nullptr ? r.err_text : ""));
    }
    // The peer has hung up.
    EXPECT_EQ(check_script_exists(k_sha40.c_str()), -1);
    EXPECT_TRUE(has(new_log(), "(ERR) check_script_exists: NULL as reply"));
    peer.join();
    close(lfd);
}

TEST_F(Lbquery, ReplyConversionBoundsAndShapes) {
    static char big[1025];
    memset(big, 'x', sizeof big);
    redisReply s1023{}, s1024{}, one{}, two{}, status{}, error{}, integer{}, nil{};
    redisReply *elems[2] = {&s1023, &integer};
    s1023 = {.type = REDIS_REPLY_STRING,
             .integer = 0,
             .len = 1023,
             .str = big,
             .elements = 0,
             .element = nullptr};
    s1024 = s1023;
    s1024.len = 1024;
    one = {.type = REDIS_REPLY_ARRAY,
           .integer = 0,
           .len = 0,
           .str = nullptr,
           .elements = 1,
           .element = elems};
    two = one;
    two.elements = 2;
    status = {.type = REDIS_REPLY_STATUS,
              .integer = 0,
              .len = 2,
              .str = const_cast<char *>("OK"),
              .elements = 0,
              .element = nullptr};
    error = status;
    error.type = REDIS_REPLY_ERROR;
    integer = {.type = REDIS_REPLY_INTEGER,
               .integer = 5,
               .len = 0,
               .str = nullptr,
               .elements = 0,
               .element = nullptr};
    nil = integer;
    nil.type = REDIS_REPLY_NIL;

    char buf[1024 + 1];
    memset(buf, '#', sizeof buf);
    // A text of exactly the bound fits, terminated one past it.
    EXPECT_EQ(reply_to_str(&s1023, buf, 1023), 0);
    EXPECT_EQ(strlen(buf), 1023u);
    EXPECT_EQ(reply_to_str(&one, buf, 1023), 0);
    EXPECT_EQ(strlen(buf), 1023u);
    struct row {
        const redisReply *reply;
        int rc;
        const char *log;
    };
    const row rows[] = {
        {&s1024, 34, "reply_to_str: reply is bigger than buffer: 1024/1023"},
        {&two, 22, "reply_to_str: more than 1 element (2) returned"},
        {&status, -1, "reply_to_str: Redis status: OK"},
        {&error, -1, "reply_to_str: Redis error: OK"},
        {&integer, 22, "reply_to_str: not expecting reply type=3"},
        {&nil, 22, "reply_to_str: not expecting reply type=4"},
        {&one, 22, "reply_to_str: expected string, got 3"},  // elems[0] swapped below
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.log);
        if (r.reply == &one) elems[0] = &integer;
        EXPECT_EQ(reply_to_str(r.reply, buf, 1023), r.rc);
        EXPECT_TRUE(has(new_log(), std::string("(ERR) ") + r.log));
    }
}

TEST_F(Lbquery, AddRegistersUrlAndItsExpiry) {
    start_server();
    ASSERT_EQ(init_connect(LBDB_FN_ADD), 0);
    timespec now{};
    set_real_now(&now);
    const time_t exp1 = now.tv_sec + 3600, exp2 = now.tv_sec + 7200;
    const char *id = "live/ch1/seg 7.ts";  // a space stays inside one argument
    new_log();
    ASSERT_EQ(lbdb_add_segurl(id, "http://edge1/live/ch1/seg 7.ts", exp1), 0);
    std::string log = new_log();
    EXPECT_TRUE(has(log, "(DBG) evalsha " + sha_of("add_url.sha1") + " 1 " + id +
                             " http://edge1/live/ch1/seg 7.ts " + std::to_string(exp1) + "\n"));
    EXPECT_TRUE(has(log, std::string("lbdb_add_segurl: result=[OK ") + id + "]"));
    EXPECT_EQ(ask("HGET %s %s", id, "u:http://edge1/live/ch1/seg 7.ts"), std::to_string(exp1));
    EXPECT_EQ(ask("EXPIRETIME %s", id), std::to_string(exp1));

    // A second URL with a later expiry keeps the segment until then; a URL
    // that never expires (0) takes the time limit off.
    ASSERT_EQ(lbdb_add_segurl(id, "http://edge2/x.ts", exp2), 0);
    EXPECT_EQ(ask("EXPIRETIME %s", id), std::to_string(exp2));
    ASSERT_EQ(lbdb_add_segurl(id, "http://edge3/x.ts", 0), 0);
    EXPECT_EQ(ask("TTL %s", id), "-1");
    EXPECT_EQ(ask("HLEN %s", id), "3");

    // The script's own refusals reach the log as failures.
    EXPECT_EQ(lbdb_add_segurl(id, "http://edge4/x.ts", now.tv_sec - 10), -1);
    EXPECT_TRUE(has(new_log(), "lbdb_add_segurl: failed: #err: expiry "));
    EXPECT_EQ(ask("HEXISTS %s %s", id, "u:http://edge4/x.ts"), "0");
}

TEST_F(Lbquery, AddJudgesTheScriptAnswer) {
    start_server();
    const std::string id(1020, 'i');  // "OK " + id is 1023 bytes: the bound
    struct row {
        const char *name;
        std::string lua;
        std::string id;
        int rc;
        std::string log;
    };
    const row rows[] = {
        {"OK and the identifier", "return 'OK ' .. KEYS[1]", "a.ts", 0, "result=[OK a.ts]"},
        {"in a one-element array", "return {'OK ' .. KEYS[1]}", "a.ts", 0, "result=[OK a.ts]"},
        {"another identifier", "return 'OK b.ts'", "a.ts", -1,
         "lbdb_add_segurl: expected a.ts, got [OK b.ts]"},
        {"identifier with a tail", "return 'OK ' .. KEYS[1] .. 'x'", "a.ts", -1,
         "lbdb_add_segurl: expected a.ts, got [OK a.tsx]"},
        {"OK without a space", "return 'OK'", "a.ts", -1, "lbdb_add_segurl: failed: OK\n"},
        {"status reply", "return redis.status_reply('OK')", "a.ts", -1,
         "reply_to_str: Redis status: OK"},
        {"error reply", "return redis.error_reply('ERR broken')", "a.ts", -1,
         "reply_to_str: Redis error: ERR broken"},
        {"integer reply", "return 1", "a.ts", 22, "reply_to_str: not expecting reply type=3"},
        {"long failure text", "return '#err: ' .. string.rep('z', 200)", "a.ts", -1,
         "lbdb_add_segurl: failed: #err: " + std::string(74, 'z') + "\n"},
        {"answer of 1023 bytes", "return 'OK ' .. KEYS[1]", id, 0, "result=[OK " + id + "]"},
        {"answer of 1024 bytes", "return 'OK ' .. KEYS[1]", id + "i", 34,
         "reply_to_str: reply is bigger than buffer: 1024/1023"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        install("add_url.sha1", r.lua);
        ASSERT_EQ(init_connect(LBDB_FN_ADD), 0);
        EXPECT_EQ(lbdb_add_segurl(r.id.c_str(), "http://h/a.ts", 1), r.rc);
        EXPECT_TRUE(has(new_log(), r.log));
        lbdb_destroy();
    }
}

TEST_F(Lbquery, OperationsAfterTheServerWentAway) {
    start_server();
    ASSERT_EQ(init_connect(LBDB_FN_ADD | LBDB_FN_DEL | LBDB_FN_NEXT), 0);
    ASSERT_EQ(lbdb_add_segurl("s.ts", "http://h/s.ts", 0), 0);
    ASSERT_GT(redis_server_stop(&srv_), -1);
    new_log();
    char url[128] = "stale";
    EXPECT_EQ(lbdb_add_segurl("s.ts", "http://h/s.ts", 0), -1);
    EXPECT_EQ(lbdb_del_segurl("s.ts", "http://h/s.ts"), -1);
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), -1);
    EXPECT_STREQ(url, "");
    std::string log = new_log();
    for (const char *fn : {"lbdb_add_segurl", "lbdb_del_segurl", "lbdb_rr_get_segurl"})
        EXPECT_TRUE(has(log, std::string("(ERR) ") + fn + ": NULL as reply\n"));
}

TEST_F(Lbquery, RoundRobinDeleteAndMultiBucketGet) {
    start_server();
    constexpr int all = LBDB_FN_ADD | LBDB_FN_DEL | LBDB_FN_NEXT | LBDB_FN_MBGET;
    ASSERT_EQ(init_connect(all), 0);
    for (const char *u : {"http://h2/s.ts", "http://h1/s.ts", "http://h3/s.ts"})
        ASSERT_EQ(lbdb_add_segurl("s.ts", u, 0), 0);

    char url[128];
    std::vector<std::string> got;
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), 0);
        got.emplace_back(url);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"http://h1/s.ts", "http://h2/s.ts", "http://h3/s.ts",
                                             "http://h1/s.ts"}));

    // The multi-bucket get runs the round-robin script: it ignores the
    // preferred bucket and moves the shared cursor, while its log line names
    // the multi-bucket digest.
    new_log();
    ASSERT_EQ(lbdb_mb_get_segurl("s.ts", "h3", "client-a", url, sizeof url), 0);
    EXPECT_STREQ(url, "http://h2/s.ts");
    EXPECT_TRUE(has(new_log(), "evalsha " + sha_of("mbget_url.sha1") + " 1 s.ts h3 client-a"));
    ASSERT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), 0);
    EXPECT_STREQ(url, "http://h3/s.ts");

    // A buffer too small for the URL: 34 and nothing half-written.
    char small[8];
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", small, sizeof small), 34);
    EXPECT_STREQ(small, "");

    ASSERT_EQ(lbdb_del_segurl("s.ts", "http://h2/s.ts"), 0);
    EXPECT_TRUE(has(new_log(), "lbdb_del_segurl: result=[OK s.ts]"));
    EXPECT_EQ(ask("HEXISTS %s %s", "s.ts", "u:http://h2/s.ts"), "0");
    ASSERT_EQ(lbdb_del_segurl("s.ts", "http://h1/s.ts"), 0);
    ASSERT_EQ(lbdb_del_segurl("s.ts", "http://h3/s.ts"), 0);
    EXPECT_EQ(ask("EXISTS %s", "s.ts"), "0");
    strcpy(url, "stale");
    EXPECT_EQ(lbdb_rr_get_segurl("s.ts", url, sizeof url), -1);
    EXPECT_STREQ(url, "");
    EXPECT_TRUE(has(new_log(), "lbdb_rr_get_segurl: failed: #err: no url for s.ts"));
    lbdb_destroy();

    // With the stay option the cursor does not move.
    ASSERT_EQ(init_connect(all, LBDB_OPT_STAY), 0);
    ASSERT_EQ(lbdb_add_segurl("t.ts", "http://h1/t.ts", 0), 0);
    ASSERT_EQ(lbdb_add_segurl("t.ts", "http://h2/t.ts", 0), 0);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(lbdb_rr_get_segurl("t.ts", url, sizeof url), 0);
        EXPECT_STREQ(url, "http://h1/t.ts");
    }
}

TEST_F(Lbquery, ReferenceScriptsExpireAndPickBuckets) {
    start_server();
    const std::string add = sha_of("add_url.sha1"), mb = sha_of("mbget_url.sha1");
    timespec now{};
    set_real_now(&now);
    const std::string later = std::to_string(now.tv_sec + 600);

    // A URL whose time has come is dropped by the next script that touches
    // the segment, and the key's expiry follows the URLs left.
    ASSERT_EQ(ask("HSET s.ts u:http://old/s.ts %s", std::to_string(now.tv_sec - 5).c_str()), "1");
    auto eval = [&](const std::string &sha, const char *a1, const char *a2, const char *a3) {
        auto *r = static_cast<redisReply *>(
            redisCommand(cli_, "EVALSHA %s 1 s.ts %s %s %s", sha.c_str(), a1, a2, a3));
        std::string s = r != nullptr && r->str != nullptr ? r->str : "<none>";
        if (r != nullptr) freeReplyObject(r);
        return s;
    };
    EXPECT_EQ(eval(add, "http://A:8080/s.ts", later.c_str(), ""), "OK s.ts");
    EXPECT_EQ(ask("HEXISTS s.ts %s", "u:http://old/s.ts"), "0");
    EXPECT_EQ(ask("EXPIRETIME %s", "s.ts"), later);
    EXPECT_EQ(eval(add, "http://b/s.ts", "soon", ""), "#err: bad expiry [soon] for s.ts");
    EXPECT_EQ(eval(add, "http://b/s.ts", later.c_str(), ""), "OK s.ts");
    EXPECT_EQ(eval(add, "http://c/s.ts", later.c_str(), ""), "OK s.ts");

    // Buckets are URL authorities, matched without regard to case, taken in
    // the order given; a selector sticks to one URL of the bucket.
    EXPECT_EQ(eval(mb, "nohost, a:8080", "x", ""), "http://A:8080/s.ts");
    std::string pick = eval(mb, "", "client-7", "");
    EXPECT_TRUE(has(pick, "/s.ts"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(eval(mb, "", "client-7", ""), pick);
    EXPECT_EQ(eval(mb, "nohost", "x", ""), "#err: no url for s.ts in [nohost]");
    EXPECT_EQ(ask("HEXISTS s.ts rr"), "0");

    ASSERT_EQ(ask("SET %s %s", "str.ts", "v"), "OK");
    auto *r = static_cast<redisReply *>(
        redisCommand(cli_, "EVALSHA %s 1 str.ts http://h/x %s", add.c_str(), later.c_str()));
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r->str, "#err: str.ts holds a string, not a segment");
    freeReplyObject(r);
}

}  // namespace

// trov-order's builders against the bounds of the daemon's channels and its own parsers;
// also the command's argument readers and the wait's progress line.
#include "order.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <tuple>

#include "app.h"
#include "cfg.h"
#include "daemon.h"
#include "fwait.h"
#include "ordcli.h"
#include "rq.h"
#include "udl.h"
#include "webops.h"

namespace {

struct built {
    int rc;
    std::string text, why;
};

// A datagram order when lid is set, else an HTTP order.
built build(const char *lid, std::string src, std::string dst, long expiry = 1700000000) {
    ord_spec o{src.c_str(), dst.c_str(), lid, expiry};
    char buf[2048], why[ORD_WHY_SIZE] = "";
    size_t len = 0;
    int rc = lid != nullptr
                 ? ord_build_datagram(&o, buf, sizeof buf, &len, why, sizeof why)
                 : ord_build_http(&o, "127.0.0.1:8080", buf, sizeof buf, &len, why, sizeof why);
    return {rc, rc == 0 ? std::string(buf, len) : "", why};
}

built check(const std::string &msg) {
    char why[ORD_WHY_SIZE] = "";
    int rc = ord_check_datagram(msg.data(), msg.size(), why, sizeof why);
    return {rc, msg, why};
}

// The HTTP order's head through the listener's parser: "<source> [<destination>]", "" if refused.
std::string parse_http(std::string head) {
    char s[256] = {}, d[256] = {};
    http_header hdr{};
    int rc = web_parse_urq(head.data(), head.size(), s, d, sizeof s, &hdr);
    return rc == 0 && hdr.type == HTTP_MT_GET ? std::string(s) + " [" + d + "]" : "";
}

const std::string S31(31, 'i'), S32(32, 'i'), HEAD31 = "#!" + S31 + " ";

// A scratch directory (the runner's), removed at the end of the scope.
struct scratch : daemon_proc {
    scratch() : daemon_proc{} { EXPECT_EQ(daemon_init(this, ""), 0); }
    ~scratch() { daemon_destroy(this); }
};

TEST(Order, BuildersRefuseWhatTheDaemonWouldRejectAndSayWhy) {
    // Order URL paths ("0/src/" + source + "/dst"): src117 makes 127; src_blanks 120 as typed,
    // 130 sent. Endpoints are cut, encoded ("+", "%" take 3), at 256: src255, dst255 make 255.
    const std::string src117 = "http://o/" + std::string(108, 'a'), src127 = src117 + "bbbbbbbbbb";
    const std::string src_blanks = "http://o/" + std::string(96, 'a') + "     ";
    const std::string src255 = "http://o/" + std::string(64, '+') + std::string(54, 'a');
    const std::string dst255 = std::string(67, '%') + std::string(54, 'b');
    // Order id (null: HTTP), source, destination, code, part of the reason ("" when built).
    const std::tuple<const char *, std::string, std::string, int, const char *> cases[] = {
        {"abc", "http://o/a.ts", "", 22, "4 to 31"},
        {S31.c_str(), "http://o/a.ts", "", 0, ""},
        {S32.c_str(), "http://o/a.ts", "", 22, "32 characters"},
        {"", "http://o/a.ts", "", 22, "no order identifier"},
        {"ab cd", "http://o/a.ts", "", 22, "blank"},
        {"ab/cd", "http://o/a.ts", "", 22, "lock file"},
        {"abcd", "https://o/a.ts", "", 22, "https"},
        {nullptr, "", "x", 22, "no source"},
        {nullptr, "http:///a.ts", "x", 22, "no host"},
        {nullptr, "http://o/", "", 22, "no path"},
        {nullptr, "http://o", "x.ts", 0, ""},
        {nullptr, "http://o/dir/", "", 22, "directory"},
        {nullptr, "http://o/a.ts", "a/../../x", 22, "\"..\""},
        {nullptr, "http://o/a.ts", "a/..x/...", 0, ""},
        {nullptr, "http://o/a.ts", "x.ts-Trov", 22, "unfinished"},
        {nullptr, "http://o/a.ts", "caf\xc3\xa9", 22, "0xC3"},
        {nullptr, "http://o/a.ts?x=1", "x", 22, "query"},
        {nullptr, src127, "x", 0, ""},
        {nullptr, src127 + "b", "x", 34, "at most 127"},
        {nullptr, "http://o/a.ts", std::string(121, 'd'), 0, ""},
        {nullptr, "http://o/a.ts", std::string(122, 'd'), 34, "at most 121"},
        {nullptr, src255, dst255, 0, ""},
        {nullptr, "http://o/" + std::string(65, '+') + std::string(53, 'a'), dst255, 34,
         "source is 257 characters once percent-encoded"},
        {nullptr, src255, std::string(68, '%') + std::string(53, 'b'), 34,
         "destination is 257 characters"},
        {"abcd", src117, "", 0, ""},
        {"abcd", src117 + "a", "", 34, "path would be 128"},
        {"abcd", src_blanks, "", 34, "path would be 130"},
        {"abcd", "http://o/a.ts?x=1", "x", 0, ""},
    };
    for (const auto &[lid, src, dst, rc, says] : cases) {
        SCOPED_TRACE(std::string(lid ? lid : "http") + " " + src + " [" + dst + "]");
        built b = build(lid, src, dst);
        EXPECT_EQ(b.rc, rc) << b.why;
        EXPECT_NE(b.why.find(says), std::string::npos) << b.why;
        EXPECT_EQ(b.why.empty() && !b.text.empty(), rc == 0) << b.why;
        // Built orders read back: datagrams through the channel's check, HTTP by the listener's.
        EXPECT_TRUE(rc != 0 || lid == nullptr || check(b.text).rc == 0);
        if (rc != 0 || lid != nullptr) continue;
        EXPECT_LE(b.text.size(), ORD_HEAD_MAX);
        EXPECT_EQ(parse_http(b.text), src + "?expiry=1700000000 [" + dst + "]");
    }
}

TEST(Order, OrdersReadBackThroughTheDaemonsOwnParsers) {
    scratch tmp;
    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s", tmp.data_dir.c_str());
    // Source, destination, the file the daemon names.
    const char *const trips[][3] = {
        {"http://o.example/live/a.ts", "cache/a.ts", "cache/a.ts"},
        {"http://o.example/live/a.ts", "", "live/a.ts"},
        {"http://o.example:8080/src/x/dst/SRC/Dst/a.ts", "y/src/dst/z", "y/src/dst/z"},
        {"http://o/a b+c%41%2f%2F~!$&'()*,;=:", "d b/f+g%h#@.ts", "d b/f+g%h#@.ts"},
        {"http://o/dir/", "f.ts", "f.ts"},
        {"http://o//double//slash", "d//e", "d//e"},
        {"http://o/x", "///lead/slashes", "lead/slashes"},
        {"http://o/a.ts?q=1&r=a+b?c", "", "a.ts?q=1&r=a+b?c"},
    };
    for (const auto &[src_url, dst_path, final_path] : trips) {
        SCOPED_TRACE(std::string(src_url) + " [" + dst_path + "]");
        const std::string want_dst = dst_path + strspn(dst_path, "/");
        built b = build("ord-0042", src_url, dst_path, 1712345678);
        ASSERT_EQ(b.rc, 0) << b.why;
        // The channel works on the text after "#!", in place.
        char *url = nullptr, *lid = nullptr;
        time_t expiry = 0;
        ASSERT_EQ(parse_msg(b.text.data() + 2, &url, &lid, &expiry), 0);
        EXPECT_EQ(std::string(lid) + " " + std::to_string(expiry), "ord-0042 1712345678");
        char src[256] = {}, dst[256] = {};
        ASSERT_EQ(web_parse_url(url, src, dst, 255), 0) << url;
        EXPECT_EQ(std::string(src) + " [" + dst + "]", src_url + (" [" + want_dst + "]"));
        // The engine's order record names the file ord_final_path predicts.
        dw_spec spec{};
        ASSERT_EQ(setup_dw_spec(src, dst, 255, &spec), 0);
        EXPECT_STREQ(spec.url, src_url);
        EXPECT_STREQ(spec.dst_path, final_path);
        ord_spec o{src_url, dst_path, nullptr, 0};
        char fp[ORD_DST_MAX + 1], why[ORD_WHY_SIZE];
        ASSERT_EQ(ord_final_path(&o, fp, sizeof fp, why, sizeof why), 0) << why;
        EXPECT_STREQ(fp, final_path);
        if (strchr(src_url, '?') != nullptr) continue;  // a source query travels over UDP only
        // Over HTTP the request's query is appended to the source, and cut off again.
        b = build(nullptr, src_url, dst_path, 1712345678);
        EXPECT_EQ(parse_http(b.text), src_url + ("?expiry=1712345678 [" + want_dst + "]"));
    }
    free_trov_config(&g_cfg);
}

TEST(Order, DatagramCheckFollowsTheChannelsSplit) {
    // "#!" + lid + " " + url18 + " 1" is 23 bytes + the lid.
    const std::string url18 = "http://0/src/x/dst", m32 = "#!iiiiiiiii " + url18 + " 1";
    const std::string m1400 = m32 + " " + std::string(1400 - m32.size() - 1, 'r');
    const std::tuple<std::string, int, const char *> cases[] = {
        {"#!iiiiiiii " + url18 + " 1", 22, "31 bytes"},
        {m32, 0, ""},
        {m1400, 0, ""},
        {m1400 + "r", 22, "1401 bytes"},
        {"#?" + m32.substr(2), 22, "\"#!\""},
        {HEAD31 + url18 + " soon", 22, "not a number"},
        {HEAD31 + "http://0/src/ab 1", 22, "15 characters"},
        {HEAD31 + url18 + " \t ", 22, "no expiry"},
        {HEAD31 + url18 + "\t-5 and a word", 0, ""},
        {HEAD31 + "http://" + std::string(127, 'p') + " 1", 0, ""},
        {HEAD31 + "http://" + std::string(128, 'p') + " 1", 22, "path is 128"},
        {HEAD31 + url18 + std::string(" 1\0", 3) + "x", 22, "zero byte"},
    };
    for (const auto &[text, rc, says] : cases) {
        SCOPED_TRACE(text.substr(0, 80) + " (" + std::to_string(text.size()) + " bytes)");
        built c = check(text);
        EXPECT_EQ(c.rc, rc) << c.why;
        EXPECT_NE(c.why.find(says), std::string::npos) << c.why;
        EXPECT_EQ(c.why.empty(), rc == 0);
    }
}

TEST(Order, CommandArgumentsAreReadStrictly) {
    long v = 0;
    EXPECT_TRUE(ord_parse_expiry("+60", 1000, &v) == 0 && v == 1060) << v;
    for (const char *bad : {"-5", "+-5", "12x", " 5", "99999999999999999999"})
        EXPECT_EQ(ord_parse_expiry(bad, 1000, &v), 22) << bad;
    EXPECT_TRUE(ordcli_parse_timeout("0.0001", &v) == 0 && v == 1) << v;  // never none: rounded up
    EXPECT_TRUE(ordcli_parse_timeout("604800", &v) == 0 && v == 604800000) << v;
    for (const char *x : {"0", "604801", "nan", "5s"})
        EXPECT_EQ(ordcli_parse_timeout(x, &v), 22) << x;
    char host[ORDCLI_HOST_SIZE] = "", port[ORDCLI_PORT_SIZE] = "";
    EXPECT_EQ(ordcli_parse_endpoint("[::1]:65535", host, sizeof host, port, sizeof port), 0);
    EXPECT_EQ(std::string(host) + " " + port, "::1 65535");
    for (const char *bad : {"::1:80", "host:", ":80", "[::1:80", "host:0", "host:65536"})
        EXPECT_EQ(ordcli_parse_endpoint(bad, host, sizeof host, port, sizeof port), 22) << bad;
}

TEST(Order, WaitShowsItsProgressAndTimesOutOnATemporaryFileAlone) {
    scratch tmp;
    char why[256] = "";
    fw_ctx w{};
    // Only the final name counts: an unfinished "-Trov" file is no result.
    ASSERT_EQ(fw_open(&w, tmp.data_dir.c_str(), "d/late.ts", why, sizeof why), 0) << why;
    ASSERT_EQ(mkdir((tmp.data_dir + "/d").c_str(), 0755), 0);
    std::ofstream(tmp.data_dir + "/d/late.ts-Trov") << "01234";
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC | O_NONBLOCK), 0);
    long long size = -1;
    long elapsed = 0;
    EXPECT_EQ(fw_wait(&w, 300, pipefd[1], &size, &elapsed), 62);
    EXPECT_TRUE(elapsed >= 300 && size == -1) << elapsed << " ms, " << size << " bytes";
    fw_close(&w);
    // The progress line redraws after "\r", never starts a new line, and is cleared at the end.
    char out[8192];
    ssize_t n = read(pipefd[0], out, sizeof out);
    for (int fd : pipefd) close(fd);
    std::string shown(out, size_t(n > 0 ? n : 0));
    EXPECT_EQ(shown.rfind("\rtrov-order: waiting for d/late.ts: 0.", 0), 0u) << shown;
    EXPECT_TRUE(shown.ends_with("\r\033[K")) << shown;
    EXPECT_EQ(shown.find('\n'), std::string::npos);
}

}  // namespace

// Tests of trov-order's order builders: the bounds of the daemon's channels
// and the round trip through the daemon's own parsers; also the command's
// argument readers and the wait's progress line.
#include "order.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

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
built build(const char *lid, const std::string &src, const std::string &dst,
            long expiry = 1700000000) {
    ord_spec o{src.c_str(), dst.c_str(), lid, expiry};
    char buf[2048];
    char why[ORD_WHY_SIZE] = "";
    size_t len = 0;
    int rc = lid != nullptr
                 ? ord_build_datagram(&o, buf, sizeof buf, &len, why, sizeof why)
                 : ord_build_http(&o, "127.0.0.1:8080", buf, sizeof buf, &len, why, sizeof why);
    return {rc, rc == 0 ? std::string(buf, len) : "", why};
}

int check(const std::string &msg, std::string *why) {
    char w[ORD_WHY_SIZE] = "";
    int rc = ord_check_datagram(msg.data(), msg.size(), w, sizeof w);
    *why = w;
    return rc;
}

// The HTTP order's head through the listener's parser: source and destination.
int parse_http(std::string head, std::string *src, std::string *dst) {
    char s[256] = {}, d[256] = {};
    http_header hdr{};
    int rc = web_parse_urq(head.data(), head.size(), s, d, sizeof s, &hdr);
    *src = s;
    *dst = d;
    return rc != 0 ? rc : hdr.type == HTTP_MT_GET ? 0 : -1;
}

const std::string S31(31, 'i'), S32(32, 'i');

// A scratch directory (the runner's), removed at the end of the scope.
struct scratch : daemon_proc {
    scratch() : daemon_proc{} { EXPECT_EQ(daemon_init(this, ""), 0); }
    ~scratch() { daemon_destroy(this); }
};

TEST(Order, BuildersRefuseWhatTheDaemonWouldRejectAndSayWhy) {
    // A source whose order URL path ("0/src/" + source + "/dst") is exactly
    // 127 characters, and one a character longer. Blanks go out as "%20": the
    // last one would fit as typed (path 120) but not encoded (path 130).
    const std::string src117 = "http://o/" + std::string(108, 'a');
    const std::string src_blanks = "http://o/" + std::string(96, 'a') + "     ";
    const std::string src127 = "http://o/" + std::string(118, 'b');
    // The listener cuts each endpoint, still encoded, into 256 bytes: a "+"
    // or "%" takes three. These parts come to exactly 255 encoded.
    const std::string src255 = "http://o/" + std::string(64, '+') + std::string(54, 'a');
    const std::string dst255 = std::string(67, '%') + std::string(54, 'b');
    const char *http = nullptr;
    struct Case {
        const char *lid;  // null: an HTTP order
        std::string src, dst;
        int rc;
        const char *says;  // part of the reason; "" for an accepted order
    } cases[] = {
        {"abc", "http://o/a.ts", "", 22, "4 to 31"},
        {"abcd", "http://o/a.ts", "", 0, ""},
        {S31.c_str(), "http://o/a.ts", "", 0, ""},
        {S32.c_str(), "http://o/a.ts", "", 22, "32 characters"},
        {"", "http://o/a.ts", "", 22, "no order identifier"},
        {"ab cd", "http://o/a.ts", "", 22, "blank"},
        {"ab/cd", "http://o/a.ts", "", 22, "lock file"},
        {"abcd", "https://o/a.ts", "", 22, "https"},
        {http, "", "x", 22, "no source"},
        {http, "http:///a.ts", "x", 22, "no host"},
        {http, "http://o/", "", 22, "no path"},
        {http, "http://o", "x.ts", 0, ""},
        {http, "http://o/dir/", "", 22, "directory"},
        {http, "http://o/a.ts", "a/../../x", 22, "\"..\""},
        {http, "http://o/a.ts", "a/..x/...", 0, ""},
        {http, "http://o/a.ts", "x.ts-Trov", 22, "unfinished"},
        {http, "http://o/a.ts", "caf\xc3\xa9", 22, "0xC3"},
        {http, "http://o/a.ts?x=1", "x", 22, "query"},
        {http, src127, "x", 0, ""},
        {http, src127 + "b", "x", 34, "at most 127"},
        {http, "http://o/a.ts", std::string(121, 'd'), 0, ""},
        {http, "http://o/a.ts", std::string(122, 'd'), 34, "at most 121"},
        {http, src255, dst255, 0, ""},
        {http, "http://o/" + std::string(65, '+') + std::string(53, 'a'), dst255, 34,
         "source is 257 characters once percent-encoded"},
        {http, src255, std::string(68, '%') + std::string(53, 'b'), 34,
         "destination is 257 characters"},
        {"abcd", src117, "", 0, ""},
        {"abcd", src117 + "a", "", 34, "path would be 128"},
        {"abcd", src_blanks, "", 34, "path would be 130"},
        {"abcd", "http://o/a.ts?x=1", "x", 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.lid ? c.lid : "http") + " " + c.src + " [" + c.dst + "]");
        built b = build(c.lid, c.src, c.dst);
        EXPECT_EQ(b.rc, c.rc) << b.why;
        EXPECT_NE(b.why.find(c.says), std::string::npos) << b.why;
        EXPECT_EQ(b.why.empty() && !b.text.empty(), c.rc == 0) << b.why;
        // What is built reads back: the datagram through the channel's
        // check, the HTTP order through the listener's parser.
        std::string why, s, d;
        if (c.rc == 0 && c.lid != nullptr) {
            EXPECT_EQ(check(b.text, &why), 0) << why;
        } else if (c.rc == 0) {
            EXPECT_LE(b.text.size(), ORD_HEAD_MAX);
            ASSERT_EQ(parse_http(b.text, &s, &d), 0);
            EXPECT_EQ(s, c.src + "?expiry=1700000000");
            EXPECT_EQ(d, c.dst);
        }
    }
}

TEST(Order, OrdersReadBackThroughTheDaemonsOwnParsers) {
    scratch tmp;
    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s", tmp.data_dir.c_str());
    struct RoundTrip {
        const char *src, *dst;
        const char *final_path;  // the file the daemon names
    } trips[] = {
        {"http://o.example/live/a.ts", "cache/a.ts", "cache/a.ts"},
        {"http://o.example/live/a.ts", "", "live/a.ts"},
        {"http://o.example:8080/src/x/dst/SRC/Dst/a.ts", "y/src/dst/z", "y/src/dst/z"},
        {"http://o/a b+c%41%2f%2F~!$&'()*,;=:", "dir with blanks/f+g%h#@.ts",
         "dir with blanks/f+g%h#@.ts"},
        {"http://o/dir/", "f.ts", "f.ts"},
        {"http://o//double//slash", "d//e", "d//e"},
        {"http://o/x", "///lead/slashes", "lead/slashes"},
        {"http://o/a.ts?q=1&r=a+b?c", "", "a.ts?q=1&r=a+b?c"},
        {"http://o/a.ts?q=1", "x/y", "x/y"},
    };
    for (const RoundTrip &t : trips) {
        SCOPED_TRACE(std::string(t.src) + " [" + t.dst + "]");
        std::string want_dst = t.dst;
        want_dst.erase(0, want_dst.find_first_not_of('/'));
        built b = build("ord-0042", t.src, t.dst, 1712345678);
        ASSERT_EQ(b.rc, 0) << b.why;
        // The channel works on the text after "#!", in place.
        char *url = nullptr, *lid = nullptr;
        time_t expiry = 0;
        ASSERT_EQ(parse_msg(b.text.data() + 2, &url, &lid, &expiry), 0);
        EXPECT_STREQ(lid, "ord-0042");
        EXPECT_EQ(expiry, 1712345678);
        char src[256] = {}, dst[256] = {};
        ASSERT_EQ(web_parse_url(url, src, dst, 255), 0) << url;
        EXPECT_STREQ(src, t.src);
        EXPECT_EQ(dst, want_dst);
        // The engine's order record names the file ord_final_path predicts.
        dw_spec spec{};
        ASSERT_EQ(setup_dw_spec(src, dst, 255, &spec), 0);
        EXPECT_STREQ(spec.url, t.src);
        EXPECT_STREQ(spec.dst_path, t.final_path);
        ord_spec o{t.src, t.dst, nullptr, 0};
        char fp[ORD_DST_MAX + 1], why[ORD_WHY_SIZE];
        ASSERT_EQ(ord_final_path(&o, fp, sizeof fp, why, sizeof why), 0) << why;
        EXPECT_STREQ(fp, t.final_path);
        if (strchr(t.src, '?') != nullptr) continue;  // a source query travels over UDP only
        // Over HTTP the request's query is appended to the source, and cut
        // off again before the order is built.
        b = build(nullptr, t.src, t.dst, 1712345678);
        ASSERT_EQ(b.rc, 0) << b.why;
        std::string s, d;
        ASSERT_EQ(parse_http(b.text, &s, &d), 0);
        EXPECT_EQ(s, std::string(t.src) + "?expiry=1712345678");
        EXPECT_EQ(d, want_dst);
    }
    free_trov_config(&g_cfg);
}

TEST(Order, DatagramCheckFollowsTheChannelsSplit) {
    // "#!" + lid + " " + url18 + " 1" is 23 bytes + the lid.
    const std::string url18 = "http://0/src/x/dst";
    const std::string m32 = "#!iiiiiiiii " + url18 + " 1";
    const std::string m1400 = m32 + " " + std::string(1400 - m32.size() - 1, 'r');
    const std::string head = "#!" + S31 + " ";
    struct Case {
        std::string text;
        int rc;
        const char *says;
    } cases[] = {
        {"#!iiiiiiii " + url18 + " 1", 22, "31 bytes"},
        {m32, 0, ""},
        {m1400, 0, ""},
        {m1400 + "r", 22, "1401 bytes"},
        {"#?" + m32.substr(2), 22, "\"#!\""},
        {head + url18 + " soon", 22, "not a number"},
        {head + "http://0/src/ab 1", 22, "15 characters"},
        {head + url18 + " \t ", 22, "no expiry"},
        {head + url18 + "\t-5 and a word", 0, ""},
        {head + "http://" + std::string(127, 'p') + " 1", 0, ""},
        {head + "http://" + std::string(128, 'p') + " 1", 22, "path is 128"},
        {head + url18 + std::string(" 1\0", 3) + "x", 22, "zero byte"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 80) + " (" + std::to_string(c.text.size()) + " bytes)");
        std::string why;
        EXPECT_EQ(check(c.text, &why), c.rc) << why;
        EXPECT_NE(why.find(c.says), std::string::npos) << why;
        EXPECT_EQ(why.empty(), c.rc == 0);
    }
}

TEST(Order, CommandArgumentsAreReadStrictly) {
    long v = 0;
    EXPECT_EQ(ord_parse_expiry("+60", 1000, &v), 0);
    EXPECT_EQ(v, 1060);
    for (const char *bad : {"-5", "+-5", "12x", " 5", "99999999999999999999"})
        EXPECT_EQ(ord_parse_expiry(bad, 1000, &v), 22) << bad;
    EXPECT_EQ(ordcli_parse_timeout("0.0001", &v), 0);
    EXPECT_EQ(v, 1);  // rounded up: a time-out never reads as none
    EXPECT_EQ(ordcli_parse_timeout("604800", &v), 0);
    EXPECT_EQ(v, 604800000);
    for (const char *bad : {"0", "604801", "nan", "5s"})
        EXPECT_EQ(ordcli_parse_timeout(bad, &v), 22) << bad;
    char host[ORDCLI_HOST_SIZE] = "", port[ORDCLI_PORT_SIZE] = "";
    EXPECT_EQ(ordcli_parse_endpoint("[::1]:65535", host, sizeof host, port, sizeof port), 0);
    EXPECT_STREQ(host, "::1");
    EXPECT_STREQ(port, "65535");
    for (const char *bad : {"::1:80", "host:", ":80", "[::1:80", "host:0", "host:65536"})
        EXPECT_EQ(ordcli_parse_endpoint(bad, host, sizeof host, port, sizeof port), 22) << bad;
}

TEST(Order, WaitShowsItsProgressAndTimesOutOnATemporaryFileAlone) {
    scratch tmp;
    const std::string dir = tmp.data_dir;
    char why[256] = "";
    fw_ctx w{};
    // Only the final name counts: an unfinished "-Trov" file is no result.
    ASSERT_EQ(fw_open(&w, dir.c_str(), "d/late.ts", why, sizeof why), 0) << why;
    ASSERT_EQ(mkdir((dir + "/d").c_str(), 0755), 0);
    std::ofstream(dir + "/d/late.ts-Trov") << "01234";
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC | O_NONBLOCK), 0);
    long long size = -1;
    long elapsed = 0;
    EXPECT_EQ(fw_wait(&w, 300, pipefd[1], &size, &elapsed), 62);
    EXPECT_GE(elapsed, 300);
    EXPECT_EQ(size, -1);
    fw_close(&w);
    // The progress line rewrites itself with a carriage return and is
    // cleared at the end; it never starts a new line.
    char out[8192];
    ssize_t n = read(pipefd[0], out, sizeof out);
    close(pipefd[0]);
    close(pipefd[1]);
    std::string shown(out, size_t(n > 0 ? n : 0));
    EXPECT_EQ(shown.rfind("\rtrov-order: waiting for d/late.ts: 0.", 0), 0u) << shown;
    EXPECT_TRUE(shown.ends_with("\r\033[K")) << shown;
    EXPECT_EQ(shown.find('\n'), std::string::npos);
}

}  // namespace

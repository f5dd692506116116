// Tests of the order builders of trov-order: the bounds of the daemon's
// channels, and the round trip through the daemon's own parsers, which is
// what decides whether an order reads back as it was meant. Also the
// command's argument readers and the wait for the final file.
#include "order.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "app.h"
#include "cfg.h"
#include "fwait.h"
#include "ordcli.h"
#include "rq.h"
#include "udl.h"
#include "webops.h"

namespace {

struct built {
    int rc;
    std::string text;
    std::string why;
};

built datagram(const char *lid, const char *src, const char *dst, long expiry = 1700000000) {
    ord_spec o{src, dst, lid, expiry};
    char buf[2048];
    char why[ORD_WHY_SIZE] = "";
    size_t len = 0;
    int rc = ord_build_datagram(&o, buf, sizeof buf, &len, why, sizeof why);
    return {rc, rc == 0 ? std::string(buf, len) : "", why};
}

built http(const char *src, const char *dst, long expiry = 1700000000) {
    ord_spec o{src, dst, nullptr, expiry};
    char buf[2048];
    char why[ORD_WHY_SIZE] = "";
    size_t len = 0;
    int rc = ord_build_http(&o, "127.0.0.1:8080", buf, sizeof buf, &len, why, sizeof why);
    return {rc, rc == 0 ? std::string(buf, len) : "", why};
}

int check(const std::string &msg, std::string *why = nullptr) {
    char w[ORD_WHY_SIZE] = "";
    int rc = ord_check_datagram(msg.data(), msg.size(), w, sizeof w);
    if (why != nullptr) *why = w;
    return rc;
}

class TempDir {
   public:
    TempDir() {
        char tmpl[] = "/tmp/order_test.XXXXXX";
        char *p = mkdtemp(tmpl);
        if (p != nullptr) path_ = p;
    }
    ~TempDir() {
        if (!path_.empty()) (void)!system(("rm -rf '" + path_ + "'").c_str());
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

   private:
    std::string path_;
};

const std::string S31(31, 'i');
const std::string S32(32, 'i');

TEST(Order, BuildersRefuseWhatTheDaemonWouldRejectAndSayWhy) {
    // A source whose order URL path ("0/src/" + source + "/dst") is exactly
    // 127 characters, and one a character longer.
    const std::string src117 = "http://o/" + std::string(117 - 9, 'a');
    const std::string src118 = src117 + "a";
    // Blanks are sent as "%20": this source would fit as typed (path 120)
    // but not encoded (path 130).
    const std::string src_blanks = "http://o/" + std::string(110 - 9 - 5, 'a') + "     ";
    const std::string src127 = "http://o/" + std::string(127 - 9, 'b');
    const std::string src128 = src127 + "b";
    const std::string dst121(121, 'd');
    const std::string dst122(122, 'd');
    struct Case {
        bool over_http;
        const char *lid;
        std::string src;
        std::string dst;
        int rc;
        const char *says;  // part of the reason; "" for an accepted order
    } cases[] = {
        {false, "abc", "http://o/a.ts", "", 22, "4 to 31"},
        {false, "abcd", "http://o/a.ts", "", 0, ""},
        {false, S31.c_str(), "http://o/a.ts", "", 0, ""},
        {false, S32.c_str(), "http://o/a.ts", "", 22, "32 characters"},
        {false, "", "http://o/a.ts", "", 22, "no order identifier"},
        {false, "ab cd", "http://o/a.ts", "", 22, "blank"},
        {false, "ab\tcd", "http://o/a.ts", "", 22, "0x09"},
        {false, "ab/cd", "http://o/a.ts", "", 22, "lock file"},
        {false, "abcd", "https://o/a.ts", "", 22, "https"},
        {true, nullptr, "HTTP://o/a.ts", "", 22, "lower case"},
        {true, nullptr, "ftp://o/a.ts", "", 22, "http://"},
        {true, nullptr, "", "x", 22, "no source"},
        {true, nullptr, "http://", "x", 22, "no host"},
        {true, nullptr, "http:///a.ts", "x", 22, "no host"},
        {true, nullptr, "http://o", "", 22, "no path"},
        {true, nullptr, "http://o/", "", 22, "no path"},
        {true, nullptr, "http://o", "x.ts", 0, ""},
        {true, nullptr, "http://o/dir/", "", 22, "directory"},
        {true, nullptr, "http://o/a/../../etc/x", "", 22, "\"..\""},
        {true, nullptr, "http://o/a.ts", "../x", 22, "\"..\""},
        {true, nullptr, "http://o/a.ts", "a/../../x", 22, "\"..\""},
        {true, nullptr, "http://o/a.ts", "a/..x/...", 0, ""},
        {true, nullptr, "http://o/a.ts", "x/", 22, "directory"},
        {true, nullptr, "http://o/a.ts", "x/.", 22, "directory"},
        {true, nullptr, "http://o/a.ts", "./x", 0, ""},
        {true, nullptr, "http://o/a.ts", "x.ts-Trov", 22, "unfinished"},
        {true, nullptr, "http://o/\xc3\xa9.ts", "", 22, "0xC3"},
        {true, nullptr, "http://o/a.ts", "caf\xc3\xa9", 22, "0xC3"},
        {true, nullptr, "http://o/a\x7f", "x", 22, "0x7F"},
        {true, nullptr, "http://o/a.ts?x=1", "x", 22, "query"},
        {true, nullptr, src127, "x", 0, ""},
        {true, nullptr, src128, "x", 34, "at most 127"},
        {true, nullptr, "http://o/a.ts", dst121, 0, ""},
        {true, nullptr, "http://o/a.ts", dst122, 34, "at most 121"},
        {false, "abcd", src117, "", 0, ""},
        {false, "abcd", src118, "", 34, "path would be 128"},
        {false, "abcd", src_blanks, "", 34, "path would be 130"},
        {false, "abcd", "http://o/a.ts?x=1", "x", 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE((c.over_http ? "http " : "udp ") + std::string(c.lid ? c.lid : "-") + " " +
                     c.src + " [" + c.dst + "]");
        built b = c.over_http ? http(c.src.c_str(), c.dst.c_str())
                              : datagram(c.lid, c.src.c_str(), c.dst.c_str());
        EXPECT_EQ(b.rc, c.rc) << b.why;
        if (c.rc != 0) {
            EXPECT_NE(b.why.find(c.says), std::string::npos) << b.why;
            EXPECT_TRUE(b.text.empty());
        } else if (!c.over_http) {
            EXPECT_EQ(check(b.text), 0) << b.text;
        }
    }
}

TEST(Order, HttpOrderAtTheEncodedBoundsStillReadsBack) {
    // The listener cuts each endpoint, still encoded, into 256 bytes: a
    // "+" or "%" takes three. These parts come to exactly 255 encoded.
    const std::string src = "http://o/" + std::string(64, '+') + std::string(54, 'a');
    const std::string dst = std::string(67, '%') + std::string(54, 'b');
    ASSERT_EQ(src.size(), ORD_SRC_MAX);
    ASSERT_EQ(dst.size(), ORD_DST_MAX);
    built b = http(src.c_str(), dst.c_str());
    ASSERT_EQ(b.rc, 0) << b.why;
    EXPECT_GT(b.text.size(), 32u);  // past the listener's wake-up mark
    EXPECT_LE(b.text.size(), ORD_HEAD_MAX);
    std::string head = b.text;
    char s[256] = {};
    char d[256] = {};
    http_header hdr{};
    ASSERT_EQ(web_parse_urq(head.data(), head.size(), s, d, sizeof s, &hdr), 0);
    EXPECT_EQ(std::string(s), src + "?expiry=1700000000");
    EXPECT_EQ(std::string(d), dst);

    const std::string src_over = "http://o/" + std::string(65, '+') + std::string(53, 'a');
    b = http(src_over.c_str(), dst.c_str());
    EXPECT_EQ(b.rc, 34);
    EXPECT_NE(b.why.find("source is 257 characters once percent-encoded"), std::string::npos)
        << b.why;
    const std::string dst_over = std::string(68, '%') + std::string(53, 'b');
    b = http(src.c_str(), dst_over.c_str());
    EXPECT_EQ(b.rc, 34);
    EXPECT_NE(b.why.find("destination is 257 characters"), std::string::npos) << b.why;

    b = http("http://o/a", "b");
    ASSERT_EQ(b.rc, 0);
    EXPECT_EQ(b.text.find("GET /src/http://o/a/dst/b?expiry=1700000000 HTTP/1.1\r\n"), 0u)
        << b.text;
    EXPECT_NE(b.text.find("\r\nHost: 127.0.0.1:8080\r\n"), std::string::npos);
    EXPECT_NE(b.text.find("\r\nUser-Agent: trov-order/"), std::string::npos);
}

// Sources and destinations that need care on the way: every one must come
// out of the daemon's parsers exactly as it went in.
struct RoundTrip {
    const char *src;
    const char *dst;
    const char *final_path;  // the file the daemon names
};
const RoundTrip k_round_trips[] = {
    {"http://o.example/live/a.ts", "cache/a.ts", "cache/a.ts"},
    {"http://o.example/live/a.ts", "", "live/a.ts"},
    {"http://o.example:8080/src/x/dst/SRC/Dst/a.ts", "y/src/dst/z", "y/src/dst/z"},
    {"http://o/src/dst", "", "src/dst"},
    {"http://o/a b+c%41%2f%2F~!$&'()*,;=:", "dir with blanks/f+g%h#@.ts",
     "dir with blanks/f+g%h#@.ts"},
    {"http://o/dir/", "f.ts", "f.ts"},
    {"http://o//double//slash", "d//e", "d//e"},
    {"http://o/x", "///lead/slashes", "lead/slashes"},
    {"http://o/p@q", "", "p@q"},
};

TEST(Order, DatagramReadsBackThroughTheDaemonsParsers) {
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    snprintf(g_cfg.data_dir, sizeof g_cfg.data_dir, "%s", tmp.path().c_str());
    // A source query travels over UDP (and only there).
    RoundTrip with_query[] = {{"http://o/a.ts?q=1&r=a+b?c", "", "a.ts?q=1&r=a+b?c"},
                              {"http://o/a.ts?q=1", "x/y", "x/y"}};
    std::vector<RoundTrip> all(std::begin(k_round_trips), std::end(k_round_trips));
    all.insert(all.end(), std::begin(with_query), std::end(with_query));
    for (const RoundTrip &t : all) {
        SCOPED_TRACE(std::string(t.src) + " [" + t.dst + "]");
        built b = datagram("ord-0042", t.src, t.dst, 1712345678);
        ASSERT_EQ(b.rc, 0) << b.why;
        EXPECT_EQ(check(b.text), 0);
        // The channel works on the text after "#!", in place.
        char buf[UDL_RECV_SIZE + 1] = {};
        ASSERT_LT(b.text.size(), sizeof buf);
        memcpy(buf, b.text.data(), b.text.size());
        char *url = nullptr;
        char *lid = nullptr;
        time_t expiry = 0;
        ASSERT_EQ(parse_msg(buf + 2, &url, &lid, &expiry), 0);
        EXPECT_STREQ(lid, "ord-0042");
        EXPECT_EQ(expiry, 1712345678);
        char src[256] = {};
        char dst[256] = {};
        ASSERT_EQ(web_parse_url(url, src, dst, 255), 0) << url;
        EXPECT_STREQ(src, t.src);
        std::string want_dst = t.dst;
        while (!want_dst.empty() && want_dst[0] == '/') want_dst.erase(0, 1);
        EXPECT_EQ(dst, want_dst);
        // The engine's order record names the file ord_final_path predicts.
        dw_spec spec{};
        ASSERT_EQ(setup_dw_spec(src, dst, 255, &spec), 0);
        EXPECT_STREQ(spec.url, t.src);
        EXPECT_STREQ(spec.dst_path, t.final_path);
        ord_spec o{t.src, t.dst, nullptr, 0};
        char fp[ORD_DST_MAX + 1];
        char why[ORD_WHY_SIZE];
        ASSERT_EQ(ord_final_path(&o, fp, sizeof fp, why, sizeof why), 0) << why;
        EXPECT_STREQ(fp, t.final_path);
    }
}

TEST(Order, HttpOrderReadsBackThroughTheListenersParser) {
    for (const RoundTrip &t : k_round_trips) {
        SCOPED_TRACE(std::string(t.src) + " [" + t.dst + "]");
        built b = http(t.src, t.dst, 1712345678);
        ASSERT_EQ(b.rc, 0) << b.why;
        std::string head = b.text;
        char src[256] = {};
        char dst[256] = {};
        http_header hdr{};
        ASSERT_EQ(web_parse_urq(head.data(), head.size(), src, dst, sizeof src, &hdr), 0);
        EXPECT_EQ(hdr.type, HTTP_MT_GET);
        // The request's query is appended to the source, and cut off again
        // before the order is built.
        std::string s = src;
        size_t q = s.find('?');
        ASSERT_NE(q, std::string::npos) << s;
        EXPECT_EQ(s.substr(0, q), t.src);
        EXPECT_EQ(s.substr(q + 1), "expiry=1712345678");
        std::string want_dst = t.dst;
        while (!want_dst.empty() && want_dst[0] == '/') want_dst.erase(0, 1);
        EXPECT_EQ(dst, want_dst);
    }
}

TEST(Order, DatagramCheckFollowsTheChannelsSplit) {
    // "#!" + lid + " " + "http://0/src/x/dst" + " 1" is 23 bytes + the lid.
    const std::string url18 = "http://0/src/x/dst";
    auto msg = [&](size_t lid_len, const std::string &tail = " 1") {
        return "#!" + std::string(lid_len, 'i') + " " + url18 + tail;
    };
    const std::string m32 = msg(9);
    const std::string m1400 = m32 + " " + std::string(1400 - m32.size() - 1, 'r');
    struct Case {
        std::string text;
        int rc;
        const char *says;
    } cases[] = {
        {msg(8), 22, "31 bytes"},
        {m32, 0, ""},
        {m1400, 0, ""},
        {m1400 + "r", 22, "1401 bytes"},
        {"#?" + m32.substr(2), 22, "\"#!\""},
        {" #!" + m32.substr(2), 22, "\"#!\""},
        {"#!" + std::string(40, 'i'), 22, "no blank"},
        {"#!iii " + url18 + " 1" + std::string(30, ' '), 22, "3 characters"},
        {"#!" + S32 + " " + url18 + " 1", 22, "32 characters"},
        {"#!" + S31 + " " + url18 + " 1", 0, ""},
        {"#!abcd  " + url18 + " 1" + std::string(20, ' '), 22, "is 0 characters"},
        {"#!" + S31 + " http://0/src/ab 1", 22, "15 characters"},
        {"#!" + S31 + " http://0/src/abc 1", 0, ""},
        {"#!" + S31 + " " + url18, 22, "no expiry"},
        {"#!" + S31 + " " + url18 + " \t ", 22, "no expiry"},
        {"#!" + S31 + " " + url18 + " #1", 22, "no expiry"},
        {"#!" + S31 + " " + url18 + " soon", 22, "not a number"},
        {"#!" + S31 + " " + url18 + "\t-5 and a word", 0, ""},
        {"#!" + S31 + " " + url18 + " 1\r\n", 0, ""},
        {"#!" + S31 + " http://" + std::string(127, 'p') + " 1", 0, ""},
        {"#!" + S31 + " http://" + std::string(128, 'p') + " 1", 22, "path is 128"},
        {"#!" + S31 + " http://0/" + std::string(130, 'p') + "?q 1", 22, "path is 132"},
        {"#!" + S31 + " http://0/" + std::string(117, 'p') + "?q 1", 0, ""},
        {"#!" + S31 + " " + url18 + std::string(" 1\0", 3) + "x", 22, "zero byte"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 80) + " (" + std::to_string(c.text.size()) + " bytes)");
        std::string why;
        EXPECT_EQ(check(c.text, &why), c.rc) << why;
        if (c.rc != 0) {
            EXPECT_NE(why.find(c.says), std::string::npos) << why;
        }
    }
}

TEST(Order, CommandArgumentsAreReadStrictly) {
    struct Expiry {
        const char *text;
        int rc;
        long value;
    } expiries[] = {
        {"+60", 0, 1060},
        {"1700000000", 0, 1700000000},
        {"0", 0, 0},
        {"+0", 0, 1000},
        {"-5", 22, 0},
        {"+", 22, 0},
        {"+-5", 22, 0},
        {"12x", 22, 0},
        {"", 22, 0},
        {" 5", 22, 0},
        {"99999999999999999999", 22, 0},
    };
    for (const Expiry &e : expiries) {
        SCOPED_TRACE(e.text);
        long v = -1;
        EXPECT_EQ(ord_parse_expiry(e.text, 1000, &v), e.rc);
        if (e.rc == 0) {
            EXPECT_EQ(v, e.value);
        }
    }

    struct Endpoint {
        const char *text;
        int rc;
        const char *host;
        const char *port;
    } endpoints[] = {
        {"127.0.0.1:8080", 0, "127.0.0.1", "8080"},
        {"[::1]:80", 0, "::1", "80"},
        {"localhost:65535", 0, "localhost", "65535"},
        {"::1:80", 22, "", ""},
        {"host", 22, "", ""},
        {"host:", 22, "", ""},
        {":80", 22, "", ""},
        {"[]:80", 22, "", ""},
        {"[::1:80", 22, "", ""},
        {"host:0", 22, "", ""},
        {"host:65536", 22, "", ""},
        {"host:123456", 22, "", ""},
        {"host:8a", 22, "", ""},
        {"host:-1", 22, "", ""},
    };
    for (const Endpoint &e : endpoints) {
        SCOPED_TRACE(e.text);
        char host[ORDCLI_HOST_SIZE] = "";
        char port[ORDCLI_PORT_SIZE] = "";
        ASSERT_EQ(ordcli_parse_endpoint(e.text, host, sizeof host, port, sizeof port), e.rc);
        if (e.rc == 0) {
            EXPECT_STREQ(host, e.host);
            EXPECT_STREQ(port, e.port);
        }
    }

    struct Timeout {
        const char *text;
        int rc;
        long ms;
    } timeouts[] = {
        {"60", 0, 60000}, {"0.25", 0, 250}, {"0.0001", 0, 1}, {"604800", 0, 604800000},
        {"0", 22, 0},     {"-1", 22, 0},    {"abc", 22, 0},   {"604801", 22, 0},
        {"nan", 22, 0},   {"inf", 22, 0},   {"5s", 22, 0},    {"", 22, 0},
    };
    for (const Timeout &t : timeouts) {
        SCOPED_TRACE(t.text);
        long ms = -1;
        EXPECT_EQ(ordcli_parse_timeout(t.text, &ms), t.rc);
        if (t.rc == 0) {
            EXPECT_EQ(ms, t.ms);
        }
    }
}

void write_file(const std::string &path, size_t size) {
    std::ofstream out(path, std::ios::binary);
    out << std::string(size, 'x');
}

TEST(Order, WaitSeesAFileRenamedIntoDirectoriesMadeAfterItStarted) {
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    fw_ctx w{};
    char why[256] = "";
    ASSERT_EQ(fw_open(&w, (tmp.path() + "/").c_str(), "a/b/c/f.ts", why, sizeof why), 0) << why;
    EXPECT_EQ(std::string(w.path), tmp.path() + "/a/b/c/f.ts");
    int pipefd[2];
    ASSERT_EQ(pipe2(pipefd, O_CLOEXEC | O_NONBLOCK), 0);

    // As the daemon does it: directories first, the body under the
    // temporary name, then a rename into place; all after the wait has
    // shown its first progress line.
    std::thread maker([&] {
        pollfd p{pipefd[0], POLLIN, 0};
        (void)poll(&p, 1, 10000);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::string d = tmp.path() + "/a";
        (void)mkdir(d.c_str(), 0755);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        (void)mkdir((d += "/b").c_str(), 0755);
        (void)mkdir((d += "/c").c_str(), 0755);
        write_file(d + "/f.ts-Trov", 4321);
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        (void)rename((d + "/f.ts-Trov").c_str(), (d + "/f.ts").c_str());
    });
    long long size = 0;
    long elapsed = 0;
    int rc = fw_wait(&w, 20000, pipefd[1], &size, &elapsed);
    maker.join();
    fw_close(&w);
    fw_close(&w);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(size, 4321);
    EXPECT_GE(elapsed, 0);

    // The progress line rewrites itself with a carriage return and is
    // cleared at the end; it never starts a new line.
    char out[8192];
    ssize_t n = read(pipefd[0], out, sizeof out);
    close(pipefd[0]);
    close(pipefd[1]);
    ASSERT_GT(n, 0);
    std::string shown(out, size_t(n));
    EXPECT_EQ(shown.rfind("\rtrov-order: waiting for a/b/c/f.ts: ", 0), 0u) << shown;
    EXPECT_EQ(shown.substr(shown.size() - 4), "\r\033[K");
    EXPECT_EQ(shown.find('\n'), std::string::npos);
}

TEST(Order, WaitRefusesWhatCannotWorkAndTimesOutOnATemporaryFileAlone) {
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    char why[256] = "";
    fw_ctx w{};
    write_file(tmp.path() + "/there.ts", 10);
    EXPECT_EQ(fw_open(&w, tmp.path().c_str(), "there.ts", why, sizeof why), 17);
    EXPECT_NE(std::string(why).find("already there (10 bytes)"), std::string::npos) << why;
    fw_close(&w);
    EXPECT_EQ(fw_open(&w, (tmp.path() + "/missing").c_str(), "x", why, sizeof why), 2);
    fw_close(&w);
    EXPECT_EQ(fw_open(&w, (tmp.path() + "/there.ts").c_str(), "x", why, sizeof why), 20);
    fw_close(&w);

    // Only the final name counts: an unfinished "-Trov" file is no result.
    ASSERT_EQ(fw_open(&w, tmp.path().c_str(), "d/late.ts", why, sizeof why), 0) << why;
    ASSERT_EQ(mkdir((tmp.path() + "/d").c_str(), 0755), 0);
    write_file(tmp.path() + "/d/late.ts-Trov", 5);
    long long size = -1;
    long elapsed = 0;
    EXPECT_EQ(fw_wait(&w, 300, -1, &size, &elapsed), 62);
    EXPECT_GE(elapsed, 300);
    EXPECT_EQ(size, -1);
    fw_close(&w);
}

}  // namespace

// Tests of the HTTP message layer over real descriptors: request heads in
// exact-size buffers (the sanitizer build catches any overrun), responses
// and upstream requests read back from socketpairs and a loopback socket.
#include "webops.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "log.h"
#include "timeop.h"

namespace {

std::unique_ptr<char[]> exact(const std::string &s) {
    auto p = std::make_unique<char[]>(s.size());
    memcpy(p.get(), s.data(), s.size());
    return p;
}

// Sends the log to a scratch file for the lifetime of the object.
class LogCapture {
   public:
    LogCapture() : fp_(tmpfile()) {
        glog_init("tst");
        log_default(g_log, fp_);
        log_timefmt(g_log, TMF_NOTIME);
    }
    ~LogCapture() {
        log_default(g_log, stderr);
        log_timefmt(g_log, TMF_LOCAL);
        fclose(fp_);
    }
    std::string text() {
        fflush(fp_);
        std::string out;
        rewind(fp_);
        char chunk[512];
        for (size_t n; (n = fread(chunk, 1, sizeof(chunk), fp_)) > 0;) out.append(chunk, n);
        fseek(fp_, 0, SEEK_END);
        return out;
    }

   private:
    FILE *fp_;
};

struct SockPair {
    int fd[2] = {-1, -1};
    SockPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
    ~SockPair() {
        for (int f : fd)
            if (f >= 0) close(f);
    }
    void close_peer() {
        close(fd[1]);
        fd[1] = -1;
    }
};

std::string read_all(int fd) {
    std::string out;
    char chunk[1024];
    for (int i = 0; i < 64; ++i) {
        ssize_t n = read(fd, chunk, sizeof(chunk));
        if (n <= 0) break;
        out.append(chunk, size_t(n));
    }
    return out;
}

void set_nonblock(int fd) { ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0); }

class Webops : public ::testing::Test {
   protected:
    static void SetUpTestSuite() { signal(SIGPIPE, SIG_IGN); }
};

TEST_F(Webops, HeadEndNeedsACompleteTerminator) {
    struct Case {
        std::string head;
        size_t eod;
    };
    const Case cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", 18},
        {"GET / HTTP/1.1\n\n", 16},
        {"GET / HTTP/1.1\r\nA: b\r\n\r\nbody", 24},
        {"GET / HTTP/1.1\r\n\n", 17},  // mixed: the "\n\n" inside counts
        {"GET / HTTP/1.1\r\n\r", 0},
        {"GET / HTTP/1.1\r\n", 0},
        {"GET / HTTP/1.1\n", 0},
        {"\r", 0},
        {"", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.head);
        auto buf = exact(c.head);
        EXPECT_EQ(head_eod(buf.get(), c.head.size()), c.eod);
    }
}

TEST_F(Webops, RequestLineIsCheckedMethodTargetAndProtocol) {
    struct Case {
        std::string head;
        int rc;
        int type;
        bool http10;
        const char *log;  // expected in the log, or null
    };
    const Case cases[] = {
        {"GET /a HTTP/1.1\r\n\r\n", 0, HTTP_MT_GET, false, nullptr},
        {"get /a HTTP/1.1\r\n\r\n", 0, HTTP_MT_GET, false, nullptr},
        {"HeAd /a HTTP/1.0\r\n\r\n", 0, HTTP_MT_HEAD, true, nullptr},
        {"GET\t/a\tHTTP/1.1\r\n\r\n", 0, HTTP_MT_GET, false, nullptr},
        {"POST /a HTTP/1.1\r\n\r\n", 22, 0, false, "HTTP [POST] is NOT supported\n"},
        {"OPTIONS /a HTTP/1.1\r\n\r\n", 22, 0, false, "HTTP [OPTIONS] is NOT supported\n"},
        {"GE /a HTTP/1.1\r\n\r\n", -1, 0, false, "failed to get HTTP method"},
        {"OPTIONSX /a HTTP/1.1\r\n\r\n", -1, 0, false, "failed to get HTTP method"},
        {"GET /a HTTP/2.0\r\n\r\n", -1, 0, false,
         "parse_http_header: expected [HTTP/1.] to follow the URI path, got [HTTP/2.0]\n"},
        {"GET /a\r\n\r\n", -1, 0, false, "expected [HTTP/1.]"},
        {"GET http:// HTTP/1.1\r\n\r\n", -1, 0, false, "failed to parse URL"},
        // No terminator, no line end, not even a blank after the method.
        {"GET", -1, 0, false, nullptr},
        {"GET /aaaaaaaa", -1, 0, false, nullptr},
        {"GET /a HTTP/1.", 0, HTTP_MT_GET, false, "no header sections found"},
    };
    log_set_module_level(0, LL_DEBUG);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.head);
        LogCapture cap;
        auto buf = exact(c.head);
        http_header hdr{};
        EXPECT_EQ(parse_http_header(buf.get(), c.head.size(), &hdr, nullptr, 0), c.rc);
        if (c.log != nullptr) {
            EXPECT_NE(cap.text().find(c.log), std::string::npos) << cap.text();
        }
        if (c.rc != 0) continue;
        EXPECT_EQ(hdr.type, c.type);
        EXPECT_EQ(hdr.is_http10, c.http10);
    }
    log_set_module_level(0, LL_NORM);
}

TEST_F(Webops, HeaderFieldsAreBoundedToTheirLimits) {
    struct Case {
        std::string field;
        const char *host, *ua, *enc;
    };
    const std::string h62(62, 'h'), h63(63, 'h'), h64(64, 'h');
    const std::string u126(126, 'u'), u127(127, 'u'), u128(128, 'u');
    const std::string e30(30, 'e'), e31(31, 'e'), e40(40, 'e');
    const Case cases[] = {
        {"Host: " + h62, h62.c_str(), "", ""},
        {"Host: " + h63, h62.c_str(), "", ""},  // 63 keeps 62
        {"Host: " + h64, "", "", ""},           // 64 is dropped
        {"User-Agent: " + u127, "", u126.c_str(), ""},
        {"User-Agent: " + u128, "", "", ""},
        {"User-Agent: Mozilla/5.0 (X; Y)", "", "Mozilla%2F5.0%20(X%3B%20Y)", ""},
        {"Accept-Encoding: " + e31, "", "", e30.c_str()},
        {"Accept-Encoding: " + e40, "", "", e30.c_str()},
        {"Accept-Encoding: gzip", "", "", "gzip"},
        {"host:\t  x.example:8080", "x.example:8080", "", ""},
        {"Host:x.example", "", "", ""},  // the value must follow white space
        {"Host: \x01x", "", "", ""},     // a control byte that is not a line end
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.field.substr(0, 40));
        std::string head = "GET /a HTTP/1.1\r\n" + c.field + "\r\n\r\n";
        auto buf = exact(head);
        http_header hdr{};
        ASSERT_EQ(parse_http_header(buf.get(), head.size(), &hdr, nullptr, 0), 0);
        EXPECT_STREQ(hdr.host, c.host);
        EXPECT_STREQ(hdr.user_agent, c.ua);
        EXPECT_STREQ(hdr.accept_enc, c.enc);
    }
}

TEST_F(Webops, ConnectionFieldAndTargetCopy) {
    struct Case {
        const char *conn;
        bool keep, close;
    };
    const Case cases[] = {{"keep-alive", true, false},
                          {"Keep-Alive", true, false},
                          {"CLOSE", false, true},
                          {"upgrade", false, false},
                          {"close, keep-alive", false, false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.conn);
        std::string head = std::string("GET /a?b HTTP/1.1\r\nConnection: ") + c.conn + "\r\n\r\n";
        auto buf = exact(head);
        http_header hdr{};
        char url[8];
        ASSERT_EQ(parse_http_header(buf.get(), head.size(), &hdr, url, sizeof(url)), 0);
        EXPECT_EQ(hdr.is_keep_alive, c.keep);
        EXPECT_EQ(hdr.is_close, c.close);
        EXPECT_STREQ(url, "/a?b");
        EXPECT_EQ(std::string(hdr.uri.path, hdr.uri.p_len), "a");
        EXPECT_EQ(std::string(hdr.uri.query, hdr.uri.q_len), "b");
    }
    // A target that does not fit is not copied.
    std::string head = "GET /abcdefgh HTTP/1.1\r\n\r\n";
    auto buf = exact(head);
    http_header hdr{};
    char url[8] = "old";
    ASSERT_EQ(parse_http_header(buf.get(), head.size(), &hdr, url, sizeof(url)), 0);
    EXPECT_STREQ(url, "old");
}

TEST_F(Webops, FindHeaderAndNumericValue) {
    const std::string head =
        "HTTP/1.1 200 OK\r\ncontent-length: 1234\r\nEmpty: \r\nX-Bad: 12ab\r\n"
        "X-Long: " +
        std::string(30, '0') + "123456\r\nNoEnd: 5";
    const char *text = head.c_str();
    size_t len = 99;
    const char *v = find_http_header("Content-Length", text, &len);
    ASSERT_NE(v, nullptr);
    EXPECT_EQ(std::string(v, len), "1234");
    EXPECT_EQ(find_http_header("Missing:", text, &len), nullptr);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(find_http_header("NoEnd:", text, &len), nullptr);  // no line end

    const size_t all = strlen(text);
    EXPECT_EQ(extract_num_hdr("Content-Length:", text, all), 1234);
    EXPECT_EQ(extract_num_hdr("Empty:", text, all), -1);
    EXPECT_EQ(extract_num_hdr("Missing:", text, all), -1);
    EXPECT_EQ(extract_num_hdr("X-Bad:", text, all), 12);
    // 36 characters are cut to 31 (thirty zeros and "1") before they are read.
    EXPECT_EQ(extract_num_hdr("X-Long:", text, all), 1);
    // The bound hides the line end, so the field has no value.
    size_t cut = size_t(strstr(text, "1234\r") - text) + 4;
    EXPECT_EQ(extract_num_hdr("Content-Length:", text, cut), -1);
    auto buf = exact("Content-Length: 77\r\n");
    EXPECT_EQ(extract_num_hdr("Content-Length:", buf.get(), 20), 77);
    EXPECT_EQ(extract_num_hdr("Content-Length:", buf.get(), 18), -1);
}

TEST_F(Webops, DownloadRequestTargetSplitsSourceAndDestination) {
    struct Case {
        std::string target;
        size_t size;
        int rc;
        const char *src, *dst;
    };
    const std::string q255(255, 'q'), q256(256, 'q');
    const Case cases[] = {
        {"/0/src/http://a/b/c.ts/dst/x/y.ts", 256, 0, "http://a/b/c.ts", "x/y.ts"},
        {"/0/src/http://a/b.ts/dst/x.ts?expiry=100", 256, 0, "http://a/b.ts?expiry=100", "x.ts"},
        {"/0/src/http%3A%2F%2Fa%2Fb.ts/dst/x%20y.ts", 256, 0, "http://a/b.ts", "x y.ts"},
        {"/", 256, -3, "", ""},
        {"/?x=1", 256, -3, "", ""},
        {"/favicon.ico", 256, HTTP_RC_FAVICON, "", ""},
        {"/FAVICON.ICO", 256, HTTP_RC_FAVICON, "", ""},
        {"/ping", 256, HTTP_RC_PING, "", ""},
        {"/PING/", 256, HTTP_RC_PING, "", ""},
        {"/pingx", 256, -1, "", ""},
        {"/0/src/http://a/b.ts", 256, -1, "", ""},
        {"/0/src/http://a/b.ts/dst/x?" + q256, 512, -7, "", ""},
        {"/0/src/http://a/b.ts/dst/x?" + q255, 512, 0, nullptr, "x"},
        // "http://a/b.ts" is 13: 13 + "?" + 255 + zero needs 270 bytes.
        {"/0/src/http://a/b.ts/dst/x?" + q255, 270, 0, nullptr, "x"},
        {"/0/src/http://a/b.ts/dst/x?" + q255, 269, 7, "", ""},
        // A "%" in the last two bytes of the bound fails the decode.
        {"/src/abcdef%/dst/x", 8, -1, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.target.substr(0, 60));
        std::string head = "GET " + c.target + " HTTP/1.1\r\nHost: h\r\n\r\n";
        auto buf = exact(head);
        std::vector<char> src(c.size, 'x');
        std::vector<char> dst(c.size, 'x');
        http_header hdr{};
        ASSERT_EQ(web_parse_urq(buf.get(), head.size(), src.data(), dst.data(), c.size, &hdr),
                  c.rc);
        EXPECT_STREQ(hdr.host, "h");
        if (c.rc != 0) continue;
        if (c.src != nullptr)
            EXPECT_STREQ(src.data(), c.src);
        else
            EXPECT_EQ(std::string(src.data()), "http://a/b.ts?" + q255);
        EXPECT_STREQ(dst.data(), c.dst);
    }
}

TEST_F(Webops, DownloadRequestEndsPathInPlaceAndReportsPing) {
    std::string head = "GET /PING/ HTTP/1.0\r\n\r\n";
    auto buf = exact(head);
    char src[16] = "junk";
    char dst[16] = "junk";
    http_header hdr{};
    log_set_module_level(0, LL_INFO);
    {
        LogCapture cap;
        ASSERT_EQ(web_parse_urq(buf.get(), head.size(), src, dst, sizeof(src), &hdr), 1029);
        EXPECT_NE(cap.text().find("Handling user-side PING request\n"), std::string::npos);
    }
    log_set_module_level(0, LL_NORM);
    EXPECT_STREQ(src, "");
    EXPECT_STREQ(dst, "");
    EXPECT_TRUE(hdr.is_http10);
    EXPECT_STREQ(hdr.uri.path, "PING/");  // terminated inside the request buffer
    EXPECT_EQ(buf[10], '\0');

    // One optional leading "/" and one trailing "/" only.
    EXPECT_TRUE(is_ping_request("/Ping/"));
    EXPECT_FALSE(is_ping_request("//ping"));
    EXPECT_FALSE(is_ping_request("ping//"));

    std::string post = "POST /0/src/http://a/dst/b HTTP/1.1\r\n\r\n";
    auto pb = exact(post);
    EXPECT_EQ(web_parse_urq(pb.get(), post.size(), src, dst, sizeof(src), &hdr), 22);
}

TEST_F(Webops, OrderUrlPathIsSplitAndDecoded) {
    struct Case {
        std::string url;
        int rc;
        const char *src, *dst;
    };
    const Case cases[] = {
        {"http://h:80/0/src/http://a/b.ts/dst/x%20y.ts?expiry=5", 0, "http://a/b.ts", "x y.ts"},
        {"udp://239.0.0.1:5000/src/http://a/b.ts/dst", 0, "http://a/b.ts", ""},
        {"http://h/0/src/http://a/b.ts", -1, "", ""},
        {"http://h/" + std::string(115, 'p') + "/src/x/dst", 0, "x", ""},  // 127 characters
        {"http://h/" + std::string(116, 'p') + "/src/x/dst", 34, "", ""},
        {"http://h", -1, "", ""},  // no "src"
        {"http://", -1, "", ""},
        {"/", 34, "", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url.substr(0, 60));
        char src[256];
        char dst[256];
        EXPECT_EQ(web_parse_url(c.url.c_str(), src, dst, sizeof(src)), c.rc);
        if (c.rc != 0) continue;
        EXPECT_STREQ(src, c.src);
        EXPECT_STREQ(dst, c.dst);
    }
}

TEST_F(Webops, TemplatesCarryExactReasonsAndFallBack) {
    EXPECT_STREQ(http_code_resp(400)->reason, "Bad request");
    EXPECT_STREQ(http_code_resp(500)->reason, "Service error");
    EXPECT_STREQ(http_code_resp(302)->reason, "Moved Temporarily");
    EXPECT_EQ(http_code_resp(204)->content_length, -1);
    {
        LogCapture cap;
        EXPECT_EQ(http_code_resp(418), http_code_resp(500));
        EXPECT_NE(cap.text().find("http_code_resp: no response for HTTP418 defined, please "
                                  "update the lib!\n"),
                  std::string::npos);
    }
    EXPECT_EQ(http_code_resp(299), http_code_resp(200));
    EXPECT_EQ(http_code_resp(100), http_code_resp(200));
}

TEST_F(Webops, ResponseTextFollowsTemplate) {
    struct Case {
        int code;
        const char *text;
    };
    const Case cases[] = {
        {200, "HTTP/1.1 200 OK\r\nServer: trv/1\r\n\r\n"},
        {204, "HTTP/1.1 204 No Content\r\nServer: trv/1\r\n\r\n"},
        {400, "HTTP/1.1 400 Bad request\r\nServer: trv/1\r\nContent-Length: 0\r\n\r\n"},
        {404,
         "HTTP/1.1 404 Not Found\r\nServer: trv/1\r\nContent-Length: 0\r\nConnection: "
         "close\r\n\r\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.code);
        http_response r = *http_code_resp(c.code);
        r.server = "trv/1";
        char buf[256];
        ASSERT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), int(strlen(c.text)));
        EXPECT_STREQ(buf, c.text);
    }

    http_response r = *http_code_resp(200);
    r.server = "s";
    r.content_type = "text/plain";
    r.content_encoding = "gzip";
    r.content_length = 5;
    r.connection = "keep-alive";
    r.location = "/x";
    r.ok_suffix = "X-Extra: 1";
    char buf[256];
    const std::string full =
        "HTTP/1.0 200 OK\r\nServer: s\r\nContent-Type: text/plain\r\nContent-Encoding: "
        "gzip\r\nContent-Length: 5\r\nConnection: keep-alive\r\nLocation: /x\r\nX-Extra: "
        "1\r\n\r\n";
    ASSERT_EQ(mk_http_xt_resp(&r, 10, buf, sizeof(buf)), int(full.size()));
    EXPECT_EQ(std::string(buf), full);
    // The blank line wants four bytes of room: one more than it and the
    // terminator take.
    EXPECT_EQ(mk_http_xt_resp(&r, 10, buf, full.size() + 2), int(full.size()));
    EXPECT_EQ(mk_http_xt_resp(&r, 10, buf, full.size() + 1), -1);
    // The extra line belongs to a 200 only.
    r.code = 404;
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), 0);
    EXPECT_EQ(std::string(buf).find("X-Extra"), std::string::npos);

    r.code = 200;
    EXPECT_EQ(mk_http_xt_resp(&r, 12, buf, sizeof(buf)), -1);
    EXPECT_EQ(mk_http_xt_resp(&r, 9, buf, sizeof(buf)), -1);
    std::string long_type(130, 't');
    r.content_type = long_type.c_str();  // longer than one scratch line
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), -1);
    r.content_type = nullptr;
    r.server = nullptr;
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), -1);
    r.server = "s";
    r.reason = nullptr;
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), -1);
}

TEST_F(Webops, ResponseBodyComesFromFile) {
    char path[] = "/tmp/trov-webops-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    close(fd);
    http_response r = *http_code_resp(200);
    r.server = "s";
    r.fpath = path;
    char buf[64];
    int n = mk_http_xt_resp(&r, 11, buf, sizeof(buf));
    EXPECT_EQ(std::string(buf, size_t(n > 0 ? n : 0)), "HTTP/1.1 200 OK\r\nServer: s\r\n\r\nhello");
    // 30 bytes of head + 5 of body + terminator = 36; a body that does not
    // fit is refused, not cut.
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 36), 35);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, 35), -1);
    unlink(path);
    EXPECT_EQ(mk_http_xt_resp(&r, 11, buf, sizeof(buf)), -1);
}

TEST_F(Webops, SendResponseWritesWholeTextOrFails) {
    SockPair sp;
    http_response *r = http_code_resp(404);
    r->server = "trv/1";
    ASSERT_EQ(send_http_response(sp.fd[0], r), 0);
    shutdown(sp.fd[0], SHUT_WR);
    EXPECT_EQ(read_all(sp.fd[1]),
              "HTTP/1.1 404 Not Found\r\nServer: trv/1\r\nContent-Length: 0\r\nConnection: "
              "close\r\n\r\n");

    SockPair closed;
    closed.close_peer();
    {
        LogCapture cap;
        EXPECT_EQ(send_http_response(closed.fd[0], r), -1);
        EXPECT_NE(cap.text().find("send_http_response: error sending HTTP response to fd="),
                  std::string::npos);
    }
    EXPECT_EQ(send_http_response(-1, r), -1);
    r->server = nullptr;
    EXPECT_EQ(send_http_response(sp.fd[0], r), -1);
}

TEST_F(Webops, EscapeForMarkup) {
    struct Case {
        const char *in;
        size_t size;
        int rc;
        const char *out;
    };
    const Case cases[] = {
        {"plain", 64, 0, "-"},
        {"a<b", 64, 1, "a&lt;b"},
        {"&><'\"", 64, 5, "&amp;&gt;&lt;&apos;&quot;"},
        {"a&b", 8, 1, "a&amp;b"},  // exactly fits with the terminator
        {"a&b", 7, -34, "-"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        std::vector<char> out(c.size, '\0');
        strcpy(out.data(), "-");
        EXPECT_EQ(web_escape(c.in, out.data(), c.size), c.rc);
        EXPECT_STREQ(out.data(), c.out);
    }
}

TEST_F(Webops, UpstreamRequestTextAndLimits) {
    const std::string tail =
        "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
        "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n";
    struct Case {
        http_request rq;
        std::string text;
    };
    const Case cases[] = {
        {{HTTP_MT_GET, 0, "/a/b?x=1", "trv/1", "h", "8080"},
         "GET /a/b?x=1 HTTP/1.1\r\nHost: h:8080\r\nConnection: close\r\nUser-Agent: trv/1\r\n"},
        {{HTTP_MT_GET, HTTP_RQF_HTTP10 | HTTP_RQF_KEEPALIVE, "a", "u", "", nullptr},
         "GET /a HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\nUser-Agent: u\r\n"},
        {{HTTP_MT_GET, HTTP_RQF_KEEPALIVE, "/", "u", nullptr, ""},
         "GET / HTTP/1.1\r\nHost: localhost\r\nConnection: keep-alive\r\nUser-Agent: u\r\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        SockPair sp;
        ASSERT_EQ(send_http_request(sp.fd[0], &c.rq), 0);
        shutdown(sp.fd[0], SHUT_WR);
        EXPECT_EQ(read_all(sp.fd[1]), c.text + tail);
    }

    SockPair sp;
    http_request rq{HTTP_MT_HEAD, 0, "/a", "u", "h", "80"};
    EXPECT_EQ(send_http_request(sp.fd[0], &rq), -1);
    rq.type = HTTP_MT_GET;
    // "Host" fits in 126 characters and no more.
    std::string h123(123, 'h');
    rq.host_addr = h123.c_str();  // "hhh...:80" is 126
    EXPECT_EQ(send_http_request(sp.fd[0], &rq), 0);
    std::string h124(124, 'h');
    rq.host_addr = h124.c_str();
    EXPECT_EQ(send_http_request(sp.fd[0], &rq), -1);
    rq.host_addr = "h";
    std::string long_path(2100, 'p');
    rq.request = long_path.c_str();
    EXPECT_EQ(send_http_request(sp.fd[0], &rq), -1);
    rq.request = "/a";
    sp.close_peer();
    EXPECT_EQ(send_http_request(sp.fd[0], &rq), -1);
}

TEST_F(Webops, ResponseHeadArrivesInPiecesAndKeepsTheTail) {
    SockPair sp;
    set_nonblock(sp.fd[0]);
    char buf[256];
    http_resp_ctx ctx{};
    EXPECT_EQ(recv_http_response(sp.fd[0], buf, sizeof(buf) - 1, &ctx), 11);  // nothing yet
    const std::string part1 = "HTTP/1.1 206 Partial Content\r\nContent-Le";
    const std::string part2 = "ngth: 4\r\n\r\nbody";
    ASSERT_EQ(write(sp.fd[1], part1.data(), part1.size()), ssize_t(part1.size()));
    EXPECT_EQ(recv_http_response(sp.fd[0], buf, sizeof(buf) - 1, &ctx), 11);
    EXPECT_EQ(ctx.total, ssize_t(part1.size()));
    EXPECT_EQ(ctx.tail, 0);
    ASSERT_EQ(write(sp.fd[1], part2.data(), part2.size()), ssize_t(part2.size()));
    ASSERT_EQ(recv_http_response(sp.fd[0], buf, sizeof(buf) - 1, &ctx), 0);
    EXPECT_EQ(ctx.code, 206);
    EXPECT_EQ(ctx.total, ssize_t(part1.size() + part2.size()));
    EXPECT_EQ(ctx.tail, ctx.total - 4);
    EXPECT_EQ(std::string(buf + ctx.tail, 4), "body");
    EXPECT_EQ(extract_num_hdr("Content-Length:", buf, size_t(ctx.tail)), 4);
}

TEST_F(Webops, ResponseHeadFailures) {
    struct Case {
        std::string data;
        size_t cap;
        bool close_after;
        int rc;
    };
    const Case cases[] = {
        {"HTTP/1.1 204\r\n\r\n", 64, false, -1},  // status without a reason: 3 items
        {"HTTP/1.1 OK\r\n\r\n", 64, false, -1},
        {"ICY 200 OK\r\n\r\n", 64, false, -1},
        {"HTTP/1.1 200 OK\r\n", 64, true, -1},  // connection broken before the head end
        {"HTTP/1.1 200 OK\r\nX: " + std::string(64, 'x'), 32, false, -1},  // does not fit
        {"HTTP/1.1 200 OK\r\n\r\n", 19, false, 0},                         // fills cap exactly
        {"HTTP/1.1 200 OK\r\n\r\n", 18, false, -1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.data.substr(0, 30));
        SockPair sp;
        set_nonblock(sp.fd[0]);
        ASSERT_EQ(write(sp.fd[1], c.data.data(), c.data.size()), ssize_t(c.data.size()));
        if (c.close_after) sp.close_peer();
        auto buf = std::make_unique<char[]>(c.cap);  // exact: no room for a terminator
        http_resp_ctx ctx{};
        EXPECT_EQ(recv_http_response(sp.fd[0], buf.get(), c.cap, &ctx), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(ctx.code, 200);
        }
    }
}

TEST_F(Webops, ResponseHeadOverLoopbackTcp) {
    int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(lfd, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(listen(lfd, 1), 0);
    socklen_t alen = sizeof(addr);
    ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&addr), &alen), 0);
    int cfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(cfd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    int sfd = accept(lfd, nullptr, nullptr);
    ASSERT_GE(sfd, 0);

    http_request rq{HTTP_MT_GET, 0, "/seg.ts", "trv/1", "127.0.0.1", "80"};
    ASSERT_EQ(send_http_request(cfd, &rq), 0);
    char in[1024];
    http_header hdr{};
    ssize_t n = read(sfd, in, sizeof(in));
    ASSERT_GT(n, 0);
    ASSERT_EQ(head_eod(in, size_t(n)), size_t(n));
    ASSERT_EQ(parse_http_header(in, size_t(n), &hdr, nullptr, 0), 0);
    EXPECT_STREQ(hdr.host, "127.0.0.1:80");
    EXPECT_TRUE(hdr.is_close);

    const std::string resp = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc";
    ASSERT_EQ(write(sfd, resp.data(), resp.size()), ssize_t(resp.size()));
    char buf[2048];
    http_resp_ctx ctx{};
    ASSERT_EQ(recv_http_response(cfd, buf, sizeof(buf) - 1, &ctx), 0);  // blocking socket
    EXPECT_EQ(ctx.code, 200);
    EXPECT_EQ(buf[ctx.total], '\0');
    EXPECT_STREQ(buf + ctx.tail, "abc");
    close(sfd);
    close(cfd);
    close(lfd);
}

TEST_F(Webops, ReadHttpAppendsAndFindsTheHeadEnd) {
    SockPair sp;
    set_nonblock(sp.fd[0]);
    char buf[64] = {};
    size_t eod = 0;
    ASSERT_EQ(write(sp.fd[1], "GET / HTTP/1.1\r\n", 16), 16);
    ASSERT_EQ(read_http(sp.fd[0], buf, sizeof(buf) - 1, 0, &eod), 16);
    EXPECT_EQ(eod, 0u);
    ASSERT_EQ(write(sp.fd[1], "\r\nrest", 6), 6);
    ASSERT_EQ(read_http(sp.fd[0], buf, sizeof(buf) - 1, 16, &eod), 6);
    EXPECT_EQ(eod, 18u);
    EXPECT_EQ(read_http(sp.fd[0], buf, sizeof(buf) - 1, 22, &eod), -1);  // nothing pending
    EXPECT_EQ(errno, EAGAIN);
    sp.close_peer();
    EXPECT_EQ(read_http(sp.fd[0], buf, sizeof(buf) - 1, 22, &eod), 0);
    EXPECT_EQ(read_http(sp.fd[0], buf, 22, 22, &eod), 0);  // a full buffer reads nothing
}

TEST_F(Webops, FullUrlAndRequestPathQuery) {
    char out[16];
    EXPECT_EQ(mk_full_url("http://h", "abc/def", 3, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "http://h/abc");
    EXPECT_EQ(mk_full_url("http://h", "abcdefg", 6, out, sizeof(out)), 0);  // 15 characters
    EXPECT_EQ(mk_full_url("http://h", "abcdefg", 7, out, sizeof(out)), 34);

    struct Case {
        const char *rq;
        int rc;
        const char *path, *query;
    };
    const Case cases[] = {
        {"http://h/a/b?x=1", 0, "h/a/b", "x=1"},
        {"/a/b", 0, "a/b", ""},
        {"/", 22, "", ""},
        {"http://h/abcdefghij", 34, "", ""},
        {"http://h/a?abcdefgh", 34, "", ""},
        {"http://h/abcdef?abcdefg", 0, "h/abcdef", "abcdefg"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.rq);
        char path[9];
        char query[8];
        EXPECT_EQ(extract_http_request_path_query(c.rq, path, sizeof(path), query, sizeof(query)),
                  c.rc);
        if (c.rc != 0) continue;
        EXPECT_STREQ(path, c.path);
        EXPECT_STREQ(query, c.query);
    }
}

}  // namespace

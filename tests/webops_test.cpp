// Tests of the HTTP message layer: request heads in exact-size buffers (the
// sanitizer build catches any overrun), responses and upstream requests read
// back from socketpairs. Head framing and field look-up in general are the
// fuzz targets'; here are the exact codes, texts and limits.
#include "webops.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "log.h"

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

// A socketpair; fd[0] is the end under test, drain() what it sent.
struct Pair {
    int fd[2] = {-1, -1};
    explicit Pair(int flags = 0) { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | flags, 0, fd), 0); }
    ~Pair() {
        for (int f : fd) close(f);
    }
    std::string drain() {
        char chunk[4096];
        ssize_t n = recv(fd[1], chunk, sizeof chunk, MSG_DONTWAIT);
        return std::string(chunk, size_t(n > 0 ? n : 0));
    }
};

class Webops : public ::testing::Test {
   protected:
    void SetUp() override {
        log_set_modules(g_log, LL_DEBUG);
        log_default(g_log, fp_);
    }
    void TearDown() override {
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        fclose(fp_);
        free(text_);
    }
    bool logged(const std::string &what) {
        return fflush(fp_) == 0 && std::string(text_, len_).find(what) != std::string::npos;
    }
    char *text_ = nullptr;
    size_t len_ = 0;
    FILE *fp_ = open_memstream(&text_, &len_);
};

// The head parsed from an unterminated buffer of exactly its length, told as
// "rc" or "method version host|user-agent|accept-encoding|K(eep-alive)/C(lose)".
std::string parsed(const std::string &head) {
    std::vector<char> buf(head.begin(), head.end());
    http_header h{};
    if (int rc = parse_http_header(buf.data(), buf.size(), &h, nullptr, 0); rc != 0)
        return std::to_string(rc);
    return std::string(h.type == HTTP_MT_HEAD ? "HEAD" : "GET") +
           (h.is_http10 ? " 1.0 " : " 1.1 ") + h.host + "|" + h.user_agent + "|" + h.accept_enc +
           "|" + (h.is_keep_alive ? "K" : "") + (h.is_close ? "C" : "");
}

TEST_F(Webops, RequestLineAllowsOnlyGetAndHeadOverHttp1) {
    struct Case {
        const char *head, *want, *log;
    } cases[] = {
        {"get /a?q HTTP/1.1\r\n\r\n", "GET 1.1 |||", "url=[/a?q], p_len=1, q_len=1"},
        {"HeAd\t/a\tHTTP/1.0\r\n\r\n", "HEAD 1.0 |||", "identified as HEAD"},
        {"POST /a HTTP/1.1\r\n\r\n", "22", "HTTP [POST] is NOT supported\n"},
        {"OPTIONSX /a HTTP/1.1\r\n\r\n", "-1", "failed to get HTTP method"},
        {"GET /a HTTP/2.0\r\n\r\n", "-1",
         "parse_http_header: expected [HTTP/1.] to follow the URI path, got [HTTP/2.0]\n"},
        {"GET http:// HTTP/1.1\r\n\r\n", "-1", "failed to parse URL"},
        {"GET /a HTTP/1.", "GET 1.1 |||", "no header sections found"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(parsed(c.head), c.want) << c.head;
        EXPECT_TRUE(logged(c.log)) << c.head;
    }
}

TEST_F(Webops, HeaderFieldsKeepTheirBoundsAndHostNeedsLessThan64) {
    const std::string h62(62, 'h'), u126(126, 'u'), e30(30, 'e');
    const Cases cases = {{"Host: " + h62 + "h", h62 + "|||"},  // 63 keeps 62
                         {"Host: " + h62 + "hh", "|||"},       // 64 is dropped
                         {"host:\t  x.example:8080", "x.example:8080|||"},
                         {"Host:x.example", "|||"},  // the value must follow a blank
                         {"User-Agent: " + u126 + "u", "|" + u126 + "||"},
                         {"User-Agent: " + u126 + "uu", "|||"},
                         {"User-Agent: Mozilla/5.0 (X; Y)", "|Mozilla%2F5.0%20(X%3B%20Y)||"},
                         {"Accept-Encoding: " + e30 + "eeeeee", "||" + e30 + "|"},
                         {"Connection: Keep-Alive", "|||K"},
                         {"Connection: CLOSE", "|||C"},
                         {"Connection: close, keep-alive", "|||"}};
    for (const auto &[field, want] : cases) {
        EXPECT_EQ(parsed("GET /a HTTP/1.1\r\n" + field + "\r\n\r\n"), "GET 1.1 " + want)
            << field.substr(0, 40);
    }
    const std::string num = "content-length: 12ab\r\nX-Long: " + std::string(30, '0') + "123\r\n";
    EXPECT_EQ(extract_num_hdr("Content-Length:", num.c_str(), num.size()), 12);
    EXPECT_EQ(extract_num_hdr("X-Long:", num.c_str(), num.size()), 1);  // cut to 31 first
}

// A download request through web_parse_urq with outputs of size bytes, told
// as "rc|source|destination".
std::string urq(const std::string &target, size_t size = 256) {
    std::string head = "GET " + target + " HTTP/1.1\r\nHost: h\r\n\r\n";
    std::vector<char> buf(head.begin(), head.end()), src(size, 'x'), dst(size, 'x');
    http_header h{};
    int rc = web_parse_urq(buf.data(), buf.size(), src.data(), dst.data(), size, &h);
    if (rc != 0 && rc != HTTP_RC_PING) return std::to_string(rc);
    return std::to_string(rc) + "|" + src.data() + "|" + dst.data();
}

TEST_F(Webops, DownloadRequestSplitsTheTargetAndKeepsTheQueryWithTheSource) {
    const std::string q255(255, 'q');
    const Cases cases = {
        {"/0/src/http://a/b.ts/dst/x.ts?expiry=100", "0|http://a/b.ts?expiry=100|x.ts"},
        {"/0/src/http%3A%2F%2Fa%2Fb.ts/dst/x%20y.ts", "0|http://a/b.ts|x y.ts"},
        {"/?x=1", "-3"},
        {"/FAVICON.ICO", "1028"},
        {"/ping", "1029||"},
        {"/PING/", "1029||"},
        {"/pingx", "-1"},
        {"/0/src/http://a/b.ts", "-1"},
        {"/0/src/http://a/b.ts/dst/x?" + q255 + "q", "-7"}};
    for (const auto &[target, want] : cases) EXPECT_EQ(urq(target), want) << target;
    EXPECT_TRUE(logged("Handling user-side PING request\n"));
    EXPECT_FALSE(is_ping_request("//ping") || is_ping_request("ping//"));
    // "http://a/b.ts" is 13 characters: with "?", 255 and the terminator 270.
    EXPECT_EQ(urq("/0/src/http://a/b.ts/dst/x?" + q255, 270), "0|http://a/b.ts?" + q255 + "|x");
    EXPECT_EQ(urq("/0/src/http://a/b.ts/dst/x?" + q255, 269), "7");
}

TEST_F(Webops, OrderUrlPathIsAtMost127Characters) {
    char src[256], dst[256];
    std::string url = "http://h/" + std::string(111, 'p') + "/src/x%20y/dst";  // 127 in the path
    EXPECT_EQ(web_parse_url(url.c_str(), src, dst, sizeof src), 0);
    EXPECT_EQ(std::string(src) + "|" + dst, "x y|");
    EXPECT_EQ(web_parse_url(url.insert(9, "p").c_str(), src, dst, sizeof src), 34);
}

// The template's text as HTTP/1.1 from server "trv/1".
std::string response(int code) {
    http_response r = *http_code_resp(code);
    r.server = "trv/1";
    char buf[256];
    int n = mk_http_xt_resp(&r, 11, buf, sizeof buf);
    return n < 0 ? "error" : std::string(buf, size_t(n));
}

TEST_F(Webops, ResponseTemplatesHaveTheirExactTexts) {
    const std::string head = "Server: trv/1\r\n";
    EXPECT_EQ(response(200), "HTTP/1.1 200 OK\r\n" + head + "\r\n");
    EXPECT_EQ(response(204), "HTTP/1.1 204 No Content\r\n" + head + "\r\n");
    EXPECT_EQ(response(400), "HTTP/1.1 400 Bad request\r\n" + head + "Content-Length: 0\r\n\r\n");
    const std::string closed = "Content-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(response(404), "HTTP/1.1 404 Not Found\r\n" + head + closed);
    EXPECT_EQ(response(500), "HTTP/1.1 500 Service error\r\n" + head + closed);
    EXPECT_EQ(http_code_resp(418), http_code_resp(500));
    EXPECT_TRUE(logged("no response for HTTP418 defined, please update the lib!\n"));
    EXPECT_EQ(http_code_resp(299), http_code_resp(200));
}

TEST_F(Webops, ResponseLinesComeInOrderAndMustFit) {
    http_response r{200, "text/plain", "gzip",       5,    "OK",
                    "s", "keep-alive", "X-Extra: 1", "/x", nullptr};
    const std::string full =
        "HTTP/1.0 200 OK\r\nServer: s\r\nContent-Type: text/plain\r\nContent-Encoding: gzip\r\n"
        "Content-Length: 5\r\nConnection: keep-alive\r\nLocation: /x\r\nX-Extra: 1\r\n\r\n";
    char buf[256];
    ASSERT_EQ(mk_http_xt_resp(&r, 10, buf, sizeof buf), int(full.size()));
    EXPECT_EQ(std::string(buf), full);
    // The blank line wants four bytes of room, one more than it and the zero.
    EXPECT_EQ(mk_http_xt_resp(&r, 10, buf, full.size() + 2), int(full.size()));
    EXPECT_EQ(mk_http_xt_resp(&r, 10, buf, full.size() + 1), -1);
    EXPECT_EQ(mk_http_xt_resp(&r, 12, buf, sizeof buf), -1);
    r.code = 404;  // the extra line belongs to a 200 only
    ASSERT_GT(mk_http_xt_resp(&r, 11, buf, sizeof buf), 0);
    EXPECT_EQ(std::string(buf).find("X-Extra"), std::string::npos);
}

TEST_F(Webops, RequestAndResponseAreSentWholeOrFail) {
    signal(SIGPIPE, SIG_IGN);
    Pair p;
    http_request rq{HTTP_MT_GET, HTTP_RQF_HTTP10 | HTTP_RQF_KEEPALIVE, "a?x=1", "u", "", nullptr};
    ASSERT_EQ(send_http_request(p.fd[0], &rq), 0);
    EXPECT_EQ(
        p.drain(),
        "GET /a?x=1 HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\nUser-Agent: u\r\n"
        "Accept: text/html,video/*, application/*\r\nAccept-Language: en-US,en,ru\r\n"
        "Accept-Charset: ISO-8859-1,UTF-8\r\nCache-Control: no-cache\r\n\r\n");
    std::string host(123, 'h');  // with ":80", 126 characters: the most "Host" takes
    rq = {HTTP_MT_HEAD, 0, "/a", "u", host.c_str(), "80"};
    EXPECT_EQ(send_http_request(p.fd[0], &rq), -1);
    rq.type = HTTP_MT_GET;
    EXPECT_EQ(send_http_request(p.fd[0], &rq), 0);
    host += "h";
    rq.host_addr = host.c_str();
    EXPECT_EQ(send_http_request(p.fd[0], &rq), -1);

    http_response *r = http_code_resp(404);
    r->server = "trv/1";
    (void)p.drain();
    ASSERT_EQ(send_http_response(p.fd[0], r), 0);
    EXPECT_EQ(p.drain(), response(404));
    shutdown(p.fd[1], SHUT_RD);
    EXPECT_EQ(send_http_response(p.fd[0], r), -1);
    EXPECT_TRUE(logged("send_http_response: error sending HTTP response to fd="));
}

// Each head, then the end of stream, into a buffer of exactly cap bytes: only
// the complete status line that fits exactly is read. Arrival in pieces is the
// stepwise reader's test and the fuzz target's.
TEST_F(Webops, ResponseHeadNeedsAFullStatusLineWithinTheBuffer) {
    const std::pair<std::string, size_t> cases[] = {
        {"HTTP/1.1 204\r\n\r\n", 64},  // a status without a reason: 3 items
        {"ICY 200 OK\r\n\r\n", 64},
        {"HTTP/1.1 200 OK\r\n", 64},
        {"HTTP/1.1 200 OK\r\n\r\n", 18},
        {"HTTP/1.1 200 OK\r\n\r\n", 19}};
    for (const auto &[data, cap] : cases) {
        Pair q(SOCK_NONBLOCK);
        ASSERT_EQ(write(q.fd[1], data.data(), data.size()), ssize_t(data.size()));
        shutdown(q.fd[1], SHUT_WR);
        std::vector<char> head(cap);
        http_resp_ctx ctx{};
        EXPECT_EQ(recv_http_response(q.fd[0], head.data(), cap, &ctx), cap == 19 ? 0 : -1) << data;
    }
}

}  // namespace

// Tests of the HTTP message layer's codes, texts and limits (exact-size buffers expose overruns).
#include "webops.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "log.h"
#include "strcat.h"

namespace {

struct Pair {  // a socketpair: fd[0] is the end under test, drain() takes what it sent
    int fd[2] = {-1, -1};
    explicit Pair(int flags = 0) { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | flags, 0, fd), 0); }
    ~Pair() { close(fd[0]), close(fd[1]); }
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

// An unterminated head, told as "rc" or "METHOD version host|user-agent|accept-encoding|K/C".
std::string parsed(const std::string &head) {
    std::vector<char> buf(head.begin(), head.end());
    http_header h{};
    if (int rc = parse_http_header(buf.data(), buf.size(), &h, nullptr, 0); rc != 0)
        return std::to_string(rc);
    return std::string(h.type == HTTP_MT_HEAD ? "HEAD" : "GET") +
           (h.is_http10 ? " 1.0 " : " 1.1 ") + h.host + "|" + h.user_agent + "|" + h.accept_enc +
           "|" + (h.is_keep_alive ? "K" : "") + (h.is_close ? "C" : "");
}

// The target through web_parse_urq with outputs of size bytes, told as "rc|source|destination".
std::string urq(const std::string &target, size_t size = 256) {
    std::string head = "GET " + target + " HTTP/1.1\r\nHost: h\r\n\r\n";
    std::vector<char> buf(head.begin(), head.end()), src(size, 'x'), dst(size, 'x');
    http_header h{};
    int rc = web_parse_urq(buf.data(), buf.size(), src.data(), dst.data(), size, &h);
    if (rc != 0 && rc != HTTP_RC_PING) return std::to_string(rc);
    return std::to_string(rc) + "|" + src.data() + "|" + dst.data();
}

// The template's text as HTTP/1.1 from server "trv/1".
std::string response(int code) {
    http_response r = *http_code_resp(code);
    r.server = "trv/1";
    char buf[256];
    int n = mk_http_xt_resp(&r, 11, buf, sizeof buf);
    return n < 0 ? "error" : std::string(buf, size_t(n));
}

TEST_F(Webops, RequestHeadsAndDownloadTargetsKeepTheirRulesAndBounds) {
    const auto get = [](const std::string &f) { return "GET /a HTTP/1.1\r\n" + f + "\r\n\r\n"; };
    const std::string h62(62, 'h'), u126(126, 'u'), e30(30, 'e'), q255(255, 'q'), g = "GET 1.1 ";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // head, parsed, log
        {"get /a?q HTTP/1.1\r\n\r\n", "GET 1.1 |||", "url=[/a?q], p_len=1, q_len=1"},
        {"HeAd\t/a\tHTTP/1.0\r\n\r\n", "HEAD 1.0 |||", "identified as HEAD"},
        {"POST /a HTTP/1.1\r\n\r\n", "22", "HTTP [POST] is NOT supported\n"},
        {"OPTIONSX /a HTTP/1.1\r\n\r\n", "-1", "failed to get HTTP method"},
        {"GET /a HTTP/2.0\r\n\r\n", "-1",
         "parse_http_header: expected [HTTP/1.] to follow the URI path, got [HTTP/2.0]\n"},
        {"GET http:// HTTP/1.1\r\n\r\n", "-1", "failed to parse URL"},
        {"GET /a HTTP/1.", "GET 1.1 |||", "no header sections found"},
        {get("Host: " + h62 + "h"), g + h62 + "|||", ""},  // 63 keeps 62
        {get("Host: " + h62 + "hh"), g + "|||", ""},       // 64 is dropped
        {get("host:\t  x.example:8080"), g + "x.example:8080|||", ""},
        {get("Host:x.example"), g + "|||", ""},  // the value must follow a blank
        {get("User-Agent: " + u126 + "u"), g + "|" + u126 + "||", ""},
        {get("User-Agent: " + u126 + "uu"), g + "|||", ""},
        {get("User-Agent: Mozilla/5.0 (X; Y)"), g + "|Mozilla%2F5.0%20(X%3B%20Y)||", ""},
        {get("Accept-Encoding: " + e30 + "eeeeee"), g + "||" + e30 + "|", ""},
        {get("Connection: Keep-Alive"), g + "|||K", ""},
        {get("Connection: CLOSE"), g + "|||C", ""},
        {get("Connection: close, keep-alive"), g + "|||", ""},
    };
    for (const auto &[head, want, log] : cases) {
        EXPECT_EQ(parsed(head), want) << head.substr(0, 60);
        EXPECT_TRUE(logged(log)) << head.substr(0, 60);
    }
    const std::string num = "content-length: 12ab\r\nX-Long: " + std::string(30, '0') + "123\r\n";
    EXPECT_EQ(extract_num_hdr("Content-Length:", num.c_str(), num.size()), 12);
    EXPECT_EQ(extract_num_hdr("X-Long:", num.c_str(), num.size()), 1);  // cut to 31 first

    const std::pair<std::string, std::string> targets[] = {
        {"/?x=1", "-3"},
        {"/FAVICON.ICO", "1028"},
        {"/PING/", "1029||"},
        {"/pingx", "-1"},
        {"/0/src/http://a/b.ts", "-1"},
        {"/0/src/http://a/b.ts/dst/x?" + q255 + "q", "-7"}};
    for (const auto &[target, want] : targets) EXPECT_EQ(urq(target), want) << target;
    EXPECT_TRUE(logged("Handling user-side PING request\n"));
    EXPECT_FALSE(is_ping_request("//ping") || is_ping_request("ping//"));
    // "http://a/b.ts" is 13 characters: with "?", 255 and the terminator 270.
    EXPECT_EQ(urq("/0/src/http://a/b.ts/dst/x?" + q255, 270), "0|http://a/b.ts?" + q255 + "|x");
    EXPECT_EQ(urq("/0/src/http://a/b.ts/dst/x?" + q255, 269), "7");
    char src[256], dst[256];
    std::string url = "http://h/" + std::string(111, 'p') + "/src/x%20y/dst";  // 127 in the path
    EXPECT_EQ(web_parse_url(url.c_str(), src, dst, sizeof src), 0);
    EXPECT_EQ(std::string(src) + "|" + dst, "x y|");
    url = str_cat(url.substr(0, 9), "p", url.substr(9));  // 128 in the path
    EXPECT_EQ(web_parse_url(url.c_str(), src, dst, sizeof src), 34);
}

TEST_F(Webops, MessagesAreBuiltExactlySentWholeAndReadOnlyWhenTheyFit) {
    const std::string head = "Server: trv/1\r\n",
                      closed = "Content-Length: 0\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(response(200), "HTTP/1.1 200 OK\r\n" + head + "\r\n");
    EXPECT_EQ(response(400), "HTTP/1.1 400 Bad request\r\n" + head + "Content-Length: 0\r\n\r\n");
    EXPECT_EQ(response(404), "HTTP/1.1 404 Not Found\r\n" + head + closed);
    EXPECT_EQ(response(500), "HTTP/1.1 500 Service error\r\n" + head + closed);
    EXPECT_EQ(http_code_resp(418), http_code_resp(500));
    EXPECT_TRUE(logged("no response for HTTP418 defined, please update the lib!\n"));
    EXPECT_EQ(http_code_resp(299), http_code_resp(200));

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
    EXPECT_TRUE(mk_http_xt_resp(&r, 11, buf, sizeof buf) > 0 && !strstr(buf, "X-Extra")) << buf;

    signal(SIGPIPE, SIG_IGN);
    Pair p;
    http_response *nf = http_code_resp(404);
    nf->server = "trv/1";
    ASSERT_EQ(send_http_response(p.fd[0], nf), 0);
    EXPECT_EQ(p.drain(), response(404));
    http_request rq{HTTP_MT_GET, HTTP_RQF_HTTP10 | HTTP_RQF_KEEPALIVE, "a?x=1", "u", "", nullptr};
    ASSERT_EQ(send_http_request(p.fd[0], &rq), 0);
    EXPECT_EQ(p.drain().substr(0, 62),  // the rest of the head is the upstream socket's test
              "GET /a?x=1 HTTP/1.0\r\nHost: localhost\r\nConnection: keep-alive\r\n");
    const std::string h123(123, 'h'), h124(124, 'h');  // with ":80", 126 is the most "Host" takes
    rq = {HTTP_MT_HEAD, 0, "/a", "u", h123.c_str(), "80"};
    EXPECT_EQ(send_http_request(p.fd[0], &rq), -1);  // only GET is sent
    rq.type = HTTP_MT_GET;
    EXPECT_EQ(send_http_request(p.fd[0], &rq), 0);
    rq.host_addr = h124.c_str();
    EXPECT_EQ(send_http_request(p.fd[0], &rq), -1);
    shutdown(p.fd[1], SHUT_RD);
    EXPECT_EQ(send_http_response(p.fd[0], nf), -1);
    EXPECT_TRUE(logged("send_http_response: error sending HTTP response to fd="));
    // A head and the end of stream into exactly cap bytes: only a whole status line that fits.
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

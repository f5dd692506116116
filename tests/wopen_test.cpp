// Tests of the upstream socket against an origin run inside the test on
// loopback: the exact request text, response heads read whole and step by
// step, bodies cut short, datagram readers (multicast on lo) and files.
#include "wopen.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log.h"

namespace {

constexpr int WAIT_MS = 5000;  // upper bound of every wait for readiness

int count_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    for (int i = 0; i < 4096 && readdir(d) != nullptr; ++i) ++n;
    closedir(d);
    return n;
}

bool wait_for(int fd, short events) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, WAIT_MS) == 1 && (p.revents & events) != 0;
}

// A loopback listener on an ephemeral port; port() tells which.
int listen_lo(int *port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
        if (fd >= 0) close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

int free_udp_port() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

// Reads until the end of a request head, end of stream or the wait bound.
std::string read_head(int fd) {
    std::string out;
    char chunk[512];
    for (int i = 0; i < 64 && out.find("\r\n\r\n") == std::string::npos; ++i) {
        if (!wait_for(fd, POLLIN)) break;
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        out.append(chunk, size_t(n));
    }
    return out;
}

std::string read_all(int fd) {
    std::string out;
    char chunk[1024];
    for (int i = 0; i < 64 && wait_for(fd, POLLIN); ++i) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        out.append(chunk, size_t(n));
    }
    return out;
}

// What is there to read right now, without waiting for more.
std::string read_now(int fd) {
    char chunk[1024];
    ssize_t n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
    return n > 0 ? std::string(chunk, size_t(n)) : std::string();
}

bool write_all(int fd, const std::string &s) {
    return write(fd, s.data(), s.size()) == ssize_t(s.size());
}

// The origin: a thread that accepts one connection, reads the request head,
// answers with the given pieces (pausing between them) and closes.
class Origin {
   public:
    explicit Origin(std::vector<std::string> pieces, int pause_ms = 0)
        : pieces_(std::move(pieces)), pause_ms_(pause_ms) {
        lfd_ = listen_lo(&port_);
        if (lfd_ >= 0) thread_ = std::thread([this] { serve(); });
    }
    ~Origin() {
        if (thread_.joinable()) thread_.join();
        if (lfd_ >= 0) close(lfd_);
    }
    bool ok() const { return lfd_ >= 0; }
    std::string port() const { return std::to_string(port_); }
    std::string request() {
        if (thread_.joinable()) thread_.join();
        return request_;
    }

   private:
    void serve() {
        if (!wait_for(lfd_, POLLIN)) return;
        int cfd = accept(lfd_, nullptr, nullptr);
        if (cfd < 0) return;
        request_ = read_head(cfd);
        for (size_t i = 0; i < pieces_.size(); ++i) {
            if (i > 0 && pause_ms_ > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms_));
            if (!write_all(cfd, pieces_[i])) break;
        }
        close(cfd);
    }
    std::vector<std::string> pieces_;
    int pause_ms_;
    int lfd_ = -1;
    int port_ = 0;
    std::string request_;
    std::thread thread_;
};

int sa_port(const sockaddr_storage &ss) {
    return ntohs(reinterpret_cast<const sockaddr_in *>(&ss)->sin_port);
}

std::string sa_addr(const sockaddr_storage &ss) {
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(&ss)->sin_addr, buf, sizeof buf);
    return buf;
}

class Wopen : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        log_set_modules(g_log, LL_DEBUG);
        logf_ = tmpfile();
        ASSERT_NE(logf_, nullptr);
        log_default(g_log, logf_);
        usock_set_apptag("trv/1.0");
        g_usock_flags.use_http10_get = false;
    }
    void TearDown() override {
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        fclose(logf_);
        g_usock_flags.use_http10_get = false;
    }
    std::string logged() {
        fflush(logf_);
        std::ifstream in("/proc/self/fd/" + std::to_string(fileno(logf_)));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    bool has_log(const std::string &text) { return logged().find(text) != std::string::npos; }

    // A non-blocking client opened the way the download engine does it, and
    // the origin's end of the connection in *sfd.
    int engine_pair(const std::string &path, usock_ctx *ctx, int *sfd, std::string *url) {
        int port = 0;
        int lfd = listen_lo(&port);
        if (lfd < 0) return -1;
        *url = "http://127.0.0.1:" + std::to_string(port) + path;
        *ctx = usock_ctx{};
        ctx->non_blocking = true;
        ctx->skip_http = true;
        ctx->timeout_ms = 3000;
        int fd = usock_open(url->c_str(), ctx);
        *sfd = fd >= 0 && wait_for(lfd, POLLIN) ? accept(lfd, nullptr, nullptr) : -1;
        close(lfd);
        if (fd >= 0 && !wait_for(fd, POLLOUT)) *sfd = -1;
        return fd;
    }

    FILE *logf_ = nullptr;
};

// A fresh process, so the tag is the one the program starts with.
TEST(WopenTag, StartsAsErrorMarkerThenKeepsAtMost127Characters) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exit(strcmp(usock_apptag(), "#ERR#") == 0 ? 0 : 1), ::testing::ExitedWithCode(0),
                "");
    usock_set_apptag("trv/2.1");
    usock_set_apptag(nullptr);
    EXPECT_STREQ(usock_apptag(), "trv/2.1");
    std::string longtag(200, 'a');
    usock_set_apptag(longtag.c_str());
    EXPECT_EQ(std::string(usock_apptag()), longtag.substr(0, 127));
}

TEST_F(Wopen, HttpUrlWithoutPortConnectsToPort80) {
    usock_ctx ctx{};
    ctx.non_blocking = true;
    ctx.skip_http = true;
    const char *url = "http://127.0.0.1/media/a.ts";
    int fd = usock_open(url, &ctx);
    // On loopback the connect is still in progress when it returns; whether
    // a server listens on 80 does not matter for the address used.
    ASSERT_GE(fd, 0) << logged();
    EXPECT_EQ(ctx.url_kind, URI_KIND_HTTP);
    EXPECT_EQ(sa_addr(ctx.sspec.addr_ss), "127.0.0.1");
    EXPECT_EQ(sa_port(ctx.sspec.addr_ss), 80);
    EXPECT_TRUE(has_log("assuming HTTP port 80 for [http://127.0.0.1/media/a.ts]")) << logged();
    EXPECT_STREQ(ctx.url_path, "127.0.0.1/media/a.ts");
    ASSERT_NE(ctx.buf, nullptr);
    EXPECT_EQ(ctx.bufcap, USOCK_BUF_SIZE);
    EXPECT_EQ(ctx.nopoll_idx, -1);
    usock_close(fd, &ctx);
    EXPECT_EQ(ctx.buf, nullptr);
    EXPECT_EQ(ctx.url_path, nullptr);
}

TEST_F(Wopen, RefusedUrlsLeaveNothingOpen) {
    int closed_port = free_udp_port();  // nobody listens on it over TCP either
    std::string refused = "http://127.0.0.1:" + std::to_string(closed_port) + "/x";
    struct Case {
        std::string url;
        const char *log;
    } cases[] = {
        {"ftp://127.0.0.1:21/x", "unsupported type of URI [ftp://127.0.0.1:21/x]"},
        {"m3u://127.0.0.1:21/x", "unsupported URI type: 5"},
        {"tcp://127.0.0.1/x", "empty or invalid port"},
        {"udp://127.0.0.1", "empty or invalid port"},
        {"file:///nonexistent/wopen/x", "/nonexistent/wopen/x"},
        {refused, "CONNECT"},
    };
    int before = count_fds();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url);
        usock_ctx ctx{};
        EXPECT_EQ(usock_open(c.url.c_str(), &ctx), -1);
        EXPECT_TRUE(has_log(c.log)) << logged();
        EXPECT_EQ(ctx.url_path, nullptr);
        EXPECT_EQ(ctx.buf, nullptr);
        EXPECT_EQ(ctx.mifc, nullptr);
    }
    EXPECT_EQ(count_fds(), before);
}

// The whole blocking exchange inside usock_open, with the request checked
// byte for byte, and the version chosen only by the caller's flags.
TEST_F(Wopen, BlockingOpenSendsTheExactRequestAndKeepsTheTail) {
    struct Case {
        uint32_t flags;
        bool http10_switch;
        const char *version;
    } cases[] = {{0, false, "1.1"}, {HTTP_RQF_HTTP10, false, "1.0"}, {0, true, "1.1"}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.version + std::string(c.http10_switch ? " with switch" : ""));
        g_usock_flags.use_http10_get = c.http10_switch;
        Origin origin({"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"});
        ASSERT_TRUE(origin.ok());
        std::string hostport = "127.0.0.1:" + origin.port();
        std::string url = "http://" + hostport + "/media/a.ts?id=7&x=y";
        usock_ctx ctx{};
        ctx.timeout_ms = 3000;
        ctx.http_flags = c.flags;
        int fd = usock_open(url.c_str(), &ctx);
        ASSERT_GE(fd, 0) << logged();
        EXPECT_EQ(origin.request(), std::string("GET /media/a.ts?id=7&x=y HTTP/") + c.version +
                                        "\r\nHost: " + hostport +
                                        "\r\nConnection: close\r\nUser-Agent: trv/1.0\r\n"
                                        "Accept: text/html,video/*, application/*\r\n"
                                        "Accept-Language: en-US,en,ru\r\n"
                                        "Accept-Charset: ISO-8859-1,UTF-8\r\n"
                                        "Cache-Control: no-cache\r\n\r\n");
        EXPECT_EQ(std::string(ctx.buf, ctx.buflen), "hello");
        EXPECT_EQ(has_log("Using HTTP/1.0 request"), c.http10_switch);
        usock_close(fd, &ctx);
    }
}

TEST_F(Wopen, BlockingOpenFailsOnAnythingButStatus200) {
    Origin origin({"HTTP/1.1 204 No Content\r\n\r\n"});
    ASSERT_TRUE(origin.ok());
    int before = count_fds();
    std::string url = "http://127.0.0.1:" + origin.port() + "/a";
    usock_ctx ctx{};
    ctx.timeout_ms = 3000;
    EXPECT_EQ(usock_open(url.c_str(), &ctx), -1);
    EXPECT_TRUE(has_log("expected HTTP 200, got HTTP 204")) << logged();
    EXPECT_EQ(ctx.buf, nullptr);
    (void)origin.request();
    EXPECT_EQ(count_fds(), before);
}

TEST_F(Wopen, TargetWithQueryIsCutTo383Characters) {
    struct Case {
        size_t qlen;
        bool warned;
    } cases[] = {{379, false}, {380, false}, {381, true}, {600, true}};
    for (const Case &c : cases) {
        // "/p?" plus the query: 3 + 380 = 383 is the longest sent whole.
        std::string query(c.qlen, 'q');
        std::string url = "http://example.test:81/p?" + query;
        SCOPED_TRACE(c.qlen);
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        ASSERT_EQ(usock_http_get(sv[0], url.c_str(), 0), 0) << logged();
        std::string rq = read_head(sv[1]);
        std::string target = ("/p?" + query).substr(0, 383);
        EXPECT_EQ(rq.substr(0, rq.find("\r\n")), "GET " + target + " HTTP/1.1");
        EXPECT_NE(rq.find("\r\nHost: example.test:81\r\n"), std::string::npos);
        std::string warn =
            "GET query is too long [" + std::to_string(3 + c.qlen) + " bytes], max=383 bytes.";
        EXPECT_EQ(has_log(warn), c.warned) << logged();
        close(sv[0]);
        close(sv[1]);
    }
}

TEST_F(Wopen, RequestNeedsAPathAfterTheHost) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_EQ(fwd_http_rq(sv[0], "http://127.0.0.1:81", "x", 0), -1);
    EXPECT_TRUE(has_log("URI has no path tail: http://127.0.0.1:81")) << logged();
    // A path alone is never cut: it would name another resource.
    std::string url = "http://h:81/" + std::string(400, 'p');
    EXPECT_EQ(fwd_http_rq(sv[0], url.c_str(), "x", 0), -1);
    // Without a port the Host line has none either.
    ASSERT_EQ(fwd_http_rq(sv[0], "http://h/a", "agent", 0), 0);
    std::string rq = read_head(sv[1]);
    EXPECT_EQ(rq.substr(0, rq.find("\r\nConnection")), "GET /a HTTP/1.1\r\nHost: h");
    EXPECT_NE(rq.find("\r\nUser-Agent: agent\r\n"), std::string::npos);
    close(sv[0]);
    close(sv[1]);
}

// get_http_response on a blocking TCP socket whose receive time-out expires
// between the pieces: it keeps reading instead of giving up.
TEST_F(Wopen, WholeHeadOnBlockingSocket) {
    std::string body3000(3000, 'b');
    for (size_t i = 0; i < body3000.size(); ++i) body3000[i] = char('a' + i % 26);
    const std::string head200 = "HTTP/1.1 200 OK\r\nContent-Length: 3000\r\n\r\n";
    struct Case {
        const char *name;
        std::vector<std::string> pieces;
        size_t tail_size;
        int rc;
        const char *log;
    } cases[] = {
        {"tail fits",
         {"HTTP/1.1 200 OK\r\nContent-Le", "ngth: 5\r\n\r\nhello"},
         2048,
         0,
         "has a tail of 5 bytes"},
        {"tail too big", {head200 + body3000}, 512, 0, "is too big: "},
        {"no content",
         {"HTTP/1.1 204 No Content\r\n\r\n"},
         2048,
         -1,
         "expected HTTP 200, got HTTP 204"},
        {"closed early", {"HTTP/1.1 200 OK\r\n"}, 2048, -1, "connection broken"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Origin origin(c.pieces, 300);
        ASSERT_TRUE(origin.ok());
        usock_ctx ctx{};
        ctx.skip_http = true;
        ctx.inbound = true;  // so the time-out is the receive one
        ctx.timeout_ms = 50;
        std::string url = "tcp://127.0.0.1:" + origin.port() + "/x";
        int fd = usock_open(url.c_str(), &ctx);
        ASSERT_GE(fd, 0) << logged();
        ASSERT_TRUE(write_all(fd, "GET /x HTTP/1.1\r\n\r\n"));
        std::vector<char> tail(c.tail_size);
        size_t tail_len = 99;
        EXPECT_EQ(get_http_response(fd, tail.data(), tail.size(), &tail_len), c.rc);
        EXPECT_TRUE(has_log(c.log)) << logged();
        if (std::string(c.name) == "tail fits")
            EXPECT_EQ(std::string(tail.data(), tail_len), "hello");
        else
            EXPECT_EQ(tail_len, 0U);
        usock_close(fd, &ctx);
        (void)origin.request();
    }
}

// The head buffer holds 1024 bytes, so of a large body only what came with
// the head is handed out; the rest stays in the socket, in order.
TEST_F(Wopen, BodyBeyondTheHeadBufferStaysInTheSocket) {
    std::string body(3000, 'x');
    for (size_t i = 0; i < body.size(); ++i) body[i] = char('A' + i % 26);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    ASSERT_TRUE(write_all(sv[1], "HTTP/1.0 200 OK\r\n\r\n" + body));
    close(sv[1]);
    char tail[USOCK_BUF_SIZE];
    size_t tail_len = 0;
    ASSERT_EQ(get_http_response(sv[0], tail, sizeof tail, &tail_len), 0) << logged();
    EXPECT_EQ(tail_len, USOCK_RESP_HEAD_SIZE - strlen("HTTP/1.0 200 OK\r\n\r\n"));
    EXPECT_EQ(std::string(tail, tail_len) + read_all(sv[0]), body);
    close(sv[0]);
}

TEST_F(Wopen, WholeHeadOnNonBlockingSocketAsksToBeCalledAgain) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    ASSERT_TRUE(write_all(sv[1], "HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(get_http_response(sv[0], nullptr, 0, nullptr), 11);
    EXPECT_TRUE(has_log("expecting more data from fd" + std::to_string(sv[0]))) << logged();
    close(sv[0]);
    close(sv[1]);
}

// The engine's way: non-blocking connect, GET once writable, then the head
// step by step as it arrives.
TEST_F(Wopen, StepwiseHeadOnNonBlockingSocket) {
    struct Case {
        const char *name;
        std::vector<std::string> pieces;  // sent one per step
        size_t cap;
        std::vector<int> rcs;  // result after each piece
        int code;
    } cases[] = {
        {"two pieces", {"HTTP/1.1 200 OK\r\nContent-Le", "ngth: 3\r\n\r\nabc"}, 2048, {11, 0}, 200},
        {"no content", {"HTTP/1.1 204 No Content\r\n\r\n"}, 2048, {0}, 204},
        {"not found", {"HTTP/1.1 404 Not Found\r\n\r\n"}, 2048, {13}, 404},
        {"head too long", {"HTTP/1.1 200 OK\r\nX-Pad: " + std::string(100, 'p')}, 64, {-1}, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        usock_ctx ctx{};
        int sfd = -1;
        std::string url;
        int fd = engine_pair("/v/a.ts", &ctx, &sfd, &url);
        ASSERT_GE(fd, 0) << logged();
        ASSERT_GE(sfd, 0);
        ASSERT_EQ(usock_http_get(fd, url.c_str(), 0), 0) << logged();
        EXPECT_EQ(read_head(sfd).substr(0, 24), "GET /v/a.ts HTTP/1.1\r\nHo");
        std::vector<char> buf(c.cap);
        http_resp_buf rb{buf.data(), buf.size(), {}};
        for (size_t i = 0; i < c.pieces.size(); ++i) {
            ASSERT_TRUE(write_all(sfd, c.pieces[i]));
            ASSERT_TRUE(wait_for(fd, POLLIN));
            EXPECT_EQ(usock_http_get_response(fd, &rb), c.rcs[i]) << logged();
        }
        EXPECT_EQ(rb.ctx.code, c.code);
        if (c.rcs.back() == 0 && c.code == 200) {
            EXPECT_EQ(std::string(buf.data() + rb.ctx.tail, size_t(rb.ctx.total - rb.ctx.tail)),
                      "abc");
            EXPECT_TRUE(has_log("got HTTP tail of 3 bytes from fd" + std::to_string(fd)));
        }
        if (c.rcs.back() == 13) {
            EXPECT_TRUE(has_log("expected HTTP 200-299, got HTTP 404"));
        }
        if (c.rcs.back() == -1) {
            EXPECT_TRUE(has_log("err=-1 getting HTTP response"));
        }
        close(sfd);
        usock_close(fd, &ctx);
    }
}

TEST_F(Wopen, StepOnAFullBufferReadsNothing) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    ASSERT_TRUE(write_all(sv[1], "HTTP/1.1 200 OK\r\n\r\n"));
    char buf[16];
    http_resp_buf rb{buf, sizeof buf, {}};
    rb.ctx.total = sizeof buf;
    EXPECT_EQ(usock_http_get_response(sv[0], &rb), 7);
    EXPECT_TRUE(has_log("buffer is full, size=16")) << logged();
    EXPECT_EQ(read_now(sv[0]), "HTTP/1.1 200 OK\r\n\r\n");  // left for whoever reads next
    close(sv[0]);
    close(sv[1]);
}

TEST_F(Wopen, BodyIsReadUntilItsSizeOrThePeerEnds) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    char data[10] = {'a', 'b', 'c'};
    http_body_buf bb{sizeof data, 3, data};
    EXPECT_EQ(usock_http_get_body(sv[0], &bb), 11);  // nothing there yet
    ASSERT_TRUE(write_all(sv[1], "defg"));
    EXPECT_EQ(usock_http_get_body(sv[0], &bb), 11);
    EXPECT_EQ(bb.data_len, 7U);
    ASSERT_TRUE(write_all(sv[1], "hijEXTRA"));
    EXPECT_EQ(usock_http_get_body(sv[0], &bb), 0);
    EXPECT_EQ(std::string(data, bb.data_len), "abcdefghij");
    EXPECT_TRUE(has_log("complete at 10 bytes")) << logged();
    EXPECT_EQ(read_now(sv[0]), "EXTRA");  // never reads past the expected size

    char short_data[8] = {};
    http_body_buf early{sizeof short_data, 0, short_data};
    ASSERT_TRUE(write_all(sv[1], "abc"));
    close(sv[1]);
    EXPECT_EQ(usock_http_get_body(sv[0], &early), -1);
    EXPECT_EQ(early.data_len, 3U);
    close(sv[0]);

    http_body_buf bad{sizeof short_data, 0, short_data};
    EXPECT_EQ(usock_http_get_body(sv[0], &bad), EBADF);
}

TEST_F(Wopen, TimeoutsOnlyOnBlockingSockets) {
    int udp_port = free_udp_port();
    Origin origin({});
    ASSERT_TRUE(origin.ok());
    struct Case {
        std::string url;
        bool inbound;
        bool non_blocking;
        int opt;
        long want_ms;
    } cases[] = {
        {"udp://127.0.0.1:" + std::to_string(udp_port), true, false, SO_RCVTIMEO, 2000},
        {"udp://127.0.0.1:" + std::to_string(udp_port), true, true, SO_RCVTIMEO, 0},
        {"tcp://127.0.0.1:" + origin.port() + "/x", false, false, SO_SNDTIMEO, 2000},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url + (c.non_blocking ? " non-blocking" : " blocking"));
        usock_ctx ctx{};
        ctx.inbound = c.inbound;
        ctx.non_blocking = c.non_blocking;
        ctx.skip_http = true;
        ctx.timeout_ms = 2000;  // whole jiffies at any HZ
        int fd = usock_open(c.url.c_str(), &ctx);
        ASSERT_GE(fd, 0) << logged();
        timeval tv{};
        socklen_t len = sizeof tv;
        ASSERT_EQ(getsockopt(fd, SOL_SOCKET, c.opt, &tv, &len), 0);
        EXPECT_EQ(tv.tv_sec * 1000 + tv.tv_usec / 1000, c.want_ms);
        EXPECT_EQ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0, c.non_blocking);
        usock_close(fd, &ctx);
    }
}

TEST_F(Wopen, UdpReaderReceivesWhatAWriterSends) {
    for (const char *scheme : {"udp", "rtp"}) {
        SCOPED_TRACE(scheme);
        std::string url = std::string(scheme) + "://127.0.0.1:" + std::to_string(free_udp_port());
        usock_ctx rctx{};
        rctx.inbound = true;
        rctx.non_blocking = true;
        int rfd = usock_open(url.c_str(), &rctx);
        ASSERT_GE(rfd, 0) << logged();
        EXPECT_EQ(rctx.sspec.multicast, 0U);
        EXPECT_EQ(rctx.buf, nullptr);  // datagram sources have no head buffer
        usock_ctx wctx{};
        wctx.non_blocking = true;
        int wfd = usock_open(url.c_str(), &wctx);
        ASSERT_GE(wfd, 0) << logged();
        const std::string msg = "#!lid1 http://h/a.ts 99";
        ASSERT_EQ(
            sendto(wfd, msg.data(), msg.size(), 0,
                   reinterpret_cast<const sockaddr *>(&wctx.sspec.addr_ss), wctx.sspec.addr_len),
            ssize_t(msg.size()));
        ASSERT_TRUE(wait_for(rfd, POLLIN));
        char got[64] = {};
        EXPECT_EQ(recv(rfd, got, sizeof got, 0), ssize_t(msg.size()));
        EXPECT_EQ(std::string(got), msg);
        usock_close(wfd, &wctx);
        usock_close(rfd, &rctx);
    }
}

class WopenMcast : public Wopen {
   protected:
    // lo carries no MULTICAST flag by default; as root it is turned on (and
    // left on). Also picks a group of this process's own.
    const char *unavailable() {
        unsigned pid = static_cast<unsigned>(getpid());
        group_ = "239." + std::to_string((pid >> 16) & 0xff) + "." +
                 std::to_string((pid >> 8) & 0xff) + "." + std::to_string(pid & 0xff);
        if (lo_multicast()) return nullptr;
        if (geteuid() != 0)
            return "lo has no MULTICAST flag and only root can set it "
                   "(ip link set lo multicast on)";
        (void)system("ip link set lo multicast on");
        return lo_multicast() ? nullptr : "could not set the MULTICAST flag on lo";
    }
    static bool lo_multicast() {
        std::ifstream in("/sys/class/net/lo/flags");
        unsigned long flags = 0;
        in >> std::hex >> flags;
        return (flags & IFF_MULTICAST) != 0;
    }
    static std::string receive(int fd) {
        if (!wait_for(fd, POLLIN)) return "(nothing)";
        char buf[64] = {};
        ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
        return n > 0 ? std::string(buf, size_t(n)) : "(error)";
    }
    std::string group_;
};

// The reader joins on open and leaves on close: a duplicate of its
// descriptor keeps the socket, but no longer the membership.
TEST_F(WopenMcast, ReaderHearsTheGroupAndLeavesItOnClose) {
    if (const char *why = unavailable()) GTEST_SKIP() << why;
    for (bool ssm : {false, true}) {
        SCOPED_TRACE(ssm ? "source-specific" : "any-source");
        std::string url = "udp://" + group_ + ":" + std::to_string(free_udp_port());
        usock_ctx rctx{};
        rctx.inbound = true;
        rctx.non_blocking = true;
        rctx.ifc_tag = "lo";
        int rfd = usock_open((url + (ssm ? "?ttl=1&src=127.0.0.1" : "")).c_str(), &rctx);
        ASSERT_GE(rfd, 0) << logged();
        ASSERT_NE(rctx.mifc, nullptr);
        EXPECT_STREQ(rctx.mifc->name, "lo");
        EXPECT_EQ(rctx.sspec.multicast, 1U);
        EXPECT_EQ(rctx.sspec.is_ssm, ssm);
        EXPECT_EQ(has_log("SSM source=[127.0.0.1]"), ssm);

        usock_ctx wctx{};
        wctx.non_blocking = true;
        wctx.ifc_tag = "lo";
        int wfd = usock_open(url.c_str(), &wctx);
        ASSERT_GE(wfd, 0) << logged();
        auto send = [&](const char *text) {
            ASSERT_EQ(sendto(wfd, text, strlen(text), 0,
                             reinterpret_cast<const sockaddr *>(&wctx.sspec.addr_ss),
                             wctx.sspec.addr_len),
                      ssize_t(strlen(text)));
        };
        send("first");
        EXPECT_EQ(receive(rfd), "first");

        int keep = dup(rfd);
        ASSERT_GE(keep, 0);
        sockaddr_storage grp = rctx.sspec.addr_ss;
        sockaddr_storage src = rctx.sspec.src_ss;
        ifc_info lo = *rctx.mifc;
        usock_close(rfd, &rctx);
        EXPECT_EQ(rctx.mifc, nullptr);
        const auto *g = reinterpret_cast<const sockaddr *>(&grp);
        const auto *s = reinterpret_cast<const sockaddr *>(&src);
        // Leaving again fails: the close already left.
        EXPECT_NE(ssm ? ssm_leave(keep, g, &lo, s) : mcast_leave(keep, g, &lo), 0);
        send("missed");
        ASSERT_EQ(ssm ? ssm_join(keep, g, &lo, s) : mcast_join(keep, g, &lo), 0);
        send("again");
        EXPECT_EQ(receive(keep), "again");
        close(keep);
        usock_close(wfd, &wctx);
    }
}

TEST_F(Wopen, FileUrlOpensARegularFileAsNonPollable) {
    char path[] = "/tmp/trov-wopen-XXXXXX";
    int tfd = mkstemp(path);
    ASSERT_GE(tfd, 0);
    ASSERT_TRUE(write_all(tfd, "segment bytes"));
    close(tfd);
    usock_ctx ctx{};
    std::string url = std::string("file://") + path;
    int fd = usock_open(url.c_str(), &ctx);
    ASSERT_GE(fd, 0) << logged();
    EXPECT_TRUE(ctx.non_pollable);
    EXPECT_EQ(ctx.url_kind, URI_KIND_FILE);
    EXPECT_STREQ(ctx.url_path, path);
    EXPECT_EQ(ctx.buf, nullptr);
    EXPECT_TRUE(has_log("fd" + std::to_string(fd) + " FILE [" + path + "]")) << logged();
    char got[32] = {};
    EXPECT_EQ(read(fd, got, sizeof got), 13);
    EXPECT_STREQ(got, "segment bytes");
    EXPECT_EQ(write(fd, "x", 1), -1);  // opened read-only
    usock_close(fd, &ctx);
    unlink(path);
}

}  // namespace

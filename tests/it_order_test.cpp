// trov-order end to end: it orders the real daemon over both channels and waits for the
// file; orders it refuses never leave for the loopback socket.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <vector>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"

namespace {

constexpr int WAIT_MS = 10000;

// One run of the command; status is its exit status, -1 when it did not exit normally in time.
struct run_order {
    std::string out, err;
    int status;
    explicit run_order(const std::vector<std::string> &args)
        : status(daemon_run(TROV_ORDER_BIN, args, 30000, &out, &err)) {}
};

// A UDP socket of our own on loopback, to see what the command sends.
struct udp_sink {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int port = 0;
    udp_sink() {
        sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t len = sizeof a;
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~udp_sink() { close(fd); }
    // What is queued, without waiting: the command has exited by now.
    std::string take() {
        char buf[2048];
        ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        return n > 0 ? std::string(buf, size_t(n)) : "";
    }
};

class ItOrder : public DaemonTest {
   protected:
    void SetUp() override {
        if (!*TROV_ORDER_BIN) GTEST_SKIP() << "trov-order is not built";
        DaemonTest::SetUp();
    }
};

TEST_F(ItOrder, OrderWithWaitFetchesTheFileAndARepeatIsRefusedOnBothChannels) {
    const std::string uep = "127.0.0.1:" + std::to_string(pick_free_port(SOCK_DGRAM));
    daemon_conf c;
    c.udp_url = "udp://" + uep;
    ASSERT_TRUE(daemon_configure(&d_, c) == 0 && daemon_start(&d_) == 0);
    ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);

    // A "src" segment and a "+" in the source, blanks in the destination all arrive as typed.
    std::string src = origin_url(org_, "/f/5000/src/a+b.ts");
    run_order r({"udp", uep, "it-order-1", src, "got/x y.ts", "--wait", d_.data_dir, "--timeout",
                 "20", "--expiry", "1900000000"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("#!it-order-1 http://0/src/", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("\n" + d_.data_dir + "/got/x y.ts: 5000 bytes in "), std::string::npos)
        << r.out;
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/got/x y.ts", "src/a+b.ts", 5000), "");
    EXPECT_EQ(origin_request_count(org_, "/f/5000/src/a+b.ts"), 1u);
    EXPECT_EQ(daemon_wait_log(&d_, "expiry time: 1900000000", WAIT_MS), 0);

    // Ordered again over HTTP: the daemon leaves the file alone and says so.
    std::string ep = "127.0.0.1:" + std::to_string(d_.port);
    r = run_order({"http", ep, src, "got/x y.ts"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.rfind("HTTP/1.1 403", 0), 0u) << r.out;
    // With --wait the command sees the file first and orders nothing.
    size_t asked = origin_request_count(org_, "/f/5000/src/a+b.ts");
    r = run_order({"http", ep, src, "got/x y.ts", "--wait", d_.data_dir});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("already there (5000 bytes)"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(origin_request_count(org_, "/f/5000/src/a+b.ts"), asked);
}

TEST_F(ItOrder, RefusedOrdersNeverLeaveAndGoodOnesArriveAsPrinted) {
    udp_sink sink;
    ASSERT_GT(sink.port, 0);
    const std::string ep = "127.0.0.1:" + std::to_string(sink.port),
                      src = "http://127.0.0.1:9/live/a.ts";
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{"fetch", ep, "abcd", src}, "unknown command [fetch]"},
        {{"udp", ep, "abcd"}, "udp takes HOST:PORT ID SOURCE-URL [DEST]"},
        {{"udp", ep, "abc", src}, "4 to 31"},
        {{"udp", ep, "abcd", src, "a/../../etc/passwd"}, "\"..\" segment"},
        {{"udp", "127.0.0.1", "abcd", src}, "bad HOST:PORT [127.0.0.1]"},
        {{"udp", ep, "abcd", src, "--expiry", "tomorrow"}, "bad --expiry [tomorrow]"},
        {{"udp", ep, "abcd", src, "--timeout", "0"}, "bad --timeout [0]"},
        {{"udp", ep, "abcd", src, "--wait", "/nonexistent/trov-data"}, "No such file"},
        {{"udp", ep, "abcd", src, "--bogus"}, "unknown option --bogus"},
        {{"udp", ep, "abcd", src, "-w"}, "needs an argument"},
    };
    for (const auto &[args, says] : cases) {
        run_order r(args);
        EXPECT_EQ(r.status, 2) << says;
        EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
        EXPECT_EQ(r.out + sink.take(), "") << says;
    }
    run_order r({"udp", ep, "ok-order", src, "/x/a.ts", "-e", "+0"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string sent = sink.take();
    EXPECT_EQ(r.out.substr(0, r.out.find('\n')), sent);
    EXPECT_EQ(sent.rfind("#!ok-order http://0/src/http://127.0.0.1:9/live/a.ts/dst/x/a.ts ", 0), 0u)
        << sent;
    long expiry = std::stol(sent.substr(sent.rfind(' ') + 1));
    EXPECT_TRUE(expiry <= time(nullptr) && expiry > time(nullptr) - 60) << expiry;

    // A wait that runs out, off a terminal: no progress line, exit 3.
    r = run_order({"udp", ep, "late-order", src, "--wait", d_.data_dir, "--timeout", "0.5"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err.find('\r'), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("live/a.ts did not appear within 0.500 s"), std::string::npos) << r.err;
    EXPECT_NE(sink.take(), "");
}

}  // namespace

// The admin listener end to end: counters that agree with the log after a
// mixed run, an exposition the reference checker accepts, a real Prometheus
// server scraping it, and an admin listener that misbehaving clients cannot
// use to disturb downloads.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <string>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"
#include "strcat.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

constexpr int WAIT_MS = 10000;
constexpr size_t NPOS = std::string::npos;

std::string head(const std::string &line) {
    return line + "\r\nHost: 127.0.0.1\r\nUser-Agent: it-metrics/1.0\r\nAccept: */*\r\n\r\n";
}

class ItMetrics : public DaemonTest {
   protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (!set_up()) return;
        adm_port_ = pick_free_port(SOCK_STREAM);
        ASSERT_GT(adm_port_, 0);
        ASSERT_EQ(daemon_configure(&d_, {.level = "info",
                                         .udp_url = "udp://127.0.0.1:" + std::to_string(udp_port_),
                                         .udp_must_lock = false,
                                         .extra = "admin_input: { alias = \"adm\"; ifc = "
                                                  "\"127.0.0.1\"; port = " +
                                                  std::to_string(adm_port_) + "; };"}),
                  0);
        ASSERT_EQ(daemon_start(&d_), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    }
    int order(const std::string &path, const std::string &dst) {
        return net_exchange(
                   d_.port,
                   head("GET /src/" + origin_url(org_, path) + "/dst/" + dst + " HTTP/1.1"),
                   WAIT_MS)
            .status;
    }
    void datagram(const std::string &id, const std::string &path, const std::string &dst) {
        std::string dg =
            "#!" + id + " http://0/src/" + origin_url(org_, path) + "/dst/" + dst + " 1900000000";
        ASSERT_EQ(udp_send(udp_port_, dg.data(), dg.size()), 0);
    }
    net_reply admin(const std::string &bytes) { return net_exchange(adm_port_, bytes, WAIT_MS); }
    // The exposition's samples, "name{labels}" -> value.
    std::map<std::string, double> scrape(std::string *text = nullptr) {
        net_reply r = admin(head("GET /metrics HTTP/1.1"));
        EXPECT_EQ(r.status, 200);
        std::string body = r.data.substr(r.data.find("\r\n\r\n") + 4);
        if (text != nullptr) *text = body;
        std::map<std::string, double> out;
        static const std::regex line("^(trov_[a-z_]+(\\{[^}]*\\})?) ([0-9.e+]+)$");
        std::smatch m;
        for (size_t at = 0; at < body.size();) {
            size_t nl = body.find('\n', at);
            std::string l = body.substr(at, nl - at);
            if (std::regex_match(l, m, line)) out[m[1]] = std::stod(m[3]);
            at = nl == NPOS ? body.size() : nl + 1;
        }
        return out;
    }
    // Completed 3 over HTTP and 2 by datagram, refused 403 (the file is
    // there), a source's 404 and a malformed order, plus one ping.
    void mixed_run() {
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(order(str_cat("/f/2000/m", std::to_string(i)),
                            str_cat("m", std::to_string(i), ".ts")),
                      200);
        datagram("dgm0001", "/f/3000/u1", "u1.ts");
        datagram("dgm0002", "/f/3000/u2", "u2.ts");
        ASSERT_TRUE(wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "downloaded:") == 5; }));
        EXPECT_EQ(order("/f/2000/m0", "m0.ts"), 403);
        EXPECT_EQ(order("/status/404/nope", "nope.ts"), 404);
        EXPECT_EQ(net_exchange(d_.port, head("GET /metrics HTTP/1.1"), WAIT_MS).status, 400);
        EXPECT_EQ(net_exchange(d_.port, head("GET / HTTP/1.1"), WAIT_MS).status, 204);
        ASSERT_TRUE(wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "TASK-END") == 7; }));
    }

    int adm_port_ = 0;
};

TEST_F(ItMetrics, CountersAgreeWithTheLogAndTheReferenceCheckerAcceptsThem) {
    auto m = scrape();
    EXPECT_EQ(m["trov_downloads_total{result=\"completed\"}"], 0);
    EXPECT_EQ(m["trov_tasks_max"], 64);
    EXPECT_EQ(m["trov_build_info{version=\"0.2-0.15\"}"], 1);
    EXPECT_GT(m["trov_start_time_seconds"], 1.7e9);

    mixed_run();
    std::string text;
    m = scrape(&text);
    const std::map<std::string, double> want = {
        {"trov_orders_total{channel=\"http\",result=\"accepted\"}", 3},
        {"trov_orders_total{channel=\"http\",result=\"refused\"}", 3},
        {"trov_orders_total{channel=\"udp\",result=\"accepted\"}", 2},
        {"trov_orders_total{channel=\"udp\",result=\"refused\"}", 0},
        {"trov_http_answers_total{code=\"200\"}", 3},
        {"trov_http_answers_total{code=\"204\"}", 1},
        {"trov_http_answers_total{code=\"400\"}", 1},
        {"trov_http_answers_total{code=\"403\"}", 1},
        {"trov_http_answers_total{code=\"404\"}", 1},
        {"trov_downloads_total{result=\"completed\"}", 5},
        {"trov_downloads_total{result=\"failed\"}", 2},  // the 403 and the 404
        {"trov_download_bytes_total", 3 * 2000 + 2 * 3000},
        {"trov_tasks_active", 0},
        {"trov_udp_datagrams_dropped_total", 0},
        {"trov_udp_orders_skipped_total{reason=\"locked\"}", 0},
        {"trov_lbdb_registrations_total{result=\"ok\"}", 0},
        {"trov_source_connections_total{kind=\"new\"}", 7},  // one per download, no keep-alive
        {"trov_source_connections_total{kind=\"reused\"}", 0},
    };
    for (const auto &[name, value] : want) EXPECT_EQ(m[name], value) << name;
    EXPECT_EQ(m["trov_downloads_total{result=\"completed\"}"],
              daemon_count_log(&d_, "downloaded:"));
    // Every family has its help and its type, once.
    for (const char *fam : {"trov_orders_total", "trov_http_answers_total", "trov_downloads_total",
                            "trov_download_bytes_total", "trov_tasks_active", "trov_tasks_max",
                            "trov_udp_datagrams_dropped_total", "trov_udp_orders_skipped_total",
                            "trov_lbdb_registrations_total", "trov_source_connections_total",
                            "trov_start_time_seconds", "trov_build_info"}) {
        SCOPED_TRACE(fam);
        for (const char *what : {"# HELP ", "# TYPE "}) {
            const std::string line = std::string("\n") + what + fam + " ";
            EXPECT_NE(("\n" + text).find(line), NPOS);
            EXPECT_EQ(("\n" + text).find(line), ("\n" + text).rfind(line));
        }
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '#'), 2 * 12);
    std::string out, err;

    // The operator's summary of the same counters; the order listener has none.
    const std::string adm = "127.0.0.1:" + std::to_string(adm_port_);
    EXPECT_EQ(daemon_run(TROV_ORDER_BIN, {"stats", adm}, WAIT_MS, &out, &err), 0) << err;
    for (const char *line : {"orders     http 3 taken, 3 refused; udp 2 taken, 0 refused\n",
                             "answers    200: 3, 204: 1, 400: 1, 403: 1, 404: 1\n",
                             "downloads  5 completed, 2 failed, 11.7 KiB written\n",
                             "tasks      0 running of at most 64\n", "version    0.2-0.15\n"})
        EXPECT_NE(out.find(line), NPOS) << line << out;
    const std::string orders = "127.0.0.1:" + std::to_string(d_.port);
    EXPECT_EQ(daemon_run(TROV_ORDER_BIN, {"stats", orders}, WAIT_MS, &out, &err), 1);
    EXPECT_NE(err.find("no metrics at " + orders + ": HTTP/1.1 400"), NPOS) << err;

    std::string promtool = daemon_find_program("promtool");
    if (promtool.empty()) GTEST_SKIP() << "promtool is not installed (package prometheus)";
    const std::string file = d_.dir + "/scrape.txt";
    std::ofstream(file) << text;
    EXPECT_EQ(
        daemon_run("/bin/sh", {"-c", promtool + " check metrics < " + file}, WAIT_MS, &out, &err),
        0)
        << out << err;
}

// Answers by target and method; a broken, oversized, slow or half-sent head
// is answered or timed out without a download noticing.
TEST_F(ItMetrics, AdminListenerAnswersEveryClientAndNeverDisturbsDownloads) {
    net_reply r = admin(head("GET /metrics HTTP/1.1"));
    EXPECT_NE(r.data.find("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"), NPOS);
    size_t cl = r.data.find("Content-Length: ");
    ASSERT_NE(cl, NPOS);
    EXPECT_EQ(std::stoul(r.data.substr(cl + 16)), r.data.size() - r.data.find("\r\n\r\n") - 4);
    EXPECT_TRUE(r.peer_closed);

    struct Case {
        std::string bytes;
        int status;
    } cases[] = {
        {head("GET / HTTP/1.1"), 204},
        {head("GET /metrics?x=1 HTTP/1.0"), 200},
        {head("GET /other HTTP/1.1"), 404},
        {head("POST /metrics HTTP/1.1"), 404},
        {head("GET metrics HTTP/1.1"), 400},
        {head("GARBAGE"), 400},
        {"GET /metrics HTTP/1.1\r\nX-Pad: " + std::string(2048, 'p') + "\r\n\r\n", 400},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bytes.substr(0, 40));
        EXPECT_EQ(admin(c.bytes).status, c.status);
    }
    r = admin(head("HEAD /metrics HTTP/1.1"));
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.data.substr(r.data.find("\r\n\r\n") + 4), "");

    // A slow client holds its connection while a download runs through.
    int slow = net_connect(adm_port_, WAIT_MS);
    ASSERT_GE(slow, 0);
    ASSERT_EQ(net_send_all(slow, "GET /metrics HTTP/1.1\r\nHost: x\r\nUser-Agent: slow-client\r\n",
                           WAIT_MS),
              0);
    EXPECT_EQ(order("/slow/20000/while-slow", "while-slow.ts"), 200);
    ASSERT_TRUE(wait_until(WAIT_MS, [&] { return daemon_count_log(&d_, "downloaded:") == 1; }));
    EXPECT_EQ(origin_expect_file(d_.data_dir + "/while-slow.ts", "while-slow", 20000), "");
    // It is dropped at the requests' time-out, without an answer.
    net_reply late = net_read_reply(slow, WAIT_MS);
    close(slow);
    EXPECT_TRUE(late.peer_closed || late.reset);
    EXPECT_EQ(late.data, "");
    EXPECT_TRUE(daemon_running(&d_));
    EXPECT_EQ(scrape()["trov_orders_total{channel=\"http\",result=\"accepted\"}"], 1);
}

// A real Prometheus server scrapes the admin listener every second; its
// query API then gives exactly the counts of the orders made.
TEST_F(ItMetrics, PrometheusScrapesTheCountsOfAMixedRun) {
    std::string prom = daemon_find_program("prometheus");
    if (prom.empty()) GTEST_SKIP() << "prometheus is not installed (package prometheus)";
    daemon_proc p{};
    ASSERT_EQ(daemon_init(&p, prom), 0);
    const int web = pick_free_port(SOCK_STREAM);
    std::ofstream(p.dir + "/prometheus.yml")
        << "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\n"
           "scrape_configs:\n  - job_name: trov\n    static_configs:\n"
           "      - targets: ['127.0.0.1:"
        << adm_port_ << "']\n";
    ASSERT_EQ(daemon_start(&p, {"--config.file=" + p.dir + "/prometheus.yml",
                                "--storage.tsdb.path=" + p.dir + "/tsdb",
                                "--web.listen-address=127.0.0.1:" + std::to_string(web)}),
              0);
    mixed_run();
    // The value of a query's one series, or -1 while there is none.
    auto query = [&](const std::string &q) {
        std::string enc;
        for (unsigned char c : q) {
            char b[4];
            snprintf(b, sizeof b, isalnum(c) || c == '_' ? "%c" : "%%%02X", c);
            enc += b;
        }
        // Closed after the answer, so the read ends with it.
        net_reply r = net_exchange(
            web, head("GET /api/v1/query?query=" + enc + " HTTP/1.1\r\nConnection: close"), 3000);
        static const std::regex value("\"value\":\\[[0-9.]+,\"([0-9.e+]+)\"\\]");
        std::smatch m;
        return std::regex_search(r.data, m, value) ? std::stod(m[1]) : -1.0;
    };
    const std::pair<std::string, double> want[] = {
        {"trov_downloads_total{result=\"completed\"}", 5},
        {"trov_orders_total{channel=\"http\",result=\"refused\"}", 3},
        {"trov_orders_total{channel=\"udp\",result=\"accepted\"}", 2},
        {"trov_http_answers_total{code=\"403\"}", 1},
        {"trov_http_answers_total{code=\"404\"}", 1},
        {"sum(trov_orders_total)", 8},
    };
    for (const auto &[q, v] : want) {
        SCOPED_TRACE(q);
        EXPECT_TRUE(wait_until(20000, [&] { return query(q) == v; })) << query(q);
    }
    EXPECT_EQ(daemon_status_text(daemon_stop(&p, WAIT_MS)), "exited 0");
    daemon_destroy(&p);
}

}  // namespace

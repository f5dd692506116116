// Reliability end to end: a daemon whose only web listener comes from the
// command line, quitting at once whatever its load, and an order channel
// that says how many datagrams a full receive buffer cost.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>

#include "daemon.h"
#include "daemon_test.h"
#include "netclient.h"
#include "origin.h"

// A configuration names only the keys a test changes; the rest keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

constexpr int WAIT_MS = 10000;
constexpr size_t NPOS = std::string::npos;

class ItReliability : public DaemonTest {
   protected:
    // A configuration with the order channel and no web_input section.
    void configure_udp_only(const std::string &udp_extra = "") {
        ASSERT_EQ(daemon_configure(&d_, {.level = "info",
                                         .web = false,
                                         .udp_url = "udp://127.0.0.1:" + std::to_string(udp_port_),
                                         .udp_must_lock = false,
                                         .udp_extra = udp_extra,
                                         .max_tasks = 4096}),
                  0);
    }
    std::string datagram(int i) {
        return "#!id" + std::to_string(100000 + i) + " http://0/src/" +
               origin_url(org_, "/f/64/b" + std::to_string(i)) + "/dst/b" + std::to_string(i) +
               ".ts 1900000000";
    }
    // The sum of the counts of every drop warning in the log.
    long drops_reported() {
        static const std::regex re(
            "udl_report_drops: ([0-9]+) order datagrams dropped "
            "\\(receive buffer full\\)");
        std::string log = daemon_read_file(d_.log_path);
        long sum = 0;
        for (std::sregex_iterator it(log.begin(), log.end(), re), end; it != end; ++it)
            sum += std::stol((*it)[1]);
        return sum;
    }
};

// Without a web_input section the listener of -w used to take no connection
// at all: it stayed ready, the loop spun, and no quit signal got through.
TEST_F(ItReliability, CommandLineListenerAnswersAndQuitSignalsEndItAtOnce) {
    configure_udp_only();
    for (int sig : {SIGTERM, SIGINT, SIGQUIT}) {
        SCOPED_TRACE(sig);
        const int port = pick_free_port(SOCK_STREAM);
        const std::string lsn = "127.0.0.1:" + std::to_string(port);
        ASSERT_EQ(unlink(d_.log_path.c_str()) == 0 || errno == ENOENT, true);
        ASSERT_EQ(daemon_start(&d_, {"-T", "-C", d_.conf_path, "-w", lsn}), 0);
        ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
        EXPECT_EQ(daemon_count_log(&d_, "\tmax-accepted=64"), 1);
        EXPECT_EQ(net_exchange(port, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: t\r\n\r\n",
                               WAIT_MS)
                      .status,
                  204);
        // A connection that sends nothing stays with the daemon until the quit.
        int idle = net_connect(port, WAIT_MS);
        ASSERT_GE(idle, 0);
        const auto t0 = std::chrono::steady_clock::now();
        ASSERT_EQ(daemon_signal(&d_, sig), 0);
        EXPECT_EQ(daemon_status_text(daemon_wait_exit(&d_, 1000)), "exited 0");
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(1));
        close(idle);
    }
}

// A stopped daemon cannot read its channel: a burst sent meanwhile overflows
// a small receive buffer. Every order is then either fetched or counted in a
// drop warning, and the counts add up to the burst exactly.
TEST_F(ItReliability, DatagramsLostToAFullReceiveBufferAreCountedExactly) {
    configure_udp_only("rcvbuf_kb = 64;");
    ASSERT_EQ(daemon_start(&d_), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    // The kernel reports twice the size asked for (its bookkeeping share).
    EXPECT_EQ(daemon_count_log(&d_, "udl_ctx_init: receive buffer 128 KiB"), 1);

    constexpr int BURST = 1500;
    ASSERT_EQ(daemon_signal(&d_, SIGSTOP), 0);
    for (int i = 0; i < BURST; ++i) {
        std::string dg = datagram(i);
        ASSERT_EQ(udp_send(udp_port_, dg.data(), dg.size()), 0);
    }
    ASSERT_EQ(daemon_signal(&d_, SIGCONT), 0);
    // Settled: every order is accounted for, or nothing changes any more.
    auto accounted = [&] {
        return daemon_count_log(&d_, "downloaded: 64 bytes") + drops_reported();
    };
    EXPECT_TRUE(wait_until(WAIT_MS * 3, [&] { return accounted() >= BURST; }));
    const int fetched = daemon_count_log(&d_, "downloaded: 64 bytes");
    EXPECT_GT(fetched, 0);
    EXPECT_LT(fetched, BURST);  // the buffer holds far fewer than the burst
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_, WAIT_MS)), "exited 0");
    EXPECT_EQ(daemon_count_log(&d_, "downloaded: 64 bytes") + drops_reported(), BURST);
    EXPECT_EQ(daemon_count_log(&d_, "request failed"), 0);
}

TEST_F(ItReliability, ReceiveBufferDefaultsToEightMebibytesAndRefusesNonsense) {
    configure_udp_only();
    ASSERT_EQ(daemon_start(&d_), 0);
    ASSERT_EQ(daemon_wait_log(&d_, "STARTING. PID=", WAIT_MS), 0);
    if (geteuid() == 0) {  // past the system's cap only with the right to force it
        EXPECT_EQ(daemon_count_log(&d_, "udl_ctx_init: receive buffer 16384 KiB"), 1);
    } else {
        EXPECT_EQ(daemon_count_log(&d_, "udl_ctx_init: receive buffer "), 1);
    }
    EXPECT_EQ(daemon_status_text(daemon_stop(&d_, WAIT_MS)), "exited 0");
    EXPECT_EQ(drops_reported(), 0);  // no drop, no warning

    configure_udp_only("rcvbuf_kb = -1;");
    std::string err;
    EXPECT_EQ(daemon_run(TROV_BIN, {"-T", "-C", d_.conf_path}, WAIT_MS, nullptr, &err), 1);
    EXPECT_NE(err.find("load_config: rcvbuf_kb must be 0 to 1048576 KiB, not -1\n"), NPOS) << err;
}

}  // namespace

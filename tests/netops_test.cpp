// The socket layer against real sockets on loopback: address splitting, listeners,
// non-blocking connects and multicast membership on lo, with the refusals' exact messages.
#include "netops.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>

#include "daemon.h"
#include "log.h"
#include "netclient.h"

namespace {

int count_fds() {  // the descriptors open in this process
    return int(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

bool ready(int fd, short events) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, 5000) == 1 && (p.revents & events) != 0;
}

bool have_ipv6() {
    int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 a{AF_INET6, 0, 0, in6addr_loopback, 0};
    bool ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

std::string addr_text(const sockaddr_storage &ss) {
    char buf[SADDR_STR_SIZE];
    return saddr_str(reinterpret_cast<const sockaddr *>(&ss), sizeof ss, buf, sizeof buf);
}

socket_spec spec_of(int family, int socktype, bool writer = false, bool non_blocking = true) {
    socket_spec s{};
    s.writer = writer, s.non_blocking = non_blocking, s.family = family, s.socktype = socktype;
    return s;
}

// A wildcard listener of family (-1: open_listener on a prepared "::") must accept an IPv4
// and an IPv6 client; one of no stated family is the resolver's first wildcard, IPv4 only.
// 0, or the step that failed; no gtest assertions, as a child runs it.
int dual_stack_failure(int family) {
    std::string port = std::to_string(pick_free_port(SOCK_STREAM));
    sockaddr_storage any6{AF_INET6, {}, 0};
    int lfd = family == -1 ? open_listener(&any6, port.c_str(), false)
                           : open_anyaddr_listener(family, port.c_str(), false);
    socket_spec c4 = spec_of(AF_INET, SOCK_STREAM, false, false), c6 = c4;
    c6.family = AF_INET6;
    int fd4 = open_socket("127.0.0.1", port.c_str(), nullptr, &c4, nullptr, nullptr);
    int fd6 = open_socket("::1", port.c_str(), nullptr, &c6, nullptr, nullptr);
    const bool v6 = family != AF_UNSPEC;
    int step = lfd < 0 ? 1 : fd4 < 0 ? 2 : (fd6 >= 0) != v6 ? 3 : 0;
    for (int i = 0, afd; step == 0 && i < 2; ++i)  // the connects are done and queued
        if ((afd = accept(lfd, nullptr, nullptr)) >= 0 ? i == 1 && !v6 : i == 0 || v6)
            step = 4;
        else if (afd >= 0)
            close(afd);
    for (int fd : {fd4, fd6, lfd})
        if (fd >= 0) close(fd);
    return step;
}

class Netops : public ::testing::Test {
   protected:
    void SetUp() override { log_set_modules(g_log, LL_DEBUG), log_default(g_log, fp_); }
    void TearDown() override { log_default(g_log, stderr), fclose(fp_), free(text_); }
    bool logged(const std::string &what) {
        return fflush(fp_) == 0 && std::string(text_, len_).find(what) != std::string::npos;
    }
    char *text_ = nullptr;
    size_t len_ = 0;
    FILE *fp_ = open_memstream(&text_, &len_);
};

TEST_F(Netops, AddressesAndInterfacesAreReadFromText) {
    // The last column: the printed address, or the log line of the refusal.
    const std::tuple<const char *, int, bool, const char *> cases[] = {
        {"10.0.0.1:8080", AF_UNSPEC, true, "10.0.0.1:8080"},
        {"8080", AF_UNSPEC, false, "invalid address/port: 8080"},
        {"1234:80", AF_UNSPEC, false, "cannot accept plain number [1234] as IP address"},
        {"::1:80", AF_UNSPEC, false, "cannot accept plain number [::1] as IP address"},
        {"127.0.0.1:http", AF_UNSPEC, false, "port must be plain decimal number [http]"},
        {"2001:db8::1:8080", AF_INET6, true, "[2001:db8::1]:8080"}};
    for (const auto &[text, family, ok, want] : cases) {
        if (family == AF_INET6 && !have_ipv6()) continue;
        sockaddr_storage ss{};
        socklen_t len = 0;
        ASSERT_EQ(mk_sockaddr(text, SOCK_STREAM, family, &ss, &len) == 0, ok) << text;
        EXPECT_TRUE(ok ? addr_text(ss) == want : logged(want)) << text;
    }
    if (!have_ipv6()) return;
    ifc_info *ifc = get_ifc_info(AF_INET6, "lo");
    ASSERT_NE(ifc, nullptr);
    EXPECT_EQ(std::string(ifc->name) + " " + addr_text(ifc->ss), "lo ::1");
    free(ifc);
    EXPECT_EQ(get_ifc_info(AF_INET6, "127.0.0.1"), nullptr);
    EXPECT_TRUE(logged("[127.0.0.1] is not a valid IPv6 interface address."));
}

TEST_F(Netops, OpenersRefuseBadInputAndCloseWhatTheyMade) {
    int before = count_fds();
    const char *const cases[][4] = {
        // address, port, SSM source, the refusal
        {"127.0.0.1", "0", nullptr, "empty or invalid port [0]"},
        {"127.0.0.1", "65536", nullptr, "empty or invalid port [65536]"},
        {"127.0.0.1", "8x", nullptr, "empty or invalid port [8x]"},
        {"1234", "80", nullptr, "cannot accept plain number [1234] as IP address"},
        {"239.1.2.3", "5000", "127.0.0.1:5000", "invalid SSM source: 127.0.0.1:5000"},
        {"239.1.2.3", "5000", "::1", "SMM src/addr family mismatch: 10/2"},
        {"ff02::1:3", "5000", nullptr,
         "network interface must be specified to use link/local-scope multicast"},
    };
    for (const auto &[addr, port, src, says] : cases) {
        if (addr[0] == 'f' && !have_ipv6()) continue;  // needs an IPv6 socket to get this far
        socket_spec spec = spec_of(AF_UNSPEC, SOCK_DGRAM);
        EXPECT_EQ(open_socket(addr, port, src, &spec, nullptr, nullptr), -1) << says;
        EXPECT_TRUE(logged(says)) << says;
    }
    sockaddr_storage ss{AF_INET, {}, 0};
    EXPECT_EQ(open_listener(&ss, "65536", false), -1);
    EXPECT_TRUE(logged("invalid port number: 65536"));
    // 192.0.2.1 is never an address of this host: bind fails after socket().
    ASSERT_EQ(inet_pton(AF_INET, "192.0.2.1", &reinterpret_cast<sockaddr_in *>(&ss)->sin_addr), 1);
    EXPECT_EQ(open_listener(&ss, "8080", false), -1);
    EXPECT_EQ(open_udp_listener(&ss, "8080"), -1);
    EXPECT_EQ(count_fds(), before);
}

// Hosts make IPv6 sockets dual-stack by default, hiding a listener that does not ask for
// it: so a child runs the check in its own network namespace with bindv6only=1 when it can.
TEST_F(Netops, WildcardListenersServeTheirFamilies) {
    if (!have_ipv6()) GTEST_SKIP() << "IPv6 is not available on this host";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) == 0) {
            int knob = open("/proc/sys/net/ipv6/bindv6only", O_WRONLY);
            int s = socket(AF_INET, SOCK_DGRAM, 0);
            ifreq ifr{{"lo"}, {.ifru_flags = IFF_UP}};
            if (write(knob, "1", 1) != 1 || ioctl(s, SIOCSIFFLAGS, &ifr) != 0) _exit(1);
        }
        for (int family : {AF_INET6, AF_UNSPEC, -1})
            if (int step = dual_stack_failure(family); step != 0) _exit(10 * (family + 2) + step);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0)
        << "1: no namespace; else 10 * (family + 2) + the failed step";
}

TEST_F(Netops, DomainListenerReplacesAStaleSocketFile) {
    const std::string dir = scratch_dir("netops");
    ASSERT_NE(dir, "");
    std::string path = dir + "/ctl.sock", missing = dir + "/no/ctl.sock";
    ASSERT_EQ(close(open_domain_listener(path.c_str())), 0);  // the file stays, nobody listens
    int lfd = open_domain_listener(path.c_str());
    EXPECT_TRUE(logged("is listening on [" + path + "]"));
    int c = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{AF_UNIX, {}};
    strcpy(sun.sun_path, path.c_str());
    EXPECT_EQ(connect(c, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0) << strerror(errno);
    EXPECT_EQ(open_domain_listener(missing.c_str()), -1);
    EXPECT_TRUE(logged("failed for path=[" + missing + "]"));
    for (int fd : {c, lfd}) close(fd);
    std::filesystem::remove_all(dir);
}

// On loopback a refused connect shows later, in the socket's error (good ones: every fetch).
TEST_F(Netops, NonBlockingConnectIsInProgressThenRefused) {
    std::string port = std::to_string(pick_free_port(SOCK_STREAM));
    socket_spec spec = spec_of(AF_INET, SOCK_STREAM);
    int cfd = open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr);
    ASSERT_GE(cfd, 0);
    EXPECT_TRUE(spec.async_connect);
    EXPECT_TRUE(logged("connection in progress for fd" + std::to_string(cfd)));
    EXPECT_TRUE(ready(cfd, POLLOUT));
    EXPECT_EQ(socket_error(cfd), ECONNREFUSED);
    EXPECT_EQ(socket_error(cfd), 0);  // reading the error clears it
    close(cfd);
}

// Any-source and source-specific readers, through both join APIs, hear the group
// (only their source, when they have one) until they leave; a second leave fails.
TEST_F(Netops, MulticastReaderHearsItsGroupUntilItLeaves) {
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    ifreq ifr{{"lo"}, {}};
    bool on = ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_MULTICAST) != 0;
    ifr.ifr_flags |= IFF_MULTICAST;  // lo lacks it by default; root may set it (it stays on)
    on = on || ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    close(s);
    if (!on) GTEST_SKIP() << "lo has no MULTICAST flag and it cannot be set here";
    std::string group = "239.255.75." + std::to_string(getpid() % 250);
    for (int round = 0; round < 4; ++round) {
        bool legacy = round & 1, ssm = round & 2;
        const std::string api = legacy ? "protocol-specific" : "GENERIC";
        SCOPED_TRACE(api + (ssm ? " SSM" : ""));
        set_legacy_mcast_api(legacy);
        std::string port = std::to_string(pick_free_port(SOCK_DGRAM));
        socket_spec rs = spec_of(AF_INET, SOCK_DGRAM), ws = spec_of(AF_INET, SOCK_DGRAM, true);
        ifc_info *ifc = nullptr;
        const char *src = ssm ? "127.0.0.1" : nullptr;
        int rfd = open_socket(group.c_str(), port.c_str(), src, &rs, "lo", &ifc);
        ASSERT_TRUE(rfd >= 0 && ifc != nullptr && rs.multicast && rs.is_ssm == ssm);
        EXPECT_TRUE(ssm || logged("using " + api + " mulitcast API to join group " + group));
        const auto *g = reinterpret_cast<const sockaddr *>(&rs.addr_ss);  // group and port
        // The first writer sends from 127.0.0.2, which a source-specific reader must not hear.
        int wfd[2];
        for (int i = 0; i < 2; ++i) {
            wfd[i] = open_socket(group.c_str(), port.c_str(), nullptr, &ws, "lo", nullptr);
            sockaddr_in from{AF_INET, 0, {htonl(0x7f000002 - i)}, {}};
            ASSERT_EQ(bind(wfd[i], reinterpret_cast<sockaddr *>(&from), sizeof from), 0);
            ASSERT_EQ(sendto(wfd[i], i == 0 ? "other" : "mine", 5 - i, 0, g, rs.addr_len), 5 - i);
        }
        char got[16] = {};
        EXPECT_TRUE(ready(rfd, POLLIN) && recv(rfd, got, sizeof got - 1, 0) > 0);
        EXPECT_STREQ(got, ssm ? "mine" : "other");
        const auto *so = reinterpret_cast<const sockaddr *>(&rs.src_ss);
        EXPECT_EQ(ssm ? ssm_leave(rfd, g, ifc, so) : mcast_leave(rfd, g, ifc), 0);
        EXPECT_NE(ssm ? ssm_leave(rfd, g, ifc, so) : mcast_leave(rfd, g, ifc), 0);
        for (int fd : {wfd[0], wfd[1], rfd}) close(fd);
        free(ifc);
    }
    set_legacy_mcast_api(false);
}

}  // namespace

// Tests of the socket layer against real sockets on loopback: address
// splitting, listeners of every kind, non-blocking connects, multicast
// membership on lo, interface look-ups and the option setters.
#include "netops.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "log.h"

namespace {

constexpr int WAIT_MS = 5000;  // upper bound of every wait for readiness

int count_fds() {
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) return -1;
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n;
}

bool have_ipv6() {
    int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6;
    a.sin6_addr = in6addr_loopback;
    bool ok = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

// A loopback port that was free a moment ago; the kernel hands out ephemeral
// ports round-robin, so it will not come back to this one soon.
std::string free_port(int socktype) {
    int fd = socket(AF_INET, socktype, 0);
    if (fd < 0) return "";
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    std::string port;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
        port = std::to_string(ntohs(a.sin_port));
    close(fd);
    return port;
}

short wait_for(int fd, short events) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, WAIT_MS) == 1 ? p.revents : 0;
}

sockaddr_storage ipv4(const char *addr) {
    sockaddr_storage ss{};
    auto *in = reinterpret_cast<sockaddr_in *>(&ss);
    in->sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, addr, &in->sin_addr), 1) << addr;
    return ss;
}

std::string addr_text(const sockaddr_storage &ss) {
    char buf[SADDR_STR_SIZE];
    return saddr_str(reinterpret_cast<const sockaddr *>(&ss), sizeof ss, buf, sizeof buf);
}

int blocking_connect(int family, const char *addr, const std::string &port) {
    int fd = socket(family, SOCK_STREAM, 0);
    sockaddr_storage ss{};
    socklen_t len = 0;
    if (family == AF_INET) {
        ss = ipv4(addr);
        reinterpret_cast<sockaddr_in *>(&ss)->sin_port = htons(std::stoi(port));
        len = sizeof(sockaddr_in);
    } else {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&ss);
        in6->sin6_family = AF_INET6;
        inet_pton(AF_INET6, addr, &in6->sin6_addr);
        in6->sin6_port = htons(std::stoi(port));
        len = sizeof(sockaddr_in6);
    }
    if (connect(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
        int err = errno;
        close(fd);
        return -err;
    }
    return fd;
}

class Netops : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        log_set_modules(g_log, LL_DEBUG);
        logf_ = tmpfile();
        ASSERT_NE(logf_, nullptr);
        log_default(g_log, logf_);
        set_legacy_mcast_api(false);
    }
    void TearDown() override {
        log_default(g_log, stderr);
        log_set_modules(g_log, LL_NORM);
        fclose(logf_);
        set_legacy_mcast_api(false);
        if (!dir_.empty()) {
            std::string cmd = "rm -rf " + dir_;
            (void)system(cmd.c_str());
        }
    }
    void make_dir() {
        char tmpl[] = "/tmp/trov-netops-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    std::string logged() {
        fflush(logf_);
        std::ifstream in("/proc/self/fd/" + std::to_string(fileno(logf_)));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void clear_log() {
        fflush(logf_);
        ASSERT_EQ(ftruncate(fileno(logf_), 0), 0);
        rewind(logf_);
    }

    // Multicast tests run on lo, which carries no MULTICAST flag by default.
    // As root the flag is turned on (and left on: harmless, and other runs may
    // be using it); otherwise the reason the test cannot run. Also picks a
    // group of this process's own, so parallel runs do not hear each other.
    const char *mcast_unavailable() {
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
    // An IPv4 writer to group_ on lo; bound to from first when from is given.
    int open_writer(const std::string &port, const char *from, socket_spec *ws) {
        *ws = socket_spec{};
        ws->writer = 1;
        ws->non_blocking = 1;
        ws->family = AF_INET;
        ws->socktype = SOCK_DGRAM;
        ifc_info *wifc = nullptr;
        int fd = open_socket(group_.c_str(), port.c_str(), nullptr, ws, "lo", &wifc);
        EXPECT_NE(wifc, nullptr);
        free(wifc);
        if (fd >= 0 && from != nullptr) {
            sockaddr_storage src = ipv4(from);
            EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&src), sizeof(sockaddr_in)), 0);
        }
        return fd;
    }
    static void send_to(int fd, const socket_spec &ws, const char *msg) {
        EXPECT_EQ(sendto(fd, msg, strlen(msg), 0, reinterpret_cast<const sockaddr *>(&ws.addr_ss),
                         ws.addr_len),
                  static_cast<ssize_t>(strlen(msg)))
            << strerror(errno);
    }
    static std::string receive(int fd, std::string *from = nullptr) {
        if ((wait_for(fd, POLLIN) & POLLIN) == 0) return "<nothing>";
        char buf[64];
        sockaddr_storage ss{};
        socklen_t len = sizeof ss;
        ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&ss), &len);
        if (n < 0) return "<error>";
        if (from != nullptr) {
            reinterpret_cast<sockaddr_in *>(&ss)->sin_port = 0;
            *from = addr_text(ss);
        }
        return std::string(buf, static_cast<size_t>(n));
    }

    FILE *logf_ = nullptr;
    std::string dir_;    // made by make_dir, removed with its contents
    std::string group_;  // set by mcast_unavailable
};

TEST_F(Netops, MkSockaddrSplitsAtTheLastColon) {
    struct row {
        const char *text;
        int family;
        const char *want;  // printed address, or null for a refusal
        const char *log;   // expected part of the log
    };
    const row rows[] = {
        {"10.0.0.1:8080", AF_UNSPEC, "10.0.0.1:8080", "address for [10.0.0.1:8080]"},
        {"8080", AF_UNSPEC, nullptr, "invalid address/port: 8080"},
        {"1234:80", AF_UNSPEC, nullptr, "cannot accept plain number [1234] as IP address"},
        {"::1:80", AF_UNSPEC, nullptr, "cannot accept plain number [::1] as IP address"},
        {":80", AF_UNSPEC, nullptr, "cannot accept plain number [] as IP address"},
        {"127.0.0.1:http", AF_UNSPEC, nullptr, "port must be plain decimal number [http]"},
        {"127.0.0.1:", AF_UNSPEC, nullptr, "port must be plain decimal number []"},
        {"10.0.0.1:8080", AF_INET6, nullptr, "failed for [10.0.0.1:8080]"},
        {"2001:db8::1:8080", AF_UNSPEC, "[2001:db8::1]:8080", "OK af=IPv6 (10)"},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        if (r.want != nullptr && strchr(r.want, '[') != nullptr && !have_ipv6()) continue;
        clear_log();
        sockaddr_storage ss{};
        socklen_t len = 0;
        int rc = mk_sockaddr(r.text, SOCK_STREAM, r.family, &ss, &len);
        if (r.want != nullptr) {
            ASSERT_EQ(rc, 0);
            EXPECT_EQ(addr_text(ss), r.want);
            EXPECT_EQ(len, ss.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        } else {
            EXPECT_EQ(rc, -1);
        }
        EXPECT_NE(logged().find(r.log), std::string::npos) << logged();
    }
}

TEST_F(Netops, OpenersRefuseBadPortsAndPlainNumberAddresses) {
    int before = count_fds();
    const char *bad_ports[] = {"0", "", "65536", "8x", "00"};
    for (const char *port : bad_ports) {
        SCOPED_TRACE(port);
        clear_log();
        socket_spec spec{};
        spec.passive = 1;
        spec.family = AF_INET;
        spec.socktype = SOCK_STREAM;
        EXPECT_EQ(open_socket("127.0.0.1", port, nullptr, &spec, nullptr, nullptr), -1);
        EXPECT_NE(logged().find(std::string("empty or invalid port [") + port + "]"),
                  std::string::npos);
    }
    socket_spec spec{};
    spec.socktype = SOCK_DGRAM;
    EXPECT_EQ(open_socket("127.0.0.1", nullptr, nullptr, &spec, nullptr, nullptr), -1);
    EXPECT_EQ(open_socket("1234", "80", nullptr, &spec, nullptr, nullptr), -1);
    EXPECT_NE(logged().find("cannot accept plain number [1234] as IP address"), std::string::npos);

    const char *listener_ports[] = {"65536", "0", "-80", "http"};
    for (const char *port : listener_ports) {
        SCOPED_TRACE(port);
        clear_log();
        sockaddr_storage ss = ipv4("127.0.0.1");
        EXPECT_EQ(open_listener(&ss, port, false), -1);
        EXPECT_NE(logged().find(std::string("invalid port number: ") + port), std::string::npos);
    }
    sockaddr_storage un{};
    un.ss_family = AF_UNIX;
    EXPECT_EQ(open_listener(&un, "8080", false), -1);
    EXPECT_NE(logged().find("invalid network family: 1"), std::string::npos);
    EXPECT_EQ(count_fds(), before);
}

TEST_F(Netops, FailedBindClosesTheHalfMadeSocket) {
    // 192.0.2.1 is reserved for documentation and never an address of this
    // host, so bind fails after the socket exists; nothing is sent anywhere.
    int before = count_fds();
    sockaddr_storage ss = ipv4("192.0.2.1");
    EXPECT_EQ(open_listener(&ss, "8080", false), -1);
    EXPECT_EQ(open_udp_listener(&ss, "8080"), -1);
    socket_spec spec{};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.family = AF_INET;
    spec.socktype = SOCK_STREAM;
    EXPECT_EQ(open_socket("192.0.2.1", "8080", nullptr, &spec, nullptr, nullptr), -1);
    EXPECT_EQ(count_fds(), before);
    EXPECT_NE(logged().find("bind failed for [192.0.2.1:8080]"), std::string::npos) << logged();
}

// Opens a wildcard listener of family (AF_UNSPEC: open_anyaddr_listener's
// own pick; -1: open_listener on a prepared "::") and has an IPv4 and an IPv6
// client connect to it. 0 when both are accepted, else the failed step. Free
// of gtest assertions so that a child process can run it too.
int dual_stack_failure(int family) {
    std::string port = free_port(SOCK_STREAM);
    int lfd = -1;
    if (family == -1) {
        sockaddr_storage ss{};
        ss.ss_family = AF_INET6;  // all-zero address: the wildcard
        lfd = open_listener(&ss, port.c_str(), false);
    } else {
        lfd = open_anyaddr_listener(family, port.c_str(), false);
    }
    if (lfd < 0) return 1;
    int step = 0;
    if ((fcntl(lfd, F_GETFL) & O_NONBLOCK) == 0) step = 2;
    int c4 = blocking_connect(AF_INET, "127.0.0.1", port);
    int c6 = blocking_connect(AF_INET6, "::1", port);
    if (step == 0 && c4 < 0) step = 3;
    if (step == 0 && c6 < 0) step = 4;
    for (int i = 0; step == 0 && i < 2; ++i) {
        int afd = (wait_for(lfd, POLLIN) & POLLIN) != 0 ? accept(lfd, nullptr, nullptr) : -1;
        if (afd < 0)
            step = 5;
        else
            close(afd);
    }
    if (c4 >= 0) close(c4);
    if (c6 >= 0) close(c6);
    close(lfd);
    return step;
}

TEST_F(Netops, WildcardIpv6ListenerAcceptsIpv4Clients) {
    if (!have_ipv6()) GTEST_SKIP() << "IPv6 is not available on this host";
    for (int family : {AF_INET6, AF_UNSPEC, -1}) {
        SCOPED_TRACE(family);
        EXPECT_EQ(dual_stack_failure(family), 0);
    }
}

// Most hosts make IPv6 sockets dual-stack by default, which would hide a
// listener that forgets to ask for it; a namespace of our own with
// bindv6only=1 does not.
TEST_F(Netops, WildcardListenerStaysDualStackWhereV6OnlyIsTheDefault) {
    if (!have_ipv6()) GTEST_SKIP() << "IPv6 is not available on this host";
    constexpr int NO_NETNS = 77;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (unshare(CLONE_NEWNET) != 0) _exit(NO_NETNS);
        int sysctl = open("/proc/sys/net/ipv6/bindv6only", O_WRONLY);
        if (sysctl < 0 || write(sysctl, "1", 1) != 1) _exit(NO_NETNS);
        close(sysctl);
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq ifr{};
        strcpy(ifr.ifr_name, "lo");
        if (s < 0 || ioctl(s, SIOCGIFFLAGS, &ifr) != 0) _exit(NO_NETNS);
        ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
        if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0 || !have_ipv6()) _exit(NO_NETNS);
        close(s);
        for (int family : {AF_INET6, AF_UNSPEC, -1})
            if (int step = dual_stack_failure(family); step != 0) _exit(10 * (family + 2) + step);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == NO_NETNS)
        GTEST_SKIP() << "cannot make a network namespace with bindv6only=1 (needs root)";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "10 * (family + 2) + failed step";
}

TEST_F(Netops, DeferredListenerIsBoundButNotListening) {
    std::string port = free_port(SOCK_STREAM);
    sockaddr_storage ss = ipv4("127.0.0.1");
    int lfd = open_listener(&ss, port.c_str(), true);
    ASSERT_GE(lfd, 0);
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in *>(&ss)->sin_port), std::stoi(port));
    EXPECT_EQ(blocking_connect(AF_INET, "127.0.0.1", port), -ECONNREFUSED);
    ASSERT_EQ(listen(lfd, 4), 0);
    int c = blocking_connect(AF_INET, "127.0.0.1", port);
    EXPECT_GE(c, 0);
    if (c >= 0) close(c);
    close(lfd);
}

TEST_F(Netops, DatagramReadersAreBoundToTheirAddress) {
    std::string port = free_port(SOCK_DGRAM);
    socket_spec spec{};
    spec.non_blocking = 1;
    spec.family = AF_INET;
    spec.socktype = SOCK_DGRAM;
    int rfd = open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr);
    ASSERT_GE(rfd, 0);
    EXPECT_EQ(spec.multicast, 0U);
    EXPECT_EQ(addr_text(spec.addr_ss), "127.0.0.1:" + port);

    std::string port2 = free_port(SOCK_DGRAM);
    sockaddr_storage ss = ipv4("127.0.0.1");
    int ufd = open_udp_listener(&ss, port2.c_str());
    ASSERT_GE(ufd, 0);

    int s = socket(AF_INET, SOCK_DGRAM, 0);
    for (auto [fd, dest] : {std::pair{rfd, spec.addr_ss}, std::pair{ufd, ss}}) {
        ASSERT_EQ(
            sendto(s, "order", 5, 0, reinterpret_cast<sockaddr *>(&dest), sizeof(sockaddr_in)), 5);
        ASSERT_NE(wait_for(fd, POLLIN) & POLLIN, 0);
        char buf[16];
        EXPECT_EQ(recv(fd, buf, sizeof buf, 0), 5);
    }
    close(s);
    close(ufd);
    close(rfd);
}

TEST_F(Netops, StaleSocketFileIsReplaced) {
    make_dir();
    std::string path = dir_ + "/ctl.sock";
    int first = open_domain_listener(path.c_str());
    ASSERT_GE(first, 0);
    close(first);  // leaves the socket file behind with nobody listening
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    ASSERT_TRUE(S_ISSOCK(st.st_mode));

    int lfd = open_domain_listener(path.c_str());
    ASSERT_GE(lfd, 0);
    int c = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    memcpy(sun.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(connect(c, reinterpret_cast<sockaddr *>(&sun), sizeof sun), 0) << strerror(errno);
    EXPECT_NE(wait_for(lfd, POLLIN) & POLLIN, 0);
    EXPECT_NE(logged().find("is listening on [" + path + "]"), std::string::npos);
    close(c);
    close(lfd);
}

TEST_F(Netops, MissingDirectoryOrLongPathFails) {
    make_dir();
    int before = count_fds();
    std::string missing = dir_ + "/no/such/ctl.sock";
    EXPECT_EQ(open_domain_listener(missing.c_str()), -1);
    EXPECT_NE(logged().find("failed for path=[" + missing + "]"), std::string::npos);

    std::string longp = dir_ + "/" + std::string(UNIX_PATH_MAX_LEN, 'x');
    EXPECT_EQ(open_domain_listener(longp.c_str()), -1);
    EXPECT_NE(logged().find("failed for path=[" + longp + "]"), std::string::npos);
    EXPECT_EQ(count_fds(), before);
}

TEST_F(Netops, NonBlockingConnectToListenerCompletes) {
    std::string port = free_port(SOCK_STREAM);
    sockaddr_storage ss = ipv4("127.0.0.1");
    int lfd = open_listener(&ss, port.c_str(), false);
    ASSERT_GE(lfd, 0);

    socket_spec spec{};
    spec.non_blocking = 1;
    spec.family = AF_INET;
    spec.socktype = SOCK_STREAM;
    int cfd = open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr);
    ASSERT_GE(cfd, 0);
    EXPECT_NE(fcntl(cfd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(addr_text(spec.addr_ss), "127.0.0.1:" + port);
    EXPECT_NE(logged().find(spec.async_connect ? "ASYNC CONNECT" : "IMMEDIATE CONNECT"),
              std::string::npos);
    EXPECT_NE(wait_for(cfd, POLLOUT) & POLLOUT, 0);
    EXPECT_EQ(socket_error(cfd), 0);
    ASSERT_NE(wait_for(lfd, POLLIN) & POLLIN, 0);
    int afd = accept(lfd, nullptr, nullptr);
    EXPECT_GE(afd, 0);
    if (afd >= 0) close(afd);
    close(cfd);
    close(lfd);
}

TEST_F(Netops, NonBlockingConnectToClosedPortReportsRefusal) {
    std::string port = free_port(SOCK_STREAM);
    socket_spec spec{};
    spec.non_blocking = 1;
    spec.family = AF_INET;
    spec.socktype = SOCK_STREAM;
    int cfd = open_socket("127.0.0.1", port.c_str(), nullptr, &spec, nullptr, nullptr);
    ASSERT_GE(cfd, 0) << "loopback connects report the refusal later, not at once";
    EXPECT_EQ(spec.async_connect, 1U);
    EXPECT_NE(logged().find("connection in progress for fd" + std::to_string(cfd)),
              std::string::npos);
    EXPECT_NE(wait_for(cfd, POLLOUT), 0);
    EXPECT_EQ(socket_error(cfd), ECONNREFUSED);
    EXPECT_EQ(socket_error(cfd), 0);  // reading the error clears it
    close(cfd);
    EXPECT_EQ(socket_error(cfd), EBADF);
}

TEST_F(Netops, GetIfcInfoByNameOrAddress) {
    unsigned lo = if_nametoindex("lo");
    ASSERT_NE(lo, 0U);
    struct row {
        int family;
        const char *text;
        const char *addr;  // expected interface address, or null for a refusal
    };
    const row rows[] = {
        {AF_INET, "lo", "127.0.0.1"},
        {AF_INET, "127.0.0.1", "127.0.0.1"},
        {AF_UNSPEC, "127.0.0.1", "127.0.0.1"},
        {AF_INET6, "lo", "::1"},
        {AF_INET6, "::1", "::1"},
        {AF_INET, "nosuch0", nullptr},
        {AF_INET, "", nullptr},
        {AF_INET6, "127.0.0.1", nullptr},
        {AF_INET, "192.0.2.1", nullptr},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.text);
        if (r.family == AF_INET6 && !have_ipv6()) continue;
        clear_log();
        ifc_info *ifc = get_ifc_info(r.family, r.text);
        if (r.addr == nullptr) {
            EXPECT_EQ(ifc, nullptr);
            std::string want = std::string("[") + r.text + "] is not a valid " + af_name(r.family) +
                               " interface address.";
            EXPECT_NE(logged().find(want), std::string::npos) << logged();
            free(ifc);
            continue;
        }
        ASSERT_NE(ifc, nullptr);
        EXPECT_EQ(ifc->idx, lo);
        EXPECT_STREQ(ifc->name, "lo");
        EXPECT_EQ(addr_text(ifc->ss), r.addr);
        free(ifc);
    }
}

TEST_F(Netops, TextClassifiers) {
    struct af_row {
        const char *name;
        int af;
    };
    const af_row afs[] = {{"inet", AF_INET},    {"IPv4", AF_INET},      {"PF_INET", AF_INET},
                          {"inet6", AF_INET6},  {"Af_Inet6", AF_INET6}, {"", AF_UNSPEC},
                          {nullptr, AF_UNSPEC}, {"ALL", AF_UNSPEC},     {"anyaddr", AF_UNSPEC},
                          {"ipv5", -1},         {"inet 6", -1}};
    for (const af_row &r : afs) {
        SCOPED_TRACE(r.name != nullptr ? r.name : "(null)");
        EXPECT_EQ(name2af(r.name), r.af);
    }
    EXPECT_NE(logged().find("unsupported address family [ipv5] in configuration."),
              std::string::npos);

    struct text_row {
        const char *text;
        bool any;
        bool port;
    };
    const text_row texts[] = {
        {nullptr, true, false},        {"", true, false},
        {"ANY", true, false},          {"all", true, false},
        {"0.0.0.0", true, false},      {"::", true, false},
        {"lo", false, false},          {"127.0.0.1", false, false},
        {"127.0.0.1:80", false, true}, {"eth0:65535", false, true},
        {"::1", false, false},         {"fe80::1", false, false},
        {":80", false, false},         {"host:123456", false, false},
        {"host:8o", false, false},     {"host:", false, false},
    };
    for (const text_row &r : texts) {
        SCOPED_TRACE(r.text != nullptr ? r.text : "(null)");
        EXPECT_EQ(is_anyaddr(r.text), r.any);
        EXPECT_EQ(ends_with_port(r.text), r.port);
    }
}

TEST_F(Netops, SaddrStrPrintsEveryFamily) {
    char buf[SADDR_STR_SIZE];
    sockaddr_storage ss = ipv4("10.1.2.3");
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr *>(&ss), sizeof ss, buf, sizeof buf),
                 "10.1.2.3");

    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    inet_pton(AF_INET6, "ff02::1:2", &in6.sin6_addr);
    in6.sin6_port = htons(5000);
    in6.sin6_scope_id = if_nametoindex("lo");
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr *>(&in6), sizeof in6, buf, sizeof buf),
                 "[ff02::1:2%lo]:5000");

    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    strcpy(un.sun_path, "/run/x.sock");
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr *>(&un), sizeof un, buf, sizeof buf),
                 "/run/x.sock");

    char small[8];
    reinterpret_cast<sockaddr_in *>(&ss)->sin_port = htons(8080);
    EXPECT_STREQ(saddr_str(reinterpret_cast<sockaddr *>(&ss), sizeof ss, small, sizeof small),
                 "10.1.2.");
}

TEST_F(Netops, OptionSettersReachTheSocketAndReportBadDescriptors) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    int v = 0;
    socklen_t len = sizeof v;
    ASSERT_EQ(set_keepalive(fd, true), 0);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &v, &len), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(set_tcp_nodelay(fd, true), 0);
    ASSERT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &v, &len), 0);
    EXPECT_EQ(v, 1);

    timeval tv{};
    len = sizeof tv;
    ASSERT_EQ(set_rcv_timeout(fd, 1500), 0);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len), 0);
    EXPECT_EQ(tv.tv_sec, 1);
    EXPECT_EQ(tv.tv_usec, 500000);
    EXPECT_EQ(set_send_timeout(fd, -1), -1);

    ASSERT_EQ(set_nblock(fd, true), 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    ASSERT_EQ(set_nblock(fd, false), 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    close(fd);

    clear_log();
    EXPECT_EQ(set_keepalive(fd, true), -1);
    EXPECT_NE(logged().find("setsockopt(fd" + std::to_string(fd) +
                            ", SOL_SOCKET, SO_KEEPALIVE, 1,..) ERROR(9)"),
              std::string::npos)
        << logged();
    EXPECT_EQ(set_nblock(fd, true), -1);
    EXPECT_EQ(set_socket_rcvbuf(fd, 65536), -1);
    EXPECT_EQ(set_ipv6only(fd, true), -1);
}

TEST_F(Netops, McastTtlChecksFamilyAndRange) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(set_mcast_ttl(fd, AF_INET, 4), 0);
    EXPECT_EQ(set_mcast_ttl(fd, AF_INET, 300), -1);
    EXPECT_NE(logged().find("IPv4 mcast fd=" + std::to_string(fd) + ", op=IP_MULTICAST_TTL"),
              std::string::npos);
    EXPECT_DEATH(
        {
            log_default(g_log, stderr);
            (void)set_mcast_ttl(fd, AF_UNIX, 4);
        },
        "ASSERT at");
    close(fd);
}

TEST_F(Netops, ScopeIdFollowsTheInterfaceForScopedGroups) {
    ifc_info ifc{};
    ifc.idx = 7;
    strcpy(ifc.name, "eth7");
    struct row {
        const char *group;
        uint32_t scope_in;
        int rc;
        uint32_t scope_out;
    };
    const row rows[] = {
        {"ff02::1:3", 0, 0, 7},       // link-local: takes the interface
        {"ff01::1", 0, 0, 7},         // interface-local likewise
        {"ff02::1:3", 7, 0, 7},       // already on that interface
        {"ff02::1:3", 3, EINVAL, 3},  // names another interface
        {"ff0e::1:3", 0, 0, 0},       // global scope stays unscoped
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.group);
        sockaddr_in6 g{};
        g.sin6_family = AF_INET6;
        ASSERT_EQ(inet_pton(AF_INET6, r.group, &g.sin6_addr), 1);
        g.sin6_scope_id = r.scope_in;
        EXPECT_EQ(sync_ipv6addr_scope_id(&g, &ifc), r.rc);
        EXPECT_EQ(g.sin6_scope_id, r.scope_out);
        g.sin6_scope_id = r.scope_in;
        EXPECT_EQ(sync_ipv6addr_scope_id(&g, nullptr), 0);
        EXPECT_EQ(g.sin6_scope_id, r.scope_in);
    }
}

TEST_F(Netops, MulticastRefusals) {
    socket_spec spec{};
    spec.family = AF_UNSPEC;
    spec.socktype = SOCK_DGRAM;
    int before = count_fds();
    EXPECT_EQ(open_socket("239.1.2.3", "5000", "127.0.0.1:5000", &spec, nullptr, nullptr), -1);
    EXPECT_NE(logged().find("invalid SSM source: 127.0.0.1:5000"), std::string::npos);
    if (have_ipv6()) {
        EXPECT_EQ(open_socket("239.1.2.3", "5000", "::1", &spec, nullptr, nullptr), -1);
        EXPECT_NE(logged().find("SMM src/addr family mismatch: 10/2"), std::string::npos);
        EXPECT_EQ(open_socket("ff02::1:3", "5000", nullptr, &spec, nullptr, nullptr), -1);
        EXPECT_NE(logged().find("network interface must be specified to use link/local-scope "
                                "multicast"),
                  std::string::npos);

        set_legacy_mcast_api(true);
        int fd = socket(AF_INET6, SOCK_DGRAM, 0);
        sockaddr_in6 g{}, s{};
        g.sin6_family = s.sin6_family = AF_INET6;
        inet_pton(AF_INET6, "ff3e::1:3", &g.sin6_addr);
        s.sin6_addr = in6addr_loopback;
        EXPECT_NE(ssm_join(fd, reinterpret_cast<sockaddr *>(&g), nullptr,
                           reinterpret_cast<sockaddr *>(&s)),
                  0);
        EXPECT_NE(logged().find("ssm_join: (join) IPv6-specific SSM not supported"),
                  std::string::npos);
        close(fd);
    }
    EXPECT_EQ(open_socket("239.1.2.3", "5000", nullptr, &spec, "nosuch0", nullptr), -1);
    EXPECT_EQ(count_fds(), before);
}

TEST_F(Netops, AnySourceReaderHearsTheGroupUntilItLeaves) {
    if (const char *why = mcast_unavailable()) GTEST_SKIP() << why;
    for (bool legacy : {false, true}) {
        SCOPED_TRACE(legacy ? "protocol-specific API" : "generic API");
        set_legacy_mcast_api(legacy);
        clear_log();
        std::string port = free_port(SOCK_DGRAM);
        socket_spec rs{};
        rs.non_blocking = 1;
        rs.family = AF_INET;
        rs.socktype = SOCK_DGRAM;
        ifc_info *rifc = nullptr;
        int rfd = open_socket(group_.c_str(), port.c_str(), nullptr, &rs, "lo", &rifc);
        ASSERT_GE(rfd, 0);
        ASSERT_NE(rifc, nullptr);
        EXPECT_EQ(rs.multicast, 1U);
        EXPECT_FALSE(rs.is_ssm);
        EXPECT_STREQ(rifc->name, "lo");
        EXPECT_NE(logged().find(std::string("using ") + (legacy ? "protocol-specific" : "GENERIC") +
                                " mulitcast API to join group " + group_),
                  std::string::npos)
            << logged();

        socket_spec ws{};
        int wfd = open_writer(port, nullptr, &ws);
        ASSERT_GE(wfd, 0);
        EXPECT_EQ(ws.multicast, 1U);
        send_to(wfd, ws, "first");
        EXPECT_EQ(receive(rfd), "first");

        // Sent while out of the group, then rejoined: the next datagram read
        // is the one sent after the rejoin, so the middle one never arrived.
        const auto *grp = reinterpret_cast<const sockaddr *>(&rs.addr_ss);
        ASSERT_EQ(mcast_leave(rfd, grp, rifc), 0);
        send_to(wfd, ws, "missed");
        ASSERT_EQ(mcast_join(rfd, grp, rifc), 0);
        send_to(wfd, ws, "again");
        EXPECT_EQ(receive(rfd), "again");

        EXPECT_EQ(mcast_leave(rfd, grp, rifc), 0);
        clear_log();
        EXPECT_NE(mcast_leave(rfd, grp, rifc), 0);  // not a member any more
        EXPECT_NE(logged().find(legacy ? "IP_DROP_MEMBERSHIP fd=" : "MCAST_LEAVE_GROUP fd="),
                  std::string::npos);
        close(wfd);
        close(rfd);
        free(rifc);
    }
}

TEST_F(Netops, SourceSpecificReaderHearsOnlyItsSource) {
    if (const char *why = mcast_unavailable()) GTEST_SKIP() << why;
    for (bool legacy : {false, true}) {
        SCOPED_TRACE(legacy ? "protocol-specific API" : "generic API");
        set_legacy_mcast_api(legacy);
        std::string port = free_port(SOCK_DGRAM);
        socket_spec rs{};
        rs.non_blocking = 1;
        rs.family = AF_INET;
        rs.socktype = SOCK_DGRAM;
        ifc_info *rifc = nullptr;
        int rfd = open_socket(group_.c_str(), port.c_str(), "127.0.0.1", &rs, "lo", &rifc);
        ASSERT_GE(rfd, 0);
        EXPECT_TRUE(rs.is_ssm);
        EXPECT_EQ(addr_text(rs.src_ss), "127.0.0.1");

        socket_spec other{}, mine{};
        int ofd = open_writer(port, "127.0.0.2", &other);
        int mfd = open_writer(port, nullptr, &mine);
        ASSERT_GE(ofd, 0);
        ASSERT_GE(mfd, 0);
        send_to(ofd, other, "other");
        send_to(mfd, mine, "mine");
        std::string from;
        EXPECT_EQ(receive(rfd, &from), "mine");
        EXPECT_EQ(from, "127.0.0.1");

        const auto *grp = reinterpret_cast<const sockaddr *>(&rs.addr_ss);
        const auto *src = reinterpret_cast<const sockaddr *>(&rs.src_ss);
        EXPECT_EQ(ssm_leave(rfd, grp, rifc, src), 0);
        EXPECT_NE(ssm_leave(rfd, grp, rifc, src), 0);
        close(ofd);
        close(mfd);
        close(rfd);
        free(rifc);
    }
}

// Delivery of IPv6 groups on lo would need a multicast route on the host,
// so this checks what the caller is handed: a group whose scope id names
// the interface, for its sendto and its leave.
TEST_F(Netops, LinkScopeIpv6GroupCarriesTheInterfaceIndex) {
    if (!have_ipv6()) GTEST_SKIP() << "IPv6 is not available on this host";
    if (const char *why = mcast_unavailable()) GTEST_SKIP() << why;
    unsigned pid = static_cast<unsigned>(getpid());
    char group[64];
    snprintf(group, sizeof group, "ff02::7472:%x", pid & 0xffff);
    std::string port = free_port(SOCK_DGRAM);
    std::string want = std::string("[") + group + "%lo]:" + port;
    for (bool writer : {false, true}) {
        SCOPED_TRACE(writer ? "writer" : "reader");
        socket_spec spec{};
        spec.writer = writer ? 1 : 0;
        spec.family = AF_INET6;
        spec.socktype = SOCK_DGRAM;
        ifc_info *ifc = nullptr;
        int fd = open_socket(group, port.c_str(), nullptr, &spec, "lo", &ifc);
        ASSERT_GE(fd, 0) << logged();
        ASSERT_NE(ifc, nullptr);
        EXPECT_EQ(addr_text(spec.addr_ss), want);
        if (!writer) {
            sockaddr_storage bound{};
            socklen_t len = sizeof bound;
            ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len), 0);
            EXPECT_EQ(addr_text(bound), want);
            EXPECT_EQ(mcast_leave(fd, reinterpret_cast<const sockaddr *>(&spec.addr_ss), ifc), 0);
        }
        close(fd);
        free(ifc);
    }
}

}  // namespace

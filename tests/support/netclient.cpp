// netclient: the test clients (see netclient.h). Everything is bounded by a
// deadline on the monotonic clock; no call can block past it.
#include "netclient.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

using clk = std::chrono::steady_clock;

int left_ms(clk::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clk::now());
    return int(std::max<long>(0, left.count()));
}

// A blocking connect and send stop at the send time-out; 0 would mean none.
bool set_send_timeout(int fd, int ms) {
    timeval tv{.tv_sec = std::max(1, ms) / 1000, .tv_usec = std::max(1, ms) % 1000 * 1000};
    return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

int send_datagram(const sockaddr_in &to, const void *buf, size_t len, bool mcast) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    in_addr ifc{.s_addr = htonl(INADDR_LOOPBACK)};
    unsigned char one = 1;  // loop-back on, and a TTL that never leaves this host
    int rc = 0;
    if ((mcast && (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifc, sizeof ifc) != 0 ||
                   setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &one, sizeof one) != 0 ||
                   setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &one, sizeof one) != 0)) ||
        sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to) < 0)
        rc = -errno;
    close(fd);
    return rc;
}

}  // namespace

bool wait_until(int timeout_ms, const std::function<bool()> &done) {
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    for (int i = 0; i <= timeout_ms / 10 + 1; ++i) {
        if (done()) return true;
        if (clk::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

int pick_free_port(int socktype) {
    int fd = socket(AF_INET, socktype | SOCK_CLOEXEC, 0);
    sockaddr_in sa = loopback(0);
    socklen_t len = sizeof sa;
    int port = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&sa), len) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) == 0
                   ? ntohs(sa.sin_port)
                   : -1;
    if (fd >= 0) close(fd);
    return port;
}

int net_connect(int port, int timeout_ms) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    sockaddr_in sa = loopback(port);
    if (set_send_timeout(fd, timeout_ms) &&
        connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0)
        return fd;
    int rc = errno == EINPROGRESS ? -ETIMEDOUT : -errno;
    close(fd);
    return rc;
}

int net_send_all(int fd, const std::string &data, int timeout_ms) {
    if (!set_send_timeout(fd, timeout_ms)) return -errno;
    ssize_t n = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (n == ssize_t(data.size())) return 0;
    return n >= 0 || errno == EAGAIN || errno == EINTR ? -ETIMEDOUT : -errno;
}

net_reply net_read_reply(int fd, int timeout_ms) {
    net_reply r{};
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    char buf[65536];
    for (long i = 0; i < (1L << 24); ++i) {  // each pass reads, or waits on the deadline
        ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) r.data.append(buf, size_t(n));
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
            r.peer_closed = n == 0;
            r.err = n == 0 ? 0 : errno;
            r.reset = r.err == ECONNRESET;
            break;
        }
        if ((r.timed_out = left_ms(deadline) == 0)) break;
        pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
        if (n < 0) (void)poll(&p, 1, left_ms(deadline));
    }
    r.status = -1;
    (void)sscanf(r.data.c_str(), "HTTP/%*u.%*u %3d", &r.status);
    return r;
}

net_reply net_exchange(int port, const std::string &bytes, int timeout_ms) {
    auto deadline = clk::now() + std::chrono::milliseconds(timeout_ms);
    int fd = net_connect(port, timeout_ms);
    if (fd < 0) return net_reply{{}, -1, false, false, false, -fd};
    int rc = net_send_all(fd, bytes, left_ms(deadline));
    // A peer that refuses a request early may have answered a failed send.
    net_reply r = net_read_reply(fd, left_ms(deadline));
    if (rc != 0 && r.err == 0) r.err = -rc;
    close(fd);
    return r;
}

int udp_send(int port, const void *buf, size_t len) {
    return send_datagram(loopback(port), buf, len, false);
}

int udp_send_mcast(const std::string &group, int port, const void *buf, size_t len) {
    sockaddr_in sa = loopback(port);
    if (inet_pton(AF_INET, group.c_str(), &sa.sin_addr) != 1) return -EINVAL;
    return send_datagram(sa, buf, len, true);
}

bool net_lo_multicast_ready() {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return false;
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
    if (ok && (ifr.ifr_flags & IFF_MULTICAST) == 0) {
        ifr.ifr_flags |= IFF_MULTICAST;
        ok = ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(s);
    return ok;
}

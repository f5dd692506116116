// netclient: the test clients (see netclient.h). Everything is bounded by a
// deadline on the monotonic clock; no call can block past it.
#include "netclient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

int left_ms(long deadline) { return int(std::max(0L, deadline - now_ms())); }

sockaddr_in loopback(int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

void parse_head(net_reply *r) {
    size_t end = r->data.find("\r\n\r\n");
    r->head_len = end == std::string::npos ? 0 : end + 4;
    r->status = -1;
    std::string_view d(r->data);
    if (!d.starts_with("HTTP/")) return;
    size_t sp = d.find(' ');
    if (sp == std::string_view::npos || sp + 4 > d.size()) return;
    int code = 0;
    for (size_t i = sp + 1; i < sp + 4; ++i) {
        if (!isdigit(static_cast<unsigned char>(d[i]))) return;
        code = code * 10 + (d[i] - '0');
    }
    r->status = code;
}

}  // namespace

int pick_free_port(int socktype) {
    int fd = socket(AF_INET, socktype | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in sa = loopback(0);
    socklen_t len = sizeof sa;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) == 0)
        port = ntohs(sa.sin_port);
    close(fd);
    return port;
}

int net_connect(int port, int timeout_ms) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    sockaddr_in sa = loopback(port);
    int rc = 0;
    if (connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        if (errno != EINPROGRESS) {
            rc = -errno;
        } else {
            pollfd p{.fd = fd, .events = POLLOUT, .revents = 0};
            int n = poll(&p, 1, timeout_ms);
            int soerr = 0;
            socklen_t sl = sizeof soerr;
            if (n == 0)
                rc = -ETIMEDOUT;
            else if (n < 0)
                rc = -errno;
            else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &soerr, &sl) != 0)
                rc = -errno;
            else if (soerr != 0)
                rc = -soerr;
        }
    }
    if (rc == 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) rc = -errno;
    if (rc != 0) {
        close(fd);
        return rc;
    }
    return fd;
}

int net_send_all(int fd, const std::string &data, int timeout_ms) {
    long deadline = now_ms() + timeout_ms;
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            off += size_t(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) return -errno;
        if (now_ms() >= deadline) return -ETIMEDOUT;
        pollfd p{.fd = fd, .events = POLLOUT, .revents = 0};
        (void)poll(&p, 1, left_ms(deadline));
    }
    return 0;
}

net_reply net_read_reply(int fd, int timeout_ms, size_t max_bytes) {
    net_reply r{};
    long deadline = now_ms() + timeout_ms;
    char buf[65536];
    while (r.data.size() < max_bytes) {
        ssize_t n = recv(fd, buf, std::min(sizeof buf, max_bytes - r.data.size()), MSG_DONTWAIT);
        if (n > 0) {
            r.data.append(buf, size_t(n));
            ++r.reads;
            continue;
        }
        if (n == 0) {
            r.peer_closed = true;
            break;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) {
            r.err = errno;
            r.reset = errno == ECONNRESET;
            break;
        }
        int wait = left_ms(deadline);
        if (wait == 0) {
            r.timed_out = true;
            break;
        }
        pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
        (void)poll(&p, 1, wait);
    }
    parse_head(&r);
    return r;
}

net_reply net_exchange(int port, const std::string &bytes, int timeout_ms, int flags) {
    long deadline = now_ms() + timeout_ms;
    int fd = net_connect(port, timeout_ms);
    if (fd < 0) {
        net_reply r{};
        r.status = -1;
        r.err = -fd;
        return r;
    }
    int rc = net_send_all(fd, bytes, left_ms(deadline));
    if (rc == 0 && (flags & NET_SHUT_WR) != 0) (void)shutdown(fd, SHUT_WR);
    // Even after a failed send the peer may have answered (a server that
    // refuses a request early); what it said is still worth returning.
    net_reply r = net_read_reply(fd, left_ms(deadline));
    if (rc != 0 && r.err == 0) r.err = -rc;
    close(fd);
    return r;
}

net_reply http_get(int port, const std::string &target, const std::vector<std::string> &headers,
                   int timeout_ms) {
    std::string rq =
        "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n";
    for (const std::string &h : headers) rq += h + "\r\n";
    rq += "\r\n";
    return net_exchange(port, rq, timeout_ms);
}

std::string net_body(const net_reply &r) { return r.data.substr(r.head_len); }

std::string net_header(const net_reply &r, const std::string &name, bool *has_header) {
    if (has_header != nullptr) *has_header = false;
    std::string_view head(r.data.data(), r.head_len > 0 ? r.head_len : r.data.size());
    size_t pos = head.find("\r\n");  // the status line is not a header
    while (pos != std::string_view::npos && pos + 2 < head.size()) {
        pos += 2;
        size_t eol = head.find("\r\n", pos);
        std::string_view line = head.substr(pos, eol == std::string_view::npos ? eol : eol - pos);
        size_t colon = line.find(':');
        if (colon == name.size() &&
            std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
                return tolower(static_cast<unsigned char>(a)) ==
                       tolower(static_cast<unsigned char>(b));
            })) {
            std::string_view v = line.substr(colon + 1);
            while (!v.empty() && (v.front() == ' ' || v.front() == '\t')) v.remove_prefix(1);
            while (!v.empty() && (v.back() == ' ' || v.back() == '\t')) v.remove_suffix(1);
            if (has_header != nullptr) *has_header = true;
            return std::string(v);
        }
        pos = eol;
    }
    return "";
}

int udp_send(int port, const void *buf, size_t len) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    sockaddr_in sa = loopback(port);
    int rc = 0;
    if (sendto(fd, buf, len, 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0) rc = -errno;
    close(fd);
    return rc;
}

int udp_send_mcast(const std::string &group, int port, const void *buf, size_t len) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    if (inet_pton(AF_INET, group.c_str(), &sa.sin_addr) != 1) return -EINVAL;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    in_addr ifc{};
    ifc.s_addr = htonl(INADDR_LOOPBACK);
    unsigned char loop = 1, ttl = 1;  // never off this host
    int rc = 0;
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifc, sizeof ifc) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0 ||
        sendto(fd, buf, len, 0, reinterpret_cast<sockaddr *>(&sa), sizeof sa) < 0)
        rc = -errno;
    close(fd);
    return rc;
}

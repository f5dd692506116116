// netops: the socket layer. Listeners, clients and multicast members made
// from address texts, plus the socket option setters and address helpers.
// Every socket made here is closed again on any failure before returning.
#include "netops.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "log.h"
#include "scope_exit.h"
#include "syswrap.h"

LOG_MODULE(0);

net_options g_netopts;

namespace {

bool is_plain_number(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

// The port rule of open_socket: a plain decimal number in 1..65535. getaddrinfo
// itself would take "70000" and wrap it, so the range is ours to check.
int port_value(const char *port) {
    if (port == nullptr || !is_plain_number(port)) return -1;
    std::string_view s{port};
    unsigned v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc{} || end != s.data() + s.size() || v < 1 || v > 65535) return -1;
    return static_cast<int>(v);
}

// atoi-like reading (leading blanks, a sign, then digits; the rest ignored) of
// the ports of the prepared-address listeners, without atoi's overflow.
// Returns 0 when no digits lead and 65536 for anything above 65535.
long atoi_port(const char *port) {
    if (port == nullptr) return 0;
    const char *p = port;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    bool neg = false;
    if (*p == '+' || *p == '-') neg = *p++ == '-';
    long v = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        v = v * 10 + (*p - '0');
        if (v > 65535) return neg ? -1 : 65536;
    }
    return neg ? -v : v;
}

socklen_t family_len(int family) {
    switch (family) {
        case AF_INET:
            return sizeof(sockaddr_in);
        case AF_INET6:
            return sizeof(sockaddr_in6);
        case AF_UNIX:
            return sizeof(sockaddr_un);
        default:
            return 0;
    }
}

bool is_mcast_addr(const sockaddr *sa) {
    if (sa->sa_family == AF_INET) {
        const auto *in = reinterpret_cast<const sockaddr_in *>(sa);
        return IN_MULTICAST(ntohl(in->sin_addr.s_addr));
    }
    if (sa->sa_family == AF_INET6)
        return IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6 *>(sa)->sin6_addr);
    return false;
}

// Groups whose scope is a single interface or link: their address means
// nothing without the interface it is meant on.
bool is_scoped_group(const sockaddr_in6 *sa) {
    return IN6_IS_ADDR_MC_NODELOCAL(&sa->sin6_addr) || IN6_IS_ADDR_MC_LINKLOCAL(&sa->sin6_addr);
}

bool is_v6_wildcard(const sockaddr *sa) {
    return sa->sa_family == AF_INET6 &&
           IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6 *>(sa)->sin6_addr);
}

// One integer socket option; logs under who. 0 or the errno of the failure.
int setopt_int(const char *who, int fd, int level, const char *level_name, int opt,
               const char *opt_name, int val) {
    if (W_setsockopt(who, fd, level, opt, &val, sizeof val) == 0) return 0;
    int err = errno;
    LOG_ERR("%s: setsockopt(fd%d, %s, %s, %d,..) ERROR(%d): %s\n", who, fd, level_name, opt_name,
            val, err, strerror(err));
    return err;
}

int set_flag_opt(const char *who, int fd, int level, const char *level_name, int opt,
                 const char *opt_name, bool on) {
    LOG_DBG("%s: [%s] for fd%d\n", who, on ? "ON" : "OFF", fd);
    return setopt_int(who, fd, level, level_name, opt, opt_name, on ? 1 : 0) == 0 ? 0 : -1;
}

int set_size_opt(const char *who, int fd, int opt, const char *opt_name, int size) {
    LOG_DBG("%s: [%d] for fd%d\n", who, size, fd);
    return setopt_int(who, fd, SOL_SOCKET, "SOL_SOCKET", opt, opt_name, size) == 0 ? 0 : -1;
}

int set_time_opt(const char *who, int fd, int opt, const char *opt_name, int timeout_ms) {
    if (timeout_ms < 0) {
        LOG_ERR("%s: negative time-out %d ms for fd%d\n", who, timeout_ms, fd);
        return -1;
    }
    LOG_DBG("%s: [%d ms] for fd%d\n", who, timeout_ms, fd);
    timeval tv{};
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = static_cast<suseconds_t>(timeout_ms % 1000) * 1000;
    if (W_setsockopt(who, fd, SOL_SOCKET, opt, &tv, sizeof tv) == 0) return 0;
    int err = errno;
    LOG_ERR("%s: setsockopt(fd%d, SOL_SOCKET, %s, %d ms,..) ERROR(%d): %s\n", who, fd, opt_name,
            timeout_ms, err, strerror(err));
    return -1;
}

// O_NONBLOCK on or off without logging; 0 or errno. fcntl has no wrapper, and
// F_GETFL/F_SETFL on a descriptor we hold fail only for a bad descriptor.
int nblock_errno(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return errno;
    int want = on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
    if (want != flags && fcntl(fd, F_SETFL, want) != 0) return errno;
    return 0;
}

// Copies a socket address of a known family into storage; false when the
// length cannot hold that family.
bool copy_addr(const sockaddr *sa, socklen_t len, sockaddr_storage *out) {
    socklen_t want = family_len(sa->sa_family);
    if (want == 0 || len < want || want > sizeof *out) return false;
    *out = sockaddr_storage{};
    memcpy(out, sa, want);
    return true;
}

// Walks the interface addresses for either an address equal to *addr (addr
// non-null) or the first address of family on the interface named name.
// Fills rec->ss and, for an address match, rec->idx. 0 found, -1 not.
int scan_ifaddrs(const char *who, int family, const sockaddr_storage *addr, const char *name,
                 ifc_info *rec) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        int err = errno;
        LOG_ERR("%s: getifaddrs ERROR(%d): %s\n", who, err, strerror(err));
        return -1;
    }
    scope_exit free_list{[list] { freeifaddrs(list); }};
    for (const ifaddrs *ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr) continue;
        int fam = ifa->ifa_addr->sa_family;
        if (fam != AF_INET && fam != AF_INET6) continue;
        if (family != AF_UNSPEC && fam != family) continue;
        if (addr != nullptr) {
            if (fam != addr->ss_family) continue;
            if (fam == AF_INET) {
                const auto *a = reinterpret_cast<const sockaddr_in *>(ifa->ifa_addr);
                const auto *b = reinterpret_cast<const sockaddr_in *>(addr);
                if (a->sin_addr.s_addr != b->sin_addr.s_addr) continue;
            } else {
                const auto *a = reinterpret_cast<const sockaddr_in6 *>(ifa->ifa_addr);
                const auto *b = reinterpret_cast<const sockaddr_in6 *>(addr);
                if (memcmp(&a->sin6_addr, &b->sin6_addr, sizeof a->sin6_addr) != 0) continue;
                if (b->sin6_scope_id != 0 && a->sin6_scope_id != b->sin6_scope_id) continue;
            }
            // Address labels ("eth0:1") are not interface names; the index
            // belongs to the part before the colon.
            char base[IFC_NAME_SIZE];
            std::string_view nm{ifa->ifa_name};
            nm = nm.substr(0, nm.find(':'));
            if (nm.size() >= sizeof base) continue;
            memcpy(base, nm.data(), nm.size());
            base[nm.size()] = '\0';
            rec->idx = if_nametoindex(base);
            if (rec->idx == 0) continue;
        } else if (strcmp(ifa->ifa_name, name) != 0) {
            continue;
        }
        (void)copy_addr(ifa->ifa_addr, family_len(fam), &rec->ss);
        return 0;
    }
    return -1;
}

// Parses a numeric address, IPv6 with an optional "%ifc" scope; false when
// the text is no address of family.
bool parse_numeric(int family, const char *text, sockaddr_storage *out) {
    *out = sockaddr_storage{};
    if (family != AF_INET6) {
        auto *in = reinterpret_cast<sockaddr_in *>(out);
        if (inet_pton(AF_INET, text, &in->sin_addr) == 1) {
            in->sin_family = AF_INET;
            return true;
        }
        if (family == AF_INET) return false;
    }
    std::string_view s{text};
    char host[INET6_ADDRSTRLEN];
    std::string_view h = s.substr(0, s.find('%'));
    if (h.size() >= sizeof host) return false;
    memcpy(host, h.data(), h.size());
    host[h.size()] = '\0';
    auto *in6 = reinterpret_cast<sockaddr_in6 *>(out);
    if (inet_pton(AF_INET6, host, &in6->sin6_addr) != 1) return false;
    in6->sin6_family = AF_INET6;
    if (h.size() < s.size()) {
        const char *scope = text + h.size() + 1;
        in6->sin6_scope_id = if_nametoindex(scope);
        if (in6->sin6_scope_id == 0 && is_plain_number(scope))
            in6->sin6_scope_id = static_cast<uint32_t>(strtoul(scope, nullptr, 10));
        if (in6->sin6_scope_id == 0) return false;
    }
    return true;
}

// The interface index a group request carries: the named interface's, or
// for an IPv6 group without one the group's own scope id.
uint32_t join_index(const sockaddr_storage *grp, const ifc_info *ifc) {
    if (ifc != nullptr && ifc->idx != 0) return ifc->idx;
    if (grp->ss_family == AF_INET6)
        return reinterpret_cast<const sockaddr_in6 *>(grp)->sin6_scope_id;
    return 0;
}

// The IPv4 address the legacy options name an interface by.
bool ifc_ipv4(const char *who, const ifc_info *ifc, in_addr *out) {
    out->s_addr = htonl(INADDR_ANY);
    if (ifc == nullptr) return true;
    if (ifc->ss.ss_family != AF_INET) {
        LOG_ERR("%s: interface %s has no IPv4 address\n", who, ifc->name);
        return false;
    }
    *out = reinterpret_cast<const sockaddr_in *>(&ifc->ss)->sin_addr;
    return true;
}

// Copies the group, brings its scope id in line with the interface and says
// which API is about to join or leave it.
int prepare_group(const char *who, const sockaddr *group, const ifc_info *ifc, bool join,
                  sockaddr_storage *grp) {
    LOG_DBG("%s: ifc-name=%s, idx=%u ifc=%p\n", who, ifc != nullptr ? ifc->name : "<none>",
            ifc != nullptr ? ifc->idx : 0U, static_cast<const void *>(ifc));
    if (group->sa_family != AF_INET && group->sa_family != AF_INET6) {
        LOG_ERR("%s: unsupported family %d\n", who, group->sa_family);
        return EAFNOSUPPORT;
    }
    (void)copy_addr(group, family_len(group->sa_family), grp);
    if (grp->ss_family == AF_INET6)
        if (int rc = sync_ipv6addr_scope_id(reinterpret_cast<sockaddr_in6 *>(grp), ifc); rc != 0)
            return rc;
    char text[SADDR_STR_SIZE];
    LOG_INF("%s: using %s mulitcast API to %s group %s\n", who,
            g_netopts.use_legacy_mcast_api ? "protocol-specific" : "GENERIC",
            join ? "join" : "leave",
            saddr_str(reinterpret_cast<const sockaddr *>(grp), sizeof *grp, text, sizeof text));
    return 0;
}

// Any-source join or leave through the API selected in g_netopts.
int group_op(const char *who, int fd, const sockaddr *group, const ifc_info *ifc, bool join) {
    XASSERT(group != nullptr);
    sockaddr_storage grp;
    if (int rc = prepare_group(who, group, ifc, join, &grp); rc != 0) return rc;

    int family = grp.ss_family;
    int level = family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    int opt = 0;
    const char *opt_name = nullptr;
    const void *val = nullptr;
    socklen_t val_len = 0;
    group_req gr{};
    ip_mreq mr{};
    ipv6_mreq m6{};
    if (!g_netopts.use_legacy_mcast_api) {
        gr.gr_interface = join_index(&grp, ifc);
        memcpy(&gr.gr_group, &grp, sizeof grp);
        opt = join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP;
        opt_name = join ? "MCAST_JOIN_GROUP" : "MCAST_LEAVE_GROUP";
        val = &gr;
        val_len = sizeof gr;
    } else if (family == AF_INET) {
        mr.imr_multiaddr = reinterpret_cast<const sockaddr_in *>(&grp)->sin_addr;
        if (!ifc_ipv4(who, ifc, &mr.imr_interface)) return EINVAL;
        opt = join ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP;
        opt_name = join ? "IP_ADD_MEMBERSHIP" : "IP_DROP_MEMBERSHIP";
        val = &mr;
        val_len = sizeof mr;
    } else {
        m6.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6 *>(&grp)->sin6_addr;
        m6.ipv6mr_interface = join_index(&grp, ifc);
        opt = join ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP;
        opt_name = join ? "IPV6_JOIN_GROUP" : "IPV6_LEAVE_GROUP";
        val = &m6;
        val_len = sizeof m6;
    }
    if (W_setsockopt(who, fd, level, opt, val, val_len) == 0) return 0;
    int err = errno;
    LOG_ERR("%s: %s fd=%d: %s\n", who, opt_name, fd, strerror(err));
    return err;
}

// Source-specific join or leave. The legacy API has no IPv6 source request.
int source_op(const char *who, int fd, const sockaddr *group, const ifc_info *ifc,
              const sockaddr *src, bool join) {
    XASSERT(group != nullptr && src != nullptr);
    const char *op = join ? "join" : "leave";
    if (src->sa_family != group->sa_family) {
        LOG_ERR("%s: SMM src/addr family mismatch: %u/%u\n", who, unsigned{src->sa_family},
                unsigned{group->sa_family});
        return EINVAL;
    }
    sockaddr_storage grp;
    if (int rc = prepare_group(who, group, ifc, join, &grp); rc != 0) return rc;

    int family = grp.ss_family;
    int level = family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    int opt = 0;
    const char *opt_name = nullptr;
    const void *val = nullptr;
    socklen_t val_len = 0;
    group_source_req gsr{};
    ip_mreq_source mrs{};
    if (!g_netopts.use_legacy_mcast_api) {
        gsr.gsr_interface = join_index(&grp, ifc);
        memcpy(&gsr.gsr_group, &grp, sizeof grp);
        (void)copy_addr(src, family_len(family), &gsr.gsr_source);
        opt = join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP;
        opt_name = join ? "MCAST_JOIN_SOURCE_GROUP" : "MCAST_LEAVE_SOURCE_GROUP";
        val = &gsr;
        val_len = sizeof gsr;
    } else if (family == AF_INET) {
        mrs.imr_multiaddr = reinterpret_cast<const sockaddr_in *>(&grp)->sin_addr;
        mrs.imr_sourceaddr = reinterpret_cast<const sockaddr_in *>(src)->sin_addr;
        if (!ifc_ipv4(who, ifc, &mrs.imr_interface)) return EINVAL;
        opt = join ? IP_ADD_SOURCE_MEMBERSHIP : IP_DROP_SOURCE_MEMBERSHIP;
        opt_name = join ? "IP_ADD_SOURCE_MEMBERSHIP" : "IP_DROP_SOURCE_MEMBERSHIP";
        val = &mrs;
        val_len = sizeof mrs;
    } else {
        LOG_ERR("%s: (%s) IPv6-specific SSM not supported\n", who, op);
        return EPROTONOSUPPORT;
    }
    if (W_setsockopt(who, fd, level, opt, val, val_len) == 0) return 0;
    int err = errno;
    LOG_ERR("%s: (%s) %s ifc=%s/%u fd%d: %s\n", who, op, opt_name,
            ifc != nullptr ? ifc->name : "<none>", join_index(&grp, ifc), fd, strerror(err));
    return err;
}

// Socket, options and bind of the prepared-address listeners.
int open_prepared(const char *who, sockaddr_storage *ss, const char *port, int socktype,
                  bool defer_listen) {
    XASSERT(ss != nullptr);
    if (port != nullptr || socktype == SOCK_STREAM) {
        long p = atoi_port(port);
        if (p < 1 || p > 65535) {
            LOG_ERR("%s: invalid port number: %s\n", who, port != nullptr ? port : "<none>");
            return -1;
        }
        if (ss->ss_family == AF_INET)
            reinterpret_cast<sockaddr_in *>(ss)->sin_port = htons(static_cast<uint16_t>(p));
        else if (ss->ss_family == AF_INET6)
            reinterpret_cast<sockaddr_in6 *>(ss)->sin6_port = htons(static_cast<uint16_t>(p));
    }
    int family = ss->ss_family;
    if (family != AF_INET && family != AF_INET6) {
        LOG_ERR("%s: invalid network family: %d\n", who, family);
        return -1;
    }
    int proto = socktype == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP;
    int fd = W_socket(who, family, socktype, proto);
    if (fd < 0) return -1;
    scope_exit close_fd{[fd, who] { (void)W_close(who, fd); }};

    const auto *sa = reinterpret_cast<const sockaddr *>(ss);
    // Same rule as open_socket: one socket on the IPv6 wildcard serves both families.
    if (is_v6_wildcard(sa) &&
        setopt_int(who, fd, IPPROTO_IPV6, "IPPROTO_IPV6", IPV6_V6ONLY, "IPV6_V6ONLY", 0) != 0)
        return -1;
    if (reuse_and_bind(fd, sa, family_len(family)) != 0) return -1;
    if (int err = nblock_errno(fd, true); err != 0) {
        LOG_ERR("%s: failed to make fd=%d non-blocking ERROR(%d): %s\n", who, fd, err,
                strerror(err));
        return -1;
    }
    if (socktype == SOCK_STREAM && !defer_listen && W_listen(who, fd, NET_BACKLOG) != 0) return -1;
    close_fd.release();
    return fd;
}

}  // namespace

void set_legacy_mcast_api(bool on) { g_netopts.use_legacy_mcast_api = on ? 1 : 0; }

int open_listener(sockaddr_storage *ss, const char *port, bool defer_listen) {
    return open_prepared(__func__, ss, port, SOCK_STREAM, defer_listen);
}

int open_udp_listener(sockaddr_storage *ss, const char *port) {
    return open_prepared(__func__, ss, port, SOCK_DGRAM, false);
}

int open_anyaddr_listener(int family, const char *port, bool defer_listen) {
    socket_spec spec{};
    spec.passive = 1;
    spec.non_blocking = 1;
    spec.defer_listen = defer_listen ? 1 : 0;
    spec.family = family;
    spec.socktype = SOCK_STREAM;
    return open_socket(nullptr, port, nullptr, &spec, nullptr, nullptr);
}

int open_domain_listener(const char *path) {
    const char *shown = path != nullptr ? path : "<null>";
    // Refuse before unlinking anything: a name we cannot bind is not ours to remove.
    if (path == nullptr || path[0] == '\0' || strlen(path) > UNIX_PATH_MAX_LEN) {
        LOG_ERR("%s: failed for path=[%s]\n", __func__, shown);
        return -1;
    }
    int fd = W_socket(__func__, AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) {
        LOG_ERR("%s: failed for path=[%s]\n", __func__, shown);
        return -1;
    }
    scope_exit close_fd{[fd, path, who = __func__] {
        (void)W_close(who, fd);
        LOG_ERR("%s: failed for path=[%s]\n", who, path);
    }};
    if (int err = nblock_errno(fd, true); err != 0) {
        LOG_ERR("%s: failed to make fd=%d non-blocking ERROR(%d): %s\n", __func__, fd, err,
                strerror(err));
        return -1;
    }
    // A missing file is the normal case, so unlink is called directly: the
    // wrapper would report ENOENT as a failure.
    if (unlink(path) != 0 && errno != ENOENT) {
        int err = errno;
        LOG_ERR("%s: unlink ERROR(%d): %s\n", __func__, err, strerror(err));
        return -1;
    }
    sockaddr_un sun{};
    sun.sun_family = AF_UNIX;
    memcpy(sun.sun_path, path, strlen(path) + 1);
    if (W_bind(__func__, fd, reinterpret_cast<const sockaddr *>(&sun), sizeof sun) != 0) return -1;
    if (W_listen(__func__, fd, NET_BACKLOG) != 0) return -1;
    close_fd.release();
    LOG_DBG("%s: fd=%d is listening on [%s]\n", __func__, fd, path);
    return fd;
}

int reuse_and_bind(int fd, const sockaddr *addr, socklen_t len) {
    XASSERT(addr != nullptr);
    char text[SADDR_STR_SIZE];
    int one = 1;
    int err = 0;
    const char *step = "SO_REUSEADDR";
    if (W_setsockopt(__func__, fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
        err = errno;
    } else {
        // Best effort: kernels without SO_REUSEPORT still bind.
        (void)W_setsockopt(__func__, fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
        step = "bind";
        if (W_bind(__func__, fd, addr, len) != 0) err = errno;
    }
    if (err != 0) {
        LOG_ERR("%s: fd=%d %s failed for [%s] af=%s (%d) len=%u ERROR(%d): %s\n", __func__, fd,
                step, saddr_str(addr, len, text, sizeof text), af_name(addr->sa_family),
                addr->sa_family, unsigned{len}, err, strerror(err));
        return err;
    }
    LOG_DBG("%s: fd=%d %s OK\n", __func__, fd, saddr_str(addr, len, text, sizeof text));
    return 0;
}

bool should_connect(bool is_listener, const socket_spec *spec) {
    if (spec->socktype == SOCK_DGRAM) return false;
    if (spec->socktype == SOCK_STREAM) return !is_listener;
    return true;
}

int setup_listener(int fd, const addrinfo *ai, socket_spec *spec) {
    if (is_v6_wildcard(ai->ai_addr)) {
        int err =
            setopt_int(__func__, fd, IPPROTO_IPV6, "IPPROTO_IPV6", IPV6_V6ONLY, "IPV6_V6ONLY", 0);
        if (err != 0) return err;
    }
    if (int err = reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen); err != 0) return err;
    if (spec->socktype == SOCK_STREAM && !spec->defer_listen &&
        W_listen(__func__, fd, NET_BACKLOG) != 0)
        return errno;
    if (should_connect(true, spec)) {
        LOG_DBG("%s: CONNECT [%d]\n", __func__, fd);
        if (W_connect(__func__, fd, ai->ai_addr, ai->ai_addrlen) != 0) return errno;
    }
    return 0;
}

int setup_client(int fd, const addrinfo *ai, socket_spec *spec) {
    if (!should_connect(false, spec)) {
        // A datagram reader receives on the address; a datagram writer sends
        // with sendto and needs neither bind nor connect.
        if (spec->socktype == SOCK_DGRAM && !spec->writer)
            return reuse_and_bind(fd, ai->ai_addr, ai->ai_addrlen);
        return 0;
    }
    if (spec->non_blocking) LOG_DBG("%s: non-blocking CONNECT on fd%d\n", __func__, fd);
    spec->async_connect = 0;
    if (W_connect(__func__, fd, ai->ai_addr, ai->ai_addrlen) != 0) {
        int err = errno;
        if (err != EINPROGRESS) {
            LOG_ERR("%s: CONNECT [fd%d] ERROR(%d): %s\n", __func__, fd, err, strerror(err));
            return err;
        }
        spec->async_connect = 1;
    }
    LOG_INF("%s: %s CONNECT [fd%d]\n", __func__, spec->async_connect ? "ASYNC" : "IMMEDIATE", fd);
    return 0;
}

int sync_ipv6addr_scope_id(sockaddr_in6 *group, const ifc_info *ifc) {
    if (ifc == nullptr || ifc->idx == 0 || !is_scoped_group(group)) return 0;
    if (group->sin6_scope_id != 0 && group->sin6_scope_id != ifc->idx) {
        LOG_ERR("%s: group scope id %u does not match interface %s (%u)\n", __func__,
                group->sin6_scope_id, ifc->name, ifc->idx);
        return EINVAL;
    }
    group->sin6_scope_id = ifc->idx;
    return 0;
}

int setup_mcast_reader(int fd, const addrinfo *ai, const ifc_info *ifc, const sockaddr *src) {
    LOG_DBG("%s: fd=%d, ifc=[%s]:%p\n", __func__, fd, ifc != nullptr ? ifc->name : "",
            static_cast<const void *>(ifc));
    sockaddr_storage grp;
    if (!copy_addr(ai->ai_addr, ai->ai_addrlen, &grp)) {
        LOG_ERR("%s: unsupported family %d\n", __func__, ai->ai_addr->sa_family);
        return EAFNOSUPPORT;
    }
    if (grp.ss_family == AF_INET6) {
        auto *g6 = reinterpret_cast<sockaddr_in6 *>(&grp);
        if (ifc == nullptr && is_scoped_group(g6)) {
            LOG_ERR("%s: network interface must be specified to use link/local-scope multicast\n",
                    __func__);
            return EINVAL;
        }
        // The kernel binds a scoped address only with its interface in the scope id.
        if (int err = sync_ipv6addr_scope_id(g6, ifc); err != 0) return err;
    }
    // Bound to the group itself, so unicast traffic to the same port stays out.
    const auto *gsa = reinterpret_cast<const sockaddr *>(&grp);
    if (int err = reuse_and_bind(fd, gsa, ai->ai_addrlen); err != 0) return err;
    if (src != nullptr) {
        if (src->sa_family != grp.ss_family) {
            LOG_ERR("%s: SMM src/addr family mismatch: %u/%u\n", __func__, unsigned{src->sa_family},
                    unsigned{grp.ss_family});
            return EINVAL;
        }
        return ssm_join(fd, gsa, ifc, src);
    }
    return mcast_join(fd, gsa, ifc);
}

int setup_mcast_writer(int fd, const addrinfo *ai, const ifc_info *ifc) {
    LOG_DBG("%s: fd=%d, ifc=[%s]:%p\n", __func__, fd, ifc != nullptr ? ifc->name : "",
            static_cast<const void *>(ifc));
    if (ifc == nullptr) return 0;
    if (ai->ai_family == AF_INET) {
        in_addr out{};
        if (!ifc_ipv4(__func__, ifc, &out)) return EINVAL;
        if (W_setsockopt(__func__, fd, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out) == 0)
            return 0;
        int err = errno;
        LOG_ERR("%s: setsockopt(fd%d, IPPROTO_IP, IP_MULTICAST_IF, %s,..) ERROR(%d): %s\n",
                __func__, fd, ifc->name, err, strerror(err));
        return err;
    }
    // IPv6 names the outgoing interface by index; without this a group of
    // wider than link scope would leave through the default route.
    if (ai->ai_family == AF_INET6 && ifc->idx != 0)
        return setopt_int(__func__, fd, IPPROTO_IPV6, "IPPROTO_IPV6", IPV6_MULTICAST_IF,
                          "IPV6_MULTICAST_IF", static_cast<int>(ifc->idx));
    return 0;
}

int mcast_join(int fd, const sockaddr *group, const ifc_info *ifc) {
    return group_op(__func__, fd, group, ifc, true);
}

int mcast_leave(int fd, const sockaddr *group, const ifc_info *ifc) {
    return group_op(__func__, fd, group, ifc, false);
}

int ssm_join(int fd, const sockaddr *group, const ifc_info *ifc, const sockaddr *src) {
    return source_op(__func__, fd, group, ifc, src, true);
}

int ssm_leave(int fd, const sockaddr *group, const ifc_info *ifc, const sockaddr *src) {
    return source_op(__func__, fd, group, ifc, src, false);
}

int set_mcast_ttl(int fd, int family, int ttl) {
    XASSERT(family == AF_INET || family == AF_INET6);
    int level = family == AF_INET ? IPPROTO_IP : IPPROTO_IPV6;
    int opt = family == AF_INET ? IP_MULTICAST_TTL : IPV6_MULTICAST_HOPS;
    const char *op = family == AF_INET ? "IP_MULTICAST_TTL" : "IPV6_MULTICAST_HOPS";
    if (W_setsockopt(__func__, fd, level, opt, &ttl, sizeof ttl) == 0) return 0;
    int err = errno;
    LOG_ERR("%s: %s mcast fd=%d, op=%s: %s\n", __func__, af_name(family), fd, op, strerror(err));
    return -1;
}

int open_socket(const char *addr, const char *port, const char *ssm_source, socket_spec *spec,
                const char *ifc, ifc_info **ifc_out) {
    XASSERT(spec != nullptr);
    if (ifc_out != nullptr) *ifc_out = nullptr;
    bool has_addr = addr != nullptr && addr[0] != '\0';
    bool is_listener = spec->passive;
    LOG_DBG("%s: %s %s [%s (%d)] socket for [%s:%s], ifc=%s\n", __func__,
            spec->socktype == SOCK_DGRAM ? "UDP" : "TCP", is_listener ? "LISTENER" : "CLIENT",
            af_name(spec->family), spec->family, has_addr ? addr : "all",
            port != nullptr ? port : "", ifc != nullptr ? ifc : "none");
    spec->multicast = 0;
    spec->async_connect = 0;
    spec->is_ssm = false;
    spec->addr_len = 0;
    spec->src_len = 0;

    if ((spec->socktype == SOCK_STREAM || spec->socktype == SOCK_DGRAM) && port_value(port) < 0) {
        LOG_ERR("%s: empty or invalid port [%s]\n", __func__, port != nullptr ? port : "");
        return -1;
    }
    // getaddrinfo would read "1234" as the address 0.0.4.210; in a
    // configuration it is a port written in the wrong place.
    if (has_addr && is_plain_number(addr)) {
        LOG_ERR("%s: cannot accept plain number [%s] as IP address\n", __func__, addr);
        return -1;
    }

    addrinfo hints{};
    if (ssm_source != nullptr && ssm_source[0] != '\0') {
        hints.ai_family = spec->family;
        hints.ai_socktype = spec->socktype;
        addrinfo *sres = nullptr;
        // No service is asked for, so a source written with a port does not resolve.
        if (W_getaddrinfo(__func__, ssm_source, nullptr, &hints, &sres) != 0 || sres == nullptr) {
            LOG_ERR("%s: invalid SSM source: %s\n", __func__, ssm_source);
            return -1;
        }
        bool ok = copy_addr(sres->ai_addr, sres->ai_addrlen, &spec->src_ss);
        spec->src_len = family_len(sres->ai_family);
        freeaddrinfo(sres);
        if (!ok) {
            LOG_ERR("%s: invalid SSM source: %s\n", __func__, ssm_source);
            return -1;
        }
        spec->is_ssm = true;
        LOG_DBG("%s: SSM source: %s\n", __func__, ssm_source);
    }

    hints = addrinfo{};
    hints.ai_family = spec->family;
    hints.ai_socktype = spec->socktype;
    hints.ai_flags = AI_NUMERICSERV | (is_listener ? AI_PASSIVE : 0);
    addrinfo *res = nullptr;
    if (W_getaddrinfo(__func__, has_addr ? addr : nullptr, port, &hints, &res) != 0 ||
        res == nullptr) {
        LOG_ERR("%s: cannot resolve [%s:%s]\n", __func__, has_addr ? addr : "all", port);
        return -1;
    }
    scope_exit free_res{[res] { freeaddrinfo(res); }};

    // Only the resolver's first answer is tried (for a wildcard of no stated
    // family that is the IPv4 one): a name that resolves to several
    // addresses gives one socket or a failure, never a quiet fallback.
    const addrinfo *ai = res;
    bool use_ifc = ifc != nullptr && !is_anyaddr(ifc);
    do {  // a failed step breaks out to the failure below, closing the socket
        LOG_DBG("af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        if (spec->is_ssm && spec->src_ss.ss_family != ai->ai_family) {
            LOG_ERR("%s: SMM src/addr family mismatch: %u/%u\n", __func__,
                    unsigned{spec->src_ss.ss_family}, unsigned(ai->ai_family));
            break;
        }
        // A non-blocking socket is made so in the same call, which saves two
        // fcntl calls for every outbound connection of a busy agent.
        const int type = ai->ai_socktype | (spec->non_blocking ? SOCK_NONBLOCK : 0);
        int fd = W_socket(__func__, ai->ai_family, type, ai->ai_protocol);
        if (fd < 0) break;
        ifc_info *found = nullptr;
        scope_exit undo{[fd, &found, who = __func__] {
            (void)W_close(who, fd);
            free(found);
        }};
        int rc = 0;
        spec->multicast = is_mcast_addr(ai->ai_addr) ? 1 : 0;
        addrinfo local = *ai;  // the candidate, with a group's scope id filled in
        sockaddr_storage local_addr;
        if (!copy_addr(ai->ai_addr, ai->ai_addrlen, &local_addr)) break;
        local.ai_addr = reinterpret_cast<sockaddr *>(&local_addr);
        if (spec->multicast) {
            if (use_ifc && (found = get_ifc_info(ai->ai_family, ifc)) == nullptr) break;
            // The group kept in the socket_spec carries the interface in its scope
            // id, so the caller's sendto and leave reach the same interface.
            if (local_addr.ss_family == AF_INET6 &&
                sync_ipv6addr_scope_id(reinterpret_cast<sockaddr_in6 *>(&local_addr), found) != 0)
                break;
            const auto *src =
                spec->is_ssm ? reinterpret_cast<const sockaddr *>(&spec->src_ss) : nullptr;
            rc = spec->writer ? setup_mcast_writer(fd, &local, found)
                              : setup_mcast_reader(fd, &local, found, src);
        } else {
            rc = is_listener ? setup_listener(fd, ai, spec) : setup_client(fd, ai, spec);
        }
        if (rc != 0) break;

        spec->addr_ss = local_addr;
        spec->addr_len = family_len(ai->ai_family);
        if (ifc_out != nullptr) {
            *ifc_out = found;
            found = nullptr;
        }
        free(found);
        found = nullptr;
        undo.release();
        if (spec->async_connect) LOG_DBG("%s: connection in progress for fd%d\n", __func__, fd);
        LOG_DBG("%s: %s %s socket fd=[%d]\n", __func__, is_listener ? "SERVER" : "CLIENT",
                spec->multicast ? "multicast" : "unicast", fd);
        return fd;
    } while (false);
    spec->multicast = 0;
    spec->is_ssm = false;
    LOG_ERR("%s: no usable socket for [%s:%s]\n", __func__, has_addr ? addr : "all", port);
    return -1;
}

int mk_sockaddr(const char *text, int socktype, int family, sockaddr_storage *out,
                socklen_t *out_len) {
    XASSERT(out != nullptr && out_len != nullptr);
    const char *shown = text != nullptr ? text : "";
    LOG_DBG("%s: %s(%d) address for [%s]\n", __func__, socktype == SOCK_DGRAM ? "DGRAM" : "STREAM",
            socktype, shown);
    std::string_view s{shown};
    s = s.substr(0, NET_ADDR_TEXT_MAX);
    size_t colon = s.rfind(':');
    if (colon == std::string_view::npos) {
        LOG_ERR("%s: invalid address/port: %s\n", __func__, shown);
        return -1;
    }
    std::string_view a = s.substr(0, colon);
    std::string_view p = s.substr(colon + 1);
    char host[NET_ADDR_TEXT_MAX + 1];
    char port[NET_ADDR_TEXT_MAX + 1];
    memcpy(host, a.data(), a.size());
    host[a.size()] = '\0';
    memcpy(port, p.data(), p.size());
    port[p.size()] = '\0';
    // Seven characters is the shortest real host text ("1.2.3.4", "a::b:cd"
    // aside); shorter ones are ports or a mis-split IPv6 literal such as "::1".
    if (is_plain_number(a) || a.size() < 7) {
        LOG_ERR("%s: cannot accept plain number [%s] as IP address\n", __func__, host);
        return -1;
    }
    if (!is_plain_number(p)) {
        LOG_ERR("%s: port must be plain decimal number [%s]\n", __func__, port);
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = socktype;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *res = nullptr;
    if (W_getaddrinfo(__func__, host, port, &hints, &res) != 0) res = nullptr;
    scope_exit free_res{[res] {
        if (res != nullptr) freeaddrinfo(res);
    }};
    for (const addrinfo *ai = res; ai != nullptr; ai = ai->ai_next) {
        // A probe socket tells whether this kernel can use the candidate's
        // family at all (IPv6 may be off).
        int probe = W_socket(__func__, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        LOG_DBG("%s: %s af=%s (%d), proto = %d\n", __func__, probe >= 0 ? "OK" : "BAD",
                af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        if (probe < 0) continue;
        (void)W_close(__func__, probe);
        if (!copy_addr(ai->ai_addr, ai->ai_addrlen, out)) continue;
        *out_len = family_len(ai->ai_family);
        return 0;
    }
    LOG_ERR("%s: failed for [%s]\n", __func__, shown);
    return -1;
}

ifc_info *get_ifc_info(int family, const char *name_or_addr) {
    const char *text = name_or_addr != nullptr ? name_or_addr : "";
    auto *rec = static_cast<ifc_info *>(W_calloc(__func__, 1, sizeof(ifc_info)));
    if (rec == nullptr) return nullptr;
    bool known_family = family == AF_INET || family == AF_INET6 || family == AF_UNSPEC;
    if (text[0] != '\0' && known_family) {
        // Not a name is the normal case for an address text, so 0 is no failure here.
        rec->idx = if_nametoindex(text);
        if (rec->idx == 0) {
            sockaddr_storage want;
            if (parse_numeric(family, text, &want))
                (void)scan_ifaddrs(__func__, family, &want, nullptr, rec);
        }
        if (rec->idx != 0) {
            if (if_indextoname(rec->idx, rec->name) == nullptr) {
                int err = errno;
                LOG_ERR("%s: if_indextoname(%d, buf): %s\n", __func__, static_cast<int>(rec->idx),
                        strerror(err));
                rec->idx = 0;
            } else if (rec->ss.ss_family == AF_UNSPEC) {
                (void)scan_ifaddrs(__func__, family, nullptr, rec->name, rec);
            }
        }
    }
    if (rec->idx == 0 || rec->ss.ss_family == AF_UNSPEC) {
        LOG_ERR("[%s] is not a valid %s interface address.\n", text, af_name(family));
        free(rec);
        return nullptr;
    }
    return rec;
}

int name2af(const char *name) {
    const char *n = name != nullptr ? name : "";
    static constexpr const char *v4[] = {"inet4", "inet", "ipv4", "af_inet", "pf_inet"};
    static constexpr const char *v6[] = {"inet6", "ipv6", "af_inet6", "pf_inet6"};
    static constexpr const char *any[] = {"", "any", "unspec", "anyaddr", "all"};
    for (const char *t : v4)
        if (strcasecmp(n, t) == 0) return AF_INET;
    for (const char *t : v6)
        if (strcasecmp(n, t) == 0) return AF_INET6;
    for (const char *t : any)
        if (strcasecmp(n, t) == 0) return AF_UNSPEC;
    LOG_ERR("%s: unsupported address family [%s] in configuration.", __func__, n);
    return -1;
}

const char *af_name(int family) {
    switch (family) {
        case AF_INET:
            return "IPv4";
        case AF_INET6:
            return "IPv6";
        case AF_UNSPEC:
            return "unspec";
        case AF_UNIX:
            return "local";
        default:
            return "unknown";
    }
}

const char *saddr_str(const sockaddr *sa, socklen_t len, char *buf, size_t size) {
    XASSERT(buf != nullptr && size > 0);
    int n = 0;
    char host[INET6_ADDRSTRLEN];
    if (sa == nullptr) {
        n = snprintf(buf, size, "<none>");
    } else if (sa->sa_family == AF_INET && len >= sizeof(sockaddr_in)) {
        const auto *in = reinterpret_cast<const sockaddr_in *>(sa);
        if (inet_ntop(AF_INET, &in->sin_addr, host, sizeof host) == nullptr) host[0] = '\0';
        unsigned port = ntohs(in->sin_port);
        n = port != 0 ? snprintf(buf, size, "%s:%u", host, port) : snprintf(buf, size, "%s", host);
    } else if (sa->sa_family == AF_INET6 && len >= sizeof(sockaddr_in6)) {
        const auto *in6 = reinterpret_cast<const sockaddr_in6 *>(sa);
        if (inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof host) == nullptr) host[0] = '\0';
        char scope[IFC_NAME_SIZE + 12] = "";
        if (in6->sin6_scope_id != 0) {
            char name[IF_NAMESIZE];
            int m = if_indextoname(in6->sin6_scope_id, name) != nullptr
                        ? snprintf(scope, sizeof scope, "%%%s", name)
                        : snprintf(scope, sizeof scope, "%%%u", in6->sin6_scope_id);
            if (m < 0 || static_cast<size_t>(m) >= sizeof scope) scope[0] = '\0';
        }
        unsigned port = ntohs(in6->sin6_port);
        n = port != 0 ? snprintf(buf, size, "[%s%s]:%u", host, scope, port)
                      : snprintf(buf, size, "%s%s", host, scope);
    } else if (sa->sa_family == AF_UNIX && len > offsetof(sockaddr_un, sun_path)) {
        const auto *un = reinterpret_cast<const sockaddr_un *>(sa);
        size_t max = len - offsetof(sockaddr_un, sun_path);
        if (max > sizeof un->sun_path) max = sizeof un->sun_path;
        // An abstract name starts with a zero byte; it is shown with "@".
        bool abstract = max > 0 && un->sun_path[0] == '\0';
        const char *p = un->sun_path + (abstract ? 1 : 0);
        size_t plen = strnlen(p, max - (abstract ? 1 : 0));
        n = snprintf(buf, size, "%s%.*s", abstract ? "@" : "", static_cast<int>(plen), p);
    } else {
        n = snprintf(buf, size, "AF=%d", sa->sa_family);
    }
    if (n < 0) buf[0] = '\0';  // a cut text (n >= size) is kept: it still names the address
    return buf;
}

bool is_anyaddr(const char *text) {
    if (text == nullptr || text[0] == '\0') return true;
    static constexpr const char *any[] = {"*", "all", "any", "anyaddr", "0.0.0.0", "::"};
    for (const char *t : any)
        if (strcasecmp(text, t) == 0) return true;
    return false;
}

bool ends_with_port(const char *text) {
    if (text == nullptr) return false;
    std::string_view s{text};
    size_t colon = s.rfind(':');
    if (colon == std::string_view::npos || colon == 0) return false;
    std::string_view port = s.substr(colon + 1);
    if (port.size() > 5 || !is_plain_number(port)) return false;
    return s[colon - 1] != ':';
}

int socket_error(int fd) {
    int pending = 0;
    socklen_t len = sizeof pending;
    if (W_getsockopt(__func__, fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
        int err = errno;
        LOG_ERR("%s: getsockopt(fd%d, SOL_SOCKET, SO_ERROR) ERROR(%d): %s\n", __func__, fd, err,
                strerror(err));
        return err;
    }
    return pending;
}

int set_nblock(int fd, bool on) {
    LOG_DBG("%s: [%s] for fd%d\n", __func__, on ? "ON" : "OFF", fd);
    if (int err = nblock_errno(fd, on); err != 0) {
        LOG_ERR("%s: fcntl(fd%d, F_SETFL, O_NONBLOCK %s) ERROR(%d): %s\n", __func__, fd,
                on ? "on" : "off", err, strerror(err));
        return -1;
    }
    return 0;
}

int set_tcp_nodelay(int fd, bool on) {
    return set_flag_opt(__func__, fd, IPPROTO_TCP, "IPPROTO_TCP", TCP_NODELAY, "TCP_NODELAY", on);
}

int set_tcp_cork(int fd, bool on) {
    return set_flag_opt(__func__, fd, IPPROTO_TCP, "IPPROTO_TCP", TCP_CORK, "TCP_CORK", on);
}

int set_keepalive(int fd, bool on) {
    return set_flag_opt(__func__, fd, SOL_SOCKET, "SOL_SOCKET", SO_KEEPALIVE, "SO_KEEPALIVE", on);
}

int set_socket_sendbuf(int fd, int size) {
    return set_size_opt(__func__, fd, SO_SNDBUF, "SO_SNDBUF", size);
}

int set_socket_rcvbuf(int fd, int size) {
    return set_size_opt(__func__, fd, SO_RCVBUF, "SO_RCVBUF", size);
}

int set_rcv_timeout(int fd, int timeout_ms) {
    return set_time_opt(__func__, fd, SO_RCVTIMEO, "SO_RCVTIMEO", timeout_ms);
}

int set_send_timeout(int fd, int timeout_ms) {
    return set_time_opt(__func__, fd, SO_SNDTIMEO, "SO_SNDTIMEO", timeout_ms);
}

int set_ipv6only(int fd, bool on) {
    return set_flag_opt(__func__, fd, IPPROTO_IPV6, "IPPROTO_IPV6", IPV6_V6ONLY, "IPV6_V6ONLY", on);
}

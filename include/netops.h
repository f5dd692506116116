// netops: the socket layer. Turns textual addresses into bound, listening,
// connected or multicast non-blocking sockets (TCP, UDP, local domain), and
// holds the small socket utilities: options, address printing, family names.
// Owns the process-wide switch between the two multicast join APIs.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr int NET_BACKLOG = 128;
constexpr size_t IFC_NAME_SIZE = 16;       // IF_NAMESIZE, terminator included
constexpr size_t SADDR_STR_SIZE = 128;     // enough for any address saddr_str prints
constexpr size_t NET_ADDR_TEXT_MAX = 127;  // mk_sockaddr uses at most this much of its text
constexpr size_t UNIX_PATH_MAX_LEN = 107;  // sun_path less its terminator

// What open_socket is to make. The caller fills the request bits, family and
// socktype; the layer fills multicast, async_connect, the resolved address
// and the source-specific source.
struct socket_spec {
    unsigned writer : 1;         // a multicast sender rather than a receiver
    unsigned passive : 1;        // a listener rather than a client
    unsigned multicast : 1;      // set by the layer: the address is a group
    unsigned non_blocking : 1;   // made non-blocking right after creation
    unsigned async_connect : 1;  // set by the layer: connect still in progress
    unsigned defer_listen : 1;   // bind, but leave listen to the caller
    int family;                  // AF_INET, AF_INET6 or AF_UNSPEC
    int socktype;                // SOCK_STREAM or SOCK_DGRAM
    sockaddr_storage addr_ss;    // the resolved address (the group for multicast)
    socklen_t addr_len;
    bool is_ssm;              // a source-specific source was given
    sockaddr_storage src_ss;  // that source; port 0
    socklen_t src_len;
};
static_assert(std::is_trivially_copyable_v<socket_spec>);

// A network interface. Allocated by get_ifc_info, freed by its owner with free().
struct ifc_info {
    uint32_t idx;              // interface index; 0 = unknown
    char name[IFC_NAME_SIZE];  // interface name
    sockaddr_storage ss;       // an address of the interface in the family asked for
};
static_assert(std::is_trivially_copyable_v<ifc_info>);

// Process-wide switches of the layer.
struct net_options {
    unsigned use_legacy_mcast_api : 1;  // per-family join options instead of group requests
};
extern net_options g_netopts;

// Joins and leaves use IP_ADD_MEMBERSHIP/IPV6_JOIN_GROUP and friends when on,
// the protocol-independent MCAST_* group requests when off (the default).
void set_legacy_mcast_api(bool on);

// ---- Listeners and the general opener. Each returns a descriptor or -1; a
// ---- descriptor returned is non-blocking unless stated and owned by the caller.

// TCP listener on a prepared IPv4 or IPv6 address. port (decimal, 1..65535,
// read like atoi) is stored into *ss. With defer_listen the socket is bound
// but listen is left to the caller. An IPv6 wildcard also serves IPv4.
[[nodiscard]] int open_listener(sockaddr_storage *ss, const char *port, bool defer_listen);
// Bound, non-blocking UDP socket on a prepared address; a null port keeps the
// port already in *ss, any other is checked as for open_listener.
[[nodiscard]] int open_udp_listener(sockaddr_storage *ss, const char *port);
// TCP listener on the wildcard address of family. AF_UNSPEC prefers the IPv6
// wildcard (which serves both families) and falls back to IPv4.
[[nodiscard]] int open_anyaddr_listener(int family, const char *port, bool defer_listen);
// Local-domain stream listener on path (at most 107 characters); whatever
// already exists at path is unlinked first, so a stale socket file is replaced.
[[nodiscard]] int open_domain_listener(const char *path);

// The general entry point. addr null or empty means the wildcard; port must
// be decimal 1..65535. ssm_source (null or empty for none) is a source
// address without a port for a source-specific join. ifc (null, empty or an
// any-address text for none) names the interface of a multicast group. A
// multicast group is joined (reader) or set up for sending (writer); other
// addresses become a listener (spec->passive) or a client. A non-blocking
// client connect still in progress is a success with spec->async_connect set.
// On success the descriptor is returned, spec->addr_ss holds the address
// used, and the interface looked up for a group is handed over through
// *ifc_out (the caller frees it; null when none) or freed when ifc_out is
// null. -1 on failure, nothing left open and *ifc_out null.
[[nodiscard]] int open_socket(const char *addr, const char *port, const char *ssm_source,
                              socket_spec *spec, const char *ifc, ifc_info **ifc_out);

// SO_REUSEADDR (required), SO_REUSEPORT (best effort), then bind. 0, or the
// errno of the failed step; failures log the address.
[[nodiscard]] int reuse_and_bind(int fd, const sockaddr *addr, socklen_t len);
// Listener side of open_socket: dual-stack for the IPv6 wildcard, bind, and
// listen for a stream socket unless spec->defer_listen. 0 or an errno value.
[[nodiscard]] int setup_listener(int fd, const addrinfo *ai, socket_spec *spec);
// Client side of open_socket: binds a datagram reader to the address,
// connects a stream socket (EINPROGRESS sets spec->async_connect and is not a
// failure). 0 or an errno value.
[[nodiscard]] int setup_client(int fd, const addrinfo *ai, socket_spec *spec);
// Datagram sockets are never connected, stream sockets only by a client, any
// other socket type always.
bool should_connect(bool is_listener, const socket_spec *spec);

// ---- Multicast. ifc may be null (the kernel picks the interface); src is a
// ---- source address of the group's family. All return 0 or an errno value.

// Binds fd to the group address of ai itself and joins it on ifc, from src
// only when src is not null. An IPv6 group of interface- or link-local scope
// needs an interface.
[[nodiscard]] int setup_mcast_reader(int fd, const addrinfo *ai, const ifc_info *ifc,
                                     const sockaddr *src);
// Sends to the group of ai through ifc when one is named. No TTL is set here.
[[nodiscard]] int setup_mcast_writer(int fd, const addrinfo *ai, const ifc_info *ifc);
// Any-source membership of group on ifc. The interface index goes into an
// IPv6 group of interface- or link-local scope (see sync_ipv6addr_scope_id);
// without an interface such a group's own scope id selects it. A socket opened
// by open_socket leaves with (fd, &spec.addr_ss, the ifc_info handed out).
[[nodiscard]] int mcast_join(int fd, const sockaddr *group, const ifc_info *ifc);
int mcast_leave(int fd, const sockaddr *group, const ifc_info *ifc);
// Source-specific membership of group from src on ifc. The legacy API has no
// IPv6 form and refuses it. Leave with (fd, &spec.addr_ss, ifc, &spec.src_ss).
[[nodiscard]] int ssm_join(int fd, const sockaddr *group, const ifc_info *ifc, const sockaddr *src);
int ssm_leave(int fd, const sockaddr *group, const ifc_info *ifc, const sockaddr *src);
// Puts ifc's index into the scope id of an IPv6 group of interface- or
// link-local scope (other scopes are left alone). A group that already names
// another interface is refused with EINVAL; ifc null or without an index
// changes nothing. 0 or EINVAL.
[[nodiscard]] int sync_ipv6addr_scope_id(sockaddr_in6 *group, const ifc_info *ifc);
// IP_MULTICAST_TTL (IPv4) or IPV6_MULTICAST_HOPS (IPv6); another family is a
// fatal assertion. 0 or -1.
int set_mcast_ttl(int fd, int family, int ttl);

// ---- Addresses.

// Resolves "address:port", split at the last colon so IPv6 needs no brackets.
// The address must not be a plain number and must have at least 7
// characters; the port must be decimal. The first candidate of which a socket
// can be made is stored. 0 or -1.
[[nodiscard]] int mk_sockaddr(const char *text, int socktype, int family, sockaddr_storage *out,
                              socklen_t *out_len);
// The interface named by name_or_addr (an interface name or one of its
// addresses) with an address in family (AF_UNSPEC: IPv4 or IPv6). The caller
// frees the record; null when there is no such interface or address.
[[nodiscard]] ifc_info *get_ifc_info(int family, const char *name_or_addr);
// Configuration text to family, case-insensitive: AF_INET, AF_INET6 or
// AF_UNSPEC (null, "", "any", "unspec", "anyaddr", "all"); -1 otherwise.
int name2af(const char *name);
// "IPv4", "IPv6", "unspec", "local" or "unknown".
const char *af_name(int family);
// Prints an address into buf: "1.2.3.4:80", "[::1]:80" (with "%ifc" for a
// scope), a local path, or "AF=<n>". A port of 0 is left out. Cut to fit.
// Returns buf.
const char *saddr_str(const sockaddr *sa, socklen_t len, char *buf, size_t size);
// True for texts that mean "any address or interface": null, "", "*", "all",
// "any", "anyaddr" (case-insensitive), "0.0.0.0" and "::".
bool is_anyaddr(const char *text);
// True when text ends in ":<1 to 5 digits>" with something before the colon
// that does not itself end in a colon (so "::1" and "fe80::1" have no port).
bool ends_with_port(const char *text);
// The pending error of a socket (SO_ERROR), cleared by reading it: 0 none,
// otherwise an errno value (that of getsockopt itself if it failed).
int socket_error(int fd);

// ---- Options: 0 or -1, failures logged at error.

int set_nblock(int fd, bool on);
int set_tcp_nodelay(int fd, bool on);
int set_tcp_cork(int fd, bool on);
int set_keepalive(int fd, bool on);
int set_socket_sendbuf(int fd, int size);
int set_socket_rcvbuf(int fd, int size);
// Time-outs in milliseconds for blocking receives and sends; 0 removes the
// time-out, a negative value is refused.
int set_rcv_timeout(int fd, int timeout_ms);
int set_send_timeout(int fd, int timeout_ms);
int set_ipv6only(int fd, bool on);

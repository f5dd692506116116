// netclient: small blocking clients for the end-to-end tests: raw bytes to a
// TCP port on 127.0.0.1 and the whole answer back (bounded by a deadline), a
// GET convenience, UDP datagrams to loopback or to a multicast group on lo,
// and the choice of a free port.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct net_reply {
    std::string data;  // every byte received, in order
    int status;        // from a leading "HTTP/x.y NNN"; -1 when there is none
    size_t head_len;   // bytes up to and including the empty line; 0 = no complete head
    int reads;         // reads that returned data
    bool peer_closed;  // end of stream seen
    bool reset;        // the peer reset the connection (ECONNRESET)
    bool timed_out;    // the deadline passed before the peer closed
    int err;           // errno of a failed connect, send or read (ECONNRESET included); 0 = none
};

// Flags of net_exchange.
constexpr int NET_SHUT_WR =
    1;  // half-close after sending, as a client that has nothing more to say

// A port of 127.0.0.1 that was free a moment ago, for SOCK_STREAM or
// SOCK_DGRAM; -1 on failure. Another process may take it before the caller
// binds; the kernel hands out ports round-robin, so that is rare.
int pick_free_port(int socktype);

// A blocking TCP connection to 127.0.0.1:port, made within timeout_ms. The
// descriptor (close-on-exec; the caller closes it), or -errno.
int net_connect(int port, int timeout_ms);

// Writes all of data within timeout_ms. 0, or -errno (-ETIMEDOUT at the deadline).
int net_send_all(int fd, const std::string &data, int timeout_ms);

// Reads until the peer closes or resets, max_bytes have come, or timeout_ms
// has passed. The descriptor stays open.
net_reply net_read_reply(int fd, int timeout_ms, size_t max_bytes = 64u << 20);

// Connects to 127.0.0.1:port, sends bytes, and reads the answer as
// net_read_reply does; the whole exchange is bounded by timeout_ms. A failed
// connect or send is in err.
net_reply net_exchange(int port, const std::string &bytes, int timeout_ms, int flags = 0);

// "GET <target> HTTP/1.1" with Host and the given header lines (without line
// ends) through net_exchange.
net_reply http_get(int port, const std::string &target,
                   const std::vector<std::string> &headers = {}, int timeout_ms = 5000);

// The bytes after the head (all of data when there is no complete head).
std::string net_body(const net_reply &r);

// The value of the first header called name (any letter case), with the
// blanks around it removed; empty when absent. has_header tells absent from
// empty.
std::string net_header(const net_reply &r, const std::string &name, bool *has_header = nullptr);

// One datagram to 127.0.0.1:port. 0, or -errno.
int udp_send(int port, const void *buf, size_t len);

// One datagram to group:port, sent out through lo (IP_MULTICAST_IF 127.0.0.1)
// with loop-back on, so members joined on 127.0.0.1 receive it. 0, or -errno.
int udp_send_mcast(const std::string &group, int port, const void *buf, size_t len);

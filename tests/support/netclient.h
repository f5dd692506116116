// netclient: small clients for the end-to-end tests, every call bounded by a
// deadline: bytes to a TCP port of 127.0.0.1 and the answer back, datagrams
// to loopback or a multicast group on lo, free ports, and a bounded wait.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

struct net_reply {
    std::string data;         // every byte received, in order
    int status;               // from a leading "HTTP/x.y NNN"; -1 when there is none
    bool peer_closed, reset;  // end of stream seen; the peer reset the connection
    bool timed_out;           // the deadline passed before the peer closed
    int err;                  // errno of a failed connect, send or read; 0 = none
};

// Calls done every 10 ms, a bounded number of times, until it returns true
// (then true) or timeout_ms has passed (then false).
bool wait_until(int timeout_ms, const std::function<bool()> &done);

// A port of 127.0.0.1 free a moment ago for SOCK_STREAM or SOCK_DGRAM; -1 on
// failure. The kernel hands ports out round-robin, so a race is rare.
int pick_free_port(int socktype);

// A blocking TCP connection to 127.0.0.1:port made within timeout_ms: the
// descriptor (close-on-exec; the caller closes it), or -errno.
int net_connect(int port, int timeout_ms);

// Writes all of data within timeout_ms. 0, or -errno (-ETIMEDOUT at the deadline).
int net_send_all(int fd, const std::string &data, int timeout_ms);

// Reads until the peer closes or resets, or timeout_ms has passed; fd stays open.
net_reply net_read_reply(int fd, int timeout_ms);

// Connects to 127.0.0.1:port, sends bytes and reads the answer, all within
// timeout_ms. A failed connect or send is in err.
net_reply net_exchange(int port, const std::string &bytes, int timeout_ms);

// One datagram to 127.0.0.1:port, or to group:port out through lo with
// loop-back on (members joined on 127.0.0.1 receive it). 0, or -errno.
int udp_send(int port, const void *buf, size_t len);
int udp_send_mcast(const std::string &group, int port, const void *buf, size_t len);

// Whether lo carries multicast; root may switch its MULTICAST flag on, which
// this does when needed.
bool net_lo_multicast_ready();

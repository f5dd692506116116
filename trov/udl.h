// udl: the UDP order channel. One short text datagram per order, unicast or
// multicast; optional lock files per order identifier let several agents on
// one group share the orders. Nothing is ever sent back: the log is the only
// witness of what happened to a datagram.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include "tags.h"
#include "wopen.h"

struct dw_spec;
struct udp_lstn_cfg;

constexpr n32_tag UDL_TAG = mk_tag("UDL");

constexpr size_t UDL_RECV_SIZE = 1415;  // read per datagram into a 1416-byte zeroed buffer
constexpr size_t UDL_MIN_MSG = 32;
constexpr size_t UDL_MAX_MSG = 1400;
constexpr size_t UDL_MIN_LID = 4;
constexpr size_t UDL_MAX_LID = 31;
constexpr size_t UDL_MIN_URL = 16;
constexpr long UDL_STALE_SEC = 30;  // a lock older than this was left by a dead agent

// The channel as the engine holds it; registered with the reactor.
struct udl_ctx {
    n32_tag tag;  // UDL_TAG once open
    bool is_ready;
    int sockfd;
    usock_ctx usock;
};

// Opens the channel's socket; an empty URL leaves the channel off (0).
[[nodiscard]] int udl_ctx_init(const udp_lstn_cfg *cfg, udl_ctx *udl);
// Registers the socket with the reactor; the channel must be open.
[[nodiscard]] int udl_ctx_start(udl_ctx *udl);
void udl_ctx_destroy(udl_ctx *udl);
// Reads and handles exactly one datagram. Always 0.
int udl_accept(udl_ctx *udl);

// Splits "<lid> <url> <expiry> [rest]" in place. 0 or -1. A datagram with no
// expiry at all ends the process (senders must always give one).
int parse_msg(char *text, char **url, char **lid, time_t *expiry);
// Order URL to order record. 0 or an error number.
int parse_url(const char *url, const char *lid, dw_spec *spec);

// Lock file "<lock_dir>/<lid>.lock" when locking is on: 0 taken; 16 another
// agent holds a fresh one; -1 failure.
int lid_lock(const char *lid);
void lid_unlock(const char *lid);
// 0 when path is absent or was older than max_age (then removed); 16 when it
// is fresh; -1 on failure.
int check_and_expire(const char *path, long max_age);

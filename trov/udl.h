// udl: the UDP order channel. One short text datagram per order, unicast or
// multicast; optional lock files per order identifier let several agents on
// one group share the orders. Nothing is ever sent back: the log is the only
// witness of what happened to a datagram.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
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
// The channel's socket receive buffer: orders come in bursts (a segment is
// published on every channel at once), and what does not fit is lost.
constexpr int UDL_DEFAULT_RCVBUF_KB = 8192;
constexpr int UDL_MAX_RCVBUF_KB = 1 << 20;  // the kernel doubles it into an int
constexpr long UDL_DROP_REPORT_MS = 1000;   // drop warnings at most this often

// The channel as the engine holds it; registered with the reactor.
struct udl_ctx {
    n32_tag tag;  // UDL_TAG once open
    bool is_ready;
    int sockfd;
    usock_ctx usock;
    uint32_t kdrops;        // the kernel's drop count of the socket, as last seen
    uint64_t drops;         // datagrams dropped since the channel opened
    uint64_t drops_unsaid;  // of those, not yet reported
    timespec drop_said;     // loop time of the last look at the drop count
    bool drop_watch;        // datagrams came since: a look is due (holds TMOUT_KEY_UDL)
};

// Opens the channel's socket; an empty URL leaves the channel off (0).
[[nodiscard]] int udl_ctx_init(const udp_lstn_cfg *cfg, udl_ctx *udl);
// Registers the socket with the reactor; the channel must be open.
[[nodiscard]] int udl_ctx_start(udl_ctx *udl);
void udl_ctx_destroy(udl_ctx *udl);
// Reads and handles exactly one datagram. Always 0.
int udl_accept(udl_ctx *udl);
// Reports at warning the datagrams the kernel dropped since the last report,
// if any. Looks at most once per UDL_DROP_REPORT_MS (force: now), and only
// when datagrams came since the last look; while one is due, the channel
// keeps the loop from sleeping past it. Called from the idle step.
void udl_report_drops(udl_ctx *udl, bool force);

// Splits "<lid> <url> <expiry> [rest]" in place. 0 or -1. A datagram with no
// expiry at all ends the process (senders must always give one).
int parse_msg(char *text, char **url, char **lid, time_t *expiry);
// Order URL to order record. 0 or an error number.
int parse_url(const char *url, const char *lid, dw_spec *spec);

// Lock file "<lock_dir>/<lid>.lock" when locking is on: 0 taken; 16 another
// agent holds a fresh one; -1 failure. With claim = redis the order is
// claimed in the LBDB instead: 0 claimed, or the claim could not be made
// (a warning; the order is fetched anyway); 16 another agent holds it.
// lid_unlock releases the lock file or the claim.
int lid_lock(const char *lid);
void lid_unlock(const char *lid);
// 0 when path is absent or was older than max_age (then removed); 16 when it
// is fresh; -1 on failure.
int check_and_expire(const char *path, long max_age);

// wopen: the upstream socket. Opens a source given by URL (file, tcp, udp,
// rtp or http), joins multicast groups for datagram readers, and for HTTP
// sources sends the GET and reads the response head, either at once on a
// blocking socket or step by step from reactor callbacks. Owns the agent tag.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "netops.h"
#include "webops.h"

constexpr size_t USOCK_BUF_SIZE = 2048;        // response-head buffer of tcp/http sources
constexpr size_t USOCK_APPTAG_SIZE = 128;      // the agent tag, terminator included
constexpr size_t USOCK_HOST_SIZE = 1025;       // host taken from a URL, terminator included
constexpr size_t USOCK_PORT_SIZE = 32;         // port taken from a URL, terminator included
constexpr size_t USOCK_MAX_TARGET = 383;       // longest request target with a query
constexpr size_t USOCK_RESP_HEAD_SIZE = 1024;  // head buffer of get_http_response
constexpr int USOCK_HTTP_TMOUT_SEC = 5;        // retry bound of get_http_response

// Result codes of the incremental readers besides 0 (done) and the reader's
// own failures.
constexpr int USOCK_RC_AGAIN = 11;       // call again on the next readiness
constexpr int USOCK_RC_FULL = 7;         // the head buffer is full
constexpr int USOCK_RC_BAD_STATUS = 13;  // the status is outside 2xx

// A udp or rtp reader joins source-specifically when its query carries
// "src=<address>" (fields separated by "&"), as in
// "udp://232.1.1.1:5000?src=10.0.0.1". The source has no port.
inline constexpr char USOCK_SSM_KEY[] = "src";

// One upstream socket, owned by its user. Zero it, set the request fields,
// then usock_open; usock_close releases everything it allocated. A plain
// record: no constructors, calloc and memcpy are fine.
struct usock_ctx {
    bool inbound;         // receives (a reader); otherwise it sends
    bool non_blocking;    // open non-blocking: connect returns before completion
    bool skip_http;       // leave the request and the response head to the caller
    bool non_pollable;    // set for a file source: serve it as a no-poll descriptor
    uint32_t http_flags;  // HTTP_RQF_* for the request sender
    ssize_t nopoll_idx;   // slot of a no-poll registration, or -1 (usock_open sets -1)
    const char *ifc_tag;  // multicast interface name or address, or null
    int timeout_ms;       // receive (inbound) or send time-out on a blocking socket; 0 none
    int url_kind;         // URI_KIND_* of the URL, -1 unsupported
    socket_spec sspec;    // filled by usock_open; family may be preset (0 = any)
    char *url_path;       // owned copy of the URL's path
    ifc_info *mifc;       // owned: the multicast interface found while opening
    char *buf;            // owned response-head buffer (USOCK_BUF_SIZE), tcp/http only
    size_t bufcap;        // bytes allocated at buf
    size_t buflen;        // body bytes that arrived with the head, at the start of buf
};
static_assert(std::is_trivially_copyable_v<usock_ctx>);

// Process-wide switches of the client.
struct usock_flags {
    bool use_http10_get;  // only logged: the caller's flags decide the version
};
extern usock_flags g_usock_flags;

// Incremental response-head reading. Zero ctx before the first step; the
// steps append to buf at ctx.total.
struct http_resp_buf {
    char *buf;
    size_t len;  // capacity of buf
    http_resp_ctx ctx;
};
static_assert(std::is_trivially_copyable_v<http_resp_buf>);

// A body of known size: data has room for buf_size bytes.
struct http_body_buf {
    size_t buf_size;  // expected size
    size_t data_len;  // bytes held
    char *data;
};
static_assert(std::is_trivially_copyable_v<http_body_buf>);

// Copies at most 127 characters of tag as the agent identity sent as
// "User-Agent:"; null changes nothing. usock_apptag is "#ERR#" until set.
void usock_set_apptag(const char *tag);
const char *usock_apptag();

// Opens url as ctx describes and stores its kind in ctx->url_kind:
// - file: the path opened read-only, ctx->non_pollable set;
// - udp, rtp: a datagram socket; a reader binds to the address (joining a
//   multicast group on ctx->ifc_tag, source-specifically with "src=" in the
//   query), a writer is a sender;
// - tcp, http: a stream client (an http URL without a port goes to 80). A
//   blocking http socket without skip_http also sends the GET and reads the
//   head: status 200 only, body bytes behind it in buf/buflen. A
//   non-blocking one must use skip_http, since its connect is still going on.
// A blocking socket gets timeout_ms as its receive (inbound) or send
// (outbound) time-out. The descriptor, or -1 with nothing left open and
// nothing left allocated in ctx.
[[nodiscard]] int usock_open(const char *url, usock_ctx *ctx);
// Leaves a joined multicast group, frees what the context owns (buflen 0)
// and closes fd (fd < 0: only the context is released). ctx may be null.
void usock_close(int fd, usock_ctx *ctx);

// Sends the GET for url on fd with the application tag. 0 or -1.
[[nodiscard]] int usock_http_get(int fd, const char *url, uint32_t flags);
// Sends "GET <path>[?<query>]" for url to fd with server as the user agent;
// Host is the URL's host and port as written. flags (HTTP_RQF_*) alone pick
// the version. A target with a query is cut to USOCK_MAX_TARGET characters
// after a warning; a URL without a path after its host, or a path alone too
// long for a target, is refused. 0 or -1.
[[nodiscard]] int fwd_http_rq(int fd, const char *url, const char *server, uint32_t flags);
// Reads a whole response head of at most USOCK_RESP_HEAD_SIZE bytes; status
// must be exactly 200. Body bytes read with it go to tail_buf (*tail_len set)
// when both are given and they fit in tail_size, else they are dropped and
// *tail_len is 0; body bytes beyond the head buffer stay in the socket.
// 0, 11 (non-blocking and the head is incomplete; what was read is lost) or -1.
[[nodiscard]] int get_http_response(int fd, char *tail_buf, size_t tail_size, size_t *tail_len);
// One non-blocking step of reading a head into rb: 0 done (2xx; the body
// bytes read with it lie in buf from ctx.tail to ctx.total), 11 call again,
// 7 buffer already full, 13 status outside 2xx, or the reader's error (-1,
// which also covers a buffer filled without the end of the head).
[[nodiscard]] int usock_http_get_response(int fd, http_resp_buf *rb);
// Reads body bytes until buf_size are held: 0 done, 11 call again, -1 the
// peer closed early, or an errno value.
[[nodiscard]] int usock_http_get_body(int fd, http_body_buf *bb);

// webops: the HTTP message layer. Finds the end of a request head, parses
// the request line and the few fields that matter, splits a download target
// into source and destination, builds and sends responses from the shared
// templates, and sends upstream GET requests and reads their status lines.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "uri.h"

// Request methods (http_header.type, http_request.type).
constexpr int HTTP_MT_GET = 0;
constexpr int HTTP_MT_HEAD = 1;

// Special results of the request parser: outcomes, not errors.
constexpr int HTTP_RC_FAVICON = 1028;
constexpr int HTTP_RC_PING = 1029;

constexpr size_t HTTP_HOST_SIZE = 64;
constexpr size_t HTTP_UA_SIZE = 128;
constexpr size_t HTTP_ACCEPT_ENC_SIZE = 32;
// Longest query a download request may carry.
constexpr size_t HTTP_MAX_QUERY = 255;
// The process-wide response buffer.
constexpr size_t HTTP_RESP_BUF_SIZE = 4096;

// A parsed request head. Plain record: may be zeroed and copied.
struct http_header {
    int type;                               // HTTP_MT_GET or HTTP_MT_HEAD
    uri_layout uri;                         // pointers into the request buffer
    char host[HTTP_HOST_SIZE];              // "Host:", at most 62 characters kept
    char user_agent[HTTP_UA_SIZE];          // "User-Agent:", percent-encoded
    char accept_enc[HTTP_ACCEPT_ENC_SIZE];  // "Accept-Encoding:", at most 30 kept
    bool is_keep_alive;                     // "Connection: keep-alive", any case
    bool is_close;                          // "Connection: close"; only when not keep-alive
    bool is_http10;
};
static_assert(std::is_trivially_copyable_v<http_header>);

// A request being read; embedded in a waiting request object.
struct http_rq {
    char *hbuf;   // head buffer, owned by the embedding object
    size_t hlen;  // bytes in hbuf
    size_t hpos;  // head length once its end was found; 0 = not yet
    http_header header;
    bool is_keep_alive;
};
static_assert(std::is_trivially_copyable_v<http_rq>);

// A response template. The shared templates are process-wide: a sender sets
// `server` right before sending, from the reactor thread only.
struct http_response {
    int code;
    const char *content_type;      // null = no line
    const char *content_encoding;  // null = no line
    long content_length;           // < 0 = no line
    const char *reason;
    const char *server;      // must be set before sending
    const char *connection;  // null = no line
    const char *ok_suffix;   // extra header line (no line end), only in a 200
    const char *location;    // null = no line
    const char *fpath;       // file appended as the body; null = none
};
static_assert(std::is_trivially_copyable_v<http_response>);

// Flag bits of an upstream request.
constexpr uint32_t HTTP_RQF_HTTP10 = 1;     // send "HTTP/1.0" instead of "HTTP/1.1"
constexpr uint32_t HTTP_RQF_KEEPALIVE = 2;  // "Connection: keep-alive"; else "close"

// Description of one upstream request; the strings belong to the caller.
struct http_request {
    unsigned type : 4;      // HTTP_MT_GET; nothing else is built
    uint32_t flags;         // HTTP_RQF_*
    const char *request;    // path with its query; a missing leading "/" is added
    const char *server;     // sent as "User-Agent:"
    const char *host_addr;  // null or empty = "localhost"
    const char *host_port;  // null or empty = no ":port" in "Host:"
};
static_assert(std::is_trivially_copyable_v<http_request>);

// Receive state of an upstream response head.
struct http_resp_ctx {
    int code;       // status, set once the status line was read
    ssize_t total;  // bytes in the buffer; reads append here
    ssize_t tail;   // offset of the first body byte; 0 while the head is incomplete
};
static_assert(std::is_trivially_copyable_v<http_resp_ctx>);

// Length of the head in buf including its blank line ("\n\n" or "\r\n\r\n"),
// or 0 when the head is not complete within len bytes.
size_t head_eod(const char *buf, size_t len);

// One non-blocking nread into buf+pos (at most cap-pos bytes). The byte
// count, or 0/-1 at end of stream or error (errno as left by the read).
// When the head in buf is now complete its length is stored in *eod.
ssize_t read_http(int fd, char *buf, size_t cap, size_t pos, size_t *eod);

// Parses the request head in the first len bytes of buf into hdr (zeroed
// first). url, when given, receives the request target if it fits. 0; 22 for
// a method other than GET and HEAD; -1 for a malformed line or protocol; or
// uri_parse's code.
[[nodiscard]] int parse_http_header(const char *buf, size_t len, http_header *hdr, char *url,
                                    size_t url_size);

// The value of header field name (any case, ":" optional in name) in the
// zero-terminated text, or null; *len (when given) gets its length, 0 when
// not found. The value must follow white space and end at a line end.
const char *find_http_header(const char *name, const char *text, size_t *len);
// The same within the first text_len bytes of text.
const char *find_http_header_n(const char *name, const char *text, size_t text_len, size_t *len);

// Decimal value of field name within the first max bytes of text, or -1
// when missing, empty or not a number. Values are read from at most 31
// characters.
long extract_num_hdr(const char *name, const char *text, size_t max);

// Parses a download request head: source and destination into src and dst
// (buffers of size bytes), the request's query appended to the source. The
// path end in buf is overwritten with a zero. 0; HTTP_RC_FAVICON;
// HTTP_RC_PING; -3 no path; -7 query over HTTP_MAX_QUERY; 7 source plus
// query too long; -1 other failures; or parse_http_header's code.
[[nodiscard]] int web_parse_urq(char *buf, size_t len, char *src, char *dst, size_t size,
                                http_header *hdr);

// The same split for the path of an order URL (its query is not used).
// 0; 34 for a path not of 1 to 127 characters; -1 otherwise.
[[nodiscard]] int web_parse_url(const char *url, char *src, char *dst, size_t size);

// True when text, after one optional leading "/", is word or word + "/"
// (any case).
bool slash_match(const char *text, const char *word);
bool is_ping_request(const char *path);

// Builds resp for version (10 or 11) into buf, terminated. The length, or
// -1 when the template is incomplete or the text does not fit.
int mk_http_xt_resp(const http_response *resp, int version, char *buf, size_t size);

// Builds resp as HTTP/1.1 in the process-wide buffer and writes it with one
// nwrite. 0, or -1 when it could not be built or was not written whole.
int send_http_response(int fd, const http_response *resp);

// The shared template for code; an unknown code logs a warning and gives the
// 200 template below 300, else the 500 one. Never null.
http_response *http_code_resp(int code);

// Escapes & > < ' and the double quote for markup into out (size bytes).
// The number of escapes (out written), 0 when none are needed (out
// untouched), or -34 when the result does not fit.
int web_escape(const char *text, char *out, size_t size);

// Sends the GET request described by rq with one nwrite. 0 or -1.
int send_http_request(int fd, const http_request *rq);

// Reads a response head into buf (cap bytes) at ctx->total until it is
// complete (bytes already there are looked at first, so a head the caller
// read whole needs no read); buf[total] is zeroed when below cap. 0 with code, total and tail
// set; 11 when the socket has nothing more before the head is complete;
// -1 on error, a closed connection, a head that does not fit in cap or a bad
// status line.
[[nodiscard]] int recv_http_response(int fd, char *buf, size_t cap, http_resp_ctx *ctx);

// The same, reading up to cap bytes at a time while the head must end within
// the first head_cap (a larger cap lets one read bring the head and the body
// behind it; what follows the head is the tail, total - tail bytes).
[[nodiscard]] int recv_http_head(int fd, char *buf, size_t head_cap, size_t cap,
                                 http_resp_ctx *ctx);

// out = base + "/" + the first plen bytes of path. 0, or 34 when it does not
// fit in size bytes.
[[nodiscard]] int mk_full_url(const char *base, const char *path, size_t plen, char *out,
                              size_t size);

// Copies the path and query of a request target or URL into path (psize)
// and query (qsize; emptied when there is none). 0; 22 when there is no
// path; 34 when a part does not fit.
[[nodiscard]] int extract_http_request_path_query(const char *request, char *path, size_t psize,
                                                  char *query, size_t qsize);

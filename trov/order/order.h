// order: builds the two kinds of download order the daemon takes, the text
// datagram of its UDP channel and the GET of its web listeners, exactly as
// the daemon parses them, and refuses (with the reason in words) any order
// the daemon would reject or misread. Owns nothing: caller buffers only.
#pragma once

#include <cstddef>

// The daemon's UDP channel reads one datagram per order.
constexpr size_t ORD_MSG_MIN = 32;    // shorter datagrams are dropped
constexpr size_t ORD_MSG_MAX = 1400;  // longer datagrams are dropped
constexpr size_t ORD_ID_MIN = 4;      // order identifier, without blanks
constexpr size_t ORD_ID_MAX = 31;
constexpr size_t ORD_URL_MIN = 16;    // order URL, "http://0/..."
constexpr size_t ORD_PATH_MAX = 127;  // path of the order URL, after "http://"
// What the engine takes from either channel.
constexpr size_t ORD_SRC_MAX = 127;  // source URL, as the origin is asked for it
// The temporary file "<data_dir>/<dest>-Trov" must fit in 127 characters;
// with the shortest data directory ("/") that leaves this for the dest.
constexpr size_t ORD_DST_MAX = 121;
// The web listener reads a request head into 1024 bytes; a head that does not
// fit ends the daemon, so it is never sent.
constexpr size_t ORD_HEAD_MAX = 1023;
// Each endpoint of an HTTP order is cut out of the path into 256 bytes
// before it is decoded.
constexpr size_t ORD_HTTP_PART_MAX = 255;

constexpr size_t ORD_WHY_SIZE = 256;  // room for a refusal's reason

// One order. The strings belong to the caller.
struct ord_spec {
    const char *src;  // source URL, "http://host[:port]/path[?query]"
    const char *dst;  // destination below the data directory; "" or null = the source's path
    const char *lid;  // order identifier (datagram orders only)
    long expiry;      // seconds since the epoch, handed on with the order
};

// The destination the daemon will write, relative to its data directory:
// dst without its leading slashes, or the source's path when dst is empty.
// Refused (22) when that names no file (empty, or ending in "/" or "/."),
// leaves the data directory through "..", or ends like an unfinished
// download; 34 when it is longer than ORD_DST_MAX or than size-1. why gets
// the reason.
[[nodiscard]] int ord_final_path(const ord_spec *o, char *buf, size_t size, char *why,
                                 size_t why_size);

// Writes the datagram "#!<lid> http://0/src/<src>/dst[/<dst>] <expiry>"
// (no line end) into buf and its length into *len. 0; 22 for an order the
// daemon would reject or misread, 34 for one over a length bound (why says
// which); buf then holds nothing useful.
[[nodiscard]] int ord_build_datagram(const ord_spec *o, char *buf, size_t size, size_t *len,
                                     char *why, size_t why_size);

// Writes "GET /src/<src>/dst[/<dst>]?expiry=<n> HTTP/1.1" with the Host
// (host, as given), User-Agent and Connection headers. lid is not used.
// 0, 22 or 34 as ord_build_datagram; a source with a query is refused, the
// web listener takes the first "?" for its own.
[[nodiscard]] int ord_build_http(const ord_spec *o, const char *host, char *buf, size_t size,
                                 size_t *len, char *why, size_t why_size);

// Checks a finished datagram the way the daemon's channel splits it: length,
// "#!" prefix, identifier, one blank, order URL and its path length, and an
// expiry number after it. 0, or 22 with the reason in why.
[[nodiscard]] int ord_check_datagram(const char *msg, size_t len, char *why, size_t why_size);

// Reads an expiry argument: seconds since the epoch, or "+N" for N seconds
// after now. 0, or 22 for anything else (negative values included).
[[nodiscard]] int ord_parse_expiry(const char *text, long now, long *expiry);

// uri: in-place URI helpers. Splits a URI into scheme, authority, path and
// query without copying, takes host and port out of a path, classifies a
// scheme, splits a proxy path into source and destination endpoints, and
// percent-decodes and -encodes. Works only on caller buffers.
#pragma once

#include <cstddef>
#include <type_traits>

// A view into a parsed text; the pointers point into the caller's string,
// which must outlive the layout. A missing part is null with length 0.
// The host and port stay inside `path` on purpose: `authority` is only what
// stands before an "@", and uri_path_addrport takes host and port apart.
struct uri_layout {
    const char *scheme;     // without "://"
    const char *authority;  // user information before "@"
    const char *path;       // after the scheme (and "@" part) up to the query
    const char *query;      // after the "?"
    size_t s_len;
    size_t a_len;
    size_t p_len;
    size_t q_len;
};
static_assert(std::is_trivially_copyable_v<uri_layout>);

// Optional context of the endpoint split.
struct uri_parse_ctx {
    const char *root_dir;  // root of "file://" sources built from "hls-fra"; null = ""
    char udpfx[16];        // receives the keyword segment that chose the split
    long stime;            // recording range start
    long duration;         // recording range length; -1 = "now"
};
static_assert(std::is_trivially_copyable_v<uri_parse_ctx>);

// Scheme kinds: the index into URI_KIND_STR; -1 for anything else.
constexpr int URI_KIND_FILE = 0;
constexpr int URI_KIND_TCP = 1;
constexpr int URI_KIND_UDP = 2;
constexpr int URI_KIND_RTP = 3;
constexpr int URI_KIND_HTTP = 4;
constexpr int URI_KIND_M3U = 5;
constexpr size_t URI_KIND_COUNT = 6;
inline constexpr const char *URI_KIND_STR[URI_KIND_COUNT] = {"file", "tcp",  "udp",
                                                             "rtp",  "http", "m3u"};

// Buffer sizes uri_extract copies into.
constexpr size_t URI_SCHEME_SIZE = 8;
constexpr size_t URI_AUTH_SIZE = 64;
constexpr size_t URI_PATH_SIZE = 128;
constexpr size_t URI_QUERY_SIZE = 256;

// Opening and closing delimiter of path segments.
inline constexpr char URI_SEG_DELIMS[] = "//";

// uri_decode_opt option: decoded bytes that are not printable become "?".
constexpr int URI_DEC_PRINTABLE = 1;

// Splits text (up to its terminating zero) into layout, which may be null.
// 0, or -1 when a scheme or an "@" is followed by nothing.
[[nodiscard]] int uri_parse(const char *text, uri_layout *layout);
// The same over at most len bytes (stops earlier at a zero byte); for
// targets inside a received buffer that is not terminated.
[[nodiscard]] int uri_parse_n(const char *text, size_t len, uri_layout *layout);

// Copy one part with a terminating zero. The buffer, or null: when the part
// is missing (buffer emptied) or needs more than size-1 bytes.
char *uri_get_scheme(const uri_layout *layout, char *buf, size_t size);
char *uri_get_authority(const uri_layout *layout, char *buf, size_t size);
char *uri_get_path(const uri_layout *layout, char *buf, size_t size);
char *uri_get_query(const uri_layout *layout, char *buf, size_t size);

// Case-insensitive index in URI_KIND_STR, or -1 (null included).
int uri_scheme_kind(const char *scheme);

// Host and port from the first plen bytes of path ("[v6]" brackets allowed).
// Given buffers are emptied first and receive their non-empty part; a part
// that needs more than size-1 bytes fails the call. A pointer just past the
// port (or the host), or null after logging.
const char *uri_path_addrport(const char *path, size_t plen, char *host, size_t host_size,
                              char *port, size_t port_size);

// Parses uri and copies the asked-for parts into buffers of URI_SCHEME_SIZE,
// URI_AUTH_SIZE, URI_PATH_SIZE and URI_QUERY_SIZE bytes (each may be null).
// The scheme kind, or -1 after logging.
[[nodiscard]] int uri_extract(const char *uri, char *scheme, char *authority, char *path,
                              char *query);

// Segment walking with a delimiter pair (URI_SEG_DELIMS). uri_xseg: the next
// segment of text in start/len (one leading delimiter skipped, the closing
// delimiter included) and returns start; null at the end of the text.
const char *uri_xseg(const char *text, const char *delims, const char **start, size_t *len);
// 0 when the segment without its delimiters equals keyword (any case).
int xseg_scmp(const char *keyword, const char *seg, size_t len, const char *delims);
// Copies the segment without its delimiters, terminated. 0, or 7 when
// nothing remains or it needs more than size-1 bytes.
[[nodiscard]] int xseg_cpy(const char *seg, size_t len, char *buf, size_t size, const char *delims);

// Splits a proxy path ".../src/<source>/dst/<destination>" into src and dst
// (buffer sizes; both always terminated and emptied first). Nested "src" and
// "dst" segments balance, so "//" and such words inside the source survive.
// 0; the unbalanced "src" count (> 0) when no closing "dst"; 3 no "/" and no
// alias; -3 no segment; -14 no "src"; 22/-22 a "udp" or "rtp" path without or
// with too long an address; 34 too long a "hls-fra" or "hls-m3u" source; -1
// too long a source; -22 a bad recording range ("hls-m3u", with ctx only).
[[nodiscard]] int uri_extract_endpts_ext(const char *path, char *src, size_t src_size, char *dst,
                                         size_t dst_size, uri_parse_ctx *ctx);

// Recording range from the last component of path: after
// "playlist_dvr_range-" or "index-", "<start>-<duration>" up to the last ".";
// duration "now" is -1. 0, or -22.
[[nodiscard]] int get_dvr_range(const char *path, long *stime, long *duration);

// Percent-decodes buf in place within size bytes, up to its zero. "+" is a
// space. Lower-case hex digits a-f count as their code minus 55 (42..47), so
// "%2f" is not "%2F": callers depend on this. A "%" without two hex digits is
// dropped with them; a "%" in the last two bytes of the bound returns null.
// The result is terminated (at size-1 when it fills the bound). buf or null.
char *uri_decode_opt(char *buf, size_t size, int options);
// uri_decode_opt with URI_DEC_PRINTABLE.
char *uri_decode(char *buf, size_t size);
// Percent-encodes buf in place within size bytes, upper-case hex digits of
// the unsigned byte value. Stops where an escape no longer fits, terminated.
// buf, or null when the scratch copy cannot be allocated.
char *uri_encode(char *buf, size_t size);
// True when text begins with "$", "~" or "^".
bool uri_is_alias(const char *text);

// Length of text up to its last "?", or the whole length when it ends
// with "/" or has no "?".
size_t till_query(const char *text);
// Copies text up to "?" (at most size-1 characters, terminated); a pointer
// to what follows the "?", or null.
const char *uri_split_alias(const char *text, char *buf, size_t size);
// Prefixes buf with scheme (such as "http://") unless it already begins with
// it in any case. 0, or 7 when the result needs more than size bytes.
[[nodiscard]] int uri_ensure_schema(char *buf, size_t size, const char *scheme);
// The first "/" of the path (a "//" right after ":" is skipped), or null.
const char *uri_pre_path(const char *text);
// True when the last dot-suffix before any "?" equals ext (leading "."
// optional), any case; suffixes of more than 31 characters never match.
bool url_ends_with(const char *url, const char *ext);
// The last path component without query (and without its extension when
// no_ext) into buf. 0; 22 no "/"; -22 ends with "/"; 34 does not fit.
[[nodiscard]] int url_get_fname(const char *url, char *buf, size_t size, bool no_ext);
// Recording playlist ("/hls-m3u/" and ".m3u" or ".m3u8"), fragment
// ("/hls-fra/" and ".ts"), either.
bool is_m3u_url(const char *url);
bool is_fra_url(const char *url);
bool is_hls_url(const char *url);

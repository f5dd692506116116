// order: the order builders and the datagram check (see order.h).
#include "order.h"

#include <strings.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#ifndef TROV_VERSION
#define TROV_VERSION "0"
#endif

namespace {

constexpr int RC_INVALID = 22;
constexpr int RC_TOO_LONG = 34;

constexpr std::string_view HTTP_PFX = "http://";
constexpr std::string_view ENVELOPE = "http://0/src/";  // scheme and authority are not read
constexpr std::string_view TMP_SUFFIX = "-Trov";

[[gnu::format(printf, 4, 5)]] int refuse(char *why, size_t size, int rc, const char *fmt, ...) {
    if (why != nullptr && size > 0) {
        va_list ap;
        va_start(ap, fmt);
        int n = vsnprintf(why, size, fmt, ap);
        va_end(ap);
        if (n < 0) why[0] = '\0';  // a cut reason is still a reason
    }
    return rc;
}

// Appends into a caller buffer; remembers an overflow instead of cutting
// silently, so the caller reports it once at the end.
struct out_buf {
    char *buf;
    size_t size;
    size_t len;
    bool overflow;
};

void put(out_buf *o, std::string_view s) {
    if (o->overflow || o->len + s.size() + 1 > o->size) {
        o->overflow = true;
        return;
    }
    memcpy(o->buf + o->len, s.data(), s.size());
    o->len += s.size();
    o->buf[o->len] = '\0';
}

void put_escape(out_buf *o, unsigned char c) {
    // Always upper-case digits: the daemon's decoder gives a-f other values.
    static constexpr char HEX[] = "0123456789ABCDEF";
    const char esc[3] = {'%', HEX[c >> 4], HEX[c & 0x0f]};
    put(o, std::string_view(esc, 3));
}

// Characters that would change how the daemon reads the path: a blank ends
// the URL in a datagram and the target in a request line; "%" and "+" are
// decoded; "?" starts the query and "@" a user part wherever they stand;
// "#" is a fragment to anything HTTP-aware on the way.
bool needs_escape(char c) { return strchr(" %+?#@", c) != nullptr; }

void put_text(out_buf *o, std::string_view s) {
    for (char c : s) {
        if (needs_escape(c))
            put_escape(o, static_cast<unsigned char>(c));
        else
            put(o, std::string_view(&c, 1));
    }
}

bool ieq(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// The daemon finds the end of the source by counting "src" and "dst" path
// segments (any letter case); one inside the source would move that end.
// Escaping the segment's last letter keeps it from matching and decodes
// back to the same text.
void put_source(out_buf *o, std::string_view src) {
    size_t pos = 0;
    while (true) {
        size_t slash = src.find('/', pos);
        std::string_view seg =
            src.substr(pos, slash == std::string_view::npos ? slash : slash - pos);
        if (ieq(seg, "src") || ieq(seg, "dst")) {
            put(o, seg.substr(0, 2));
            put_escape(o, static_cast<unsigned char>(seg[2]));
        } else {
            put_text(o, seg);
        }
        if (slash == std::string_view::npos) break;
        put(o, "/");
        pos = slash + 1;
    }
}

// Control characters would end or split the order, and the daemon turns
// every decoded byte outside printable ASCII into "?": neither can be carried.
int check_printable(std::string_view s, const char *what, char *why, size_t why_size) {
    for (size_t i = 0; i < s.size(); ++i) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x20 || c >= 0x7f)
            return refuse(why, why_size, RC_INVALID,
                          "%s has the byte 0x%02X at offset %zu; only printable ASCII can be "
                          "ordered (percent-encode it in the URL)",
                          what, c, i);
    }
    return 0;
}

int check_source(const char *src, char *why, size_t why_size) {
    if (src == nullptr || src[0] == '\0')
        return refuse(why, why_size, RC_INVALID, "no source URL given");
    std::string_view s(src);
    if (!s.starts_with(HTTP_PFX)) {
        if (strncasecmp(src, "https://", 8) == 0)
            return refuse(why, why_size, RC_INVALID,
                          "source [%s]: https is not fetched, the daemon speaks plain http:// only",
                          src);
        return refuse(why, why_size, RC_INVALID,
                      "source [%s] must begin with http:// (lower case), the only scheme the "
                      "daemon fetches",
                      src);
    }
    if (s.size() == HTTP_PFX.size() || s[HTTP_PFX.size()] == '/')
        return refuse(why, why_size, RC_INVALID, "source [%s] has no host", src);
    if (s.size() > ORD_SRC_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "source URL is %zu characters; the daemon takes at most %zu", s.size(),
                      ORD_SRC_MAX);
    return check_printable(s, "source URL", why, why_size);
}

int check_lid(const char *lid, char *why, size_t why_size) {
    if (lid == nullptr || lid[0] == '\0')
        return refuse(why, why_size, RC_INVALID, "no order identifier given");
    size_t n = strlen(lid);
    if (n < ORD_ID_MIN || n > ORD_ID_MAX)
        return refuse(why, why_size, RC_INVALID,
                      "order identifier [%s] is %zu characters; the channel takes %zu to %zu", lid,
                      n, ORD_ID_MIN, ORD_ID_MAX);
    if (int rc = check_printable(lid, "order identifier", why, why_size); rc != 0) return rc;
    if (strpbrk(lid, " /") != nullptr)
        return refuse(why, why_size, RC_INVALID,
                      "order identifier [%s] must not hold a blank (it ends the identifier) or "
                      "a \"/\" (it names the order's lock file)",
                      lid);
    return 0;
}

std::string_view strip_slashes(const char *dst) {
    std::string_view d(dst != nullptr ? dst : "");
    while (d.starts_with('/')) d.remove_prefix(1);
    return d;
}

bool has_dotdot(std::string_view path) {
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t slash = path.find('/', pos);
        size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (path.substr(pos, end - pos) == "..") return true;
        if (slash == std::string_view::npos) break;
        pos = slash + 1;
    }
    return false;
}

// Source and destination checks shared by both channels. *dst receives the
// destination as it is sent (without leading slashes; empty = derived).
int check_order(const ord_spec *o, std::string_view *dst, char *why, size_t why_size) {
    if (int rc = check_source(o->src, why, why_size); rc != 0) return rc;
    *dst = strip_slashes(o->dst);
    if (int rc = check_printable(*dst, "destination", why, why_size); rc != 0) return rc;
    char final_path[ORD_DST_MAX + 1];
    return ord_final_path(o, final_path, sizeof final_path, why, why_size);
}

// "/src/<source>/dst[/<dest>]", the part of the path both channels share.
void put_endpoints(out_buf *o, std::string_view src, std::string_view dst) {
    put_source(o, src);
    put(o, "/dst");
    if (!dst.empty()) {
        put(o, "/");
        put_text(o, dst);
    }
}

size_t escaped_len(std::string_view s, bool as_source) {
    char scratch[4 * ORD_SRC_MAX + 8];
    out_buf b{scratch, sizeof scratch, 0, false};
    if (as_source)
        put_source(&b, s);
    else
        put_text(&b, s);
    return b.len;
}

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The path of a URL as the daemon's URI parser delimits it: after the
// scheme, after a user part, up to the last "?" unless the text ends in "/".
std::string_view url_path(std::string_view url) {
    std::string_view rest = url;
    if (rest.starts_with('/')) {
        rest.remove_prefix(1);
    } else if (size_t colon = rest.find(':');
               colon != std::string_view::npos && colon > 1 && rest.substr(colon, 3) == "://") {
        rest.remove_prefix(colon + 3);
    }
    if (size_t at = rest.find('@'); at != std::string_view::npos) rest.remove_prefix(at + 1);
    if (!rest.empty() && !rest.ends_with('/')) {
        if (size_t q = rest.rfind('?'); q != std::string_view::npos) rest = rest.substr(0, q);
    }
    return rest;
}

}  // namespace

int ord_final_path(const ord_spec *o, char *buf, size_t size, char *why, size_t why_size) {
    std::string_view d = strip_slashes(o->dst);
    bool derived = d.empty();
    if (derived) {
        // The daemon names the file after the source's path: everything
        // after the first "/" behind the host, a query included.
        std::string_view s(o->src != nullptr ? o->src : "");
        size_t host = s.starts_with(HTTP_PFX) ? HTTP_PFX.size() : 0;
        size_t slash = s.find('/', host);
        if (slash == std::string_view::npos || slash + 1 == s.size())
            return refuse(why, why_size, RC_INVALID,
                          "source [%s] has no path to name the file after; give a destination",
                          o->src != nullptr ? o->src : "");
        d = s.substr(slash + 1);
    }
    const char *what = derived ? "destination taken from the source" : "destination";
    if (d.ends_with('/') || d == "." || d.ends_with("/."))
        return refuse(why, why_size, RC_INVALID, "%s [%.*s] names a directory, not a file", what,
                      int(d.size()), d.data());
    if (has_dotdot(d))
        return refuse(why, why_size, RC_INVALID,
                      "%s [%.*s] has a \"..\" segment; it must stay inside the data directory",
                      what, int(d.size()), d.data());
    if (d.ends_with(TMP_SUFFIX))
        return refuse(why, why_size, RC_INVALID,
                      "%s [%.*s] ends in \"%s\", the mark of an unfinished download", what,
                      int(d.size()), d.data(), TMP_SUFFIX.data());
    if (d.size() > ORD_DST_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "%s is %zu characters; \"<data_dir>/<dest>-Trov\" must fit in 127, so at "
                      "most %zu",
                      what, d.size(), ORD_DST_MAX);
    if (d.size() + 1 > size)
        return refuse(why, why_size, RC_TOO_LONG, "%s does not fit in %zu bytes", what, size);
    memcpy(buf, d.data(), d.size());
    buf[d.size()] = '\0';
    return 0;
}

int ord_build_datagram(const ord_spec *o, char *buf, size_t size, size_t *len, char *why,
                       size_t why_size) {
    if (int rc = check_lid(o->lid, why, why_size); rc != 0) return rc;
    std::string_view dst;
    if (int rc = check_order(o, &dst, why, why_size); rc != 0) return rc;

    // The order URL's path is everything after "http://".
    size_t path_len = ENVELOPE.size() - HTTP_PFX.size() + escaped_len(o->src, true) + 4 +
                      (dst.empty() ? 0 : 1 + escaped_len(dst, false));
    if (path_len > ORD_PATH_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "the order URL's path would be %zu characters (source and destination, "
                      "percent-encoded where needed); the channel takes at most %zu",
                      path_len, ORD_PATH_MAX);

    out_buf b{buf, size, 0, false};
    if (size > 0) buf[0] = '\0';
    put(&b, "#!");
    put(&b, o->lid);
    put(&b, " ");
    put(&b, ENVELOPE);
    put_endpoints(&b, o->src, dst);
    char tail[32];
    int n = snprintf(tail, sizeof tail, " %ld", o->expiry);
    if (n < 0 || size_t(n) >= sizeof tail)
        return refuse(why, why_size, RC_INVALID, "cannot format the expiry");
    put(&b, std::string_view(tail, size_t(n)));
    if (b.overflow)
        return refuse(why, why_size, RC_TOO_LONG, "the datagram does not fit in %zu bytes", size);
    if (int rc = ord_check_datagram(buf, b.len, why, why_size); rc != 0) return rc;
    *len = b.len;
    return 0;
}

int ord_build_http(const ord_spec *o, const char *host, char *buf, size_t size, size_t *len,
                   char *why, size_t why_size) {
    std::string_view dst;
    if (int rc = check_order(o, &dst, why, why_size); rc != 0) return rc;
    // The listener appends the request's query to the source and then cuts
    // the source at its first "?": a query of the source itself is lost.
    if (strchr(o->src, '?') != nullptr)
        return refuse(why, why_size, RC_INVALID,
                      "source [%s] has a query, which the HTTP channel cannot carry; order it "
                      "over UDP",
                      o->src);
    if (size_t n = escaped_len(o->src, true); n > ORD_HTTP_PART_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "the source is %zu characters once percent-encoded; at most %zu", n,
                      ORD_HTTP_PART_MAX);
    if (size_t n = escaped_len(dst, false); n > ORD_HTTP_PART_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "the destination is %zu characters once percent-encoded; at most %zu", n,
                      ORD_HTTP_PART_MAX);
    if (host == nullptr || host[0] == '\0' || check_printable(host, "host", why, why_size) != 0 ||
        strpbrk(host, " ") != nullptr)
        return refuse(why, why_size, RC_INVALID, "bad host [%s] for the Host header",
                      host != nullptr ? host : "");

    out_buf b{buf, size, 0, false};
    if (size > 0) buf[0] = '\0';
    put(&b, "GET /src/");
    put_endpoints(&b, o->src, dst);
    char line[64];
    int n = snprintf(line, sizeof line, "?expiry=%ld HTTP/1.1\r\nHost: ", o->expiry);
    if (n < 0 || size_t(n) >= sizeof line)
        return refuse(why, why_size, RC_INVALID, "cannot format the expiry");
    put(&b, std::string_view(line, size_t(n)));
    put(&b, host);
    put(&b, "\r\nUser-Agent: trov-order/" TROV_VERSION "\r\nConnection: close\r\n\r\n");
    if (b.overflow || b.len > ORD_HEAD_MAX)
        return refuse(why, why_size, RC_TOO_LONG,
                      "the request head would exceed %zu bytes, more than the listener reads",
                      b.overflow ? size - 1 : ORD_HEAD_MAX);
    *len = b.len;
    return 0;
}

int ord_check_datagram(const char *msg, size_t len, char *why, size_t why_size) {
    if (len < ORD_MSG_MIN || len > ORD_MSG_MAX)
        return refuse(why, why_size, RC_INVALID,
                      "the datagram is %zu bytes; the channel takes %zu to %zu", len, ORD_MSG_MIN,
                      ORD_MSG_MAX);
    std::string_view t(msg, len);
    if (t.find('\0') != std::string_view::npos)
        return refuse(why, why_size, RC_INVALID, "the datagram holds a zero byte");
    // The channel cuts up to two line ends off the end first.
    for (int i = 0; i < 2 && (t.ends_with('\n') || t.ends_with('\r')); ++i) t.remove_suffix(1);
    if (!t.starts_with("#!"))
        return refuse(why, why_size, RC_INVALID, "the datagram does not begin with \"#!\"");
    t.remove_prefix(2);

    size_t b = 0;
    while (b < t.size() && !is_blank(t[b])) ++b;
    if (b == t.size())
        return refuse(why, why_size, RC_INVALID, "no blank and order URL after the identifier");
    if (b < ORD_ID_MIN || b > ORD_ID_MAX)
        return refuse(why, why_size, RC_INVALID,
                      "the identifier is %zu characters; the channel takes %zu to %zu", b,
                      ORD_ID_MIN, ORD_ID_MAX);
    t.remove_prefix(b + 1);

    size_t e = 0;
    while (e < t.size() && !is_blank(t[e])) ++e;
    std::string_view url = t.substr(0, e);
    if (url.size() < ORD_URL_MIN)
        return refuse(why, why_size, RC_INVALID,
                      "the order URL is %zu characters; the channel takes at least %zu "
                      "(one blank after the identifier)",
                      url.size(), ORD_URL_MIN);
    std::string_view path = url_path(url);
    if (path.empty() || path.size() > ORD_PATH_MAX)
        return refuse(why, why_size, RC_INVALID,
                      "the order URL's path is %zu characters; the channel takes 1 to %zu",
                      path.size(), ORD_PATH_MAX);

    t.remove_prefix(e);
    while (!t.empty() && is_space(t.front())) t.remove_prefix(1);
    // The daemon stops on purpose when a datagram carries no expiry.
    if (t.empty() || t.front() == '#')
        return refuse(why, why_size, RC_INVALID, "no expiry after the order URL");
    size_t d = (t.front() == '-' || t.front() == '+') ? 1 : 0;
    size_t digits = d;
    while (digits < t.size() && t[digits] >= '0' && t[digits] <= '9') ++digits;
    if (digits == d)
        return refuse(why, why_size, RC_INVALID, "the expiry [%.*s] is not a number",
                      int(t.size() > 32 ? 32 : t.size()), t.data());
    return 0;
}

int ord_parse_expiry(const char *text, long now, long *expiry) {
    if (text == nullptr || text[0] == '\0') return RC_INVALID;
    bool relative = text[0] == '+';
    const char *digits = relative ? text + 1 : text;
    if (*digits < '0' || *digits > '9') return RC_INVALID;
    errno = 0;
    char *end = nullptr;
    long v = strtol(digits, &end, 10);
    if (errno != 0 || *end != '\0') return RC_INVALID;
    if (relative) {
        if (v > LONG_MAX - now) return RC_INVALID;
        v += now;
    }
    *expiry = v;
    return 0;
}

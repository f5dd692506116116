// uri: in-place URI splitting, host/port and endpoint extraction, percent
// coding. Owns nothing but the encoder's short-lived scratch copy.
#include "uri.h"

#include <strings.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "log.h"
#include "scope_exit.h"
#include "syswrap.h"

LOG_MODULE(LOG_MOD_DEFAULT);

namespace {

constexpr int E2BIG_RC = 7;
constexpr int ERANGE_RC = 34;
constexpr int EINVAL_RC = 22;

// Room for a readable excerpt of a path in a log line.
constexpr size_t LOG_EXCERPT = 256;

bool is_printable(unsigned char c) { return c >= 0x20 && c < 0x7f; }

// The one bounded copy of this module: n bytes of src into buf, terminated.
// False, with buf emptied, when n bytes plus the zero do not fit.
bool copy_part(const char *src, size_t n, char *buf, size_t size) {
    if (buf == nullptr || size == 0) return false;
    if (n > size - 1) {
        buf[0] = '\0';
        return false;
    }
    if (n > 0) memcpy(buf, src, n);
    buf[n] = '\0';
    return true;
}

// Copies at most size-1 bytes of text; for the places that are meant to cut.
void copy_cut(const char *src, size_t n, char *buf, size_t size) {
    if (size == 0) return;
    (void)copy_part(src, n < size - 1 ? n : size - 1, buf, size);
}

bool ieq(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Segment contents without one opening and one closing delimiter.
std::string_view seg_body(const char *seg, size_t len, const char *delims) {
    std::string_view s(seg, len);
    if (!s.empty() && s.front() == delims[0]) s.remove_prefix(1);
    if (!s.empty() && s.back() == delims[1]) s.remove_suffix(1);
    return s;
}

// Value of one hexadecimal digit, or -1. Lower-case letters keep their
// historical value (code - 55), which existing links depend on.
int hex_digit(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 55;
    return -1;
}

}  // namespace

int uri_parse_n(const char *text, size_t len, uri_layout *layout) {
    uri_layout lo{};
    if (text == nullptr) return -1;
    const char *p = text;
    const char *end = text + strnlen(text, len);

    while (p < end && (*p == ' ' || *p == '\t')) ++p;
    if (p < end && *p == '/') {
        ++p;
    } else if (p < end) {
        // A one-letter candidate is a drive letter ("c:/x"), never a scheme.
        const auto *colon = static_cast<const char *>(memchr(p, ':', size_t(end - p)));
        if (colon != nullptr && colon - p > 1 && end - colon >= 3 && colon[1] == '/' &&
            colon[2] == '/') {
            lo.scheme = p;
            lo.s_len = size_t(colon - p);
            p = colon + 3;
            if (p == end) return -1;
        }
    }

    if (p < end) {
        if (const auto *at = static_cast<const char *>(memchr(p, '@', size_t(end - p)))) {
            if (at > p) {
                lo.authority = p;
                lo.a_len = size_t(at - p);
            }
            p = at + 1;
            if (p == end) return -1;
        }
    }

    // A text ending in "/" is all path, so a "?" inside it stays there.
    const char *pend = end;
    if (p < end && end[-1] != '/') {
        if (const auto *q = static_cast<const char *>(memrchr(p, '?', size_t(end - p)))) {
            pend = q;
            if (q + 1 < end) {
                lo.query = q + 1;
                lo.q_len = size_t(end - q - 1);
            }
        }
    }
    if (pend > p) {
        lo.path = p;
        lo.p_len = size_t(pend - p);
    }
    if (layout != nullptr) *layout = lo;
    return 0;
}

int uri_parse(const char *text, uri_layout *layout) { return uri_parse_n(text, SIZE_MAX, layout); }

static char *cpyseg(const char *part, size_t len, char *buf, size_t size) {
    if (buf == nullptr || size == 0) return nullptr;
    if (part == nullptr) {
        buf[0] = '\0';
        return nullptr;
    }
    return copy_part(part, len, buf, size) ? buf : nullptr;
}

char *uri_get_scheme(const uri_layout *layout, char *buf, size_t size) {
    return cpyseg(layout->scheme, layout->s_len, buf, size);
}

char *uri_get_authority(const uri_layout *layout, char *buf, size_t size) {
    return cpyseg(layout->authority, layout->a_len, buf, size);
}

char *uri_get_path(const uri_layout *layout, char *buf, size_t size) {
    return cpyseg(layout->path, layout->p_len, buf, size);
}

char *uri_get_query(const uri_layout *layout, char *buf, size_t size) {
    return cpyseg(layout->query, layout->q_len, buf, size);
}

int uri_scheme_kind(const char *scheme) {
    if (scheme == nullptr) return -1;
    for (size_t i = 0; i < URI_KIND_COUNT; ++i)
        if (strcasecmp(scheme, URI_KIND_STR[i]) == 0) return int(i);
    return -1;
}

static const char *path_parse(const char *path, size_t plen, char *host, size_t host_size,
                              char *port, size_t port_size) {
    const char *p = path;
    const char *end = path + strnlen(path, plen);
    if (host != nullptr && host_size > 0) host[0] = '\0';
    if (port != nullptr && port_size > 0) port[0] = '\0';

    while (p < end && (*p == ' ' || *p == '\t' || *p == '/')) ++p;
    if (p == end) return nullptr;

    const char *h = p;
    const char *he = nullptr;
    const char *after = nullptr;
    if (*p == '[') {
        h = p + 1;
        he = h;
        while (he < end && *he != ']' && *he != '?' && *he != '/') ++he;
        if (he == end || *he != ']') return nullptr;
        after = he + 1;
    } else {
        he = h;
        while (he < end && *he != ':' && *he != '?' && *he != '/') ++he;
        after = he;
    }

    const char *pt = nullptr;
    const char *pte = nullptr;
    if (after < end && *after == ':') {
        pt = after + 1;
        pte = pt;
        while (pte < end && *pte != '?' && *pte != '/') ++pte;
        after = pte;
    }

    if (host != nullptr && he > h && !copy_part(h, size_t(he - h), host, host_size)) return nullptr;
    if (port != nullptr && pt != nullptr && pte > pt &&
        !copy_part(pt, size_t(pte - pt), port, port_size))
        return nullptr;
    return after;
}

const char *uri_path_addrport(const char *path, size_t plen, char *host, size_t host_size,
                              char *port, size_t port_size) {
    if (path == nullptr) return nullptr;
    const char *r = path_parse(path, plen, host, host_size, port, port_size);
    if (r == nullptr) {
        // The path is usually not terminated where its length ends.
        char shown[LOG_EXCERPT];
        copy_cut(path, strnlen(path, plen), shown, sizeof(shown));
        LOG_ERR("%s: ERROR parsing path=[%s]\n", __func__, shown);
    }
    return r;
}

static int extract(const char *uri, char *scheme, char *authority, char *path, char *query) {
    uri_layout lo{};
    if (uri_parse(uri, &lo) != 0) {
        LOG_ERR("%s: uri_parse ERROR\n", __func__);
        return -1;
    }
    if (scheme != nullptr && uri_get_scheme(&lo, scheme, URI_SCHEME_SIZE) == nullptr) {
        LOG_ERR("%s: uri_get_scheme ERROR\n", __func__);
        return -1;
    }
    if (authority != nullptr && lo.authority != nullptr &&
        uri_get_authority(&lo, authority, URI_AUTH_SIZE) == nullptr) {
        LOG_ERR("%s: uri_get_authority ERROR\n", __func__);
        return -1;
    }
    if (authority != nullptr && lo.authority == nullptr) authority[0] = '\0';
    if (path != nullptr && uri_get_path(&lo, path, URI_PATH_SIZE) == nullptr) {
        LOG_ERR("%s: uri_get_path ERROR\n", __func__);
        return -1;
    }
    if (query != nullptr && lo.query != nullptr &&
        uri_get_query(&lo, query, URI_QUERY_SIZE) == nullptr) {
        LOG_ERR("%s: uri_get_query ERROR\n", __func__);
        return -1;
    }
    if (query != nullptr && lo.query == nullptr) query[0] = '\0';

    char kind[URI_SCHEME_SIZE];
    if (uri_get_scheme(&lo, kind, sizeof(kind)) == nullptr) return -1;
    return uri_scheme_kind(kind);
}

int uri_extract(const char *uri, char *scheme, char *authority, char *path, char *query) {
    if (uri == nullptr) return -1;
    int kind = extract(uri, scheme, authority, path, query);
    if (kind == -1) LOG_ERR("%s: error parsing URI: [%s]\n", __func__, uri);
    return kind;
}

const char *uri_xseg(const char *text, const char *delims, const char **start, size_t *len) {
    if (text == nullptr || *text == '\0') return nullptr;
    const char *s = text;
    if (*s == delims[0]) ++s;
    if (*s == '\0') return nullptr;
    const char *e = strchr(s, delims[1]);
    *start = s;
    *len = e != nullptr ? size_t(e - s) + 1 : strlen(s);
    return s;
}

int xseg_scmp(const char *keyword, const char *seg, size_t len, const char *delims) {
    return ieq(keyword, seg_body(seg, len, delims)) ? 0 : 1;
}

int xseg_cpy(const char *seg, size_t len, char *buf, size_t size, const char *delims) {
    std::string_view b = seg_body(seg, len, delims);
    if (b.empty() || !copy_part(b.data(), b.size(), buf, size)) return E2BIG_RC;
    return 0;
}

static bool parse_pos_long(std::string_view s, long *out) {
    long v = 0;
    auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || ptr != s.data() + s.size() || v <= 0) return false;
    *out = v;
    return true;
}

int get_dvr_range(const char *path, long *stime, long *duration) {
    if (path == nullptr) return -22;
    std::string_view comp(path);
    if (size_t slash = comp.rfind('/'); slash != std::string_view::npos)
        comp.remove_prefix(slash + 1);

    size_t at = std::string_view::npos;
    for (std::string_view marker : {"playlist_dvr_range-", "index-"}) {
        if (size_t m = comp.find(marker); m != std::string_view::npos) {
            at = m + marker.size();
            break;
        }
    }
    if (at == std::string_view::npos) return -22;
    std::string_view range = comp.substr(at);
    size_t dot = range.rfind('.');
    if (dot == std::string_view::npos) return -22;
    range = range.substr(0, dot);

    size_t dash = range.find('-');
    if (dash == std::string_view::npos) return -22;
    long st = 0;
    long du = 0;
    if (!parse_pos_long(range.substr(0, dash), &st)) return -22;
    std::string_view dtext = range.substr(dash + 1);
    if (ieq(dtext, "now"))
        du = -1;
    else if (!parse_pos_long(dtext, &du))
        return -22;
    *stime = st;
    *duration = du;
    return 0;
}

static void set_udpfx(uri_parse_ctx *ctx, const char *keyword) {
    if (ctx != nullptr) copy_cut(keyword, strlen(keyword), ctx->udpfx, sizeof(ctx->udpfx));
}

// "udp/<addr>/..." and "rtp/<addr>/..." name a stream by address alone.
static int split_stream(const char *keyword, const char *rest, char *src, size_t src_size,
                        uri_parse_ctx *ctx) {
    const char *s = nullptr;
    size_t n = 0;
    if (uri_xseg(rest, URI_SEG_DELIMS, &s, &n) == nullptr) return 22;
    std::string_view addr = seg_body(s, n, URI_SEG_DELIMS);
    size_t klen = strlen(keyword);
    if (addr.empty() || klen + 3 + addr.size() > src_size - 1) return -22;
    memcpy(src, keyword, klen);
    memcpy(src + klen, "://", 3);
    memcpy(src + klen + 3, addr.data(), addr.size());
    src[klen + 3 + addr.size()] = '\0';
    set_udpfx(ctx, keyword);
    return 0;
}

// "hls-fra/<file path>" is a fragment under the context's root directory.
static int split_fragment(const char *rest, char *src, size_t src_size, uri_parse_ctx *ctx) {
    const char *root = ctx != nullptr && ctx->root_dir != nullptr ? ctx->root_dir : "";
    size_t rlen = strlen(root);
    const char *sep = rlen > 0 && root[rlen - 1] == '/' ? "" : "/";
    int n = snprintf(src, src_size, "file://%s%s%s", root, sep, rest);
    if (n <= 0 || size_t(n) >= src_size) {
        src[0] = '\0';
        return ERANGE_RC;
    }
    set_udpfx(ctx, "hls-fra");
    return 0;
}

int uri_extract_endpts_ext(const char *path, char *src, size_t src_size, char *dst, size_t dst_size,
                           uri_parse_ctx *ctx) {
    XASSERT(path != nullptr && src != nullptr && dst != nullptr && src_size > 0 && dst_size > 0);
    src[0] = '\0';
    dst[0] = '\0';

    if (strchr(path, '/') == nullptr) {
        if (!uri_is_alias(path)) return 3;
        copy_cut(path, strlen(path), src, src_size);
        return 0;
    }

    const char *s = nullptr;
    size_t n = 0;
    if (uri_xseg(path, URI_SEG_DELIMS, &s, &n) == nullptr) return -3;
    if (xseg_scmp("udp", s, n, URI_SEG_DELIMS) == 0)
        return split_stream("udp", s + n, src, src_size, ctx);
    if (xseg_scmp("rtp", s, n, URI_SEG_DELIMS) == 0)
        return split_stream("rtp", s + n, src, src_size, ctx);
    if (xseg_scmp("hls-fra", s, n, URI_SEG_DELIMS) == 0)
        return split_fragment(s + n, src, src_size, ctx);

    // Each step moves on by at least one byte, so the walks end with the text.
    bool found = false;
    for (const char *p = path; uri_xseg(p, URI_SEG_DELIMS, &s, &n) != nullptr; p = s + n) {
        if (ctx != nullptr && xseg_scmp("hls-m3u", s, n, URI_SEG_DELIMS) == 0) {
            set_udpfx(ctx, "hls-m3u");
            const char *rest = s + n;
            if (!copy_part(rest, strlen(rest), src, src_size)) return ERANGE_RC;
            return get_dvr_range(src, &ctx->stime, &ctx->duration);
        }
        if (xseg_scmp("src", s, n, URI_SEG_DELIMS) == 0) {
            found = true;
            break;
        }
    }
    if (!found) return -14;

    // Nested "src"/"dst" pairs belong to the source URL; only the "dst" that
    // balances the first "src" ends it.
    const char *src_begin = s + n;
    int depth = 1;
    for (const char *p = src_begin; uri_xseg(p, URI_SEG_DELIMS, &s, &n) != nullptr; p = s + n) {
        if (xseg_scmp("src", s, n, URI_SEG_DELIMS) == 0) {
            ++depth;
        } else if (xseg_scmp("dst", s, n, URI_SEG_DELIMS) == 0 && --depth == 0) {
            std::string_view between(src_begin, size_t(s - src_begin));
            if (!between.empty() && between.front() == '/') between.remove_prefix(1);
            if (!between.empty() && between.back() == '/') between.remove_suffix(1);
            if (!copy_part(between.data(), between.size(), src, src_size)) return -1;
            const char *ds = nullptr;
            size_t dn = 0;
            if (uri_xseg(s + n, URI_SEG_DELIMS, &ds, &dn) != nullptr)
                copy_cut(ds, strlen(ds), dst, dst_size);
            return 0;
        }
    }
    return depth;
}

char *uri_decode_opt(char *buf, size_t size, int options) {
    if (buf == nullptr || size == 0) return nullptr;
    size_t r = 0;
    size_t w = 0;
    while (r < size && buf[r] != '\0') {
        char c = buf[r];
        if (c == '+') {
            buf[w++] = ' ';
            ++r;
            continue;
        }
        if (c != '%') {
            buf[w++] = c;
            ++r;
            continue;
        }
        if (r + 2 >= size) return nullptr;
        // Never step over the terminator: an escape cut short by the end of
        // the text is dropped with what is left of it.
        if (buf[r + 1] == '\0' || buf[r + 2] == '\0') break;
        int hi = hex_digit(static_cast<unsigned char>(buf[r + 1]));
        int lo = hex_digit(static_cast<unsigned char>(buf[r + 2]));
        r += 3;
        if (hi < 0 || lo < 0) continue;
        auto b = static_cast<unsigned char>(hi * 16 + lo);
        if ((options & URI_DEC_PRINTABLE) != 0 && !is_printable(b)) b = '?';
        buf[w++] = static_cast<char>(b);
    }
    buf[w < size ? w : size - 1] = '\0';
    return buf;
}

char *uri_decode(char *buf, size_t size) { return uri_decode_opt(buf, size, URI_DEC_PRINTABLE); }

char *uri_encode(char *buf, size_t size) {
    if (buf == nullptr || size == 0) return nullptr;
    auto *copy = static_cast<char *>(W_calloc(__func__, size, 1));
    if (copy == nullptr) return nullptr;
    scope_exit free_copy{[copy] { free(copy); }};
    size_t clen = strnlen(buf, size);
    memcpy(copy, buf, clen);

    static constexpr char hex[] = "0123456789ABCDEF";
    static constexpr std::string_view unsafe = ";/?:@&=+$,* ";
    size_t w = 0;
    for (size_t r = 0; r < clen && w < size - 1; ++r) {
        auto c = static_cast<unsigned char>(copy[r]);
        if (is_printable(c) && unsafe.find(char(c)) == std::string_view::npos) {
            buf[w++] = char(c);
            continue;
        }
        if (w + 3 > size - 1) break;
        buf[w++] = '%';
        buf[w++] = hex[c >> 4];
        buf[w++] = hex[c & 0x0f];
    }
    buf[w] = '\0';
    return buf;
}

bool uri_is_alias(const char *text) {
    return text != nullptr && (text[0] == '$' || text[0] == '~' || text[0] == '^');
}

size_t till_query(const char *text) {
    size_t len = strlen(text);
    if (len > 0 && text[len - 1] == '/') return len;
    const char *q = strrchr(text, '?');
    return q != nullptr ? size_t(q - text) : len;
}

const char *uri_split_alias(const char *text, char *buf, size_t size) {
    const char *q = strchr(text, '?');
    size_t n = q != nullptr ? size_t(q - text) : strlen(text);
    copy_cut(text, n, buf, size);
    return q != nullptr ? q + 1 : nullptr;
}

int uri_ensure_schema(char *buf, size_t size, const char *scheme) {
    size_t slen = strlen(scheme);
    size_t blen = strnlen(buf, size);
    if (blen >= slen && strncasecmp(buf, scheme, slen) == 0) return 0;
    if (blen + slen + 1 > size) return E2BIG_RC;
    memmove(buf + slen, buf, blen);
    memcpy(buf, scheme, slen);
    buf[blen + slen] = '\0';
    return 0;
}

const char *uri_pre_path(const char *text) {
    const char *p = strchr(text, '/');
    if (p != nullptr && p > text && p[-1] == ':' && p[1] == '/') p = strchr(p + 2, '/');
    return p;
}

bool url_ends_with(const char *url, const char *ext) {
    std::string_view u(url, strcspn(url, "?"));
    size_t dot = u.rfind('.');
    if (dot == std::string_view::npos) return false;
    std::string_view suffix = u.substr(dot + 1);
    if (suffix.size() > 31 || suffix.find('/') != std::string_view::npos) return false;
    std::string_view e(ext);
    if (!e.empty() && e.front() == '.') e.remove_prefix(1);
    return ieq(suffix, e);
}

int url_get_fname(const char *url, char *buf, size_t size, bool no_ext) {
    std::string_view u(url, strcspn(url, "?"));
    size_t slash = u.rfind('/');
    if (slash == std::string_view::npos) return EINVAL_RC;
    if (slash + 1 == u.size()) return -EINVAL_RC;
    std::string_view name = u.substr(slash + 1);
    if (no_ext) {
        if (size_t dot = name.rfind('.'); dot != std::string_view::npos && dot > 0)
            name = name.substr(0, dot);
    }
    return copy_part(name.data(), name.size(), buf, size) ? 0 : ERANGE_RC;
}

bool is_m3u_url(const char *url) {
    return strstr(url, "/hls-m3u/") != nullptr &&
           (url_ends_with(url, "m3u") || url_ends_with(url, "m3u8"));
}

bool is_fra_url(const char *url) {
    return strstr(url, "/hls-fra/") != nullptr && url_ends_with(url, "ts");
}

bool is_hls_url(const char *url) { return is_m3u_url(url) || is_fra_url(url); }

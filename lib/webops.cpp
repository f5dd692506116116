// webops: HTTP request heads in, responses and upstream requests out. Owns
// the shared response templates, the response buffer and the upstream
// request buffer; everything else works in caller buffers.
#include "webops.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "fdio.h"
#include "log.h"
#include "scope_exit.h"
#include "syswrap.h"

LOG_MODULE(LOG_MOD_DEFAULT);

namespace {

// Room for an excerpt of received text in a log line.
constexpr size_t LOG_EXCERPT = 256;
constexpr size_t RESP_LINE_SIZE = 128;
constexpr size_t RQ_HOST_SIZE = 128;
constexpr size_t RQ_BUF_SIZE = 2048;
constexpr size_t NUM_HDR_MAX = 31;

// Received text is not terminated: every string we log or compare is first
// cut into a local, terminated copy.
void excerpt(std::string_view s, char *out, size_t size) {
    size_t n = s.size() < size - 1 ? s.size() : size - 1;
    memcpy(out, s.data(), n);
    out[n] = '\0';
}

// The bounded field copy of the head parser: at most bound-1 characters of
// the value are kept, as "%.*s" into a buffer of bound bytes would.
void copy_bounded(std::string_view v, char *out, size_t bound) { excerpt(v, out, bound); }

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool ieq(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

size_t ifind(std::string_view hay, std::string_view needle) {
    if (needle.empty() || needle.size() > hay.size()) return std::string_view::npos;
    // The first character is matched inline: a head is scanned once per
    // field looked up, and a library call at every position showed up in
    // profiles.
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    const char first = lower(needle[0]);
    for (size_t i = 0; i + needle.size() <= hay.size(); ++i)
        if (lower(hay[i]) == first &&
            strncasecmp(hay.data() + i, needle.data(), needle.size()) == 0)
            return i;
    return std::string_view::npos;
}

http_response mk_tpl(int code, const char *reason, long clen, const char *connection) {
    return http_response{.code = code,
                         .content_type = nullptr,
                         .content_encoding = nullptr,
                         .content_length = clen,
                         .reason = reason,
                         .server = nullptr,
                         .connection = connection,
                         .ok_suffix = nullptr,
                         .location = nullptr,
                         .fpath = nullptr};
}

// The shared templates. Reason texts are what clients of the suite match on
// ("Bad request", "Service error"), so they stay exactly as they are.
http_response s_templates[] = {
    mk_tpl(200, "OK", -1, nullptr),
    mk_tpl(204, "No Content", -1, nullptr),
    mk_tpl(302, "Moved Temporarily", 0, "close"),
    mk_tpl(400, "Bad request", 0, nullptr),
    mk_tpl(403, "Forbidden", 0, "close"),
    mk_tpl(404, "Not Found", 0, "close"),
    mk_tpl(406, "Not Acceptable", 0, "close"),
    mk_tpl(408, "Request Timeout", 0, "close"),
    mk_tpl(500, "Service error", 0, "close"),
    mk_tpl(502, "Bad Gateway", 0, "close"),
    mk_tpl(503, "Service Unavailable", 0, "close"),
    mk_tpl(504, "Gateway Timeout", 0, "close"),
};

char s_resp_buf[HTTP_RESP_BUF_SIZE];
char s_rq_buf[RQ_BUF_SIZE];

// The parsed request line plus the target's place in the buffer.
struct head_parse {
    const char *target;
    size_t tlen;
};

}  // namespace

size_t head_eod(const char *buf, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        if (buf[i] == '\n' && i + 1 < len && buf[i + 1] == '\n') return i + 2;
        if (buf[i] == '\r' && i + 3 < len && buf[i + 1] == '\n' && buf[i + 2] == '\r' &&
            buf[i + 3] == '\n')
            return i + 4;
    }
    return 0;
}

ssize_t read_http(int fd, char *buf, size_t cap, size_t pos, size_t *eod) {
    size_t room = pos < cap ? cap - pos : 0;
    ssize_t n = nread(fd, buf + (pos < cap ? pos : cap), room, 0);
    if (n <= 0) {
        LOG_DBG("%s: EOD(%zd) for fd%d\n", __func__, n, fd);
        return n;
    }
    LOG_DBG("%s: %zd bytes read from fd%d\n", __func__, n, fd);
    size_t total = pos + size_t(n);
    if (size_t e = head_eod(buf, total); e > 0) {
        *eod = e;
        LOG_DBG("%s: HTTP EOD marker found at pos=%ld\n", __func__, long(e));
    } else {
        LOG_DBG("%s: fd=%d, no HTTP EOD marker found, %ld bytes read.\n", __func__, fd,
                long(total));
    }
    return n;
}

const char *find_http_header_n(const char *name, const char *text, size_t text_len, size_t *len) {
    if (len != nullptr) *len = 0;
    if (name == nullptr || text == nullptr) return nullptr;
    std::string_view t(text, strnlen(text, text_len));
    std::string_view n(name);
    size_t at = ifind(t, n);
    if (at == std::string_view::npos) return nullptr;
    size_t p = at + n.size();
    if ((n.empty() || n.back() != ':') && p < t.size() && t[p] == ':') ++p;
    // The value must be separated by white space; line ends are not white
    // space here, or an empty field would take the next line as its value.
    if (p >= t.size() || !is_blank(t[p])) return nullptr;
    while (p < t.size() && is_blank(t[p])) ++p;
    size_t v = p;
    while (p < t.size() && static_cast<unsigned char>(t[p]) >= 0x20 && t[p] != 0x7f) ++p;
    if (p >= t.size() || (t[p] != '\r' && t[p] != '\n')) return nullptr;
    if (len != nullptr) *len = p - v;
    return text + v;
}

const char *find_http_header(const char *name, const char *text, size_t *len) {
    return find_http_header_n(name, text, SIZE_MAX, len);
}

long extract_num_hdr(const char *name, const char *text, size_t max) {
    size_t vlen = 0;
    const char *v = find_http_header_n(name, text, max, &vlen);
    if (v == nullptr || vlen == 0) return -1;
    if (vlen > NUM_HDR_MAX) {
        LOG_WRN("%s: header [%s] value length is too big: %lu bytes\n", __func__, name,
                static_cast<unsigned long>(vlen));
        vlen = NUM_HDR_MAX;
    }
    long val = 0;
    auto [ptr, ec] = std::from_chars(v, v + vlen, val);
    if (ec != std::errc() || ptr == v) return -1;
    return val;
}

static void parse_fields(std::string_view head, http_header *hdr) {
    size_t vlen = 0;
    if (const char *v = find_http_header_n("Host:", head.data(), head.size(), &vlen)) {
        if (vlen < HTTP_HOST_SIZE)
            copy_bounded({v, vlen}, hdr->host, HTTP_HOST_SIZE - 1);
        else
            LOG_WRN("%s: Host length is too long: %lu\n", "parse_http_header",
                    static_cast<unsigned long>(vlen));
    }
    if (const char *v = find_http_header_n("User-Agent:", head.data(), head.size(), &vlen)) {
        if (vlen <= HTTP_UA_SIZE - 1) {
            copy_bounded({v, vlen}, hdr->user_agent, HTTP_UA_SIZE - 1);
            if (hdr->user_agent[0] != '\0') (void)uri_encode(hdr->user_agent, HTTP_UA_SIZE - 1);
        } else {
            LOG_WRN("%s: User-Agent length is too long: %lu\n", "parse_http_header",
                    static_cast<unsigned long>(vlen));
        }
    }
    if (const char *v = find_http_header_n("Connection:", head.data(), head.size(), &vlen)) {
        if (ieq({v, vlen}, "keep-alive"))
            hdr->is_keep_alive = true;
        else if (ieq({v, vlen}, "close"))
            hdr->is_close = true;
    }
    if (const char *v = find_http_header_n("Accept-Encoding:", head.data(), head.size(), &vlen)) {
        copy_bounded({v, vlen}, hdr->accept_enc, HTTP_ACCEPT_ENC_SIZE - 1);
        if (vlen > HTTP_ACCEPT_ENC_SIZE - 1)
            LOG_WRN("%s: [%s] text has been trimmed from %zu to %zu chars\n", "parse_http_header",
                    "Accept-Encoding", vlen, strlen(hdr->accept_enc));
    }
}

// The request line and the fields; hp gets the target's place in buf.
static int parse_head(const char *buf, size_t len, http_header *hdr, char *url, size_t url_size,
                      head_parse *hp) {
    static constexpr const char *who = "parse_http_header";
    *hdr = http_header{};
    *hp = head_parse{};
    std::string_view h(buf, len);

    size_t mlen = 0;
    while (mlen < h.size() && !is_blank(h[mlen])) ++mlen;
    if (mlen < 3 || mlen > 7 || mlen == h.size()) {
        char shown[32];
        excerpt(h.substr(0, 16), shown, sizeof(shown));
        LOG_ERR("%s: failed to get HTTP method from %7s\n", who, shown);
        return -1;
    }
    std::string_view method = h.substr(0, mlen);
    if (ieq(method, "GET")) {
        hdr->type = HTTP_MT_GET;
    } else if (ieq(method, "HEAD")) {
        hdr->type = HTTP_MT_HEAD;
        LOG_DBG("%s: identified as HEAD\n", who);
    } else {
        char shown[8];
        excerpt(method, shown, sizeof(shown));
        LOG_ERR("HTTP [%s] is NOT supported\n", shown);
        return 22;
    }

    size_t p = mlen;
    while (p < h.size() && is_blank(h[p])) ++p;
    size_t t = p;
    while (p < h.size() && !is_blank(h[p]) && h[p] != '\r' && h[p] != '\n') ++p;
    std::string_view target = h.substr(t, p - t);
    if (url != nullptr && url_size > target.size()) excerpt(target, url, url_size);
    hp->target = target.data();
    hp->tlen = target.size();

    int rc = uri_parse_n(target.data(), target.size(), &hdr->uri);
    if (rc != 0) {
        LOG_ERR("%s: failed to parse URL\n", who);
        return rc;
    }
    if (LOG_DBG_ON()) {
        char shown[LOG_EXCERPT];
        excerpt(target, shown, sizeof(shown));
        LOG_DBG("%s: url=[%s], p_len=%u, q_len=%u, rc=%d\n", who, shown, unsigned(hdr->uri.p_len),
                unsigned(hdr->uri.q_len), rc);
    }

    while (p < h.size() && is_blank(h[p])) ++p;
    std::string_view proto = h.substr(p);
    static constexpr std::string_view http1 = "HTTP/1.";
    if (!proto.starts_with(http1)) {
        char shown[32];
        excerpt(proto.substr(0, proto.find_first_of("\r\n")), shown, sizeof(shown));
        LOG_ERR("%s: expected [%s] to follow the URI path, got [%s]\n", who, http1.data(), shown);
        return -1;
    }
    if (proto.size() > http1.size() && proto[http1.size()] == '0') {
        hdr->is_http10 = true;
        LOG_DBG("%s: HTTP/1.0 detected\n", who);
    }

    size_t nl = h.find('\n', p);
    if (nl == std::string_view::npos || nl + 1 >= h.size()) {
        LOG_DBG("%s: no header sections found\n", who);
        return 0;
    }
    parse_fields(h, hdr);
    return 0;
}

int parse_http_header(const char *buf, size_t len, http_header *hdr, char *url, size_t url_size) {
    head_parse hp{};
    return parse_head(buf, len, hdr, url, url_size, &hp);
}

bool slash_match(const char *text, const char *word) {
    if (text == nullptr || word == nullptr) return false;
    std::string_view t(text);
    if (t.starts_with('/')) t.remove_prefix(1);
    if (t.ends_with('/')) t.remove_suffix(1);
    return ieq(t, word);
}

bool is_ping_request(const char *path) { return slash_match(path, "ping"); }

// Splits a zero-terminated path into src and dst and percent-decodes both.
// The caller names itself in the log lines.
static int split_and_decode(const char *who, const char *path, char *src, char *dst, size_t size,
                            const char *err_fmt) {
    if (int rc = uri_extract_endpts_ext(path, src, size, dst, size, nullptr); rc != 0) {
        LOG_ERR(err_fmt, who, rc, path);
        return -1;
    }
    if (uri_decode(src, size) == nullptr || uri_decode(dst, size) == nullptr) {
        LOG_ERR("%s: error URI-decoding\n", who);
        return -1;
    }
    return 0;
}

int web_parse_urq(char *buf, size_t len, char *src, char *dst, size_t size, http_header *hdr) {
    XASSERT(buf != nullptr && src != nullptr && dst != nullptr && size > 0 && hdr != nullptr);
    head_parse hp{};
    if (int rc = parse_head(buf, len, hdr, nullptr, 0, &hp); rc != 0) return rc;

    const uri_layout &u = hdr->uri;
    if (u.path == nullptr || u.p_len == 0) {
        char shown[LOG_EXCERPT];
        excerpt({hp.target, hp.tlen}, shown, sizeof(shown));
        LOG_WRN("%s: no path in URL [%s]\n", __func__, shown);
        return -3;
    }
    if (u.q_len > HTTP_MAX_QUERY) {
        LOG_ERR("%s: URI query length (%lu bytes) is beyond the limit: %lu\n", __func__,
                static_cast<unsigned long>(u.q_len),
                static_cast<unsigned long>(HTTP_MAX_QUERY + 1));
        return -7;
    }
    char *query = nullptr;
    if (u.query != nullptr && u.q_len > 0) {
        query = static_cast<char *>(W_calloc(__func__, u.q_len + 1, 1));
        if (query == nullptr) return -1;
        memcpy(query, u.query, u.q_len);
    }
    scope_exit free_query{[query] { free(query); }};

    // The path lies inside the target, which the protocol follows, so its
    // end is always inside the first len bytes of buf.
    size_t pend = size_t(u.path - buf) + u.p_len;
    XASSERT(pend < len);
    buf[pend] = '\0';
    const char *path = u.path;
    LOG_DBG("%s: URI path=[%s], query=[%s]\n", __func__, path, query != nullptr ? query : "");

    if (strcasecmp(path, "favicon.ico") == 0) {
        LOG_DBG("%s: favicon request received.\n", __func__);
        return HTTP_RC_FAVICON;
    }
    src[0] = '\0';
    dst[0] = '\0';
    if (is_ping_request(path)) {
        LOG_INF("Handling user-side PING request\n");
        return HTTP_RC_PING;
    }
    if (split_and_decode(__func__, path, src, dst, size,
                         "%s: error(%d) parsing request data [%s]\n") != 0)
        return -1;

    if (query != nullptr) {
        size_t slen = strlen(src);
        if (size - slen > u.q_len + 1) {
            src[slen] = '?';
            memcpy(src + slen + 1, query, u.q_len + 1);
            LOG_DBG("%s: query [%s] appended to source\n", __func__, query);
        } else {
            LOG_ERR(
                "%s: URI query is too long (%lu bytes), max allowed=%ld bytes, discarding "
                "request\n",
                __func__, static_cast<unsigned long>(u.q_len), long(size) - long(slen) - 2);
            return 7;
        }
    }
    if (LOG_DBG_ON()) {
        char shown[LOG_EXCERPT];
        excerpt({hp.target, hp.tlen}, shown, sizeof(shown));
        LOG_DBG("%s: URI=[%s] - src=[%s], dst=[%s]\n", __func__, shown, src, dst);
    }
    return 0;
}

int web_parse_url(const char *url, char *src, char *dst, size_t size) {
    XASSERT(url != nullptr && src != nullptr && dst != nullptr && size > 0);
    src[0] = '\0';
    dst[0] = '\0';
    uri_layout u{};
    if (int rc = uri_parse(url, &u); rc != 0) {
        LOG_ERR("%s: failed to parse URL\n", __func__);
        return rc;
    }
    char path[URI_PATH_SIZE];
    if (u.p_len < 1 || u.p_len > URI_PATH_SIZE - 1) {
        LOG_ERR("%s: invalid path size: %zu\n", __func__, u.p_len);
        return 34;
    }
    memcpy(path, u.path, u.p_len);
    path[u.p_len] = '\0';
    return split_and_decode(__func__, path, src, dst, size, "%s: error(%d) parsing path [%s]\n");
}

// Appends one formatted line; false when it does not fit in the scratch line
// or in the room left.
[[gnu::format(printf, 4, 5)]] static bool add_line(char *buf, size_t size, size_t *pos,
                                                   const char *fmt, ...) {
    char line[RESP_LINE_SIZE];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(line, sizeof(line), fmt, ap);
    va_end(ap);
    if (n < 0 || size_t(n) >= sizeof(line) || size_t(n) >= size - *pos) return false;
    memcpy(buf + *pos, line, size_t(n) + 1);
    *pos += size_t(n);
    return true;
}

static ssize_t append_file(const char *fpath, char *buf, size_t size, size_t pos) {
    int fd = W_open(__func__, fpath, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return -1;
    scope_exit close_fd{[fd, who = __func__] { (void)W_close(who, fd); }};
    size_t start = pos;
    // One byte is kept for the terminator; a file that fills the rest and
    // has more is refused rather than cut.
    for (int guard = 0; guard < 1024; ++guard) {
        if (pos >= size - 1) {
            char probe = 0;
            return nread(fd, &probe, 1, 0) == 0 ? ssize_t(pos - start) : -1;
        }
        ssize_t n = nread(fd, buf + pos, size - 1 - pos, 0);
        if (n < 0) return -1;
        if (n == 0) return ssize_t(pos - start);
        pos += size_t(n);
    }
    return -1;
}

int mk_http_xt_resp(const http_response *resp, int version, char *buf, size_t size) {
    if (resp == nullptr || resp->code == 0 || resp->reason == nullptr || resp->server == nullptr ||
        buf == nullptr || size == 0)
        return -1;
    if (version != 10 && version != 11) {
        LOG_ERR("%s: HTTP/%d.%d not supported\n", __func__, version / 10, version % 10);
        return -1;
    }
    int n = snprintf(buf, size, "HTTP/%d.%d %d %s\r\nServer: %s\r\n", version / 10, version % 10,
                     resp->code, resp->reason, resp->server);
    if (n < 0 || size_t(n) >= size) return -1;
    size_t pos = size_t(n);

    if (resp->content_type != nullptr &&
        !add_line(buf, size, &pos, "Content-Type: %s\r\n", resp->content_type))
        return -1;
    if (resp->content_encoding != nullptr &&
        !add_line(buf, size, &pos, "Content-Encoding: %s\r\n", resp->content_encoding))
        return -1;
    if (resp->content_length >= 0 && !add_line(buf, size, &pos, "Content-Length: %lu\r\n",
                                               static_cast<unsigned long>(resp->content_length)))
        return -1;
    if (resp->connection != nullptr &&
        !add_line(buf, size, &pos, "Connection: %s\r\n", resp->connection))
        return -1;
    if (resp->location != nullptr && !add_line(buf, size, &pos, "Location: %s\r\n", resp->location))
        return -1;
    if (resp->code == 200 && resp->ok_suffix != nullptr &&
        !add_line(buf, size, &pos, "%s\r\n", resp->ok_suffix))
        return -1;
    if (size - pos < 4) return -1;
    memcpy(buf + pos, "\r\n", 3);
    pos += 2;
    size_t hlen = pos;

    if (resp->fpath != nullptr) {
        ssize_t fl = append_file(resp->fpath, buf, size, pos);
        if (fl < 0) return -1;
        pos += size_t(fl);
        buf[pos] = '\0';
        LOG_DBG("%s: file [%s] of %zd bytes included in HTTP response\n", __func__, resp->fpath,
                fl);
    }
    LOG_DBG("%s: header:%d/total:%d bytes\n%.*s\n", __func__, int(hlen), int(pos), int(hlen), buf);
    return int(pos);
}

int send_http_response(int fd, const http_response *resp) {
    int n = mk_http_xt_resp(resp, 11, s_resp_buf, sizeof(s_resp_buf));
    if (n < 0) {
        LOG_ERR("%s: error compiling HTTP response for fd=%d\n", __func__, fd);
        return -1;
    }
    ssize_t nw = nwrite(fd, s_resp_buf, size_t(n), 0);
    if (nw < 1) {
        LOG_ERR("%s: error sending HTTP response to fd=%d\n", __func__, fd);
        LOG_ERR("%s: error compiling HTTP response for fd=%d\n", __func__, fd);
        return -1;
    }
    if (nw < n) {
        LOG_WRN("%s: only %ld out of %ld bytes sent to fd=%d\n", __func__, long(nw), long(n), fd);
        return -1;
    }
    LOG_DBG("%s: sent HTTP response (%ld bytes) to fd=%d:\n%s\n", __func__, long(nw), fd,
            s_resp_buf);
    return 0;
}

http_response *http_code_resp(int code) {
    for (http_response &r : s_templates)
        if (r.code == code) return &r;
    LOG_WRN("%s: no response for HTTP%d defined, please update the lib!\n", __func__, code);
    return http_code_resp(code < 300 ? 200 : 500);
}

int web_escape(const char *text, char *out, size_t size) {
    static constexpr struct {
        char c;
        std::string_view esc;
    } table[] = {{'&', "&amp;"}, {'>', "&gt;"}, {'<', "&lt;"}, {'\'', "&apos;"}, {'"', "&quot;"}};
    int count = 0;
    size_t need = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        size_t add = 1;
        for (const auto &e : table)
            if (*p == e.c) {
                add = e.esc.size();
                ++count;
            }
        need += add;
    }
    if (count == 0) return 0;
    if (out == nullptr || need + 1 > size) return -34;
    size_t w = 0;
    for (const char *p = text; *p != '\0'; ++p) {
        std::string_view piece(p, 1);
        for (const auto &e : table)
            if (*p == e.c) piece = e.esc;
        memcpy(out + w, piece.data(), piece.size());
        w += piece.size();
    }
    out[w] = '\0';
    return count;
}

int send_http_request(int fd, const http_request *rq) {
    if (rq->type != HTTP_MT_GET) {
        LOG_ERR("%s: only GET requests are currently supported.\n", __func__);
        return -1;
    }
    const char *host =
        rq->host_addr != nullptr && rq->host_addr[0] != '\0' ? rq->host_addr : "localhost";
    bool has_port = rq->host_port != nullptr && rq->host_port[0] != '\0';
    char hostv[RQ_HOST_SIZE];
    int hn = has_port ? snprintf(hostv, RQ_HOST_SIZE - 1, "%s:%s", host, rq->host_port)
                      : snprintf(hostv, RQ_HOST_SIZE - 1, "%s", host);
    if (hn < 0 || size_t(hn) >= RQ_HOST_SIZE - 1) {
        LOG_ERR("%s: host buffer is too small, %d bytes needed\n", __func__, hn + 1);
        return -1;
    }
    const char *path = rq->request != nullptr ? rq->request : "";
    bool http10 = (rq->flags & HTTP_RQF_HTTP10) != 0;
    bool keep_alive = (rq->flags & HTTP_RQF_KEEPALIVE) != 0;
    int n = snprintf(s_rq_buf, RQ_BUF_SIZE - 1,
                     "GET %s%s HTTP/%s\r\nHost: %s\r\nConnection: %s\r\nUser-Agent: %s\r\n"
                     "Accept: text/html,video/*, application/*\r\n"
                     "Accept-Language: en-US,en,ru\r\n"
                     "Accept-Charset: ISO-8859-1,UTF-8\r\n"
                     "Cache-Control: no-cache\r\n\r\n",
                     path[0] == '/' ? "" : "/", path, http10 ? "1.0" : "1.1", hostv,
                     keep_alive ? "keep-alive" : "close", rq->server != nullptr ? rq->server : "");
    if (n < 0 || size_t(n) >= RQ_BUF_SIZE - 1) {
        LOG_ERR("%s: buffer is too small, %d bytes required.\n", __func__, n + 1);
        return -1;
    }
    ssize_t nw = nwrite(fd, s_rq_buf, size_t(n), 0);
    if (nw < 1) {
        LOG_ERR("%s: error sending HTTP request to fd=%d\n", __func__, fd);
        return -1;
    }
    if (nw < n) {
        LOG_ERR("%s: only %ld out of %d bytes sent to fd=%d\n", __func__, long(nw), n, fd);
        return -1;
    }
    LOG_DBG("%s: sent %ld bytes to fd=%d:\n%s", __func__, long(nw), fd, s_rq_buf);
    return 0;
}

static int parse_status(int fd, const char *buf, size_t eod, http_resp_ctx *ctx) {
    // sscanf needs a terminated text; the status line is copied out so a
    // buffer filled to its last byte is never read past.
    char line[128];
    const auto *nl = static_cast<const char *>(memchr(buf, '\n', eod));
    excerpt({buf, nl != nullptr ? size_t(nl - buf) + 1 : eod}, line, sizeof(line));
    int major = 0;
    int minor = 0;
    int code = 0;
    char reason[32] = {};
    int items = sscanf(line, "HTTP/%1d.%1d %d %31s\r\n", &major, &minor, &code, reason);
    if (items < 4) {
        LOG_ERR("%s: parsed %d < 4 elements (expected to be parsed)\n", "recv_http_response",
                items);
        return -1;
    }
    ctx->code = code;
    LOG_DBG("%s: fd=%d received: HTTP/%d.%d %d %s\n", "recv_http_response", fd, major, minor, code,
            reason);
    return 0;
}

int recv_http_head(int fd, char *buf, size_t head_cap, size_t cap, http_resp_ctx *ctx) {
    XASSERT(buf != nullptr && ctx != nullptr && ctx->total >= 0 && head_cap <= cap);
    ctx->tail = 0;
    // The head must end within head_cap bytes, wherever the reads stop.
    auto find_eod = [&](size_t total) {
        return head_eod(buf, total < head_cap ? total : head_cap);
    };
    // Bytes the caller read itself may already hold the whole head.
    if (auto total = size_t(ctx->total); total > 0 && total <= cap) {
        if (total < cap) buf[total] = '\0';
        if (size_t eod = find_eod(total); eod != 0) {
            ctx->tail = ssize_t(eod);
            return parse_status(fd, buf, eod, ctx);
        }
    }
    // Every pass either adds at least one byte or returns, so the loop ends
    // by the time the head's room is full.
    for (;;) {
        auto total = size_t(ctx->total);
        if (total >= head_cap) {
            LOG_ERR("%s: buffer already full, yet no HTTP EOD\n", "recv_http_response");
            return -1;
        }
        LOG_DBG("%s: reading more from fd%d\n", "recv_http_response", fd);
        ssize_t n = nread(fd, buf + total, cap - total, 0);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                LOG_DBG("%s: expecting more data from fd=%d\n", "recv_http_response", fd);
                return 11;
            }
            return -1;
        }
        if (n == 0) {
            LOG_ERR("%s: client [fd=%d] connection broken\n", "recv_http_response", fd);
            return -1;
        }
        total += size_t(n);
        ctx->total = ssize_t(total);
        if (total < cap) buf[total] = '\0';
        size_t eod = find_eod(total);
        if (eod == 0) continue;
        ctx->tail = ssize_t(eod);
        return parse_status(fd, buf, eod, ctx);
    }
}

int recv_http_response(int fd, char *buf, size_t cap, http_resp_ctx *ctx) {
    return recv_http_head(fd, buf, cap, cap, ctx);
}

int mk_full_url(const char *base, const char *path, size_t plen, char *out, size_t size) {
    int n = snprintf(out, size, "%s/%.*s", base, int(strnlen(path, plen)), path);
    if (n < 0 || size_t(n) >= size) {
        LOG_ERR("%s: URL does not fit in %zu bytes: %s/...\n", __func__, size, base);
        if (size > 0) out[0] = '\0';
        return 34;
    }
    return 0;
}

int extract_http_request_path_query(const char *request, char *path, size_t psize, char *query,
                                    size_t qsize) {
    XASSERT(request != nullptr && path != nullptr && psize > 0 && query != nullptr && qsize > 0);
    uri_layout u{};
    if (uri_parse(request, &u) != 0 || u.path == nullptr) {
        LOG_ERR("%s: no URI path found in [%s]\n", __func__, request);
        return 22;
    }
    if (u.p_len > psize - 1) {
        LOG_ERR("%s: path is too long [%ld chars, allowed: %ld]: %80s...\n", __func__,
                long(u.p_len), long(psize) - 1, u.path);
        return 34;
    }
    if (u.q_len > 0 && u.q_len > qsize - 1) {
        LOG_ERR("%s: query is too long [%ld chars, allowed: %ld]: %80s...\n", __func__,
                long(u.q_len), long(qsize) - 1, u.query);
        return 34;
    }
    memcpy(path, u.path, u.p_len);
    path[u.p_len] = '\0';
    query[0] = '\0';
    if (u.q_len > 0) {
        memcpy(query, u.query, u.q_len);
        query[u.q_len] = '\0';
    }
    return 0;
}

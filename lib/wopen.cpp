// wopen: the upstream socket. Opens file, tcp, udp, rtp and http sources
// from their URLs, sends the GET of an http source and reads its response
// head and body. Owns the agent tag and the client's process-wide switches.
#include "wopen.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "fdio.h"
#include "log.h"
#include "scope_exit.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "uri.h"

LOG_MODULE(0);

usock_flags g_usock_flags;

namespace {

char s_apptag[USOCK_APPTAG_SIZE] = "#ERR#";

constexpr char HTTP_DEFAULT_PORT[] = "80";
constexpr int HTTP_OK = 200;

// The value of "src=" among the "&"-separated fields of query, copied into
// buf; false when there is none or it does not fit.
bool ssm_source_of(const char *query, char *buf, size_t size) {
    buf[0] = '\0';
    std::string_view q(query);
    constexpr std::string_view key = USOCK_SSM_KEY;
    while (!q.empty()) {
        size_t amp = q.find('&');
        std::string_view field = q.substr(0, amp);
        q = amp == std::string_view::npos ? std::string_view{} : q.substr(amp + 1);
        if (field.size() > key.size() && field.starts_with(key) && field[key.size()] == '=') {
            std::string_view val = field.substr(key.size() + 1);
            if (str_copy(buf, size, val) != 0) {
                LOG_ERR("%s: SSM source is too long [%zu chars]\n", __func__, val.size());
                return false;
            }
            return true;
        }
    }
    return false;
}

char *dup_text(const char *who, const char *text) {
    size_t n = strlen(text);
    auto *p = static_cast<char *>(W_calloc(who, 1, n + 1));
    if (p != nullptr) memcpy(p, text, n);
    return p;
}

int open_file(const char *path, usock_ctx *ctx) {
    int fd = W_open(__func__, path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return -1;
    // Readiness is meaningless for a regular file: epoll refuses it, so the
    // reactor serves it through its no-poll list.
    ctx->non_pollable = true;
    LOG_DBG("%s: fd%d FILE [%s]\n", "usock_open", fd, path);
    return fd;
}

int open_net(const char *url, const char *path, const char *query, usock_ctx *ctx) {
    char host[USOCK_HOST_SIZE];
    char port[USOCK_PORT_SIZE];
    if (uri_path_addrport(path, strlen(path), host, sizeof(host), port, sizeof(port)) == nullptr)
        return -1;
    if (ctx->url_kind == URI_KIND_HTTP && port[0] == '\0') {
        (void)str_copy(port, sizeof(port), HTTP_DEFAULT_PORT);
        LOG_DBG("%s: assuming HTTP port %s for [%s]\n", "usock_open", port, url);
    }
    socket_spec *spec = &ctx->sspec;
    spec->writer = ctx->inbound ? 0 : 1;
    spec->non_blocking = ctx->non_blocking ? 1 : 0;
    spec->passive = 0;  // always a client, a reader or a sender
    spec->defer_listen = 0;

    char src[USOCK_HOST_SIZE];
    const char *ssm = nullptr;
    switch (ctx->url_kind) {
        case URI_KIND_UDP:
        case URI_KIND_RTP:
            spec->socktype = SOCK_DGRAM;
            if (ctx->inbound && ssm_source_of(query, src, sizeof(src))) {
                LOG_DBG("%s: SSM source=[%s]\n", "usock_open", src);
                ssm = src;
            }
            break;
        case URI_KIND_TCP:
        case URI_KIND_HTTP:
            spec->socktype = SOCK_STREAM;
            if (ctx->buf == nullptr) {
                ctx->buf = static_cast<char *>(W_calloc(__func__, 1, USOCK_BUF_SIZE));
                if (ctx->buf == nullptr) return -1;
                ctx->bufcap = USOCK_BUF_SIZE;
            }
            ctx->buflen = 0;
            break;
        default:
            LOG_ERR("%s: unsupported URI type: %d\n", "usock_open", ctx->url_kind);
            return -1;
    }

    int fd = open_socket(host, port, ssm, spec, ctx->ifc_tag, &ctx->mifc);
    if (fd < 0) return -1;
    if (!ctx->non_blocking && ctx->timeout_ms > 0) {
        int rc = ctx->inbound ? set_rcv_timeout(fd, ctx->timeout_ms)
                              : set_send_timeout(fd, ctx->timeout_ms);
        if (rc != 0) {
            usock_close(fd, ctx);  // leaves a group joined above
            return -1;
        }
    }
    return fd;
}

bool is_nonblocking(int fd, bool *nb) {
    int fl = fcntl(fd, F_GETFL);
    if (fl < 0) {
        int err = errno;
        LOG_ERR("%s: fcntl(fd%d, F_GETFL) ERROR(%d): %s\n", __func__, fd, err, strerror(err));
        return false;
    }
    *nb = (fl & O_NONBLOCK) != 0;
    return true;
}

}  // namespace

void usock_set_apptag(const char *tag) {
    if (tag == nullptr) return;
    (void)str_copy_cut(s_apptag, sizeof(s_apptag), tag);
}

const char *usock_apptag() { return s_apptag; }

int usock_open(const char *url, usock_ctx *ctx) {
    XASSERT(url != nullptr && ctx != nullptr);
    char path[URI_PATH_SIZE];
    char query[URI_QUERY_SIZE];
    ctx->url_kind = uri_extract(url, nullptr, nullptr, path, query);
    if (ctx->url_kind < 0) {
        LOG_ERR("%s: unsupported type of URI [%s]", __func__, url);
        return -1;
    }
    // A context may be opened again; what the last open left is replaced.
    free(ctx->url_path);
    free(ctx->mifc);
    ctx->mifc = nullptr;
    ctx->url_path = dup_text(__func__, path);
    ctx->non_pollable = false;
    ctx->nopoll_idx = -1;
    if (ctx->url_path == nullptr) {
        usock_close(-1, ctx);
        return -1;
    }

    int fd =
        ctx->url_kind == URI_KIND_FILE ? open_file(path, ctx) : open_net(url, path, query, ctx);
    if (fd < 0) {
        usock_close(-1, ctx);
        return -1;
    }
    if (ctx->url_kind == URI_KIND_HTTP && !ctx->skip_http) {
        if (fwd_http_rq(fd, url, s_apptag, ctx->http_flags) != 0 ||
            get_http_response(fd, ctx->buf, ctx->bufcap, &ctx->buflen) != 0) {
            usock_close(fd, ctx);
            return -1;
        }
    }
    return fd;
}

void usock_close(int fd, usock_ctx *ctx) {
    if (ctx != nullptr) {
        socket_spec *spec = &ctx->sspec;
        // Closing would drop the membership too, but a descriptor duplicated
        // elsewhere keeps the socket and with it the group alive.
        if (fd >= 0 && ctx->inbound && spec->socktype == SOCK_DGRAM && spec->multicast &&
            !spec->writer) {
            const auto *grp = reinterpret_cast<const sockaddr *>(&spec->addr_ss);
            if (spec->is_ssm)
                (void)ssm_leave(fd, grp, ctx->mifc,
                                reinterpret_cast<const sockaddr *>(&spec->src_ss));
            else
                (void)mcast_leave(fd, grp, ctx->mifc);
        }
        free(ctx->url_path);
        free(ctx->mifc);
        free(ctx->buf);
        ctx->url_path = nullptr;
        ctx->mifc = nullptr;
        ctx->buf = nullptr;
        ctx->bufcap = 0;
        ctx->buflen = 0;
    }
    if (fd >= 0) (void)W_close(__func__, fd);
}

int usock_http_get(int fd, const char *url, uint32_t flags) {
    return fwd_http_rq(fd, url, s_apptag, flags);
}

int fwd_http_rq(int fd, const char *url, const char *server, uint32_t flags) {
    XASSERT(url != nullptr);
    uri_layout u{};
    if (uri_parse(url, &u) != 0 || u.path == nullptr) {
        LOG_ERR("%s: URI has no path tail: %s\n", __func__, url);
        return -1;
    }
    char host[USOCK_HOST_SIZE];
    char port[USOCK_PORT_SIZE];
    const char *tail = uri_path_addrport(u.path, u.p_len, host, sizeof(host), port, sizeof(port));
    if (tail == nullptr) return -1;
    auto tail_len = size_t(u.path + u.p_len - tail);
    if (tail_len == 0) {
        LOG_ERR("%s: URI has no path tail: %s\n", __func__, url);
        return -1;
    }

    if (g_usock_flags.use_http10_get) LOG_DBG("%s: Using HTTP/1.0 request\n", __func__);
    http_request rq{};
    rq.type = HTTP_MT_GET;
    // Kept: the caller's flags replace the switch, which therefore only logs;
    // callers that want HTTP/1.0 pass HTTP_RQF_HTTP10 themselves.
    rq.flags = flags;

    char target[USOCK_MAX_TARGET + 1];
    if (u.query != nullptr) {
        int n = snprintf(target, sizeof(target), "%.*s?%.*s", int(tail_len), tail, int(u.q_len),
                         u.query);
        if (n < 0) {
            LOG_ERR("%s: cannot format the request target of %s\n", __func__, url);
            return -1;
        }
        // Sent cut rather than refused: origins commonly ignore the trailing
        // parameters that fall off.
        if (size_t(n) > USOCK_MAX_TARGET)
            LOG_WRN("%s: GET query is too long [%d bytes], max=%ld bytes.\n", __func__, n,
                    long(USOCK_MAX_TARGET));
    } else if (str_copy(target, sizeof(target), {tail, tail_len}) != 0) {
        // A cut path names another resource, so it is not sent at all.
        LOG_ERR("%s: GET path is too long [%zu bytes], max=%ld bytes.\n", __func__, tail_len,
                long(USOCK_MAX_TARGET));
        return -1;
    }
    rq.request = target;
    rq.server = server;
    rq.host_addr = host;
    rq.host_port = port;
    return send_http_request(fd, &rq);
}

int get_http_response(int fd, char *tail_buf, size_t tail_size, size_t *tail_len) {
    LOG_DBG("%s: reading HTTP response from fd=%d\n", __func__, fd);
    if (tail_len != nullptr) *tail_len = 0;
    char buf[USOCK_RESP_HEAD_SIZE];
    http_resp_ctx ctx{};
    const timespec span{USOCK_HTTP_TMOUT_SEC, 0};
    int rc = recv_http_response(fd, buf, sizeof(buf), &ctx);
    // Each pass of a blocking read either adds bytes, fails, or waits out the
    // socket's own receive time-out, which is what really bounds this loop.
    while (rc == USOCK_RC_AGAIN) {
        bool nb = false;
        if (!is_nonblocking(fd, &nb)) return -1;
        if (nb) {
            LOG_DBG("%s: expecting more data from fd%d\n", __func__, fd);
            return USOCK_RC_AGAIN;
        }
        // Kept: the stamp is fresh and the loop time stands still during this
        // call, so this bound never fires.
        timespec stamp{};
        set_now(&stamp);
        if (timed_out(&stamp, &span)) {
            LOG_ERR("%s: no HTTP response from fd%d within %d seconds\n", __func__, fd,
                    USOCK_HTTP_TMOUT_SEC);
            return -1;
        }
        rc = recv_http_response(fd, buf, sizeof(buf), &ctx);
    }
    if (rc != 0) return -1;  // the reader said why
    if (ctx.code != HTTP_OK) {
        LOG_ERR("%s: expected HTTP %d, got HTTP %d\n", __func__, HTTP_OK, ctx.code);
        return -1;
    }
    ssize_t tail = ctx.total - ctx.tail;
    if (tail > 0 && tail_buf != nullptr && tail_len != nullptr) {
        if (size_t(tail) > tail_size) {
            LOG_ERR("%s: tail for fd%d is too big: %ld bytes, skipping\n", __func__, fd,
                    long(tail));
        } else {
            memcpy(tail_buf, buf + ctx.tail, size_t(tail));
            *tail_len = size_t(tail);
            LOG_DBG("%s: response for fd%d has a tail of %lu bytes\n", __func__, fd,
                    static_cast<unsigned long>(tail));
        }
    }
    return 0;
}

int usock_http_get_response(int fd, http_resp_buf *rb) {
    XASSERT(rb != nullptr && rb->buf != nullptr && rb->ctx.total >= 0);
    LOG_DBG("%s: reading HTTP response from fd=%d\n", __func__, fd);
    if (size_t(rb->ctx.total) >= rb->len) {
        LOG_ERR("%s: buffer is full, size=%ld\n", __func__, long(rb->len));
        return USOCK_RC_FULL;
    }
    int rc = recv_http_response(fd, rb->buf, rb->len, &rb->ctx);
    if (rc == 0) {
        int code = rb->ctx.code;
        if (code < 200 || code > 299) {
            LOG_WRN("%s: expected HTTP %d-%d, got HTTP %d\n", __func__, 200, 299, code);
            return USOCK_RC_BAD_STATUS;
        }
        if (ssize_t tail = rb->ctx.total - rb->ctx.tail; tail > 0)
            LOG_DBG("%s: got HTTP tail of %ld bytes from fd%d\n", __func__, long(tail), fd);
        return 0;
    }
    if (rc == USOCK_RC_AGAIN) {
        LOG_DBG("%s: [%ld bytes] in, expecting more data from fd%d\n", __func__,
                long(rb->ctx.total), fd);
        return USOCK_RC_AGAIN;
    }
    LOG_ERR("%s: err=%d getting HTTP response from fd%d\n", __func__, rc, fd);
    return rc;
}

int usock_http_get_body(int fd, http_body_buf *bb) {
    XASSERT(bb != nullptr && (bb->data != nullptr || bb->buf_size == 0));
    // Every pass adds at least one byte or returns.
    while (bb->data_len < bb->buf_size) {
        size_t want = bb->buf_size - bb->data_len;
        ssize_t n = nread(fd, bb->data + bb->data_len, want, 0);
        int err = n < 0 ? errno : 0;
        LOG_DBG("%s: read(fd%d..) %ld bytes, %ld left to read\n", __func__, fd, long(n),
                long(want - (n > 0 ? size_t(n) : 0)));
        if (n <= 0) {
            if (err == EAGAIN || err == EWOULDBLOCK) return USOCK_RC_AGAIN;
            // End of stream, or a read cut short because the process quits.
            if (err == 0) return -1;
            return err;
        }
        bb->data_len += size_t(n);
    }
    LOG_DBG("%s: complete at %lu bytes\n", __func__, static_cast<unsigned long>(bb->data_len));
    return 0;
}

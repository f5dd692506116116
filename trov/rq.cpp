// rq: HTTP download requests (see rq.h).
#include "rq.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "app.h"
#include "cfg.h"
#include "log.h"
#include "meta.h"
#include "netops.h"
#include "rqs.h"
#include "stats.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"

LOG_MODULE(0);

namespace {
rui_request *cb_new(int fd, rui_socket_ctx *srv, void *user) {
    return reinterpret_cast<rui_request *>(urq_new(fd, srv, user));
}
void cb_rm(rui_request *rq) { urq_rm(reinterpret_cast<dw_urq *>(rq)); }
bool cb_tmout(rui_request *rq, long ms) { return urq_timeout(reinterpret_cast<dw_urq *>(rq), ms); }
// Nothing there yet leaves the request waiting for its readable event.
bool cb_accepted(rui_request *rq) {
    auto *urq = reinterpret_cast<dw_urq *>(rq);
    (void)urq_read(urq);
    return urq->state.num == URQ_QUI.num;
}

const rui_socket_cb s_urq_cb = {
    .tag = URQ_TAG,
    .new_rq = cb_new,
    .rm_rq = cb_rm,
    .time_out = cb_tmout,
    .on_accepted = cb_accepted,
};

void set_urq_state(dw_urq *urq, n32_tag state) {
    XASSERT(urq->state.num != state.num);
    urq->state = state;
}

// Sends the answer chosen for the request: 500 when none was chosen. An
// order is decided by it (a ping is no order).
void send_answer(dw_urq *urq, bool is_order) {
    if (urq->hresp == nullptr) urq->hresp = http_code_resp(500);
    if (urq->hresp->server == nullptr) urq->hresp->server = get_app_tag(nullptr);
    stats_http_answer(urq->hresp->code);
    if (is_order) stats_order(STATS_HTTP, urq->hresp->code == 200 ? STATS_ACCEPTED : STATS_REFUSED);
    (void)send_http_response(urq->sockfd, urq->hresp);
}

// "expiry=<seconds>" from the query cut off the source.
time_t query_expiry(const char *query) {
    const char *e = strstr(query, "expiry=");
    if (e == nullptr) return 0;
    long v = 0;
    int n = sscanf(e, "expiry=%ld%*s", &v);
    if (n != 1) {
        LOG_WRN("%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n", "parse_dw_get", e, n);
        return 0;
    }
    return time_t(v);
}
}  // namespace

const rui_socket_cb *urq_callbacks() { return &s_urq_cb; }

dw_urq *urq_new(int fd, rui_socket_ctx *srv, [[maybe_unused]] void *user) {
    auto *urq = static_cast<dw_urq *>(W_calloc(__func__, 1, sizeof(dw_urq)));
    if (urq == nullptr) return nullptr;
    urq->tag = URQ_TAG;
    urq->state = URQ_INI;
    urq->sockfd = fd;
    urq->srv = srv;
    urq->pprm_idx = -1;
    set_timeout(TMOUT_KEY_URQ, URQ_TMOUT_MS);
    rui_mk_trknum(&srv->rqcount, &urq->trk_tag, 'u', URQ_TRK_MAX);
    LOG_INF("%s [%s] (%p) created\n", URQ_TAG.str, urq->trk_tag.str, static_cast<void *>(urq));
    urq->wait_start_tm = rqs_now();
    return urq;
}

void urq_rm(dw_urq *urq) {
    LOG_INF("%s: %s [%s] (%p)\n", __func__, URQ_TAG.str, urq->trk_tag.str,
            static_cast<void *>(urq));
    if (urq->sockfd >= 0) {
        (void)W_close(__func__, urq->sockfd);
        urq->sockfd = -1;
    }
    free(urq->hrq.hbuf);
    urq->hrq.hbuf = nullptr;
    urq->tag.num = 0;
    urq->state.num = 0;
    rm_timeout(TMOUT_KEY_URQ);
    LOG_DBG("%s: freed (%p)\n", __func__, static_cast<void *>(urq));
    free(urq);
}

bool urq_timeout(dw_urq *urq, long ms) {
    timespec span{};
    ms2timespec(ms, &span);
    if (!timed_out(&urq->wait_start_tm, &span)) return false;
    timespec now = rqs_now();
    LOG_WRN("%s: TIME-OUT %s [%s] (%p) start-tm: %lu.%lu, now=%lu.%lu\n", __func__, URQ_TAG.str,
            urq->trk_tag.str, static_cast<void *>(urq),
            static_cast<unsigned long>(urq->wait_start_tm.tv_sec),
            static_cast<unsigned long>(urq->wait_start_tm.tv_nsec),
            static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_nsec));
    pprm_urq(urq);
    return true;
}

void urq_error(dw_urq *urq, bool is_hangup) {
    int err = socket_error(urq->sockfd);
    LOG_ERR("%s: %s URQ(%p) [%s] ERROR(%d): %s\n", __func__, is_hangup ? "HUP" : "",
            static_cast<void *>(urq), urq->trk_tag.str, err, strerror(err));
    pprm_urq(urq);
}

void pprm_urq(dw_urq *urq) {
    rui_socket_ctx *srv = urq->srv;
    if (urq->pprm_idx >= 0) {
        LOG_WRN("%s: %s [%s] (%p) is already PPRM-ed\n", __func__, URQ_TAG.str, urq->trk_tag.str,
                static_cast<void *>(urq));
        return;
    }
    ssize_t j = xvlst_add(&srv->pprm, sizeof(void *), 1);
    if (j < 0) {
        LOG_ERR("%s: xvlst_add ERROR\n", __func__);
        log_abort_here();
    }
    static_cast<void **>(srv->pprm.data)[j] = urq;
    urq->pprm_idx = j;
    LOG_DBG("%s: added (%p) to pprm[%zi] (%p) for listener fd%d\n", __func__,
            static_cast<void *>(urq), j, static_cast<void *>(srv), srv->sockfd);
    LOG_INF("%s: %s [%s] (%p) is to END j=%zd\n", __func__, URQ_TAG.str, urq->trk_tag.str,
            static_cast<void *>(urq), j);
}

int read_http_rq(dw_urq *urq) {
    http_rq &h = urq->hrq;
    if (h.hbuf == nullptr) {
        h.hbuf = static_cast<char *>(W_calloc(__func__, 1, URQ_HEAD_SIZE));
        if (h.hbuf == nullptr) return -12;
    }
    while (h.hlen < URQ_HEAD_SIZE - 1) {
        size_t eod = 0;
        errno = 0;
        ssize_t n = read_http(urq->sockfd, h.hbuf, URQ_HEAD_SIZE - 1, h.hlen, &eod);
        if (n <= 0) {
            int err = errno;
            if (n < 0 && (err == EAGAIN || err == EWOULDBLOCK)) {
                // Part of a head is in: the rest must wake the request
                // however short it is, so the low-water mark goes.
                if (h.hlen > 0) {
                    int one = 1;
                    (void)setsockopt(urq->sockfd, SOL_SOCKET, SO_RCVLOWAT, &one, sizeof one);
                }
                return 11;
            }
            LOG_INF("%s: client fd=%d closed connection\n", __func__, urq->sockfd);
            // The end of the stream is a reset as far as this request goes.
            return err != 0 ? err : ECONNRESET;
        }
        h.hlen += size_t(n);
        h.hbuf[h.hlen] = '\0';
        LOG_DBG("%s: %s HTTP buffer [%ld bytes] received:\n%s", __func__,
                eod > 0 ? "complete" : "partial", long(h.hlen), h.hbuf);
        if (eod > 0) {
            h.hpos = eod;
            if (h.hlen > eod) LOG_WRN("%s: request has tail data, dismissing the tail\n", __func__);
            return 0;
        }
    }
    // A head that does not fit in 1023 bytes is a programming limit the
    // clients of this service are built to respect.
    XASSERT(h.hlen < URQ_HEAD_SIZE - 1);
    return -1;
}

int validate_request([[maybe_unused]] dw_urq *urq, dw_spec *spec) {
    return setup_dw_spec(urq->uri_src, urq->uri_dst, 255, spec);
}

int parse_dw_get(dw_urq *urq, dw_spec *spec) {
    int rc = web_parse_urq(urq->hrq.hbuf, urq->hrq.hpos, urq->uri_src, urq->uri_dst,
                           sizeof urq->uri_src, &urq->hrq.header);
    if (rc == 0) {
        LOG_DBG("%s: %s [%s] (%p): src=[%s], dst=[%s]\n", __func__, URQ_TAG.str, urq->trk_tag.str,
                static_cast<void *>(urq), urq->uri_src, urq->uri_dst);
        if (char *q = strchr(urq->uri_src, '?'); q != nullptr) {
            *q = '\0';
            spec->expiry_tm = query_expiry(q + 1);
        }
        rc = validate_request(urq, spec);
        if (rc == 0)
            LOG_DBG("%s: url=[%s], path=[%s], expiry=%ld\n", __func__, spec->url, spec->fpath,
                    long(spec->expiry_tm));
    }
    if (rc == -3) {
        urq->hresp = http_code_resp(204);
        LOG_DBG("%s: PING: will send HTTP 204\n", __func__);
    } else if (rc != 0) {
        urq->hresp = http_code_resp(400);
        LOG_ERR("%s: %s [%s] (%p): src=[%s], dst=[%s], ERROR(%d)\n", __func__, URQ_TAG.str,
                urq->trk_tag.str, static_cast<void *>(urq), urq->uri_src, urq->uri_dst, rc);
    }
    return rc;
}

int urq_read(dw_urq *urq) {
    XASSERT(urq->tag.num == URQ_TAG.num);
    LOG_DBG("%s: fd%d (%s)\n", __func__, urq->sockfd, urq->state.str);
    if (urq->state.num == URQ_INI.num) {
        urq->hresp = nullptr;
        set_urq_state(urq, URQ_RD);
    }
    int rc = read_http_rq(urq);
    if (rc == 11) {
        LOG_DBG("%s: need more data on %s [%s] (%p)\n", __func__, URQ_TAG.str, urq->trk_tag.str,
                static_cast<void *>(urq));
        return 0;
    }
    if (rc == 0) {
        dw_spec spec{};
        rc = parse_dw_get(urq, &spec);
        bool answer = false;
        if (rc == -3) {
            LOG_INF("%s: PONG!\n", __func__);
            urq->hresp = http_code_resp(204);
            answer = true;
        } else if (rc != 0) {
            LOG_ERR("%s: malformed HTTP request: %s\n", __func__, urq->hrq.hbuf);
            if (urq->hresp == nullptr) urq->hresp = http_code_resp(400);
            answer = true;
        } else if (urq->hrq.header.type == HTTP_MT_HEAD) {
            LOG_INF("%s: nothing to do for HEAD request\n", __func__);
        } else if (is_local_url(spec.url)) {
            LOG_DBG("%s: [%s] is local URL, no download required\n", __func__, spec.url);
            if (g_cfg.lbdb.port > 0) {
                LOG_DBG("%s: adding local URL to LBDB\n", __func__);
                (void)add_lbdb_url(&spec);
            }
            urq->hresp = http_code_resp(200);
            answer = true;
        } else {
            // Whatever the outcome, the engine may hold a duplicate until
            // its own clean-up.
            urq->shared = true;
            rc = mk_dw_task(urq->sockfd, &spec);
            answer = rc != 0;
        }
        if (answer) send_answer(urq, rc != -3);
    }
    // Everything but "need more data" ends the request here; the engine keeps
    // its own duplicate of the connection when it took the order.
    set_urq_state(urq, URQ_QUI);
    pprm_urq(urq);
    return 0;
}

int setup_dw_spec(const char *src, const char *dst, size_t size, dw_spec *spec) {
    LOG_DBG("%s: src=[%s] dst=[%s]\n", __func__, src, dst);
    std::string_view s(src);
    if (s.size() <= 6 || !s.starts_with("http://")) {
        LOG_ERR("%s: non-HTTP or invalid src=[%s]\n", __func__, src);
        return 22;
    }
    char derived[256];
    if (dst[0] == '\0') {
        const char *p = strchr(src + 7, '/');
        if (p == nullptr) {
            LOG_ERR("%s: cannot extract path from source URL: %s\n", __func__, src);
            return 22;
        }
        snprintf(derived, sizeof derived, "%.*s", int(size < 255 ? size : 255), p + 1);
        dst = derived;
        LOG_DBG("%s: source-based dst=[%s]\n", __func__, dst);
    }
    if (!is_safe_dst(dst)) {
        LOG_ERR("%s: unsafe destination path [%s]\n", __func__, dst);
        return 22;
    }
    if (int rc = init_spec(g_cfg.data_dir, src, dst, spec); rc != 0) return rc;
    int rc = check_and_expire(spec->fpath, SEG_STALE_SEC);
    if (rc == 16) {
        LOG_ERR("%s: [%s] already exists\n", __func__, spec->fpath);
        return 17;
    }
    return rc;
}

namespace {
// The directory of the last destination made sure of. Orders for one place
// come in runs, and making a directory that exists still walks its path.
char s_known_dir[sizeof(dw_spec::fpath)];
}  // namespace

int ensure_dest_dirs(const char *fpath) {
    const char *slash = strrchr(fpath, '/');
    size_t len = slash != nullptr ? size_t(slash - fpath) : 0;
    bool fits = len > 0 && len < sizeof s_known_dir;
    if (fits && s_known_dir[len] == '\0' && memcmp(s_known_dir, fpath, len) == 0) return 0;
    int rc = mk_fpath_dirs(fpath, 0755);
    if (rc == 0 && fits) {
        memcpy(s_known_dir, fpath, len);
        s_known_dir[len] = '\0';
    }
    return rc;
}

void forget_dest_dirs() { s_known_dir[0] = '\0'; }

int init_spec(const char *data_dir, const char *src, const char *dst, dw_spec *spec) {
    size_t dlen = strlen(data_dir);
    const char *sep = (dlen > 0 && data_dir[dlen - 1] == '/') ? "" : "/";
    int n = snprintf(spec->fpath, sizeof spec->fpath, "%s%s%s%s", data_dir, sep, dst, SEG_TMP_EXT);
    if (n < 0 || size_t(n) >= sizeof spec->fpath) {
        LOG_ERR("%s: full path is too long: %zd/%zu\n", __func__, ssize_t(n), sizeof spec->fpath);
        spec->fpath[0] = '\0';
        return 34;
    }
    size_t slen = strlen(src);
    if (slen >= sizeof spec->url) {
        LOG_ERR("%s: source URL is too long: %zu/%zu\n", __func__, slen, sizeof spec->url);
        return 34;
    }
    if (int rc = ensure_dest_dirs(spec->fpath); rc != 0) {
        LOG_ERR("%s: cannot ensure dest path [%s]\n", __func__, spec->fpath);
        return rc;
    }
    memcpy(spec->url, src, slen + 1);
    snprintf(spec->dst_path, sizeof spec->dst_path, "%s", dst);
    spec->content_length = 0;
    return 0;
}

bool is_safe_dst(const char *dst) {
    std::string_view rest(dst);
    while (!rest.empty()) {
        size_t slash = rest.find('/');
        std::string_view seg = rest.substr(0, slash);
        if (seg == "..") return false;
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return true;
}

bool is_unfinished_seg(const char *path) {
    std::string_view p(path);
    return !p.empty() && p.ends_with(SEG_TMP_EXT);
}

int cutoff_segext(char *path) {
    size_t n = strlen(path);
    if (n == 0) return 22;
    if (!is_unfinished_seg(path)) return 3;
    path[n - SEG_TMP_EXT_LEN] = '\0';
    return 0;
}

// adm: admin requests (see adm.h).
#include "adm.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "app.h"
#include "cfg.h"
#include "fdio.h"
#include "log.h"
#include "meta.h"
#include "rq.h"
#include "rqs.h"
#include "srcpool.h"
#include "stats.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

LOG_MODULE(0);

namespace {
constexpr size_t ANSWER_SIZE = 32768;  // head and metrics; the exposition is a few KiB
constexpr int WRITE_WAIT_MS = 100;     // per try, when the client reads slowly
constexpr int WRITE_TRIES = 10;
constexpr const char METRICS_TYPE[] = "text/plain; version=0.0.4; charset=utf-8";

char s_answer[ANSWER_SIZE];

rui_request *cb_new(int fd, rui_socket_ctx *srv, void *) {
    auto *rq = static_cast<adm_rq *>(W_calloc("adm_new", 1, sizeof(adm_rq)));
    if (rq == nullptr) return nullptr;
    rq->tag = ARQ_TAG;
    rq->sockfd = fd;
    rq->srv = srv;
    rq->pprm_idx = -1;
    rq->wait_start_tm = rqs_now();
    set_timeout(TMOUT_KEY_URQ, URQ_TMOUT_MS);
    rui_mk_trknum(&srv->rqcount, &rq->trk_tag, 'a', ADM_TRK_MAX);
    LOG_DBG("%s [%s] (%p) created\n", ARQ_TAG.str, rq->trk_tag.str, static_cast<void *>(rq));
    return reinterpret_cast<rui_request *>(rq);
}

void cb_rm(rui_request *r) {
    auto *rq = reinterpret_cast<adm_rq *>(r);
    if (rq->sockfd >= 0) (void)W_close("adm_rm", rq->sockfd);
    rq->tag.num = 0;
    rm_timeout(TMOUT_KEY_URQ);
    free(rq);
}

void pprm_adm(adm_rq *rq) {
    if (rq->pprm_idx >= 0) return;
    ssize_t j = xvlst_add(&rq->srv->pprm, sizeof(void *), 1);
    if (j < 0) {
        LOG_ERR("%s: xvlst_add ERROR\n", __func__);
        log_abort_here();
    }
    static_cast<void **>(rq->srv->pprm.data)[j] = rq;
    rq->pprm_idx = j;
}

bool cb_tmout(rui_request *r, long ms) {
    auto *rq = reinterpret_cast<adm_rq *>(r);
    timespec span{};
    ms2timespec(ms, &span);
    if (!timed_out(&rq->wait_start_tm, &span)) return false;
    LOG_WRN("%s: TIME-OUT %s [%s] (%p)\n", "adm_timeout", ARQ_TAG.str, rq->trk_tag.str,
            static_cast<void *>(rq));
    pprm_adm(rq);
    return true;
}

const rui_socket_cb s_adm_cb = {
    .tag = ARQ_TAG,
    .new_rq = cb_new,
    .rm_rq = cb_rm,
    .time_out = cb_tmout,
    .on_accepted = nullptr,
};

const char *reason(int code) {
    switch (code) {
        case 200:
            return "OK";
        case 204:
            return "No Content";
        case 400:
            return "Bad Request";
        default:
            return "Not Found";
    }
}

// Writes all of len bytes; a client that does not read is given a bounded
// wait, then dropped.
void send_all(adm_rq *rq, const char *buf, size_t len) {
    size_t done = 0;
    for (int tries = 0; done < len && tries < WRITE_TRIES;) {
        ssize_t n = nwrite(rq->sockfd, buf + done, len - done, 0);
        if (n > 0) {
            done += size_t(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
            wait_to_write(rq->sockfd, WRITE_WAIT_MS) >= 0) {
            ++tries;
            continue;
        }
        break;
    }
    if (done < len)
        LOG_WRN("%s: %s [%s] answer cut short: %zu/%zu bytes\n", __func__, ARQ_TAG.str,
                rq->trk_tag.str, done, len);
}

void answer(adm_rq *rq, int code, bool metrics, bool head_only) {
    char *body = s_answer + ANSWER_SIZE / 4;  // room for the head before it
    long blen = 0;
    if (metrics) {
        const stats_gauges g{.tasks_active = g_ctx.tasks.len,
                             .tasks_max = g_cfg.max_tasks,
                             .udp_dropped = g_ctx.udl.drops,
                             .src_new = g_src_conn_new,
                             .src_reused = g_src_conn_reused};
        blen = stats_render(&g, body, ANSWER_SIZE - ANSWER_SIZE / 4);
        if (blen < 0) {
            LOG_ERR("%s: the metrics do not fit in %zu bytes\n", __func__,
                    ANSWER_SIZE - ANSWER_SIZE / 4);
            code = 500, metrics = false, blen = 0;
        }
    }
    char head[512];
    int n = code == 204 ? snprintf(head, sizeof head,
                                   "HTTP/1.1 204 No Content\r\nServer: %s\r\n"
                                   "Connection: close\r\n\r\n",
                                   get_app_tag(nullptr))
                        : snprintf(head, sizeof head,
                                   "HTTP/1.1 %d %s\r\nServer: %s\r\nContent-Type: %s\r\n"
                                   "Content-Length: %ld\r\nConnection: close\r\n\r\n",
                                   code, code == 500 ? "Internal Server Error" : reason(code),
                                   get_app_tag(nullptr),
                                   metrics ? METRICS_TYPE : "text/plain; charset=utf-8",
                                   metrics ? blen : 0L);
    if (n < 0 || size_t(n) >= sizeof head) return;
    // The head goes right before the body, so one write carries both.
    char *start = body - n;
    memcpy(start, head, size_t(n));
    send_all(rq, start, size_t(n) + (head_only ? 0 : size_t(blen)));
    LOG_DBG("%s: %s [%s] HTTP %d, %ld body bytes\n", __func__, ARQ_TAG.str, rq->trk_tag.str, code,
            head_only ? 0L : blen);
}

// The end of the head in text (its blank line), or npos.
size_t head_end(std::string_view text) {
    size_t crlf = text.find("\r\n\r\n");
    size_t lf = text.find("\n\n");
    if (crlf == std::string_view::npos) return lf == std::string_view::npos ? lf : lf + 2;
    return (lf != std::string_view::npos && lf < crlf) ? lf + 2 : crlf + 4;
}
}  // namespace

const rui_socket_cb *adm_callbacks() { return &s_adm_cb; }

int adm_route(const char *head, size_t len, bool *metrics, bool *head_only) {
    *metrics = *head_only = false;
    std::string_view text(head, len);
    std::string_view line = text.substr(0, text.find('\n'));
    if (line.ends_with('\r')) line.remove_suffix(1);
    size_t sp1 = line.find(' ');
    size_t sp2 = sp1 == std::string_view::npos ? sp1 : line.find(' ', sp1 + 1);
    if (sp1 == 0 || sp2 == std::string_view::npos || sp2 == sp1 + 1) return 400;
    std::string_view method = line.substr(0, sp1);
    std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    std::string_view proto = line.substr(sp2 + 1);
    if (!proto.starts_with("HTTP/1.") || proto.size() != 8 || target[0] != '/') return 400;
    for (char c : method)
        if (c < 'A' || c > 'Z') return 400;
    target = target.substr(0, target.find('?'));
    const bool get = method == "GET";
    *head_only = method == "HEAD";
    if (!get && !*head_only) return 404;
    if (target == "/") return 204;
    if (target != "/metrics") return 404;
    *metrics = true;
    return 200;
}

int adm_read(adm_rq *rq) {
    if (rq->pprm_idx >= 0) return 0;  // answered already; the removal comes
    while (rq->hlen < ADM_HEAD_SIZE - 1) {
        ssize_t n = nread(rq->sockfd, rq->head + rq->hlen, ADM_HEAD_SIZE - 1 - rq->hlen, 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;  // more to come
        if (n <= 0) {
            LOG_DBG("%s: %s [%s] closed before a whole head\n", __func__, ARQ_TAG.str,
                    rq->trk_tag.str);
            pprm_adm(rq);
            return 0;
        }
        rq->hlen += size_t(n);
        rq->head[rq->hlen] = '\0';
        if (size_t end = head_end({rq->head, rq->hlen}); end != std::string_view::npos) {
            bool metrics = false, head_only = false;
            int code = adm_route(rq->head, end, &metrics, &head_only);
            answer(rq, code, metrics, head_only);
            pprm_adm(rq);
            return 0;
        }
    }
    LOG_WRN("%s: %s [%s] head over %zu bytes\n", __func__, ARQ_TAG.str, rq->trk_tag.str,
            ADM_HEAD_SIZE - 1);
    answer(rq, 400, false, false);
    pprm_adm(rq);
    return 0;
}

void adm_error(adm_rq *rq) {
    LOG_DBG("%s: %s [%s] error or hang-up\n", __func__, ARQ_TAG.str, rq->trk_tag.str);
    pprm_adm(rq);
}

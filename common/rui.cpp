// rui: web listeners and their request lists (see rui.h).
#include "rui.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "rqs.h"
#include "syswrap.h"
#include "util.h"

LOG_MODULE(0);

namespace {
rui_socket_cb s_cb[RUI_MAX];

const char *kind_str(const rui_socket_ctx *srv) { return srv->rqtag.str; }

const char *alias_of(const rui_socket_ctx *srv) {
    return srv->lc != nullptr ? srv->lc->alias : "?";
}

bool is_set_up(const rui_socket_ctx *srv) { return srv->requests != nullptr; }

size_t rq_count(const rui_socket_ctx *srv) {
    return srv->requests != nullptr ? dlep_count(srv->requests) : 0;
}

rui_socket_ctx *kind_slots(rui_ctx *ctx, int kind) {
    XASSERT(kind >= 0 && kind < RUI_MAX);
    switch (kind) {
        case RUI_USER:
            return ctx->user;
        case RUI_ADMIN:
            return ctx->admin;
        default:
            return ctx->custom;
    }
}

// Membership is told by the links: an element alone on its list is its head.
bool in_list(const dlep_list *l, const dlep_elem *e) {
    return e->prev != nullptr || e->next != nullptr || dlep_head(l) == e;
}

// List callbacks get the storage and a slot index.
int match_ptr(void *data, size_t i, void *key) { return static_cast<void **>(data)[i] == key; }

void rm_request(rui_request *rq, bool keep_in_pprm) {
    rui_socket_ctx *srv = rq->srv;
    if (rq->sockfd >= 0) {
        if (rq->sockfd < FD_SETSIZE) FD_CLR(rq->sockfd, &srv->accset);
        // The close below takes an unshared descriptor out of the epoll set.
        if (rq->registered && !rq->shared)
            (void)rqs_forget_fd(rq->sockfd);
        else if (rq->registered && rqs_rm_fd(rq->sockfd) != 0)
            LOG_ERR("%s: failed to remove fd=%d from the monitored set.\n", __func__, rq->sockfd);
    }
    if (!keep_in_pprm && xvlst_rmif(&srv->pprm, rq, match_ptr, nullptr) > 0)
        LOG_DBG("%s: removed (%p) from PPRM\n", __func__, static_cast<void *>(rq));
    if (!in_list(srv->requests, &rq->link)) {
        LOG_ERR("%s: failed to remove %s request [%p] from queue\n", __func__, kind_str(srv),
                static_cast<void *>(rq));
        return;
    }
    dlep_rm(srv->requests, &rq->link);
    int fd = rq->sockfd;
    if (rq->sockfd >= 0) {
        (void)W_close(__func__, rq->sockfd);
        rq->sockfd = -1;
    }
    srv->cb->rm_rq(rq);
    LOG_INF("%s: OK for fd=%d rq=%p\n", __func__, fd, static_cast<void *>(rq));
}

void pprm_srv(rui_socket_ctx *slots) {
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        rui_socket_ctx *srv = &slots[i];
        if (!is_set_up(srv) || srv->pprm.len == 0) continue;
        LOG_DBG("%s: [%s] listener[%s], %zu pprm items\n", __func__, kind_str(srv), alias_of(srv),
                srv->pprm.len);
        auto **items = static_cast<rui_request **>(srv->pprm.data);
        for (size_t j = 0; j <= srv->pprm.last && srv->pprm.len > 0; ++j) {
            if (!srv->pprm.taken[j]) continue;
            rui_request *rq = items[j];
            LOG_DBG("%s: %s [%s] (%p) j=%ld\n", "pprm_cleanup", kind_str(srv), alias_of(srv),
                    static_cast<void *>(rq), long(j));
            rm_request(rq, true);
        }
        xvlst_purge_all(&srv->pprm, nullptr);
        LOG_DBG("%s: done for for [%s]\n", __func__, kind_str(srv));
    }
}

size_t tmout_srv(rui_socket_ctx *slots, long ms) {
    size_t count = 0;
    const char *kind = "?";
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        rui_socket_ctx *srv = &slots[i];
        if (!is_set_up(srv)) continue;
        XASSERT(srv->cb->time_out != nullptr);
        kind = kind_str(srv);
        // From the oldest: time_out only lists a request, so the links stay.
        for (dlep_elem *e = dlep_tail(srv->requests); e != nullptr; e = e->next) {
            if (srv->cb->time_out(reinterpret_cast<rui_request *>(e), ms)) ++count;
        }
    }
    if (count > 0)
        LOG_WRN("%s: %lu [%s] requests timed out\n", __func__, static_cast<unsigned long>(count),
                kind);
    else
        LOG_DBG("%s: no time-outs for [%s]\n", __func__, kind);
    return count;
}

void drop_listener(rui_socket_ctx *srv) {
    // Slots never set up (or a context that was never initialised) hold
    // nothing: in particular a zeroed descriptor is not ours to close.
    if (srv->lc == nullptr) return;
    if (srv->sockfd >= 0) rui_stop_listener(srv);
    if (srv->requests != nullptr) {
        while (dlep_elem *e = dlep_tail(srv->requests))
            rm_request(reinterpret_cast<rui_request *>(e), false);
        dlep_destroy(srv->requests, nullptr);
        srv->requests = nullptr;
    }
    xvlst_reset(&srv->pprm);
    if (srv->lc != nullptr) {
        free(srv->lc->ifc);
        srv->lc->ifc = nullptr;
    }
    srv->lc = nullptr;
    srv->deferred = false;
}

int open_listener_socket(const rui_listener_cfg *lc) {
    if (lc->domain_path[0] != '\0') return open_domain_listener(lc->domain_path);
    if (lc->proto == IPPROTO_UDP) {
        sockaddr_storage ss{};
        if (lc->ifc != nullptr) {
            ss = lc->ifc->ss;
        } else if (lc->pref_af == AF_INET6) {
            reinterpret_cast<sockaddr_in6 &>(ss) = sockaddr_in6{};
            ss.ss_family = AF_INET6;
        } else {
            ss.ss_family = AF_INET;
        }
        return open_udp_listener(&ss, lc->port);
    }
    if (lc->ifc != nullptr) {
        sockaddr_storage ss = lc->ifc->ss;
        return open_listener(&ss, lc->port, false);
    }
    return open_anyaddr_listener(lc->pref_af, lc->port, false);
}
}  // namespace

void rui_set_cb(int kind, const rui_socket_cb *cb) {
    XASSERT(kind >= 0 && kind < RUI_MAX);
    s_cb[kind] = *cb;
}

int rui_setup_listeners(int kind, rui_listener_cfg *cfg, rui_socket_ctx *slots) {
    XASSERT(kind >= 0 && kind < RUI_MAX);
    rui_socket_cb *cb = &s_cb[kind];
    size_t count = 0;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        rui_socket_ctx *srv = &slots[i];
        srv->sockfd = -1;
        if (!cfg[i].is_valid) continue;
        if (cb->new_rq == nullptr || cb->rm_rq == nullptr) continue;
        int err = 0;
        srv->requests = dlep_create(&err);
        if (srv->requests == nullptr) {
            LOG_ERR("%s: dlep_create() failed rc=%d\n", __func__, err);
            return err != 0 ? err : -1;
        }
        if (int rc = xvlst_reserve(&srv->pprm, RUI_PPRM_RESERVE, sizeof(void *), 1); rc != 0) {
            LOG_ERR("%s: xvlst_reserve() failed rc=%d\n", __func__, rc);
            return rc;
        }
        FD_ZERO(&srv->accset);
        srv->tag = RSC_TAG;
        srv->rqtag = cb->tag;
        srv->lc = &cfg[i];
        srv->cb = cb;
        ++count;
    }
    LOG_DBG("%s: %lu [%s] listeners set up\n", __func__, static_cast<unsigned long>(count),
            cb->tag.str);
    return 0;
}

int rui_ctx_init(rui_cfg *cfg, rui_ctx *ctx) {
    FD_ZERO(&ctx->user_fds);
    FD_ZERO(&ctx->admin_fds);
    FD_ZERO(&ctx->custom_fds);
    rui_listener_cfg *kinds[RUI_MAX] = {cfg->user, cfg->admin, cfg->custom};
    for (int k = 0; k < RUI_MAX; ++k) {
        if (int rc = rui_setup_listeners(k, kinds[k], kind_slots(ctx, k)); rc != 0) return rc;
    }
    return 0;
}

int rui_enable_listeners(rui_socket_ctx *slots) {
    size_t count = 0;
    const char *kind = "?";
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        rui_socket_ctx *srv = &slots[i];
        if (!is_set_up(srv)) continue;
        kind = kind_str(srv);
        if (int rc = rui_start_listener(srv->lc, srv); rc != 0) return rc;
        ++count;
    }
    LOG_DBG("%s: %lu [%s] listener(s) started\n", __func__, static_cast<unsigned long>(count),
            kind);
    return 0;
}

int rui_ctx_start(rui_ctx *ctx) {
    for (int k = 0; k < RUI_MAX; ++k) {
        if (int rc = rui_enable_listeners(kind_slots(ctx, k)); rc != 0) return rc;
    }
    return 0;
}

void rui_ctx_destroy(rui_ctx *ctx) {
    for (int k = 0; k < RUI_MAX; ++k) {
        rui_socket_ctx *slots = kind_slots(ctx, k);
        for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) drop_listener(&slots[i]);
    }
}

int rui_start_listener(rui_listener_cfg *cfg, rui_socket_ctx *srv) {
    if (srv->sockfd != -1) return 0;
    int fd = open_listener_socket(cfg);
    if (fd >= 0 && rqs_add_reader(fd, srv) != 0) {
        (void)W_close(__func__, fd);
        fd = -1;
    }
    if (fd < 0) {
        LOG_ERR("%s: failed to start %s listener\n", __func__, cfg->alias);
        return -1;
    }
    srv->sockfd = fd;
    srv->deferred = false;
    int lowat = RUI_RCVLOWAT;
    srv->lowat_on_listener = cfg->domain_path[0] == '\0' && cfg->proto != IPPROTO_UDP &&
                             setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat) == 0;
    srv->lowat_checked = false;
    char addr[SADDR_STR_SIZE] = "*";
    if (cfg->domain_path[0] != '\0') {
        snprintf(addr, sizeof addr, "%s", cfg->domain_path);
    } else if (cfg->ifc != nullptr) {
        sockaddr_storage ss = cfg->ifc->ss;
        reinterpret_cast<sockaddr_in &>(ss).sin_port = 0;  // the same place in both families
        saddr_str(reinterpret_cast<const sockaddr *>(&ss), sizeof ss, addr, sizeof addr);
    }
    LOG_INF("STARTED listener fd%d for %s requests on %s:%s; %lu requests pending\n", fd,
            kind_str(srv), addr, cfg->port, static_cast<unsigned long>(rq_count(srv)));
    return 0;
}

void rui_stop_listener(rui_socket_ctx *srv) {
    if (srv->sockfd < 0) return;
    int fd = srv->sockfd;
    (void)rqs_rm_fd(fd);
    (void)W_close(__func__, fd);
    srv->sockfd = -1;
    srv->deferred = true;
    if (size_t n = rq_count(srv); n > 0)
        LOG_WRN("%s listener fd%d wll be closed (%lu requsts queued)\n", kind_str(srv), fd,
                static_cast<unsigned long>(n));
}

bool rui_can_listen(const rui_socket_ctx *srv, size_t max) { return rq_count(srv) < max; }

bool rui_should_listen(const rui_socket_ctx *srv, size_t max) {
    size_t n = rq_count(srv);
    bool ok = n < ((max * 3) >> 2);
    if (ok && srv->sockfd < 0)
        LOG_INF("%s: %s (%lu requsts queued)\n", __func__, kind_str(srv),
                static_cast<unsigned long>(n));
    return ok;
}

int rui_accept(rui_socket_ctx *srv, size_t max, int flags, void *user) {
    LOG_DBG("%s: from [%s]\n", __func__, alias_of(srv));
    int rc = 0;
    size_t accepted = 0;
    while (!g_quit && max > 0 && accepted < max) {
        LOG_DBG("%s(%s): accepting on fd=%d\n", __func__, alias_of(srv), srv->sockfd);
        sockaddr_storage peer{};
        socklen_t plen = sizeof peer;
        // Made non-blocking by the accept itself: two fewer calls per client.
        int fd = W_accept4(__func__, srv->sockfd, reinterpret_cast<sockaddr *>(&peer), &plen,
                           SOCK_NONBLOCK);
        if (fd < 0) {
            int err = errno;
            if (err == EINTR) continue;
            if (err == EAGAIN || err == EWOULDBLOCK) {
                LOG_DBG("%s(%s): end of accept queue reached\n", __func__, alias_of(srv));
                break;
            }
            if (err == ECONNABORTED || err == ECONNRESET) {
                LOG_INF("%s(%s): connection aborted/reset before accept()\n", __func__,
                        alias_of(srv));
                continue;
            }
            rc = err;
            break;
        }
        char addr[SADDR_STR_SIZE];
        saddr_str(reinterpret_cast<const sockaddr *>(&peer), plen, addr, sizeof addr);
        LOG_INF("Accepted %s request [fd=%d] from %s\n", alias_of(srv), fd, addr);
        int prc = 0;
        if (peer.ss_family == AF_INET || peer.ss_family == AF_INET6) {
            int lowat = RUI_RCVLOWAT;
            if (srv->lowat_on_listener && !srv->lowat_checked) {
                int got = 0;
                socklen_t glen = sizeof got;
                srv->lowat_on_listener =
                    getsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &got, &glen) == 0 && got == lowat;
                srv->lowat_checked = true;
            }
            if (!srv->lowat_on_listener)
                prc = W_setsockopt(__func__, fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
            if (prc == 0) LOG_DBG("%s: low watermark set to %d for fd=%d\n", __func__, lowat, fd);
            if (prc == 0 && (flags & RUI_ACC_NODELAY)) prc = set_tcp_nodelay(fd, true);
        }
        if (prc == 0) prc = rui_add_request(fd, srv, user);
        if (prc != 0) {
            LOG_ERR("Error rc=%d processing connection [%s] fd=%d\n", prc, alias_of(srv), fd);
            (void)W_close(__func__, fd);
            rc = prc;
            continue;
        }
        ++accepted;
    }
    if (max > 0 && accepted >= max)
        LOG_WRN("%s(%s): CANNOT ACCEPT ALL (accepted=%ld), max=%lu\n", __func__, alias_of(srv),
                long(accepted), static_cast<unsigned long>(max));
    LOG_DBG("%s: rc=%d\n", __func__, rc);
    return rc;
}

int rui_add_request(int fd, rui_socket_ctx *srv, void *user) {
    if (size_t n = rq_count(srv); n >= RUI_MAX_QUEUED) {
        LOG_ERR("%s: Too many user requests (%lu) queued\n", __func__,
                static_cast<unsigned long>(n));
        return 16;
    }
    rui_request *rq = srv->cb->new_rq(fd, srv, user);
    if (rq == nullptr) return -1;
    dlep_append(srv->requests, &rq->link);
    if (fd < FD_SETSIZE) {
        if (FD_ISSET(fd, &srv->accset))
            LOG_ERR("%s: socket fd=%d is already marked queued\n", __func__, fd);
        else
            FD_SET(fd, &srv->accset);
    }
    LOG_INF("%s: OK for fd=%d, rq=%p\n", __func__, fd, static_cast<void *>(rq));
    if (srv->cb->on_accepted != nullptr && srv->cb->on_accepted(rq)) return 0;
    if (int rc = rqs_add_reader(fd, rq); rc != 0) {
        LOG_ERR("%s: failed to add fd=%d to the monitored set\n", __func__, fd);
        // The caller closes fd; take the object back without touching it.
        if (fd < FD_SETSIZE) FD_CLR(fd, &srv->accset);
        rq->sockfd = -1;
        dlep_rm(srv->requests, &rq->link);
        srv->cb->rm_rq(rq);
        return rc;
    }
    rq->registered = true;
    return 0;
}

void rui_rm_request(rui_request *rq) { rm_request(rq, false); }

void rui_pprm_all(rui_ctx *ctx) {
    for (int k = 0; k < RUI_MAX; ++k) pprm_srv(kind_slots(ctx, k));
}

void rui_tmout_all(rui_ctx *ctx, long ms) {
    for (int k = 0; k < RUI_MAX; ++k) {
        rui_socket_ctx *slots = kind_slots(ctx, k);
        if (is_set_up(&slots[0]) || is_set_up(&slots[1]) || is_set_up(&slots[2]) ||
            is_set_up(&slots[3]))
            (void)tmout_srv(slots, ms);
    }
}

void rui_mk_trknum(size_t *counter, n64_tag *tag, char letter, size_t max) {
    if (*counter >= max) {
        *counter = 0;
        LOG_DBG("%s: rolling over %c-requests\n", __func__, letter);
    }
    *counter += 1;
    tag->num = 0;
    // Room for the letter and up to five digits: "T10000" must come out whole.
    int n = snprintf(tag->str, 7, "%c%04lu", letter, static_cast<unsigned long>(*counter));
    XASSERT(n >= 1 && n <= 6);
}

void rui_crash_on_error(rui_socket_ctx *srv, bool is_hangup) {
    int err = socket_error(srv->sockfd);
    LOG_PNC("%s: %s listener[%s] ERROR(%d): %s\n", __func__, is_hangup ? "HUP" : "", alias_of(srv),
            err, strerror(err));
    log_abort_here();
}

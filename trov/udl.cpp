// udl: the UDP order channel (see udl.h).
#include "udl.h"

#include <fcntl.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app.h"
#include "cfg.h"
#include "lbquery.h"
#include "log.h"
#include "rq.h"
#include "rqs.h"
#include "stats.h"
#include "strops.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

LOG_MODULE(0);

namespace {
constexpr size_t LOCK_PATH_SIZE = 128;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// Asks for the configured receive buffer (past the system's cap when the
// process may) and for the kernel's drop count on every datagram; logs the
// size obtained. Neither failing stops the channel: it only loses the margin
// or the count.
void size_rcvbuf(int fd, int kb) {
    if (kb > 0) {
        const int bytes = kb * 1024;
        if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0 &&
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes) != 0) {
            int err = errno;
            LOG_WRN("%s: setsockopt(fd%d, SO_RCVBUF, %d) ERROR(%d): %s\n", "udl_ctx_init", fd,
                    bytes, err, strerror(err));
        }
    }
    int got = 0;
    socklen_t len = sizeof got;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &got, &len) == 0)
        LOG_INF("%s: receive buffer %d KiB\n", "udl_ctx_init", got / 1024);
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0) {
        int err = errno;
        LOG_WRN("%s: setsockopt(fd%d, SO_RXQ_OVFL) ERROR(%d): %s\n", "udl_ctx_init", fd, err,
                strerror(err));
    }
}

// Moves the channel's view of the kernel's drop count (a 32-bit counter that
// wraps) forward to total; a total older than what was seen is ignored.
void merge_drops(udl_ctx *udl, uint32_t total) {
    const uint32_t lost = total - udl->kdrops;
    if (lost == 0 || lost > UINT32_MAX / 2) return;
    udl->kdrops = total;
    udl->drops += lost;
    udl->drops_unsaid += lost;
}

// Every datagram queued after a drop carries the socket's drop count.
void count_drops(udl_ctx *udl, msghdr *mh) {
    for (cmsghdr *c = CMSG_FIRSTHDR(mh); c != nullptr; c = CMSG_NXTHDR(mh, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_RXQ_OVFL) continue;
        uint32_t total = 0;
        memcpy(&total, CMSG_DATA(c), sizeof total);
        merge_drops(udl, total);
        return;
    }
}

// Who claims orders in the LBDB: "<host name>:<pid>", set when the channel
// opens (after the process detached, so the pid is final).
char s_claimant[128];

void set_claimant() {
    char host[64] = {};
    if (gethostname(host, sizeof host - 1) != 0) snprintf(host, sizeof host, "localhost");
    snprintf(s_claimant, sizeof s_claimant, "%s:%ld", host, long(getpid()));
}

// "<lock_dir>/<lid>.lock"; the length formatted (a path cut by the bound is
// not detected: identifiers are short next to the lock directory).
int lock_path(const char *lid, char *path) {
    return snprintf(path, LOCK_PATH_SIZE - 1, "%s/%s.lock", g_cfg.udp_cha.lkdir, lid);
}
}  // namespace

int udl_ctx_init(const udp_lstn_cfg *cfg, udl_ctx *udl) {
    if (cfg->url[0] == '\0') return 0;
    XASSERT(!udl->is_ready);
    udl->usock = usock_ctx{};
    udl->usock.inbound = true;
    udl->usock.non_blocking = true;
    udl->usock.nopoll_idx = -1;
    udl->usock.ifc_tag = cfg->mifc[0] != '\0' ? cfg->mifc : nullptr;
    int fd = usock_open(cfg->url, &udl->usock);
    if (fd < 0) {
        LOG_ERR("%s: failed to open [%s]\n", __func__, cfg->url);
        return -1;
    }
    size_rcvbuf(fd, cfg->rcvbuf_kb);
    if (cfg->claim_redis) set_claimant();
    udl->sockfd = fd;
    udl->tag = UDL_TAG;
    udl->is_ready = true;
    udl->kdrops = 0;
    udl->drops = udl->drops_unsaid = 0;
    udl->drop_said = rqs_now();
    udl->drop_watch = false;
    LOG_INF("%s: fd%d set up to listen on [%s]\n", __func__, fd, cfg->url);
    return 0;
}

int udl_ctx_start(udl_ctx *udl) {
    XASSERT(udl->is_ready);
    int rc = rqs_add_reader(udl->sockfd, udl);
    if (rc != 0)
        LOG_ERR("%s: cannot start UDP listener on fd%d\n", __func__, udl->sockfd);
    else
        LOG_DBG("%s: listening on fd%d\n", __func__, udl->sockfd);
    return rc;
}

void udl_report_drops(udl_ctx *udl, bool force) {
    if (!udl->is_ready || !udl->drop_watch) return;
    const timespec now = rqs_now();
    if (!force && diff_ms(&now, &udl->drop_said) < UDL_DROP_REPORT_MS) return;
    // Datagrams dropped after the last one queued are told by no datagram:
    // the socket's own count has them.
    uint32_t mem[SK_MEMINFO_VARS] = {};
    socklen_t len = sizeof mem;
    if (getsockopt(udl->sockfd, SOL_SOCKET, SO_MEMINFO, mem, &len) == 0 &&
        len > SK_MEMINFO_DROPS * sizeof *mem)
        merge_drops(udl, mem[SK_MEMINFO_DROPS]);
    if (udl->drops_unsaid > 0)
        LOG_WRN("%s: %u order datagrams dropped (receive buffer full)\n", __func__,
                unsigned(udl->drops_unsaid));
    udl->drops_unsaid = 0;
    udl->drop_said = now;
    rm_timeout(TMOUT_KEY_UDL);
    udl->drop_watch = false;
}

void udl_ctx_destroy(udl_ctx *udl) {
    if (!udl->is_ready) return;
    // Whatever the channel lost is said before it goes.
    udl_report_drops(udl, true);
    int fd = udl->sockfd >= 1 ? udl->sockfd : -1;
    if (udl->sockfd >= 1) {
        usock_close(udl->sockfd, &udl->usock);
        udl->sockfd = -1;
    }
    udl->is_ready = false;
    LOG_DBG("%s: done on fd%d\n", __func__, fd);
}

int parse_msg(char *text, char **url, char **lid, time_t *expiry) {
    char *b = text;
    while (*b != '\0' && !is_blank(*b)) ++b;
    if (*b == '\0') {
        LOG_ERR("%s: missing URL part\n", __func__);
        return -1;
    }
    *b = '\0';
    size_t lid_len = size_t(b - text);
    if (lid_len < UDL_MIN_LID || lid_len > UDL_MAX_LID) {
        LOG_ERR("%s: id length (%zu) out of bounds: %d/%d\n", __func__, lid_len, int(UDL_MIN_LID),
                int(UDL_MAX_LID));
        return -1;
    }
    char *u = b + 1;
    char *e = u;
    while (*e != '\0' && !is_blank(*e)) ++e;
    size_t url_len = size_t(e - u);
    if (url_len < UDL_MIN_URL) {
        LOG_ERR("%s: URL length is too small: %zu/%d bytes\n", __func__, url_len, int(UDL_MIN_URL));
        return -1;
    }
    char *q = e;
    if (*e != '\0') {
        *e = '\0';
        q = e + 1;
    }
    while (*q == ' ' || *q == '\t' || *q == '\n' || *q == '\r' || *q == '\v' || *q == '\f') ++q;
    if (*q == '\0' || *q == '#') {
        LOG_WRN("%s: no expiry data passed\n", __func__);
        // Senders always stamp an expiry; one without is a broken sender,
        // and the agent stops rather than register files that never expire.
        bool datagram_has_expiry = false;
        XASSERT(datagram_has_expiry);
    }
    long v = 0;
    int n = sscanf(q, "%ld %*s", &v);
    if (n != 1) {
        LOG_WRN("%s: NO EXPIRY: sscanf('%s',..) expected 1, got %d\n", __func__, q, n);
        v = 0;
    }
    if (url != nullptr) *url = u;
    if (lid != nullptr) *lid = text;
    if (expiry != nullptr) *expiry = time_t(v);
    return 0;
}

int parse_url(const char *url, const char *lid, dw_spec *spec) {
    char src[256] = {};
    char dst[256] = {};
    if (int rc = web_parse_url(url, src, dst, 255); rc != 0) return rc;
    if (int rc = setup_dw_spec(src, dst, 255, spec); rc != 0) return rc;
    snprintf(spec->lid, sizeof spec->lid, "%s", lid);
    return 0;
}

int udl_accept(udl_ctx *udl) {
    XASSERT(udl->sockfd > 0);
    char buf[UDL_RECV_SIZE + 1] = {};
    char *lid = nullptr;
    char *url = nullptr;
    time_t expiry = 0;
    dw_spec spec{};
    int rc = 0;
    bool local = false;  // a local URL: handled without a download
    bool taken = false;  // the engine took the order
    bool got = false;    // a datagram was read: it is an order, taken or refused
    do {
        iovec iov{.iov_base = buf, .iov_len = UDL_RECV_SIZE};
        alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(uint32_t))];
        msghdr mh{};
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = ctl;
        mh.msg_controllen = sizeof ctl;
        ssize_t n = recvmsg(udl->sockfd, &mh, MSG_DONTWAIT);
        if (n >= 0) {
            got = true;
            count_drops(udl, &mh);
            // A look at the socket's drop count is due within a report period.
            if (!udl->drop_watch) {
                set_timeout(TMOUT_KEY_UDL, UDL_DROP_REPORT_MS);
                udl->drop_watch = true;
            }
        }
        if (n < 0) {
            int err = errno;
            LOG_ERR("%s: recv(fd%d, .., %zu,..) ERROR(%d): %s\n", __func__, udl->sockfd,
                    UDL_RECV_SIZE, err, strerror(err));
            rc = -1;
            break;
        }
        LOG_DBG("%s: read %zd bytes from fd%d\n", __func__, n, udl->sockfd);
        if (size_t(n) < UDL_MIN_MSG || size_t(n) > UDL_MAX_MSG) {
            LOG_ERR("%s: invalid message length: %zd (min/max=%d/%d)\n", __func__, n,
                    int(UDL_MIN_MSG), int(UDL_MAX_MSG));
            rc = -1;
            break;
        }
        chomp(buf);
        LOG_DBG("%s: msg=[%s]\n", __func__, buf);
        if (strncmp(buf, "#!", 2) != 0) {
            LOG_ERR("%s: invalid message prefix\n", __func__);
            rc = -1;
            break;
        }
        if (parse_msg(buf + 2, &url, &lid, &expiry) != 0) {
            rc = -1;
            break;
        }
        rc = lid_lock(lid);
        if (rc == 16) {
            LOG_INF("%s: [%s] already engaged, will skip\n", __func__, lid);
            ++g_stats.udp_skipped_locked;
            return 0;
        }
        if (rc != 0) break;
        rc = parse_url(url, lid, &spec);
        if (rc != 0) break;
        spec.expiry_tm = expiry;
        LOG_DBG("%s: expiry time: %ld\n", __func__, long(expiry));
        if (is_local_url(spec.url)) {
            LOG_DBG("%s: [%s] is local URL, no download required\n", __func__, spec.url);
            if (g_cfg.lbdb.port > 0) {
                LOG_DBG("%s: adding local URL to LBDB\n", __func__);
                rc = add_lbdb_url(&spec);
            }
            local = true;
            break;
        }
        // Nobody waits for an answer; the engine logs its own failures.
        taken = mk_dw_task(-1, &spec) == 0;
    } while (false);
    if (got) stats_order(STATS_UDP, rc == 0 && (local || taken) ? STATS_ACCEPTED : STATS_REFUSED);
    if (rc != 0 && rc != 16) {
        LOG_ERR("%s: [%s] request failed; url=[%s], rc=%d\n", __func__, lid != nullptr ? lid : "",
                url != nullptr ? url : "", rc);
        if (lid != nullptr) lid_unlock(lid);
    }
    return 0;
}

int lid_lock(const char *lid) {
    if (g_cfg.udp_cha.claim_redis) {
        char why[128];
        int rc = lbdb_claim_order(lid, s_claimant, UDL_STALE_SEC * 1000, why, sizeof why);
        if (rc == -1) {
            // Without coordination the order may be fetched twice, never lost.
            LOG_WRN("%s: [%s] claim failed (%s), fetching anyway\n", __func__, lid, why);
            return 0;
        }
        if (rc == 0) LOG_DBG("%s: [%s] claimed as %s\n", __func__, lid, s_claimant);
        return rc;
    }
    if (!g_cfg.udp_cha.must_lock) return 0;
    char path[LOCK_PATH_SIZE];
    int n = lock_path(lid, path);
    if (n <= 4) {
        LOG_ERR("%s: invalid lock path (n=%d): %s\n", __func__, n, path);
        return -1;
    }
    if (int rc = check_and_expire(path, UDL_STALE_SEC); rc != 0) return rc;
    // Exclusive creation is the whole protocol between agents: the first to
    // create the file takes the order.
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        int err = errno;
        if (err == EEXIST) return 16;
        LOG_ERR("%s: open(%s,...) ERROR(%d): %s\n", __func__, path, err, strerror(err));
        return -1;
    }
    (void)W_close(__func__, fd);
    LOG_DBG("%s: [%s] locked\n", __func__, path);
    return 0;
}

void lid_unlock(const char *lid) {
    if (g_cfg.udp_cha.claim_redis) {
        if (lbdb_release_order(lid, s_claimant) == 0)
            LOG_DBG("%s: [%s] claim released\n", __func__, lid);
        return;
    }
    if (!g_cfg.udp_cha.must_lock) return;
    char path[LOCK_PATH_SIZE];
    if (lock_path(lid, path) <= 4) return;
    LOG_DBG("%s: %s at [%s]\n", __func__, lid, path);
    (void)W_unlink(__func__, path);
}

int check_and_expire(const char *path, long max_age) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        int err = errno;
        if (err == ENOENT) return 0;
        LOG_ERR("%s: stat(%s, ..) ERROR(%d): %s\n", __func__, path, err, strerror(err));
        return -1;
    }
    long age = long(time(nullptr) - st.st_mtime);
    if (age <= max_age) {
        LOG_INF("%s: upstanding lock [%s] (age=%ld) found\n", __func__, path, age);
        return 16;
    }
    if (W_unlink(__func__, path) != 0) return -1;
    LOG_DBG("%s: expired stale lock [%s], age=%ld sec\n", __func__, path, age);
    return 0;
}

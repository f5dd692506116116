// udl: the UDP order channel (see udl.h).
#include "udl.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "app.h"
#include "cfg.h"
#include "log.h"
#include "rq.h"
#include "rqs.h"
#include "strops.h"
#include "syswrap.h"

LOG_MODULE(0);

namespace {
constexpr size_t LOCK_PATH_SIZE = 128;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

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
    udl->sockfd = fd;
    udl->tag = UDL_TAG;
    udl->is_ready = true;
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

void udl_ctx_destroy(udl_ctx *udl) {
    if (!udl->is_ready) return;
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
    do {
        ssize_t n = recv(udl->sockfd, buf, UDL_RECV_SIZE, MSG_DONTWAIT);
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
            break;
        }
        // Nobody waits for an answer; the engine logs its own failures.
        (void)mk_dw_task(-1, &spec);
    } while (false);
    if (rc != 0 && rc != 16) {
        LOG_ERR("%s: [%s] request failed; url=[%s], rc=%d\n", __func__, lid != nullptr ? lid : "",
                url != nullptr ? url : "", rc);
        if (lid != nullptr) lid_unlock(lid);
    }
    return 0;
}

int lid_lock(const char *lid) {
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

// app: the download engine (see app.h): the context, the task table, the
// fetch from the source, the destination file and its completion, and the
// release of ended tasks after each pass of the loop.
#include "app.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "adm.h"
#include "cfg.h"
#include "fdio.h"
#include "lbquery.h"
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

trov_ctx g_ctx;

namespace {
long sweep_period_ms() { return g_cfg.task_tmout_ms > 0 ? long(g_cfg.task_tmout_ms) : 1; }

// Shared by every task on the relay path: each fragment is read and written
// within one call on the loop's one thread.
char s_relay[DW_RELAY_SIZE];

// The relay's in-kernel form: the socket's pages move through one shared
// pipe into the file without being copied out to the relay buffer and back.
// Worth it for large fragments only; small ones cost more in set-up than
// they save.
constexpr size_t DW_SPLICE_MIN = 64 << 10;
constexpr ssize_t SPLICE_UNSUPPORTED = -2;  // fall back to read and write
constexpr ssize_t SPLICE_SHORT = -3;        // the file took fewer bytes (logged)
int s_pipe[2] = {-1, -1};
size_t s_pipe_cap;
bool s_splice_off;  // the destination's file system refused splice once

void drop_pipe() {
    if (s_pipe[0] >= 0) (void)W_close("drop_pipe", s_pipe[0]);
    if (s_pipe[1] >= 0) (void)W_close("drop_pipe", s_pipe[1]);
    s_pipe[0] = s_pipe[1] = -1;
}

// Moves up to want bytes from the source socket into the destination file.
// The bytes moved, 0 at end of stream, -1 with errno from the socket side,
// SPLICE_UNSUPPORTED before anything was read, or SPLICE_SHORT.
// Made with the context, so the engine's descriptors stay the same from
// one download to the next. Without it the relay goes through user space.
void make_pipe() {
    if (s_pipe[0] >= 0 || pipe2(s_pipe, O_NONBLOCK | O_CLOEXEC) != 0) return;
    int cap = fcntl(s_pipe[1], F_SETPIPE_SZ, int(DW_RELAY_SIZE));
    if (cap < 0) cap = fcntl(s_pipe[1], F_GETPIPE_SZ);
    if (cap <= 0)
        drop_pipe();
    else
        s_pipe_cap = size_t(cap);
}

ssize_t splice_fragment(dw_task *task, size_t want) {
    if (s_splice_off) return SPLICE_UNSUPPORTED;
    make_pipe();
    if (s_pipe[0] < 0) return SPLICE_UNSUPPORTED;
    if (want > s_pipe_cap) want = s_pipe_cap;
    ssize_t n =
        splice(task->sfd, nullptr, s_pipe[1], nullptr, want, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (n <= 0) return n;
    ssize_t moved = 0;
    while (moved < n) {
        ssize_t w =
            splice(s_pipe[0], nullptr, task->dfd, nullptr, size_t(n - moved), SPLICE_F_MOVE);
        if (w <= 0) break;
        moved += w;
    }
    if (moved == n) return n;
    if (moved == 0 && errno == EINVAL) {
        // The file system has no splice: the bytes still in the pipe go to
        // the file the ordinary way, and later fragments take that way too.
        s_splice_off = true;
        ssize_t r = read(s_pipe[0], s_relay, size_t(n));
        if (r == n && nwrite(task->dfd, s_relay, size_t(n), 0) == n) return n;
    }
    LOG_ERR("%s: under-write to fd%d: %zd/%zd\n", "read_fragment", task->dfd, n, moved);
    // Leftover bytes must not reach the next task's file.
    drop_pipe();
    return SPLICE_SHORT;
}

dw_task **pprm_slots() { return static_cast<dw_task **>(g_ctx.pprm_tasks.data); }
dw_task *task_slots() { return static_cast<dw_task *>(g_ctx.tasks.data); }

// Sizes the new file and reserves the whole body on disk before the first
// byte arrives: a full file system then fails this one task at its start
// (the requester gets 500 and the temporary file goes), instead of a write
// that finds no room halfway. The reservation sizes the file by itself;
// only where it fails is the file sized apart, so errors read as they did.
int size_and_reserve(int fd, size_t len) {
    if (fallocate(fd, 0, 0, off_t(len)) == 0) return 0;
    int rc = errno;
    if (W_ftruncate("mk_dest_file", fd, off_t(len)) != 0) return errno != 0 ? errno : -1;
    // File systems without fallocate get the portable (slower) way.
    if (rc == EOPNOTSUPP) rc = posix_fallocate(fd, 0, off_t(len));
    if (rc != 0)
        LOG_ERR("%s: fallocate(fd%d, %zu) ERROR(%d): %s\n", "mk_dest_file", fd, len, rc,
                strerror(rc));
    return rc;
}

[[noreturn]] void unexpected_state(const char *who, const dw_task *task) {
    LOG_PNC("%s: unexpected for %s (%p) in [%s]\n", who, task->trk_tag.str,
            static_cast<const void *>(task), task->state.str);
    log_abort_here();
}

// List callbacks get the storage and a slot index.
int match_task(void *data, size_t i, void *key) { return static_cast<void **>(data)[i] == key; }

// Whether a response head lets its connection carry another request: an
// HTTP/1.1 answer that does not say "Connection: close".
bool keeps_connection(const char *head, size_t len) {
    std::string_view h(head, len);
    if (!h.starts_with("HTTP/1.1 ")) return false;
    size_t vlen = 0;
    const char *v = find_http_header_n("Connection:", head, len, &vlen);
    return v == nullptr || !(vlen == 5 && strncasecmp(v, "close", 5) == 0);
}

// True when the source has sent nothing past the body: a connection with
// bytes waiting (a body longer than announced) or closed is never reused.
bool nothing_pending(int fd) {
    char c;
    return recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           (errno == EAGAIN || errno == EWOULDBLOCK);
}

// The answer to an HTTP order decides it: taken on 200, refused otherwise.
void count_answer(int code) {
    stats_http_answer(code);
    stats_order(STATS_HTTP, code == 200 ? STATS_ACCEPTED : STATS_REFUSED);
}

// Answers the waiting requester on its duplicate connection and closes it.
void answer_requester(dw_task *task, int rc, int code) {
    if (task->cfd == -1) {
        LOG_DBG("%s: no client, skipping response\n", "read_src_response");
        return;
    }
    XASSERT(task->cfd != 0);
    if (task->hresp == nullptr) {
        if (rc != 0 && code == 0) {
            task->hresp = http_code_resp(500);
            LOG_DBG("%s: defaulting to HTTP%d\n", "read_src_response", 500);
        } else {
            task->hresp = http_code_resp(code);
            LOG_DBG("%s: response picked for HTTP%d\n", "read_src_response", code);
        }
    }
    task->hresp->server = get_app_tag(nullptr);
    count_answer(task->hresp->code);
    LOG_DBG("%s: sending response to client fd%d\n", "read_src_response", task->cfd);
    if (send_http_response(task->cfd, task->hresp) == 0)
        LOG_DBG("%s: HTTP%d response sent to fd%d\n", "read_src_response", task->hresp->code,
                task->cfd);
    (void)W_close("read_src_response", task->cfd);
    LOG_DBG("%s: fd%d client connection closed\n", "read_src_response", task->cfd);
    task->cfd = -1;
}
}  // namespace

// ---- Context and task table.

int init_trov_ctx() {
    XASSERT(!g_ctx.is_ready);
    rui_socket_cb cb = *urq_callbacks();
    cb.tag = URQ_TAG;
    rui_set_cb(RUI_USER, &cb);
    // Only a configured admin listener brings its kind's callbacks, so a
    // daemon without one sets up exactly what it always did.
    if (g_cfg.rui.admin[0].is_valid) rui_set_cb(RUI_ADMIN, adm_callbacks());
    stats_reset();
    if (int rc = rui_ctx_init(&g_cfg.rui, &g_ctx.rui); rc != 0) return rc;
    if (int rc = udl_ctx_init(&g_cfg.udp_cha, &g_ctx.udl); rc != 0) return rc;

    const char *label = nullptr;
    int rc = 0;
    do {
        label = "init sources";
        xvlst_reset(&g_ctx.tasks);
        // Every record is reserved now, so starting a task never allocates
        // and a record never moves while the reactor refers to it.
        if (g_cfg.max_tasks == 0) {
            rc = 22;
            break;
        }
        if ((rc = xvlst_reserve(&g_ctx.tasks, g_cfg.max_tasks, sizeof(dw_task), 1)) != 0) break;
        label = "init pprm-tasks";
        xvlst_reset(&g_ctx.pprm_tasks);
        if ((rc = xvlst_reserve(&g_ctx.pprm_tasks, g_cfg.max_tasks, sizeof(dw_task *), 1)) != 0)
            break;
        label = "creating task HT";
        if ((rc = skht_create(&g_ctx.task_ht, g_cfg.max_tasks, plHash, nullptr, 0)) != 0) break;
        label = nullptr;
        if (g_cfg.lbdb.port > 0) {
            const int need = LBDB_FN_ADD | (g_cfg.udp_cha.claim_redis ? LBDB_FN_CLAIM : 0);
            if ((rc = lbdb_init(g_cfg.lbdb.sha1_path, need, 0)) != 0) break;
            if ((rc = lbdb_connect(g_cfg.lbdb.host, g_cfg.lbdb.port, g_cfg.lbdb.tmout)) != 0) break;
        }
    } while (false);
    if (rc != 0) {
        LOG_ERR("%s: failed to [%s], rc=%d\n", __func__, label != nullptr ? label : "?", rc);
        destroy_trov_ctx();
        return rc;
    }
    make_pipe();
    // The relay buffer is made resident now: heads and bodies reach further
    // into it as larger reads come, and a resident size that creeps up over
    // hours would look like a leak.
    memset(s_relay, 0, sizeof s_relay);
    set_now(&g_ctx.last_tmout_check);
    g_ctx.last_rq_check = g_ctx.last_tmout_check;
    g_ctx.last_task_id = 0;
    g_ctx.is_ready = true;
    LOG_DBG("%s: OK\n", __func__);
    return 0;
}

void destroy_trov_ctx() {
    pprm_task_cleanup();
    rm_all_tasks();
    srcpool_close_all();
    udl_ctx_destroy(&g_ctx.udl);
    rui_ctx_destroy(&g_ctx.rui);
    pprm_requests();
    xvlst_reset(&g_ctx.pprm_tasks);
    xvlst_reset(&g_ctx.tasks);
    if (g_ctx.task_ht != 0) {
        skht_destroy(g_ctx.task_ht, nullptr);
        g_ctx.task_ht = 0;
    }
    if (g_cfg.lbdb.port > 0) lbdb_destroy();
    drop_pipe();
    g_ctx.is_ready = false;
    LOG_DBG("%s: OK\n", __func__);
}

const char *url2key(const char *url) {
    const char *p = strstr(url, "://");
    return p != nullptr ? p + 3 : url;
}

dw_task *get_dw_task(const char *key) {
    void *data = nullptr;
    if (skht_get(g_ctx.task_ht, key, &data) != 0) {
        LOG_DBG("%s: [%s] not found\n", __func__, key);
        return nullptr;
    }
    auto *task = static_cast<dw_task *>(data);
    XASSERT(task->tag.num == DOW_TAG.num);
    return task;
}

dw_task *add_dw(const dw_spec *spec, n64_tag trk) {
    ssize_t j = xvlst_add(&g_ctx.tasks, sizeof(dw_task), 1);
    if (j < 0) {
        LOG_ERR("%s: failed for [%s]\n", __func__, spec->url);
        return nullptr;
    }
    dw_task *task = &task_slots()[j];
    *task = dw_task{};
    task->tag = DOW_TAG;
    task->spec = *spec;
    task->trk_tag = trk;
    task->idx = j;
    task->sfd = task->dfd = task->cfd = -1;
    task->sctx.nopoll_idx = -1;
    const char *key = url2key(task->spec.url);
    void *data = task;
    if (int rc = skht_add(g_ctx.task_ht, key, &data); rc != 0) {
        LOG_ERR("%s: ERROR(%d) hashing [%s] data=%p\n", __func__, rc, key,
                static_cast<void *>(task));
        (void)xvlst_del(&g_ctx.tasks, size_t(j), nullptr);
        return nullptr;
    }
    task->is_hashed = true;
    // The sweep of stalled tasks runs in the idle step, so the loop must wake
    // up at least once a period while any task lives.
    if (g_cfg.sweep_stalled_tasks) set_timeout(TMOUT_KEY_TASK, sweep_period_ms());
    LOG_NRM("TASK-START [%s] (%p/idx=%zd) [%s]->[%s] length=%lu, expiry=%ld lid=[%s]\n",
            task->tag.str, static_cast<void *>(task), task->idx, task->spec.url, task->spec.fpath,
            static_cast<unsigned long>(task->spec.content_length), long(task->spec.expiry_tm),
            task->spec.lid);
    LOG_DBG("%s: %s (%p), j=%zd k=[%s] added\n", __func__, task->tag.str, static_cast<void *>(task),
            j, key);
    return task;
}

// A connection to the task's source: an idle one from the pool (true), or
// none yet (false).
static bool take_idle_src(dw_task *task);
// Connects the task to its source and registers it. 0, or non-zero with
// the task freed.
static int open_src(dw_task *task);

int mk_dw_task(int cfd, const dw_spec *spec) {
    LOG_DBG("%s: fd%d url=[%s]\n", __func__, cfd, spec->url);
    if (g_ctx.tasks.len >= g_cfg.max_tasks) {
        LOG_ERR("%s: limit on tasks exceeded [%zu]\n", __func__, g_cfg.max_tasks);
        return -1;
    }
    XASSERT(g_ctx.task_ht != 0);
    if (dw_task *old = get_dw_task(url2key(spec->url)); old != nullptr) {
        LOG_ERR("%s: task already present (%p) %s url=%s\n", __func__, static_cast<void *>(old),
                old->trk_tag.str, old->spec.url);
        return 17;
    }
    n64_tag trk{};
    rui_mk_trknum(&g_ctx.last_task_id, &trk, 'T', DW_TRK_MAX);
    dw_task *task = add_dw(spec, trk);
    if (task == nullptr) return -1;
    // From here on every line carries the task's tag, also after the return,
    // until something else takes the group over.
    log_set_group(g_log, task->trk_tag);

    if (cfd < 0) {
        task->cfd = -1;
        LOG_DBG("%s: no client connection\n", __func__);
    } else {
        task->cfd = dup(cfd);
        if (task->cfd < 0) {
            int err = errno;
            LOG_ERR("%s: dup(fd%d) ERROR(%d): %s\n", __func__, cfd, err, strerror(err));
            free_dw(task);
            return err;
        }
        LOG_DBG("%s: client cfd%d created\n", __func__, task->cfd);
    }
    if (take_idle_src(task)) {
        // A kept connection is writable: the request goes at once, and its
        // registration (still the pool's) becomes the task's for reading.
        set_now(&task->last_io_tm);
        set_dw_state(task, DW_INI);
        task->is_started = true;
        return request_data_stream(task);
    }
    if (int rc = open_src(task); rc != 0) {
        return rc;  // task freed
    }
    set_now(&task->last_io_tm);
    set_dw_state(task, DW_INI);
    task->is_started = true;
    return task->src_reading ? request_data_stream(task) : 0;
}

static bool take_idle_src(dw_task *task) {
    char key[SRCPOOL_KEY_SIZE];
    if (!g_cfg.src_ka.on || srcpool_key(task->spec.url, key, sizeof key) != 0) return false;
    task->ka_conn = srcpool_take(key, task);
    task->is_reused = task->src_reading = task->ka_conn != nullptr;
    if (task->is_reused) task->sfd = task->ka_conn->fd;
    return task->is_reused;
}

// A task done with a connection from the pool gives its entry back.
static void release_ka_conn(dw_task *task) {
    if (task->ka_conn == nullptr) return;
    srcpool_release(task->ka_conn);
    task->ka_conn = nullptr;
}

// Whether a connection just made is up already: a local origin often
// completes the handshake within the connect itself. The state is read
// without taking a pending error, which the writable event then reports.
static bool src_is_up(int fd) {
    tcp_info info{};
    socklen_t len = sizeof info.tcpi_state;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 && len >= 1 &&
           info.tcpi_state == TCP_ESTABLISHED;
}

static int open_src(dw_task *task) {
    task->sfd = connect_to_src(task->spec.url, &task->sctx);
    if (task->sfd < 0) {
        free_dw(task);
        return -1;
    }
    ++g_src_conn_new;
    // A connection that is up takes its request at once and waits only to
    // read; one still connecting waits to be writable first.
    task->src_reading = src_is_up(task->sfd);
    if (int rc =
            task->src_reading ? rqs_add_reader(task->sfd, task) : rqs_add_writer(task->sfd, task);
        rc != 0) {
        LOG_ERR("%s: rqs_add_writer(fd%d,..) failed for %s\n", __func__, task->sfd,
                task->trk_tag.str);
        free_dw(task);
        return rc;
    }
    return 0;
}

bool dw_retry_fresh(dw_task *task) {
    if (!task->is_reused || task->is_quitting) return false;
    task->is_reused = false;
    LOG_DBG(
        "%s: reused connection fd%d to [%s] failed before the response, retrying on a new "
        "one\n",
        __func__, task->sfd, task->spec.url);
    // Closing takes it out of the epoll set; the reactor only counts it out.
    release_ka_conn(task);
    (void)rqs_forget_fd(task->sfd);
    (void)W_close(__func__, task->sfd);
    task->sfd = connect_to_src(task->spec.url, &task->sctx);
    if (task->sfd < 0) return false;
    ++g_src_conn_new;
    task->src_reading = false;  // the new one waits to be writable, then switches
    if (rqs_add_writer(task->sfd, task) != 0) {
        usock_close(task->sfd, &task->sctx);
        task->sfd = -1;
        return false;
    }
    set_now(&task->last_io_tm);
    task->state = DW_INI;
    return true;
}

void set_dw_state(dw_task *task, n32_tag state) {
    LOG_DBG("%s: %s %s -> %s\n", __func__, task->trk_tag.str, task->state.str, state.str);
    task->state = state;
}

int unhash_task(dw_task *task) {
    if (!task->is_hashed) return 0;
    const char *key = url2key(task->spec.url);
    int rc = skht_rm(g_ctx.task_ht, key, nullptr);
    if (rc != 0)
        LOG_ERR("%s: failed to un-hash [%s] (%p), rc=%d\n", __func__, key,
                static_cast<void *>(task), rc);
    task->is_hashed = false;
    if (rc == 0)
        LOG_DBG("%s: %s (%p) k=[%s] OK\n", __func__, task->trk_tag.str, static_cast<void *>(task),
                key);
    return rc;
}

// The live task other than task that holds task's temporary file open, or null.
const dw_task *dest_writer(const dw_task *task) {
    const dw_task *slots = task_slots();
    for (size_t j = 0; j <= g_ctx.tasks.last && g_ctx.tasks.len > 0; ++j)
        if (g_ctx.tasks.taken[j] && &slots[j] != task && slots[j].dfd > 0 &&
            strcmp(slots[j].spec.fpath, task->spec.fpath) == 0)
            return &slots[j];
    return nullptr;
}

// Parks a finished task's source connection in the idle pool; false when
// it must be closed instead.
static bool keep_src(dw_task *task) {
    if (task->ka_conn != nullptr) {
        // Parked under the entry it came with: its registration stays as it is.
        bool kept = srcpool_park(task->ka_conn, g_cfg.src_ka.per_origin);
        task->ka_conn = nullptr;
        if (!kept) return false;
    } else {
        char key[SRCPOOL_KEY_SIZE];
        if (srcpool_key(task->spec.url, key, sizeof key) != 0) return false;
        if (!srcpool_put(key, task->sfd, g_cfg.src_ka.per_origin)) return false;
    }
    usock_close(-1, &task->sctx);  // the context's buffers; the descriptor lives on
    return true;
}

void free_dw(dw_task *task) {
    LOG_DBG("%s: %s (%p) url=[%s], dst=[%s], idx=%zd\n", __func__, task->trk_tag.str,
            static_cast<void *>(task), task->spec.url, task->spec.fpath, task->idx);
    if (task->idx >= 0 && task->spec.url[0] != '\0')
        LOG_NRM("TASK-END [%s] (%p/idx=%zd) [%s]->[%s] length=%lu, expiry=%ld lid=[%s]\n",
                task->tag.str, static_cast<void *>(task), task->idx, task->spec.url,
                task->spec.fpath, static_cast<unsigned long>(task->spec.content_length),
                long(task->spec.expiry_tm), task->spec.lid);
    task->tag.str[0] = '#';
    (void)unhash_task(task);
    const bool own_file = task->dfd > 0;
    // Descriptor 0 is never closed here: a zero in these fields means a
    // record that was never set up, not standard input.
    if (task->sfd > 0 && task->ka_keep && keep_src(task)) task->sfd = -1;
    release_ka_conn(task);
    if (task->sfd > 0) {
        // Registered from "ini" on. The source socket is never duplicated, so
        // closing it takes it out of the epoll set; the reactor only counts
        // it out.
        if (task->state.num != 0) (void)rqs_forget_fd(task->sfd);
        usock_close(task->sfd, &task->sctx);
        task->sfd = -1;
    }
    if (task->cfd > 0) {
        // The requester is left without an answer: its order failed.
        if (task->hresp == nullptr && task->is_started) stats_order(STATS_HTTP, STATS_REFUSED);
        (void)W_close(__func__, task->cfd);
        task->cfd = -1;
    }
    if (task->is_started && !task->is_done) ++g_stats.downloads_failed;
    task->is_started = false;
    if (task->dfd > 0) {
        (void)W_close(__func__, task->dfd);
        task->dfd = -1;
    }
    if (task->is_mmapped) {
        XASSERT(task->buf != nullptr && task->buflen > 0);
        if (munmap(task->buf, task->buflen) != 0) {
            int err = errno;
            LOG_ERR("%s: munmap(fd%d, .., %zu) ERROR(%d): %s\n", __func__, task->dfd, task->buflen,
                    err, strerror(err));
        }
        task->buf = nullptr;
        task->buflen = 0;
        task->is_mmapped = false;
        LOG_DBG("%s: unmapped fd%d, buf=%p, %zu bytes\n", __func__, task->dfd,
                static_cast<void *>(task->buf), task->buflen);
    }
    if (is_unfinished_seg(task->spec.fpath)) {
        LOG_WRN("%s: removing unfinished [%s]\n", __func__, task->spec.fpath);
        // A leftover of an earlier run goes, so the next order can make the
        // file; one that another live task is writing (it won the exclusive
        // create for the same destination) stays.
        if (const dw_task *writer = own_file ? nullptr : dest_writer(task); writer != nullptr)
            LOG_INF("%s: [%s] is being written by %s, left in place\n", __func__, task->spec.fpath,
                    writer->trk_tag.str);
        else
            (void)W_unlink(__func__, task->spec.fpath);
        task->spec.fpath[0] = '\0';
    }
    if (task->buf != nullptr) {
        free(task->buf);
        task->buf = nullptr;
        task->buflen = 0;
    }
    task->hresp = nullptr;
    if (task->spec.lid[0] != '\0') {
        lid_unlock(task->spec.lid);
        task->spec.lid[0] = '\0';
    }
    if (task->idx >= 0) {
        (void)xvlst_del(&g_ctx.tasks, size_t(task->idx), nullptr);
        task->idx = -1;
        if (g_cfg.sweep_stalled_tasks) rm_timeout(TMOUT_KEY_TASK);
    }
}

void free_dw_elem(void *data, size_t idx) { free_dw(static_cast<dw_task **>(data)[idx]); }

void rm_all_tasks() {
    if (g_ctx.tasks.len == 0) {
        LOG_DBG("%s: no tasks to purge.\n", __func__);
        return;
    }
    LOG_DBG("%s: %zu tasks to purge:\n", __func__, g_ctx.tasks.len);
    for (size_t j = 0; j <= g_ctx.tasks.last && g_ctx.tasks.len > 0; ++j) {
        if (g_ctx.tasks.taken[j]) free_dw(&task_slots()[j]);
    }
}

// ---- Fetching from the source.

int connect_to_src(const char *url, usock_ctx *sctx) {
    *sctx = usock_ctx{};
    sctx->inbound = false;
    sctx->non_blocking = true;
    sctx->skip_http = true;
    sctx->nopoll_idx = -1;
    sctx->timeout_ms = DW_CONNECT_TMOUT_MS;
    int fd = usock_open(url, sctx);
    if (fd >= 0)
        LOG_DBG("%s: opened fd%d [%s]\n", __func__, fd, url);
    else
        LOG_ERR("%s: failed to open [%s]\n", __func__, url);
    return fd;
}

int dw_write(dw_task *task) {
    log_group_scope grp(task->trk_tag);
    if (task->is_quitting) {
        LOG_WRN("%s: %s already quitting\n", __func__, task->trk_tag.str);
        return 0;
    }
    if (task->state.num != DW_INI.num) unexpected_state(__func__, task);
    return request_data_stream(task);
}

int request_data_stream(dw_task *task) {
    int rc = usock_http_get(task->sfd, task->spec.url, g_cfg.src_ka.on ? HTTP_RQF_KEEPALIVE : 0);
    // A reused connection the origin closed meanwhile fails here first.
    if (rc != 0 && dw_retry_fresh(task)) return 0;
    if (rc == 0) {
        // A kept connection is registered for reading under its pool entry
        // already (which hands its events to this task), and so is a new one
        // that was up at once.
        if (!task->src_reading) rc = rqs_mod(task->sfd, task, 1);
        if (rc != 0) {
            LOG_ERR("%s: rqs_mod(fd%d,...) FAILED\n", __func__, task->sfd);
        } else {
            set_dw_state(task, DW_RSP);
            LOG_DBG("%s: awaiting response from %s\n", __func__, task->spec.url);
            return 0;
        }
    }
    task->hresp = http_code_resp(400);
    task->hresp->server = get_app_tag(nullptr);
    if (task->cfd >= 0) count_answer(400);
    (void)send_http_response(task->cfd, task->hresp);
    if (pprm_task(task) != 0) {
        LOG_WRN("%s: could not pprm %s\n", __func__, task->trk_tag.str);
        free_dw(task);
    }
    return 0;
}

int dw_read(dw_task *task) {
    if (task->is_quitting) {
        LOG_WRN("%s: %s already quitting\n", __func__, task->trk_tag.str);
        return 0;
    }
    int rc = 0;
    if (task->state.num == DW_RSP.num) {
        rc = read_src_response(task);
        if (rc == 11) rc = 0;
    } else if (task->state.num == DW_DNL.num) {
        rc = read_fragment(task);
        if (rc == 0 && task->nleft == 0) rc = complete_download(task);
    } else {
        unexpected_state(__func__, task);
    }
    if (rc != 0) {
        LOG_ERR("%s: removing %s due to error, rc=%d\n", __func__, task->trk_tag.str, rc);
        (void)pprm_task(task);
    }
    return 0;
}

// On a reused connection, the first read: ended or reset before a byte of
// the answer means the origin dropped it while it was idle, which is not the
// task's failure. Reads into buf: the bytes read (also left in ctx->total),
// -1 when the connection was dead, 0 when nothing is there yet.
static ssize_t first_read_reused(dw_task *task, char *buf, http_resp_ctx *ctx) {
    ssize_t n;
    do n = read(task->sfd, buf, DW_RELAY_SIZE - 1);
    while (n < 0 && errno == EINTR);
    if (n > 0) {
        buf[n] = '\0';
        ctx->total = n;
        return n;
    }
    return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK) ? -1 : 0;
}

int read_src_response(dw_task *task) {
    // The head is read into the relay buffer, so that one read can bring the
    // body behind it too; the head itself must still end within
    // DW_HEAD_BUF_SIZE - 1 bytes. Nothing keeps the buffer past this call.
    char *buf = s_relay;
    LOG_DBG("%s: reading HTTP response from fd=%d\n", __func__, task->sfd);
    http_resp_ctx ctx{};
    if (task->is_reused && first_read_reused(task, buf, &ctx) < 0 && dw_retry_fresh(task))
        return 11;
    int rc = recv_http_head(task->sfd, buf, DW_HEAD_BUF_SIZE - 1, DW_RELAY_SIZE - 1, &ctx);
    if (rc != 0 && rc != 11 && ctx.total == 0 && dw_retry_fresh(task))
        return 11;  // not a byte came: the reused connection was dead
    // A response has begun: any failure from now on is the task's.
    if (ctx.total > 0) task->is_reused = false;
    task->drained = size_t(ctx.total) < DW_RELAY_SIZE - 1;
    if (rc == 0) task->ka_ok = g_cfg.src_ka.on && keeps_connection(buf, size_t(ctx.tail));
    if (rc == 11) {
        // What came so far is dropped with the buffer: a head must arrive
        // whole within one readable event.
        LOG_DBG("%s: expecting more data from fd%d\n", __func__, task->sfd);
        set_now(&task->last_io_tm);
        return 11;
    }
    if (rc == 0 && ctx.code >= 200 && ctx.code <= 299) {
        rc = check_dest_path(task->spec.fpath);
        if (rc == 0) {
            rc = mk_dest_file(task, buf, &ctx);
            task->hresp = http_code_resp(rc != 0 ? 500 : 200);
        } else {
            task->hresp = http_code_resp(403);
        }
    } else if (rc == 0) {
        LOG_ERR("%s: expected HTTP 2xx, got HTTP %d\n", __func__, ctx.code);
        rc = -1;
    }
    answer_requester(task, rc, ctx.code);
    if (rc == 0) {
        LOG_INF("%s: ready to download %zu bytes to [%s]\n", __func__, task->content_length,
                task->spec.fpath);
        set_dw_state(task, DW_DNL);
        // A read that filled the buffer had more behind it: the body goes
        // on now instead of after one more wait. A body that came whole
        // with the head is completed now too (a kept connection would bring
        // no further event).
        if (task->nleft > 0 && size_t(ctx.total) == DW_RELAY_SIZE - 1) rc = read_fragment(task);
        if (rc == 0 && task->nleft == 0) rc = complete_download(task);
    }
    return rc;
}

int read_fragment(dw_task *task) {
    int rc = 0;
    ssize_t n;
    // errno is cleared so that a read of nothing reports this read's own
    // condition, not a leftover from an earlier call.
    errno = 0;
    // A mapped file takes its body the same way as a written one: through
    // the descriptor, at the file offset (the tail went there first).
    if (size_t want = task->nleft < DW_RELAY_SIZE ? task->nleft : DW_RELAY_SIZE;
        want >= DW_SPLICE_MIN && (n = splice_fragment(task, want)) != SPLICE_UNSUPPORTED) {
        task->drained = false;  // the pipe takes what is asked: nothing said of the rest
        if (n == SPLICE_SHORT) {
            rc = -1;
            n = 0;
        }
    } else {
        // The last read of a body on a connection that may be kept asks
        // for one byte more: one that comes means the source sent more than
        // it announced, and a short read means nothing waits behind the body.
        size_t ask = want;
        if (task->ka_ok && want == task->nleft && want < DW_RELAY_SIZE) ask = want + 1;
        n = nread(task->sfd, s_relay, ask, 0);
        task->drained = n >= 0 && size_t(n) < ask;
        if (n > 0 && size_t(n) > want) {
            task->ka_ok = false;
            n = ssize_t(want);
        }
        if (n > 0) {
            ssize_t w = nwrite(task->dfd, s_relay, size_t(n), 0);
            if (w != n) {
                LOG_ERR("%s: under-write to fd%d: %zd/%zd\n", __func__, task->dfd, n, w);
                rc = -1;
                n = 0;
            }
        }
    }
    if (rc == 0 && n <= 0) {
        rc = errno;
        // Nothing to read just now: wait for the next event.
        if (rc == EAGAIN || rc == EWOULDBLOCK || rc == EINTR) rc = 0;
        // The source ended the stream before the announced length: the body
        // can never complete, so the task fails instead of spinning on a
        // descriptor that stays readable.
        else if (rc == 0 && n == 0 && task->nleft > 0)
            rc = ECONNRESET;
    } else if (rc == 0) {
        task->f_pos += n;
        if (size_t(n) > task->nleft) {
            LOG_PNC("%s: BAD CONTENT-LEFT: nrecv/left: %zd/%zu bytes\n", __func__, n, task->nleft);
            log_abort_here();
        }
        task->nleft -= size_t(n);
        g_stats.download_bytes += uint64_t(n);
        LOG_DBG("%s: %zd bytes, total=%zd/%zu, %zu left\n", __func__, n, ssize_t(task->f_pos),
                task->content_length, task->nleft);
    }
    set_now(&task->last_io_tm);
    if (rc != 0) LOG_ERR("%s: [%s] failed, rc=%d\n", __func__, task->spec.fpath, rc);
    return rc;
}

// ---- Destination files and completion.

int check_dest_path(const char *fpath) {
    char final[sizeof(dw_spec::fpath)];
    int n = snprintf(final, sizeof final, "%s", fpath);
    XASSERT(n >= 0 && size_t(n) < sizeof final);
    XASSERT(cutoff_segext(final) == 0);
    if (access(final, F_OK) == 0) {
        LOG_ERR("%s: destination [%s] is BUSY (already there)\n", __func__, final);
        return -16;
    }
    return 0;
}

bool can_mmap_dw(const dw_task *task) { return task->content_length <= (g_cfg.max_mmap_mb << 20); }

int mk_dest_file(dw_task *task, const char *hbuf, const http_resp_ctx *ctx) {
    size_t n = ctx->tail > 0 ? size_t(ctx->tail) : size_t(ctx->total);
    long len = extract_num_hdr("Content-Length:", hbuf, n);
    ssize_t tail = ctx->tail > 0 ? ctx->total - ctx->tail : 0;
    if (len <= 0) {
        LOG_ERR("%s: invalid/missing content length: %zd\n", __func__, ssize_t(len));
        return 22;
    }
    LOG_DBG("%s: [%s] length=%zd, tail=%zd\n", __func__, task->spec.fpath, ssize_t(len), tail);
    task->content_length = task->nleft = size_t(len);
    // A body longer than announced is never read: the socket is only asked
    // for what is left.
    if (size_t(tail) > task->nleft) {
        tail = ssize_t(task->nleft);
        task->ka_ok = false;  // more than announced came: the stream is out of step
    }

    // The directories were made when the order came; one removed since is
    // made again.
    task->dfd = open(task->spec.fpath, O_RDWR | O_CREAT | O_EXCL, 0666);
    if (task->dfd < 0 && errno == ENOENT) {
        forget_dest_dirs();
        if (ensure_dest_dirs(task->spec.fpath) != 0) return errno != 0 ? errno : -1;
    }
    if (task->dfd < 0)
        task->dfd = W_open(__func__, task->spec.fpath, O_RDWR | O_CREAT | O_EXCL, 0666);
    if (task->dfd < 0) return errno != 0 ? errno : -1;
    if (int rc = size_and_reserve(task->dfd, task->content_length); rc != 0) return rc;
    LOG_DBG("%s: destination fd%d opened [%s], %zu bytes\n", __func__, task->dfd, task->spec.fpath,
            task->content_length);

    int rc = 0;
    if (can_mmap_dw(task)) {
        // The mapping shows the file's page-cache pages; the body reaches
        // those pages through the descriptor (see read_fragment), so the
        // mapping is not populated: a store through a fresh shared mapping
        // costs the kernel a fault, a page clear and a page-table entry per
        // page, which made this path the dearest way to write a file.
        void *m = mmap(nullptr, task->content_length, PROT_WRITE, MAP_SHARED | MAP_NORESERVE,
                       task->dfd, 0);
        if (m == MAP_FAILED) {
            int err = errno;
            LOG_ERR("%s: mmap() for %zu bytes failed, ERROR(%d): %s\n", __func__,
                    task->content_length, err, strerror(err));
            return -1;
        }
        task->buf = static_cast<char *>(m);
        task->buflen = task->content_length;
        task->is_mmapped = true;
    } else {
        // A new file's offset is already at its start.
        task->is_mmapped = false;
        task->buf = nullptr;
        task->buflen = 0;
    }
    task->f_pos = 0;
    if (tail > 0) {
        LOG_DBG(
            task->is_mmapped ? "%s: memcopy tail of %zd bytes\n" : "%s: write tail of %zd bytes\n",
            __func__, tail);
        ssize_t w = nwrite(task->dfd, hbuf + ctx->tail, size_t(tail), 0);
        if (w == tail) {
            task->f_pos += tail;
            task->nleft -= size_t(tail);
            g_stats.download_bytes += uint64_t(tail);
        } else {
            LOG_ERR("%s: under-write(fd%d) %zd/%zd\n", __func__, task->dfd, w, tail);
            rc = -1;
        }
    }
    if (rc == 0)
        LOG_DBG("%s: created %s for [%s]\n", __func__, task->is_mmapped ? "mmap" : "file",
                task->spec.fpath);
    return rc;
}

int complete_download(dw_task *task) {
    if (task->is_mmapped && msync(task->buf, task->buflen, MS_ASYNC) != 0) {
        int err = errno;
        LOG_ERR("%s: msync(%p, %zu) on fd%d ERROR(%d): %s\n", __func__,
                static_cast<void *>(task->buf), task->buflen, task->dfd, err, strerror(err));
        return -1;
    }
    (void)W_close(__func__, task->dfd);
    task->dfd = -1;
    char tmp[sizeof(dw_spec::fpath)];
    memcpy(tmp, task->spec.fpath, sizeof tmp);
    // From here the task's path is the final one, so releasing the task no
    // longer removes the file.
    XASSERT(cutoff_segext(task->spec.fpath) == 0);
    int rc = 0;
    if (rename(tmp, task->spec.fpath) != 0) {
        int err = errno;
        LOG_ERR("%s: rename(%s, %s) ERROR(%d): %s\n", __func__, tmp, task->spec.fpath, err,
                strerror(err));
        rc = -1;
    } else {
        LOG_DBG("%s: rename(%s, %s): OK\n", __func__, tmp, task->spec.fpath);
    }
    if (g_cfg.lbdb.port > 0) (void)add_lbdb_url(&task->spec);
    if (rc == 0) {
        task->is_done = true;
        task->ka_keep = task->ka_ok && (task->drained || nothing_pending(task->sfd));
        ++g_stats.downloads_completed;
        LOG_NRM("downloaded: %zu bytes, [%s] to [%s]\n", task->content_length, task->spec.url,
                task->spec.fpath);
        (void)pprm_task(task);
    }
    return rc;
}

bool is_local_url(const char *url) {
    size_t plen = strlen(g_cfg.seg_url_pfx);
    if (plen == 0 || strlen(url) < plen) return false;
    if (strncasecmp(url, g_cfg.seg_url_pfx, plen) != 0) return false;
    return url[plen] == '/' || url[plen] == '\0';
}

int add_lbdb_url(const dw_spec *spec) {
    XASSERT(g_cfg.seg_url_pfx[0] != '\0' && spec->dst_path[0] != '\0');
    char url[256];
    // Bounded to 255 bytes with the terminator: a 255-character URL passes
    // cut by one, as the registration has always done.
    int n = snprintf(url, 255, "%s/%s", g_cfg.seg_url_pfx, spec->dst_path);
    if (n < 1 || n > 255) {
        LOG_ERR("%s: n=%d, URL buffer error\n", __func__, n);
        return -1;
    }
    LOG_INF("%s: id=[%s], url=[%s], expiry=%lu\n", __func__, spec->dst_path, url,
            static_cast<unsigned long>(spec->expiry_tm));
    int rc = lbdb_add_segurl(spec->dst_path, url, spec->expiry_tm);
    ++(rc == 0 ? g_stats.lbdb_ok : g_stats.lbdb_failed);
    if (rc != 0) LOG_ERR("%s: failed to add [%s]\n", __func__, spec->dst_path);
    return rc;
}

// ---- Release and time-outs.

int pprm_task(dw_task *task) {
    size_t at = 0;
    if (xvlst_find(&g_ctx.pprm_tasks, task, match_task, &at) != 0) {
        LOG_WRN("%s: task [%s] (%p) is already listed, skipping\n", __func__, task->trk_tag.str,
                static_cast<void *>(task));
        return 0;
    }
    task->is_quitting = true;
    (void)unhash_task(task);
    ssize_t j = xvlst_add(&g_ctx.pprm_tasks, sizeof(dw_task *), 1);
    if (j < 0 || size_t(j) >= g_ctx.pprm_tasks.max_len) {
        LOG_ERR("%s: FAILED on [%s] (%p)\n", __func__, task->trk_tag.str,
                static_cast<void *>(task));
        return -1;
    }
    pprm_slots()[j] = task;
    LOG_DBG("%s: [%s] (%p) idx=%ld OK\n", __func__, task->trk_tag.str, static_cast<void *>(task),
            long(j));
    return 0;
}

void pprm_task_cleanup() {
    if (g_ctx.pprm_tasks.len == 0) return;
    LOG_DBG("%s: %ld pprm tasks\n", __func__, long(g_ctx.pprm_tasks.len));
    xvlst_purge_all(&g_ctx.pprm_tasks, free_dw_elem);
}

void pprm_requests() {
    LOG_DBG("%s: BEGIN\n", __func__);
    rui_pprm_all(&g_ctx.rui);
    LOG_DBG("%s: END\n", __func__);
}

void rqs_set_now(timespec *ts) { *ts = rqs_now(); }

bool is_iocheck_time() {
    timespec period{};
    ms2timespec(int64_t(g_cfg.task_tmout_ms), &period);
    if (!timed_out(&g_ctx.last_tmout_check, &period)) return false;
    rqs_set_now(&g_ctx.last_tmout_check);
    return true;
}

int time_out_requests() {
    if (is_iocheck_time()) rui_tmout_all(&g_ctx.rui, long(g_cfg.urq_tmout_sec) * 1000);
    return 0;
}

int time_out_all() {
    // Both sweeps share one period stamp, so they run under one check: the
    // first to ask would otherwise consume the period for the other.
    if (!is_iocheck_time()) return 0;
    rui_tmout_all(&g_ctx.rui, long(g_cfg.urq_tmout_sec) * 1000);
    return xvlst_each(&g_ctx.tasks, dw_tmout_check, nullptr);
}

int dw_tmout_check(void *data, size_t idx) {
    dw_task *task = &static_cast<dw_task *>(data)[idx];
    timespec span{};
    ms2timespec(int64_t(g_cfg.task_tmout_ms), &span);
    if (timed_out(&task->last_io_tm, &span)) {
        LOG_WRN("[%s] (%p) timed out after %ld ms\n", task->trk_tag.str, static_cast<void *>(task),
                long(diff_ms(&task->last_io_tm, nullptr)));
        (void)pprm_task(task);
    }
    return 0;
}

int time_out_tasks() {
    if (!is_iocheck_time()) return 0;
    return xvlst_each(&g_ctx.tasks, dw_tmout_check, nullptr);
}

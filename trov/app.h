// app: the download engine. Owns the engine context g_ctx with its task
// records, the URL table that keeps one task per URL, and the list of ended
// tasks waiting for post-processing; moves each task from connecting to a
// complete file under its final name.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <type_traits>

#include "gkh.h"
#include "rui.h"
#include "tags.h"
#include "udl.h"
#include "webops.h"

struct srcpool_conn;
#include "wopen.h"
#include "xvdat.h"

constexpr n32_tag DOW_TAG = mk_tag("DOW");
constexpr n32_tag DW_INI = mk_tag("ini");  // connecting to the source
constexpr n32_tag DW_RSP = mk_tag("rsp");  // request sent, awaiting the response head
constexpr n32_tag DW_DNL = mk_tag("dnl");  // receiving the body

constexpr size_t DW_RELAY_SIZE = 1 << 20;  // body bytes moved per readable event (relay path)
constexpr size_t DW_HEAD_BUF_SIZE = 2048;  // response head buffer, 2047 usable
constexpr int DW_CONNECT_TMOUT_MS = 3000;
constexpr size_t DW_TRK_MAX = 10000;  // tracking tags run T0001..T10000

// A download order, filled by the order intake and copied into its task.
struct dw_spec {
    char url[128];           // source URL, "http://..."
    char fpath[128];         // data dir + "/" + dst_path + "-Trov" while being written
    int64_t content_length;  // 0 in an order
    char lid[32];            // order identifier; set only while the order holds a lock file
    time_t expiry_tm;        // seconds of the epoch, passed on to the load-balancer DB
    char dst_path[256];      // relative to the data dir; also the segment identifier
};
static_assert(std::is_trivially_copyable_v<dw_spec>);

// One download of one URL. Lives in a slot of g_ctx.tasks and never moves
// while the slot is taken: its address is the reactor's user data and the
// URL table's value.
struct dw_task {
    n32_tag tag;  // DOW_TAG; first byte "#" once freed
    dw_spec spec;
    n64_tag trk_tag;  // "T0001"...
    ssize_t idx;      // slot in g_ctx.tasks; -1 once released
    int sfd;          // socket to the source; -1 none
    usock_ctx sctx;
    int dfd;                // destination file; -1 none
    int cfd;                // duplicate of the waiting requester's connection; -1 none
    size_t content_length;  // announced by the source
    size_t nleft;           // body bytes still to come
    off_t f_pos;            // body bytes stored
    size_t buflen;          // length of the mapping
    char *buf;              // mapping of the destination, or a heap buffer
    timespec last_io_tm;    // last input from the source
    n32_tag state;          // DW_INI, DW_RSP, DW_DNL
    http_response *hresp;   // canned answer for the requester; never owned
    bool is_hashed;         // present in the URL table
    bool is_mmapped;        // buf maps the destination file
    bool is_quitting;       // listed for release; events are ignored
    bool is_started;        // the order was taken (counted once it ends)
    bool is_reused;         // sfd came from the idle pool; nothing of the response read yet
    bool ka_ok;             // the response allows the connection to be kept (so far)
    bool ka_keep;           // the body ended exactly: the connection goes back to the pool
    bool drained;           // the last read came back short: nothing was waiting behind it
    srcpool_conn *ka_conn;  // the pool entry sfd came with (its registration); null when none
    bool src_reading;       // sfd is registered for reading already (no switch after the GET)
    bool is_done;           // the file is complete under its final name
};
static_assert(std::is_trivially_copyable_v<dw_task>);
static_assert(std::is_standard_layout_v<dw_task> && offsetof(dw_task, tag) == 0);

struct trov_ctx {
    bool is_ready;
    rui_ctx rui;
    udl_ctx udl;
    xvlst tasks;       // dw_task records by value, max_tasks slots reserved at start
    skht_t task_ht;    // url2key(url) -> dw_task*
    xvlst pprm_tasks;  // dw_task* waiting for release
    size_t last_task_id;
    timespec last_tmout_check;  // last time-out sweep, loop time
    timespec last_rq_check;
};

extern trov_ctx g_ctx;

// Context start and end. init: 0 or the failing step's code (logged, the
// partial context torn down). destroy is safe after a partial init.
[[nodiscard]] int init_trov_ctx();
void destroy_trov_ctx();

// A task whose reused source connection failed before any byte of the
// response gets one new connection, unseen by its requester: true when it
// has one (registered, state "ini"); false when the task was not on a reused
// connection or the new one cannot be made (the failure is then the task's).
bool dw_retry_fresh(dw_task *task);

// The text after the first "://", or the whole URL; points into url.
const char *url2key(const char *url);
dw_task *get_dw_task(const char *key);
dw_task *add_dw(const dw_spec *spec, n64_tag trk);
// Starts a task for spec. cfd is the waiting requester (duplicated; the
// caller keeps its own) or -1. 0 connecting; 17 a task for the URL exists;
// -1 or another code on failure (nothing left behind).
[[nodiscard]] int mk_dw_task(int cfd, const dw_spec *spec);
void set_dw_state(dw_task *task, n32_tag state);
int unhash_task(dw_task *task);
// Releases everything the task holds and gives its slot back; an unfinished
// temporary file is removed.
void free_dw(dw_task *task);
// List callback: frees the task pointer stored in slot idx.
void free_dw_elem(void *data, size_t idx);
void rm_all_tasks();

// Fetching.
int connect_to_src(const char *url, usock_ctx *sctx);
int dw_write(dw_task *task);
int request_data_stream(dw_task *task);
int dw_read(dw_task *task);
int read_src_response(dw_task *task);
int read_fragment(dw_task *task);

// Destination files and completion.
int check_dest_path(const char *fpath);
int mk_dest_file(dw_task *task, const char *hbuf, const http_resp_ctx *ctx);
bool can_mmap_dw(const dw_task *task);
int complete_download(dw_task *task);
bool is_local_url(const char *url);
int add_lbdb_url(const dw_spec *spec);

// Release and time-outs.
int pprm_task(dw_task *task);
void pprm_task_cleanup();
void pprm_requests();
int time_out_requests();
int time_out_tasks();
// The idle step with the stalled-task sweep on: requests and tasks in one
// period check.
int time_out_all();
int dw_tmout_check(void *data, size_t idx);
bool is_iocheck_time();
void rqs_set_now(timespec *ts);

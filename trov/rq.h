// rq: HTTP download requests. Each accepted connection on a user listener
// becomes a request object that reads the request head, turns its target
// into a download order and either answers at once (ping, local URL, error)
// or hands the order and its connection to the download engine.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include "rui.h"
#include "tags.h"
#include "webops.h"

struct dw_spec;

constexpr n32_tag URQ_TAG = mk_tag("URQ");
constexpr n32_tag URQ_INI = mk_tag("INI");  // created
constexpr n32_tag URQ_RD = mk_tag("RD");    // reading the request
constexpr n32_tag URQ_QUI = mk_tag("QUI");  // answered, to be removed

constexpr size_t URQ_HEAD_SIZE = 1024;  // a request head must fit in 1023 bytes
constexpr long URQ_TMOUT_MS = 5000;     // period of the registry key of waiting requests
constexpr size_t URQ_TRK_MAX = 10000;

// Suffix of a destination file while it is being written.
constexpr const char SEG_TMP_EXT[] = "-Trov";
constexpr size_t SEG_TMP_EXT_LEN = sizeof SEG_TMP_EXT - 1;
// A temporary file younger than this belongs to a download in progress.
constexpr long SEG_STALE_SEC = 30;

// One HTTP download request. Begins with the listener's request head
// (rui_request): the list link with the tag, the listener, the connection.
struct dw_urq {
    n32_tag tag;  // URQ_TAG
    dw_urq *prev;
    dw_urq *next;
    rui_socket_ctx *srv;
    int sockfd;       // -1 once closed
    bool shared;      // the engine holds a duplicate of the connection
    bool registered;  // with the reactor
    n64_tag trk_tag;  // "u0001"...
    char uri_src[256];
    char uri_dst[256];
    http_rq hrq;             // head buffer allocated on the first read
    http_response *hresp;    // the answer chosen, a shared template
    timespec wait_start_tm;  // creation (loop time), base of the time-out
    n32_tag state;
    ssize_t pprm_idx;  // slot in the listener's pprm list; -1 when not listed
};
static_assert(offsetof(dw_urq, srv) == offsetof(rui_request, srv) &&
              offsetof(dw_urq, sockfd) == offsetof(rui_request, sockfd) &&
              offsetof(dw_urq, shared) == offsetof(rui_request, shared) &&
              offsetof(dw_urq, registered) == offsetof(rui_request, registered) &&
              offsetof(dw_urq, prev) == offsetof(dlep_elem, prev));

// The user kind's callbacks for the web listeners, with the "URQ" tag.
const rui_socket_cb *urq_callbacks();

dw_urq *urq_new(int fd, rui_socket_ctx *srv, void *user);
void urq_rm(dw_urq *urq);
// True (and the request listed for removal) when it has waited over ms.
bool urq_timeout(dw_urq *urq, long ms);
void urq_error(dw_urq *urq, bool is_hangup);
// Readable event. Always 0.
int urq_read(dw_urq *urq);
void pprm_urq(dw_urq *urq);

// 0 when the head is complete; 11 need more; -12; or the read's error
// (104 when the client closed first).
int read_http_rq(dw_urq *urq);
int parse_dw_get(dw_urq *urq, dw_spec *spec);
int validate_request(dw_urq *urq, dw_spec *spec);
// Builds an order from a source URL and a destination path (empty: the
// source's path). 0; 22 bad source; 34 too long; 17 a fresh temporary file
// for that destination exists; or the failing step's code.
[[nodiscard]] int setup_dw_spec(const char *src, const char *dst, size_t size, dw_spec *spec);
[[nodiscard]] int init_spec(const char *data_dir, const char *src, const char *dst, dw_spec *spec);
// Makes the directories on the way to fpath, remembering the last ones made
// sure of (they are not looked at again for the next file there). 0, or -1
// with errno from the failing mkdir.
[[nodiscard]] int ensure_dest_dirs(const char *fpath);
// Forgets them: one was found missing since.
void forget_dest_dirs();
// False when the destination path (already percent-decoded) climbs out of
// the data directory through a ".." segment.
bool is_safe_dst(const char *dst);
// Removes the temporary suffix in place: 0; 3 no suffix; 22 empty path.
int cutoff_segext(char *path);
bool is_unfinished_seg(const char *path);

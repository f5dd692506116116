// adm: requests on the admin listener. An operator's or a scraper's
// connection gets one answer and is closed: GET /metrics the counters in the
// text exposition format, GET / a ping's 204, anything else 404, a head that
// cannot be read as HTTP (or does not fit) 400. Nothing here reaches the
// download engine.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include "rui.h"
#include "tags.h"

constexpr n32_tag ARQ_TAG = mk_tag("ARQ");
constexpr size_t ADM_HEAD_SIZE = 1024;  // a head must fit in 1023 bytes, or it is answered 400
constexpr size_t ADM_MAX_ACCEPT = 16;   // connections taken per wake-up of the admin listener
constexpr size_t ADM_TRK_MAX = 10000;

// One admin request. Begins with the listener's request head (rui_request).
struct adm_rq {
    n32_tag tag;  // ARQ_TAG
    adm_rq *prev;
    adm_rq *next;
    rui_socket_ctx *srv;
    int sockfd;              // -1 once closed
    bool shared;             // never: admin answers are the listener's own
    bool registered;         // with the reactor
    n64_tag trk_tag;         // "a0001"...
    timespec wait_start_tm;  // creation (loop time), base of the time-out
    ssize_t pprm_idx;        // slot in the listener's pprm list; -1 when not listed
    size_t hlen;             // bytes of the head read so far
    char head[ADM_HEAD_SIZE];
};
static_assert(offsetof(adm_rq, srv) == offsetof(rui_request, srv) &&
              offsetof(adm_rq, sockfd) == offsetof(rui_request, sockfd) &&
              offsetof(adm_rq, shared) == offsetof(rui_request, shared) &&
              offsetof(adm_rq, registered) == offsetof(rui_request, registered) &&
              offsetof(adm_rq, prev) == offsetof(dlep_elem, prev));

// The admin kind's callbacks, with the "ARQ" tag.
const rui_socket_cb *adm_callbacks();

// Readable event: reads what came, answers once the head is complete (or
// cannot be), and lists the request for removal. Always 0.
int adm_read(adm_rq *rq);
// An error or hang-up without input: the request is listed for removal.
void adm_error(adm_rq *rq);

// The answer for a complete head of len bytes: the status code, and whether
// the body (the metrics) goes with it. 400 when the head is not HTTP.
int adm_route(const char *head, size_t len, bool *metrics, bool *head_only);

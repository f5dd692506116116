// rui: the web listeners. Up to four listening sockets for each of three
// kinds of client; every accepted connection becomes a request object in its
// listener's list, made and destroyed by the kind's callbacks. Walks the
// lists for post-processing (removal after the reactor pass) and time-outs.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <cstddef>

#include "appcfg.h"
#include "dlep.h"
#include "tags.h"
#include "xvdat.h"

constexpr int RUI_USER = 0;
constexpr int RUI_ADMIN = 1;
constexpr int RUI_CUSTOM = 2;
constexpr int RUI_MAX = 3;

constexpr size_t RUI_MAX_QUEUED = 1000;  // requests one listener may hold
constexpr int RUI_RCVLOWAT = 32;         // receive low-water mark of accepted sockets
constexpr size_t RUI_PPRM_RESERVE = 8;
constexpr int RUI_ACC_NODELAY = 2;  // rui_accept flag: disable Nagle on accepted sockets

struct rui_socket_ctx;

// The head every request object begins with: the list link (its typeid is
// the kind's tag), the listener and the connection.
struct rui_request {
    dlep_elem link;
    rui_socket_ctx *srv;
    int sockfd;  // -1 once closed
    // Another descriptor holds the connection (a duplicate kept by whoever
    // took the request over): closing ours then leaves it registered, so
    // the removal takes it out of the reactor first.
    bool shared;
    bool registered;  // with the reactor, for its readable events
};

// A kind's request callbacks.
struct rui_socket_cb {
    n32_tag tag;
    // Makes a request object for an accepted descriptor; null on failure.
    rui_request *(*new_rq)(int fd, rui_socket_ctx *srv, void *user);
    // Destroys a request object (its descriptor is already closed).
    void (*rm_rq)(rui_request *rq);
    // True when the request has waited longer than ms; it then lists itself
    // for post-processing.
    bool (*time_out)(rui_request *rq, long ms);
    // Optional: called for an accepted request before it is registered with
    // the reactor. A client usually sends its request with the connection,
    // so reading it at once saves a wait for the next pass, and a request
    // ended by that read (true) is never registered at all.
    bool (*on_accepted)(rui_request *rq);
};

// One listening socket at run time. Registered with the reactor as user
// data, so it begins with its tag.
struct rui_socket_ctx {
    n32_tag tag;    // the kind's tag
    int sockfd;     // -1 when closed
    fd_set accset;  // descriptors of this listener's requests (those below FD_SETSIZE)
    dlep_list *requests;
    xvlst pprm;      // rui_request* to remove after the pass
    bool deferred;   // closed by flow control, to be reopened
    size_t rqcount;  // requests accepted
    ssize_t nblk_count;
    rui_listener_cfg *lc;
    n32_tag rqtag;  // the kind's tag, also its name in logs
    rui_socket_cb *cb;
    // The listening socket carries the low-water mark, which accepted
    // sockets inherit (seen on the first one), so they need no call each.
    bool lowat_on_listener;
    bool lowat_checked;
};

struct rui_ctx {
    rui_socket_ctx user[RUI_MAX_LISTENERS];
    rui_socket_ctx admin[RUI_MAX_LISTENERS];
    rui_socket_ctx custom[RUI_MAX_LISTENERS];
    fd_set user_fds;
    fd_set admin_fds;
    fd_set custom_fds;
};

// Tag of the listening sockets as reactor user data.
constexpr n32_tag RSC_TAG = mk_tag("Rsc");

// Installs a kind's callbacks (copied). Before rui_ctx_init.
void rui_set_cb(int kind, const rui_socket_cb *cb);
[[nodiscard]] int rui_ctx_init(rui_cfg *cfg, rui_ctx *ctx);
[[nodiscard]] int rui_ctx_start(rui_ctx *ctx);
void rui_ctx_destroy(rui_ctx *ctx);

[[nodiscard]] int rui_setup_listeners(int kind, rui_listener_cfg *cfg, rui_socket_ctx *slots);
[[nodiscard]] int rui_enable_listeners(rui_socket_ctx *slots);
[[nodiscard]] int rui_start_listener(rui_listener_cfg *cfg, rui_socket_ctx *srv);
void rui_stop_listener(rui_socket_ctx *srv);
bool rui_can_listen(const rui_socket_ctx *srv, size_t max);
bool rui_should_listen(const rui_socket_ctx *srv, size_t max);

// Accepts up to max connections (flags: RUI_ACC_NODELAY). 0 or the last error.
int rui_accept(rui_socket_ctx *srv, size_t max, int flags, void *user);
[[nodiscard]] int rui_add_request(int fd, rui_socket_ctx *srv, void *user);
// Removes a request completely: unregistered, closed, destroyed.
void rui_rm_request(rui_request *rq);
void rui_pprm_all(rui_ctx *ctx);
// Lets every request of every kind check its time-out against ms.
void rui_tmout_all(rui_ctx *ctx, long ms);
// Increments counter (restarting at 0 once it reached max) and writes the
// letter and the counter as "%04lu" into tag.
void rui_mk_trknum(size_t *counter, n64_tag *tag, char letter, size_t max);
// A broken listening socket ends the process.
[[noreturn]] void rui_crash_on_error(rui_socket_ctx *srv, bool is_hangup);

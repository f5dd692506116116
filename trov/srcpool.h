// srcpool: idle connections to the sources, kept for the next download from
// the same host:port when source keep-alive is configured. An idle
// connection stays registered with the reactor under its pool entry, so an
// origin that closes or resets it (or sends what nobody asked for) takes it
// out at once; it is also closed after idle_ms and at shut-down. A
// connection keeps its entry, and so its registration, while a download uses
// it: the entry then names its owner, to which the reactor's events go, and
// taking or parking it again needs no call to the reactor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "tags.h"

constexpr n32_tag SKA_TAG = mk_tag("SKA");
constexpr size_t SRCPOOL_MAX = 1024;     // idle connections kept, all origins together
constexpr size_t SRCPOOL_KEY_SIZE = 72;  // "host:port"
constexpr int SRCPOOL_MAX_PER_ORIGIN = 1024;
constexpr long SRCPOOL_SWEEP_MS = 250;  // idle connections are looked at this often

// One kept connection; the reactor's user data for it, idle or in use.
struct srcpool_conn {
    n32_tag tag;  // SKA_TAG once used (entries live as long as the process)
    int fd;       // -1 when free
    void *owner;  // the download using it; null while idle
    timespec idle_since;
    char key[SRCPOOL_KEY_SIZE];
};

// Connections to the sources made and taken from the pool, since start.
extern uint64_t g_src_conn_new;
extern uint64_t g_src_conn_reused;

// "host:port" of an "http://host[:port]/..." URL into key (port 80 when none).
// 0, or 22 when the URL has no host or the key does not fit.
[[nodiscard]] int srcpool_key(const char *url, char *key, size_t cap);
// An idle connection to key, now owner's: its entry (the connection is
// entry->fd, still registered for reading under the entry), or null when
// there is none.
srcpool_conn *srcpool_take(const char *key, void *owner);
// Keeps fd (registered with the reactor, whoever's user data) idle for key.
// True when kept; false when the origin has per_origin idle connections
// already or the pool is full: the caller closes fd then.
bool srcpool_put(const char *key, int fd, int per_origin);
// The owner of a taken connection is done with it and it may be kept: it is
// idle again under the same entry. False when the origin has per_origin idle
// connections already: the entry is then released and the caller closes
// the connection.
bool srcpool_park(srcpool_conn *c, int per_origin);
// The owner of a taken connection closes it: the entry is free again.
void srcpool_release(srcpool_conn *c);
// The reactor reports an idle connection readable or broken: the origin
// closed it or sent bytes nobody asked for. It is closed. A late event for an
// entry that is empty now, or holds another connection that is fine, does
// nothing.
void srcpool_event(srcpool_conn *c);
// Closes connections idle for idle_ms or more. Cheap when the pool is empty.
void srcpool_sweep(long idle_ms);
// Closes every idle connection (shut-down).
void srcpool_close_all();
// Idle connections now.
size_t srcpool_count();

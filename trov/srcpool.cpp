// srcpool: idle source connections (see srcpool.h).
#include "srcpool.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "log.h"
#include "rqs.h"
#include "syswrap.h"
#include "timeop.h"
#include "tmout.h"

LOG_MODULE(0);

uint64_t g_src_conn_new;
uint64_t g_src_conn_reused;

namespace {
srcpool_conn s_pool[SRCPOOL_MAX];
size_t s_count;    // entries holding a connection
timespec s_swept;  // loop time of the last sweep
size_t s_top;      // one past the highest entry ever used: the scans stop there

void drop(srcpool_conn *c, const char *why) {
    LOG_DBG("%s: fd%d to %s closed (%s)\n", "srcpool", c->fd, c->key, why);
    // Closing takes it out of the epoll set; the reactor only counts it out.
    (void)rqs_forget_fd(c->fd);
    (void)W_close("srcpool", c->fd);
    c->fd = -1;  // the tag stays: a late event for the entry finds it empty
    if (--s_count == 0) rm_timeout(TMOUT_KEY_SRCPOOL);
}
}  // namespace

int srcpool_key(const char *url, char *key, size_t cap) {
    std::string_view u(url);
    if (!u.starts_with("http://")) return 22;
    u.remove_prefix(7);
    std::string_view auth = u.substr(0, u.find_first_of("/?#"));
    if (size_t at = auth.rfind('@'); at != std::string_view::npos) auth.remove_prefix(at + 1);
    if (auth.empty()) return 22;
    // A port is the digits after the last colon outside IPv6 brackets.
    size_t colon = auth.rfind(':');
    bool has_port = colon != std::string_view::npos &&
                    (auth.find(']') == std::string_view::npos || colon > auth.find(']'));
    int n = has_port ? snprintf(key, cap, "%.*s", int(auth.size()), auth.data())
                     : snprintf(key, cap, "%.*s:80", int(auth.size()), auth.data());
    return (n < 0 || size_t(n) >= cap) ? 22 : 0;
}

srcpool_conn *srcpool_take(const char *key, void *owner) {
    // The most recently parked connection of the origin is the likeliest
    // to be still open on the other side.
    srcpool_conn *best = nullptr;
    for (size_t i = 0; i < s_top; ++i) {
        srcpool_conn *c = &s_pool[i];
        if (c->fd < 0 || c->owner != nullptr || strcmp(c->key, key) != 0) continue;
        if (best == nullptr || c->idle_since.tv_sec > best->idle_since.tv_sec ||
            (c->idle_since.tv_sec == best->idle_since.tv_sec &&
             c->idle_since.tv_nsec > best->idle_since.tv_nsec))
            best = c;
    }
    if (best == nullptr) return nullptr;
    best->owner = owner;
    if (--s_count == 0) rm_timeout(TMOUT_KEY_SRCPOOL);
    ++g_src_conn_reused;
    LOG_DBG("%s: fd%d to %s reused\n", __func__, best->fd, key);
    return best;
}

// Idle connections to key, not counting skip.
static int idle_for(const char *key, const srcpool_conn *skip) {
    int same = 0;
    for (size_t i = 0; i < s_top; ++i) {
        const srcpool_conn *c = &s_pool[i];
        if (c != skip && c->fd >= 0 && c->owner == nullptr && strcmp(c->key, key) == 0) ++same;
    }
    return same;
}

bool srcpool_park(srcpool_conn *c, int per_origin) {
    XASSERT(c->fd >= 0 && c->owner != nullptr);
    int same = idle_for(c->key, c);
    if (same >= per_origin) {
        srcpool_release(c);
        return false;
    }
    c->owner = nullptr;
    c->idle_since = rqs_now();
    if (s_count++ == 0) set_timeout(TMOUT_KEY_SRCPOOL, SRCPOOL_SWEEP_MS);
    LOG_DBG("%s: fd%d to %s kept idle (%d others)\n", "srcpool_put", c->fd, c->key, same);
    return true;
}

void srcpool_release(srcpool_conn *c) {
    XASSERT(c->owner != nullptr);
    c->fd = -1;
    c->owner = nullptr;
}

bool srcpool_put(const char *key, int fd, int per_origin) {
    srcpool_conn *free_slot = nullptr;
    int same = 0;
    for (size_t i = 0; i < s_top; ++i) {
        srcpool_conn *c = &s_pool[i];
        if (c->fd < 0) {
            if (free_slot == nullptr) free_slot = c;
        } else if (c->owner == nullptr && strcmp(c->key, key) == 0 && ++same >= per_origin) {
            return false;
        }
    }
    if (free_slot == nullptr) {
        if (s_top == SRCPOOL_MAX) return false;
        free_slot = &s_pool[s_top++];
    }
    if (strlen(key) >= sizeof free_slot->key) return false;
    // Readable while idle means closed, reset or unasked-for bytes.
    if (rqs_mod(fd, free_slot, 1) != 0) return false;
    free_slot->tag = SKA_TAG;
    free_slot->fd = fd;
    free_slot->owner = nullptr;
    free_slot->idle_since = rqs_now();
    snprintf(free_slot->key, sizeof free_slot->key, "%s", key);
    if (s_count++ == 0) set_timeout(TMOUT_KEY_SRCPOOL, SRCPOOL_SWEEP_MS);
    LOG_DBG("%s: fd%d to %s kept idle (%d others)\n", __func__, fd, key, same);
    return true;
}

void srcpool_event(srcpool_conn *c) {
    // An event of this pass may be older than the entry's connection: the
    // one it was for was dropped and the entry refilled since.
    if (c->fd < 0 || c->owner != nullptr) return;
    char b;
    if (recv(c->fd, &b, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
        (errno == EAGAIN || errno == EWOULDBLOCK))
        return;
    drop(c, "the origin ended it");
}

void srcpool_sweep(long idle_ms) {
    if (s_count == 0) return;
    const timespec now = rqs_now();
    if (diff_ms(&now, &s_swept) < SRCPOOL_SWEEP_MS) return;
    s_swept = now;
    for (size_t i = 0; i < s_top && s_count > 0; ++i)
        if (s_pool[i].fd >= 0 && s_pool[i].owner == nullptr &&
            diff_ms(&now, &s_pool[i].idle_since) >= idle_ms)
            drop(&s_pool[i], "idle");
}

void srcpool_close_all() {
    bool in_use = false;
    for (size_t i = 0; i < s_top; ++i) {
        if (s_pool[i].fd < 0) continue;
        if (s_pool[i].owner == nullptr)
            drop(&s_pool[i], "shut-down");
        else
            in_use = true;  // its owner closes it
    }
    if (!in_use) s_top = 0;
}

size_t srcpool_count() { return s_count; }

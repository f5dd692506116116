// xvdat: growable arrays and slot lists (see xvdat.h).
#include "xvdat.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "syswrap.h"

LOG_MODULE(0);

uint32_t xvdat_flags = 0;

// Assertions whose logged text is fixed independently of how the condition is
// spelled here, so the lines stay searchable.
#define XV_ASSERT(cond, text)                          \
    do {                                               \
        if (!(cond)) [[unlikely]]                      \
            log_assert_fail(text, __FILE__, __LINE__); \
    } while (0)

namespace {

int nomem() {
    if ((xvdat_flags & XVDAT_ABORT_NOMEM) != 0) log_abort_here();
    return -1;
}

// Re-allocates *data from old_max to n elements rounded up to growblk and
// zeroes the new part. 0 with *new_max set, or -1 (logged).
int grow_elems(const char *who, void **data, size_t old_max, size_t n, size_t elsize,
               size_t growblk, size_t *new_max) {
    size_t cap = 0;
    size_t bytes = 0;
    if (__builtin_add_overflow(n, growblk - 1, &cap) ||
        __builtin_mul_overflow(cap / growblk * growblk, elsize, &bytes)) {
        LOG_ERR("%s: %zu elements of %zu bytes do not fit in memory\n", who, n, elsize);
        return nomem();
    }
    cap = cap / growblk * growblk;
    if (cap == 0) {
        // Nothing asked of an empty container; realloc(ptr, 0) would free.
        *new_max = old_max;
        return 0;
    }
    void *p = W_realloc(who, *data, bytes);
    if (p == nullptr) return nomem();
    if (cap > old_max)
        memset(static_cast<char *>(p) + old_max * elsize, 0, (cap - old_max) * elsize);
    *data = p;
    *new_max = cap;
    return 0;
}

// The lowest free slot once slot has been taken, knowing that every slot
// below it is taken and every slot above last is free; -1 when full.
ssize_t next_free(const char *taken, size_t max_len, size_t slot, size_t last) {
    if (slot < last) {
        if (taken[slot + 1] == 0) return static_cast<ssize_t>(slot + 1);
        const void *p = memchr(taken + slot + 1, 0, max_len - slot - 1);
        return p != nullptr ? static_cast<const char *>(p) - taken : -1;
    }
    return slot + 1 < max_len ? static_cast<ssize_t>(slot + 1) : -1;
}

// As many slots of elsize as fit in room together with one map byte each.
size_t slots_with_map(size_t room, size_t elsize) {
    size_t n = room / elsize;
    while (n > 0 && room - n * elsize < n) --n;
    return n;
}

char *emb_taken(emblst *el) { return reinterpret_cast<char *>(el) + el->taken_offt; }

}  // namespace

int xvec_bind(xvec *v, void *buf, size_t size, size_t elsize) {
    XASSERT(v != nullptr && buf != nullptr && elsize > 0);
    size_t cap = size / elsize;
    if (cap == 0) return -1;
    memset(buf, 0, size);
    *v = xvec{.data = buf, .len = 0, .max_len = cap, .flags = XV_FIXED};
    return 0;
}

int xvec_reserve(xvec *v, size_t n, size_t elsize, size_t growblk) {
    XASSERT(v && (growblk > 0));
    XASSERT(elsize > 0);
    // Strictly less, kept as established: asking for exactly max_len costs a
    // re-allocation to the same size, which is harmless.
    if (n < v->max_len) return 0;
    if ((v->flags & XV_FIXED) != 0) return XV_EFIXED;
    return grow_elems(__func__, &v->data, v->max_len, n, elsize, growblk, &v->max_len);
}

int xvec_expand(xvec *v, size_t plus, size_t elsize, size_t growblk) {
    XASSERT(v && plus && elsize && growblk);
    if ((v->flags & XV_FIXED) != 0) return XV_EFIXED;
    return xvec_reserve(v, v->len + plus, elsize, growblk);
}

ssize_t xvec_add(xvec *v, size_t elsize, size_t growblk) {
    XASSERT(v != nullptr);
    if (v->len >= v->max_len) {
        if ((v->flags & XV_FIXED) != 0) return -1;
        if (xvec_expand(v, 1, elsize, growblk) != 0) return -1;
    }
    return static_cast<ssize_t>(v->len++);
}

void xvec_reset(xvec *v) {
    XASSERT(v != nullptr);
    if ((v->flags & XV_FIXED) == 0) {
        free(v->data);
        v->data = nullptr;
        v->max_len = 0;
    }
    v->len = 0;
}

int xvec_each(const xvec *v, xv_each_fn f, size_t *stop_out) {
    XASSERT(v != nullptr && f != nullptr);
    int rc = 0;
    for (size_t i = 0; i < v->len; ++i) {
        rc = f(v->data, i);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = i;
            return rc;
        }
    }
    return rc;
}

int xvec_each_aux(const xvec *v, xv_aux_fn f, void *aux, size_t *stop_out) {
    XASSERT(v != nullptr && f != nullptr);
    int rc = 0;
    for (size_t i = 0; i < v->len; ++i) {
        rc = f(v->data, i, aux);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = i;
            return rc;
        }
    }
    return rc;
}

// Deliberately the same walk as xvec_each_aux: without out it does not stop
// at a match. Callers that need the position pass out.
int xvec_find(const xvec *v, void *key, xv_aux_fn f, size_t *out) {
    return xvec_each_aux(v, f, key, out);
}

int xvlst_bind(xvlst *l, void *buf, size_t size, size_t elsize) {
    XASSERT(l != nullptr && buf != nullptr && elsize > 0);
    size_t n = slots_with_map(size, elsize);
    if (n == 0) return -1;
    memset(buf, 0, size);
    *l = xvlst{};
    l->data = buf;
    l->max_len = n;
    l->flags = XV_FIXED;
    l->taken = static_cast<char *>(buf) + n * elsize;
    l->avail = 0;
    return 0;
}

int xvlst_mmap_fixed(xvlst *l, size_t n, size_t elsize) {
    XASSERT(l != nullptr && n > 0 && elsize > 0);
    size_t bytes = 0;
    if (__builtin_mul_overflow(n, elsize + 1, &bytes)) {
        LOG_ERR("%s: %zu slots of %zu bytes do not fit in memory\n", __func__, n, elsize);
        return 12;
    }
    // No swap reservation: a large list costs only the pages it touches.
    void *p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED) {
        int err = errno;
        LOG_ERR("%s: mmap(%zu bytes) ERROR(%d): %s\n", __func__, bytes, err, strerror(err));
        return 12;
    }
    *l = xvlst{};
    l->data = p;
    l->max_len = n;
    l->flags = XV_FIXED | XV_MAPPED;
    l->taken = static_cast<char *>(p) + n * elsize;
    l->avail = 0;
    l->meta.num = static_cast<long>(elsize);
    return 0;
}

int xvlst_reserve(xvlst *l, size_t n, size_t elsize, size_t growblk) {
    XASSERT(l && (growblk > 0));
    XASSERT(elsize > 0);
    if (n <= l->max_len) return 0;
    if ((l->flags & XV_FIXED) != 0) return XV_EFIXED;
    const size_t old = l->max_len;
    size_t cap = old;
    if (int rc = grow_elems(__func__, &l->data, old, n, elsize, growblk, &cap); rc != 0) return rc;
    if (cap <= old) return 0;
    // max_len moves only once the map has grown too, so a failure here leaves
    // a consistent list with a roomier slot block.
    auto *t = static_cast<char *>(W_realloc(__func__, l->taken, cap));
    if (t == nullptr) return nomem();
    memset(t + old, 0, cap - old);
    l->taken = t;
    l->max_len = cap;
    if (l->avail == -1) l->avail = static_cast<ssize_t>(old);
    return 0;
}

int xvlst_expand(xvlst *l, size_t plus, size_t elsize, size_t growblk) {
    XASSERT(l && plus && elsize && growblk);
    if ((l->flags & XV_FIXED) != 0) return XV_EFIXED;
    return xvlst_reserve(l, l->len + plus, elsize, growblk);
}

ssize_t xvlst_add(xvlst *l, size_t elsize, size_t growblk) {
    XASSERT(l != nullptr);
    XV_ASSERT(0 == l->max_len || l->avail < static_cast<ssize_t>(l->max_len),
              "(0 == l->max_len) || (l->avail < (ssize_t)l->max_len)");
    if (int rc = xvlst_reserve(l, l->len + 1, elsize, growblk); rc != 0) return rc;
    if (l->avail < 0) return -1;
    const size_t slot = static_cast<size_t>(l->avail);
    l->taken[slot] = 1;
    if (slot > l->last) l->last = slot;
    l->avail = next_free(l->taken, l->max_len, slot, l->last);
    if (slot == l->last && l->avail >= 0) XASSERT(0 == l->taken[l->avail]);
    l->len += 1;
    return static_cast<ssize_t>(slot);
}

int xvlst_del(xvlst *l, size_t j, xv_free_fn efree) {
    XASSERT(l != nullptr);
    if (j > l->last || j >= l->max_len || l->taken == nullptr) {
        LOG_ERR("%s: slot %zu is out of range (last=%zu)\n", __func__, j, l->last);
        return 34;
    }
    if (l->taken[j] == 0) {
        LOG_ERR("%s: slot %zu is free already\n", __func__, j);
        return 114;
    }
    l->taken[j] = 0;
    if (efree != nullptr) efree(l->data, j);
    if (l->avail == -1 || l->avail > static_cast<ssize_t>(j)) l->avail = static_cast<ssize_t>(j);
    XASSERT(l->len > 0);
    l->len -= 1;
    return 0;
}

int xvlst_each(const xvlst *l, xv_each_fn f, size_t *stop_out) {
    XASSERT(l != nullptr && f != nullptr);
    int rc = 0;
    if (l->data == nullptr || l->taken == nullptr) return 0;
    for (size_t j = 0; j <= l->last && j < l->max_len; ++j) {
        if (l->taken[j] == 0) continue;
        rc = f(l->data, j);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = j;
            return rc;
        }
    }
    return rc;
}

int xvlst_each_aux(const xvlst *l, void *aux, xv_aux_fn f, size_t *stop_out) {
    XASSERT(l != nullptr && f != nullptr);
    int rc = 0;
    if (l->data == nullptr || l->taken == nullptr) return 0;
    for (size_t j = 0; j <= l->last && j < l->max_len; ++j) {
        if (l->taken[j] == 0) continue;
        rc = f(l->data, j, aux);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = j;
            return rc;
        }
    }
    return rc;
}

int xvlst_find(const xvlst *l, void *key, xv_aux_fn f, size_t *out) {
    XASSERT(l != nullptr && f != nullptr);
    if (l->data == nullptr || l->taken == nullptr) return 0;
    for (size_t j = 0; j <= l->last && j < l->max_len; ++j) {
        if (l->taken[j] == 0) continue;
        if (int rc = f(l->data, j, key); rc != 0) {
            if (out != nullptr) *out = j;
            return rc;
        }
    }
    return 0;
}

ssize_t xvlst_rmif(xvlst *l, void *key, xv_aux_fn is_match, size_t *err_out) {
    XASSERT(l != nullptr && is_match != nullptr);
    ssize_t removed = 0;
    if (l->data == nullptr || l->taken == nullptr) return 0;
    for (size_t j = 0; j <= l->last && j < l->max_len; ++j) {
        if (l->taken[j] == 0 || is_match(l->data, j, key) == 0) continue;
        if (xvlst_del(l, j, nullptr) != 0) {
            if (err_out != nullptr) *err_out = j;
            return -1;
        }
        removed += 1;
    }
    return removed;
}

void xvlst_purge_all(xvlst *l, xv_free_fn efree) {
    XASSERT(l != nullptr);
    if (l->len == 0) return;
    XASSERT(l->taken != nullptr);
    if (efree != nullptr) {
        for (size_t j = 0; j <= l->last && j < l->max_len; ++j)
            if (l->taken[j] != 0) efree(l->data, j);
    }
    l->last = 0;
    l->len = 0;
    l->avail = l->max_len > 0 ? 0 : -1;
    memset(l->taken, 0, l->max_len);
}

void xvlst_reset(xvlst *l) {
    XASSERT(l != nullptr);
    if ((l->flags & XV_FIXED) == 0) {
        free(l->data);
        free(l->taken);
    } else if ((l->flags & XV_MAPPED) != 0) {
        const long blksz = l->meta.num;
        XASSERT(blksz);
        const size_t bytes = l->max_len * (static_cast<size_t>(blksz) + 1);
        if (munmap(l->data, bytes) != 0) {
            // A mapping we made cannot be released: our bookkeeping is wrong.
            int err = errno;
            LOG_PNC("%s: munmap(%p, %zu) ERROR(%d): %s\n", __func__, l->data, bytes, err,
                    strerror(err));
            log_abort_here();
        }
    }
    *l = xvlst{};
}

emblst *emblst_create(void *buf, size_t len, size_t elsize) {
    XV_ASSERT(0 == reinterpret_cast<uintptr_t>(buf) % sizeof(long),
              "0 == ((u_long)buf % sizeof(long))");
    XASSERT(elsize > 0);
    if (len < EMBLST_HDR) return nullptr;
    const size_t n = slots_with_map(len - EMBLST_HDR, elsize);
    if (n < 1) return nullptr;
    auto *el = static_cast<emblst *>(buf);
    el->count = 0;
    el->max_count = n;
    el->last = 0;
    el->avail = 0;
    el->flags |= XV_FIXED;  // other bits are the buffer's own business
    el->taken_offt = static_cast<off_t>(EMBLST_HDR + n * elsize);
    XASSERT(static_cast<size_t>(el->taken_offt) + n <= len);
    memset(emblst_data(el), 0, n * elsize + n);
    return el;
}

ssize_t emblst_add(emblst *el) {
    XASSERT(el != nullptr);
    if (el->avail < 0 || el->count >= el->max_count) return -1;
    char *taken = emb_taken(el);
    const size_t slot = static_cast<size_t>(el->avail);
    taken[slot] = 1;
    if (slot > el->last) el->last = slot;
    el->avail = next_free(taken, el->max_count, slot, el->last);
    el->count += 1;
    return static_cast<ssize_t>(slot);
}

int emblst_del(emblst *el, size_t j, xv_free_fn efree) {
    XASSERT(el != nullptr);
    char *taken = emb_taken(el);
    if (j > el->last || j >= el->max_count) {
        LOG_ERR("%s: slot %zu is out of range (last=%zu)\n", __func__, j, el->last);
        return 34;
    }
    if (taken[j] == 0) {
        LOG_ERR("%s: slot %zu is free already\n", __func__, j);
        return 114;
    }
    taken[j] = 0;
    if (efree != nullptr) efree(emblst_data(el), j);
    if (el->avail == -1 || el->avail > static_cast<ssize_t>(j)) el->avail = static_cast<ssize_t>(j);
    XASSERT(el->count > 0);
    el->count -= 1;
    return 0;
}

emblst *emblst_copy(const emblst *el, void *dst, size_t size) {
    XASSERT(el != nullptr && dst != nullptr);
    const size_t need = static_cast<size_t>(el->taken_offt) + el->max_count;
    if (size < need) {
        errno = EINVAL;
        return nullptr;
    }
    memcpy(dst, el, need);
    return static_cast<emblst *>(dst);
}

int emblst_each(emblst *el, xv_each_fn f, size_t *stop_out) {
    XASSERT(el != nullptr && f != nullptr);
    const char *taken = emb_taken(el);
    int rc = 0;
    for (size_t j = 0; j <= el->last && j < el->max_count; ++j) {
        if (taken[j] == 0) continue;
        rc = f(emblst_data(el), j);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = j;
            return rc;
        }
    }
    return rc;
}

int emblst_each_aux(emblst *el, void *aux, xv_aux_fn f, size_t *stop_out) {
    XASSERT(el != nullptr && f != nullptr);
    const char *taken = emb_taken(el);
    int rc = 0;
    for (size_t j = 0; j <= el->last && j < el->max_count; ++j) {
        if (taken[j] == 0) continue;
        rc = f(emblst_data(el), j, aux);
        if (rc != 0 && stop_out != nullptr) {
            *stop_out = j;
            return rc;
        }
    }
    return rc;
}

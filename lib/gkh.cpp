// gkh: chained hash tables with sorted chains (see gkh.h).
#include "gkh.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <type_traits>

#include "log.h"
#include "strops.h"
#include "syswrap.h"

LOG_MODULE(0);

namespace {

enum ht_ktype : int { KT_STRING = 0, KT_NUMERIC = 1 };

// The part every record starts with; the key follows in the kind's layout.
struct hrec {
    hrec *next;
    void *data;
};

struct s_hrec {
    hrec h;
    char s_key[GKH_SKEY_SIZE];  // at most 254 characters, always terminated
};

struct l_hrec {
    hrec h;
    long l_key;
};

static_assert(std::is_standard_layout_v<s_hrec> && offsetof(s_hrec, h) == 0);
static_assert(std::is_standard_layout_v<l_hrec> && offsetof(l_hrec, h) == 0);

struct ht_t {
    ht_ktype ktype;
    hrec **r;             // rlen chain heads
    size_t rlen;          // a power of two, so the bucket is a mask of the hash
    unsigned long hseed;  // creation time in seconds
    size_t count;
    khash_t icalc;  // null: a numeric key is its own hash
};

// Keys travel as one pointer-sized word: the text for string tables, the
// value itself for numeric ones.
const void *num_key(long key) { return reinterpret_cast<const void *>(key); }
long key_num(const void *key) { return static_cast<long>(reinterpret_cast<intptr_t>(key)); }

int s_cmp(const hrec *r, const void *key) {
    return strcmp(reinterpret_cast<const s_hrec *>(r)->s_key, static_cast<const char *>(key));
}

// Only the low 32 bits take part, so keys that differ above bit 31 are the
// same key. The reactor's watch descriptors never get there; kept as is.
int l_cmp(const hrec *r, const void *key) {
    uint32_t a = static_cast<uint32_t>(reinterpret_cast<const l_hrec *>(r)->l_key);
    uint32_t b = static_cast<uint32_t>(key_num(key));
    return static_cast<int32_t>(a - b);
}

hrec *s_mkhrec(const void *key) {
    auto *rec = static_cast<s_hrec *>(W_calloc(__func__, 1, sizeof(s_hrec)));
    if (rec == nullptr) return nullptr;
    (void)str_copy_cut(rec->s_key, sizeof rec->s_key, static_cast<const char *>(key));
    return &rec->h;
}

hrec *l_mkhrec(const void *key) {
    auto *rec = static_cast<l_hrec *>(W_calloc(__func__, 1, sizeof(l_hrec)));
    if (rec == nullptr) return nullptr;
    rec->l_key = key_num(key);
    return &rec->h;
}

void *get_skey(hrec *r) { return reinterpret_cast<s_hrec *>(r)->s_key; }
void *get_lkey(hrec *r) {
    return const_cast<void *>(num_key(reinterpret_cast<l_hrec *>(r)->l_key));
}

struct htfunc {
    int (*kcmp)(const hrec *r, const void *key);
    hrec *(*mkhrec)(const void *key);
    void *(*getkey)(hrec *r);
};

// Indexed by ht_ktype.
constexpr htfunc HT_FUNCS[] = {
    {.kcmp = s_cmp, .mkhrec = s_mkhrec, .getkey = get_skey},
    {.kcmp = l_cmp, .mkhrec = l_mkhrec, .getkey = get_lkey},
};

struct chain_stat {
    size_t len;
    hrec *last;
};

// Scratch space of the statistics print; one at a time.
chain_stat *s_stats = nullptr;

ht_t *ht_of(uintptr_t h) { return reinterpret_cast<ht_t *>(h); }

unsigned long calc_hseed() { return static_cast<unsigned long>(time(nullptr)); }

size_t calc_rlen(size_t m) {
    size_t r = 1;
    while (r <= m / 2) r <<= 1;
    return r;
}

struct rfind_result {
    hrec **bucket;
    hrec *rec;   // the matching record, or null
    hrec *prev;  // the record before the key's place, or null for the head
};

rfind_result rfind(const ht_t *t, const void *key) {
    uint64_t hv =
        t->icalc != nullptr ? t->icalc(key, t->hseed) : static_cast<uint64_t>(key_num(key));
    rfind_result res{&t->r[hv & (t->rlen - 1)], nullptr, nullptr};
    const htfunc &f = HT_FUNCS[t->ktype];
    for (hrec *p = *res.bucket; p != nullptr; p = p->next) {
        int c = f.kcmp(p, key);
        if (c == 0) {
            res.rec = p;
            break;
        }
        if (c > 0) break;
        res.prev = p;
    }
    return res;
}

void ht_destroy(ht_t *t, void (*free_data)(void *)) {
    if (t->r != nullptr) {
        for (size_t i = 0; i < t->rlen; ++i) {
            hrec *p = t->r[i];
            while (p != nullptr) {
                hrec *next = p->next;
                if (free_data != nullptr) free_data(p->data);
                free(p);
                p = next;
            }
        }
        free(static_cast<void *>(t->r));
    }
    free(t);
}

int ht_add(ht_t *t, const void *key, void **data) {
    if (t->r == nullptr) {
        LOG_ERR("%s: table %p has no buckets\n", __func__, static_cast<void *>(t));
        return GKH_NOBUCKETS;
    }
    rfind_result at = rfind(t, key);
    if (at.rec != nullptr) {
        if (data != nullptr) *data = at.rec->data;
        return GKH_PRESENT;
    }
    hrec *rec = HT_FUNCS[t->ktype].mkhrec(key);
    if (rec == nullptr) return GKH_NOMEM;
    rec->data = data != nullptr ? *data : nullptr;
    if (at.prev != nullptr) {
        rec->next = at.prev->next;
        at.prev->next = rec;
    } else {
        rec->next = *at.bucket;
        *at.bucket = rec;
    }
    t->count += 1;
    return 0;
}

int ht_rm(ht_t *t, const void *key, void **data) {
    if (t->r == nullptr) {
        LOG_ERR("%s: table %p has no buckets\n", __func__, static_cast<void *>(t));
        return GKH_NOBUCKETS;
    }
    rfind_result at = rfind(t, key);
    if (at.rec == nullptr) return GKH_ABSENT;
    if (at.prev != nullptr)
        at.prev->next = at.rec->next;
    else
        *at.bucket = at.rec->next;
    if (data != nullptr) *data = at.rec->data;
    free(at.rec);
    t->count -= 1;
    return 0;
}

int ht_get(const ht_t *t, const void *key, void **data) {
    if (t->r == nullptr) {
        LOG_ERR("%s: table %p has no buckets\n", __func__, static_cast<const void *>(t));
        return GKH_NOBUCKETS;
    }
    rfind_result at = rfind(t, key);
    if (at.rec == nullptr) return GKH_ABSENT;
    if (data != nullptr) *data = at.rec->data;
    return 0;
}

size_t ht_iter(const ht_t *t, void (*fn)(void *key, void *data, void *arg), void *arg) {
    size_t n = 0;
    if (t->r == nullptr) return 0;
    const htfunc &f = HT_FUNCS[t->ktype];
    for (size_t i = 0; i < t->rlen; ++i) {
        for (hrec *p = t->r[i]; p != nullptr; p = p->next) {
            fn(f.getkey(p), p->data, arg);
            n += 1;
        }
    }
    return n;
}

int ht_create(uintptr_t *ph, ht_ktype ktype, size_t capacity, khash_t hash) {
    XASSERT(ph != nullptr);
    XASSERT(capacity > 0);
    *ph = 0;
    if (capacity > GKH_MAX_HINT) {
        LOG_ERR("%s: size hint %zu is above %zu\n", __func__, capacity, GKH_MAX_HINT);
        return GKH_TOO_BIG;
    }
    auto *t = static_cast<ht_t *>(W_calloc(__func__, 1, sizeof(ht_t)));
    if (t == nullptr) return GKH_NOMEM;
    t->ktype = ktype;
    t->count = 0;
    t->hseed = calc_hseed();
    t->icalc = hash != nullptr ? hash : (ktype == KT_STRING ? plHash : nullptr);
    t->rlen = calc_rlen(capacity * 3 / 2);
    t->r = static_cast<hrec **>(W_calloc(__func__, t->rlen, sizeof(hrec *)));
    if (t->r == nullptr) {
        ht_destroy(t, nullptr);
        return GKH_NOMEM;
    }
    *ph = reinterpret_cast<uintptr_t>(t);
    return 0;
}

void ht_print(const ht_t *t, FILE *out, int verbose) {
    s_stats = static_cast<chain_stat *>(W_calloc(__func__, t->rlen, sizeof(chain_stat)));
    if (s_stats == nullptr) {
        fprintf(out, "%s: out of memory\n", "dump");
        return;
    }
    size_t used = 0;
    size_t max_chain = 0;
    for (size_t i = 0; i < t->rlen && t->r != nullptr; ++i) {
        for (hrec *p = t->r[i]; p != nullptr; p = p->next) {
            s_stats[i].len += 1;
            s_stats[i].last = p;
        }
        if (s_stats[i].len > 0) used += 1;
        if (s_stats[i].len > max_chain) max_chain = s_stats[i].len;
    }
    fprintf(out, "Hash [%p;seed=%ld] contains: \n\t%ld records; slots: %ld/%ld\n",
            static_cast<const void *>(t), static_cast<long>(t->hseed), static_cast<long>(t->count),
            static_cast<long>(used), static_cast<long>(t->rlen));
    fprintf(out, "Max chain length: %ld\n", static_cast<long>(max_chain));
    if (verbose) {
        fprintf(out, "\nHash slots (total=%ld):\n", static_cast<long>(t->rlen));
        for (size_t i = 0; i < t->rlen; ++i) {
            const chain_stat &cs = s_stats[i];
            if (cs.len == 0) continue;
            if (t->ktype == KT_STRING) {
                fprintf(out, "%ld:(%ld:%s);", static_cast<long>(i), static_cast<long>(cs.len),
                        reinterpret_cast<const s_hrec *>(cs.last)->s_key);
            } else {
                // The item shows where the last key is stored rather than the
                // key itself; kept unchanged so dumps stay comparable.
                const long *where = &reinterpret_cast<const l_hrec *>(cs.last)->l_key;
                fprintf(out, "%ld:(%ld:%ld);", static_cast<long>(i), static_cast<long>(cs.len),
                        static_cast<long>(reinterpret_cast<intptr_t>(where)));
            }
        }
        fputc('\n', out);
    }
    free(s_stats);
    s_stats = nullptr;
}

}  // namespace

int skht_create(skht_t *ph, size_t capacity, khash_t hash, const char *const *keys, size_t nkeys) {
    XASSERT(keys == nullptr || nkeys > 0);
    if (int rc = ht_create(ph, KT_STRING, capacity, hash); rc != 0) return rc;
    for (size_t i = 0; keys != nullptr && i < nkeys; ++i) {
        if (int rc = skht_add(*ph, keys[i], nullptr); rc != 0) {
            LOG_ERR("%s: ERROR(%d) pre-loading key #%zu [%s]\n", __func__, rc, i, keys[i]);
            ht_destroy(ht_of(*ph), nullptr);
            *ph = 0;
            return rc;
        }
    }
    return 0;
}

int nkht_create(nkht_t *ph, size_t capacity, khash_t hash) {
    return ht_create(ph, KT_NUMERIC, capacity, hash);
}

void skht_destroy(skht_t h, void (*free_data)(void *)) {
    XASSERT(h != 0);
    ht_destroy(ht_of(h), free_data);
}

void nkht_destroy(nkht_t h, void (*free_data)(void *)) {
    XASSERT(h != 0);
    ht_destroy(ht_of(h), free_data);
}

int skht_add(skht_t h, const char *key, void **data) {
    XASSERT(h != 0 && key != nullptr);
    return ht_add(ht_of(h), key, data);
}

int nkht_add(nkht_t h, long key, void **data) {
    XASSERT(h != 0);
    return ht_add(ht_of(h), num_key(key), data);
}

int skht_rm(skht_t h, const char *key, void **data) {
    XASSERT(h != 0 && key != nullptr);
    return ht_rm(ht_of(h), key, data);
}

int nkht_rm(nkht_t h, long key, void **data) {
    XASSERT(h != 0);
    return ht_rm(ht_of(h), num_key(key), data);
}

int skht_get(skht_t h, const char *key, void **data) {
    XASSERT(h != 0 && key != nullptr);
    return ht_get(ht_of(h), key, data);
}

int nkht_get(nkht_t h, long key, void **data) {
    XASSERT(h != 0);
    return ht_get(ht_of(h), num_key(key), data);
}

size_t skht_iter(skht_t h, void (*fn)(void *key, void *data, void *arg), void *arg) {
    XASSERT(h != 0 && fn != nullptr);
    return ht_iter(ht_of(h), fn, arg);
}

size_t nkht_iter(nkht_t h, void (*fn)(void *key, void *data, void *arg), void *arg) {
    XASSERT(h != 0 && fn != nullptr);
    return ht_iter(ht_of(h), fn, arg);
}

size_t skht_count(skht_t h) {
    XASSERT(h != 0);
    return ht_of(h)->count;
}

size_t nkht_count(nkht_t h) {
    XASSERT(h != 0);
    return ht_of(h)->count;
}

void skht_print(skht_t h, FILE *out, int verbose) {
    XASSERT(h != 0);
    ht_print(ht_of(h), out, verbose);
}

void nkht_print(nkht_t h, FILE *out, int verbose) {
    XASSERT(h != 0);
    ht_print(ht_of(h), out, verbose);
}

uint64_t plHash(const void *key, unsigned long seed) {
    uint64_t h = seed;
    for (const char *s = static_cast<const char *>(key); *s != '\0'; ++s)
        h = h * 101 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*s)));
    return h;
}

// With 64-bit arithmetic and sign-extended characters, bytes of 0x80 and
// above set high bits that the 0xF0000000 fold never clears. Kept: a text
// must keep hashing to the same value.
uint64_t elfHash(const void *key, [[maybe_unused]] unsigned long seed) {
    uint64_t h = 0;
    for (const char *s = static_cast<const char *>(key); *s != '\0'; ++s) {
        h = (h << 4) + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*s)));
        uint64_t g = h & 0xF0000000u;
        if (g != 0) h ^= g >> 24;
        h &= ~g;
    }
    return h;
}

uint64_t tw_shift(const void *key, [[maybe_unused]] unsigned long seed) {
    uint64_t k = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
    k = ~k + (k << 21);
    k = k ^ (k >> 24);
    k = k * 265;
    k = k ^ (k >> 14);
    k = k * 21;
    k = k ^ (k >> 28);
    k = k + (k << 31);
    return k;
}

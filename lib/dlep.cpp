// dlep: the intrusive doubly-linked list (see dlep.h).
#include "dlep.h"

#include <cstdlib>

#include "log.h"
#include "syswrap.h"

LOG_MODULE(0);

// Assertions whose logged text is fixed independently of how the condition is
// spelled here, so the lines stay searchable.
#define DL_ASSERT(cond, text)                          \
    do {                                               \
        if (!(cond)) [[unlikely]]                      \
            log_assert_fail(text, __FILE__, __LINE__); \
    } while (0)

namespace {

// Swaps e with its older neighbour p = e->prev: ... pp, p, e, en ... becomes
// ... pp, e, p, en ... (listed from the tail).
void swap_with_prev(dlep_list *l, dlep_elem *e) {
    dlep_elem *p = e->prev;
    dlep_elem *pp = p->prev;
    dlep_elem *en = e->next;
    e->prev = pp;
    e->next = p;
    p->prev = e;
    p->next = en;
    if (pp != nullptr)
        pp->next = e;
    else
        l->tail = e;
    if (en != nullptr)
        en->prev = p;
    else
        l->head = p;
}

}  // namespace

dlep_list *dlep_create(int *err) {
    auto *l = static_cast<dlep_list *>(W_calloc(__func__, 1, sizeof(dlep_list)));
    if (l == nullptr && err != nullptr) *err = 12;
    return l;
}

void dlep_destroy(dlep_list *l, dlep_free_fn efree) {
    XASSERT(l != nullptr);
    dlep_purge(l, efree);
    free(l);
}

void dlep_purge(dlep_list *l, dlep_free_fn efree) {
    XASSERT(l != nullptr);
    dlep_elem *e = l->tail;
    while (e != nullptr) {
        dlep_elem *next = e->next;  // read first: efree may free e
        if (efree != nullptr) {
            efree(e);
        } else {
            e->prev = nullptr;
            e->next = nullptr;
        }
        e = next;
    }
    *l = dlep_list{};
}

void dlep_purge1(dlep_list *l, dlep_free1_fn efree1, void *aux) {
    XASSERT(l != nullptr);
    dlep_elem *e = l->tail;
    while (e != nullptr) {
        dlep_elem *next = e->next;
        if (efree1 != nullptr) {
            efree1(e, aux);
        } else {
            e->prev = nullptr;
            e->next = nullptr;
        }
        e = next;
    }
    *l = dlep_list{};
}

size_t dlep_count(const dlep_list *l) {
    XASSERT(l != nullptr);
    return l->count;
}

dlep_elem *dlep_head(const dlep_list *l) {
    XASSERT(l != nullptr);
    return l->head;
}

dlep_elem *dlep_tail(const dlep_list *l) {
    XASSERT(l != nullptr);
    return l->tail;
}

void dlep_append(dlep_list *l, dlep_elem *e) {
    XASSERT(l != nullptr && e != nullptr);
    e->next = nullptr;
    if (l->head == nullptr) {
        DL_ASSERT(nullptr == l->tail, "NULL == l->tail");
        e->prev = nullptr;
        l->tail = e;
    } else {
        e->prev = l->head;
        l->head->next = e;
    }
    l->head = e;
    l->count += 1;
}

dlep_elem *dlep_rm(dlep_list *l, dlep_elem *le) {
    XASSERT(l != nullptr && le != nullptr);
    XASSERT(l->count > 0);
    if (le->prev == nullptr && le->next == nullptr) {
        // The only element: it must be both ends.
        XASSERT(l->tail == le);
        XASSERT(l->head == le);
        XASSERT(1 == l->count);
        l->head = nullptr;
        l->tail = nullptr;
    } else {
        if (le->prev != nullptr) {
            le->prev->next = le->next;
        } else {
            XASSERT(l->tail == le);
            l->tail = le->next;
        }
        if (le->next != nullptr) {
            le->next->prev = le->prev;
        } else {
            XASSERT(l->head == le);
            l->head = le->prev;
        }
        XASSERT(l->tail);
    }
    l->count -= 1;
    le->prev = nullptr;
    le->next = nullptr;
    return le;
}

dlep_elem *dlep_rmhead(dlep_list *l) {
    XASSERT(l != nullptr);
    return l->head != nullptr ? dlep_rm(l, l->head) : nullptr;
}

dlep_elem *dlep_rmtail(dlep_list *l) {
    XASSERT(l != nullptr);
    return l->tail != nullptr ? dlep_rm(l, l->tail) : nullptr;
}

void dlep_repos(dlep_list *l, dlep_elem *e, int asc, dlep_cmp_fn ecmp) {
    XASSERT(l != nullptr && e != nullptr && ecmp != nullptr);
    XASSERT(asc == 0 || asc == 1);
    const int toward_tail = asc != 0 ? 1 : -1;
    size_t moves = 0;
    for (;;) {
        if (e->prev != nullptr && ecmp(e, e->prev) == toward_tail) {
            swap_with_prev(l, e);
        } else if (e->next != nullptr && ecmp(e, e->next) == -toward_tail) {
            swap_with_prev(l, e->next);
        } else {
            break;
        }
        moves += 1;
        // An inconsistent comparison would swap back and forth for ever.
        XASSERT(moves <= l->count);
    }
}

void dlep_sadd(dlep_list *l, dlep_elem *e, int asc, dlep_cmp_fn ecmp) {
    dlep_append(l, e);
    dlep_repos(l, e, asc, ecmp);
}

// Kept: a list too short to be out of order answers with asc itself, so an
// ascending check of such a list gives 1, not 0.
int dlep_sverify(const dlep_list *l, int asc, dlep_cmp_fn ecmp) {
    XASSERT(l != nullptr && ecmp != nullptr);
    if (l->count < 2) return asc;
    const int expected = asc != 0 ? 1 : -1;
    const dlep_elem *before = l->head;
    size_t seen = 1;
    for (const dlep_elem *e = before->prev; e != nullptr && seen <= l->count; e = e->prev) {
        int c = ecmp(e, before);
        if (c != 0 && c != expected) return -1;
        before = e;
        seen += 1;
    }
    return 0;
}

void dlep_print(FILE *out, const dlep_list *l, dlep_printer printer) {
    XASSERT(l != nullptr);
    size_t seen = 0;
    for (const dlep_elem *e = l->head; e != nullptr && seen <= l->count; e = e->prev, ++seen) {
        fputc('{', out);
        if (printer != nullptr) printer(out, e);
        fputs("} ", out);
    }
    fputc('\n', out);
}

void dlep_debug_print(FILE *out, const dlep_list *l, dlep_printer printer) {
    XASSERT(l != nullptr);
    fprintf(out, "dlep_list:%p count=%ld head=%p tail=%p ", static_cast<const void *>(l),
            static_cast<long>(l->count), static_cast<void *>(l->head),
            static_cast<void *>(l->tail));
    // Bounded by count, so a cycle shows up as one element too many.
    size_t i = 0;
    const dlep_elem *p = l->head;
    for (; p != nullptr && i < l->count; p = p->prev, ++i) {
        fprintf(out, "#%ld[%p]: {prev=%p next=%p ", static_cast<long>(i),
                static_cast<const void *>(p), static_cast<void *>(p->prev),
                static_cast<void *>(p->next));
        fputs("data=", out);
        if (printer != nullptr) printer(out, p);
        fputs("; ", out);
    }
    fputc('\n', out);
    if (p != nullptr || i != l->count) {
        fprintf(out, "%s: ERROR: p=%p, i=%ld, l->count=%ld\n", __func__,
                static_cast<const void *>(p), static_cast<long>(i), static_cast<long>(l->count));
        fflush(out);
        XASSERT(p == nullptr && i == l->count);
    }
}

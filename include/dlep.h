// dlep: an intrusive doubly-linked list. Elements begin with a dlep_elem
// header and stay owned by the caller; the list only links them. The head is
// the newest element, the tail the oldest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <type_traits>

#include "tags.h"

// The header every list element begins with.
struct dlep_elem {
    union {
        int32_t type_id;  // the element's kind
        n32_tag tag;      // the same four bytes as an object tag
    };
    dlep_elem *prev;  // toward the tail: older
    dlep_elem *next;  // toward the head: newer
};

struct dlep_list {
    dlep_elem *head;  // newest
    dlep_elem *tail;  // oldest
    size_t count;
};

// What an owner keeps: the list made by dlep_create.
using dlep_t = dlep_list *;

static_assert(std::is_trivially_copyable_v<dlep_elem> && std::is_standard_layout_v<dlep_elem>);
static_assert(offsetof(dlep_elem, tag) == 0 && sizeof(n32_tag) == sizeof(int32_t));
static_assert(std::is_trivially_copyable_v<dlep_list>);

// Element callbacks. A comparison returns exactly -1, 0 or +1.
using dlep_free_fn = void (*)(dlep_elem *e);
using dlep_free1_fn = void (*)(dlep_elem *e, void *aux);
using dlep_cmp_fn = int (*)(const dlep_elem *a, const dlep_elem *b);
using dlep_printer = void (*)(FILE *out, const dlep_elem *e);

// An empty list, or null with 12 stored in *err (when given).
[[nodiscard]] dlep_list *dlep_create(int *err);
// dlep_purge, then frees the list itself.
void dlep_destroy(dlep_list *l, dlep_free_fn efree);
// Calls efree(e) on every element from the tail toward the head (efree may
// free e), then empties the list. With a null efree the elements are only
// unlinked.
void dlep_purge(dlep_list *l, dlep_free_fn efree);
// The same with an extra argument for efree1.
void dlep_purge1(dlep_list *l, dlep_free1_fn efree1, void *aux);

size_t dlep_count(const dlep_list *l);
dlep_elem *dlep_head(const dlep_list *l);  // the newest, or null
dlep_elem *dlep_tail(const dlep_list *l);  // the oldest, or null

// Links e (not on any list) in as the new head.
void dlep_append(dlep_list *l, dlep_elem *e);
// Appends e, then moves it to its place in a list sorted by ecmp: with asc 1
// the smallest is at the head and the largest at the tail; asc 0 the reverse.
void dlep_sadd(dlep_list *l, dlep_elem *e, int asc, dlep_cmp_fn ecmp);
// Moves e toward the tail while ecmp(e, e->prev) is +1 (asc 1; -1 for asc 0),
// else toward the head while ecmp(e, e->next) is -1 (+1 for asc 0). asc must be
// 0 or 1; more than count moves is a fatal assertion.
void dlep_repos(dlep_list *l, dlep_elem *e, int asc, dlep_cmp_fn ecmp);
// Unlinks e, which must be on l (fatal assertions check the links), clears
// its links and returns it.
dlep_elem *dlep_rm(dlep_list *l, dlep_elem *e);
dlep_elem *dlep_rmhead(dlep_list *l);  // null when empty
dlep_elem *dlep_rmtail(dlep_list *l);  // null when empty

// Lists of fewer than two elements give asc itself. Otherwise, walking from
// the head, every ecmp(element, the one before it) must be 0 or the expected
// sign (+1 for asc 1, -1 for asc 0): 0, or -1 at the first that is not.
int dlep_sverify(const dlep_list *l, int asc, dlep_cmp_fn ecmp);

// "{<printer>} " per element from head to tail, then a newline.
void dlep_print(FILE *out, const dlep_list *l, dlep_printer printer);
// The list's addresses and every element's links, then a newline; a count that
// disagrees with the walk is reported and is a fatal assertion.
void dlep_debug_print(FILE *out, const dlep_list *l, dlep_printer printer);

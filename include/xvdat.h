// xvdat: the growable containers the program uses instead of general-purpose
// ones: xvec (a growable array), xvlst (a slot list whose slot index is an
// element's handle, lowest free slot reused first) and emblst (a slot list
// laid out inside one caller buffer). Element size and growth block are passed
// on every call, so one record type serves every element type.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Process-wide: with XVDAT_ABORT_NOMEM set, an allocation failure aborts the
// process instead of returning -1. Clear by default.
extern uint32_t xvdat_flags;
constexpr uint32_t XVDAT_ABORT_NOMEM = 1;

// Container flags.
constexpr uint32_t XV_FIXED = 2;   // bound storage: never grown or freed by the container
constexpr uint32_t XV_MAPPED = 4;  // an anonymous mapping owned by the container

constexpr int XV_EFIXED = -11;  // growth asked of fixed storage

// Callbacks get the container's storage base and an index; they know their
// element type and find the element as static_cast<T *>(data)[i].
using xv_each_fn = int (*)(void *data, size_t i);
using xv_aux_fn = int (*)(void *data, size_t i, void *aux);
using xv_free_fn = void (*)(void *data, size_t i);

// A zeroed record is an empty vector.
struct xvec {
    void *data;
    size_t len;      // elements in use: 0..len-1
    size_t max_len;  // capacity in elements
    uint32_t flags;  // XV_FIXED, XV_MAPPED
};

union wordata {
    long num;
    void *ptr;
    char str[8];
};

// A zeroed record is an empty list. The first four fields match xvec.
struct xvlst {
    void *data;
    size_t len;      // occupied slots
    size_t max_len;  // capacity in slots
    uint32_t flags;
    char *taken;    // one byte per slot, non-zero = occupied
    size_t last;    // highest slot occupied since the last purge; deleting keeps it
    ssize_t avail;  // lowest free slot, -1 when full
    wordata meta;   // mapped list: num = slot size
};

// The header of a list embedded in a caller buffer; the slots follow it
// directly (emblst_data), then the occupancy map at taken_offt. Offsets only,
// so the block can be copied whole.
struct emblst {
    size_t count;      // occupied slots
    size_t max_count;  // capacity in slots
    size_t last;       // highest slot occupied
    ssize_t avail;     // lowest free slot, -1 when full
    uint32_t flags;    // XV_FIXED OR-ed into what the buffer held
    off_t taken_offt;  // block start to the occupancy map
};

constexpr size_t EMBLST_HDR = 48;

static_assert(std::is_trivially_copyable_v<xvec> && std::is_standard_layout_v<xvec>);
static_assert(std::is_trivially_copyable_v<xvlst> && std::is_standard_layout_v<xvlst>);
static_assert(std::is_trivially_copyable_v<emblst> && sizeof(emblst) == EMBLST_HDR);

// Binds v to buf: capacity size / elsize, empty, fixed, buf zeroed. The
// caller keeps buf alive and owns it. 0, or -1 when not one element fits.
[[nodiscard]] int xvec_bind(xvec *v, void *buf, size_t size, size_t elsize);
// Ensures capacity for n elements, rounded up to a multiple of growblk; the
// new part is zeroed. Asking for exactly max_len re-allocates to the same size.
// 0, XV_EFIXED, or -1 when allocation fails. A null v or zero growblk is a
// fatal assertion. Growing moves the storage: element pointers go stale.
[[nodiscard]] int xvec_reserve(xvec *v, size_t n, size_t elsize, size_t growblk);
// Reserves len + plus. Zero arguments are fatal. 0, XV_EFIXED or -1.
[[nodiscard]] int xvec_expand(xvec *v, size_t plus, size_t elsize, size_t growblk);
// Appends one element (zeroed when its storage is new, else what was left
// there): its index, or -1 (full fixed storage or allocation failure).
[[nodiscard]] ssize_t xvec_add(xvec *v, size_t elsize, size_t growblk);
// Frees unfixed storage (capacity 0); always empties the vector.
void xvec_reset(xvec *v);
// Calls f for 0..len-1. With stop_out, the first non-zero result stops the
// walk, its index goes to *stop_out and the result is returned; without it the
// walk goes on and the last call's result is returned (0 when empty).
int xvec_each(const xvec *v, xv_each_fn f, size_t *stop_out);
int xvec_each_aux(const xvec *v, xv_aux_fn f, void *aux, size_t *stop_out);
// xvec_each_aux with key as aux: a search without out does not stop at the
// first match, so pass out when the position matters.
int xvec_find(const xvec *v, void *key, xv_aux_fn f, size_t *out);

// Binds l to buf: as many slots as fit together with their one-byte map (put
// right after the slots); fixed, empty, buf zeroed. 0, or -1 when no slot fits.
[[nodiscard]] int xvlst_bind(xvlst *l, void *buf, size_t size, size_t elsize);
// Makes l a fixed list of n slots in one private anonymous mapping without
// swap reservation (slots, then the map). 0, or 12 when the mapping fails.
// Zero n or elsize is fatal. xvlst_reset unmaps it.
[[nodiscard]] int xvlst_mmap_fixed(xvlst *l, size_t n, size_t elsize);
// Ensures capacity for n slots (nothing when n <= max_len). 0, XV_EFIXED, -1.
// Growing moves the slots: pointers into the list go stale, indices do not.
[[nodiscard]] int xvlst_reserve(xvlst *l, size_t n, size_t elsize, size_t growblk);
// Reserves len + plus. Zero arguments are fatal.
[[nodiscard]] int xvlst_expand(xvlst *l, size_t plus, size_t elsize, size_t growblk);
// Takes the lowest free slot, growing by growblk when full: the slot (its
// bytes are whatever the last occupant left, zero when new), or XV_EFIXED
// when a fixed list is full, or -1.
[[nodiscard]] ssize_t xvlst_add(xvlst *l, size_t elsize, size_t growblk);
// Frees slot j, calling efree(data, j) when given. 0; 34 when j is above last
// (or the list has no storage); 114 when the slot is free already.
int xvlst_del(xvlst *l, size_t j, xv_free_fn efree);
// Calls f for the occupied slots 0..last; stop_out as for xvec_each.
int xvlst_each(const xvlst *l, xv_each_fn f, size_t *stop_out);
int xvlst_each_aux(const xvlst *l, void *aux, xv_aux_fn f, size_t *stop_out);
// Stops at the first non-zero result whether or not out is given; the slot
// goes to *out when given. The result, or 0 when nothing matched.
int xvlst_find(const xvlst *l, void *key, xv_aux_fn f, size_t *out);
// Deletes every occupied slot for which is_match(data, slot, key) is non-zero
// (no free function). The number removed; -1 with the slot in *err_out (when
// given) if a deletion fails.
ssize_t xvlst_rmif(xvlst *l, void *key, xv_aux_fn is_match, size_t *err_out);
// When the list holds elements: efree(data, slot) on each (when given), then
// empty, last 0, lowest slot free. Storage is kept.
void xvlst_purge_all(xvlst *l, xv_free_fn efree);
// Releases what the list owns (heap storage or its mapping; bound storage is
// the caller's) and zeroes the record.
void xvlst_reset(xvlst *l);

// Lays a list out in buf (8-byte aligned, a fatal assertion otherwise): the
// header, as many slots as fit with their map, then the map. Slots and map are
// zeroed. The list, or null when not one slot fits.
[[nodiscard]] emblst *emblst_create(void *buf, size_t len, size_t elsize);
// The lowest free slot, or -1 when full.
[[nodiscard]] ssize_t emblst_add(emblst *el);
// As xvlst_del: 0, 34 or 114.
int emblst_del(emblst *el, size_t j, xv_free_fn efree);
// Copies the whole list (header, slots, map) to dst, which is then a usable
// list. dst, or null with errno EINVAL when size is too small.
emblst *emblst_copy(const emblst *el, void *dst, size_t size);
int emblst_each(emblst *el, xv_each_fn f, size_t *stop_out);
int emblst_each_aux(emblst *el, void *aux, xv_aux_fn f, size_t *stop_out);

// The first slot of an embedded list.
inline void *emblst_data(emblst *el) { return reinterpret_cast<char *>(el) + EMBLST_HDR; }

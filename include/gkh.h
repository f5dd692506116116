// gkh: chained hash tables with a fixed bucket count, string keys (skht_*)
// or numeric keys (nkht_*). The table owns its records and copies of the
// keys; the caller owns the pointer-sized values it stores. Chains are kept
// sorted so a failed look-up stops early.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

// Opaque handles: 0 means "no table".
using skht_t = uintptr_t;
using nkht_t = uintptr_t;

// (key, seed) -> hash. A string table hands the key text; a numeric table
// hands the key's value in the pointer word (reinterpret_cast<const void *>(key)).
using khash_t = uint64_t (*)(const void *key, unsigned long seed);

// Error numbers.
constexpr int GKH_TOO_BIG = 75;    // size hint above GKH_MAX_HINT
constexpr int GKH_NOMEM = 12;      // table or record could not be allocated
constexpr int GKH_PRESENT = 16;    // the key is stored already
constexpr int GKH_ABSENT = 3;      // no such key
constexpr int GKH_NOBUCKETS = 22;  // the table has no bucket array
constexpr size_t GKH_MAX_HINT = 5000000;
constexpr size_t GKH_SKEY_SIZE = 255;  // stored string keys keep at most 254 characters

// Creates a string table for about capacity keys (the bucket count is the
// largest power of two not above capacity * 3 / 2). A null hash means plHash
// seeded with the creation second. keys/nkeys pre-load keys with null values;
// keys without nkeys, a null ph or a zero capacity are fatal assertions.
// 0 with *ph set, or 75, 12, or the first pre-load failure with *ph = 0.
[[nodiscard]] int skht_create(skht_t *ph, size_t capacity, khash_t hash, const char *const *keys,
                              size_t nkeys);
// The same for numeric keys; a null hash makes each key its own hash.
[[nodiscard]] int nkht_create(nkht_t *ph, size_t capacity, khash_t hash);

// Frees every record (calling free_data on each value when given), the
// buckets and the table. The handle is dead afterwards.
void skht_destroy(skht_t h, void (*free_data)(void *));
void nkht_destroy(nkht_t h, void (*free_data)(void *));

// Stores *data (null when data is null) under key. A string key is copied,
// cut to 254 characters. 0; 16 when the key is present, with the stored value
// written back through data and nothing changed; 12; 22.
[[nodiscard]] int skht_add(skht_t h, const char *key, void **data);
[[nodiscard]] int nkht_add(nkht_t h, long key, void **data);

// Removes key and hands its value back through data (when given). 0, 3 or 22.
int skht_rm(skht_t h, const char *key, void **data);
int nkht_rm(nkht_t h, long key, void **data);

// Looks key up; its value through data (when given). 0, 3 or 22.
[[nodiscard]] int skht_get(skht_t h, const char *key, void **data);
[[nodiscard]] int nkht_get(nkht_t h, long key, void **data);

// Calls fn(key, value, arg) for every record, bucket by bucket from the first
// and each chain from its head; the key is the stored text for a string table
// and the value in the pointer word for a numeric one. fn must not add or
// remove records. Returns the records visited.
size_t skht_iter(skht_t h, void (*fn)(void *key, void *data, void *arg), void *arg);
size_t nkht_iter(nkht_t h, void (*fn)(void *key, void *data, void *arg), void *arg);

size_t skht_count(skht_t h);
size_t nkht_count(nkht_t h);

// Writes record, bucket and chain statistics to out; with verbose also one
// item per used bucket. Uses one process-wide scratch array: not reentrant.
void skht_print(skht_t h, FILE *out, int verbose);
void nkht_print(nkht_t h, FILE *out, int verbose);

// Hash functions. plHash: h = seed, then h * 101 + c per character. elfHash:
// the ELF (PJW) string hash, seed ignored. tw_shift: a 64-bit integer mix of
// the key's value, seed ignored. Characters are signed bytes, sign-extended.
uint64_t plHash(const void *key, unsigned long seed);
uint64_t elfHash(const void *key, unsigned long seed);
uint64_t tw_shift(const void *key, unsigned long seed);

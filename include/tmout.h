// tmout: the timeout registry. Each kind of waiting object owns a numbered
// key; every live object locks its key with the key's period, and the
// registry keeps the smallest period of all locked keys, which bounds how
// long the reactor may sleep. Periods, not deadlines.
#pragma once

#include <cstddef>

constexpr int TMOUT_MAX_KEYS = 32;
constexpr long TMOUT_NONE = -9999;  // no key locked: the loop may sleep without limit

struct tmo_rec {
    long value;     // period in ms given by the first locker; 0 when free
    size_t nlocks;  // objects holding the key
};

struct tmout_registry {
    tmo_rec rec[TMOUT_MAX_KEYS];
    long min;  // smallest locked period, or TMOUT_NONE
};

// Key of the waiting HTTP download requests.
constexpr int TMOUT_KEY_URQ = 1;
// Key of the download tasks, held only while stalled tasks are swept.
constexpr int TMOUT_KEY_TASK = 2;
// Key of the UDP order channel, held while a count of dropped datagrams waits
// to be reported.
constexpr int TMOUT_KEY_UDL = 3;
// Key of the idle source connections, held while any is kept.
constexpr int TMOUT_KEY_SRCPOOL = 4;

void reg_init_timeout(tmout_registry *reg);
// Takes a lock on key; the first locker's period stands until the key is free.
void reg_set_timeout(tmout_registry *reg, int key, long value);
// Releases one lock; releasing a free key is a fatal assertion.
void reg_rm_timeout(tmout_registry *reg, int key);
long reg_get_timeout(const tmout_registry *reg, int key);
long reg_min_timeout(const tmout_registry *reg);

// The same on the process-wide registry.
void init_timeout_registry();
void set_timeout(int key, long value);
void rm_timeout(int key);
long get_timeout(int key);
long get_min_timeout();

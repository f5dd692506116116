// tmout: the timeout registry (see tmout.h).
#include "tmout.h"

#include <cstdint>

#include "log.h"

LOG_MODULE(0);

namespace {
tmout_registry s_reg = {{}, TMOUT_NONE};
}

void reg_init_timeout(tmout_registry *reg) {
    *reg = tmout_registry{};
    reg->min = TMOUT_NONE;
}

void reg_set_timeout(tmout_registry *reg, int key, long value) {
    XASSERT(key >= 0 && key < TMOUT_MAX_KEYS);
    XASSERT(value >= TMOUT_NONE);
    tmo_rec &r = reg->rec[key];
    r.nlocks += 1;
    if (r.nlocks == 1) {
        r.value = value;
        // A negative minimum is replaced outright: the registry is meant for
        // positive periods only.
        if (reg->min < 0 || value < reg->min) reg->min = value;
    }
    LOG_DBG("%s: timeout[%d] lk=%lu val=%ld, min_val=%ld\n", __func__, key,
            static_cast<unsigned long>(r.nlocks), r.value, reg->min);
}

void reg_rm_timeout(tmout_registry *reg, int key) {
    XASSERT(key >= 0 && key < TMOUT_MAX_KEYS);
    tmo_rec &r = reg->rec[key];
    XASSERT(r.nlocks > 0);
    r.nlocks -= 1;
    if (r.nlocks > 0) {
        LOG_DBG("%s: timeout[%d] lk=%lu\n", __func__, key, static_cast<unsigned long>(r.nlocks));
        return;
    }
    long old = r.value;
    r.value = 0;
    if (!(reg->min != 0 && old > reg->min)) {
        long min = INT64_MAX;
        bool picked = false;
        for (long i = 0; i < TMOUT_MAX_KEYS; ++i) {
            const tmo_rec &k = reg->rec[i];
            if (k.nlocks > 0 && k.value < min) {
                min = k.value;
                picked = true;
                LOG_DBG("%s: picked rec[%ld] val=%ld, lk=%lu\n", __func__, i, k.value,
                        static_cast<unsigned long>(k.nlocks));
            }
        }
        reg->min = picked ? min : TMOUT_NONE;
    }
    LOG_DBG("%s: removed timeout[%d]: val=%ld, min_val=%ld\n", __func__, key, old, reg->min);
}

long reg_get_timeout(const tmout_registry *reg, int key) {
    XASSERT(key >= 0 && key < TMOUT_MAX_KEYS);
    return reg->rec[key].value;
}

long reg_min_timeout(const tmout_registry *reg) { return reg->min; }

void init_timeout_registry() { reg_init_timeout(&s_reg); }
void set_timeout(int key, long value) { reg_set_timeout(&s_reg, key, value); }
void rm_timeout(int key) { reg_rm_timeout(&s_reg, key); }
long get_timeout(int key) { return reg_get_timeout(&s_reg, key); }
long get_min_timeout() { return reg_min_timeout(&s_reg); }

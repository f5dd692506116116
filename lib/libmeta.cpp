// libmeta: the support library's identity (see libmeta.h).
#include "libmeta.h"

#ifndef VLM_BUILD_HASH
#define VLM_BUILD_HASH "nohash"
#endif
#ifndef VLM_BUILD_TIME
#define VLM_BUILD_TIME 0
#endif

const char *lbvlm_info() {
    static char info[64];
    if (info[0] == '\0') {
        int n = snprintf(info, sizeof info, "libvlm/%s-%d.%d (%s) @%u", "1.5", 6, 20,
                         VLM_BUILD_HASH, unsigned(VLM_BUILD_TIME));
        if (n < 1 || size_t(n) >= sizeof info) snprintf(info, sizeof info, "#error#");
    }
    return info;
}

bool using_fast_clocks() { return false; }

// Fuzz target: the daemon's configuration loader on arbitrary file text. The
// text is written to one memory file that every run reuses (read back
// through its /proc/self/fd path, so nothing is left on disk however the
// fuzzer ends); the loader's own checks of interface names and directories
// run as they would at start.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cfg.h"
#include "fuzzlib.h"

namespace {

char s_path[64];
int s_fd = -1;
trov_cfg s_cfg;  // zeroed once, so the first init finds nothing to free

void put_text(const uint8_t *data, size_t size) {
    if (ftruncate(s_fd, 0) != 0 || (size > 0 && pwrite(s_fd, data, size, 0) != ssize_t(size))) {
        perror("config: writing the scratch file");
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    s_fd = memfd_create("trov.conf", MFD_CLOEXEC);
    if (s_fd < 0) {
        perror("config: memfd_create");
        abort();
    }
    snprintf(s_path, sizeof s_path, "/proc/self/fd/%d", s_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An include directive reads another file, and a device there (a
    // terminal, /dev/zero) would only measure that file, not the loader.
    if (size >= 8 && memmem(data, size, "@include", 8) != nullptr) return -1;
    put_text(data, size);
    FUZZ_CHECK(init_trov_config(&s_cfg) == 0);
    int rc = load_trov_config(s_path, &s_cfg, false);
    // Every string setting is refused, not cut, when too long, so whatever
    // was loaded is terminated inside its field.
    FUZZ_CHECK(strnlen(s_cfg.data_dir, sizeof s_cfg.data_dir) < sizeof s_cfg.data_dir);
    FUZZ_CHECK(strnlen(s_cfg.seg_url_pfx, sizeof s_cfg.seg_url_pfx) < sizeof s_cfg.seg_url_pfx);
    FUZZ_CHECK(strnlen(s_cfg.udp_cha.url, sizeof s_cfg.udp_cha.url) < sizeof s_cfg.udp_cha.url);
    FUZZ_CHECK(strnlen(s_cfg.lbdb.host, sizeof s_cfg.lbdb.host) < sizeof s_cfg.lbdb.host);
    if (rc == 0) {
        (void)validate_config(&s_cfg);
        // The dump runs on every start; it must cope with anything loaded.
        FILE *sink = fopen("/dev/null", "w");
        if (sink != nullptr) {
            dump_trov_config(sink, &s_cfg);
            fclose(sink);
        }
    }
    free_trov_config(&s_cfg);
    return 0;
}

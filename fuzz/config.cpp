// Fuzz target: the daemon's configuration loader on arbitrary file text. The
// text is written to one temporary file that every run reuses; the loader's
// own checks of interface names and directories run as they would at start.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cfg.h"
#include "fuzzlib.h"

namespace {

char s_dir[64];
char s_path[128];
int s_fd = -1;
trov_cfg s_cfg;  // zeroed once, so the first init finds nothing to free

void remove_scratch() {
    if (s_fd >= 0) close(s_fd);
    (void)unlink(s_path);
    (void)rmdir(s_dir);
}

void put_text(const uint8_t *data, size_t size) {
    if (ftruncate(s_fd, 0) != 0 || (size > 0 && pwrite(s_fd, data, size, 0) != ssize_t(size))) {
        perror("config: writing the scratch file");
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_log();
    snprintf(s_dir, sizeof s_dir, "/tmp/trov-fuzz-cfg-XXXXXX");
    if (mkdtemp(s_dir) == nullptr) {
        perror("config: mkdtemp");
        abort();
    }
    snprintf(s_path, sizeof s_path, "%s/trov.conf", s_dir);
    s_fd = open(s_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (s_fd < 0) {
        perror("config: open");
        abort();
    }
    atexit(remove_scratch);
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

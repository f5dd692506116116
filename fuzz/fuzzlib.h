// fuzzlib: what every fuzz target shares: a log that formats every line (so
// the sanitizers check each statement's arguments) but prints nothing, exact
// heap copies of the input so that any read past it is caught, and the
// invariant check that turns a broken contract into a crash the fuzzer keeps.
#pragma once

#include <sanitizer/common_interface_defs.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "timeop.h"

// A violated invariant is a finding: print what failed and abort, which the
// fuzzer reports with the input that caused it. The summary also goes to the
// sanitizers' report stream, which stays open when the fuzzer is told to
// close the program's own stderr.
#define FUZZ_CHECK(cond)                                  \
    do {                                                  \
        if (!(cond)) [[unlikely]]                         \
            fuzz_check_failed(#cond, __FILE__, __LINE__); \
    } while (0)

[[noreturn]] inline void fuzz_check_failed(const char *what, const char *file, int line) {
    char text[512];
    snprintf(text, sizeof text, "FUZZ_CHECK failed: %s at %s:%d", what, file, line);
    fprintf(stderr, "%s\n", text);
    __sanitizer_report_error_summary(text);
    abort();
}

// Sends the process log to /dev/null at debug level, without time stamps.
// Every statement is still formatted, which is where a bad argument (a text
// that is not terminated, a wrong length) would show; the buffered stream
// keeps that cheap. Run once, from LLVMFuzzerInitialize.
inline void fuzz_quiet_log() {
    glog_init("trv");
    FILE *fp = fopen("/dev/null", "w");
    if (fp == nullptr) {
        perror("fuzz_quiet_log: /dev/null");
        abort();
    }
    static char buf[1 << 16];
    (void)setvbuf(fp, buf, _IOFBF, sizeof buf);
    log_default(g_log, fp);
    log_timefmt(g_log, TMF_NOTIME);
    log_set_modules(g_log, LL_DEBUG);
}

// An unterminated heap copy of exactly size bytes (at least one byte is
// allocated so an empty input still has a valid pointer). Freed by free().
inline char *fuzz_dup_exact(const uint8_t *data, size_t size) {
    auto *p = static_cast<char *>(malloc(size > 0 ? size : 1));
    if (p == nullptr) abort();
    if (size > 0) memcpy(p, data, size);
    return p;
}

// A heap copy of size bytes plus a terminating zero. Freed by free().
inline char *fuzz_dup_str(const uint8_t *data, size_t size) {
    auto *p = static_cast<char *>(malloc(size + 1));
    if (p == nullptr) abort();
    if (size > 0) memcpy(p, data, size);
    p[size] = '\0';
    return p;
}

// True when [p, p+n) lies inside [base, base+len); a null part must have n 0.
inline bool fuzz_within(const char *p, size_t n, const char *base, size_t len) {
    if (p == nullptr) return n == 0;
    return p >= base && p <= base + len && n <= size_t(base + len - p);
}

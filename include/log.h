// log: the process-wide application log g_log. Owns the shared line buffer,
// the per-module and per-section level tables, the output stream (stderr, a
// file or a pipe), its mirror, rotation by size and at end of day, and the
// optional syslog copy. Single-threaded by design.
#pragma once

#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "tags.h"

// Levels. A message is shown when the threshold is >= its level.
constexpr int LL_PANIC = -4;
constexpr int LL_ERROR = -3;
constexpr int LL_CRIT = -2;
constexpr int LL_WARN = -1;
constexpr int LL_NORM = 0;
constexpr int LL_INFO = 1;
constexpr int LL_DEBUG = 2;
constexpr int LL_SECTION = 64;

constexpr size_t LOG_MAX_MODULES = 128;
constexpr size_t LOG_MAX_SECTIONS = 128;
constexpr size_t LOG_MAX_ROTA = 128;
constexpr size_t LOG_LINE_SIZE = 2048;  // shared line buffer, 2047 usable
constexpr size_t LOG_BTRACE_SIZE = 512;

// Module numbers with their own threshold; everything else is module 0.
constexpr int LOG_MOD_DEFAULT = 0;
constexpr int LOG_MOD_SYSWRAP = 2;
constexpr int LOG_MOD_FDIO = 4;

struct rotation_ctx {
    time_t tm[LOG_MAX_ROTA];  // time stamps of the rotated files kept, per ring slot
    ssize_t next_idx;         // next ring slot
    size_t max_idx;           // rotated files kept
    size_t max_total;         // size limit in bytes; 0 = none
    time_t max_log_tm;        // next end-of-day rotation; 0 = none
};

struct syslog_cfg {
    bool enabled;
    int option;
    int facility;
};

struct log_ctx {
    char name[128];  // path or command of the open log
    unsigned is_pipe : 1;
    uint32_t time_format;  // TMF_* code (timeop.h)
    FILE *fp;              // main stream; null means stderr
    FILE *mirror_fp;       // optional second stream
    size_t total_out;      // bytes written to fp, starting at the file's size
    struct {
        unsigned mod_ll_set : 1;
        unsigned sec_ll_set : 1;
    } llst;
    rotation_ctx rota;
    pid_t pid;  // printed in each line; 0 = none
    n64_tag group;
    void *lh;  // attached log ring; never attached by this program
    syslog_cfg syslg;
    char pfx[64];
};

// Per source module: its module number and its current section (-1 = none).
struct loglevel_ctx {
    int mod;
    int sec;
    int sec_sp;
    int sec_stack[8];
};

extern log_ctx *g_log;
extern int g_mod_ll[LOG_MAX_MODULES];
extern int g_sec_ll[LOG_MAX_SECTIONS];

// Every .cpp that logs declares its module once at file scope.
#define LOG_MODULE(num) [[maybe_unused]] static loglevel_ctx s_loglevel = {(num), -1, 0, {}}

// The level test of one statement.
inline bool log_is_on(const loglevel_ctx *c, int level) {
    if (c->sec >= 0) return g_sec_ll[c->sec] <= g_mod_ll[c->mod];
    return g_mod_ll[c->mod] >= level;
}

// One log statement: reset the line, feed an attached ring, test the level,
// format and write. Use the LOG_* macros, which skip all of it (arguments
// included) when the level is off and no ring is attached.
[[gnu::format(printf, 4, 5)]] void log_stmt(log_ctx *log, const loglevel_ctx *c, int level,
                                            const char *fmt, ...);
[[gnu::format(printf, 4, 0)]] void log_vstmt(log_ctx *log, const loglevel_ctx *c, int level,
                                             const char *fmt, va_list ap);

#define LOGL(level, ...)                                             \
    do {                                                             \
        if (g_log->lh != nullptr || log_is_on(&s_loglevel, (level))) \
            log_stmt(g_log, &s_loglevel, (level), __VA_ARGS__);      \
    } while (0)

#define LOG_PNC(...) LOGL(LL_PANIC, __VA_ARGS__)
#define LOG_ERR(...) LOGL(LL_ERROR, __VA_ARGS__)
#define LOG_CRI(...) LOGL(LL_CRIT, __VA_ARGS__)
#define LOG_WRN(...) LOGL(LL_WARN, __VA_ARGS__)
#define LOG_NRM(...) LOGL(LL_NORM, __VA_ARGS__)
#define LOG_INF(...) LOGL(LL_INFO, __VA_ARGS__)
#define LOG_DBG(...) LOGL(LL_DEBUG, __VA_ARGS__)

// True when a debug line of this module would be shown; guards work done only
// to build debug output.
#define LOG_DBG_ON() (log_is_on(&s_loglevel, LL_DEBUG))

// Fatal assertion: logs "ASSERT at:\n%s==\n" at panic level with the failed
// expression and a back-trace, flushes the log and aborts.
[[noreturn]] void log_assert_fail(const char *expr, const char *file, int line);
#define XASSERT(cond)                                   \
    do {                                                \
        if (!(cond)) [[unlikely]]                       \
            log_assert_fail(#cond, __FILE__, __LINE__); \
    } while (0)

// For impossible states: logs "Aborting at:\n%s==\n" with a back-trace at
// panic level, flushes the log and aborts.
[[noreturn]] void log_abort_here();

// Module set-up. glog_init must run before a file or pipe is opened; a null
// tag is a fatal assertion.
void glog_init(const char *app_tag);
const char *glog_app_tag();
void log_default(log_ctx *log, FILE *fp);
// Opens a file log; unless bit 0 of flags is set, an existing non-empty
// regular file is first moved aside to "<path>.<mtime>". 0 or -1.
[[nodiscard]] int log_open_ex(log_ctx *log, const char *path, int flags);
// Opens a pipe to a shell command. 0 or -1.
[[nodiscard]] int log_popen(log_ctx *log, const char *command);
void log_close(log_ctx *log);


void log_mirror(log_ctx *log, FILE *fp);
FILE *log_mirror_fp(const log_ctx *log);
FILE *log_fp(const log_ctx *log);
void log_set_pfx(log_ctx *log, const char *pfx);
void log_timefmt(log_ctx *log, uint32_t code);
void log_set_pid(log_ctx *log, pid_t pid);
pid_t log_get_pid(const log_ctx *log);
void log_set_group(log_ctx *log, n64_tag group);
n64_tag log_get_group(const log_ctx *log);
// Lines logged in the scope carry group g; the group before is back at its end.
struct log_group_scope {
    explicit log_group_scope(n64_tag g) : saved(log_get_group(g_log)) { log_set_group(g_log, g); }
    ~log_group_scope() { log_set_group(g_log, saved); }
    log_group_scope(const log_group_scope &) = delete;
    log_group_scope &operator=(const log_group_scope &) = delete;
    n64_tag saved;
};
void *log_set_lard(log_ctx *log, void *handle);

void log_set_rota(log_ctx *log, size_t max_bytes, size_t max_files, time_t eod);
void log_set_eod(log_ctx *log, time_t eod);
size_t log_rota_maxsize(const log_ctx *log);
size_t log_rota_maxfiles(const log_ctx *log);
time_t log_rota_eod(const log_ctx *log);
// Moves the current file aside to "<name>.<now>" and reopens the name.
int log_rotate(log_ctx *log);

int config_syslog(log_ctx *log, const char *ident, int option, int facility);
void disable_syslog(log_ctx *log);
int glog_enable_syslog(const char *ident);
void glog_disable_syslog();

void log_set_modules(log_ctx *log, int level);
void log_set_sections(log_ctx *log, int level);
void log_set_module_level(int mod, int level);
void log_push_mlevels();
void log_pop_mlevels();
// Section scope of a module: statements of a module inside a section are
// shown when the section's level is at most the module's threshold.
void log_section_push(loglevel_ctx *c, int sec);
void log_section_pop(loglevel_ctx *c);

int read_level_env(const char *name, int def);
const char *get_level_tag(int level);
const char *log_level_str(int level);
[[nodiscard]] int match_log_level(const char *text, int *level);
int get_syslog_pri(int level);

// The shared line buffer.
void logbuf_reset();
bool logbuf_empty();
const char *logbuf_text();
[[gnu::format(printf, 3, 4)]] int logbuf_prepare(log_ctx *log, int level, const char *fmt, ...);
[[gnu::format(printf, 3, 0)]] int logbuf_vprepare(log_ctx *log, int level, const char *fmt,
                                                  va_list ap);
void log_flush(log_ctx *log, int level);
bool lard_enabled(const log_ctx *log);
void log_lard(log_ctx *log, int level);

// Back-traces: up to 16 frames as "#%d: %s\n". 0 or -1.
int btrace_to_buf(char *buf, size_t size);
[[gnu::format(printf, 3, 4)]] int snprintf_btrace(char *buf, size_t size, const char *fmt, ...);

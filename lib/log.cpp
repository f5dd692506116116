// log: the process-wide application log (see log.h). One shared line buffer,
// the level tables, the streams, rotation and the syslog copy. The log never
// fails its caller: its own troubles go to stderr and the line is dropped.
#include "log.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "timeop.h"
#include "util.h"

// <syslog.h> defines LOG_ERR as a priority number; take the value and give
// the name back to our log statement.
constexpr int SYSLOG_PRI_ERR = LOG_ERR;
#undef LOG_ERR
#define LOG_ERR(...) LOGL(LL_ERROR, __VA_ARGS__)

LOG_MODULE(0);

int g_mod_ll[LOG_MAX_MODULES];
int g_sec_ll[LOG_MAX_SECTIONS];

namespace {
log_ctx s_glog;

struct log_module_ctx {
    bool is_ready;
    char app_tag[128];
};
log_module_ctx s_lmod;

int s_saved_mod_ll[LOG_MAX_MODULES];
bool s_mod_ll_saved;

char s_line[LOG_LINE_SIZE];
size_t s_line_len;

char s_syslog_ident[64];

// Rotation logs its own notice; that line must not start another rotation.
bool s_rotating;

struct level_row {
    int level;
    const char *tag;
    const char *name;
    const char *alias1;
    const char *alias2;
    int syslog_pri;
};

// "ctitical" is the name the operators' tooling has always matched on.
constexpr level_row LEVELS[] = {
    {LL_PANIC, "(PNC)", "panic", nullptr, nullptr, LOG_ALERT},
    {LL_ERROR, "(ERR)", "error", "err", "error", SYSLOG_PRI_ERR},
    {LL_CRIT, "(CRI)", "ctitical", "crit", "critical", LOG_CRIT},
    {LL_WARN, "(WRN)", "warning", "warn", "warning", LOG_WARNING},
    {LL_NORM, "(NRM)", "normal", "norm", "normal", LOG_NOTICE},
    {LL_INFO, "(INF)", "info", "info", nullptr, LOG_INFO},
    {LL_DEBUG, "(DBG)", "debug", "debug", "dbg", LOG_DEBUG},
    {LL_SECTION, "(SCT)", "section", "section", "sect", LOG_DEBUG},
};

const level_row *find_level(int level) {
    for (const auto &r : LEVELS)
        if (r.level == level) return &r;
    return nullptr;
}

FILE *out_fp(const log_ctx *log) { return log->fp != nullptr ? log->fp : stderr; }

bool is_std_stream(const FILE *fp) { return fp == nullptr || fp == stdout || fp == stderr; }

// Appends one formatted piece and its trailing blank to the line; false when
// it does not fit.
// Appends one piece to the line; it must fit whole (positive and smaller
// than the room left). *n gets the formatting result either way.
[[gnu::format(printf, 2, 0)]] bool line_vpiece(int *n, const char *fmt, va_list ap) {
    size_t room = LOG_LINE_SIZE - 1 - s_line_len;
    *n = vsnprintf(s_line + s_line_len, room + 1, fmt, ap);
    if (*n <= 0 || size_t(*n) >= room) {
        s_line[s_line_len] = '\0';
        return false;
    }
    s_line_len += size_t(*n);
    return true;
}

[[gnu::format(printf, 2, 3)]] bool line_piece(int *n, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    bool ok = line_vpiece(n, fmt, ap);
    va_end(ap);
    return ok;
}

int do_open(log_ctx *log, const char *path) {
    XASSERT(s_lmod.is_ready);
    if (path == nullptr) {
        log->fp = stderr;
        return 0;
    }
    if (strlen(path) > 128) {
        fprintf(stderr, "Log pathname/command is too long, %ld bytes allowed\n", 128L);
        return -1;
    }
    FILE *fp = log->is_pipe ? popen(path, "w") : fopen(path, "a+");
    if (fp == nullptr) {
        int err = errno;
        fprintf(stderr, "%s: uid/gig=%ld/%ld %s(%s) ERROR(%d): %s\n", "do_open", long(geteuid()),
                long(getegid()), log->is_pipe ? "popen" : "fopen", path, err, strerror(err));
        return -1;
    }
    if (log->fp != nullptr && !is_std_stream(log->fp) && log->fp != fp) {
        // A log re-opened under a new name lets go of the old stream.
        (void)fclose(log->fp);
    }
    snprintf(log->name, sizeof log->name, "%s", path);
    if (log->is_pipe)
        setvbuf(fp, nullptr, _IOLBF, 0);
    else
        setvbuf(fp, nullptr, _IONBF, 0);
    log->fp = fp;
    log->total_out = 0;
    if (!log->is_pipe) {
        struct stat st {};
        if (fstat(fileno(fp), &st) != 0) {
            int err = errno;
            fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", "do_open", path, err, strerror(err));
        } else {
            log->total_out = size_t(st.st_size);
        }
    }
    return 0;
}

// Moves a non-empty regular file out of the way so a new run starts a fresh
// log and the previous one stays readable beside it.
int move_if_present(const char *path) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        if (errno == ENOENT) return 0;
        int err = errno;
        fprintf(stderr, "stat(%s) ERROR(%d): %s\n", path, err, strerror(err));
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size == 0) return 0;
    char aside[128];
    int n = snprintf(aside, sizeof aside, "%s.%lu", path, static_cast<unsigned long>(st.st_mtime));
    if (n < 0 || size_t(n) >= sizeof aside) return 7;
    if (rename(path, aside) != 0) {
        int err = errno;
        fprintf(stderr, "Cannot rename(%s, %s): ERROR(%d): %s\n", path, aside, err, strerror(err));
        return -1;
    }
    return 0;
}

void handle_rotation(log_ctx *log, time_t tm, const char *rotated) {
    rotation_ctx &r = log->rota;
    LOG_NRM("[%s]: previous log rotated to [%s] tm=%ld, idx=%ld\n", s_lmod.app_tag, rotated,
            long(tm), long(r.next_idx));
    if (r.next_idx < 0 || size_t(r.next_idx) >= r.max_idx) r.next_idx = 0;
    time_t old = r.tm[r.next_idx];
    if (old != 0) {
        char oldname[160];
        int n =
            snprintf(oldname, sizeof oldname, "%s.%lu", log->name, static_cast<unsigned long>(old));
        if (n < 0 || size_t(n) >= sizeof oldname) {
            fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", __func__, n,
                    static_cast<unsigned long>(sizeof oldname - 1));
            return;
        }
        if (unlink(oldname) != 0) {
            int err = errno;
            LOG_ERR("%s: unlink(%s) ERROR(%d) : %s\n", __func__, oldname, err, strerror(err));
        } else {
            LOG_DBG("%s: replaced %s with %s.%lu\n", __func__, oldname, log->name,
                    static_cast<unsigned long>(tm));
        }
    }
    r.tm[r.next_idx] = tm;
    r.next_idx += 1;
    if (size_t(r.next_idx) >= r.max_idx) r.next_idx = 0;
}

void write_assert(const char *what, const char *text) {
    logbuf_reset();
    s_line_len = 0;
    if (logbuf_prepare(g_log, LL_PANIC, what, text) >= 0) log_flush(g_log, LL_PANIC);
    fflush(out_fp(g_log));
    if (g_log->mirror_fp != nullptr) fflush(g_log->mirror_fp);
}
}  // namespace

log_ctx *g_log = &s_glog;

void glog_init(const char *app_tag) {
    XASSERT(app_tag != nullptr);
    snprintf(s_lmod.app_tag, sizeof s_lmod.app_tag, "%s", app_tag);
    s_lmod.is_ready = true;
}

const char *glog_app_tag() { return s_lmod.app_tag; }

void log_default(log_ctx *log, FILE *fp) {
    log->fp = fp;
    if (log == g_log && !log->llst.sec_ll_set) log_set_sections(log, LL_SECTION);
}

int log_open_ex(log_ctx *log, const char *path, int flags) {
    if (path != nullptr && (flags & 1) == 0) (void)move_if_present(path);
    log->is_pipe = 0;
    return do_open(log, path);
}

int log_popen(log_ctx *log, const char *command) {
    log->is_pipe = 1;
    int rc = do_open(log, command);
    if (rc != 0) log->is_pipe = 0;
    return rc;
}

void log_close(log_ctx *log) {
    FILE *fp = log->fp;
    if (!is_std_stream(fp)) {
        int rc = log->is_pipe ? pclose(fp) : fclose(fp);
        if (rc == -1 && !(log->is_pipe && errno == ECHILD)) {
            int err = errno;
            fprintf(stderr, "%s: %s error(%d) for the application log: %s\n", __func__,
                    log->is_pipe ? "pclose" : "fclose", err, strerror(err));
        }
    }
    log->fp = nullptr;
    log->is_pipe = 0;
    if (log->syslg.enabled) disable_syslog(log);
    log->lh = nullptr;
}

void log_mirror(log_ctx *log, FILE *fp) {
    log->mirror_fp = fp;
    if (fp != nullptr) setvbuf(fp, nullptr, _IOLBF, 0);
}

FILE *log_mirror_fp(const log_ctx *log) { return log->mirror_fp; }
FILE *log_fp(const log_ctx *log) { return out_fp(log); }

void log_set_pfx(log_ctx *log, const char *pfx) {
    if (pfx == nullptr || pfx[0] == '\0') {
        log->pfx[0] = '\0';
        return;
    }
    snprintf(log->pfx, sizeof log->pfx, "%s", pfx);
}

void log_timefmt(log_ctx *log, uint32_t code) { log->time_format = code; }
void log_set_pid(log_ctx *log, pid_t pid) { log->pid = pid; }
pid_t log_get_pid(const log_ctx *log) { return log->pid; }

void log_set_group(log_ctx *log, n64_tag group) {
    group.str[7] = '\0';
    log->group = group;
}

n64_tag log_get_group(const log_ctx *log) { return log->group; }

void *log_set_lard(log_ctx *log, void *handle) {
    void *old = log->lh;
    log->lh = handle;
    return old;
}

void log_set_rota(log_ctx *log, size_t max_bytes, size_t max_files, time_t eod) {
    log->rota.max_total = max_bytes;
    log->rota.max_idx = (max_files >= 1 && max_files <= 127) ? max_files : 16;
    log_set_eod(log, eod);
}

void log_set_eod(log_ctx *log, time_t eod) {
    log->rota.max_log_tm = eod > 0 ? get_endofday_utime(eod) : 0;
}

size_t log_rota_maxsize(const log_ctx *log) { return log->rota.max_total; }
size_t log_rota_maxfiles(const log_ctx *log) { return log->rota.max_idx; }
time_t log_rota_eod(const log_ctx *log) { return log->rota.max_log_tm; }

int log_rotate(log_ctx *log) {
    if (log->name[0] == '\0') {
        fprintf(stderr, "%s: nothing to rotate.\n", __func__);
        return 0;
    }
    if (is_std_stream(log->fp)) {
        fprintf(stderr, "%s: stdout and stderr cannot be rotated.\n", __func__);
        return -1;
    }
    if (log->is_pipe || log->name[0] == '|') {
        fprintf(stderr, "%s: not supported for pipe-based streams.\n", __func__);
        return -1;
    }
    time_t now = time(nullptr);
    char newname[160];
    int n = snprintf(newname, sizeof newname, "%s.%lu", log->name, static_cast<unsigned long>(now));
    if (n < 0 || size_t(n) >= sizeof newname) {
        fprintf(stderr, "%s: log log->name is too long (%d bytes), max=%lu\n", __func__, n,
                static_cast<unsigned long>(sizeof newname - 1));
        return -1;
    }
    char name[sizeof log->name];
    memcpy(name, log->name, sizeof name);
    FILE *fp = log->fp;
    log->fp = nullptr;
    if (fclose(fp) != 0) {
        int err = errno;
        fprintf(stderr, "%s: failed to close [%s], ERROR(%d): %s\n", __func__, log->name, err,
                strerror(err));
        // The log goes on under its name; rotation is tried again later.
        (void)do_open(log, name);
        return -1;
    }
    char failure[384] = "";
    if (rename(log->name, newname) != 0) {
        int err = errno;
        snprintf(failure, sizeof failure, "%s: failed to rename [%s] to [%s], ERROR(%d): %s",
                 __func__, log->name, newname, err, strerror(err));
        fprintf(stderr, "%s - rotation is to be stopped\n", failure);
    }
    if (int rc = do_open(log, name); rc != 0) return rc;
    if (failure[0] != '\0') {
        log->total_out = 0;
        LOG_ERR("%s: %s - rotation cancelled this time\n", __func__, failure);
        return 0;
    }
    if (log->rota.max_idx != 0) handle_rotation(log, now, newname);
    return 0;
}

int config_syslog(log_ctx *log, const char *ident, int option, int facility) {
    snprintf(s_syslog_ident, sizeof s_syslog_ident, "%s", ident != nullptr ? ident : "");
    openlog(s_syslog_ident, option, facility);
    log->syslg.enabled = true;
    log->syslg.option = option;
    log->syslg.facility = facility;
    return 0;
}

void disable_syslog(log_ctx *log) {
    if (log->syslg.enabled) closelog();
    log->syslg.enabled = false;
}

int glog_enable_syslog(const char *ident) {
    return config_syslog(g_log, ident, LOG_PID | LOG_CONS, LOG_LOCAL0);
}

void glog_disable_syslog() { disable_syslog(g_log); }

void log_set_modules(log_ctx *log, int level) {
    for (int &v : g_mod_ll) v = level;
    log->llst.mod_ll_set = 1;
}

void log_set_sections(log_ctx *log, int level) {
    for (int &v : g_sec_ll) v = level;
    log->llst.sec_ll_set = 1;
}

void log_set_module_level(int mod, int level) {
    if (mod >= 0 && size_t(mod) < LOG_MAX_MODULES) g_mod_ll[mod] = level;
}

void log_push_mlevels() {
    if (s_mod_ll_saved) return;
    memcpy(s_saved_mod_ll, g_mod_ll, sizeof g_mod_ll);
    s_mod_ll_saved = true;
}

void log_pop_mlevels() {
    if (!s_mod_ll_saved) return;
    memcpy(g_mod_ll, s_saved_mod_ll, sizeof g_mod_ll);
    s_mod_ll_saved = false;
}

void log_section_push(loglevel_ctx *c, int sec) {
    XASSERT(c->sec_sp >= 0 && c->sec_sp < 8);
    c->sec_stack[c->sec_sp++] = c->sec;
    c->sec = sec;
}

void log_section_pop(loglevel_ctx *c) {
    XASSERT(c->sec_sp > 0);
    c->sec = c->sec_stack[--c->sec_sp];
}

int read_level_env(const char *name, int def) {
    const char *v = getenv(name);
    if (v == nullptr) return def;
    int n = atoi(v);
    if (n != 0) return n;
    if (strcmp(v, "0") == 0) return 0;
    return def;
}

const char *get_level_tag(int level) {
    const level_row *r = find_level(level);
    return r != nullptr ? r->tag : "( ? )";
}

const char *log_level_str(int level) {
    const level_row *r = find_level(level);
    return r != nullptr ? r->name : "??";
}

int match_log_level(const char *text, int *level) {
    if (text == nullptr) return -1;
    for (const auto &r : LEVELS) {
        if ((r.alias1 != nullptr && strcasecmp(text, r.alias1) == 0) ||
            (r.alias2 != nullptr && strcasecmp(text, r.alias2) == 0)) {
            *level = r.level;
            return 0;
        }
    }
    return -1;
}

int get_syslog_pri(int level) {
    const level_row *r = find_level(level);
    return r != nullptr ? r->syslog_pri : LOG_DEBUG;
}

void logbuf_reset() {
    s_line_len = 0;
    s_line[0] = '\0';
}

bool logbuf_empty() { return s_line_len == 0; }

const char *logbuf_text() { return s_line; }

int logbuf_prepare(log_ctx *log, int level, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int rc = logbuf_vprepare(log, level, fmt, ap);
    va_end(ap);
    return rc;
}

int logbuf_vprepare(log_ctx *log, int level, const char *fmt, va_list ap) {
    s_line_len = 0;
    s_line[0] = '\0';
    int n = 0;
    if (log->pfx[0] != '\0' && !line_piece(&n, "%s ", log->pfx)) {
        fprintf(stderr, "%s: pfx buffer error (n=%d)\n", "logbuf_prepare", n);
        return -1;
    }
    if ((log->time_format & TMF_NOTIME) == 0) {
        unsigned clk = log->time_format & 3;
        if (clk > 1) {
            fprintf(stderr, "%s: unsupported timer value: %u\n", "logbuf_prepare", clk);
            logbuf_reset();
            return -1;
        }
        timespec ts{};
        if (clock_gettime(clk == 0 ? CLOCK_REALTIME : CLOCK_MONOTONIC, &ts) != 0)
            perror("clock_gettime");
        char tbuf[64];
        n = mk_timestr(&ts, log->time_format, tbuf, sizeof tbuf);
        if (n < 0 || !line_piece(&n, "%s ", tbuf)) {
            fprintf(stderr, "%s: time buffer error (n=%d)\n", "logbuf_prepare", n);
            logbuf_reset();
            return -1;
        }
        if (log->pid > 0 && !line_piece(&n, "%lu ", static_cast<unsigned long>(log->pid))) {
            fprintf(stderr, "%s: pid buffer error (n=%d)", "logbuf_prepare", n);
            logbuf_reset();
            return -1;
        }
    }
    if (level >= -126 && !line_piece(&n, "%s ", get_level_tag(level))) {
        fprintf(stderr, "%s: level buffer error (n=%d)", "logbuf_prepare", n);
        logbuf_reset();
        return -1;
    }
    if (log->group.num != 0 && !line_piece(&n, "%s ", log->group.str)) {
        fprintf(stderr, "%s: group buffer error (n=%d)", "logbuf_prepare", n);
        logbuf_reset();
        return -1;
    }
    // A message that does not fit is dropped whole rather than cut: a cut
    // line could pass for a complete one.
    if (!line_vpiece(&n, fmt, ap)) {
        perror("fprintf/vfprintf");
        logbuf_reset();
        return -1;
    }
    return n;
}

void log_flush(log_ctx *log, int level) {
    if (s_line_len == 0) return;
    FILE *fp = out_fp(log);
    fputs(s_line, fp);
    log->total_out += s_line_len;
    if (log->mirror_fp != nullptr && fileno(log->mirror_fp) != fileno(fp))
        fputs(s_line, log->mirror_fp);
    if (g_sigctx) return;
    if (level < 0 && log->syslg.enabled)
        syslog(log->syslg.facility | get_syslog_pri(level), "%s", s_line);
    if (fp == stdout || fp == stderr) return;
    bool due = log->rota.max_total != 0 && log->total_out >= log->rota.max_total;
    if (log->rota.max_log_tm > 0) {
        time_t now = time(nullptr);
        if (now > log->rota.max_log_tm) {
            log->rota.max_log_tm = get_endofday_utime(now);
            due = true;
        }
    }
    if (due && !s_rotating) {
        s_rotating = true;
        (void)log_rotate(log);
        s_rotating = false;
    }
}

bool lard_enabled(const log_ctx *log) { return log->lh != nullptr; }

// No ring implementation is linked into this program; an attached handle
// would only change when the line is formatted.
void log_lard(log_ctx *, int) {}

void log_vstmt(log_ctx *log, const loglevel_ctx *c, int level, const char *fmt, va_list ap) {
    logbuf_reset();
    if (lard_enabled(log)) {
        va_list cp;
        va_copy(cp, ap);
        (void)logbuf_vprepare(log, level, fmt, cp);
        va_end(cp);
        log_lard(log, level);
    }
    if (!log_is_on(c, level)) return;
    if (logbuf_empty() && logbuf_vprepare(log, level, fmt, ap) < 0) return;
    log_flush(log, level);
}

void log_stmt(log_ctx *log, const loglevel_ctx *c, int level, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log_vstmt(log, c, level, fmt, ap);
    va_end(ap);
}

int btrace_to_buf(char *buf, size_t size) {
    if (size == 0) return -1;
    buf[0] = '\0';
    void *frames[16];
    int n = backtrace(frames, 16);
    if (n <= 0) {
        perror("backtrace");
        return -1;
    }
    char **sym = backtrace_symbols(frames, n);
    if (sym == nullptr) {
        perror("backtrace_symbols");
        return -1;
    }
    size_t off = 0;
    for (int i = 0; i < n && off < size - 1; ++i) {
        int w = snprintf(buf + off, size - off, "#%d: %s\n", i, sym[i]);
        if (w < 0) break;
        if (size_t(w) >= size - off) {
            off = size - 1;
            break;
        }
        off += size_t(w);
    }
    buf[off] = '\0';
    free(sym);
    return 0;
}

int snprintf_btrace(char *buf, size_t size, const char *fmt, ...) {
    if (size == 0) return -1;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    if (n < 0) return -1;
    if (size_t(n) >= size - 1) return 0;
    return btrace_to_buf(buf + n, size - size_t(n));
}

void log_assert_fail(const char *expr, const char *file, int line) {
    char bt[LOG_BTRACE_SIZE];
    (void)snprintf_btrace(bt, sizeof bt, "%s (%s:%d)\n", expr, file, line);
    write_assert("ASSERT at:\n%s==\n", bt);
    abort();
}

void log_abort_here() {
    char bt[LOG_BTRACE_SIZE];
    (void)btrace_to_buf(bt, sizeof bt);
    write_assert("Aborting at:\n%s==\n", bt);
    abort();
}

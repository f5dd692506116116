// timeop: clock reads, time differences and the time texts of the log.
// The deadline tests against the reactor's loop time live beside the
// reactor, which owns that time.
#include "timeop.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "rqs.h"

LOG_MODULE(0);

namespace {
constexpr long NSEC_PER_SEC = 1000000000L;

// Zone suffix of the log's time stamps: " %Z" of the local time, made once.
char s_tz_sfx[16];
bool s_tz_ready;

// Guards the broken-down conversion against re-entry from a signal handler
// that logs while the main thread is inside mk_timestr.
volatile bool s_tm_busy;

const char *tz_suffix() {
    if (!s_tz_ready) {
        s_tz_ready = true;
        time_t now = time(nullptr);
        tm ltm{};
        if (localtime_r(&now, &ltm) == nullptr ||
            strftime(s_tz_sfx, sizeof s_tz_sfx, " %Z", &ltm) == 0) {
            perror("strftime");
            snprintf(s_tz_sfx, sizeof s_tz_sfx, "#ERR#");
        }
    }
    // A failed zone leaves the marker in the buffer but no suffix in the text.
    return s_tz_sfx[0] == ' ' ? s_tz_sfx : "";
}
}  // namespace

void set_clk_now(timespec *ts, int clock) {
    if (clock_gettime(clock, ts) != 0) {
        perror("clock_gettime");
        abort();
    }
}

void set_real_now(timespec *ts) { set_clk_now(ts, CLOCK_REALTIME); }

void set_now(timespec *ts) { set_clk_now(ts, CLOCK_MONOTONIC); }

void calc_timespan(const timespec *from, const timespec *to, timespec *out) {
    out->tv_sec = to->tv_sec - from->tv_sec;
    out->tv_nsec = to->tv_nsec - from->tv_nsec;
    if (out->tv_nsec < 0) {
        out->tv_sec -= 1;
        out->tv_nsec += NSEC_PER_SEC;
    }
}

int64_t tms2ms(const timespec *ts) {
    if (ts->tv_sec == -1) return -1;
    return int64_t(ts->tv_sec) * 1000 + ts->tv_nsec / 1000000;
}

void ms2timespec(int64_t ms, timespec *ts) {
    if (ms < 1) {
        ts->tv_sec = ms < 0 ? -1 : 0;
        ts->tv_nsec = 0;
        return;
    }
    ts->tv_sec = time_t(ms / 1000);
    ts->tv_nsec = long(ms % 1000) * 1000000L;
}

void tspec_diff(const timespec *a, const timespec *b, timespec *delta) {
    timespec now{};
    if (a == nullptr || b == nullptr) set_now(&now);
    const timespec *x = a ? a : &now;
    const timespec *y = b ? b : &now;
    bool x_later = x->tv_sec > y->tv_sec || (x->tv_sec == y->tv_sec && x->tv_nsec >= y->tv_nsec);
    calc_timespan(x_later ? y : x, x_later ? x : y, delta);
    XASSERT(delta->tv_sec >= 0 && delta->tv_nsec >= 0);
}

int64_t diff_ms(const timespec *a, const timespec *b) {
    timespec d{};
    tspec_diff(a, b, &d);
    return tms2ms(&d);
}

void set_tspan(tspan *ts, const timespec *now, uint32_t count) {
    switch (ts->mode) {
        case TSPAN_TIME:
            ts->val.ts = *now;
            break;
        case TSPAN_COUNT:
            ts->val.count = count;
            break;
        default:
            XASSERT(ts->mode == TSPAN_TIME || ts->mode == TSPAN_COUNT);
    }
}

bool tspan_timed_out(const tspan *last, const tspan *tmout, const timespec *now, uint32_t count) {
    XASSERT(tmout->mode == last->mode);
    switch (last->mode) {
        case TSPAN_TIME:
            return timed_out_ext(&last->val.ts, &tmout->val.ts, now) != 0;
        case TSPAN_COUNT:
            if (last->val.count == 0) return true;
            if (count < last->val.count)  // the counter wrapped
                return uint32_t(count - last->val.count - 1) >= tmout->val.count;
            return uint64_t(count) >= uint64_t(tmout->val.count) + last->val.count;
        default:
            XASSERT(last->mode == TSPAN_TIME || last->mode == TSPAN_COUNT);
    }
    return false;
}

int mk_timestr(const timespec *ts, uint32_t format, char *buf, size_t size) {
    int n;
    if (format & TMF_RAW) {
        n = snprintf(buf, size, "%ld.%06ld", long(ts->tv_sec), ts->tv_nsec / 1000);
        if (n < 0 || size_t(n) >= size) return -1;
        return n;
    }
    if (s_tm_busy) return -35;
    s_tm_busy = true;
    tm btm{};
    time_t t = ts->tv_sec;
    tm *ok = (format & TMF_GMT) ? gmtime_r(&t, &btm) : localtime_r(&t, &btm);
    if (ok == nullptr) {
        perror("gmtime_r/localtime_r");
        s_tm_busy = false;
        return -1;
    }
    const char *sfx = tz_suffix();
    if (format & TMF_NOUSEC)
        n = snprintf(buf, size, "%04d-%02d-%02d %02d:%02d:%02d%s", btm.tm_year + 1900,
                     btm.tm_mon + 1, btm.tm_mday, btm.tm_hour, btm.tm_min, btm.tm_sec, sfx);
    else
        n = snprintf(buf, size, "%04d-%02d-%02d %02d:%02d:%02d.%06ld%s", btm.tm_year + 1900,
                     btm.tm_mon + 1, btm.tm_mday, btm.tm_hour, btm.tm_min, btm.tm_sec,
                     ts->tv_nsec / 1000, sfx);
    s_tm_busy = false;
    if (n < 0) return -1;
    if (size_t(n) >= size) {
        // Not to the log: the log itself may be the caller.
        fprintf(stderr, "%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n + 1,
                long(size));
        return -1;
    }
    return n;
}

int scan_log_time(const char *text, timespec *out, uint32_t format) {
    *out = timespec{};
    if (format & TMF_RAW) {
        long sec = 0, usec = 0;
        int n = sscanf(text, "%ld.%06ld ", &sec, &usec);
        if (n < 2) return -1;
        out->tv_sec = sec;
        out->tv_nsec = usec * 1000;
        return n;
    }
    tm btm{};
    long usec = 0;
    int n;
    int want;
    if (format & TMF_NOUSEC) {
        want = 6;
        n = sscanf(text, "%04d-%02d-%02d %02d:%02d:%02d ", &btm.tm_year, &btm.tm_mon, &btm.tm_mday,
                   &btm.tm_hour, &btm.tm_min, &btm.tm_sec);
    } else {
        want = 7;
        n = sscanf(text, "%04d-%02d-%02d %02d:%02d:%02d.%06ld ", &btm.tm_year, &btm.tm_mon,
                   &btm.tm_mday, &btm.tm_hour, &btm.tm_min, &btm.tm_sec, &usec);
    }
    if (n < want) return -1;
    btm.tm_year -= 1900;
    btm.tm_mon -= 1;
    btm.tm_isdst = -1;
    // Read as local time whatever the format says: that is how the log's
    // readers have always interpreted these stamps.
    time_t t = mktime(&btm);
    if (t == time_t(-1)) {
        LOG_ERR("%s: cannot make time from [%s]\n", __func__, text);
        return -1;
    }
    out->tv_sec = t;
    out->tv_nsec = usec * 1000;
    return n;
}

int mk_gmt_date(time_t t, char *buf, size_t size) {
    tm btm{};
    if (gmtime_r(&t, &btm) == nullptr) {
        perror("gmtime");
        return -1;
    }
    int n = snprintf(buf, size, "%04d-%02d-%02d", btm.tm_year + 1900, btm.tm_mon + 1, btm.tm_mday);
    if (n < 0 || size_t(n) >= size) {
        LOG_ERR("%s: timestamp buffer needs %d bytes, only %ld provided\n", __func__, n + 1,
                long(size));
        return -1;
    }
    buf[size - 1] = '\0';
    return 0;
}

int mk_timespan(long seconds, char *buf, size_t size) {
    long days = seconds / 86400;
    long rest = seconds % 86400;
    size_t off = 0;
    if (days > 0) {
        int n = snprintf(buf, size, "%02ldd ", days);
        if (n <= 0 || size_t(n) >= size) return -1;
        off = size_t(n);
    }
    int n = snprintf(buf + off, size - off, "%02ldh:%02ldm:%02lds", rest / 3600, (rest % 3600) / 60,
                     rest % 60);
    if (n <= 0 || size_t(n) >= size - off) return -1;
    return 0;
}

time_t get_endofday_utime(time_t t) {
    tm btm{};
    if (localtime_r(&t, &btm) == nullptr) {
        LOG_ERR("%s: localtime_r() FAILED\n", __func__);
        return -1;
    }
    btm.tm_hour = 23;
    btm.tm_min = 59;
    btm.tm_sec = 59;
    btm.tm_isdst = -1;
    return mktime(&btm);
}

int timed_out_as(const timespec *start, const timespec *span, bool real, const timespec *now) {
    timespec ref{};
    if (now != nullptr)
        ref = *now;
    else if (real)
        set_real_now(&ref);
    else
        // The loop time, not a fresh reading: every deadline checked during
        // one pass of the loop sees the same "now".
        ref = *rqs_now_ref();
    timespec dl{start->tv_sec + span->tv_sec, start->tv_nsec + span->tv_nsec};
    if (dl.tv_nsec > NSEC_PER_SEC - 1) {
        dl.tv_sec += dl.tv_nsec / NSEC_PER_SEC;
        dl.tv_nsec %= NSEC_PER_SEC;
    }
    if (ref.tv_sec != dl.tv_sec) return ref.tv_sec > dl.tv_sec ? 1 : 0;
    return ref.tv_nsec > dl.tv_nsec ? 1 : 0;
}

int timed_out(const timespec *start, const timespec *span) {
    return timed_out_as(start, span, false, nullptr);
}

int timed_out_ext(const timespec *start, const timespec *span, const timespec *now) {
    return timed_out_as(start, span, false, now);
}

int timed_out_real(const timespec *start, const timespec *span) {
    return timed_out_as(start, span, true, nullptr);
}

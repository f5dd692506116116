// timeop: time stamps and deadlines. Clock reads, differences and
// conversions, deadline tests against the reactor's loop time, and the time
// texts of the log. Monotonic time for deadlines, real time for wall clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

// Log time format codes (trov.log.time_format).
constexpr uint32_t TMF_LOCAL = 0;
constexpr uint32_t TMF_NOUSEC = 0x10;  // whole seconds, no microseconds
constexpr uint32_t TMF_NOTIME = 0x100;
constexpr uint32_t TMF_GMT = 0x200;
constexpr uint32_t TMF_RAW = 0x400;
constexpr uint32_t TMF_RAW_MONO = 0x401;
constexpr uint32_t TMF_INVALID = 0x40000000;

// Reads clock; a failing clock_gettime is fatal (perror, abort).
void set_clk_now(timespec *ts, int clock);
void set_real_now(timespec *ts);  // CLOCK_REALTIME
void set_now(timespec *ts);       // CLOCK_MONOTONIC

// out = to - from, borrowing a second when the nanoseconds go negative.
void calc_timespan(const timespec *from, const timespec *to, timespec *out);
// -1 when tv_sec is -1, else milliseconds.
int64_t tms2ms(const timespec *ts);
// ms >= 1: sec/nsec; 0: zero; negative: {-1, 0}.
void ms2timespec(int64_t ms, timespec *ts);
// delta = later - earlier, never negative; a null operand is "now" (monotonic).
void tspec_diff(const timespec *a, const timespec *b, timespec *delta);
// Absolute distance of a and b in milliseconds.
int64_t diff_ms(const timespec *a, const timespec *b);

// Deadline tests: timed out when the reference time is strictly later than
// start + span. The reference is now when given, else the real-time clock
// when real is set, else the reactor's loop time. 1 timed out, 0 not.
int timed_out_as(const timespec *start, const timespec *span, bool real, const timespec *now);
int timed_out(const timespec *start, const timespec *span);
int timed_out_ext(const timespec *start, const timespec *span, const timespec *now);
int timed_out_real(const timespec *start, const timespec *span);

// A time-out that is either a span of time (mode 1) or a count (mode 2).
constexpr int TSPAN_TIME = 1;
constexpr int TSPAN_COUNT = 2;
struct tspan {
    int mode;
    union {
        timespec ts;
        uint32_t count;
    } val;
};
void set_tspan(tspan *ts, const timespec *now, uint32_t count);
bool tspan_timed_out(const tspan *last, const tspan *tmout, const timespec *now, uint32_t count);

// Formats ts for the log in the given TMF_* format; the length, -1 when the
// buffer is too small (complaint on stderr), -35 when re-entered.
int mk_timestr(const timespec *ts, uint32_t format, char *buf, size_t size);
// Parses a time written by mk_timestr (followed by a blank); the number of
// fields parsed, or -1.
int scan_log_time(const char *text, timespec *out, uint32_t format);
// "YYYY-MM-DD" in UTC. 0 or -1.
int mk_gmt_date(time_t t, char *buf, size_t size);
// "[DDd ]HHh:MMm:SSs". 0 or -1.
int mk_timespan(long seconds, char *buf, size_t size);
// 23:59:59 local time of t's day, or -1.
time_t get_endofday_utime(time_t t);

// stats: counters and their exposition (see stats.h).
#include "stats.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "meta.h"

trov_stats g_stats;

namespace {
// Appends to a bounded buffer; once anything did not fit, everything fails.
struct out_buf {
    char *buf;
    size_t cap;
    size_t len;
    bool full;
};

[[gnu::format(printf, 2, 3)]] void put(out_buf *o, const char *fmt, ...) {
    if (o->full) return;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(o->buf + o->len, o->cap - o->len, fmt, ap);
    va_end(ap);
    if (n < 0 || size_t(n) >= o->cap - o->len) {
        o->full = true;
        return;
    }
    o->len += size_t(n);
}

void family(out_buf *o, const char *name, const char *type, const char *help) {
    put(o, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

// A counter family of two samples told apart by one label.
struct labelled {
    const char *value;
    uint64_t count;
};
void counter_pair(out_buf *o, const char *name, const char *help, const char *label, labelled a,
                  labelled b) {
    family(o, name, "counter", help);
    for (const labelled &l : {a, b})
        put(o, "%s{%s=\"%s\"} %lu\n", name, label, l.value, static_cast<unsigned long>(l.count));
}
}  // namespace

void stats_reset() {
    memset(&g_stats, 0, sizeof g_stats);
    g_stats.start_time = time(nullptr);
}

void stats_http_answer(int code) {
    if (code >= STATS_MIN_CODE && code <= STATS_MAX_CODE)
        ++g_stats.http_answers[code - STATS_MIN_CODE];
}

long stats_render(const stats_gauges *g, char *buf, size_t cap) {
    out_buf o{.buf = buf, .cap = cap, .len = 0, .full = cap == 0};
    const trov_stats &s = g_stats;
    family(&o, "trov_orders_total", "counter",
           "Download orders decided, by channel and by whether they were taken.");
    for (int ch : {STATS_HTTP, STATS_UDP})
        for (int res : {STATS_ACCEPTED, STATS_REFUSED})
            put(&o, "trov_orders_total{channel=\"%s\",result=\"%s\"} %lu\n",
                ch == STATS_HTTP ? "http" : "udp", res == STATS_ACCEPTED ? "accepted" : "refused",
                static_cast<unsigned long>(s.orders[ch][res]));
    family(&o, "trov_http_answers_total", "counter",
           "Answers of the order listener by HTTP status, a source's own status included.");
    for (int code = STATS_MIN_CODE; code <= STATS_MAX_CODE; ++code)
        if (uint64_t n = s.http_answers[code - STATS_MIN_CODE]; n > 0)
            put(&o, "trov_http_answers_total{code=\"%d\"} %lu\n", code,
                static_cast<unsigned long>(n));
    counter_pair(&o, "trov_downloads_total",
                 "Downloads that ended, by whether the file was completed.", "result",
                 {"completed", s.downloads_completed}, {"failed", s.downloads_failed});
    family(&o, "trov_download_bytes_total", "counter",
           "Body bytes written into destination files.");
    put(&o, "trov_download_bytes_total %lu\n", static_cast<unsigned long>(s.download_bytes));
    family(&o, "trov_tasks_active", "gauge", "Downloads in progress.");
    put(&o, "trov_tasks_active %zu\n", g->tasks_active);
    family(&o, "trov_tasks_max", "gauge", "Downloads allowed at once (max_tasks).");
    put(&o, "trov_tasks_max %zu\n", g->tasks_max);
    family(&o, "trov_udp_datagrams_dropped_total", "counter",
           "Order datagrams the kernel dropped because the receive buffer was full.");
    put(&o, "trov_udp_datagrams_dropped_total %lu\n", static_cast<unsigned long>(g->udp_dropped));
    family(&o, "trov_udp_orders_skipped_total", "counter",
           "Datagram orders skipped because another agent holds them.");
    put(&o, "trov_udp_orders_skipped_total{reason=\"locked\"} %lu\n",
        static_cast<unsigned long>(s.udp_skipped_locked));
    counter_pair(&o, "trov_lbdb_registrations_total",
                 "Registrations of local URLs in the load-balancer database, by outcome.", "result",
                 {"ok", s.lbdb_ok}, {"failed", s.lbdb_failed});
    counter_pair(&o, "trov_source_connections_total",
                 "Connections to the sources for downloads: opened new, or idle ones reused.",
                 "kind", {"new", g->src_new}, {"reused", g->src_reused});
    family(&o, "trov_start_time_seconds", "gauge",
           "Start time of the daemon, seconds of the epoch.");
    put(&o, "trov_start_time_seconds %ld\n", long(s.start_time));
    family(&o, "trov_build_info", "gauge", "The daemon's version, as a label; always 1.");
    put(&o, "trov_build_info{version=\"%s\"} 1\n", get_app_version());
    return o.full ? -1 : long(o.len);
}

// stats: the daemon's counters since start, kept as plain integers on the
// loop thread where each event is decided, and their rendering in the text
// exposition format a metrics scraper reads from the admin listener.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

constexpr int STATS_HTTP = 0;  // order channels
constexpr int STATS_UDP = 1;
constexpr int STATS_ACCEPTED = 0;  // order results
constexpr int STATS_REFUSED = 1;
constexpr int STATS_MIN_CODE = 100;  // HTTP status codes counted one by one
constexpr int STATS_MAX_CODE = 599;

struct trov_stats {
    uint64_t orders[2][2];                                       // [channel][result]
    uint64_t http_answers[STATS_MAX_CODE - STATS_MIN_CODE + 1];  // by status code
    uint64_t downloads_completed;
    uint64_t downloads_failed;  // tasks that started and ended without their file
    uint64_t download_bytes;    // body bytes written into destination files
    uint64_t udp_skipped_locked;
    uint64_t lbdb_ok;
    uint64_t lbdb_failed;
    time_t start_time;  // seconds of the epoch
};
extern trov_stats g_stats;

// Clears every counter and stamps the start time.
void stats_reset();
// One order decided on channel with result.
inline void stats_order(int channel, int result) { ++g_stats.orders[channel][result]; }
// One answer of the order listener; codes out of range are not counted.
void stats_http_answer(int code);

// What the exposition reads besides the counters, sampled at render time.
struct stats_gauges {
    size_t tasks_active;
    size_t tasks_max;
    uint64_t udp_dropped;  // datagrams the kernel dropped on the order channel
    uint64_t src_new;      // connections to the sources opened
    uint64_t src_reused;   // idle connections taken again
};

// Writes the exposition into buf (cap bytes, terminated). Its length, or -1
// when it does not fit.
[[nodiscard]] long stats_render(const stats_gauges *gauges, char *buf, size_t cap);

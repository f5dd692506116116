// statview: the summary trov-order stats prints from the daemon's metrics.
#include <charconv>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "ordcli.h"

namespace {
// One sample line: its metric name, its label text (without braces) and value.
struct sample {
    std::string_view name, labels;
    double value;
};

bool parse_sample(std::string_view line, sample *s) {
    if (line.empty() || line[0] == '#') return false;
    size_t sp = line.rfind(' ');
    if (sp == std::string_view::npos) return false;
    std::string_view head = line.substr(0, sp), val = line.substr(sp + 1);
    double v = 0;
    auto [end, ec] = std::from_chars(val.data(), val.data() + val.size(), v);
    if (ec != std::errc{} || end != val.data() + val.size()) return false;
    size_t brace = head.find('{');
    s->name = head.substr(0, brace);
    s->labels = brace == std::string_view::npos ? std::string_view{}
                                                : head.substr(brace + 1, head.size() - brace - 2);
    s->value = v;
    return true;
}

// The value of label key in labels ("" when absent).
std::string_view label(std::string_view labels, std::string_view key) {
    for (size_t at = 0; at < labels.size();) {
        size_t eq = labels.find("=\"", at);
        if (eq == std::string_view::npos) break;
        size_t close = labels.find('"', eq + 2);
        if (close == std::string_view::npos) break;
        if (labels.substr(at, eq - at) == key) return labels.substr(eq + 2, close - eq - 2);
        at = close + 2;  // past the quote and the comma
    }
    return {};
}

void human_bytes(double b, char *out, size_t cap) {
    const char *units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (b >= 1024 && u < 4) b /= 1024, ++u;
    snprintf(out, cap, u == 0 ? "%.0f %s" : "%.1f %s", b, units[u]);
}
}  // namespace

int ordcli_print_stats(std::string_view text, FILE *fp) {
    double orders[2][2] = {}, dl_ok = 0, dl_failed = 0, bytes = 0, active = 0, max = 0;
    double dropped = 0, skipped = 0, lb_ok = 0, lb_failed = 0, start = 0;
    char answers[512] = "";
    size_t alen = 0;
    std::string_view version;
    int seen = 0;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        sample s{};
        if (!parse_sample(line, &s) || !s.name.starts_with("trov_")) continue;
        ++seen;
        if (s.name == "trov_orders_total") {
            int ch = label(s.labels, "channel") == "udp" ? 1 : 0;
            int res = label(s.labels, "result") == "refused" ? 1 : 0;
            orders[ch][res] = s.value;
        } else if (s.name == "trov_http_answers_total") {
            std::string_view code = label(s.labels, "code");
            int n = snprintf(answers + alen, sizeof answers - alen, "%s%.*s: %.0f",
                             alen > 0 ? ", " : "", int(code.size()), code.data(), s.value);
            if (n > 0 && size_t(n) < sizeof answers - alen) alen += size_t(n);
        } else if (s.name == "trov_downloads_total") {
            (label(s.labels, "result") == "failed" ? dl_failed : dl_ok) = s.value;
        } else if (s.name == "trov_download_bytes_total") {
            bytes = s.value;
        } else if (s.name == "trov_tasks_active") {
            active = s.value;
        } else if (s.name == "trov_tasks_max") {
            max = s.value;
        } else if (s.name == "trov_udp_datagrams_dropped_total") {
            dropped = s.value;
        } else if (s.name == "trov_udp_orders_skipped_total") {
            skipped += s.value;
        } else if (s.name == "trov_lbdb_registrations_total") {
            (label(s.labels, "result") == "failed" ? lb_failed : lb_ok) = s.value;
        } else if (s.name == "trov_start_time_seconds") {
            start = s.value;
        } else if (s.name == "trov_build_info") {
            version = label(s.labels, "version");
        }
    }
    if (seen == 0) return 22;
    char b[32];
    human_bytes(bytes, b, sizeof b);
    fprintf(fp, "orders     http %.0f taken, %.0f refused; udp %.0f taken, %.0f refused\n",
            orders[0][0], orders[0][1], orders[1][0], orders[1][1]);
    fprintf(fp, "answers    %s\n", alen > 0 ? answers : "none yet");
    fprintf(fp, "downloads  %.0f completed, %.0f failed, %s written\n", dl_ok, dl_failed, b);
    fprintf(fp, "tasks      %.0f running of at most %.0f\n", active, max);
    fprintf(fp, "datagrams  %.0f dropped by the kernel, %.0f skipped (another agent's)\n", dropped,
            skipped);
    fprintf(fp, "lbdb       %.0f registered, %.0f failed\n", lb_ok, lb_failed);
    if (start > 0) {
        time_t t = time_t(start);
        tm utc{};
        char when[64] = "?";
        if (gmtime_r(&t, &utc) != nullptr)
            strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S UTC", &utc);
        long up = long(time(nullptr) - t);
        fprintf(fp, "up since   %s (%ldd %02ldh %02ldm)\n", when, up / 86400, up / 3600 % 24,
                up / 60 % 60);
    }
    if (!version.empty()) fprintf(fp, "version    %.*s\n", int(version.size()), version.data());
    return 0;
}

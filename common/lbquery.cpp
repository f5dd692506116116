// lbquery: the load-balancer DB client. Reads the script digests, connects,
// verifies that the scripts are loaded, and runs them with EVALSHA to register,
// remove and look up segment URLs. The module state is private to this file.
#include "lbquery.h"

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "config.h"
#include "log.h"
#include "scope_exit.h"

LOG_MODULE(0);

namespace {

struct lbdb_ctx {
    time_t init_tm;       // time of lbdb_init; 0 = not initialised
    redisContext *redis;  // null = not connected
    char add_sha1[LBDB_SHA_SIZE];
    char del_sha1[LBDB_SHA_SIZE];
    char next_sha1[LBDB_SHA_SIZE];
    char mbget_sha1[LBDB_SHA_SIZE];
    char claim_sha1[LBDB_SHA_SIZE];
    char release_sha1[LBDB_SHA_SIZE];
    int32_t need_func;  // LBDB_FN_* bits
    char call_opt[64];  // option text passed to the get scripts
};
static_assert(std::is_trivially_copyable_v<lbdb_ctx>);

struct script_entry {
    int bit;
    const char *file;
    char (lbdb_ctx::*sha)[LBDB_SHA_SIZE];
};

// The order in which digests are read and verified; the first failure stops.
constexpr script_entry k_scripts[] = {
    {.bit = LBDB_FN_ADD, .file = "add_url.sha1", .sha = &lbdb_ctx::add_sha1},
    {.bit = LBDB_FN_DEL, .file = "del_url.sha1", .sha = &lbdb_ctx::del_sha1},
    {.bit = LBDB_FN_NEXT, .file = "next_url.sha1", .sha = &lbdb_ctx::next_sha1},
    {.bit = LBDB_FN_MBGET, .file = "mbget_url.sha1", .sha = &lbdb_ctx::mbget_sha1},
    {.bit = LBDB_FN_CLAIM, .file = "claim_order.sha1", .sha = &lbdb_ctx::claim_sha1},
    {.bit = LBDB_FN_CLAIM, .file = "release_order.sha1", .sha = &lbdb_ctx::release_sha1},
};
constexpr std::string_view k_claim_pfx = "trov:claim:";  // the key of an order's claim

constexpr size_t k_script_path_size = 255;  // "<sha1_dir>/<file>" with its terminator
constexpr size_t k_sha_min_line = 39;       // digest line lengths, newline included
constexpr size_t k_sha_max_line = 48;
constexpr size_t k_fail_text_max = 80;  // a failure answer is logged cut to this
constexpr size_t k_del_reply_max = 127;
constexpr std::string_view k_ok_pfx = "OK ";
constexpr std::string_view k_err_pfx = "#err: ";

}  // namespace

static lbdb_ctx s_ctx;
static lbdb_cfg s_kept;  // directory from lbdb_init; host, port, time-out from lbdb_connect
static char s_reply[LBDB_REPLY_SIZE];

// Copies at most cap - 1 bytes of src and terminates dst; for values already
// checked against their field, or kept only for log lines.
static void copy_text(char *dst, size_t cap, const char *src) {
    size_t n = strnlen(src, cap - 1);
    memcpy(dst, src, n);
    dst[n] = '\0';
}

int load_lbdb_cfg(config_setting_t *section, lbdb_cfg *cfg) {
    XASSERT(section != nullptr && cfg != nullptr);
    memset(cfg, 0, sizeof *cfg);

    if (load_config_setting_str(section, "host", cfg->host, sizeof cfg->host, nullptr) != 0)
        return -1;
    if (cfg->host[0] == '\0') {
        LOG_ERR("%s: missing host setting\n", __func__);
        return -1;
    }

    // Absent or not an integer leaves 0, which keeps the DB switched off.
    int port = 0;
    (void)config_setting_lookup_int(section, "port", &port);
    if (port < 0) {
        LOG_ERR("%s: invalid port value: %d\n", __func__, port);
        return -1;
    }
    cfg->port = port;

    int ms = LBDB_CONNECT_TMOUT_MS;
    (void)config_setting_lookup_int(section, "connect_tmout_ms", &ms);
    cfg->tmout.tv_sec = ms / 1000;
    cfg->tmout.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;

    if (load_config_setting_str(section, "sha1_dir", cfg->sha1_path, sizeof cfg->sha1_path,
                                nullptr) != 0)
        return -1;
    if (cfg->sha1_path[0] == '\0') {
        LOG_ERR("%s: missing sha1_dir setting\n", __func__);
        return -1;
    }
    return 0;
}

int lbdb_init(const char *sha1_dir, int need_func, int opts) {
    XASSERT(s_ctx.init_tm == 0);
    XASSERT(sha1_dir != nullptr);

    int rc = 0;
    size_t len = strlen(sha1_dir);
    if (len >= sizeof s_kept.sha1_path) {
        LOG_ERR("%s: sha1_dir is too long: %zu/%zu\n", __func__, len, sizeof s_kept.sha1_path - 1);
        rc = 34;
    }
    if (rc == 0) {
        copy_text(s_kept.sha1_path, sizeof s_kept.sha1_path, sha1_dir);
        for (const script_entry &s : k_scripts) {
            if ((need_func & s.bit) == 0) continue;
            rc = verify_db_script(s_kept.sha1_path, s.file, s_ctx.*s.sha, LBDB_SHA_SIZE);
            if (rc != 0) break;
        }
    }
    if (rc == 0 && (opts & LBDB_OPT_STAY) != 0) {
        constexpr std::string_view flag = "-S";
        size_t cur = strlen(s_ctx.call_opt);
        if (cur + flag.size() + 1 < sizeof s_ctx.call_opt) {
            memcpy(s_ctx.call_opt + cur, flag.data(), flag.size());
            s_ctx.call_opt[cur + flag.size()] = '\0';
            LOG_DBG("%s: added [%s] flag\n", __func__, flag.data());
        } else {
            LOG_ERR("%s: not enough space for option [%s]\n", __func__, flag.data());
            rc = -1;
        }
    }
    if (rc != 0) {
        lbdb_destroy();
        return rc;
    }
    s_ctx.init_tm = time(nullptr);
    s_ctx.need_func = need_func;
    return 0;
}

int verify_db_script(const char *dir, const char *file, char *sha, size_t cap) {
    char path[k_script_path_size];
    int n = snprintf(path, sizeof path, "%s/%s", dir, file);
    // kept: a path of exactly 255 characters passes, cut by one; the digest
    // file names are short enough that this never matters.
    if (n < 1 || n > static_cast<int>(k_script_path_size)) {
        LOG_ERR("%s: buffer overflow/error, n=%d, dir=%s, script=%s, buflen=%zu\n", __func__, n,
                dir, file, k_script_path_size);
        return -1;
    }
    int rc = read_sha_signature(path, sha, static_cast<int>(cap));
    if (rc == 0 && s_ctx.redis != nullptr) rc = check_script_exists(sha);
    return rc;
}

int read_sha_signature(const char *path, char *buf, int cap) {
    XASSERT(path != nullptr && buf != nullptr && cap > 2);
    FILE *fp = fopen(path, "r");
    if (fp == nullptr) {
        int err = errno;
        LOG_ERR("%s: fopen(%s,...) ERROR(%d): %s\n", __func__, path, err, strerror(err));
        return -1;
    }
    scope_exit close_fp{[fp] { (void)fclose(fp); }};

    // fgets stores at most cap - 2 characters here, so a longer line is read
    // only in part and judged by that part.
    if (fgets(buf, cap - 1, fp) == nullptr) {
        // kept: an empty file does not fail the start here; buf keeps what it
        // held (empty for a fresh client), and the connect step's assertion
        // that every needed digest is set stops the program there.
        LOG_ERR("%s: fgets(...) ERROR(%d): %s\n", __func__, 0, strerror(0));
        return 0;
    }
    size_t len = strlen(buf);
    if (len < k_sha_min_line || len > k_sha_max_line) {
        LOG_ERR("%s: [%s] unexpected SHA1 size: %zu\n", __func__, path, len);
        return -1;
    }
    if (buf[len - 1] == '\n') buf[len - 1] = '\0';
    LOG_DBG("[%s] -> (%s)\n", path, buf);
    return 0;
}

int lbdb_connect(const char *host, int port, struct timeval tmout) {
    XASSERT(s_ctx.redis == nullptr);
    XASSERT(s_ctx.init_tm != 0);
    XASSERT(host != nullptr);

    redisContext *c = redisConnectWithTimeout(host, port, tmout);
    if (c == nullptr) {
        LOG_ERR("%s: redisConnectWithTimeout: cannot allocate context\n", __func__);
        return -1;
    }
    if (c->err != 0) {
        LOG_ERR("%s: redisConnectWithTimeout ERROR(%d): %s\n", __func__, c->err, c->errstr);
        redisFree(c);
        return -1;
    }
    s_ctx.redis = c;
    copy_text(s_kept.host, sizeof s_kept.host, host);
    s_kept.port = port;
    s_kept.tmout = tmout;
    LOG_INF("%s: connected to %s:%d\n", __func__, host, port);

    int rc = 0;
    for (const script_entry &s : k_scripts) {
        if ((s_ctx.need_func & s.bit) == 0) continue;
        const char *sha = s_ctx.*s.sha;
        XASSERT(sha[0] != '\0');
        rc = check_script_exists(sha);
        if (rc != 0) break;
    }
    if (rc != 0) {
        LOG_ERR("%s: failed for %s:%d\n", __func__, host, port);
        lbdb_disconnect();
    } else {
        LOG_DBG("%s: OK, rc=%d\n", __func__, rc);
    }
    return rc;
}

void lbdb_disconnect() {
    if (s_ctx.redis == nullptr) return;
    redisFree(s_ctx.redis);
    s_ctx.redis = nullptr;
    LOG_INF("%s: disconnected from %s:%d\n", __func__, s_kept.host, s_kept.port);
}

void lbdb_destroy() {
    lbdb_disconnect();
    memset(&s_ctx, 0, sizeof s_ctx);
    memset(&s_kept, 0, sizeof s_kept);
}

int check_script_exists(const char *sha) {
    XASSERT(s_ctx.redis != nullptr);
    XASSERT(sha != nullptr);

    auto *r = static_cast<redisReply *>(redisCommand(s_ctx.redis, "script exists %s", sha));
    int rc = 0;
    if (r == nullptr) {
        LOG_ERR("%s: NULL as reply\n", __func__);
        rc = -1;
    } else {
        switch (r->type) {
            case REDIS_REPLY_INTEGER:
                if (r->integer == 0) LOG_ERR("%s: no such script: %s\n", __func__, sha);
                rc = r->integer == 1 ? 0 : 2;
                break;
            case REDIS_REPLY_ARRAY:
                if (r->elements != 1) {
                    fprintf(stderr, "%s: more than 1 element (%zu) returned\n", __func__,
                            r->elements);
                    rc = 22;
                } else if (r->element[0]->type != REDIS_REPLY_INTEGER) {
                    fprintf(stderr, "%s: expected integer, got %d\n", __func__,
                            r->element[0]->type);
                    rc = 22;
                } else {
                    rc = r->element[0]->integer == 1 ? 0 : 2;
                }
                break;
            case REDIS_REPLY_ERROR:
                LOG_ERR("%s: Redis error: %s\n", __func__, r->str);
                rc = -1;
                break;
            default:
                LOG_ERR("%s: not expecting reply type=%d\n", __func__, r->type);
                rc = 22;
                break;
        }
        freeReplyObject(r);
    }
    LOG_DBG("%s: %s, rc=%d\n", __func__, sha, rc);
    return rc;
}

int reply_to_str(const redisReply *reply, char *buf, size_t cap) {
    XASSERT(reply != nullptr && buf != nullptr);
    switch (reply->type) {
        case REDIS_REPLY_STRING:
            // kept: a string of exactly cap bytes fits and its terminator
            // lands at buf[cap]; callers pass one less than their size.
            if (reply->len > cap) {
                LOG_ERR("%s: reply is bigger than buffer: %zu/%zu\n", __func__, reply->len, cap);
                return 34;
            }
            memcpy(buf, reply->str, reply->len);
            buf[reply->len] = '\0';
            return 0;
        case REDIS_REPLY_ARRAY: {
            if (reply->elements != 1) {
                LOG_ERR("%s: more than 1 element (%zu) returned\n", __func__, reply->elements);
                return 22;
            }
            const redisReply *e = reply->element[0];
            if (e->type != REDIS_REPLY_STRING) {
                LOG_ERR("%s: expected string, got %d\n", __func__, e->type);
                return 22;
            }
            // Never refused for its length (the scripts answer in an array
            // only with a short text), but a text longer than the buffer is
            // cut at the same bound as a plain string rather than written
            // past it: a broken script must not be able to corrupt memory.
            const size_t n = e->len < cap ? e->len : cap;
            memcpy(buf, e->str, n);
            buf[n] = '\0';
            return 0;
        }
        case REDIS_REPLY_STATUS:
            LOG_ERR("%s: Redis status: %s\n", __func__, reply->str);
            return -1;
        case REDIS_REPLY_ERROR:
            LOG_ERR("%s: Redis error: %s\n", __func__, reply->str);
            return -1;
        default:
            LOG_ERR("%s: not expecting reply type=%d\n", __func__, reply->type);
            return 22;
    }
}

int lbdb_add_segurl(const char *id, const char *url, time_t expiry) {
    XASSERT((s_ctx.need_func & LBDB_FN_ADD) != 0);
    XASSERT(s_ctx.redis != nullptr);
    XASSERT(s_ctx.add_sha1[0] != '\0');
    XASSERT(id != nullptr && url != nullptr);

    long exp = static_cast<long>(expiry);
    LOG_DBG("evalsha %s 1 %s %s %ld\n", s_ctx.add_sha1, id, url, exp);
    auto *r = static_cast<redisReply *>(
        redisCommand(s_ctx.redis, "evalsha %s 1 %s %s %ld", s_ctx.add_sha1, id, url, exp));
    if (r == nullptr) {
        LOG_ERR("%s: NULL as reply\n", __func__);
        return -1;
    }
    scope_exit free_reply{[r] { freeReplyObject(r); }};

    if (int rc = reply_to_str(r, s_reply, sizeof s_reply - 1); rc != 0) return rc;
    std::string_view text{s_reply};
    if (!text.starts_with(k_ok_pfx)) {
        // A "#err: " answer from the script ends here as well.
        if (text.size() > k_fail_text_max) s_reply[k_fail_text_max] = '\0';
        LOG_ERR("%s: failed: %s\n", __func__, s_reply);
        return -1;
    }
    if (text.substr(k_ok_pfx.size()) != std::string_view{id}) {
        LOG_ERR("%s: expected %s, got [%s]\n", __func__, id, s_reply);
        return -1;
    }
    LOG_DBG("%s: result=[%s]\n", __func__, s_reply);
    return 0;
}

// The reason a claim or a release failed, cut to the caller's buffer.
[[gnu::format(printf, 3, 4)]] static void say_why(char *why, size_t cap, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    (void)vsnprintf(why, cap, fmt, ap);
    va_end(ap);
}

// Runs one order script on the claim key of id; the reply (owned by the
// caller), or null with the reason in why.
static redisReply *order_script(const char *sha, const char *id, const char *claimant, long ttl_ms,
                                char *why, size_t cap) {
    if (s_ctx.redis == nullptr || s_ctx.redis->err != 0) {
        say_why(why, cap, "%s", s_ctx.redis == nullptr ? "not connected" : s_ctx.redis->errstr);
        return nullptr;
    }
    void *r = ttl_ms > 0 ? redisCommand(s_ctx.redis, "evalsha %s 1 %s%s %s %ld", sha,
                                        k_claim_pfx.data(), id, claimant, ttl_ms)
                         : redisCommand(s_ctx.redis, "evalsha %s 1 %s%s %s", sha,
                                        k_claim_pfx.data(), id, claimant);
    if (r == nullptr) say_why(why, cap, "no reply: %s", s_ctx.redis->errstr);
    return static_cast<redisReply *>(r);
}

// 1 or 0 from an order script's integer answer; -1 with the reason in why.
static int order_answer(const redisReply *r, char *why, size_t cap) {
    if (r->type == REDIS_REPLY_INTEGER && (r->integer == 0 || r->integer == 1))
        return static_cast<int>(r->integer);
    if (r->type == REDIS_REPLY_ERROR)
        say_why(why, cap, "%s", r->str);
    else
        say_why(why, cap, "unexpected reply type %d", r->type);
    return -1;
}

int lbdb_claim_order(const char *id, const char *claimant, long ttl_ms, char *why, size_t cap) {
    XASSERT((s_ctx.need_func & LBDB_FN_CLAIM) != 0);
    XASSERT(id != nullptr && claimant != nullptr && why != nullptr && cap > 0);
    why[0] = '\0';
    LOG_DBG("evalsha %s 1 %s%s %s %ld\n", s_ctx.claim_sha1, k_claim_pfx.data(), id, claimant,
            ttl_ms);
    redisReply *r = order_script(s_ctx.claim_sha1, id, claimant, ttl_ms, why, cap);
    if (r == nullptr) return -1;
    scope_exit free_reply{[r] { freeReplyObject(r); }};
    int won = order_answer(r, why, cap);
    return won < 0 ? -1 : (won == 1 ? 0 : 16);
}

int lbdb_release_order(const char *id, const char *claimant) {
    XASSERT((s_ctx.need_func & LBDB_FN_CLAIM) != 0);
    XASSERT(id != nullptr && claimant != nullptr);
    char why[128] = {};
    LOG_DBG("evalsha %s 1 %s%s %s\n", s_ctx.release_sha1, k_claim_pfx.data(), id, claimant);
    redisReply *r = order_script(s_ctx.release_sha1, id, claimant, 0, why, sizeof why);
    int rc = -1;
    if (r != nullptr) {
        rc = order_answer(r, why, sizeof why);
        freeReplyObject(r);
    }
    if (rc < 0) {
        LOG_WRN("%s: [%s] release failed (%s)\n", __func__, id, why);
        return -1;
    }
    return rc == 1 ? 0 : 2;
}

int lbdb_del_segurl(const char *id, const char *url) {
    XASSERT(s_ctx.redis != nullptr);
    XASSERT(s_ctx.del_sha1[0] != '\0');
    XASSERT(id != nullptr && url != nullptr);

    LOG_DBG("evalsha %s 1 %s %s\n", s_ctx.del_sha1, id, url);
    auto *r = static_cast<redisReply *>(
        redisCommand(s_ctx.redis, "evalsha %s 1 %s %s", s_ctx.del_sha1, id, url));
    if (r == nullptr) {
        LOG_ERR("%s: NULL as reply\n", __func__);
        return -1;
    }
    scope_exit free_reply{[r] { freeReplyObject(r); }};

    if (int rc = reply_to_str(r, s_reply, k_del_reply_max); rc != 0) return rc;
    if (!std::string_view{s_reply}.starts_with(k_ok_pfx)) {
        LOG_ERR("%s: failed: %s\n", __func__, s_reply);
        return -1;
    }
    LOG_DBG("%s: result=[%s]\n", __func__, s_reply);
    return 0;
}

// Judges the answer of a get script: a URL, or a "#err: " text that leaves
// url empty. who names the operation in the log lines.
static int take_url_reply(const char *who, redisReply *r, char *url, size_t cap) {
    if (r == nullptr) {
        LOG_ERR("%s: NULL as reply\n", who);
        url[0] = '\0';
        return -1;
    }
    scope_exit free_reply{[r] { freeReplyObject(r); }};

    if (int rc = reply_to_str(r, url, cap - 1); rc != 0) {
        url[0] = '\0';
        return rc;
    }
    if (std::string_view{url}.starts_with(k_err_pfx)) {
        LOG_ERR("%s: failed: %s\n", who, url);
        url[0] = '\0';
        return -1;
    }
    LOG_DBG("%s: result=[%s]\n", who, url);
    return 0;
}

int lbdb_rr_get_segurl(const char *id, char *url, size_t cap) {
    XASSERT(s_ctx.redis != nullptr);
    XASSERT(s_ctx.next_sha1[0] != '\0');
    XASSERT(id != nullptr && url != nullptr && cap >= 2);

    LOG_DBG("evalsha %s 1 %s %s\n", s_ctx.next_sha1, id, s_ctx.call_opt);
    auto *r = static_cast<redisReply *>(
        redisCommand(s_ctx.redis, "evalsha %s 1 %s %s", s_ctx.next_sha1, id, s_ctx.call_opt));
    return take_url_reply(__func__, r, url, cap);
}

int lbdb_mb_get_segurl(const char *id, const char *buckets, const char *selector, char *url,
                       size_t cap) {
    XASSERT(s_ctx.redis != nullptr);
    XASSERT(s_ctx.mbget_sha1[0] != '\0');
    XASSERT(id != nullptr && buckets != nullptr && selector != nullptr);
    XASSERT(url != nullptr && cap >= 2);

    // kept deliberately: the line names the multi-bucket digest while the
    // command runs the next-URL script, so callers get round-robin answers.
    LOG_DBG("evalsha %s 1 %s %s %s %s\n", s_ctx.mbget_sha1, id, buckets, selector, s_ctx.call_opt);
    auto *r = static_cast<redisReply *>(redisCommand(s_ctx.redis, "evalsha %s 1 %s %s %s %s",
                                                     s_ctx.next_sha1, id, buckets, selector,
                                                     s_ctx.call_opt));
    return take_url_reply(__func__, r, url, cap);
}

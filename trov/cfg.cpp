// cfg: defaults, file loading, command-line listeners, validation and the
// dump of the daemon's configuration (see cfg.h).
#include "cfg.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "config.h"
#include "netops.h"
#include "srcpool.h"
#include "strops.h"
#include "udl.h"
#include "util.h"

LOG_MODULE(0);

trov_cfg g_cfg;

namespace {
// Connections accepted per readiness of a web listener, unless configured.
constexpr int DEFAULT_MAX_ACCEPT = 64;

int lookup_int(const char *path, int def) {
    int v = 0;
    return config_lookup_int(g_lcfg, path, &v) == CONFIG_TRUE ? v : def;
}

bool lookup_bool(const config_setting_t *s, const char *name, bool def) {
    int v = 0;
    return config_setting_lookup_bool(s, name, &v) == CONFIG_TRUE ? v != 0 : def;
}

const config_setting_t *section(const char *path) { return config_lookup(g_lcfg, path); }

int load_udp_input(const config_setting_t *sec, udp_lstn_cfg *u) {
    if (int rc = load_config_setting_str(sec, "url", u->url, sizeof u->url, ""); rc != 0) return rc;
    if (u->url[0] == '\0') {
        LOG_ERR("%s: missing url for UDP channel\n", "load_config");
        return -1;
    }
    u->is_gzipped = lookup_bool(sec, "is_gzipped", true);
    if (int rc = load_interface_name("trov.udp_input.mcast_ifc", u->mifc, sizeof u->mifc); rc != 0)
        return rc;
    int kb = UDL_DEFAULT_RCVBUF_KB;
    (void)config_setting_lookup_int(sec, "rcvbuf_kb", &kb);
    if (kb < 0 || kb > UDL_MAX_RCVBUF_KB) {
        LOG_ERR("%s: rcvbuf_kb must be 0 to %d KiB, not %d\n", "load_config", UDL_MAX_RCVBUF_KB,
                kb);
        return -1;
    }
    u->rcvbuf_kb = kb;
    char claim[32] = {};
    if (int rc = load_config_setting_str(sec, "claim", claim, sizeof claim, "file"); rc != 0)
        return rc;
    if (strcmp(claim, "file") != 0 && strcmp(claim, "redis") != 0) {
        LOG_ERR("%s: claim must be \"file\" or \"redis\", not [%s]\n", "load_config", claim);
        return -1;
    }
    u->claim_redis = claim[0] == 'r';
    if (u->claim_redis) return 0;  // no lock files: neither must_lock nor lock_dir applies
    u->must_lock = lookup_bool(sec, "must_lock", true);
    if (u->must_lock)
        return load_config_setting_str(sec, "lock_dir", u->lkdir, sizeof u->lkdir, "/tmp");
    return 0;
}

int load_first_group(trov_cfg *cfg) {
    const config_setting_t *log = section("trov.log");
    if (log == nullptr) {
        LOG_ERR("%s: missing log section\n", "load_config");
        return -1;
    }
    if (int rc = load_log_config(log, &cfg->log); rc != 0) return rc;
    const config_setting_t *rt = section("trov.runtime");
    if (rt == nullptr) {
        LOG_ERR("%s: missing runtime section\n", "load_config");
        return -1;
    }
    if (int rc = load_rt_config(rt, &cfg->rt); rc != 0) return rc;
    if (const config_setting_t *udp = section("trov.udp_input"); udp != nullptr) {
        if (int rc = load_udp_input(udp, &cfg->udp_cha); rc != 0) return rc;
    }
    if (const config_setting_t *web = section("trov.web_input"); web != nullptr) {
        if (get_listeners("user", web, cfg->rui.user) != 0) {
            LOG_ERR("%s: failed to load web listener(s)\n", "load_config");
            return -1;
        }
        cfg->rui.max_accept = size_t(lookup_int("trov.web_input.max_accept", DEFAULT_MAX_ACCEPT));
        cfg->rui.user_request_tmout = 1000;
    }
    if (const config_setting_t *adm = section("trov.admin_input"); adm != nullptr) {
        if (load_listener_from(adm, &cfg->rui.admin[0], "admin") != 0) {
            LOG_ERR("%s: failed to load the admin listener\n", "load_config");
            return -1;
        }
    }
    if (config_setting_t *lb = config_lookup(g_lcfg, "trov.lbdb"); lb != nullptr) {
        if (int rc = load_lbdb_cfg(lb, &cfg->lbdb); rc != 0) return rc;
    }
    if (cfg->udp_cha.claim_redis && cfg->lbdb.port <= 0) {
        LOG_ERR("%s: claim = redis needs the lbdb section\n", "load_config");
        return -1;
    }
    return 0;
}

int load_second_group(trov_cfg *cfg) {
    if (int rc = load_config_str("trov.data_dir", cfg->data_dir, sizeof cfg->data_dir, "/tmp");
        rc != 0)
        return rc;
    if (dir_check(cfg->data_dir, 1) != 0) {
        LOG_ERR("%s: cannot accept [%s] as %s\n", "load_config", cfg->data_dir, "data_dir");
        return -1;
    }
    if (int rc =
            load_config_str("trov.local_url_prefix", cfg->seg_url_pfx, sizeof cfg->seg_url_pfx, "");
        rc != 0)
        return rc;
    if (cfg->lbdb.port != 0 && cfg->seg_url_pfx[0] == '\0') {
        LOG_ERR("%s: %s must be set for lbdb-enabled mode\n", "load_config", "local_url_prefix");
        return -1;
    }
    if (size_t n = strlen(cfg->seg_url_pfx); n > 0 && cfg->seg_url_pfx[n - 1] == '/')
        cfg->seg_url_pfx[n - 1] = '\0';
    cfg->urq_tmout_sec = lookup_int("trov.urq_tmout_sec", 1);
    // Read as 32-bit ints and widened without sign: -1 means "as many as fit".
    cfg->max_tasks = size_t(uint32_t(lookup_int("trov.max_tasks", 4096)));
    cfg->task_tmout_ms = size_t(uint32_t(lookup_int("trov.task_tmout_ms", 5000)));
    cfg->max_mmap_mb = size_t(uint32_t(lookup_int("trov.max_mmap_mb", 8)));
    if (const config_setting_t *ka = section("trov.source_keepalive"); ka != nullptr) {
        src_keepalive_cfg &k = cfg->src_ka;
        k.on = true;
        k.per_origin = 16;
        k.idle_ms = 5000;
        (void)config_setting_lookup_int(ka, "per_origin", &k.per_origin);
        (void)config_setting_lookup_int(ka, "idle_ms", &k.idle_ms);
        if (k.per_origin < 1 || k.per_origin > SRCPOOL_MAX_PER_ORIGIN || k.idle_ms < 1) {
            LOG_ERR("%s: source_keepalive wants per_origin 1 to %d and idle_ms above 0\n",
                    "load_config", SRCPOOL_MAX_PER_ORIGIN);
            return -1;
        }
    }
    int sweep = 0;
    cfg->sweep_stalled_tasks =
        config_lookup_bool(g_lcfg, "trov.sweep_stalled_tasks", &sweep) == CONFIG_TRUE && sweep != 0;
    return 0;
}
}  // namespace

int init_trov_config(trov_cfg *cfg) {
    free_trov_config(cfg);
    *cfg = trov_cfg{};
    cfg->log.level = LL_INFO;
    cfg->log.timefmt = 0;
    cfg->log.enable_syslog = false;
    cfg->log.max_size_mb = 8;
    cfg->log.max_files = 8;
    cfg->rt.cpunum = 0;
    cfg->max_tasks = 0;
    cfg->task_tmout_ms = 5000;
    cfg->udp_cha.rcvbuf_kb = UDL_DEFAULT_RCVBUF_KB;
    snprintf(cfg->data_dir, sizeof cfg->data_dir, "/tmp");
    return 0;
}

void free_trov_config(trov_cfg *cfg) { free_rui_config(&cfg->rui); }

int load_config(trov_cfg *cfg, bool is_reload) {
    if (!is_reload) {
        if (int rc = load_first_group(cfg); rc != 0) return rc;
    }
    return load_second_group(cfg);
}

int load_trov_config(const char *path, trov_cfg *cfg, bool is_reload) {
    config_t cf;
    config_init(&cf);
    FILE *fp = fopen(path, "r");
    if (fp == nullptr) {
        fprintf(stderr, "Failed to load [%s]\n", path);
        config_destroy(&cf);
        return -1;
    }
    int rc = 0;
    if (config_read(&cf, fp) != CONFIG_TRUE) {
        LOG_ERR("Error reading/parsing config file [%s]: line %d: %s\n", path,
                config_error_line(&cf), config_error_text(&cf));
        rc = -1;
    } else {
        if (path != cfg->config_path)
            snprintf(cfg->config_path, sizeof cfg->config_path, "%s", path);
        g_lcfg = &cf;
        rc = load_config(cfg, is_reload);
        g_lcfg = nullptr;
        if (rc != 0)
            LOG_ERR("%s: FAILED (%d)\n", __func__, rc);
        else if (is_reload)
            LOG_INF("%s: configuration re-loaded\n", __func__);
    }
    config_destroy(&cf);
    fclose(fp);
    return rc;
}

int validate_config(const trov_cfg *cfg) {
    // Only the first user and custom slots count: a lone command-line
    // listener lands in a later slot and does not satisfy this on its own.
    if (cfg->rui.custom[0].is_valid || cfg->rui.user[0].is_valid || cfg->udp_cha.url[0] != '\0')
        return 0;
    LOG_ERR("%s: at least one listener must be present\n", __func__);
    return -1;
}

int add_web_cli(trov_cfg *cfg, const char *text, int family) {
    char *dup = strdup(text);
    if (dup == nullptr) return -12;
    char *colon = strrchr(dup, ':');
    if (colon == nullptr) {
        LOG_ERR("%s: missing port number in %s\n", __func__, text);
        free(dup);
        return 22;
    }
    *colon = '\0';
    const char *port = colon + 1;

    // The position of the LAST free slot decides, and the slot before it is
    // written: long-standing placement that operators' set-ups depend on.
    rui_listener_cfg *slots = cfg->rui.user;
    size_t p = 0;
    bool any_free = false;
    for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
        if (!slots[i].is_valid) {
            p = i;
            any_free = true;
        }
    }
    if (!any_free) {
        LOG_WRN("%s: all interface slots are busy, [%s] will be replaced\n", __func__,
                slots[0].alias);
        p = 0;
    }
    // With no slot before the last free one, the first slot is replaced, as
    // the warning above announces.
    size_t slot = p > 0 ? p - 1 : 0;
    rui_listener_cfg *lc = &slots[slot];
    free(lc->ifc);
    *lc = rui_listener_cfg{};
    snprintf(lc->alias, sizeof lc->alias, "web-cli");
    lc->index = p > 0 ? p : 1;
    lc->proto = 6;
    lc->pref_af = family;
    lc->ifc = get_ifc_info(family, dup);
    if (lc->ifc == nullptr) {
        LOG_ERR("%s: invalid interface name: %s\n", __func__, dup);
        free(dup);
        return 22;
    }
    snprintf(lc->port, sizeof lc->port, "%.5s", port);
    lc->kind = WEB_TAG;
    lc->is_valid = true;
    // Without a web_input section nothing set how many connections a
    // listener takes per wake-up, and a listener that takes none stays
    // ready for ever.
    if (cfg->rui.max_accept == 0) cfg->rui.max_accept = DEFAULT_MAX_ACCEPT;
    free(dup);
    return 0;
}

void dump_trov_config(FILE *fp, const trov_cfg *cfg) {
    fprintf(fp, "-----------------------------------\n");
    dump_log_config(fp, "", &cfg->log, g_log);
    dump_rt_config(fp, &cfg->rt);
    dump_rui_config(fp, &cfg->rui);
    const udp_lstn_cfg &u = cfg->udp_cha;
    if (u.url[0] != '\0')
        fprintf(fp, "\tUDP input            = [%s] ifc=%s fmt=%s lk=[%s]\n", u.url,
                u.mifc[0] != '\0' ? u.mifc : "all", u.is_gzipped ? "gzip" : "text",
                u.claim_redis ? "redis" : (u.must_lock ? u.lkdir : "none"));
    fprintf(fp, "Misc:\n");
    fprintf(fp, "\tdata directory       = [%s]\n", cfg->data_dir);
    fprintf(fp, "\trequest time-out     = %d sec\n", cfg->urq_tmout_sec);
    fprintf(fp, "\tmax tasks            = %zu %s\n", cfg->max_tasks,
            cfg->max_tasks == 0 ? "(unlimited)" : "");
    fprintf(fp, "\ttask time-out        = %zu ms\n", cfg->task_tmout_ms);
    fprintf(fp, "\tmmap up to           = %zu MB\n", cfg->max_mmap_mb);
    if (cfg->sweep_stalled_tasks) fprintf(fp, "\tstalled-task sweep   = on\n");
    if (cfg->src_ka.on)
        fprintf(fp, "\tsource keep-alive    = %d per origin, %d ms\n", cfg->src_ka.per_origin,
                cfg->src_ka.idle_ms);
    if (cfg->seg_url_pfx[0] != '\0') fprintf(fp, "\tlocal URL prefix     = %s\n", cfg->seg_url_pfx);
    fprintf(fp, "\n");
    if (cfg->lbdb.port != 0) {
        fprintf(fp, "Load-balancer DB: %s:%d\n", cfg->lbdb.host, cfg->lbdb.port);
        fprintf(fp, "\tConnect timeout        = %ld.%03ld sec\n", long(cfg->lbdb.tmout.tv_sec),
                long(cfg->lbdb.tmout.tv_usec));
        fprintf(fp, "\tSHA1 directory         = %s\n", cfg->lbdb.sha1_path);
    }
    fprintf(fp, "-----------------------------------\n");
}

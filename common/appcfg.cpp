// appcfg: shared configuration loaders and dumps (see appcfg.h).
#include "appcfg.h"

#include <netinet/in.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "config.h"
#include "netops.h"
#include "timeop.h"

LOG_MODULE(0);

namespace {
struct timefmt_name {
    const char *name;
    uint32_t code;
};
constexpr timefmt_name TIMEFMTS[] = {{"local", TMF_LOCAL},
                                     {"gmt", TMF_GMT},
                                     {"no_time", TMF_NOTIME},
                                     {"raw", TMF_RAW},
                                     {"raw_mono", TMF_RAW_MONO}};

int lookup_int(const config_setting_t *s, const char *name, int def) {
    int v = 0;
    return (s != nullptr && config_setting_lookup_int(s, name, &v) == CONFIG_TRUE) ? v : def;
}

bool lookup_bool(const config_setting_t *s, const char *name, bool def) {
    int v = 0;
    return (s != nullptr && config_setting_lookup_bool(s, name, &v) == CONFIG_TRUE) ? v != 0 : def;
}

// Listeners loaded from a file are named after their kind in the dump.
n32_tag kind_tag(const char *kind_name) {
    if (kind_name != nullptr && strcmp(kind_name, "admin") == 0) return mk_tag("Adm");
    if (kind_name != nullptr && strcmp(kind_name, "custom") == 0) return mk_tag("Cst");
    return mk_tag("Usr");
}

int load_listener_ifc(const char *ifc, rui_listener_cfg *lc) {
    if (ifc[0] == '\0' || strcasecmp(ifc, "all") == 0 || strcasecmp(ifc, "any") == 0) {
        lc->ifc = nullptr;
        return 0;
    }
    if (lc->pref_af != AF_UNSPEC) {
        lc->ifc = get_ifc_info(lc->pref_af, ifc);
        if (lc->ifc == nullptr)
            LOG_ERR("%s: [%s] failed the check for [%s] interface name\n", "load_listener_from",
                    ifc, af_name(lc->pref_af));
    } else {
        lc->ifc = get_ifc_info(AF_INET, ifc);
        if (lc->ifc == nullptr) lc->ifc = get_ifc_info(AF_INET6, ifc);
        if (lc->ifc == nullptr)
            LOG_ERR("%s: [%s] failed the check for IPv4/v6 interface name\n", "load_listener_from",
                    ifc);
    }
    if (lc->ifc == nullptr) {
        LOG_ERR("invalid network interface name/address: %s\n", ifc);
        return -1;
    }
    return 0;
}

int load_listener_port(const config_setting_t *setting, rui_listener_cfg *lc) {
    const config_setting_t *p = config_setting_get_member(setting, "port");
    char text[32] = "";
    if (p != nullptr && config_setting_type(p) == CONFIG_TYPE_INT) {
        snprintf(text, sizeof text, "%ld", long(config_setting_get_int(p)));
    } else if (int rc = load_config_setting_str(setting, "port", text, sizeof lc->port, "");
               rc != 0) {
        return rc;
    }
    if (strlen(text) >= sizeof lc->port || !is_valid_port(text)) {
        LOG_ERR("%s: invalid port value: [%s]\n", "load_listener_from", text);
        return -1;
    }
    memcpy(lc->port, text, strlen(text) + 1);
    return 0;
}

int load_listener_body(const config_setting_t *setting, rui_listener_cfg *lc) {
    if (int rc = load_config_setting_str(setting, "alias", lc->alias, sizeof lc->alias, "");
        rc != 0)
        return rc;
    char proto[15];
    if (int rc = load_config_setting_str(setting, "protocol", proto, sizeof proto, "tcp"); rc != 0)
        return rc;
    lc->proto = str2proto(proto);
    if (lc->proto < 0) {
        LOG_ERR("%s: invald protocol for [%s]: %s\n", "load_listener_from", lc->alias, proto);
        return -1;
    }
    if (int rc = load_config_setting_str(setting, "domain_path", lc->domain_path,
                                         sizeof lc->domain_path, "");
        rc != 0)
        return rc;
    if (lc->domain_path[0] != '\0') return 0;
    char af[16];
    if (int rc = load_config_setting_str(setting, "default_af", af, sizeof af, ""); rc != 0)
        return rc;
    lc->pref_af = name2af(af);
    // An unusable family still yields a valid slot without interface or port;
    // starting it is what fails, with the socket layer's message.
    if (lc->pref_af == -1) return 0;
    char ifc[16];
    if (int rc = load_config_setting_str(setting, "ifc", ifc, sizeof ifc, ""); rc != 0) return rc;
    if (int rc = load_listener_ifc(ifc, lc); rc != 0) return rc;
    if (int rc = load_listener_port(setting, lc); rc != 0) return rc;
    if (lc->alias[0] == '\0')
        snprintf(lc->alias, sizeof lc->alias, "%.15s:%s",
                 lc->ifc != nullptr ? lc->ifc->name : "all", lc->port);
    return 0;
}
}  // namespace

uint32_t str_to_timefmt(const char *name) {
    for (const auto &t : TIMEFMTS)
        if (name != nullptr && strcasecmp(name, t.name) == 0) return t.code;
    return TMF_INVALID;
}

const char *timefmt_str(uint32_t code) {
    if (code == TMF_INVALID) return "#error#";
    if (code & TMF_RAW) return (code & 1) ? "raw_mono" : "raw";
    if (code & TMF_NOTIME) return "no_time";
    if (code & TMF_GMT) return "gmt";
    return "local";
}

int str2proto(const char *name) {
    if (name != nullptr && strcasecmp(name, "tcp") == 0) return IPPROTO_TCP;
    if (name != nullptr && strcasecmp(name, "udp") == 0) return IPPROTO_UDP;
    return -1;
}

bool is_valid_port(const char *port) {
    int p = atoi(port);
    return p >= 1 && p <= 65535;
}

int load_log_config(const config_setting_t *sec, log_cfg *cfg) {
    if (int rc = load_config_setting_str(sec, "file", cfg->path, sizeof cfg->path, ""); rc != 0)
        return rc;
    char level[16];
    if (int rc = load_config_setting_str(sec, "level", level, sizeof level, "info"); rc != 0)
        return rc;
    if (match_log_level(level, &cfg->level) != 0) {
        fprintf(stderr, "Invalid log level: %s\n", level);
        return -1;
    }
    char fmt[16];
    if (int rc = load_config_setting_str(sec, "time_format", fmt, sizeof fmt, "local"); rc != 0)
        return rc;
    uint32_t code = str_to_timefmt(fmt);
    if (code == TMF_INVALID) {
        fprintf(stderr, "Invalid time format: %s\n", fmt);
        return -1;
    }
    cfg->timefmt = int32_t(code);
    cfg->max_size_mb = lookup_int(sec, "max_size_mb", 64);
    cfg->max_files = lookup_int(sec, "max_files", 16);
    cfg->enable_syslog = lookup_bool(sec, "enable_syslog", true);
    cfg->eod_rotate = lookup_bool(sec, "eod_rotate", false);
    return 0;
}

int load_rt_config(const config_setting_t *sec, rt_cfg *cfg) {
    if (int rc = load_config_setting_str(sec, "pidfile", cfg->pidfile, sizeof cfg->pidfile, "");
        rc != 0)
        return rc;
    cfg->non_daemon = lookup_bool(sec, "non_daemon", false);
    cfg->quiet = lookup_bool(sec, "quiet", false);
    cfg->enforce_core_dumps = lookup_bool(sec, "enforce_core_dumps", true);
    cfg->cpunum = lookup_int(sec, "cpunum", -1);
    return load_config_setting_str(sec, "run_as_user", cfg->user, sizeof cfg->user, "");
}

void apply_log_config(log_ctx *log, const log_cfg *cfg) {
    log_set_rota(log, size_t(cfg->max_size_mb) << 20, size_t(cfg->max_files),
                 cfg->eod_rotate ? time(nullptr) : 0);
}

int load_interface_name(const char *path, char *buf, size_t size) {
    if (int rc = load_config_str(path, buf, size, ""); rc != 0) return rc;
    if (buf[0] == '\0' || is_anyaddr(buf)) return 0;
    ifc_info *ifc = get_ifc_info(AF_INET, buf);
    if (ifc == nullptr) ifc = get_ifc_info(AF_INET6, buf);
    if (ifc == nullptr) {
        LOG_ERR("%s: cannot verify ifc=[%s] for IPv4 or IPv6\n", __func__, buf);
        return -1;
    }
    free(ifc);
    return 0;
}

int load_listener_from(const config_setting_t *setting, rui_listener_cfg *lc,
                       const char *kind_name) {
    free(lc->ifc);
    *lc = rui_listener_cfg{};
    lc->kind = kind_tag(kind_name);
    int rc = load_listener_body(setting, lc);
    if (rc != 0) {
        free(lc->ifc);
        lc->ifc = nullptr;
        return rc;
    }
    lc->is_valid = true;
    return 0;
}

int get_listeners(const char *kind_name, const config_setting_t *setting, rui_listener_cfg *slots) {
    size_t count = 0;
    int rc = 0;
    if (setting != nullptr && config_setting_type(setting) == CONFIG_TYPE_GROUP) {
        rc = load_listener_from(setting, &slots[0], kind_name);
        slots[0].index = 1;
        if (rc == 0) count = 1;
    } else if (setting != nullptr && config_setting_type(setting) == CONFIG_TYPE_LIST) {
        int n = config_setting_length(setting);
        for (int i = 0; i < n && size_t(i) < RUI_MAX_LISTENERS; ++i) {
            rc = load_listener_from(config_setting_get_elem(setting, unsigned(i)), &slots[i],
                                    kind_name);
            slots[i].index = size_t(i) + 1;
            if (rc != 0) break;
            ++count;
        }
    }
    LOG_DBG("%s: %lu %s listeners loaded\n", __func__, static_cast<unsigned long>(count),
            kind_name);
    return rc;
}

int load_rui_config(const config_setting_t *setting, rui_cfg *rui) {
    struct kind {
        const char *name;
        rui_listener_cfg *slots;
        const char *tmout_key;
        int *tmout;
        const char *tmout_msg;
    } kinds[] = {
        {"user", rui->user, "user_request_timeout", &rui->user_request_tmout,
         "Invalid user_request_tmout valie (%ld)\n"},
        {"admin", rui->admin, "admin_request_timeout", &rui->admin_request_tmout,
         "Invalid admin_request_tmout valie (%ld)\n"},
        {"custom", rui->custom, "custom_request_timeout", &rui->custom_request_tmout,
         "Invalid custom_request_tmout valie (%ld)\n"},
    };
    for (const auto &k : kinds) {
        const config_setting_t *s = config_setting_get_member(setting, k.name);
        if (s == nullptr) continue;
        if (int rc = get_listeners(k.name, s, k.slots); rc != 0) return rc;
    }
    int max_acc = lookup_int(setting, "max_to_accept", 128);
    if (max_acc < 1) {
        fprintf(stderr, "Invalid max_accept valie (%ld)\n", long(max_acc));
        return -1;
    }
    rui->max_accept = size_t(max_acc);
    for (const auto &k : kinds) {
        if (config_setting_get_member(setting, k.name) == nullptr) continue;
        *k.tmout = lookup_int(setting, k.tmout_key, 5000);
        if (*k.tmout < 1) {
            fprintf(stderr, k.tmout_msg, long(*k.tmout));
            return -1;
        }
    }
    return 0;
}

void free_rui_config(rui_cfg *rui) {
    for (rui_listener_cfg *arr : {rui->user, rui->admin, rui->custom}) {
        for (size_t i = 0; i < RUI_MAX_LISTENERS; ++i) {
            free(arr[i].ifc);
            arr[i].ifc = nullptr;
        }
    }
}

void dump_log_config(FILE *fp, const char *title, const log_cfg *cfg, const log_ctx *log) {
    fprintf(fp, "Log (%s):\n", (title != nullptr && title[0] != '\0') ? title : "regular");
    fprintf(fp, "\tpath   = %s\n", cfg->path);
    fprintf(fp, "\tlevel  = %s\n", log_level_str(cfg->level));
    fprintf(fp, "\tformat = %s\n", timefmt_str(uint32_t(cfg->timefmt)));
    if (cfg->max_size_mb >= 1 || cfg->eod_rotate) {
        fprintf(fp, "\trota:max size   = %d Mb\n", cfg->max_size_mb);
        fprintf(fp, "\trota:max files  = %d\n", cfg->max_files);
        fprintf(fp, "\trota:end-of-day = %s (%ld)\n", cfg->eod_rotate ? "ON" : "off",
                long(log_rota_eod(log)));
    }
    fprintf(fp, "\n");
}

void dump_rt_config(FILE *fp, const rt_cfg *cfg) {
    fprintf(fp, "Runtime:\n");
    if (cfg->pidfile[0] != '\0') fprintf(fp, "\tpid file = %s\n", cfg->pidfile);
    if (cfg->user[0] != '\0') fprintf(fp, "\trun as user: %s\n", cfg->user);
    if (cfg->cpunum >= 0) fprintf(fp, "\tCPU: %d\n", cfg->cpunum);
    fprintf(fp, "\tflags:%s%s%s\n", cfg->non_daemon ? " [non-daemon]" : "",
            cfg->quiet ? " [quiet]" : "", cfg->enforce_core_dumps ? " [cores]" : "");
}

void dump_listener(FILE *fp, const rui_listener_cfg *lc) {
    if (lc->domain_path[0] != '\0') {
        fprintf(fp, "\t%s listener[%s]: path=%s\n", lc->kind.str, lc->alias, lc->domain_path);
        return;
    }
    fprintf(fp, "\t%s listener[%s]: ifc=%s, af=%s port=%s\n", lc->kind.str, lc->alias,
            lc->ifc != nullptr ? lc->ifc->name : "<anyaddr>", af_name(lc->pref_af), lc->port);
}

void dump_rui_config(FILE *fp, const rui_cfg *cfg) {
    fprintf(fp, "Listeners:\n");
    for (const rui_listener_cfg *arr : {cfg->user, cfg->admin, cfg->custom}) {
        for (size_t i = 0; i < RUI_MAX_LISTENERS && arr[i].is_valid; ++i)
            dump_listener(fp, &arr[i]);
    }
    if (cfg->max_accept != 0) fprintf(fp, "\tmax-accepted=%ld\n", long(cfg->max_accept));
    fprintf(fp, "\tI/O timeouts: user-rq=%d, admin-rq=%d custom-rq=%d\n", cfg->user_request_tmout,
            cfg->admin_request_tmout, cfg->custom_request_tmout);
}

// appcfg: configuration records and loaders shared by the suite's programs:
// the log and runtime sections, web listener slots and their loader, and
// the dump of each. Reads the file that config.h holds while it loads.
#pragma once

#include <libconfig.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "log.h"
#include "tags.h"

struct ifc_info;

struct log_cfg {
    char path[128];  // empty = stderr; a leading "|" pipes to a command
    int level;
    int32_t timefmt;  // TMF_* code
    bool enable_syslog;
    int max_size_mb;  // rotation size
    int max_files;    // rotated files kept
    bool eod_rotate;  // rotate at end of day
};

struct rt_cfg {
    char pidfile[128];
    char user[32];  // user to run as
    bool non_daemon;
    bool quiet;
    bool enforce_core_dumps;
    int cpunum;  // -1 = not pinned
};

constexpr size_t RUI_MAX_LISTENERS = 4;

struct rui_listener_cfg {
    bool is_valid;  // slot in use
    char alias[32];
    size_t index;   // 1-based place in its array
    ifc_info *ifc;  // owned; null = any address
    char port[6];
    int pref_af;            // 0, AF_INET or AF_INET6
    char domain_path[104];  // local-domain socket; no interface or port then
    int proto;              // IPPROTO_TCP or IPPROTO_UDP
    n32_tag kind;
};

struct rui_cfg {
    rui_listener_cfg user[RUI_MAX_LISTENERS];
    rui_listener_cfg admin[RUI_MAX_LISTENERS];
    rui_listener_cfg custom[RUI_MAX_LISTENERS];
    size_t max_accept;  // connections accepted per readiness event
    int user_request_tmout;
    int admin_request_tmout;
    int custom_request_tmout;
};

// Kind of the listeners made from the command line.
constexpr n32_tag WEB_TAG = mk_tag("Web");

// Time format names: "local", "gmt", "no_time", "raw", "raw_mono"
// (case-insensitive); anything else is TMF_INVALID.
uint32_t str_to_timefmt(const char *name);
const char *timefmt_str(uint32_t code);
// "tcp" -> 6, "udp" -> 17 (case-insensitive); -1 otherwise.
int str2proto(const char *name);
bool is_valid_port(const char *port);

// Section loaders: 0 or -1, with their messages logged or printed.
[[nodiscard]] int load_log_config(const config_setting_t *sec, log_cfg *cfg);
[[nodiscard]] int load_rt_config(const config_setting_t *sec, rt_cfg *cfg);
// Applies rotation settings to an open log.
void apply_log_config(log_ctx *log, const log_cfg *cfg);
// Reads an interface name or address at path; a non-empty, non-wildcard
// value must resolve as an IPv4 or IPv6 interface. 0 or -1.
[[nodiscard]] int load_interface_name(const char *path, char *buf, size_t size);

// One listener group into slot lc. 0 or -1; a failure frees the interface.
[[nodiscard]] int load_listener_from(const config_setting_t *setting, rui_listener_cfg *lc,
                                     const char *kind_name);
// A group gives slot 0; a list gives up to four slots. The first failing
// element's code.
[[nodiscard]] int get_listeners(const char *kind_name, const config_setting_t *setting,
                                rui_listener_cfg *slots);
// The three-kind loader of programs with user, admin and custom listeners.
[[nodiscard]] int load_rui_config(const config_setting_t *setting, rui_cfg *rui);
// Frees the interface records of every slot.
void free_rui_config(rui_cfg *rui);

void dump_log_config(FILE *fp, const char *title, const log_cfg *cfg, const log_ctx *log);
void dump_rt_config(FILE *fp, const rt_cfg *cfg);
void dump_listener(FILE *fp, const rui_listener_cfg *lc);
void dump_rui_config(FILE *fp, const rui_cfg *cfg);

// cfg: the daemon's effective configuration g_cfg, filled in three layers:
// built-in defaults, the configuration file, and the command line (which
// overrides the file); then validated and dumped to the log.
#pragma once

#include <cstddef>
#include <cstdio>

#include "appcfg.h"
#include "lbquery.h"

struct udp_lstn_cfg {
    char url[128];     // where to listen; empty = no UDP order channel
    char mifc[32];     // multicast interface; empty = any
    bool is_gzipped;   // declared datagram format, only reported
    bool must_lock;    // take a lock file per order identifier
    char lkdir[128];   // lock directory
    int rcvbuf_kb;     // socket receive buffer asked for; 0 = the system's default
    bool claim_redis;  // orders are claimed in the LBDB instead of with lock files
};

// "trov.source_keepalive": idle connections to the sources kept for reuse.
struct src_keepalive_cfg {
    bool on;         // the group is present
    int per_origin;  // idle connections kept per host:port
    int idle_ms;     // an idle connection is closed after this long
};

struct trov_cfg {
    char config_path[128];  // file actually loaded
    log_cfg log;
    rt_cfg rt;
    rui_cfg rui;
    char data_dir[128];
    udp_lstn_cfg udp_cha;
    src_keepalive_cfg src_ka;
    int urq_tmout_sec;      // waiting HTTP requester, seconds
    size_t max_tasks;       // task table capacity
    size_t task_tmout_ms;   // sweep period and task idle limit
    size_t max_mmap_mb;     // largest body written through a mapping, MiB
    char seg_url_pfx[128];  // local URL prefix, never ending in "/"
    lbdb_cfg lbdb;
    bool sweep_stalled_tasks;  // the idle step also ends tasks silent for task_tmout_ms
};

extern trov_cfg g_cfg;

// Zeroes cfg and sets the built-in defaults. 0.
int init_trov_config(trov_cfg *cfg);
// Parses the file at path and loads its settings. 0 or non-zero (logged).
[[nodiscard]] int load_trov_config(const char *path, trov_cfg *cfg, bool is_reload);
// Reads the sections of the parsed file (g_lcfg). 0 or the first failure.
[[nodiscard]] int load_config(trov_cfg *cfg, bool is_reload);
// At least one listener must be present. 0 or -1.
[[nodiscard]] int validate_config(const trov_cfg *cfg);
// Adds a web listener from "ifc:port". 0, -12 or 22.
[[nodiscard]] int add_web_cli(trov_cfg *cfg, const char *text, int family);
void dump_trov_config(FILE *fp, const trov_cfg *cfg);
// Releases what the configuration owns (listener interface records).
void free_trov_config(trov_cfg *cfg);

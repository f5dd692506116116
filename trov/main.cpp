// main: start-up, shut-down and event dispatch of the daemon (see main.h).
#include "main.h"

#include <getopt.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "adm.h"
#include "app.h"
#include "cfg.h"
#include "fdio.h"
#include "log.h"
#include "meta.h"
#include "rq.h"
#include "rqs.h"
#include "rui.h"
#include "srcpool.h"
#include "timeop.h"
#include "tmout.h"
#include "udl.h"
#include "util.h"
#include "wopen.h"

LOG_MODULE(0);

namespace {
constexpr const char *APP = "trv";
constexpr n64_tag APP_GROUP = mk_tag64("TRV");
constexpr n64_tag UDL_GROUP = mk_tag64("uDl");

bool s_debug_mode;

constexpr const char OPTS[] = "0h?VqTKl:4:P:p:L:D:C:w:W:U:";
const option LONG_OPTS[] = {
    {"default", no_argument, nullptr, '0'},
    {"help", no_argument, nullptr, 'h'},
    {"options", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"quiet", no_argument, nullptr, 'q'},
    {"term", no_argument, nullptr, 'T'},
    {"config", required_argument, nullptr, 'C'},
    {"logpfx", required_argument, nullptr, '4'},
    {"logfile", required_argument, nullptr, 'l'},
    {"level", required_argument, nullptr, 'L'},
    {"pidfile", required_argument, nullptr, 'p'},
    {"cpu", required_argument, nullptr, 'P'},
    {"dataroot", required_argument, nullptr, 'D'},
    {"webrq", required_argument, nullptr, 'w'},
    {"webrq6", required_argument, nullptr, 'W'},
    {"udpcha", required_argument, nullptr, 'U'},
    {nullptr, 0, nullptr, 0},
};

const char *const CONFIG_PATHS[] = {
    "./trv.conf",      "/etc/trv.conf",      "/usr/local/etc/trv.conf",
    "./tellurix.conf", "/etc/tellurix.conf", "/usr/local/etc/tellurix.conf",
};

// getopt reports "-?" and an unknown option alike; optopt tells them apart
// (it stays 0 for the real "-?").
int next_opt(int argc, char **argv) {
    optopt = 0;
    return getopt_long(argc, argv, OPTS, LONG_OPTS, nullptr);
}

// The unknown long option getopt has just passed over ("--bogus" of
// "--bogus=1"), or an empty view when the '?' it returned was something else.
// getopt leaves optopt at 0 for these, as for "-?".
std::string_view unknown_long_opt(int argc, char **argv) {
    if (optopt != 0 || optind < 1 || optind > argc) return {};
    std::string_view word = argv[optind - 1];
    if (!word.starts_with("--") || word.size() == 2) return {};
    return word.substr(0, word.find('='));
}

int copy_path_arg(char *dst, const char *arg, const char *what) {
    size_t n = strlen(arg);
    if (n >= 128) {
        fprintf(stderr, "%s path is too long (%ld bytes), max=%ld bytes.\n", what, long(n), 128L);
        return -1;
    }
    memcpy(dst, arg, n + 1);
    return 0;
}

int second_pass_opt(int c, trov_cfg &cfg, std::string_view long_word) {
    switch (c) {
        case '0':
        case '4':
        case 'C':
            return 0;
        case 'D':
            return copy_path_arg(cfg.data_dir, optarg, "Data");
        case 'l':
            return copy_path_arg(cfg.log.path, optarg, "Log");
        case 'p':
            return copy_path_arg(cfg.rt.pidfile, optarg, "Pidfile");
        case 'L':
            if (int rc = match_log_level(optarg, &cfg.log.level); rc != 0) {
                fprintf(stderr, "Invalid log level: %s\n", optarg);
                return rc;
            }
            return 0;
        case 'P': {
            int cpu = atoi(optarg);
            if (cpu == 0 && strcmp(optarg, "0") != 0) {
                fprintf(stderr, "Invalid CPU #: %s\n", optarg);
                return -1;
            }
            cfg.rt.cpunum = cpu < -1 ? -1 : cpu;
            return 0;
        }
        case 'T':
            cfg.rt.non_daemon = true;
            return 0;
        case 'q':
            cfg.rt.quiet = true;
            return 0;
        case 'U':
            snprintf(cfg.udp_cha.url, sizeof cfg.udp_cha.url, "%s", optarg);
            // The command-line form has always set the flag the other way
            // round; scripts in the field depend on it.
            cfg.udp_cha.is_gzipped = strstr(optarg, "zipped=1") == nullptr;
            return 0;
        case 'w':
            return add_web_cli(&cfg, optarg, AF_INET);
        case 'W':
            return add_web_cli(&cfg, optarg, AF_INET6);
        default:
            if (!long_word.empty())
                fprintf(stderr, "Unknown option: %.*s\n", int(long_word.size()), long_word.data());
            else
                fprintf(stderr, "Unknown option: %c\n", c == '?' && optopt != 0 ? optopt : c);
            return -1;
    }
}

// Lets a busy daemon keep as many connections and files as it is allowed.
void raise_nofile_limit() {
    rlimit rl{};
    if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur >= rl.rlim_max) return;
    rlim_t old = rl.rlim_cur;
    rl.rlim_cur = rl.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &rl) == 0)
        LOG_DBG("%s: open files limit raised from %lu to %lu\n", "runtime_setup",
                static_cast<unsigned long>(old), static_cast<unsigned long>(rl.rlim_cur));
}

int runtime_steps() {
    const rt_cfg &rt = g_cfg.rt;
    if (!rt.non_daemon) {
        if (g_cfg.log.path[0] == '\0') {
            LOG_ERR("Logfile must be specified to run as daemon\n");
            return 1;
        }
        char cwd[256];
        if (getcwd(cwd, sizeof cwd) == nullptr) {
            int err = errno;
            LOG_ERR("getcwd ERROR(%d) : %s\n", err, strerror(err));
            return -1;
        }
        if (daemonize() != 0) {
            log_default(g_log, stderr);
            LOG_ERR("Failed to make the process a daemon, quitting.\n");
            return -1;
        }
        if (rt.user[0] != '\0') {
            if (int rc = run_as_user(rt.user); rc != 0) return rc;
        }
        if (geteuid() != 0) {
            if (int rc = goto_runtime_home(cwd, "/tmp"); rc != 0) return rc;
        }
    }
    if (g_cfg.log.path[0] != '\0') {
        const char *path = g_cfg.log.path;
        int rc = path[0] == '|' ? log_popen(g_log, path + 1) : log_open_ex(g_log, path, 0);
        if (rc != 0) {
            log_default(g_log, stderr);
            return rc;
        }
        apply_log_config(g_log, &g_cfg.log);
        LOG_DBG("%s: log config applied\n", "runtime_setup");
    }
    if (!rt.non_daemon) {
        // Nothing may reach the terminal any more, and nothing the daemon
        // opens later may become descriptor 2: a stray message on standard
        // error would go into that file or pipe.
        if (int rc = std_fd_to_null(2); rc != 0) return rc;
        if (rt.pidfile[0] != '\0') {
            if (int rc = create_pidfile_extra(rt.pidfile, getpid(), nullptr, 0); rc != 0) return rc;
        }
        if (g_cfg.log.enable_syslog) (void)glog_enable_syslog(APP);
    }
    log_set_pid(g_log, getpid());
    if (rt.enforce_core_dumps) (void)set_unlimited_core(nullptr);
    raise_nofile_limit();
    char cwd[256];
    if (getcwd(cwd, sizeof cwd) == nullptr) {
        int err = errno;
        LOG_ERR("getcwd ERROR(%d) : %s\n", err, strerror(err));
        return -1;
    }
    LOG_INF("Runtime pid=%ld uid/gid = %ld/%ld running in [%s]\n", long(getpid()), long(geteuid()),
            long(getegid()), cwd);
    if (rt.cpunum >= 0) {
        if (int rc = pin2cpu(rt.cpunum); rc != 0) {
            LOG_ERR("Failed to pin this %s(pid=%ld) to CPU%d\n", APP, long(getpid()), rt.cpunum);
            return rc;
        }
        LOG_INF("%s(pid=%ld) processor affinity set to CPU%d\n", APP, long(getpid()), rt.cpunum);
    }
    return 0;
}

const char *event_word(int err) {
    return err == RQS_FL_HUP ? "HUP" : (err != 0 ? "ERROR" : "data");
}

// On a hang-up, a descriptor that still shows input is retired without
// reading; one that shows none is read and meets the end of its stream.
bool skip_on_hangup(int fd, int err) {
    if (err != RQS_FL_HUP) return false;
    if (wait_to_read(fd, 10) == 1) return false;
    LOG_DBG("%s: no data pending for fd%d\n", "on_read", fd);
    return true;
}
}  // namespace

bool is_debug_mode() { return s_debug_mode; }

void usage(int status) {
    fprintf(stderr, "%s\n", get_app_info(APP, 0));
    fprintf(stderr, "Usage: %s PARAMETERS [OPTIONS]\n\n", APP);
    fputs(
        "Parameters:\n"
        "  -w|-W|--webrq[6] {ifc:port}  = IPv4/6 interface:port for HTTP-requests\n"
        "  -U|--udpcha      {addr:port} = address:port for UDP listener\n"
        "  -C|--config  {path}        = config file\n"
        "\n"
        "Options:\n"
        "  -0|--default               = run with default settings [false]\n"
        "  -D|--dataroot {dir-path}   = data root\n"
        "  -l|--logfile {path}        = log file\n"
        "  -4|--logpfx  {prefix}      = log prefix for the instance\n"
        "  -L|--level   {level}       = log level: crit|err|norm|warn|info|debug [info]\n"
        "  -p|--pidfile {path}        = pid file\n"
        "  -P|--cpu {0..N}            = run on CPUx only\n"
        "  -u|--runas   {user}        = run as user [root|current]\n"
        "  -T|--term                  = run as a non-daemon application [false]\n"
        "  -V|--version               = output application's version\n"
        "  -q|--quiet                 = send no output to terminal\n"
        "  -h|?|--help                = output this option guide\n"
        "\n",
        stderr);
    dump_build_info(stderr);
    exit(status);
}

int setup_config(int argc, char **argv) {
    trov_cfg &cfg = g_cfg;
    (void)init_trov_config(&cfg);
    log_default(g_log, stderr);
    log_set_group(g_log, APP_GROUP);
    const char *path = pick_first_file(CONFIG_PATHS, sizeof CONFIG_PATHS / sizeof *CONFIG_PATHS);

    // Getopt's own complaints would repeat in both passes; ours say it once.
    opterr = 0;
    for (int c; (c = next_opt(argc, argv)) != -1;) {
        switch (c) {
            case '4':
                log_set_pfx(g_log, optarg);
                break;
            case 'h':
                usage(1);
            case '?':
                if (optopt == 0 && unknown_long_opt(argc, argv).empty()) usage(1);
                break;  // an unknown option: reported by the second pass
            case 'C':
                path = optarg;
                break;
            case 'V':
                fprintf(stderr, "%s\n", get_app_info(APP, 0));
                exit(1);
            case 'q':
                cfg.rt.quiet = true;
                break;
            default:
                break;
        }
    }
    if (path == nullptr) {
        fprintf(stderr, "Invalid or unspecified config [%s], please use -C path\n", "(null)");
        usage(1);
    }
    if (load_trov_config(path, &cfg, false) != 0) exit(1);
    reset_getopt_state();
    log_timefmt(g_log, uint32_t(cfg.log.timefmt));
    if (geteuid() != 0) cfg.rt.non_daemon = true;

    int rc = 0;
    for (int c; rc == 0 && (c = next_opt(argc, argv)) != -1;)
        rc = second_pass_opt(c, cfg, c == '?' ? unknown_long_opt(argc, argv) : std::string_view{});
    if (rc == 0) rc = validate_config(&cfg);
    if (rc != 0) exit(1);
    // The configured level is the threshold of every module from here on;
    // per-module overrides (SYSW_DEBUG) come after.
    log_set_modules(g_log, cfg.log.level);
    return 0;
}

int runtime_setup() {
    (void)get_app_tag(APP);
    usock_set_apptag(get_app_tag(nullptr));
    // The handlers' own failure lines say enough: no FAILED line after them.
    if (int rc = handle_quit_signals(on_sigquit); rc != 0) return rc;
    if (int rc = ignore_sigpipe(); rc != 0) return rc;
    if (int rc = handle_sig(SIGUSR2, on_tdbg); rc != 0) return rc;
    int rc = runtime_steps();
    if (rc == 0)
        LOG_DBG("%s: OK\n", __func__);
    else
        LOG_ERR("%s: FAILED (rc=%d)\n", __func__, rc);
    return rc;
}

int app_start() {
    const rqs_config rcfg = {
        .cb =
            {
                .update_tmout = upd_tmout,
                .on_idle = do_idle_tasks,
                .read = on_read,
                .write = on_write,
                .error = on_error,
                .post_process = on_pp,
                .on_file_modified = nullptr,
                .time_out = nullptr,
                .is_dormant = nullptr,
            },
        .quit_on_zero_fds = 0,
    };
    if (int rc = rqs_init(&rcfg); rc != 0) return rc;
    if (int rc = rui_ctx_start(&g_ctx.rui); rc != 0) return rc;
    if (g_cfg.udp_cha.url[0] != '\0') return udl_ctx_start(&g_ctx.udl);
    return 0;
}

void app_shutdown() {
    LOG_DBG("%s: begins\n", __func__);
    pprm_task_cleanup();
    destroy_trov_ctx();
    rqs_destroy();
    LOG_NRM("%s shut down\n", APP);
    if (g_cfg.rt.pidfile[0] != '\0' && unlink(g_cfg.rt.pidfile) != 0 && errno != ENOENT) {
        int err = errno;
        LOG_ERR("%s: unlink(%s) ERROR(%d): %s\n", __func__, g_cfg.rt.pidfile, err, strerror(err));
    }
}

int trov_main(int argc, char **argv) {
    const char *sysw_debug = getenv("SYSW_DEBUG");
    if (argc <= 1) usage(1);
    glog_init(APP);
    init_timeout_registry();
    log_default(g_log, stderr);

    int rc = setup_config(argc, argv);
    if (rc == 0) {
        if (sysw_debug != nullptr && strcmp(sysw_debug, "1") == 0)
            log_set_module_level(LOG_MOD_SYSWRAP, LL_DEBUG);
        rc = runtime_setup();
    }
    if (rc == 0) {
        dump_trov_config(log_fp(g_log), &g_cfg);
        if (!g_cfg.rt.quiet && g_cfg.rt.non_daemon && g_cfg.log.path[0] != '\0') {
            log_mirror(g_log, stderr);
            dump_trov_config(stderr, &g_cfg);
        }
        rc = init_trov_ctx();
    }
    if (rc == 0) rc = app_start();
    if (rc == 0) {
        LOG_NRM("%s STARTING. PID=%ld\n", get_app_info(APP, 0), long(getpid()));
        LOG_INF("Config read from [%s]\n", g_cfg.config_path);
        rc = rqs_event_loop();
        if (g_quit) {
            LOG_NRM("%s has been asked to quit.\n", APP);
            rc = 0;
        }
    }
    app_shutdown();
    if (rc < 0) rc = -rc;
    LOG_NRM("%s EXIT(%d). PID=%ld\n", get_app_info(APP, 0), rc, long(getpid()));
    log_close(g_log);
    free_trov_config(&g_cfg);
    return rc;
}

// ---- Dispatch.

int on_read(int fd, int err, void *udata, void *aux) {
    n32_tag tag = *static_cast<const n32_tag *>(udata);
    LOG_DBG("%s: %s [%s] (%p) err=%d\n", __func__, event_word(err), tag.str, udata, err);
    switch (tag.num) {
        case URQ_TAG.num: {
            auto *urq = static_cast<dw_urq *>(udata);
            bool skip = skip_on_hangup(urq->sockfd, err);
            if (!skip && (err == 0 || err == RQS_FL_HUP)) return urq_read(urq);
            LOG_ERR("%s: URQ [%s] (%p) err=%d\n", __func__, urq->trk_tag.str, udata, err);
            pprm_urq(urq);
            return 0;
        }
        case DOW_TAG.num: {
            auto *task = static_cast<dw_task *>(udata);
            log_group_scope grp(task->trk_tag);
            bool skip = skip_on_hangup(task->sfd, err);
            if (!skip && (err == 0 || err == RQS_FL_HUP)) return dw_read(task);
            if (dw_retry_fresh(task)) return 0;
            LOG_ERR("%s: task [%s] (%p) err=%d\n", __func__, task->trk_tag.str, udata, err);
            (void)pprm_task(task);
            return 0;
        }
        case RSC_TAG.num:
            return on_srv_accept(fd, err, udata, aux);
        case SKA_TAG.num: {
            // A kept connection in use: the event is its download's.
            auto *c = static_cast<srcpool_conn *>(udata);
            if (c->owner != nullptr) return on_read(fd, err, c->owner, aux);
            srcpool_event(c);
            return 0;
        }
        case ARQ_TAG.num: {
            auto *rq = static_cast<adm_rq *>(udata);
            if (err == 0 || err == RQS_FL_HUP) return adm_read(rq);
            adm_error(rq);
            return 0;
        }
        case UDL_TAG.num: {
            log_group_scope grp(UDL_GROUP);
            return udl_accept(static_cast<udl_ctx *>(udata));
        }
        default:
            break;
    }
    if (tag.str[0] == '#') {
        LOG_WRN("%s: got expired [%3s] (0x%04x) on (%p), dismissing\n", __func__, tag.str, tag.num,
                udata);
        return 0;
    }
    LOG_ERR("%s: unknown data type: [%3s] (0x%04x) on (%p), data corruption detected\n", __func__,
            tag.str, tag.num, udata);
    bool known_tag = false;
    XASSERT(known_tag);
    return -1;
}

int on_srv_accept(int, int err, void *srv, void *) {
    auto *lsn = static_cast<rui_socket_ctx *>(srv);
    const char *alias = lsn->lc != nullptr ? lsn->lc->alias : "?";
    if (err != 0) {
        LOG_ERR("%s: [%s] ERR/HUP\n", __func__, alias);
    } else if (rui_accept(lsn,
                          lsn->rqtag.num == ARQ_TAG.num ? ADM_MAX_ACCEPT : g_cfg.rui.max_accept, 0,
                          nullptr) != 0) {
        LOG_ERR("%s: error accepting requests on [%s]\n", __func__, alias);
    }
    if (g_quit) {
        LOG_NRM("%s: quitting with the app\n", __func__);
        return 1;
    }
    return 0;
}

int on_write(int, int err, void *udata, void *aux) {
    n32_tag tag = *static_cast<const n32_tag *>(udata);
    LOG_DBG("%s: %s [%s] (%p) err=%d\n", __func__, event_word(err), tag.str, udata, err);
    if (tag.num == DOW_TAG.num) return dw_write(static_cast<dw_task *>(udata));
    if (tag.num == SKA_TAG.num && static_cast<srcpool_conn *>(udata)->owner != nullptr)
        return dw_write(static_cast<dw_task *>(static_cast<srcpool_conn *>(udata)->owner));
    LOG_PNC("%s: tag=[%s] err=%d, udata=%p, aux=%p - why are we here?\n", __func__, tag.str, err,
            udata, aux);
    log_abort_here();
}

int on_error(int fd, int err, void *udata, void *aux) {
    n32_tag tag = *static_cast<const n32_tag *>(udata);
    bool hup = err == RQS_FL_HUP;  // a hang-up with an error bit is an error
    LOG_DBG("%s: %s [%s] (%p) err=%d\n", __func__, event_word(err), tag.str, udata, err);
    LOG_INF("%s: %s (%p), err=0x%04x %s\n", __func__, tag.str, udata, unsigned(err),
            hup ? "HUP" : "-");
    switch (tag.num) {
        case URQ_TAG.num:
            urq_error(static_cast<dw_urq *>(udata), hup);
            break;
        case ARQ_TAG.num:
            adm_error(static_cast<adm_rq *>(udata));
            break;
        case RSC_TAG.num:
            rui_crash_on_error(static_cast<rui_socket_ctx *>(udata), hup);
        case DOW_TAG.num:
            // A task's socket that reports only an error will never become
            // readable again; its owner's post-processing ends it (unless a
            // reused connection died before the response: then it gets a new one).
            if (!dw_retry_fresh(static_cast<dw_task *>(udata)))
                (void)pprm_task(static_cast<dw_task *>(udata));
            break;
        case SKA_TAG.num:
            if (auto *c = static_cast<srcpool_conn *>(udata); c->owner != nullptr)
                return on_error(fd, err, c->owner, aux);
            srcpool_event(static_cast<srcpool_conn *>(udata));
            break;
        default:
            break;
    }
    return 0;
}

void upd_tmout(timespec *ts) { ms2timespec(get_min_timeout(), ts); }

int on_pp() {
    pprm_requests();
    pprm_task_cleanup();
    return 0;
}

int do_idle_tasks() {
    if (g_cfg.sweep_stalled_tasks)
        (void)time_out_all();
    else
        (void)time_out_requests();
    udl_report_drops(&g_ctx.udl, false);
    if (g_cfg.src_ka.on) srcpool_sweep(g_cfg.src_ka.idle_ms);
    if (g_tdbg) {
        if (!s_debug_mode) {
            log_push_mlevels();
            log_set_modules(g_log, LL_DEBUG);
        } else {
            log_pop_mlevels();
        }
        s_debug_mode = !s_debug_mode;
        LOG_INF("Log level %s (DEBUG)\n", s_debug_mode ? "PUSH" : "POP");
        if (s_debug_mode) LOG_DBG("%s: now all DEBUG messages will be recorded\n", __func__);
        g_tdbg = 0;
    }
    return 0;
}

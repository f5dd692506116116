// Tests of the daemon's configuration: file loading, limits, command-line
// listeners, validation and the dump.
#include "cfg.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "log.h"
#include "netops.h"
#include "timeop.h"

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class Cfg : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("trv");
        char tmpl[] = "/tmp/trov-cfg-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        log_path_ = dir_ + "/test.log";
        ASSERT_EQ(log_open_ex(g_log, log_path_.c_str(), 1), 0);
        log_timefmt(g_log, TMF_NOTIME);
        log_set_modules(g_log, LL_INFO);
        init_trov_config(&cfg_);
    }
    void TearDown() override {
        free_trov_config(&cfg_);
        log_close(g_log);
        log_default(g_log, stderr);
        log_timefmt(g_log, TMF_LOCAL);
        log_set_modules(g_log, LL_NORM);
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    }

    // Loads a configuration made of the mandatory sections and body.
    int load(const std::string &body, bool with_base = true) {
        std::string path = dir_ + "/trov.conf";
        std::ofstream out(path);
        out << "trov: {\n";
        if (with_base) out << "  log: { level = \"info\"; };\n  runtime: { };\n";
        out << body << "\n};\n";
        out.close();
        return load_trov_config(path.c_str(), &cfg_, false);
    }
    std::string log_text() { return slurp(log_path_); }
    std::string dump() {
        char *buf = nullptr;
        size_t len = 0;
        FILE *fp = open_memstream(&buf, &len);
        dump_trov_config(fp, &cfg_);
        fclose(fp);
        std::string s(buf, len);
        free(buf);
        return s;
    }

    std::string dir_;
    std::string log_path_;
    trov_cfg cfg_{};
};

TEST_F(Cfg, LoaderDefaultsDifferFromBuiltInOnes) {
    EXPECT_EQ(cfg_.log.max_size_mb, 8);
    EXPECT_EQ(cfg_.rt.cpunum, 0);
    EXPECT_EQ(cfg_.max_tasks, 0u);
    ASSERT_EQ(load(""), 0) << log_text();
    EXPECT_EQ(cfg_.log.level, LL_INFO);
    EXPECT_EQ(cfg_.log.max_size_mb, 64);
    EXPECT_EQ(cfg_.log.max_files, 16);
    EXPECT_TRUE(cfg_.log.enable_syslog);
    EXPECT_FALSE(cfg_.log.eod_rotate);
    EXPECT_TRUE(cfg_.rt.enforce_core_dumps);
    EXPECT_EQ(cfg_.rt.cpunum, -1);
    EXPECT_STREQ(cfg_.data_dir, "/tmp");
    EXPECT_EQ(cfg_.urq_tmout_sec, 1);
    EXPECT_EQ(cfg_.max_tasks, 4096u);
    EXPECT_EQ(cfg_.task_tmout_ms, 5000u);
    EXPECT_EQ(cfg_.max_mmap_mb, 8u);
    EXPECT_STREQ(cfg_.config_path, (dir_ + "/trov.conf").c_str());
}

TEST_F(Cfg, StringsAtTheirFieldSizeAreRefusedOneShorterAccepted) {
    std::string user31(31, 'u');
    ASSERT_EQ(load("  runtime: { run_as_user = \"" + user31 + "\"; };\n", false) == 0, false)
        << "a file without a log section must fail";
    EXPECT_NE(log_text().find("load_config: missing log section\n"), std::string::npos);

    ASSERT_EQ(load("  log: { };\n  runtime: { run_as_user = \"" + user31 + "\"; };", false), 0);
    EXPECT_EQ(std::string(cfg_.rt.user), user31);
    std::string user32(32, 'u');
    EXPECT_NE(load("  log: { };\n  runtime: { run_as_user = \"" + user32 + "\"; };", false), 0);
    EXPECT_NE(log_text().find("run_as_user value is too long (32), max = 32 characters.\n"),
              std::string::npos);
    EXPECT_NE(log_text().find("load_trov_config: FAILED (-1)\n"), std::string::npos);
}

TEST_F(Cfg, SectionsAndKeysThatFailTheLoad) {
    struct Case {
        const char *body;
        bool base;
        const char *line;
    } cases[] = {
        {"  log: { };", false, "load_config: missing runtime section\n"},
        {"  udp_input: { };", true, "load_config: missing url for UDP channel\n"},
        {"  web_input: { ifc = \"127.0.0.1\"; port = 0; };", true,
         "load_listener_from: invalid port value: [0]\n"},
        {"  web_input: { alias = \"w\"; protocol = \"sctp\"; port = 80; };", true,
         "load_listener_from: invald protocol for [w]: sctp\n"},
        {"  web_input: { ifc = \"nosuchifc0\"; port = 80; };", true,
         "invalid network interface name/address: nosuchifc0\n"},
        {"  data_dir = \"/nonexistent/trov\";", true,
         "load_config: cannot accept [/nonexistent/trov] as data_dir\n"},
        {"  lbdb: { host = \"127.0.0.1\"; port = 6379; sha1_dir = \"/tmp\"; };", true,
         "load_config: local_url_prefix must be set for lbdb-enabled mode\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body);
        init_trov_config(&cfg_);
        EXPECT_NE(load(c.body, c.base), 0);
        EXPECT_NE(log_text().find(c.line), std::string::npos) << log_text();
    }
    init_trov_config(&cfg_);
    testing::internal::CaptureStderr();
    EXPECT_NE(load("  log: { level = \"loud\"; };\n  runtime: { };", false), 0);
    EXPECT_NE(load("  log: { time_format = \"utc\"; };\n  runtime: { };", false), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Invalid log level: loud\n"), std::string::npos);
    EXPECT_NE(err.find("Invalid time format: utc\n"), std::string::npos);
}

TEST_F(Cfg, WebInputListLoadsAtMostFourListeners) {
    std::string list = "  web_input: (";
    for (int i = 0; i < 6; ++i) {
        if (i) list += ", ";
        list += "{ ifc = \"127.0.0.1\"; port = " + std::to_string(18000 + i) + "; }";
    }
    list += ");";
    ASSERT_EQ(load(list), 0) << log_text();
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(cfg_.rui.user[i].is_valid);
        EXPECT_EQ(cfg_.rui.user[i].index, i + 1);
        EXPECT_EQ(std::string(cfg_.rui.user[i].port), std::to_string(18000 + i));
        EXPECT_EQ(std::string(cfg_.rui.user[i].alias), "lo:" + std::to_string(18000 + i));
    }
    // A list has no max_accept member: the default stands.
    EXPECT_EQ(cfg_.rui.max_accept, 64u);
    EXPECT_EQ(cfg_.rui.user_request_tmout, 1000);
}

TEST_F(Cfg, ListenerVariants) {
    ASSERT_EQ(load("  web_input: { alias = \"sock\"; domain_path = \"/tmp/x.sock\"; };"), 0);
    EXPECT_TRUE(cfg_.rui.user[0].is_valid);
    EXPECT_STREQ(cfg_.rui.user[0].domain_path, "/tmp/x.sock");

    init_trov_config(&cfg_);
    // An unusable family leaves a valid slot without interface or port.
    ASSERT_EQ(load("  web_input: { default_af = \"ipx\"; port = \"80\"; max_accept = 3; };"), 0);
    EXPECT_TRUE(cfg_.rui.user[0].is_valid);
    EXPECT_EQ(cfg_.rui.user[0].pref_af, -1);
    EXPECT_STREQ(cfg_.rui.user[0].port, "");
    EXPECT_EQ(cfg_.rui.max_accept, 3u);

    init_trov_config(&cfg_);
    ASSERT_EQ(load("  web_input: { default_af = \"inet6\"; ifc = \"any\"; port = \"8080\"; };"), 0);
    EXPECT_EQ(cfg_.rui.user[0].pref_af, AF_INET6);
    EXPECT_EQ(cfg_.rui.user[0].ifc, nullptr);
    EXPECT_STREQ(cfg_.rui.user[0].alias, "all:8080");
}

TEST_F(Cfg, NumbersPrefixAndLockDefaults) {
    ASSERT_EQ(load("  max_tasks = -1;\n  local_url_prefix = \"http://edge/seg/\";\n"
                   "  udp_input: { url = \"udp://127.0.0.1:5000\"; };"),
              0)
        << log_text();
    EXPECT_EQ(cfg_.max_tasks, 4294967295u);
    EXPECT_STREQ(cfg_.seg_url_pfx, "http://edge/seg");
    EXPECT_TRUE(cfg_.udp_cha.must_lock);
    EXPECT_TRUE(cfg_.udp_cha.is_gzipped);
    EXPECT_STREQ(cfg_.udp_cha.lkdir, "/tmp");

    init_trov_config(&cfg_);
    ASSERT_EQ(load("  local_url_prefix = \"/\";\n"
                   "  lbdb: { host = \"127.0.0.1\"; port = 6379; sha1_dir = \"/tmp\"; };"),
              0)
        << log_text();
    EXPECT_STREQ(cfg_.seg_url_pfx, "");
    EXPECT_EQ(cfg_.lbdb.port, 6379);
}

TEST_F(Cfg, CommandLineListenersLandInTheKeptSlots) {
    EXPECT_EQ(validate_config(&cfg_), -1);
    ASSERT_EQ(add_web_cli(&cfg_, "127.0.0.1:18080", AF_INET), 0);
    EXPECT_TRUE(cfg_.rui.user[2].is_valid);
    EXPECT_EQ(cfg_.rui.user[2].index, 3u);
    EXPECT_STREQ(cfg_.rui.user[2].alias, "web-cli");
    EXPECT_EQ(cfg_.rui.user[2].kind.num, WEB_TAG.num);
    // Only the first user and custom slots count.
    EXPECT_EQ(validate_config(&cfg_), -1);
    EXPECT_NE(log_text().find("validate_config: at least one listener must be present\n"),
              std::string::npos);

    // The fourth slot is still free, so the third is written again.
    ASSERT_EQ(add_web_cli(&cfg_, "127.0.0.1:18081", AF_INET), 0);
    EXPECT_STREQ(cfg_.rui.user[2].port, "18081");
    EXPECT_FALSE(cfg_.rui.user[3].is_valid);

    for (auto &lc : cfg_.rui.user) lc.is_valid = true;
    ASSERT_EQ(add_web_cli(&cfg_, "127.0.0.1:18082", AF_INET), 0);
    EXPECT_STREQ(cfg_.rui.user[0].port, "18082");
    EXPECT_NE(log_text().find("add_web_cli: all interface slots are busy"), std::string::npos);
    EXPECT_EQ(validate_config(&cfg_), 0);

    EXPECT_EQ(add_web_cli(&cfg_, "127.0.0.1", AF_INET), 22);
    EXPECT_NE(log_text().find("add_web_cli: missing port number in 127.0.0.1\n"),
              std::string::npos);
    EXPECT_EQ(add_web_cli(&cfg_, "nosuchifc0:80", AF_INET), 22);
    EXPECT_NE(log_text().find("add_web_cli: invalid interface name: nosuchifc0\n"),
              std::string::npos);
}

TEST_F(Cfg, DumpListsEveryBlock) {
    std::string data = dir_ + "/";
    ASSERT_EQ(load("  log: { file = \"/var/log/trv.log\"; level = \"debug\"; max_size_mb = 2;"
                   " max_files = 3; };\n"
                   "  runtime: { pidfile = \"/run/trv.pid\"; cpunum = 1; quiet = true; };\n"
                   "  web_input: { alias = \"web\"; ifc = \"127.0.0.1\"; port = 18080; };\n"
                   "  udp_input: { url = \"udp://127.0.0.1:5000\"; must_lock = false; };\n"
                   "  data_dir = \"" +
                       data +
                       "\";\n  max_tasks = 0;\n"
                       "  local_url_prefix = \"http://edge\";\n"
                       "  lbdb: { host = \"127.0.0.1\"; port = 6400; sha1_dir = \"/etc/sha\";"
                       " connect_tmout_ms = 1500; };",
                   false),
              0)
        << log_text();
    log_set_rota(g_log, 0, 0, 0);
    std::string expect =
        "-----------------------------------\n"
        "Log (regular):\n"
        "\tpath   = /var/log/trv.log\n"
        "\tlevel  = debug\n"
        "\tformat = local\n"
        "\trota:max size   = 2 Mb\n"
        "\trota:max files  = 3\n"
        "\trota:end-of-day = off (0)\n"
        "\n"
        "Runtime:\n"
        "\tpid file = /run/trv.pid\n"
        "\tCPU: 1\n"
        "\tflags: [quiet] [cores]\n"
        "Listeners:\n"
        "\tUsr listener[web]: ifc=lo, af=unspec port=18080\n"
        "\tmax-accepted=64\n"
        "\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n"
        "\tUDP input            = [udp://127.0.0.1:5000] ifc=all fmt=gzip lk=[none]\n"
        "Misc:\n"
        "\tdata directory       = [" +
        dir_ +
        "]\n"
        "\trequest time-out     = 1 sec\n"
        "\tmax tasks            = 0 (unlimited)\n"
        "\ttask time-out        = 5000 ms\n"
        "\tmmap up to           = 8 MB\n"
        "\tlocal URL prefix     = http://edge\n"
        "\n"
        "Load-balancer DB: 127.0.0.1:6400\n"
        "\tConnect timeout        = 1.500000 sec\n"
        "\tSHA1 directory         = /etc/sha\n"
        "-----------------------------------\n";
    EXPECT_EQ(dump(), expect);
}

TEST_F(Cfg, TimeFormatNamesBothWays) {
    struct Case {
        const char *name;
        uint32_t code;
        const char *back;
    } cases[] = {{"local", 0, "local"},           {"GMT", 0x200, "gmt"},
                 {"no_time", 0x100, "no_time"},   {"raw", 0x400, "raw"},
                 {"Raw_Mono", 0x401, "raw_mono"}, {"utc", TMF_INVALID, "#error#"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(str_to_timefmt(c.name), c.code);
        EXPECT_STREQ(timefmt_str(c.code), c.back);
    }
}

}  // namespace

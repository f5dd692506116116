// Tests of the daemon's configuration: file loading, limits, command-line
// listeners, validation and the dump.
#include "cfg.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>

#include "daemon.h"
#include "log.h"
#include "netops.h"
#include "timeop.h"

namespace {

class Cfg : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("trv");
        ASSERT_NE(dir_ = scratch_dir("cfg"), "");
        ASSERT_EQ(log_open_ex(g_log, (dir_ + "/test.log").c_str(), 1), 0);
        init_trov_config(&cfg_);
    }
    void TearDown() override {
        free_trov_config(&cfg_);
        log_close(g_log);
        log_default(g_log, stderr);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }

    // Loads a fresh configuration of body, after the mandatory sections when
    // base; a failure carries the log.
    ::testing::AssertionResult load(const std::string &body, bool base = true) {
        init_trov_config(&cfg_);
        std::string path = dir_ + "/trov.conf";
        std::ofstream(path) << "trov: {\n"
                            << (base ? "  log: { level = \"info\"; };\n  runtime: { };\n" : "")
                            << body << "\n};\n";
        if (int rc = load_trov_config(path.c_str(), &cfg_, false); rc != 0)
            return ::testing::AssertionFailure() << "load: " << rc << ", log:\n" << log_text();
        return ::testing::AssertionSuccess();
    }
    std::string log_text() {
        std::stringstream ss;
        ss << std::ifstream(dir_ + "/test.log").rdbuf();
        return ss.str();
    }
    ::testing::AssertionResult logged(const std::string &line) {
        if (log_text().find(line) != std::string::npos) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "no [" << line << "] in:\n" << log_text();
    }

    std::string dir_;
    trov_cfg cfg_{};
};

TEST_F(Cfg, LoaderDefaultsDifferFromBuiltInOnes) {
    EXPECT_EQ(cfg_.log.max_size_mb, 8);
    EXPECT_EQ(cfg_.rt.cpunum, 0);
    EXPECT_EQ(cfg_.max_tasks, 0u);
    ASSERT_TRUE(load(""));
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

TEST_F(Cfg, SectionsAndKeysThatFailTheLoad) {
    struct Case {
        std::string body;
        bool base;
        const char *line;
    } cases[] = {
        {"  runtime: { };", false, "load_config: missing log section\n"},
        {"  log: { };", false, "load_config: missing runtime section\n"},
        // A string as long as its field has no room for the terminator.
        {"  log: { };\n  runtime: { run_as_user = \"" + std::string(32, 'u') + "\"; };", false,
         "run_as_user value is too long (32), max = 32 characters.\n"},
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
        EXPECT_FALSE(load(c.body, c.base));
        EXPECT_TRUE(logged(c.line));
    }
    EXPECT_TRUE(logged("load_trov_config: FAILED (-1)\n"));
    // Log settings are refused before the log exists, so on standard error.
    testing::internal::CaptureStderr();
    EXPECT_FALSE(load("  log: { level = \"loud\"; };\n  runtime: { };", false));
    EXPECT_FALSE(load("  log: { time_format = \"utc\"; };\n  runtime: { };", false));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Invalid log level: loud\n"), std::string::npos);
    EXPECT_NE(err.find("Invalid time format: utc\n"), std::string::npos);
}

TEST_F(Cfg, WebInputListLoadsAtMostFourListeners) {
    std::string list = "  web_input: (";
    for (int i = 0; i < 6; ++i)
        list += (i ? ", " : "") +
                ("{ ifc = \"127.0.0.1\"; port = " + std::to_string(18000 + i) + "; }");
    ASSERT_TRUE(load(list + ");"));
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(cfg_.rui.user[i].is_valid);
        EXPECT_EQ(cfg_.rui.user[i].index, i + 1);
        EXPECT_EQ(std::string(cfg_.rui.user[i].port), std::to_string(18000 + i));
        EXPECT_EQ(std::string(cfg_.rui.user[i].alias), "lo:" + std::to_string(18000 + i));
    }
    EXPECT_EQ(cfg_.rui.max_accept, 64u) << "a list has no max_accept member: the default stands";
}

TEST_F(Cfg, ListenerVariants) {
    ASSERT_TRUE(load("  web_input: { alias = \"sock\"; domain_path = \"/tmp/x.sock\"; };"));
    EXPECT_TRUE(cfg_.rui.user[0].is_valid);
    EXPECT_STREQ(cfg_.rui.user[0].domain_path, "/tmp/x.sock");
    // An unusable family leaves a valid slot without interface or port.
    ASSERT_TRUE(load("  web_input: { default_af = \"ipx\"; port = \"80\"; max_accept = 3; };"));
    EXPECT_TRUE(cfg_.rui.user[0].is_valid);
    EXPECT_EQ(cfg_.rui.user[0].pref_af, -1);
    EXPECT_STREQ(cfg_.rui.user[0].port, "");
    EXPECT_EQ(cfg_.rui.max_accept, 3u);
    ASSERT_TRUE(load("  web_input: { default_af = \"inet6\"; ifc = \"any\"; port = \"8080\"; };"));
    EXPECT_EQ(cfg_.rui.user[0].pref_af, AF_INET6);
    EXPECT_EQ(cfg_.rui.user[0].ifc, nullptr);
    EXPECT_STREQ(cfg_.rui.user[0].alias, "all:8080");
}

TEST_F(Cfg, NumbersStringsPrefixAndLockDefaults) {
    const std::string user31(31, 'u');
    ASSERT_TRUE(load("  log: { };\n  runtime: { run_as_user = \"" + user31 +
                         "\"; };\n"
                         "  max_tasks = -1;\n  local_url_prefix = \"http://edge/seg/\";\n"
                         "  udp_input: { url = \"udp://127.0.0.1:5000\"; };",
                     false));
    EXPECT_STREQ(cfg_.rt.user, user31.c_str());
    EXPECT_EQ(cfg_.max_tasks, 4294967295u);
    EXPECT_STREQ(cfg_.seg_url_pfx, "http://edge/seg");
    EXPECT_TRUE(cfg_.udp_cha.must_lock);
    EXPECT_TRUE(cfg_.udp_cha.is_gzipped);
    EXPECT_STREQ(cfg_.udp_cha.lkdir, "/tmp");
    ASSERT_TRUE(
        load("  local_url_prefix = \"/\";\n"
             "  lbdb: { host = \"127.0.0.1\"; port = 6379; sha1_dir = \"/tmp\"; };"));
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
    EXPECT_TRUE(logged("validate_config: at least one listener must be present\n"));
    // The fourth slot is still free, so the third is written again.
    ASSERT_EQ(add_web_cli(&cfg_, "127.0.0.1:18081", AF_INET), 0);
    EXPECT_STREQ(cfg_.rui.user[2].port, "18081");
    EXPECT_FALSE(cfg_.rui.user[3].is_valid);
    for (auto &lc : cfg_.rui.user) lc.is_valid = true;
    ASSERT_EQ(add_web_cli(&cfg_, "127.0.0.1:18082", AF_INET), 0);
    EXPECT_STREQ(cfg_.rui.user[0].port, "18082");
    EXPECT_TRUE(logged("add_web_cli: all interface slots are busy"));
    EXPECT_EQ(validate_config(&cfg_), 0);
    EXPECT_EQ(add_web_cli(&cfg_, "127.0.0.1", AF_INET), 22);
    EXPECT_TRUE(logged("add_web_cli: missing port number in 127.0.0.1\n"));
    EXPECT_EQ(add_web_cli(&cfg_, "nosuchifc0:80", AF_INET), 22);
    EXPECT_TRUE(logged("add_web_cli: invalid interface name: nosuchifc0\n"));
}

TEST_F(Cfg, DumpListsEveryBlock) {
    // A data directory given with a trailing "/" is shown without it.
    ASSERT_TRUE(
        load("  log: { file = \"/var/log/trv.log\"; level = \"debug\"; max_size_mb = 2;"
             " max_files = 3; };\n"
             "  runtime: { pidfile = \"/run/trv.pid\"; cpunum = 1; quiet = true; };\n"
             "  web_input: { alias = \"web\"; ifc = \"127.0.0.1\"; port = 18080; };\n"
             "  udp_input: { url = \"udp://127.0.0.1:5000\"; must_lock = false; };\n"
             "  data_dir = \"/tmp/\"; max_tasks = 0; local_url_prefix = \"http://edge\";\n"
             "  lbdb: { host = \"127.0.0.1\"; port = 6400; sha1_dir = \"/etc/sha\";"
             " connect_tmout_ms = 1500; };",
             false));
    log_set_rota(g_log, 0, 0, 0);
    char *buf = nullptr;
    size_t len = 0;
    FILE *fp = open_memstream(&buf, &len);
    dump_trov_config(fp, &cfg_);
    fclose(fp);
    std::string dump(buf, len);
    free(buf);
    EXPECT_EQ(dump,
              "-----------------------------------\n"
              "Log (regular):\n\tpath   = /var/log/trv.log\n\tlevel  = debug\n\tformat = local\n"
              "\trota:max size   = 2 Mb\n\trota:max files  = 3\n\trota:end-of-day = off (0)\n\n"
              "Runtime:\n\tpid file = /run/trv.pid\n\tCPU: 1\n\tflags: [quiet] [cores]\n"
              "Listeners:\n\tUsr listener[web]: ifc=lo, af=unspec port=18080\n"
              "\tmax-accepted=64\n\tI/O timeouts: user-rq=1000, admin-rq=0 custom-rq=0\n"
              "\tUDP input            = [udp://127.0.0.1:5000] ifc=all fmt=gzip lk=[none]\n"
              "Misc:\n\tdata directory       = [/tmp]\n\trequest time-out     = 1 sec\n"
              "\tmax tasks            = 0 (unlimited)\n\ttask time-out        = 5000 ms\n"
              "\tmmap up to           = 8 MB\n\tlocal URL prefix     = http://edge\n\n"
              "Load-balancer DB: 127.0.0.1:6400\n\tConnect timeout        = 1.500000 sec\n"
              "\tSHA1 directory         = /etc/sha\n-----------------------------------\n");
}

TEST_F(Cfg, TimeFormatNamesBothWays) {
    const std::tuple<const char *, uint32_t, const char *> cases[] = {
        {"local", 0, "local"}, {"GMT", 0x200, "gmt"},           {"no_time", 0x100, "no_time"},
        {"raw", 0x400, "raw"}, {"Raw_Mono", 0x401, "raw_mono"}, {"utc", TMF_INVALID, "#error#"}};
    for (auto [name, code, back] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(str_to_timefmt(name), code);
        EXPECT_STREQ(timefmt_str(code), back);
    }
}

}  // namespace

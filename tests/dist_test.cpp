// Tests of what ships beside the code: manual page, packaged configuration, unit and package.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "cfg.h"
#include "daemon.h"

namespace {

constexpr int CMD_MS = 60000;

std::string src_path(const std::string &rel) { return std::string(TROV_SOURCE_DIR) + "/" + rel; }
std::string src_text(const std::string &rel) { return daemon_read_file(src_path(rel)); }

bool put(const std::string &path, const std::string &s) { return bool(std::ofstream(path) << s); }

// A scratch directory (the runner's), removed at the end of the scope.
struct scratch : daemon_proc {
    scratch() : daemon_proc{} { EXPECT_EQ(daemon_init(this, ""), 0); }
    ~scratch() { daemon_destroy(this); }
};

// The first group of every match of re in text.
std::set<std::string> captures(const std::string &text, const std::regex &rx) {
    std::set<std::string> out;
    for (std::sregex_iterator it(text.begin(), text.end(), rx), end; it != end; ++it)
        out.insert((*it)[1]);
    return out;
}

// The value of "Key=" in a unit file; empty when absent.
std::string unit_value(const std::string &unit, const std::string &key) {
    std::smatch m;
    return std::regex_search(unit, m, std::regex("(^|\n)" + key + "=([^\n]*)")) ? m[2].str() : "";
}

TEST(Dist, ManPageRendersCleanAndKeepsUpWithOptionsAndKeys) {
    const std::string page = src_path("doc/trov.8"), text = daemon_read_file(page);
    // Every long option and every key of both sample configurations (even commented out) has an
    // entry.
    std::set<std::string> options = captures(
        src_text("trov/main.cpp"), std::regex(R"re(\{"([a-z0-9]+)", (no|required)_argument)re"));
    EXPECT_GE(options.size(), 15u);
    for (const std::string &o : options) EXPECT_NE(text.find("\\-\\-" + o), std::string::npos) << o;
    std::set<std::string> keys =
        captures(src_text("etc/trov.conf") + "\n" + src_text("etc/trov-packaged.conf"),
                 std::regex(R"((?:^|\n)[ \t]*(?://[ \t]*)?([a-z_0-9]+)[ \t]*(?:=|:[ \t]*\{))"));
    keys.erase("trov");
    EXPECT_GE(keys.size(), 25u);
    for (const std::string &k : keys)  // both are npos only when the key has no entry
        EXPECT_NE(text.find("\n.BR " + k + " \""), text.find("\n.SS \"trov." + k)) << k;

    std::string groff = daemon_find_program("groff");
    if (groff.empty()) GTEST_SKIP() << "groff is not installed (package groff-base)";
    std::string err;
    EXPECT_EQ(daemon_run(groff, {"-man", "-Tutf8", "-ww", "-z", page}, CMD_MS, nullptr, &err), 0);
    EXPECT_EQ(err, "");  // groff exits 0 even when it warns
}

TEST(Dist, PackagedConfigurationLoadsAndTheServiceUnitAgreesAndPassesTheCheck) {
    scratch tmp;
    const std::string conf = std::regex_replace(
        src_text("etc/trov-packaged.conf"),  // moved below tmp
        std::regex("\"(/var/lib/trov|/var/log/trov|/run/trov)"), "\"" + tmp.dir + "$1");
    for (auto d : {"/var/lib/trov", "/man8"}) std::filesystem::create_directories(tmp.dir + d);
    ASSERT_TRUE(put(tmp.dir + "/trov.conf", conf));
    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    ASSERT_EQ(load_trov_config((tmp.dir + "/trov.conf").c_str(), &g_cfg, false), 0);
    EXPECT_EQ(validate_config(&g_cfg), 0);
    EXPECT_EQ(std::string(g_cfg.data_dir), tmp.dir + "/var/lib/trov");
    EXPECT_EQ(std::string(g_cfg.log.path), tmp.dir + "/var/log/trov/trov.log");
    EXPECT_EQ(g_cfg.rt.user[0], '\0');
    // Only a daemon that detaches is a forking service, found through the pid file it writes.
    std::string unit = src_text("etc/trov.service");
    EXPECT_EQ(unit_value(unit, "Type"), "forking");
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    EXPECT_EQ(std::string(g_cfg.rt.pidfile), tmp.dir + unit_value(unit, "PIDFile"));
    free_trov_config(&g_cfg);
    // The installed file, without -T; the daemon needs root to switch users by itself.
    std::string exec = unit_value(unit, "ExecStart");
    EXPECT_TRUE(std::regex_match(exec, std::regex("/usr/sbin/trov .*-C /etc/trov\\.conf\\b.*")))
        << exec;
    EXPECT_EQ(exec.find("-T"), std::string::npos) << exec;
    EXPECT_EQ(unit_value(unit, "User"), "");

    std::string analyze = daemon_find_program("systemd-analyze");
    if (analyze.empty() || std::string(TROV_BIN).empty())
        GTEST_SKIP() << "systemd-analyze (package systemd) or the daemon binary is missing";
    // The built daemon and this source's page stand in for the installed ones.
    unit.replace(unit.find("ExecStart=") + 10, 14, TROV_BIN);
    ASSERT_TRUE(put(tmp.dir + "/man8/trov.8", src_text("doc/trov.8")));
    ASSERT_TRUE(put(tmp.dir + "/trov.service", unit));
    std::string out, err;
    EXPECT_EQ(daemon_run(analyze, {"verify", tmp.dir + "/trov.service"}, CMD_MS, &out, &err,
                         {"MANPATH=" + tmp.dir, "SYSTEMD_LOG_COLOR=0"}),
              0);
    EXPECT_EQ(err + out, "");
}

TEST(Dist, PackageHoldsTheInstallationAndItsControlFields) {
    const std::string config = std::string(TROV_BINARY_DIR) + "/CPackConfig.cmake";
    const std::string cpack = daemon_find_program("cpack"), gzip = daemon_find_program("gzip"),
                      dpkg_deb = daemon_find_program("dpkg-deb");
    if (cpack.empty() || dpkg_deb.empty() || gzip.empty())
        GTEST_SKIP() << "cpack, dpkg-deb or gzip is not installed";
    if (access(config.c_str(), R_OK) != 0) GTEST_SKIP() << "the build has no CPack configuration";
    scratch tmp;
    std::string out, err;
    auto run = [&](const std::string &bin, const std::vector<std::string> &args) {
        return daemon_run(bin, args, CMD_MS, &out, &err);
    };
    // A private output directory leaves the build's own package untouched.
    ASSERT_EQ(run(cpack, {"--config", config, "-B", tmp.dir}), 0) << out << err;
    const std::string deb = tmp.dir + "/trov_" TROV_PROJECT_VERSION "-1_amd64.deb";
    ASSERT_EQ(run(dpkg_deb, {"-c", deb}), 0) << err;
    std::set<std::string> want = {"drwxr-xr-x ./var/lib/trov/", "drwxr-xr-x ./var/log/trov/"};
    for (const char *f :
         {"usr/sbin/trov", "usr/bin/trov-order", "usr/share/trov/scripts/lbdb-load"})
        want.insert(std::string("-rwxr-xr-x ./") + f);
    for (const char *f :
         {"etc/trov.conf", "usr/share/man/man8/trov.8.gz", "lib/systemd/system/trov.service",
          "usr/share/trov/lbdb/add_url.lua", "usr/share/trov/lbdb/del_url.lua",
          "usr/share/trov/lbdb/next_url.lua", "usr/share/trov/lbdb/mbget_url.lua"})
        want.insert(std::string("-rw-r--r-- ./") + f);
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::string mode, owner, size, date, time, path;
        std::istringstream(line) >> mode >> owner >> size >> date >> time >> path;
        EXPECT_EQ(owner, "root/root") << line;
        want.erase(mode + " " + path);
    }
    EXPECT_TRUE(want.empty()) << "missing or with another mode: " << *want.begin() << "\n" << out;

    ASSERT_EQ(run(dpkg_deb, {"-I", deb}), 0);  // the control fields and the maintainer scripts
    for (const char *field :
         {"Package: trov\n", "Version: " TROV_PROJECT_VERSION "-1\n", "Architecture: amd64\n",
          "Section: net\n", "libconfig9", "libhiredis", "libc6", "postinst", "prerm", "postrm"})
        EXPECT_NE(out.find(field), std::string::npos) << field << "\n" << out;
    // The configuration is a conffile: an upgrade keeps the operator's edits.
    EXPECT_TRUE(run(dpkg_deb, {"-I", deb, "conffiles"}) == 0 && out == "/etc/trov.conf\n") << out;

    // The files are this source's, compared whole (a difference is named, not printed).
    const std::string root = tmp.dir + "/root";
    ASSERT_EQ(run(dpkg_deb, {"-x", deb, root}), 0) << err;
    EXPECT_TRUE(daemon_read_file(root + "/etc/trov.conf") == src_text("etc/trov-packaged.conf"));
    EXPECT_TRUE(daemon_read_file(root + "/lib/systemd/system/trov.service") ==
                src_text("etc/trov.service"));
    EXPECT_TRUE(run(gzip, {"-dc", root + "/usr/share/man/man8/trov.8.gz"}) == 0 &&
                out == src_text("doc/trov.8"))
        << "the packaged manual page is not doc/trov.8 (is the build up to date?)";
    EXPECT_EQ(run(root + "/usr/bin/trov-order", {"--help"}), 0);
}

}  // namespace

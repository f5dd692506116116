// Tests of what ships beside the code: the manual page, the packaged
// configuration and service unit, and the Debian package's contents.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::string slurp(const std::string &path) { return daemon_read_file(path); }

bool write_file(const std::string &path, const std::string &text) {
    return bool(std::ofstream(path, std::ios::binary) << text);
}

// A scratch directory (the runner's), removed at the end of the scope.
struct scratch : daemon_proc {
    scratch() : daemon_proc{} { EXPECT_EQ(daemon_init(this, ""), 0); }
    ~scratch() { daemon_destroy(this); }
    const std::string &path() const { return dir; }
};

// The first group of every match of re in text.
std::set<std::string> captures(const std::string &text, const std::string &re) {
    std::set<std::string> out;
    std::regex rx(re);
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
    const std::string page = src_path("doc/trov.8");
    const std::string text = slurp(page);
    ASSERT_FALSE(text.empty());
    // Every long option the daemon's parser knows has its entry, and so has
    // every key of both sample configurations, commented-out ones included.
    std::set<std::string> options = captures(slurp(src_path("trov/main.cpp")),
                                             R"re(\{"([a-z0-9]+)", (no|required)_argument)re");
    EXPECT_GE(options.size(), 15u);
    for (const std::string &o : options) EXPECT_NE(text.find("\\-\\-" + o), std::string::npos) << o;
    std::set<std::string> keys = captures(
        slurp(src_path("etc/trov.conf")) + "\n" + slurp(src_path("etc/trov-packaged.conf")),
        R"((?:^|\n)[ \t]*(?://[ \t]*)?([a-z_0-9]+)[ \t]*(?:=|:[ \t]*\{))");
    keys.erase("trov");
    EXPECT_GE(keys.size(), 25u);
    for (const std::string &k : keys)
        EXPECT_TRUE(text.find("\n.BR " + k + " \"") != std::string::npos ||
                    text.find("\n.SS \"trov." + k) != std::string::npos)
            << k;

    std::string groff = daemon_find_program("groff");
    if (groff.empty()) GTEST_SKIP() << "groff is not installed (package groff-base)";
    // groff exits 0 even when it warns: any word on stderr is a failure.
    std::string err;
    EXPECT_EQ(daemon_run(groff, {"-man", "-Tutf8", "-ww", "-z", page}, CMD_MS, nullptr, &err), 0);
    EXPECT_EQ(err, "");
}

TEST(Dist, PackagedConfigurationLoadsAndTheServiceUnitAgreesAndPassesTheCheck) {
    scratch tmp;
    // The installed paths, moved below a scratch directory.
    std::string conf = slurp(src_path("etc/trov-packaged.conf"));
    for (const char *p : {"/var/lib/trov", "/var/log/trov", "/run/trov.pid"}) {
        size_t at = conf.find(std::string("\"") + p);
        ASSERT_NE(at, std::string::npos) << p;
        conf.insert(at + 1, tmp.path());
    }
    for (const char *d : {"/var", "/var/lib", "/var/lib/trov", "/man8"})
        ASSERT_EQ(mkdir((tmp.path() + d).c_str(), 0755), 0);
    ASSERT_TRUE(write_file(tmp.path() + "/trov.conf", conf));
    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    ASSERT_EQ(load_trov_config((tmp.path() + "/trov.conf").c_str(), &g_cfg, false), 0);
    EXPECT_EQ(validate_config(&g_cfg), 0);
    EXPECT_EQ(std::string(g_cfg.data_dir), tmp.path() + "/var/lib/trov");
    EXPECT_EQ(std::string(g_cfg.log.path), tmp.path() + "/var/log/trov/trov.log");
    EXPECT_EQ(g_cfg.rt.user[0], '\0');
    // The service manager finds the detached daemon through the pid file it
    // writes, and only a daemon that detaches is a forking service.
    std::string unit = slurp(src_path("etc/trov.service"));
    EXPECT_EQ(unit_value(unit, "Type"), "forking");
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    EXPECT_EQ(std::string(g_cfg.rt.pidfile), tmp.path() + unit_value(unit, "PIDFile"));
    free_trov_config(&g_cfg);
    // The unit reads the file the package installs, without -T; the daemon
    // switches users by itself and needs root to do so.
    std::string exec = unit_value(unit, "ExecStart");
    EXPECT_EQ(exec.rfind("/usr/sbin/trov ", 0), 0u) << exec;
    EXPECT_NE(exec.find(" -C /etc/trov.conf"), std::string::npos) << exec;
    EXPECT_EQ(exec.find("-T"), std::string::npos) << exec;
    EXPECT_EQ(unit_value(unit, "User"), "");

    std::string analyze = daemon_find_program("systemd-analyze");
    if (analyze.empty()) GTEST_SKIP() << "systemd-analyze is not installed (package systemd)";
    if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
    // The check wants the program and the manual page the unit names; the
    // built daemon and this source's page stand in for the installed ones.
    unit.replace(unit.find("ExecStart=") + 10, 14, TROV_BIN);
    ASSERT_TRUE(write_file(tmp.path() + "/man8/trov.8", slurp(src_path("doc/trov.8"))));
    ASSERT_TRUE(write_file(tmp.path() + "/trov.service", unit));
    std::string out, err;
    EXPECT_EQ(daemon_run(analyze, {"verify", tmp.path() + "/trov.service"}, CMD_MS, &out, &err,
                         {"MANPATH=" + tmp.path(), "SYSTEMD_LOG_COLOR=0"}),
              0)
        << err;
    EXPECT_EQ(err + out, "");
}

TEST(Dist, PackageHoldsTheInstallationAndItsControlFields) {
    const std::string cpack = daemon_find_program("cpack");
    const std::string dpkg_deb = daemon_find_program("dpkg-deb");
    const std::string gzip = daemon_find_program("gzip");
    const std::string config = std::string(TROV_BINARY_DIR) + "/CPackConfig.cmake";
    if (cpack.empty() || dpkg_deb.empty() || gzip.empty())
        GTEST_SKIP() << "cpack, dpkg-deb or gzip is not installed";
    if (access(config.c_str(), R_OK) != 0) GTEST_SKIP() << "the build has no CPack configuration";
    scratch tmp;
    std::string out, err;
    auto run = [&](const std::string &bin, const std::vector<std::string> &args) {
        return daemon_run(bin, args, CMD_MS, &out, &err);
    };
    // A private output directory: the build's own package stays untouched.
    ASSERT_EQ(run(cpack, {"--config", config, "-B", tmp.path()}), 0) << out << err;
    const std::string deb = tmp.path() + "/trov_" TROV_PROJECT_VERSION "-1_amd64.deb";
    ASSERT_EQ(run(dpkg_deb, {"-c", deb}), 0) << err;
    std::set<std::string> want = {"-rwxr-xr-x ./usr/sbin/trov",
                                  "-rwxr-xr-x ./usr/bin/trov-order",
                                  "-rw-r--r-- ./usr/share/man/man8/trov.8.gz",
                                  "-rw-r--r-- ./etc/trov.conf",
                                  "-rw-r--r-- ./lib/systemd/system/trov.service",
                                  "-rwxr-xr-x ./usr/share/trov/scripts/lbdb-load",
                                  "drwxr-xr-x ./var/lib/trov/",
                                  "drwxr-xr-x ./var/log/trov/"};
    for (const char *lua : {"add_url", "del_url", "next_url", "mbget_url"})
        want.insert(std::string("-rw-r--r-- ./usr/share/trov/lbdb/") + lua + ".lua");
    std::stringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream f(line);
        std::string mode, owner, size, date, time, path;
        f >> mode >> owner >> size >> date >> time >> path;
        EXPECT_EQ(owner, "root/root") << line;
        want.erase(mode + " " + path);
    }
    EXPECT_TRUE(want.empty()) << "missing or with another mode: " << *want.begin() << "\n" << out;

    ASSERT_EQ(run(dpkg_deb, {"-f", deb}), 0);
    for (const char *field :
         {"Package: trov\n", "Version: " TROV_PROJECT_VERSION "-1\n", "Architecture: amd64\n",
          "Section: net\n", "libconfig9", "libhiredis", "libc6"})
        EXPECT_NE(out.find(field), std::string::npos) << field << "\n" << out;
    // The configuration is a conffile: an upgrade keeps the operator's edits.
    EXPECT_EQ(run(dpkg_deb, {"-I", deb, "conffiles"}), 0);
    EXPECT_EQ(out, "/etc/trov.conf\n");
    EXPECT_EQ(run(dpkg_deb, {"-I", deb}), 0);
    for (const char *script : {"postinst", "prerm", "postrm"})
        EXPECT_NE(out.find(script), std::string::npos) << script;

    // The files are the ones of this source, under their installed names
    // (compared whole; a difference is named, not printed).
    const std::string root = tmp.path() + "/root";
    ASSERT_EQ(run(dpkg_deb, {"-x", deb, root}), 0) << err;
    for (auto [installed, source] :
         {std::pair{"/etc/trov.conf", "etc/trov-packaged.conf"},
          std::pair{"/lib/systemd/system/trov.service", "etc/trov.service"}})
        EXPECT_TRUE(slurp(root + installed) == slurp(src_path(source)))
            << installed << " is not " << source;
    EXPECT_EQ(run(gzip, {"-dc", root + "/usr/share/man/man8/trov.8.gz"}), 0);
    EXPECT_TRUE(out == slurp(src_path("doc/trov.8")))
        << "the packaged manual page is not doc/trov.8 (is the build up to date?)";
    EXPECT_EQ(run(root + "/usr/bin/trov-order", {"--help"}), 0);
}

}  // namespace

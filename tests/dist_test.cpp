// Tests of what ships beside the code: the manual page renders cleanly and
// keeps up with the daemon's options and keys, the service unit passes the
// service manager's checks and agrees with the packaged configuration, that
// configuration loads in the daemon, and the Debian package holds the
// installation with the control fields it needs.
#include <gtest/gtest.h>
#include <libconfig.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
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

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The program's path from PATH; empty when it is not installed.
std::string find_program(const std::string &name) {
    const char *path = getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        std::string p = dir + "/" + name;
        if (!dir.empty() && access(p.c_str(), X_OK) == 0) return p;
    }
    return "";
}

struct cmd_result {
    int status;  // exit status; -1 when it did not end normally in time
    std::string out;
    std::string err;
};

// Runs bin with args in a private directory, output captured, within CMD_MS.
cmd_result run(const std::string &bin, const std::vector<std::string> &args,
               const std::vector<std::string> &env = {}) {
    cmd_result r{-1, "", ""};
    daemon_proc p{};
    if (daemon_init(&p, bin) != 0) return r;
    p.env = env;
    if (daemon_start(&p, args) == 0) {
        int st = daemon_wait_exit(&p, CMD_MS);
        if (st >= 0 && WIFEXITED(st)) r.status = WEXITSTATUS(st);
        r.out = daemon_read_file(p.out_path);
        r.err = daemon_read_file(p.err_path);
    }
    daemon_destroy(&p);
    return r;
}

class TempDir {
   public:
    TempDir() {
        char tmpl[] = "/tmp/dist_test.XXXXXX";
        if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
    }
    ~TempDir() {
        if (!path_.empty()) (void)!system(("rm -rf '" + path_ + "'").c_str());
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

   private:
    std::string path_;
};

bool write_file(const std::string &path, const std::string &text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    return bool(out);
}

// Keys a sample configuration names, commented-out ones included: a word
// followed by "=" or by ":" and a group.
std::set<std::string> sample_keys(const std::string &text) {
    std::set<std::string> keys;
    static const std::regex key_re(R"(^\s*(?://\s*)?([a-z_0-9]+)\s*(=|:\s*\{))");
    std::stringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (std::regex_search(line, m, key_re) && m[1] != "trov") keys.insert(m[1]);
    }
    return keys;
}

// The value of "Key=" in a unit file; empty when absent.
std::string unit_value(const std::string &unit, const std::string &key) {
    std::stringstream lines(unit);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    return "";
}

TEST(Dist, ManPageRendersCleanAndKeepsUpWithOptionsAndKeys) {
    const std::string page = src_path("doc/trov.8");
    const std::string text = slurp(page);
    ASSERT_FALSE(text.empty());

    // Every long option the daemon's parser knows has its entry.
    const std::string main_src = slurp(src_path("trov/main.cpp"));
    static const std::regex long_re(R"re(\{"([a-z0-9]+)", (no|required)_argument)re");
    int options = 0;
    for (std::sregex_iterator it(main_src.begin(), main_src.end(), long_re), end; it != end;
         ++it, ++options) {
        std::string name = (*it)[1];
        SCOPED_TRACE("--" + name);
        EXPECT_NE(text.find("\\-\\-" + name), std::string::npos);
    }
    EXPECT_GE(options, 15);

    // Every key of both sample configurations has an entry of its own.
    std::set<std::string> keys = sample_keys(slurp(src_path("etc/trov.conf")));
    std::set<std::string> packaged = sample_keys(slurp(src_path("etc/trov-packaged.conf")));
    keys.insert(packaged.begin(), packaged.end());
    EXPECT_GE(keys.size(), 25u);
    for (const std::string &k : keys) {
        SCOPED_TRACE(k);
        bool entry = text.find("\n.BR " + k + " \"") != std::string::npos ||
                     text.find("\n.SS \"trov." + k) != std::string::npos;
        EXPECT_TRUE(entry);
    }

    std::string groff = find_program("groff");
    if (groff.empty()) GTEST_SKIP() << "groff is not installed (package groff-base)";
    // groff exits 0 even when it warns: any word on stderr is a failure.
    cmd_result r = run(groff, {"-man", "-Tutf8", "-ww", "-z", page});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
}

TEST(Dist, ServiceUnitAgreesWithThePackagedConfiguration) {
    const std::string unit = slurp(src_path("etc/trov.service"));
    ASSERT_FALSE(unit.empty());
    config_t cf;
    config_init(&cf);
    const std::string conf = slurp(src_path("etc/trov-packaged.conf"));
    ASSERT_EQ(config_read_string(&cf, conf.c_str()), CONFIG_TRUE)
        << config_error_line(&cf) << ": " << config_error_text(&cf);
    const char *pidfile = nullptr;
    int non_daemon = 1;
    EXPECT_EQ(config_lookup_string(&cf, "trov.runtime.pidfile", &pidfile), CONFIG_TRUE);
    EXPECT_EQ(config_lookup_bool(&cf, "trov.runtime.non_daemon", &non_daemon), CONFIG_TRUE);
    // The service manager finds the detached daemon through the pid file the
    // daemon writes, and only a daemon that detaches is a forking service.
    EXPECT_EQ(unit_value(unit, "Type"), "forking");
    EXPECT_EQ(unit_value(unit, "PIDFile"), pidfile != nullptr ? pidfile : "");
    EXPECT_EQ(non_daemon, 0);
    // The unit reads the file the package installs, without -T.
    std::string exec = unit_value(unit, "ExecStart");
    EXPECT_EQ(exec.rfind("/usr/sbin/trov ", 0), 0u) << exec;
    EXPECT_NE(exec.find(" -C /etc/trov.conf"), std::string::npos) << exec;
    EXPECT_EQ(exec.find("-T"), std::string::npos) << exec;
    // The daemon switches users by itself and needs root to do so.
    EXPECT_EQ(unit_value(unit, "User"), "");
    config_destroy(&cf);
}

TEST(Dist, ServiceUnitPassesTheServiceManagersCheck) {
    std::string analyze = find_program("systemd-analyze");
    if (analyze.empty()) GTEST_SKIP() << "systemd-analyze is not installed (package systemd)";
    if (std::string(TROV_BIN).empty()) GTEST_SKIP() << "the daemon binary is not built";
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    // The check wants the program and the manual page the unit names; the
    // built daemon and this source's page stand in for the installed ones.
    std::string unit = slurp(src_path("etc/trov.service"));
    size_t at = unit.find("ExecStart=/usr/sbin/trov ");
    ASSERT_NE(at, std::string::npos);
    unit.replace(at + 10, 14, TROV_BIN);
    ASSERT_EQ(mkdir((tmp.path() + "/man8").c_str(), 0755), 0);
    ASSERT_TRUE(write_file(tmp.path() + "/man8/trov.8", slurp(src_path("doc/trov.8"))));
    ASSERT_TRUE(write_file(tmp.path() + "/trov.service", unit));
    cmd_result r = run(analyze, {"verify", tmp.path() + "/trov.service"},
                       {"MANPATH=" + tmp.path(), "SYSTEMD_LOG_COLOR=0"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "");
}

TEST(Dist, PackagedConfigurationLoadsInTheDaemon) {
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    // The installed paths, moved below a scratch directory.
    std::string conf = slurp(src_path("etc/trov-packaged.conf"));
    for (const char *p : {"/var/lib/trov", "/var/log/trov", "/run/trov.pid"}) {
        size_t at = conf.find(std::string("\"") + p);
        ASSERT_NE(at, std::string::npos) << p;
        conf.insert(at + 1, tmp.path());
    }
    ASSERT_EQ(mkdir((tmp.path() + "/var").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((tmp.path() + "/var/lib").c_str(), 0755), 0);
    ASSERT_EQ(mkdir((tmp.path() + "/var/lib/trov").c_str(), 0755), 0);
    std::string path = tmp.path() + "/trov.conf";
    ASSERT_TRUE(write_file(path, conf));

    ASSERT_EQ(init_trov_config(&g_cfg), 0);
    ASSERT_EQ(load_trov_config(path.c_str(), &g_cfg, false), 0);
    EXPECT_EQ(validate_config(&g_cfg), 0);
    EXPECT_EQ(std::string(g_cfg.data_dir), tmp.path() + "/var/lib/trov");
    EXPECT_EQ(std::string(g_cfg.log.path), tmp.path() + "/var/log/trov/trov.log");
    EXPECT_EQ(std::string(g_cfg.rt.pidfile), tmp.path() + "/run/trov.pid");
    EXPECT_FALSE(g_cfg.rt.non_daemon);
    EXPECT_EQ(g_cfg.rt.user[0], '\0');
    EXPECT_TRUE(g_cfg.rui.user[0].is_valid);
    EXPECT_EQ(g_cfg.udp_cha.url[0], '\0');
    EXPECT_EQ(g_cfg.lbdb.port, 0);
    free_trov_config(&g_cfg);
}

TEST(Dist, PackageHoldsTheInstallationAndItsControlFields) {
    const std::string cpack = find_program("cpack");
    const std::string dpkg_deb = find_program("dpkg-deb");
    const std::string gzip = find_program("gzip");
    const std::string config = std::string(TROV_BINARY_DIR) + "/CPackConfig.cmake";
    if (cpack.empty() || dpkg_deb.empty() || gzip.empty())
        GTEST_SKIP() << "cpack, dpkg-deb or gzip is not installed";
    if (access(config.c_str(), R_OK) != 0) GTEST_SKIP() << "the build has no CPack configuration";
    TempDir tmp;
    ASSERT_FALSE(tmp.path().empty());
    // A private output directory: the build's own package stays untouched.
    cmd_result r = run(cpack, {"--config", config, "-B", tmp.path()});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    const std::string deb = tmp.path() + "/trov_" TROV_PROJECT_VERSION "-1_amd64.deb";
    ASSERT_EQ(access(deb.c_str(), R_OK), 0) << r.out;

    r = run(dpkg_deb, {"-c", deb});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string listing = r.out;
    struct Entry {
        std::string path;
        const char *mode;
    };
    std::vector<Entry> want = {
        {"./usr/sbin/trov", "-rwxr-xr-x"},
        {"./usr/bin/trov-order", "-rwxr-xr-x"},
        {"./usr/share/man/man8/trov.8.gz", "-rw-r--r--"},
        {"./etc/trov.conf", "-rw-r--r--"},
        {"./lib/systemd/system/trov.service", "-rw-r--r--"},
        {"./usr/share/trov/scripts/lbdb-load", "-rwxr-xr-x"},
        {"./var/lib/trov/", "drwxr-xr-x"},
        {"./var/log/trov/", "drwxr-xr-x"},
    };
    for (const char *lua : {"add_url", "del_url", "next_url", "mbget_url"})
        want.push_back({std::string("./usr/share/trov/lbdb/") + lua + ".lua", "-rw-r--r--"});
    std::stringstream lines(listing);
    std::set<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream f(line);
        std::string mode, owner, size, date, time, path;
        f >> mode >> owner >> size >> date >> time >> path;
        EXPECT_EQ(owner, "root/root") << line;
        for (const Entry &e : want) {
            if (e.path == path) {
                EXPECT_EQ(mode, e.mode) << line;
                seen.insert(path);
            }
        }
    }
    for (const Entry &e : want) EXPECT_EQ(seen.count(e.path), 1u) << e.path << "\n" << listing;

    r = run(dpkg_deb, {"-f", deb, "Package", "Version", "Architecture", "Depends", "Section"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Package: trov\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Version: " TROV_PROJECT_VERSION "-1\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Architecture: amd64\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("Section: net\n"), std::string::npos) << r.out;
    // Found from the binaries: the libraries the daemon links.
    EXPECT_NE(r.out.find("libconfig9"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("libhiredis"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("libc6"), std::string::npos) << r.out;

    // The configuration is a conffile: an upgrade keeps the operator's edits.
    r = run(dpkg_deb, {"-I", deb, "conffiles"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "/etc/trov.conf\n");
    r = run(dpkg_deb, {"-I", deb});
    for (const char *script : {"postinst", "prerm", "postrm"}) {
        EXPECT_NE(r.out.find(script), std::string::npos) << script << "\n" << r.out;
    }

    // The files are the ones of this source, under their installed names.
    const std::string root = tmp.path() + "/root";
    r = run(dpkg_deb, {"-x", deb, root});
    ASSERT_EQ(r.status, 0) << r.err;
    // Compared whole; a difference is named, not printed.
    EXPECT_TRUE(slurp(root + "/etc/trov.conf") == slurp(src_path("etc/trov-packaged.conf")))
        << "/etc/trov.conf is not etc/trov-packaged.conf";
    EXPECT_TRUE(slurp(root + "/lib/systemd/system/trov.service") ==
                slurp(src_path("etc/trov.service")))
        << "the packaged unit is not etc/trov.service";
    r = run(gzip, {"-dc", root + "/usr/share/man/man8/trov.8.gz"});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out == slurp(src_path("doc/trov.8")))
        << "the packaged manual page is not doc/trov.8 (is the build up to date?)";
    r = run(root + "/usr/bin/trov-order", {"--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("Usage:\n", 0), 0u);
}

}  // namespace

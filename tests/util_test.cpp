// Tests of the process utilities: the pid file and the directory helpers.
// Whatever changes the whole process runs in a forked child.
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>

#include "daemon.h"
#include "log.h"
#include "timeop.h"

namespace {

namespace fs = std::filesystem;

std::string slurp(const std::string &p) {
    std::stringstream ss;
    ss << std::ifstream(p).rdbuf();
    return ss.str();
}

// Runs fn in a forked child: its exit status, or -1. The alarm bounds a hang.
int in_child(const std::function<int()> &fn) {
    pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        _exit(fn());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The log goes to stderr, captured for the whole test: children write there too.
class Util : public ::testing::Test {
   protected:
    void SetUp() override {
        ASSERT_NE(dir_ = scratch_dir("util"), "");
        log_timefmt(g_log, TMF_NOTIME);
        log_set_module_level(LOG_MOD_DEFAULT, LL_INFO);
        testing::internal::CaptureStderr();
    }
    void TearDown() override {
        (void)testing::internal::GetCapturedStderr();
        log_set_module_level(LOG_MOD_DEFAULT, LL_NORM);
        log_timefmt(g_log, TMF_LOCAL);
        fs::remove_all(dir_);
    }
    // What was logged since the previous call.
    static std::string logged() {
        std::string text = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return text;
    }
    std::string dir_;
};

TEST_F(Util, PidfileIsOverwrittenByTheNextInstanceButNotWhileLocked) {
    const std::string pf = dir_ + "/trov.pid";
    ASSERT_EQ(create_pidfile_extra(pf.c_str(), 12345, nullptr, 0), 0);
    // Another process finds no lock held and replaces the longer pid; it reads the
    // file itself, as a close in this process would drop a lock still held here.
    EXPECT_EQ(in_child([&] {
                  return slurp(pf) == "12345" ? create_pidfile_extra(pf.c_str(), 777, nullptr, 0)
                                              : 9;
              }),
              0);
    EXPECT_EQ(slurp(pf), "777");
    EXPECT_TRUE(logged().ends_with("(INF) Created pidfile [" + pf + "] with pid=777.\n"));
    int fd = open(pf.c_str(), O_WRONLY);  // while this process holds the lock, others are refused
    ASSERT_EQ(write_lock(fd), 0);
    EXPECT_EQ(in_child([&] {
                  return create_pidfile_extra(pf.c_str(), 42, nullptr, 0) == -1 &&
                         create_pidfile_extra(pf.c_str(), 42, nullptr, 1) == -1;
              }),
              1);
    close(fd);
    EXPECT_EQ(slurp(pf), "777");
    EXPECT_EQ(logged(), "(ERR) create_pidfile_extra: file [" + pf +
                            "] is locked (another instance of daemon must be running)\n(ERR) "
                            "create_pidfile_extra: failed to create pidfile [" +
                            pf + "] with pid=42.\n(ERR) Another instance is already running\n");
}

TEST_F(Util, DirectoryHelpers) {
    std::ofstream(dir_ + "/file") << "data";
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {"/", 1, 0, "/"},
        {"/tmp/", 1, 0, "/tmp"},
        {dir_ + "/missing/", 1, ENOENT, dir_ + "/missing"},
        {dir_ + "/file/sub", 0, ENOTDIR, dir_ + "/file/sub"},
    };
    for (const auto &[in, strip, rc, after] : cases) {
        char buf[256];
        snprintf(buf, sizeof buf, "%s", in.c_str());
        EXPECT_EQ(dir_check(buf, strip), rc) << in;
        EXPECT_EQ(buf, after);
        EXPECT_EQ(logged().starts_with("(ERR) dir_check: opendir('" + after + "', ...) ERROR(" +
                                       std::to_string(rc) + "): "),
                  rc != 0);
    }
    // The file's own name is never created; a relative path is from cwd.
    EXPECT_EQ(in_child([&] { return chdir(dir_.c_str()) == 0 ? mk_fpath_dirs("a/b/c", 0755) : 9; }),
              0);
    EXPECT_TRUE(fs::is_directory(dir_ + "/a/b"));
    EXPECT_FALSE(fs::exists(dir_ + "/a/b/c"));
    errno = 0;
    EXPECT_EQ(mk_fpath_dirs((dir_ + "/file/sub/f").c_str(), 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(
        logged().starts_with("(ERR) mk_fpath_dirs: mkdir(" + dir_ + "/file/sub) ERROR(20): "));
    // The first existing path wins even when it cannot be read.
    const std::string file = dir_ + "/file";
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    const char *paths[] = {"/nonexistent-trov", nullptr, file.c_str(), dir_.c_str()};
    EXPECT_EQ(pick_first_file(paths, 4), paths[2]);
    EXPECT_EQ(pick_first_file(paths, 2), nullptr);
}

}  // namespace

// Tests for the process utilities: pid file, directory helpers, signal flags,
// daemon mode and process settings. Anything that changes the whole process
// (daemon mode, user, core limit, affinity) runs in a forked child.
#include "util.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "log.h"
#include "timeop.h"

namespace {

// Each test gets a temporary directory and a log file inside it; children
// inherit the unbuffered log stream and append to the same file.
class Util : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        char tmpl[] = "/tmp/utiltestXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        log_fp_ = fopen(path("log").c_str(), "a");
        ASSERT_NE(log_fp_, nullptr);
        setvbuf(log_fp_, nullptr, _IONBF, 0);
        log_default(g_log, log_fp_);
        log_timefmt(g_log, TMF_NOTIME);
        log_set_module_level(LOG_MOD_DEFAULT, LL_NORM);
        for (volatile int *flag : {&g_quit, &g_goodbye, &g_hup, &g_usr1, &g_tdbg, &g_sigctx})
            *flag = 0;
    }
    void TearDown() override {
        log_set_module_level(LOG_MOD_DEFAULT, LL_NORM);
        log_timefmt(g_log, TMF_LOCAL);
        log_default(g_log, stderr);
        fclose(log_fp_);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    std::string log_text() const { return slurp(path("log")); }
    static std::string slurp(const std::string &p) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    static void touch(const std::string &p) { std::ofstream(p) << "data"; }
    std::string dir_;
    FILE *log_fp_ = nullptr;
};

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// Runs fn in a forked child and gives its exit status, or -1 if it did not
// exit normally. The alarm bounds a child that hangs.
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

TEST_F(Util, PidfileHoldsPidWithoutNewlineAndIsOverwritten) {
    log_set_module_level(LOG_MOD_DEFAULT, LL_INFO);
    const std::string pf = path("trov.pid");
    ino_t ino = 0;
    ASSERT_EQ(create_pidfile_extra(pf.c_str(), 12345, &ino, 0), 0);
    // A second instance, another process, finds no lock held and replaces a
    // longer pid. It reads the file itself: a close of any descriptor of
    // ours would drop a lock this process still held, hiding the fault.
    ASSERT_EQ(in_child([&] {
                  if (slurp(pf) != "12345") return 20;
                  return create_pidfile_extra(pf.c_str(), 777, nullptr, 0);
              }),
              0);
    EXPECT_EQ(slurp(pf), "777");
    EXPECT_TRUE(has(log_text(), "(INF) Created pidfile [" + pf + "] with pid=777.\n"));
    struct stat st {};
    ASSERT_EQ(stat(pf.c_str(), &st), 0);
    EXPECT_EQ(ino, st.st_ino);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0644 & ~mask);
}

TEST_F(Util, PidfileLockedAtCreationIsRefused) {
    const std::string pf = path("trov.pid");
    int ready[2], release[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(release), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(20);
        close(ready[0]);
        close(release[1]);
        int fd = open(pf.c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd < 0 || write_lock(fd) != 0 || write(fd, "1", 1) != 1) _exit(1);
        (void)!write(ready[1], "r", 1);
        char c;
        (void)!read(release[0], &c, 1);  // returns when the parent closes its end
        _exit(0);
    }
    close(ready[1]);
    close(release[0]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);

    EXPECT_EQ(create_pidfile_extra(pf.c_str(), 4242, nullptr, 0), -1);
    std::string log = log_text();
    EXPECT_TRUE(has(log, "(ERR) create_pidfile_extra: file [" + pf +
                             "] is locked (another instance of daemon must be running)\n"))
        << log;
    EXPECT_TRUE(
        has(log, "create_pidfile_extra: failed to create pidfile [" + pf + "] with pid=4242.\n"))
        << log;
    size_t before = log.size();
    EXPECT_EQ(create_pidfile_extra(pf.c_str(), 4242, nullptr, 1), -1);
    EXPECT_EQ(log_text().substr(before), "(ERR) Another instance is already running\n");
    EXPECT_EQ(slurp(pf), "1");

    close(release[1]);
    close(ready[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(Util, PidfileRefusesBadArguments) {
    char empty[] = "";
    EXPECT_EQ(create_pidfile_extra(empty, 1, nullptr, 0), -1);
    EXPECT_TRUE(has(log_text(), "(ERR) create_pidfile_extra: no path specified\n"));
    const std::string nodir = path("none/trov.pid");
    EXPECT_EQ(create_pidfile_extra(nodir.c_str(), 1, nullptr, 0), -1);
    EXPECT_TRUE(has(log_text(), "failed to create pidfile [" + nodir + "] with pid=1.\n"));
    EXPECT_DEATH((void)create_pidfile_extra(nullptr, 1, nullptr, 0), "");
    EXPECT_DEATH((void)create_pidfile_extra(path("p").c_str(), 0, nullptr, 0), "");
}

TEST_F(Util, DirCheckAcceptsDirectoriesAndReportsErrno) {
    touch(path("file"));
    struct Case {
        std::string in;
        int strip;
        int rc;
        std::string after;
    } cases[] = {
        {"/", 1, 0, "/"},
        {"/tmp/", 1, 0, "/tmp"},
        {"/tmp/", 0, 0, "/tmp/"},
        {dir_ + "//", 1, 0, dir_ + "/"},
        {path("missing/"), 1, ENOENT, path("missing")},
        {path("file"), 0, ENOTDIR, path("file")},
        {path("file/sub"), 0, ENOTDIR, path("file/sub")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        char buf[256];
        snprintf(buf, sizeof buf, "%s", c.in.c_str());
        EXPECT_EQ(dir_check(buf, c.strip), c.rc);
        EXPECT_EQ(std::string(buf), c.after);
        if (c.rc != 0) {
            EXPECT_TRUE(has(log_text(), "(ERR) dir_check: opendir('" + c.after + "', ...) ERROR(" +
                                            std::to_string(c.rc) + "): "));
        }
    }
}

TEST_F(Util, MkFpathDirsCreatesParentsOnly) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    EXPECT_EQ(mk_fpath_dirs("a/b/c", 0755), 0);
    EXPECT_EQ(mk_fpath_dirs("plain", 0755), 0);
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("a/b")));
    EXPECT_FALSE(std::filesystem::exists(path("a/b/c")));
    EXPECT_FALSE(std::filesystem::exists(path("plain")));

    // Absolute, partly existing already, with a doubled slash.
    EXPECT_EQ(mk_fpath_dirs(path("a//x/y/f.ts").c_str(), 0755), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("a/x/y")));

    // A regular file on the way: mkdir below it fails with ENOTDIR.
    touch(path("file"));
    errno = 0;
    EXPECT_EQ(mk_fpath_dirs(path("file/sub/f").c_str(), 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(
        has(log_text(), "(ERR) mk_fpath_dirs: mkdir(" + path("file/sub") + ") ERROR(20): "));
}

TEST_F(Util, PickFirstFileTakesFirstExistingEvenUnreadable) {
    const std::string missing = path("missing"), locked = path("locked"), plain = path("plain");
    touch(locked);
    touch(plain);
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    const char *paths[] = {missing.c_str(), nullptr, locked.c_str(), plain.c_str()};
    EXPECT_EQ(pick_first_file(paths, 4), paths[2]);
    EXPECT_EQ(pick_first_file(paths, 2), nullptr);
    EXPECT_EQ(pick_first_file(paths + 3, 1), paths[3]);
}

TEST_F(Util, ReadFileBufReadsWholeFileOrRefuses) {
    std::ofstream(path("ten")) << "0123456789";
    char buf[10];
    EXPECT_EQ(read_file_buf(path("ten").c_str(), buf, sizeof buf), 10);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    EXPECT_EQ(read_file_buf(path("ten").c_str(), buf, 9), -1);
    EXPECT_TRUE(
        has(log_text(), "read_file_buf: file size (10 bytes) is too big for buffer (9 bytes)\n"));
    EXPECT_EQ(read_file_buf(path("missing").c_str(), buf, sizeof buf), -1);
    EXPECT_TRUE(
        has(log_text(), "read_file_buf: open('" + path("missing") + "', 0, 0x1a4) ERROR(2)"));
}

// Saves and restores the dispositions a test changes.
struct saved_actions {
    static constexpr int SIGS[] = {SIGTERM, SIGQUIT, SIGINT, SIGCHLD, SIGHUP, SIGUSR1, SIGUSR2};
    struct sigaction old[std::size(SIGS)];
    saved_actions() {
        for (size_t i = 0; i < std::size(SIGS); ++i) sigaction(SIGS[i], nullptr, &old[i]);
    }
    ~saved_actions() {
        for (size_t i = 0; i < std::size(SIGS); ++i) sigaction(SIGS[i], &old[i], nullptr);
    }
};

bool ignored(int signo) {
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa.sa_handler == SIG_IGN;
}

TEST_F(Util, QuitSignalsSetQuitAndGoodbyeOnlyForTermAndInt) {
    saved_actions keep;
    ASSERT_EQ(handle_quit_signals(on_sigquit), 0);
    struct {
        int signo;
        int goodbye;
    } cases[] = {{SIGQUIT, 0}, {SIGTERM, 1}, {SIGINT, 1}};
    for (auto c : cases) {
        SCOPED_TRACE(c.signo);
        g_quit = 0;
        g_goodbye = 0;
        ASSERT_EQ(raise(c.signo), 0);
        EXPECT_EQ(g_quit, 1);
        EXPECT_EQ(g_goodbye, c.goodbye);
        EXPECT_EQ(g_sigctx, 0);
        EXPECT_TRUE(has(log_text(), "(NRM) QUIT-SIG(" + std::to_string(c.signo) + ")\n"));
    }
    // Once quitting, nothing else may interrupt the shut-down.
    EXPECT_TRUE(ignored(SIGCHLD) && ignored(SIGHUP) && ignored(SIGUSR1));
}

TEST_F(Util, OtherHandlersSetTheirFlags) {
    saved_actions keep;
    struct {
        int signo;
        void (*handler)(int);
        volatile int *flag;
        std::string line;
    } cases[] = {{SIGHUP, on_sighup, &g_hup, "SIGHUP(1)\n"},
                 {SIGUSR1, on_sigusr1, &g_usr1, "SIGUSR1(10)\n"},
                 {SIGUSR2, on_tdbg, &g_tdbg, "T-DBG SIG(12)\n"}};
    for (auto &c : cases) {
        SCOPED_TRACE(c.line);
        ASSERT_EQ(handle_sig(c.signo, c.handler), 0);
        ASSERT_EQ(raise(c.signo), 0);
        EXPECT_EQ(*c.flag, 1);
        EXPECT_EQ(g_sigctx, 0);
        EXPECT_TRUE(has(log_text(), c.line));
    }
    EXPECT_EQ(g_quit, 0);
    EXPECT_EQ(handle_sig(SIGKILL, on_sighup), -1);
    EXPECT_TRUE(has(log_text(), "(ERR) handle_sig: sigaction (signo=9) ERROR(22): "));
}

// The daemon reports from the grandchild through a pipe: its pid, session,
// cwd, umask and whether descriptors 0 and 1 are closed.
TEST_F(Util, DaemonizeDetachesIntoGrandchild) {
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(p[0]);
        if (daemonize() != 0) _exit(3);
        alarm(20);  // alarms are not inherited across fork
        char cwd[64] = "";
        (void)!getcwd(cwd, sizeof cwd);
        const mode_t mask = umask(0);
        char line[256];
        int n = snprintf(line, sizeof line, "%ld %ld %s %o %d %d", long(getpid()), long(getsid(0)),
                         cwd, unsigned(mask), fcntl(0, F_GETFD) == -1, fcntl(1, F_GETFD) == -1);
        (void)!write(p[1], line, size_t(n));
        _exit(0);
    }
    close(p[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    std::string got;
    char buf[256];
    pollfd pfd{p[0], POLLIN, 0};
    // Until the grandchild closes the pipe by exiting, for 20 s at most.
    for (int i = 0; i < 100; ++i) {
        int ready = poll(&pfd, 1, 200);
        if (ready < 0) break;
        if (ready == 0) continue;
        ssize_t n = read(p[0], buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, size_t(n));
    }
    close(p[0]);
    long pid = 0, sid = 0;
    char cwd[64] = "";
    unsigned mask = 1;
    int in_closed = 0, out_closed = 0;
    ASSERT_EQ(sscanf(got.c_str(), "%ld %ld %63s %o %d %d", &pid, &sid, cwd, &mask, &in_closed,
                     &out_closed),
              6)
        << got;
    // The session belongs to the intermediate process, which has exited: the
    // daemon is not a session leader and cannot take a terminal again.
    EXPECT_NE(pid, long(child));
    EXPECT_NE(sid, pid);
    EXPECT_NE(sid, long(child));
    EXPECT_NE(sid, long(getsid(0)));
    EXPECT_STREQ(cwd, "/");
    EXPECT_EQ(mask, 0u);
    EXPECT_EQ(in_closed, 1);
    EXPECT_EQ(out_closed, 1);
}

TEST_F(Util, RunAsUserAndRuntimeHome) {
    EXPECT_EQ(run_as_user("no-such-user-trov"), -1);
    EXPECT_TRUE(has(log_text(), "run_as_user: getpwnam: user no-such-user-trov not found\n"));

    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(goto_runtime_home(dir_.c_str(), "/"), 0);
    EXPECT_EQ(std::filesystem::current_path(), dir_);
    EXPECT_EQ(goto_runtime_home(nullptr, "/"), 0);
    EXPECT_EQ(std::filesystem::current_path(), "/");
    EXPECT_EQ(goto_runtime_home(path("missing").c_str(), "/"), -1);
    EXPECT_TRUE(has(log_text(), "(ERR) chdir(" + path("missing") + ") (param) ERROR(2): "));
    ASSERT_EQ(chdir(cwd), 0);

    // Refused by a directory closed to the new user, the home is next.
    const passwd *pw = getpwuid(65534);
    if (pw == nullptr) GTEST_SKIP() << "no user 65534";
    const std::string home = pw->pw_dir;
    log_set_module_level(LOG_MOD_DEFAULT, LL_DEBUG);
    ASSERT_EQ(mkdir(path("private").c_str(), 0700), 0);
    int rc = in_child([&] {
        if (run_as_user_id(65534, 65534) != 0 || geteuid() != 65534) return 10;
        return goto_runtime_home(path("private").c_str(), "/") == 0 ? 0 : 1;
    });
    EXPECT_TRUE(rc == 0 || rc == 1) << rc;
    EXPECT_TRUE(has(log_text(), "(DBG) goto_runtime_home: EUID(65534) home: " + home + "\n"));
    EXPECT_EQ(rc == 0, access(home.c_str(), X_OK) == 0);
}

TEST_F(Util, CoreLimitAndAffinityInChild) {
    log_set_module_level(LOG_MOD_DEFAULT, LL_INFO);
    int rc = in_child([] {
        rlimit zero{0, RLIM_INFINITY};
        if (prctl(PR_SET_DUMPABLE, 0) != 0 || setrlimit(RLIMIT_CORE, &zero) != 0) return 10;
        rlimit found{};
        if (set_unlimited_core(&found) != 0) return 1;
        rlimit now{};
        getrlimit(RLIMIT_CORE, &now);
        if (found.rlim_cur != 0 || now.rlim_cur != RLIM_INFINITY) return 2;
        if (prctl(PR_GET_DUMPABLE) != 1) return 3;

        cpu_set_t set;
        if (sched_getaffinity(0, sizeof set, &set) != 0) return 11;
        int cpu = 0;
        while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &set)) ++cpu;
        if (pin2cpu(cpu) != 0 || sched_getaffinity(0, sizeof set, &set) != 0) return 4;
        if (CPU_COUNT(&set) != 1 || !CPU_ISSET(cpu, &set)) return 5;
        if (pin2cpu(CPU_SETSIZE) != -1 || pin2cpu(-1) != -1) return 6;
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(
        has(log_text(),
            "(INF) set_unlimited_core: process is currently NOT core-dumpable; will enforce\n"));
}

}  // namespace

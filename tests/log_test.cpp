// Tests of the application log: line layout, filtering, streams, rotation.
#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "timeop.h"

LOG_MODULE(0);

namespace {

std::string slurp(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class Log : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        char tmpl[] = "/tmp/trov-log-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/app.log";
        log_set_modules(g_log, LL_INFO);
        log_set_sections(g_log, LL_SECTION);
        log_timefmt(g_log, TMF_NOTIME);
    }
    void TearDown() override {
        log_close(g_log);
        log_mirror(g_log, nullptr);
        log_default(g_log, stderr);
        log_set_pfx(g_log, nullptr);
        log_set_group(g_log, n64_tag{});
        log_set_pid(g_log, 0);
        log_set_rota(g_log, 0, 0, 0);
        log_timefmt(g_log, TMF_LOCAL);
        log_set_modules(g_log, LL_NORM);
        s_loglevel.sec = -1;
        std::string cmd = "rm -rf " + dir_;
        (void)system(cmd.c_str());
    }
    void open_file() { ASSERT_EQ(log_open_ex(g_log, path_.c_str(), 0), 0); }

    std::string dir_;
    std::string path_;
};

TEST_F(Log, LineCarriesPrefixTagAndGroupWithoutTimeInNoTimeFormat) {
    open_file();
    log_set_pfx(g_log, "edge1");
    log_set_pid(g_log, 4242);  // no time means no pid either
    log_set_group(g_log, mk_tag64("T0001"));
    LOG_INF("%s: hello %d\n", "fn", 7);
    log_set_group(g_log, n64_tag{});
    LOG_ERR("%s: bad\n", "fn");
    EXPECT_EQ(slurp(path_), "edge1 (INF) T0001 fn: hello 7\nedge1 (ERR) fn: bad\n");
}

TEST_F(Log, TimeFormatsShapeTheStamp) {
    open_file();
    log_set_pid(g_log, 99);
    log_timefmt(g_log, TMF_LOCAL);
    LOG_NRM("local\n");
    log_timefmt(g_log, TMF_GMT | TMF_NOUSEC);
    LOG_NRM("gmt\n");
    log_timefmt(g_log, TMF_RAW);
    LOG_NRM("raw\n");
    log_timefmt(g_log, TMF_RAW_MONO);
    LOG_NRM("mono\n");
    std::string text = slurp(path_);
    std::regex want(
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\S+ 99 \\(NRM\\) local\n"
        "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\S+ 99 \\(NRM\\) gmt\n"
        "\\d{9,}\\.\\d{6} 99 \\(NRM\\) raw\n"
        "\\d+\\.\\d{6} 99 \\(NRM\\) mono\n");
    EXPECT_TRUE(std::regex_match(text, want)) << text;
}

TEST_F(Log, ModuleThresholdAndSectionLevelDecideVisibility) {
    open_file();
    LOG_DBG("hidden debug\n");
    LOG_INF("shown info\n");
    log_set_modules(g_log, LL_NORM);
    LOG_INF("hidden info\n");
    LOG_WRN("shown warning\n");

    // Inside a section the message level does not count: the section's
    // level (64) against the module threshold decides.
    log_section_push(&s_loglevel, 3);
    LOG_PNC("hidden panic in section\n");
    log_set_module_level(0, LL_SECTION);
    LOG_DBG("shown debug in section\n");
    log_section_pop(&s_loglevel);
    EXPECT_EQ(s_loglevel.sec, -1);
    EXPECT_EQ(slurp(path_),
              "(INF) shown info\n(WRN) shown warning\n(DBG) shown debug in section\n");
}

TEST_F(Log, PushAndPopRestoreModuleLevels) {
    open_file();
    log_set_module_level(2, LL_WARN);
    log_push_mlevels();
    log_set_modules(g_log, LL_DEBUG);
    log_push_mlevels();  // a second push must not overwrite the saved table
    EXPECT_EQ(g_mod_ll[2], LL_DEBUG);
    log_pop_mlevels();
    EXPECT_EQ(g_mod_ll[2], LL_WARN);
    EXPECT_EQ(g_mod_ll[0], LL_INFO);
    log_set_modules(g_log, LL_ERROR);
    log_pop_mlevels();  // nothing saved any more
    EXPECT_EQ(g_mod_ll[0], LL_ERROR);
}

TEST_F(Log, MirrorGetsEachLineOnceAndNeverDoubles) {
    open_file();
    log_mirror(g_log, log_fp(g_log));
    LOG_INF("once\n");
    std::string mpath = dir_ + "/mirror.log";
    FILE *m = fopen(mpath.c_str(), "w");
    ASSERT_NE(m, nullptr);
    log_mirror(g_log, m);
    LOG_INF("twice\n");
    log_mirror(g_log, nullptr);
    fclose(m);
    EXPECT_EQ(slurp(path_), "(INF) once\n(INF) twice\n");
    EXPECT_EQ(slurp(mpath), "(INF) twice\n");
}

TEST_F(Log, OpeningMovesAnExistingLogAsideByItsModificationTime) {
    { std::ofstream(path_) << "previous run\n"; }
    utimbuf t{1600000000, 1600000000};
    ASSERT_EQ(utime(path_.c_str(), &t), 0);
    open_file();
    LOG_INF("new run\n");
    EXPECT_EQ(slurp(path_ + ".1600000000"), "previous run\n");
    EXPECT_EQ(slurp(path_), "(INF) new run\n");

    // Flag bit 0 appends instead; an empty file is never moved.
    log_close(g_log);
    ASSERT_EQ(log_open_ex(g_log, path_.c_str(), 1), 0);
    LOG_INF("appended\n");
    EXPECT_EQ(slurp(path_), "(INF) new run\n(INF) appended\n");
}

TEST_F(Log, PipeLogFeedsTheCommand) {
    std::string out = dir_ + "/piped.txt";
    std::string cmd = "cat > " + out;
    ASSERT_EQ(log_popen(g_log, cmd.c_str()), 0);
    LOG_NRM("%s: through the pipe\n", "fn");
    EXPECT_EQ(log_rotate(g_log), -1);  // pipes are never rotated
    log_close(g_log);                  // waits for the command
    EXPECT_EQ(slurp(out), "(NRM) fn: through the pipe\n");
}

TEST_F(Log, RotatesBySizeAndKeepsOnlyTheRingOfFiles) {
    open_file();
    log_set_rota(g_log, 64, 1, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 1u);
    LOG_INF("%s\n", std::string(70, 'a').c_str());  // reaches the limit: rotates
    time_t first = time(nullptr);
    // The rotated name carries the second; wait for the next one (bounded).
    for (int i = 0; i < 300 && time(nullptr) == first; ++i) usleep(10000);
    LOG_INF("%s\n", std::string(70, 'b').c_str());

    int rotated = 0;
    bool has_b = false;
    for (time_t t = first - 2; t <= time(nullptr); ++t) {
        std::string name = path_ + "." + std::to_string(t);
        if (access(name.c_str(), F_OK) == 0) {
            ++rotated;
            has_b = slurp(name).find("bbbb") != std::string::npos;
        }
    }
    // One file kept: the second rotation removed the first rotated file.
    EXPECT_EQ(rotated, 1);
    EXPECT_TRUE(has_b);
    // The live file was started afresh and only holds the rotation notice.
    std::string live = slurp(path_);
    EXPECT_EQ(live.find("aaaa"), std::string::npos);
    EXPECT_NE(live.find("previous log rotated to"), std::string::npos);
}

TEST_F(Log, RotationLimitsAndStreamsThatNeverRotate) {
    log_set_rota(g_log, 0, 0, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 16u);
    log_set_rota(g_log, 0, 200, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 16u);
    log_set_rota(g_log, 0, 127, 0);
    EXPECT_EQ(log_rota_maxfiles(g_log), 127u);
    EXPECT_EQ(log_rota_eod(g_log), 0);
    time_t now = time(nullptr);
    log_set_rota(g_log, 1 << 20, 8, now);
    EXPECT_EQ(log_rota_eod(g_log), get_endofday_utime(now));

    // A log on stderr is never rotated, whatever the size limit.
    log_default(g_log, stderr);
    EXPECT_EQ(log_rotate(g_log), 0);  // no name: nothing to rotate

    // A file log without limits keeps growing in place.
    open_file();
    log_set_rota(g_log, 0, 8, 0);
    for (int i = 0; i < 50; ++i) LOG_INF("%s\n", std::string(100, 'x').c_str());
    EXPECT_EQ(slurp(path_).size(), 50u * 107);
}

TEST_F(Log, LevelNamesAndTags) {
    struct Case {
        const char *text;
        int rc;
        int level;
    } cases[] = {{"err", 0, LL_ERROR},     {"ERROR", 0, LL_ERROR}, {"crit", 0, LL_CRIT},
                 {"Critical", 0, LL_CRIT}, {"warn", 0, LL_WARN},   {"norm", 0, LL_NORM},
                 {"normal", 0, LL_NORM},   {"info", 0, LL_INFO},   {"dbg", 0, LL_DEBUG},
                 {"sect", 0, LL_SECTION},  {"panic", -1, 99},      {"verbose", -1, 99}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        int level = 99;
        EXPECT_EQ(match_log_level(c.text, &level), c.rc);
        EXPECT_EQ(level, c.level);
    }
    EXPECT_STREQ(log_level_str(LL_CRIT), "ctitical");
    EXPECT_STREQ(log_level_str(7), "??");
    EXPECT_STREQ(get_level_tag(LL_PANIC), "(PNC)");
    EXPECT_STREQ(get_level_tag(5), "( ? )");
}

TEST_F(Log, LevelFromEnvironment) {
    unsetenv("TROV_TEST_LVL");
    EXPECT_EQ(read_level_env("TROV_TEST_LVL", 5), 5);
    setenv("TROV_TEST_LVL", "2", 1);
    EXPECT_EQ(read_level_env("TROV_TEST_LVL", 5), 2);
    setenv("TROV_TEST_LVL", "0", 1);
    EXPECT_EQ(read_level_env("TROV_TEST_LVL", 5), 0);
    setenv("TROV_TEST_LVL", "loud", 1);
    EXPECT_EQ(read_level_env("TROV_TEST_LVL", 5), 5);
    unsetenv("TROV_TEST_LVL");
}

TEST_F(Log, OverlongMessageIsCutButKeepsItsLineEnd) {
    open_file();
    LOG_INF("%s\n", std::string(3000, 'z').c_str());
    std::string text = slurp(path_);
    EXPECT_EQ(text.size(), LOG_LINE_SIZE - 1);
    EXPECT_EQ(text.back(), '\n');
}

TEST(LogDeathTest, AssertionLogsBacktraceAndAborts) {
    log_default(g_log, stderr);
    EXPECT_DEATH(XASSERT(1 + 1 == 3), "ASSERT at:\n1 \\+ 1 == 3 .*==");
    EXPECT_DEATH(log_abort_here(), "Aborting at:\n#0: ");
}

}  // namespace

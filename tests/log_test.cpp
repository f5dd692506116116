// Tests of the application log: line layout, filtering, streams, rotation.
#include "log.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "daemon.h"
#include "timeop.h"

LOG_MODULE(0);

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path &path) {
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

class Log : public ::testing::Test {
   protected:
    void SetUp() override {
        glog_init("tst");
        ASSERT_NE(dir_ = scratch_dir("log"), "");
        path_ = dir_ + "/app.log";
        log_set_modules(g_log, LL_INFO);
        log_set_sections(g_log, LL_SECTION);
        log_timefmt(g_log, TMF_NOTIME);
    }
    void TearDown() override {
        log_close(g_log);
        log_set_rota(g_log, 0, 0, 0);
        log_timefmt(g_log, TMF_LOCAL);
        log_set_modules(g_log, LL_NORM);
        fs::remove_all(dir_);
    }
    std::string dir_, path_;
};

TEST_F(Log, LayoutFollowsTheTimeFormatAndLevelsDecideVisibility) {
    ASSERT_EQ(log_open_ex(g_log, path_.c_str(), 0), 0);
    log_set_pfx(g_log, "edge1");
    log_set_pid(g_log, 99);  // no time means no pid either
    log_set_group(g_log, mk_tag64("T0001"));
    LOG_INF("%s: hello %d\n", "fn", 7);
    log_set_group(g_log, n64_tag{});
    log_set_pfx(g_log, nullptr);
    LOG_DBG("hidden debug\n");
    // A message must fit the line whole (2047 bytes, "\n" included): one byte
    // more and it is dropped with a word on stderr, never cut.
    const size_t fits = LOG_LINE_SIZE - 1 - 6 - 2;  // after "(INF) ", with room to spare
    LOG_INF("%s\n", std::string(fits, 'z').c_str());
    testing::internal::CaptureStderr();
    LOG_INF("%s\n", std::string(fits + 1, 'y').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr().rfind("fprintf/vfprintf: ", 0), 0u);
    log_set_modules(g_log, LL_NORM);
    LOG_INF("hidden info\n");
    // In a section the section's level (64) counts against the module threshold.
    log_section_push(&s_loglevel, 3);
    LOG_PNC("hidden panic in section\n");
    log_set_module_level(0, LL_SECTION);
    LOG_DBG("shown debug in section\n");
    log_section_pop(&s_loglevel);
    log_timefmt(g_log, TMF_LOCAL);
    LOG_ERR("local\n");
    log_set_pid(g_log, 0);
    const std::string got = slurp(path_);
    const std::string cut = std::to_string(fits);
    EXPECT_TRUE(std::regex_match(
        got, std::regex("edge1 \\(INF\\) T0001 fn: hello 7\n\\(INF\\) z{" + cut +
                        "}\n\\(DBG\\) shown debug in section\n\\d{4}-\\d\\d-\\d\\d "
                        "\\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\S+ 99 \\(ERR\\) local\n")))
        << got;
    EXPECT_STREQ(log_level_str(LL_CRIT), "ctitical");  // kept: tooling matches on it
}

TEST_F(Log, OpeningMovesTheOldLogAsideAndStreamsDoNotDoubleLines) {
    std::ofstream(path_) << "previous run\n";
    utimbuf t{1600000000, 1600000000};
    ASSERT_EQ(utime(path_.c_str(), &t), 0);
    ASSERT_EQ(log_open_ex(g_log, path_.c_str(), 0), 0);
    log_mirror(g_log, log_fp(g_log));  // the same stream
    LOG_INF("once\n");
    FILE *m = fopen((dir_ + "/mirror").c_str(), "w");
    log_mirror(g_log, m);
    LOG_INF("twice\n");
    log_mirror(g_log, nullptr);
    fclose(m);
    EXPECT_EQ(slurp(path_ + ".1600000000"), "previous run\n");
    EXPECT_EQ(slurp(path_), "(INF) once\n(INF) twice\n");
    EXPECT_EQ(slurp(dir_ + "/mirror"), "(INF) twice\n");
    log_close(g_log);

    ASSERT_EQ(log_popen(g_log, ("cat > " + dir_ + "/piped").c_str()), 0);
    LOG_NRM("%s: through the pipe\n", "fn");
    EXPECT_EQ(log_rotate(g_log), -1);  // pipes are never rotated
    log_close(g_log);                  // waits for the command
    EXPECT_EQ(slurp(dir_ + "/piped"), "(NRM) fn: through the pipe\n");
}

TEST_F(Log, RotatesBySizeAndKeepsOnlyTheRingOfFiles) {
    log_set_rota(g_log, 0, 200, 0);  // out of range: the default
    EXPECT_EQ(log_rota_maxfiles(g_log), 16u);
    ASSERT_EQ(log_open_ex(g_log, path_.c_str(), 0), 0);
    for (int i = 0; i < 20; ++i) LOG_INF("%s\n", std::string(100, 'x').c_str());  // no limit
    log_set_rota(g_log, 64, 1, 0);
    LOG_INF("%s\n", std::string(70, 'a').c_str());  // past the limit: rotates
    const time_t first = time(nullptr);
    // The rotated name carries the second; wait for the next one (bounded).
    for (int i = 0; i < 300 && time(nullptr) == first; ++i) usleep(10000);
    LOG_INF("%s\n", std::string(70, 'b').c_str());
    // One file kept: the second rotation removed the first rotated file.
    std::vector<fs::path> rotated;
    for (const auto &e : fs::directory_iterator(dir_))
        if (e.path() != path_) rotated.push_back(e.path());
    ASSERT_EQ(rotated.size(), 1u);
    const std::string notice = "\\(NRM\\) \\[tst\\]: previous log rotated to \\[" + path_;
    EXPECT_TRUE(std::regex_match(
        slurp(rotated[0]), std::regex(notice + "\\.\\d+\\] tm=\\d+, idx=0\n\\(INF\\) b{70}\n")));
    log_close(g_log);  // back on stderr, which is never rotated
    EXPECT_EQ(log_rotate(g_log), -1);
}

}  // namespace

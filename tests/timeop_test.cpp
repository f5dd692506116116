// Tests of the time operations and the timeout registry.
#include "timeop.h"

#include <gtest/gtest.h>

#include <string>

#include "tmout.h"

namespace {

TEST(Timeop, DeadlinesSpansAndTexts) {
    // Exactly at start + span is not timed out; one nanosecond later is.
    timespec start{100, 999999999}, span{0, 1}, now{101, 0}, none{7, 7};
    EXPECT_EQ(timed_out_ext(&start, &span, &now), 0);
    now.tv_nsec = 1;
    EXPECT_EQ(timed_out_ext(&start, &span, &now), 1);
    ms2timespec(TMOUT_NONE, &none);  // nothing locked: the wait has no limit
    EXPECT_TRUE(none.tv_sec == -1 && none.tv_nsec == 0);
    // A count span never set expires at once; across a wrap one step counts less.
    tspan last{TSPAN_COUNT, {}}, tmo{TSPAN_COUNT, {.count = 10}};
    set_tspan(&last, nullptr, 0);
    EXPECT_TRUE(tspan_timed_out(&last, &tmo, nullptr, 5));
    set_tspan(&last, nullptr, 0xFFFFFFFEu);
    EXPECT_FALSE(tspan_timed_out(&last, &tmo, nullptr, 8));
    EXPECT_TRUE(tspan_timed_out(&last, &tmo, nullptr, 9));

    char buf[64];
    ASSERT_EQ(mk_timespan(90061, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "01d 01h:01m:01s");
    ASSERT_EQ(mk_timespan(59, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "00h:00m:59s");
    const int n = mk_timestr(&now, TMF_LOCAL, buf, sizeof buf);
    testing::internal::CaptureStderr();
    EXPECT_EQ(mk_timestr(&now, TMF_LOCAL, buf, size_t(n)), -1);  // one byte short
    EXPECT_NE(testing::internal::GetCapturedStderr().find("timestamp buffer needs"),
              std::string::npos);
}

TEST(Tmout, FirstLockerWinsAndMinimumFollowsReleases) {
    tmout_registry r{};
    reg_init_timeout(&r);
    reg_set_timeout(&r, 1, 5000);
    reg_set_timeout(&r, 1, 100);  // a held key keeps its first period
    EXPECT_EQ(reg_min_timeout(&r), 5000);
    reg_rm_timeout(&r, 1);
    EXPECT_EQ(reg_min_timeout(&r), 5000);
    reg_rm_timeout(&r, 1);
    EXPECT_EQ(reg_min_timeout(&r), TMOUT_NONE);
    reg_set_timeout(&r, 3, 2000);
    reg_set_timeout(&r, 1, 5000);
    EXPECT_EQ(reg_min_timeout(&r), 2000);
    reg_rm_timeout(&r, 3);
    EXPECT_EQ(reg_min_timeout(&r), 5000);
    EXPECT_DEATH(reg_rm_timeout(&r, 4), "ASSERT at");  // never locked
}

}  // namespace

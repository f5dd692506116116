// Tests of the time operations and the timeout registry.
#include "timeop.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "rqs.h"
#include "tmout.h"

namespace {

TEST(Timeop, MillisecondConversionsAtTheirBounds) {
    struct Case {
        int64_t ms;
        long sec;
        long nsec;
    } cases[] = {{-5, -1, 0},     {-9999, -1, 0},       {0, 0, 0},
                 {1, 0, 1000000}, {1500, 1, 500000000}, {5000, 5, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.ms);
        timespec ts{};
        ms2timespec(c.ms, &ts);
        EXPECT_EQ(ts.tv_sec, c.sec);
        EXPECT_EQ(ts.tv_nsec, c.nsec);
    }
    timespec none{-1, 999999999};
    EXPECT_EQ(tms2ms(&none), -1);
    timespec t{2, 345678901};
    EXPECT_EQ(tms2ms(&t), 2345);
}

TEST(Timeop, DifferencesBorrowAndIgnoreOrder) {
    timespec a{10, 900000000}, b{12, 100000000}, d{};
    calc_timespan(&a, &b, &d);
    EXPECT_EQ(d.tv_sec, 1);
    EXPECT_EQ(d.tv_nsec, 200000000);
    tspec_diff(&b, &a, &d);
    EXPECT_EQ(d.tv_sec, 1);
    EXPECT_EQ(d.tv_nsec, 200000000);
    EXPECT_EQ(diff_ms(&a, &b), 1200);
    EXPECT_EQ(diff_ms(&b, &a), 1200);
    // A null operand is the current monotonic time.
    timespec now{};
    set_now(&now);
    now.tv_sec -= 3;
    EXPECT_GE(diff_ms(&now, nullptr), 3000);
    EXPECT_LT(diff_ms(nullptr, &now), 60000);
}

TEST(Timeop, DeadlineEqualIsNotTimedOutOneNanosecondLaterIs) {
    timespec start{100, 999999999}, span{0, 1}, now{101, 0};
    EXPECT_EQ(timed_out_ext(&start, &span, &now), 0);
    now.tv_nsec = 1;
    EXPECT_EQ(timed_out_ext(&start, &span, &now), 1);
    // The loop time is the reference when none is given.
    *rqs_now_ref() = timespec{50, 0};
    timespec s2{49, 500000000}, sp2{0, 500000000};
    EXPECT_EQ(timed_out(&s2, &sp2), 0);
    rqs_now_ref()->tv_nsec = 1;
    EXPECT_EQ(timed_out(&s2, &sp2), 1);
    timespec old{0, 0}, day{86400, 0};
    EXPECT_EQ(timed_out_real(&old, &day), 1);
}

TEST(Timeop, CountSpansExpireAtOnceWhenUnsetAndSurviveWrap) {
    tspan last{TSPAN_COUNT, {}}, tmo{TSPAN_COUNT, {}};
    tmo.val.count = 10;
    set_tspan(&last, nullptr, 0);
    EXPECT_TRUE(tspan_timed_out(&last, &tmo, nullptr, 5));
    set_tspan(&last, nullptr, 100);
    EXPECT_FALSE(tspan_timed_out(&last, &tmo, nullptr, 109));
    EXPECT_TRUE(tspan_timed_out(&last, &tmo, nullptr, 110));
    // The counter wrapped: distance counted through zero.
    set_tspan(&last, nullptr, 0xFFFFFFFEu);
    EXPECT_FALSE(tspan_timed_out(&last, &tmo, nullptr, 2));
    EXPECT_TRUE(tspan_timed_out(&last, &tmo, nullptr, 9));
}

TEST(Timeop, TimeSpansAndDates) {
    char buf[32];
    ASSERT_EQ(mk_timespan(90061, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "01d 01h:01m:01s");
    ASSERT_EQ(mk_timespan(59, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "00h:00m:59s");
    EXPECT_EQ(mk_timespan(90061, buf, 8), -1);
    ASSERT_EQ(mk_gmt_date(0, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "1970-01-01");
    EXPECT_EQ(mk_gmt_date(0, buf, 10), -1);
    time_t t = 1700000000;
    time_t eod = get_endofday_utime(t);
    tm a{}, b{};
    localtime_r(&t, &a);
    localtime_r(&eod, &b);
    EXPECT_EQ(b.tm_mday, a.tm_mday);
    EXPECT_EQ(b.tm_hour * 3600 + b.tm_min * 60 + b.tm_sec, 86399);
}

TEST(Timeop, TimeStringsRoundTripAndRefuseSmallBuffers) {
    timespec ts{1700000000, 123456789};
    char buf[64];
    int n = mk_timestr(&ts, TMF_RAW, buf, sizeof buf);
    EXPECT_STREQ(buf, "1700000000.123456");
    EXPECT_EQ(n, 17);
    EXPECT_EQ(mk_timestr(&ts, TMF_RAW, buf, 17), -1);

    n = mk_timestr(&ts, TMF_LOCAL, buf, sizeof buf);
    ASSERT_GT(n, 26);
    std::string text = std::string(buf) + " ";
    timespec back{};
    EXPECT_EQ(scan_log_time(text.c_str(), &back, TMF_LOCAL), 7);
    EXPECT_EQ(back.tv_sec, ts.tv_sec);
    EXPECT_EQ(back.tv_nsec, 123456000);

    n = mk_timestr(&ts, TMF_LOCAL | TMF_NOUSEC, buf, sizeof buf);
    text = std::string(buf) + " ";
    EXPECT_EQ(scan_log_time(text.c_str(), &back, TMF_NOUSEC), 6);
    EXPECT_EQ(back.tv_sec, ts.tv_sec);
    EXPECT_EQ(scan_log_time("garbage ", &back, TMF_LOCAL), -1);

    // One byte short: refused, with the complaint on stderr.
    testing::internal::CaptureStderr();
    EXPECT_EQ(mk_timestr(&ts, TMF_GMT, buf, size_t(n)), -1);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("timestamp buffer needs"), std::string::npos);
}

TEST(Tmout, FirstLockerWinsAndMinimumFollowsReleases) {
    tmout_registry r{};
    reg_init_timeout(&r);
    EXPECT_EQ(reg_min_timeout(&r), TMOUT_NONE);
    reg_set_timeout(&r, 1, 5000);
    reg_set_timeout(&r, 1, 100);  // held key: the first period stays
    EXPECT_EQ(reg_get_timeout(&r, 1), 5000);
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
    EXPECT_EQ(reg_get_timeout(&r, 3), 0);
}

TEST(TmoutDeathTest, MisuseIsFatal) {
    tmout_registry r{};
    reg_init_timeout(&r);
    EXPECT_DEATH(reg_rm_timeout(&r, 4), "ASSERT at");
    EXPECT_DEATH(reg_set_timeout(&r, 32, 10), "ASSERT at");
    EXPECT_DEATH(reg_set_timeout(&r, 0, -10000), "ASSERT at");
}

}  // namespace

// strops tests: the checked copy, trimming, hexadecimal conversion,
// tracking tags and numbers with size suffixes.
#include "strops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Strops, TextHelpersStayInsideTheirBounds) {
    char buf[32];
    EXPECT_EQ(str_copy(buf, 4, "abc"), 0);
    EXPECT_EQ(str_copy(buf, 4, "abcd"), 34);  // refused, not cut
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(bin_to_dhex("\x00\xab\xff", 3, buf, 7, ":"), 6u);  // no room for a third item
    EXPECT_STREQ(buf, "00:ab:");
    EXPECT_EQ(hex_to_bin("aBzz1g5", buf, 4), 3u);  // not a digit: 0; a lone last one: no byte
    EXPECT_EQ(memcmp(buf, "\xab\x00\x10", 3), 0);
    const std::pair<std::string, size_t> cases[] = {
        // text, characters cut
        {"order\r\n", 2}, {"order\n\n\n", 2}, {"order\n\r", 2}, {"\n", 1}, {"", 0}, {"a\rb\n", 1}};
    for (const auto &[in, cut] : cases) {
        ASSERT_EQ(str_copy(buf, sizeof buf, in), 0);
        chomp(buf);
        EXPECT_EQ(buf, in.substr(0, in.size() - cut)) << in;
    }
}

TEST(Strops, TrackingTagsRunToMaxThenRepeatFromOne) {
    size_t counter = 0;
    n64_tag first, tag;
    memset(&first, 'Q', sizeof first);
    mk_trk_tag(&counter, &first, 'u', 10000);
    EXPECT_EQ(first.num, mk_tag64("u1").num);  // stale bytes cleared
    for (int i = 2; i <= 10000; ++i) mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.str, "u10000");
    mk_trk_tag(&counter, &tag, 'u', 10000);  // the 10001st
    EXPECT_EQ(tag.num, first.num);
    counter = 99999;
    EXPECT_DEATH(mk_trk_tag(&counter, &tag, 'u', 1000000), "ASSERT at");
}

TEST(Strops, NumbersWithSizeSuffixes) {
    const std::pair<std::string, double> cases[] = {
        // the value read, or the refusal's code
        {"2M", 2097152},        {"2mB", 2097152},     {"1kb", 1024},       {"3G", 3221225472.0},
        {"1.5K", 1536},         {"-2M", -2097152},    {" 42", 42},         {"0.25", 0.25},
        {"2X", A2N_SUFFIX},     {"2Mbx", A2N_SUFFIX}, {"1e3", A2N_SUFFIX}, {"", A2N_CONVERT},
        {"1.2.3K", A2N_CONVERT}};
    for (const auto &[text, want] : cases) {
        double v = -7;
        int rc = a2double(text.c_str(), &v);
        EXPECT_EQ(rc == 0 ? v : rc, want) << text;
        EXPECT_TRUE(rc == 0 || v == -7) << text;
    }
    const std::string num63 = std::string(62, '0') + "1K";  // 63 characters before the suffix
    double d = 0;
    EXPECT_EQ(a2double(num63.c_str(), &d), 0);
    EXPECT_EQ(a2double(("0" + num63).c_str(), &d), A2N_TOO_LONG);
    int64_t i64 = 0;
    EXPECT_EQ(a2int64("-1.9", &i64), 0);
    EXPECT_EQ(i64, -1);  // truncated toward zero
}

}  // namespace

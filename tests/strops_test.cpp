// strops tests: bounded copies, tracking tags, trimming, hexadecimal
// conversion and numbers with size suffixes.
#include "strops.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(Strops, StrCopyRefusesTextThatLeavesNoRoomForTheTerminator) {
    struct {
        const char *src;
        size_t size;
        int rc;
        const char *out;
    } cases[] = {
        {"abc", 4, 0, "abc"},  // exactly fits with its terminator
        {"abcd", 4, 34, ""},   // one too long: refused, not cut
        {"", 1, 0, ""},       {"x", 1, 34, ""}, {"hello world", 63, 0, "hello world"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.src) + " into " + std::to_string(c.size));
        char buf[64];
        memset(buf, 'Z', sizeof buf);
        EXPECT_EQ(str_copy(buf, c.size, c.src), c.rc);
        EXPECT_STREQ(buf, c.out);
        EXPECT_EQ(buf[c.size], 'Z');  // nothing written past the declared size
    }
}

TEST(Strops, StrCopyCutKeepsSizeMinusOneAndSaysSo) {
    char buf[8];
    memset(buf, 'Z', sizeof buf);
    EXPECT_TRUE(str_copy_cut(buf, 5, "abcdefgh"));
    EXPECT_STREQ(buf, "abcd");
    EXPECT_EQ(buf[5], 'Z');

    EXPECT_FALSE(str_copy_cut(buf, 5, "abcd"));
    EXPECT_STREQ(buf, "abcd");

    EXPECT_TRUE(str_copy_cut(buf, 1, "a"));
    EXPECT_STREQ(buf, "");

    // A view that is not terminated where it ends.
    EXPECT_FALSE(str_copy_cut(buf, sizeof buf, std::string_view("abcdef", 3)));
    EXPECT_STREQ(buf, "abc");
}

TEST(Strops, ZeroSizeDestinationIsFatal) {
    char buf[4];
    EXPECT_DEATH((void)str_copy(buf, 0, "a"), "ASSERT at");
    EXPECT_DEATH((void)str_copy_cut(buf, 0, "a"), "ASSERT at");
}

TEST(Strops, TrackingTagsRunToMaxThenRepeatFromOne) {
    size_t counter = 0;
    n64_tag first{};
    n64_tag tag{};
    mk_trk_tag(&counter, &first, 'u', 10000);
    EXPECT_STREQ(first.str, "u1");
    for (int i = 2; i <= 10000; ++i) mk_trk_tag(&counter, &tag, 'u', 10000);
    EXPECT_STREQ(tag.str, "u10000");
    EXPECT_EQ(counter, 10000u);

    mk_trk_tag(&counter, &tag, 'u', 10000);  // the 10001st
    EXPECT_EQ(tag.num, first.num);
    EXPECT_EQ(counter, 1u);
}

TEST(Strops, TrackingTagClearsStaleBytes) {
    size_t counter = 4;
    n64_tag tag;
    memset(&tag, 'Q', sizeof tag);
    mk_trk_tag(&counter, &tag, 'T', 10000);
    EXPECT_STREQ(tag.str, "T5");
    for (size_t i = 2; i < sizeof tag.str; ++i) EXPECT_EQ(tag.str[i], '\0') << i;
}

TEST(Strops, TrackingCounterOfSixDigitsIsFatal) {
    size_t counter = 99999;
    n64_tag tag{};
    EXPECT_DEATH(mk_trk_tag(&counter, &tag, 'u', 1000000), "ASSERT at");
}

TEST(Strops, ChompCutsAtMostTwoLineEnds) {
    struct {
        const char *in;
        const char *out;
    } cases[] = {
        {"order\r\n", "order"},
        {"order\n\n\n", "order\n"},
        {"order\n\r", "order"},
        {"order\r", "order"},
        {"\n", ""},
        {"", ""},
        {"a\rb\n", "a\rb"},
        {"a \n", "a "},
        {"plain", "plain"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        char buf[32];
        ASSERT_EQ(str_copy(buf, sizeof buf, c.in), 0);
        chomp(buf);
        EXPECT_STREQ(buf, c.out);
    }
}

TEST(Strops, BinToDhexWritesWholeItemsOnly) {
    const unsigned char bytes[] = {0x00, 0xab, 0xff};
    struct {
        size_t size;
        const char *sep;
        size_t rc;
        const char *out;
    } cases[] = {
        {32, ":", 9, "00:ab:ff:"}, {32, nullptr, 6, "00abff"},
        {7, ":", 6, "00:ab:"},  // a third item would leave no room for the terminator
        {6, ":", 3, "00:"},        {7, nullptr, 6, "00abff"},
        {6, nullptr, 4, "00ab"},   {3, nullptr, 2, "00"},
        {2, nullptr, 0, ""},       {1, nullptr, 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + (c.sep ? " sep" : " nosep"));
        char buf[32];
        memset(buf, 'Z', sizeof buf);
        EXPECT_EQ(bin_to_dhex(bytes, sizeof bytes, buf, c.size, c.sep), c.rc);
        EXPECT_STREQ(buf, c.out);
        EXPECT_EQ(buf[c.size - 1], '\0');
    }
    char untouched = 'Z';
    EXPECT_EQ(bin_to_dhex(bytes, sizeof bytes, &untouched, 0, nullptr), 0u);
    EXPECT_EQ(untouched, 'Z');
}

TEST(Strops, HexToBinReadsPairsAndCountsOthersAsZero) {
    struct {
        const char *text;
        size_t max;
        std::string bytes;
    } cases[] = {
        {"00aBFf", 16, std::string("\x00\xab\xff", 3)},
        {"zz1g", 16, std::string("\x00\x10", 2)},
        {"0102030405", 2, std::string("\x01\x02", 2)},
        {"abc", 16, std::string("\xab", 1)},  // a lone last digit makes no byte
        {"", 16, std::string()},
        {"ff", 0, std::string()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        unsigned char out[16];
        memset(out, 0x5a, sizeof out);
        size_t n = hex_to_bin(c.text, out, c.max);
        ASSERT_EQ(n, c.bytes.size());
        EXPECT_EQ(memcmp(out, c.bytes.data(), n), 0);
        EXPECT_EQ(out[n], 0x5a);  // nothing beyond the count
    }
}

TEST(Strops, NumbersWithSizeSuffixes) {
    const std::string long_num = std::string(63, '0') + "1";
    const std::string max_num = std::string(62, '0') + "1";
    struct {
        std::string text;
        int rc;
        double value;
    } cases[] = {
        {"2M", 0, 2097152},
        {"2Mb", 0, 2097152},
        {"2mB", 0, 2097152},
        {"1K", 0, 1024},
        {"1kb", 0, 1024},
        {"3G", 0, 3221225472.0},
        {"3gb", 0, 3221225472.0},
        {"1.5K", 0, 1536},
        {"-2M", 0, -2097152},
        {"42", 0, 42},
        {" 42", 0, 42},
        {"42 ", 0, 42},
        {"0.25", 0, 0.25},
        {"2X", A2N_SUFFIX, 0},
        {"2Mbx", A2N_SUFFIX, 0},
        {"2KM", A2N_SUFFIX, 0},
        {"1e3", A2N_SUFFIX, 0},  // the exponent letter is taken as a suffix
        {"abc", A2N_SUFFIX, 0},
        {"", A2N_CONVERT, 0},
        {"M", A2N_CONVERT, 0},
        {"1-2", A2N_CONVERT, 0},
        {"1.2.3K", A2N_CONVERT, 0},
        {"1" + std::string(400, '0'), A2N_CONVERT, 0},
        {long_num + "K", A2N_TOO_LONG, 0},
        {max_num + "K", 0, 1024},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        double v = -7;
        EXPECT_EQ(a2double(c.text.c_str(), &v), c.rc);
        EXPECT_EQ(v, c.rc == 0 ? c.value : -7);
    }
}

TEST(Strops, IntegerReadersCheckTheirRange) {
    struct {
        const char *text;
        int rc64;
        int64_t v64;
        int rcsz;
        size_t vsz;
    } cases[] = {
        {"8G", 0, 8589934592LL, 0, 8589934592ULL},
        {"1.9", 0, 1, 0, 1},  // truncated toward zero
        {"-1.9", 0, -1, A2N_RANGE, 0},
        {"-9223372036854775808", 0, INT64_MIN, A2N_RANGE, 0},
        {"9223372036854775807", A2N_RANGE, 0, 0, 9223372036854775808ULL},  // 2^63 as a double
        {"10000000000000000000", A2N_RANGE, 0, 0, 10000000000000000000ULL},
        {"17179869184G", A2N_RANGE, 0, A2N_RANGE, 0},  // 2^64
        {"2Q", A2N_SUFFIX, 0, A2N_SUFFIX, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        int64_t v64 = 77;
        size_t vsz = 77;
        EXPECT_EQ(a2int64(c.text, &v64), c.rc64);
        EXPECT_EQ(v64, c.rc64 == 0 ? c.v64 : 77);
        EXPECT_EQ(a2size(c.text, &vsz), c.rcsz);
        EXPECT_EQ(vsz, c.rcsz == 0 ? c.vsz : 77u);
    }
}

TEST(Strops, NullNumberTextIsFatal) {
    double d = 0;
    EXPECT_DEATH((void)a2double(nullptr, &d), "ASSERT at");
}

}  // namespace

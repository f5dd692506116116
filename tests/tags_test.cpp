// Tests of the tag builders: the text and the number of a tag must agree,
// and the builders must stay usable at compile time, where the log groups
// and object kinds are made.
#include "tags.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// Built in constant expressions, as the daemon's globals are. Reading the
// union's number before it was written is refused here by clang.
constexpr n64_tag GROUP = mk_tag64("TRV");
static_assert(GROUP.num == (uint64_t('T') | uint64_t('R') << 8 | uint64_t('V') << 16));
static_assert(mk_tag64("").num == 0);
static_assert(mk_tag("DOW").num == (uint32_t('D') | uint32_t('O') << 8 | uint32_t('W') << 16));

TEST(Tags, Tag64TextMatchesNumberAndIsCutAtSeven) {
    struct Case {
        const char *text;
        const char *shown;
    };
    const Case cases[] = {
        {"TRV", "TRV"},           {"uDl", "uDl"},
        {"T0001", "T0001"},       {"", ""},
        {"ABCDEFG", "ABCDEFG"},   {"ABCDEFGHIJ", "ABCDEFG"},
        {"\xff\x01", "\xff\x01"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        n64_tag t = mk_tag64(c.text);
        EXPECT_EQ(t.str[7], '\0');
        EXPECT_STREQ(t.str, c.shown);
        uint64_t want = 0;
        for (size_t i = 0; i < strlen(c.shown); ++i)
            want |= uint64_t(static_cast<unsigned char>(c.shown[i])) << (8 * i);
        EXPECT_EQ(t.num, want);
    }
}

}  // namespace

// Tag builders: text and number agree, also in constant expressions.
#include "tags.h"

#include <gtest/gtest.h>

namespace {

static_assert(mk_tag("DOW").num == (uint32_t('D') | uint32_t('O') << 8 | uint32_t('W') << 16));
static_assert(mk_tag64("TRV").num == (uint64_t('T') | uint64_t('R') << 8 | uint64_t('V') << 16));

TEST(Tags, Tag64IsCutAtSevenAndTakesBytesUnsigned) {
    n64_tag t = mk_tag64("ABCDEFGHIJ");
    EXPECT_STREQ(t.str, "ABCDEFG");
    EXPECT_EQ(t.num, 0x47464544434241u);
    EXPECT_EQ(mk_tag64("\xff\x01").num, 0x01ffu);
}

}  // namespace

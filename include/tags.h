// tags: the 4- and 8-byte symbols that name object kinds, states and
// tracking labels. Text and number at once, so they print with "%3s" and
// compare as one integer.
#pragma once

#include <cstdint>

union n32_tag {
    char str[4];
    uint32_t num;
};

union n64_tag {
    char str[8];
    uint64_t num;
};

static_assert(sizeof(n32_tag) == 4 && sizeof(n64_tag) == 8);

// "DOW" -> 'D' | 'O' << 8 | 'W' << 16; the fourth byte stays zero so the
// text is terminated.
constexpr n32_tag mk_tag(const char (&s)[4]) {
    n32_tag t{};
    t.num = uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16;
    return t;
}

// Same for two-character tags such as "RD" (third byte zero).
constexpr n32_tag mk_tag(const char (&s)[3]) {
    n32_tag t{};
    t.num = uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8;
    return t;
}

// A tag of up to 7 characters for log groups ("TRV", "uDl", "T0001"). The
// number is built aside and stored once: `t{}` makes `str` the live member,
// and reading `num` before writing it is not allowed in a constant
// expression (clang refuses it; g++ lets it pass).
constexpr n64_tag mk_tag64(const char *s) {
    uint64_t v = 0;
    for (int i = 0; i < 7 && s[i] != '\0'; ++i) v |= uint64_t(uint8_t(s[i])) << (8 * i);
    n64_tag t{};
    t.num = v;
    return t;
}

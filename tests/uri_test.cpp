// Tests of the URI helpers: splitting, host/port, endpoint split, percent
// coding. Inputs that must not be read past live in exact-size heap copies
// so the sanitizer build catches any overrun.
#include "uri.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// An unterminated heap copy of exactly s.size() bytes.
std::unique_ptr<char[]> exact(const std::string &s) {
    auto p = std::make_unique<char[]>(s.size());
    memcpy(p.get(), s.data(), s.size());
    return p;
}

std::string part(const char *p, size_t n) { return p != nullptr ? std::string(p, n) : "<null>"; }

TEST(Uri, ParseSplitsSchemeAuthorityPathQuery) {
    struct Case {
        const char *text;
        int rc;
        const char *scheme, *auth, *path, *query;
    };
    const Case cases[] = {
        {"c:/x", 0, "<null>", "<null>", "c:/x", "<null>"},  // drive letter, never a scheme
        {"ab:/x", 0, "<null>", "<null>", "ab:/x", "<null>"},
        {"http://u@h/p", 0, "http", "u", "h/p", "<null>"},
        {"http://h/p", 0, "http", "<null>", "h/p", "<null>"},
        {"http://@h/p", 0, "http", "<null>", "h/p", "<null>"},
        {"http://h/a?b/", 0, "http", "<null>", "h/a?b/", "<null>"},
        {"http://h/a?x=1", 0, "http", "<null>", "h/a", "x=1"},
        {"http://h/a?b?c", 0, "http", "<null>", "h/a?b", "c"},
        {"http://h/a?", 0, "http", "<null>", "h/a", "<null>"},
        {"  \t/x?y", 0, "<null>", "<null>", "x", "y"},
        {"/", 0, "<null>", "<null>", "<null>", "<null>"},
        {"", 0, "<null>", "<null>", "<null>", "<null>"},
        {"?q", 0, "<null>", "<null>", "<null>", "q"},
        {"http://", -1, "", "", "", ""},
        {"http://u@", -1, "", "", "", ""},
        {"udp://239.1.1.1:5000", 0, "udp", "<null>", "239.1.1.1:5000", "<null>"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        uri_layout lo{};
        ASSERT_EQ(uri_parse(c.text, &lo), c.rc);
        if (c.rc != 0) continue;
        EXPECT_EQ(part(lo.scheme, lo.s_len), c.scheme);
        EXPECT_EQ(part(lo.authority, lo.a_len), c.auth);
        EXPECT_EQ(part(lo.path, lo.p_len), c.path);
        EXPECT_EQ(part(lo.query, lo.q_len), c.query);
        EXPECT_EQ(uri_parse(c.text, nullptr), 0);
    }
}

TEST(Uri, BoundedParseStopsAtLengthOfUnterminatedText) {
    std::string text = "/a/b?q=1 HTTP/1.1";
    auto buf = exact(text);
    uri_layout lo{};
    ASSERT_EQ(uri_parse_n(buf.get(), 8, &lo), 0);
    EXPECT_EQ(part(lo.path, lo.p_len), "a/b");
    EXPECT_EQ(part(lo.query, lo.q_len), "q=1");

    // The whole unterminated buffer: the scan must end at its last byte.
    ASSERT_EQ(uri_parse_n(buf.get(), text.size(), &lo), 0);
    EXPECT_EQ(part(lo.query, lo.q_len), "q=1 HTTP/1.1");

    // "http:/" cut before the second slash is not a scheme.
    auto s = exact("http://h");
    ASSERT_EQ(uri_parse_n(s.get(), 6, &lo), 0);
    EXPECT_EQ(lo.scheme, nullptr);
    EXPECT_EQ(uri_parse_n(s.get(), 7, &lo), -1);
}

TEST(Uri, PartCopiesRespectSizeAndEmptyMissingParts) {
    uri_layout lo{};
    ASSERT_EQ(uri_parse("http://h/pp?q", &lo), 0);
    char buf[8];
    EXPECT_STREQ(uri_get_path(&lo, buf, 5), "h/pp");
    EXPECT_EQ(uri_get_path(&lo, buf, 4), nullptr);  // needs 4 + 1
    EXPECT_STREQ(uri_get_scheme(&lo, buf, sizeof(buf)), "http");
    EXPECT_STREQ(uri_get_query(&lo, buf, 2), "q");
    strcpy(buf, "junk");
    EXPECT_EQ(uri_get_authority(&lo, buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "");
}

TEST(Uri, PathAddrPortTakesHostAndPort) {
    struct Case {
        const char *path;
        size_t plen;  // 0 = whole text
        size_t hsize, psize;
        bool ok;
        const char *host, *port, *rest;
    };
    const Case cases[] = {
        {"[::1]:8080/x", 0, 64, 8, true, "::1", "8080", "/x"},
        {"[::1]/x", 0, 64, 8, true, "::1", "", "/x"},
        {"[::1", 0, 64, 8, false, "", "", ""},
        {"[::1/]", 0, 64, 8, false, "", "", ""},
        {"//h.example:80/a/b", 0, 64, 8, true, "h.example", "80", "/a/b"},
        {"h", 0, 64, 8, true, "h", "", ""},
        {"h:/x", 0, 64, 8, true, "h", "", "/x"},
        {"h:80?q", 0, 64, 8, true, "h", "80", "?q"},
        {"", 0, 64, 8, false, "", "", ""},
        {" \t///", 0, 64, 8, false, "", "", ""},
        {"h:8080/x", 4, 64, 8, true, "h", "80", ""},  // the length bounds the port
        {"abcd:1", 0, 5, 8, true, "abcd", "1", ""},
        {"abcde:1", 0, 5, 8, false, "", "", ""},  // host needs more than size-1
        {"h:123456", 0, 64, 6, false, "", "", ""},
        {"h:12345", 0, 64, 6, true, "h", "12345", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        std::string text = c.path;
        auto buf = exact(text);
        size_t plen = c.plen != 0 ? c.plen : text.size();
        std::vector<char> host(c.hsize, 'x');
        std::vector<char> port(c.psize, 'x');
        const char *r =
            uri_path_addrport(buf.get(), plen, host.data(), host.size(), port.data(), port.size());
        ASSERT_EQ(r != nullptr, c.ok);
        if (!c.ok) continue;
        EXPECT_STREQ(host.data(), c.host);
        EXPECT_STREQ(port.data(), c.port);
        EXPECT_EQ(std::string(r, buf.get() + plen - r), c.rest);
    }
}

TEST(Uri, ExtractCopiesAskedPartsAndReturnsKind) {
    char scheme[URI_SCHEME_SIZE], auth[URI_AUTH_SIZE], path[URI_PATH_SIZE], query[URI_QUERY_SIZE];
    ASSERT_EQ(uri_extract("http://u:pw@h:80/a?x=1", scheme, auth, path, query), URI_KIND_HTTP);
    EXPECT_STREQ(scheme, "http");
    EXPECT_STREQ(auth, "u:pw");
    EXPECT_STREQ(path, "h:80/a");
    EXPECT_STREQ(query, "x=1");

    EXPECT_EQ(uri_extract("udp://239.0.0.1:1234", nullptr, nullptr, path, nullptr), URI_KIND_UDP);
    EXPECT_EQ(uri_extract("ftp://h/a", nullptr, nullptr, path, nullptr), -1);
    EXPECT_EQ(uri_extract("RTP://239.0.0.1:1234", nullptr, nullptr, nullptr, nullptr),
              URI_KIND_RTP);
    EXPECT_EQ(uri_scheme_kind(nullptr), -1);
    EXPECT_EQ(uri_extract("/h/a", scheme, nullptr, nullptr, nullptr), -1);  // asked, missing
    EXPECT_EQ(uri_extract("http://", nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(uri_extract("http://h/a", nullptr, nullptr, nullptr, nullptr), URI_KIND_HTTP);
    EXPECT_EQ(uri_extract("longscheme://h/a", scheme, nullptr, nullptr, nullptr), -1);

    std::string p127 = "http://" + std::string(127, 'p');
    std::string p128 = "http://" + std::string(128, 'p');
    EXPECT_EQ(uri_extract(p127.c_str(), nullptr, nullptr, path, nullptr), URI_KIND_HTTP);
    EXPECT_EQ(uri_extract(p128.c_str(), nullptr, nullptr, path, nullptr), -1);
    std::string a64 = "http://" + std::string(64, 'a') + "@h/p";
    EXPECT_EQ(uri_extract(a64.c_str(), nullptr, auth, nullptr, nullptr), -1);
    std::string q256 = "http://h/p?" + std::string(256, 'q');
    EXPECT_EQ(uri_extract(q256.c_str(), nullptr, nullptr, nullptr, query), -1);
}

TEST(Uri, SegmentHelpersWalkAndCompare) {
    const char *text = "0/src/http://a";
    std::vector<std::string> segs;
    const char *s = nullptr;
    size_t n = 0;
    for (const char *p = text; uri_xseg(p, URI_SEG_DELIMS, &s, &n) != nullptr && segs.size() < 10;
         p = s + n)
        segs.emplace_back(s, n);
    EXPECT_EQ(segs, (std::vector<std::string>{"0/", "src/", "http:/", "a"}));
    EXPECT_EQ(uri_xseg("/", URI_SEG_DELIMS, &s, &n), nullptr);
    EXPECT_EQ(uri_xseg("", URI_SEG_DELIMS, &s, &n), nullptr);

    EXPECT_EQ(xseg_scmp("src", "/SRC/", 5, URI_SEG_DELIMS), 0);
    EXPECT_EQ(xseg_scmp("src", "src", 3, URI_SEG_DELIMS), 0);
    EXPECT_NE(xseg_scmp("src", "srcx/", 5, URI_SEG_DELIMS), 0);
    EXPECT_NE(xseg_scmp("src", "sr/", 3, URI_SEG_DELIMS), 0);

    char buf[4];
    EXPECT_EQ(xseg_cpy("/abc/", 5, buf, sizeof(buf), URI_SEG_DELIMS), 0);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(xseg_cpy("/abcd/", 6, buf, sizeof(buf), URI_SEG_DELIMS), 7);
    EXPECT_EQ(xseg_cpy("/", 1, buf, sizeof(buf), URI_SEG_DELIMS), 7);
}

TEST(Uri, EndpointSplitFindsBalancedSourceAndDestination) {
    struct Case {
        const char *path;
        int rc;
        const char *src, *dst;
    };
    const Case cases[] = {
        {"0/src/http://a/b/c.ts/dst/x/y.ts", 0, "http://a/b/c.ts", "x/y.ts"},
        {"0/src/http://a/b/c.ts/dst", 0, "http://a/b/c.ts", ""},
        {"0/src/http://a/b.ts", 1, "", ""},
        {"/src/http://a/src/b/dst/c/dst/d", 0, "http://a/src/b/dst/c", "d"},
        {"0/src/http://a/src/b/dst", 1, "", ""},
        {"x/SRC/http://a//b/DST//y/z", 0, "http://a//b", "y/z"},
        {"src/dst/x", 0, "", "x"},
        {"$alias", 0, "$alias", ""},
        {"~x?y", 0, "~x?y", ""},
        {"noslash", 3, "", ""},
        {"/", -3, "", ""},
        {"a/b/c", -14, "", ""},
        {"0/hls-m3u/src/http://a/dst/b", 0, "http://a", "b"},  // special only with a context
        {"udp/239.1.1.1:1234", 0, "udp://239.1.1.1:1234", ""},
        {"RTP/239.1.1.1:1234/more", 0, "rtp://239.1.1.1:1234", ""},
        {"udp/", 22, "", ""},
        {"udp///x", -22, "", ""},
        {"hls-fra/ch/seg.ts", 0, "file:///ch/seg.ts", ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        char src[64];
        char dst[64];
        EXPECT_EQ(uri_extract_endpts_ext(c.path, src, sizeof(src), dst, sizeof(dst), nullptr),
                  c.rc);
        if (c.rc != 0) continue;
        EXPECT_STREQ(src, c.src);
        EXPECT_STREQ(dst, c.dst);
    }
}

TEST(Uri, EndpointSplitRefusesSourcesBeyondTheirBuffer) {
    char src[16];
    char dst[8];
    // "http://a/bcdefg" is 15 characters: fits exactly, one more does not.
    EXPECT_EQ(uri_extract_endpts_ext("src/http://a/bcdefg/dst/x", src, sizeof(src), dst,
                                     sizeof(dst), nullptr),
              0);
    EXPECT_STREQ(src, "http://a/bcdefg");
    EXPECT_EQ(uri_extract_endpts_ext("src/http://a/bcdefgh/dst/x", src, sizeof(src), dst,
                                     sizeof(dst), nullptr),
              -1);
    // The destination and an alias are cut to the buffer.
    EXPECT_EQ(
        uri_extract_endpts_ext("src/h/dst/abcdefghij", src, sizeof(src), dst, sizeof(dst), nullptr),
        0);
    EXPECT_STREQ(dst, "abcdefg");
    EXPECT_EQ(uri_extract_endpts_ext("$0123456789abcdefghij", src, sizeof(src), dst, sizeof(dst),
                                     nullptr),
              0);
    EXPECT_STREQ(src, "$0123456789abcd");
    // "udp://" + 10 characters is 16: one too many.
    EXPECT_EQ(uri_extract_endpts_ext("udp/1.2.3.4:56", src, sizeof(src), dst, sizeof(dst), nullptr),
              -22);
    EXPECT_EQ(uri_extract_endpts_ext("udp/1.2.3.4:5", src, sizeof(src), dst, sizeof(dst), nullptr),
              0);
    EXPECT_EQ(
        uri_extract_endpts_ext("hls-fra/abcdefghi", src, sizeof(src), dst, sizeof(dst), nullptr),
        34);
}

TEST(Uri, EndpointSplitUsesContextForFragmentsAndRecordingRanges) {
    char src[128];
    char dst[64];
    uri_parse_ctx ctx{};
    ctx.root_dir = "/data";
    ASSERT_EQ(uri_extract_endpts_ext("hls-fra/ch/s.ts", src, sizeof(src), dst, sizeof(dst), &ctx),
              0);
    EXPECT_STREQ(src, "file:///data/ch/s.ts");
    ctx.root_dir = "/data/";
    ASSERT_EQ(uri_extract_endpts_ext("hls-fra/ch/s.ts", src, sizeof(src), dst, sizeof(dst), &ctx),
              0);
    EXPECT_STREQ(src, "file:///data/ch/s.ts");

    struct Case {
        const char *path;
        int rc;
        long stime, duration;
    };
    const Case cases[] = {
        {"0/hls-m3u/ch1/index-1600000000-3600.m3u8", 0, 1600000000, 3600},
        {"hls-m3u/a/b/playlist_dvr_range-1700000000-now.m3u8", 0, 1700000000, -1},
        {"hls-m3u/ch/index-0-10.m3u8", -22, 0, 0},
        {"hls-m3u/ch/index-10-.m3u8", -22, 0, 0},
        {"hls-m3u/ch/index-10-5", -22, 0, 0},
        {"hls-m3u/ch/index-10x-5.m3u8", -22, 0, 0},
        {"hls-m3u/ch/live.m3u8", -22, 0, 0},
        {"hls-m3u/index-5-5.m3u8/x.m3u8", -22, 0, 0},  // only the last component counts
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        uri_parse_ctx rc{};
        strcpy(dst, "junk");
        EXPECT_EQ(uri_extract_endpts_ext(c.path, src, sizeof(src), dst, sizeof(dst), &rc), c.rc);
        EXPECT_STREQ(rc.udpfx, "hls-m3u");
        EXPECT_STREQ(dst, "");
        if (c.rc != 0) continue;
        EXPECT_EQ(rc.stime, c.stime);
        EXPECT_EQ(rc.duration, c.duration);
    }
}

TEST(Uri, DecodeKeepsLowerCaseHexRuleAndDropsBadEscapes) {
    struct Case {
        const char *in;
        int opts;
        const char *out;
    };
    const Case cases[] = {
        {"%41", URI_DEC_PRINTABLE, "A"},
        {"%4a", URI_DEC_PRINTABLE, "j"},  // 4 * 16 + 42
        {"%2f", URI_DEC_PRINTABLE, "O"},
        {"%2F", URI_DEC_PRINTABLE, "/"},
        {"a%zzb", URI_DEC_PRINTABLE, "ab"},
        {"a%4gb", URI_DEC_PRINTABLE, "ab"},
        {"a+b", URI_DEC_PRINTABLE, "a b"},
        {"%0A", URI_DEC_PRINTABLE, "?"},
        {"%0A", 0, "\n"},
        {"%ff", URI_DEC_PRINTABLE, "?"},   // 16 * 47 + 47 wraps to a control byte
        {"ab%", URI_DEC_PRINTABLE, "ab"},  // cut escapes never step over the zero
        {"ab%4", URI_DEC_PRINTABLE, "ab"},
        {"plain", URI_DEC_PRINTABLE, "plain"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        char buf[32];
        strcpy(buf, c.in);
        ASSERT_EQ(uri_decode_opt(buf, sizeof(buf), c.opts), buf);
        EXPECT_STREQ(buf, c.out);
    }
    char buf[8] = "%41%42";
    EXPECT_STREQ(uri_decode(buf, sizeof(buf)), "AB");
}

TEST(Uri, DecodeHonoursTheSizeBoundOfUnterminatedBuffers) {
    // A "%" in the last two bytes of the bound fails the call.
    auto a = exact("abc%41");
    EXPECT_EQ(uri_decode(a.get(), 5), nullptr);
    auto b = exact("ab%4");
    EXPECT_EQ(uri_decode(b.get(), 4), nullptr);
    // A "%" with both digits inside the bound decodes.
    auto c = exact("x%41");
    ASSERT_NE(uri_decode(c.get(), 4), nullptr);
    EXPECT_STREQ(c.get(), "xA");
    // Filling the whole bound sacrifices the last byte for the terminator.
    auto d = exact("abcd");
    ASSERT_NE(uri_decode(d.get(), 4), nullptr);
    EXPECT_STREQ(d.get(), "abc");
    EXPECT_EQ(uri_decode(d.get(), 0), nullptr);
}

TEST(Uri, EncodeEscapesUnsafeBytesWithinSize) {
    struct Case {
        std::string in;
        size_t size;
        const char *out;
    };
    const Case cases[] = {
        {"a b/c", 32, "a%20b%2Fc"}, {";/?:@&=+$,* ", 64, "%3B%2F%3F%3A%40%26%3D%2B%24%2C%2A%20"},
        {"~%#!", 32, "~%#!"},       {"\xff\x80\x01", 32, "%FF%80%01"},
        {"ab c", 5, "ab"},  // the escape would not fit
        {"ab c", 6, "ab%20"},       {"abcdef", 4, "abc"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.in);
        std::vector<char> buf(c.size, '\0');
        memcpy(buf.data(), c.in.data(), std::min(c.in.size(), c.size));
        ASSERT_EQ(uri_encode(buf.data(), buf.size()), buf.data());
        EXPECT_STREQ(buf.data(), c.out);
    }
    // An unterminated buffer is read no further than its size.
    auto u = exact("abcd");
    ASSERT_NE(uri_encode(u.get(), 4), nullptr);
    EXPECT_STREQ(u.get(), "abc");
}

TEST(Uri, SmallHelpers) {
    EXPECT_TRUE(uri_is_alias("$x"));
    EXPECT_TRUE(uri_is_alias("~x"));
    EXPECT_TRUE(uri_is_alias("^x"));
    EXPECT_FALSE(uri_is_alias("x$"));
    EXPECT_FALSE(uri_is_alias(nullptr));

    EXPECT_EQ(till_query("a/b?c?d"), 5u);
    EXPECT_EQ(till_query("a?b/"), 4u);
    EXPECT_EQ(till_query("abc"), 3u);

    char buf[8];
    const char *rest = uri_split_alias("$chan?x=1", buf, sizeof(buf));
    EXPECT_STREQ(buf, "$chan");
    EXPECT_STREQ(rest, "x=1");
    EXPECT_EQ(uri_split_alias("$0123456789", buf, sizeof(buf)), nullptr);
    EXPECT_STREQ(buf, "$012345");

    EXPECT_STREQ(uri_pre_path("http://h/p/q"), "/p/q");
    EXPECT_STREQ(uri_pre_path("h:80/p"), "/p");
    EXPECT_EQ(uri_pre_path("http://h"), nullptr);
    EXPECT_EQ(uri_pre_path("h"), nullptr);
}

TEST(Uri, EnsureSchemaPrefixesOnlyWhenMissingAndFits) {
    char buf[12] = "h/p";
    EXPECT_EQ(uri_ensure_schema(buf, sizeof(buf), "http://"), 0);
    EXPECT_STREQ(buf, "http://h/p");
    EXPECT_EQ(uri_ensure_schema(buf, sizeof(buf), "HTTP://"), 0);
    EXPECT_STREQ(buf, "http://h/p");
    char exactfit[11] = "h/p";
    EXPECT_EQ(uri_ensure_schema(exactfit, sizeof(exactfit), "http://"), 0);
    EXPECT_STREQ(exactfit, "http://h/p");
    char small[10] = "h/p";
    EXPECT_EQ(uri_ensure_schema(small, sizeof(small), "http://"), 7);
    EXPECT_STREQ(small, "h/p");
}

TEST(Uri, FileNameAndSuffixHelpers) {
    EXPECT_TRUE(url_ends_with("http://h/a.M3U8?x=y.z", "m3u8"));
    EXPECT_TRUE(url_ends_with("http://h/a.ts", ".ts"));
    EXPECT_FALSE(url_ends_with("http://h/a.tsx", "ts"));
    EXPECT_FALSE(url_ends_with("http://h.b/a", "b/a"));
    EXPECT_FALSE(
        url_ends_with(("h/a." + std::string(32, 'x')).c_str(), std::string(32, 'x').c_str()));

    char buf[8];
    EXPECT_EQ(url_get_fname("http://h/d/seg.ts?x=1", buf, sizeof(buf), false), 0);
    EXPECT_STREQ(buf, "seg.ts");
    EXPECT_EQ(url_get_fname("http://h/d/seg.ts", buf, sizeof(buf), true), 0);
    EXPECT_STREQ(buf, "seg");
    EXPECT_EQ(url_get_fname("noslash", buf, sizeof(buf), false), 22);
    EXPECT_EQ(url_get_fname("http://h/d/", buf, sizeof(buf), false), -22);
    EXPECT_EQ(url_get_fname("h/12345678", buf, sizeof(buf), false), 34);

    EXPECT_TRUE(is_m3u_url("http://h/hls-m3u/ch/index.m3u8"));
    EXPECT_TRUE(is_m3u_url("http://h/hls-m3u/ch/index.m3u"));
    EXPECT_FALSE(is_m3u_url("http://h/hls-fra/ch/index.m3u8"));
    EXPECT_TRUE(is_fra_url("http://h/hls-fra/ch/1.ts"));
    EXPECT_FALSE(is_fra_url("http://h/hls-fra/ch/1.mp4"));
    EXPECT_TRUE(is_hls_url("http://h/hls-fra/ch/1.ts"));
    EXPECT_TRUE(is_hls_url("http://h/hls-m3u/ch/1.m3u8"));
    EXPECT_FALSE(is_hls_url("http://h/vod/ch/1.ts"));
}

}  // namespace

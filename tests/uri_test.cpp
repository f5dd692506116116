// Tests of the URI helpers: the layout model, host and port, the endpoint
// split, decoding and encoding. Bounds and round trips in general are the fuzz
// target's; here each input is checked against its exact result as one text.
#include "uri.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

std::string part(const char *p, size_t n) { return p != nullptr ? std::string(p, n) : "-"; }

std::string layout(const std::string &text) {
    uri_layout lo{};
    if (uri_parse(text.c_str(), &lo) != 0) return "error";
    return part(lo.scheme, lo.s_len) + "|" + part(lo.authority, lo.a_len) + "|" +
           part(lo.path, lo.p_len) + "|" + part(lo.query, lo.q_len);
}

TEST(Uri, ParseKeepsHostInThePathAndOnlyUserInfoInTheAuthority) {
    // A one-letter scheme is a drive letter; a text ending in "/" is all path.
    const Cases cases = {{"c:/x", "-|-|c:/x|-"},
                         {"ab:/x", "-|-|ab:/x|-"},
                         {"http://u@h/p", "http|u|h/p|-"},
                         {"http://h/p", "http|-|h/p|-"},
                         {"http://@h/p", "http|-|h/p|-"},
                         {"http://h/a?b/", "http|-|h/a?b/|-"},
                         {"http://h/a?b?c", "http|-|h/a?b|c"},
                         {"  \t/x?y", "-|-|x|y"},
                         {"http://", "error"},
                         {"http://u@", "error"}};
    for (const auto &[in, want] : cases) EXPECT_EQ(layout(in), want) << in;
}

// Host and port with buffers of 5 (so "abcde" does not fit) and 8 bytes.
std::string addrport(const std::string &path) {
    char host[5] = "x", port[8] = "x";
    const char *r = uri_path_addrport(path.c_str(), path.size(), host, sizeof host, port, 8);
    return r == nullptr ? "error" : std::string(host) + "|" + port + "|" + r;
}

TEST(Uri, PathAddrPortTakesHostAndPort) {
    const Cases cases = {{"[::1]:8080/x", "::1|8080|/x"},
                         {"[::1", "error"},
                         {"//h.ex:80/a/b", "h.ex|80|/a/b"},
                         {"h:/x", "h||/x"},
                         {"h:80?q", "h|80|?q"},
                         {" \t///", "error"},
                         {"abcd:1", "abcd|1|"},
                         {"abcde:1", "error"}};
    for (const auto &[in, want] : cases) EXPECT_EQ(addrport(in), want) << in;
}

TEST(Uri, ExtractCopiesAskedPartsWithinTheirSizesAndGivesTheKind) {
    char scheme[URI_SCHEME_SIZE], auth[URI_AUTH_SIZE], path[URI_PATH_SIZE], query[URI_QUERY_SIZE];
    ASSERT_EQ(uri_extract("http://u:pw@h:80/a?x=1", scheme, auth, path, query), URI_KIND_HTTP);
    EXPECT_EQ(std::string(scheme) + "|" + auth + "|" + path + "|" + query, "http|u:pw|h:80/a|x=1");
    EXPECT_EQ(uri_extract("RTP://239.0.0.1:1234", nullptr, nullptr, nullptr, nullptr),
              URI_KIND_RTP);
    EXPECT_EQ(uri_extract("/h/a", scheme, nullptr, nullptr, nullptr), -1);  // asked, missing
    std::string p127 = "http://" + std::string(127, 'p');
    EXPECT_EQ(uri_extract(p127.c_str(), nullptr, nullptr, path, nullptr), URI_KIND_HTTP);
    EXPECT_EQ(uri_extract((p127 + "p").c_str(), nullptr, nullptr, path, nullptr), -1);
}

// The split into buffers of size bytes, without a context, as the program
// makes it.
std::string endpoints(const std::string &path, size_t size) {
    std::vector<char> src(size, 'x'), dst(size, 'x');
    int rc = uri_extract_endpts_ext(path.c_str(), src.data(), size, dst.data(), size, nullptr);
    return rc != 0 ? std::to_string(rc) : std::string(src.data()) + "|" + dst.data();
}

TEST(Uri, EndpointSplitBalancesSourceAndDestinationByDepth) {
    const Cases cases = {{"0/src/http://a/b/c.ts/dst/x/y.ts", "http://a/b/c.ts|x/y.ts"},
                         {"0/src/http://a/b/c.ts/dst", "http://a/b/c.ts|"},
                         {"0/src/http://a/b.ts", "1"},
                         {"/src/http://a/src/b/dst/c/dst/d", "http://a/src/b/dst/c|d"},
                         {"0/src/http://a/src/b/dst", "1"},
                         {"x/SRC/http://a//b/DST//y/z", "http://a//b|y/z"},
                         {"$alias", "$alias|"},
                         {"noslash", "3"},
                         {"/", "-3"},
                         {"a/b/c", "-14"},
                         {"RTP/239.1.1.1:1234/more", "rtp://239.1.1.1:1234|"},
                         {"udp/", "22"},
                         {"hls-fra/ch/seg.ts", "file:///ch/seg.ts|"}};
    for (const auto &[in, want] : cases) EXPECT_EQ(endpoints(in, 64), want) << in;
    // Within 16 bytes: a source that does not fit is refused, a destination
    // and an alias are cut.
    const Cases small = {{"src/http://a/bcdefg/dst/x", "http://a/bcdefg|x"},
                         {"src/http://a/bcdefgh/dst/x", "-1"},
                         {"src/h/dst/abcdefghijklmnopq", "h|abcdefghijklmno"},
                         {"$0123456789abcdefghij", "$0123456789abcd|"},
                         {"udp/1.2.3.4:56", "-22"},
                         {"hls-fra/abcdefghi", "34"}};
    for (const auto &[in, want] : small) EXPECT_EQ(endpoints(in, 16), want) << in;
}

std::string decoded(const char *in, int opts = URI_DEC_PRINTABLE) {
    char buf[16];
    strcpy(buf, in);
    return uri_decode_opt(buf, sizeof buf, opts) == buf ? buf : "error";
}

TEST(Uri, DecodeKeepsTheLowerCaseHexRuleAndDropsBadEscapes) {
    EXPECT_EQ(decoded("%41"), "A");
    EXPECT_EQ(decoded("%4a"), "j");  // 4 * 16 + 42
    EXPECT_EQ(decoded("%2f"), "O");
    EXPECT_EQ(decoded("%2F"), "/");
    EXPECT_EQ(decoded("a%zzb"), "ab");
    EXPECT_EQ(decoded("a+b"), "a b");
    EXPECT_EQ(decoded("%0A"), "?");
    EXPECT_EQ(decoded("%0A", 0), "\n");
    char cut[] = "abc%41";  // the "%" stands within the last two bytes of the bound
    EXPECT_EQ(uri_decode(cut, 5), nullptr);
    char full[] = "abcd";  // filling the bound costs its last byte
    ASSERT_EQ(uri_decode(full, 4), full);
    EXPECT_STREQ(full, "abc");
}

std::string encoded(const char *in, size_t size) {
    std::vector<char> buf(size);
    strcpy(buf.data(), in);
    return uri_encode(buf.data(), size) == buf.data() ? buf.data() : "error";
}

TEST(Uri, EncodeEscapesUnsafeBytesInUpperCaseWithinSize) {
    EXPECT_EQ(encoded("a b/c", 32), "a%20b%2Fc");
    EXPECT_EQ(encoded(";/?:@&=+$,* ", 64), "%3B%2F%3F%3A%40%26%3D%2B%24%2C%2A%20");
    EXPECT_EQ(encoded("~%#!", 32), "~%#!");
    EXPECT_EQ(encoded("\xff\x80", 32), "%FF%80");
    EXPECT_EQ(encoded("ab c", 5), "ab");  // the escape would not fit
}

}  // namespace

// gkh tests: sizing, present/absent codes, sorted chains, cut keys, the
// 32-bit numeric comparison, seeding and the hash functions.
#include "gkh.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

std::string print_of(skht_t h) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    if (out == nullptr) return "open_memstream failed";
    skht_print(h, out, 1);
    fclose(out);
    std::string s(text, len);
    free(text);
    return s;
}

TEST(Gkh, BucketCountIsLargestPowerOfTwoUnderOneAndAHalfTimesTheHint) {
    const size_t hints[] = {1, 3, 100, 1366, 5000000}, buckets[] = {1, 4, 128, 2048, 4194304};
    for (int i = 0; i < 5; ++i) {
        skht_t h = 0;
        ASSERT_EQ(skht_create(&h, hints[i], nullptr, nullptr, 0), 0);
        EXPECT_NE(print_of(h).find("slots: 0/" + std::to_string(buckets[i]) + "\n"),
                  std::string::npos)
            << hints[i];
        skht_destroy(h, nullptr);
    }
    skht_t h = 12345;
    EXPECT_EQ(skht_create(&h, 5000001, nullptr, nullptr, 0), GKH_TOO_BIG);
    EXPECT_EQ(h, 0u);
}

TEST(Gkh, OneBucketKeepsItsChainInStrcmpOrderAndCutsLongKeys) {
    skht_t h = 0;
    const char *pre[] = {"pear", "apple"};
    ASSERT_EQ(skht_create(&h, 1, nullptr, pre, 2), 0);
    for (const char *k : {"zebra", "Mango", "b"}) ASSERT_EQ(skht_add(h, k, nullptr), 0);
    void *d = &h;
    EXPECT_EQ(skht_add(h, "apple", &d), GKH_PRESENT);
    EXPECT_EQ(d, nullptr);  // what was stored for a pre-loaded key, not what was offered
    d = &h;
    ASSERT_EQ(skht_add(h, "k", &d), 0);
    d = nullptr;
    EXPECT_EQ(skht_rm(h, "k", &d), 0);
    EXPECT_EQ(d, &h);
    EXPECT_EQ(skht_get(h, "k", &d), GKH_ABSENT);
    EXPECT_EQ(skht_rm(h, "b", nullptr), 0);
    EXPECT_EQ(skht_rm(h, "b", nullptr), GKH_ABSENT);
    // A key is stored cut to 254 characters, so the full key never matches
    // and adding it again makes a second record.
    const std::string full(300, 'k'), cut(254, 'k');
    ASSERT_EQ(skht_add(h, full.c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(h, full.c_str(), nullptr), GKH_ABSENT);
    EXPECT_EQ(skht_rm(h, full.c_str(), nullptr), GKH_ABSENT);
    EXPECT_EQ(skht_add(h, full.c_str(), nullptr), 0);
    std::vector<std::string> keys;  // bucket by bucket, each chain from its head
    skht_iter(
        h,
        [](void *key, void *, void *arg) {
            static_cast<std::vector<std::string> *>(arg)->emplace_back(static_cast<char *>(key));
        },
        &keys);
    EXPECT_EQ(keys, (std::vector<std::string>{"Mango", "apple", cut, cut, "pear", "zebra"}));
    EXPECT_EQ(skht_count(h), 6u);
    skht_destroy(h, nullptr);
    const char *dup[] = {"a", "b", "a"};
    EXPECT_EQ(skht_create(&h, 4, nullptr, dup, 3), GKH_PRESENT);
    EXPECT_EQ(h, 0u);
}

TEST(Gkh, NumericKeysAreTheirOwnHashAndCompareByTheLow32Bits) {
    nkht_t h = 0;
    ASSERT_EQ(nkht_create(&h, 16, nullptr), 0);
    for (long k : {19L, 3L, 35L}) ASSERT_EQ(nkht_add(h, k, nullptr), 0) << k;
    void *d = &h;
    EXPECT_EQ(nkht_add(h, 3 + (1L << 32), &d), GKH_PRESENT);
    EXPECT_EQ(nkht_rm(h, 19 + (7L << 32), nullptr), 0);
    EXPECT_EQ(nkht_get(h, 19, nullptr), GKH_ABSENT);
    nkht_destroy(h, nullptr);
}

TEST(Gkh, HashFunctionsMatchTheirDefinitionsAndTablesSeedWithTheirCreationSecond) {
    EXPECT_EQ(plHash("ab", 7), (7u * 101 + 'a') * 101 + 'b');
    EXPECT_EQ(plHash("\xff", 0), UINT64_MAX);  // a signed byte, -1
    EXPECT_EQ(elfHash("abc", 12345), 0x6783u);
    EXPECT_EQ(elfHash("\x80", 0), 0xffffffff0fffff70u);  // high bits stay
    EXPECT_EQ(tw_shift(reinterpret_cast<const void *>(42), 99), 0x0f3db82f1e7b6f7au);
    const char *key = "http://origin/seg1.ts";
    time_t before = time(nullptr);
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 1000, nullptr, nullptr, 0), 0);
    ASSERT_EQ(skht_add(h, key, nullptr), 0);
    std::string p = print_of(h);
    unsigned long seed = strtoul(p.c_str() + p.find("seed=") + 5, nullptr, 10);
    EXPECT_TRUE(seed >= static_cast<unsigned long>(before) &&
                seed <= static_cast<unsigned long>(time(nullptr)))
        << p;
    // So two processes started in different seconds place a key differently.
    std::string bucket_line = "\n";  // appended, not concatenated: g++ 12 -O3 misreads the latter
    bucket_line += std::to_string(plHash(key, seed) & 1023);
    bucket_line += ":(1:";
    EXPECT_NE(p.find(bucket_line), std::string::npos) << p;
    skht_destroy(h, nullptr);
}

}  // namespace

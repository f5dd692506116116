// gkh tests: sizing, sorted chains, present/absent codes, cut keys, the
// 32-bit numeric comparison, seeding, the hash functions and the statistics.
#include "gkh.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace {

// Captures a print into a string.
std::string print_of(uintptr_t h, bool numeric, int verbose) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    if (out == nullptr) return "open_memstream failed";
    if (numeric)
        nkht_print(h, out, verbose);
    else
        skht_print(h, out, verbose);
    fclose(out);
    std::string s(text, len);
    free(text);
    return s;
}

void collect_keys(void *key, void *, void *arg) {
    static_cast<std::vector<std::string> *>(arg)->push_back(static_cast<const char *>(key));
}

void *val(long v) { return reinterpret_cast<void *>(v); }

TEST(Gkh, BucketCountIsLargestPowerOfTwoUnderOneAndAHalfTimesTheHint) {
    struct {
        size_t hint;
        const char *slots;
    } cases[] = {
        {1, "slots: 0/1\n"},       {2, "slots: 0/2\n"},
        {3, "slots: 0/4\n"},       {100, "slots: 0/128\n"},
        {1000, "slots: 0/1024\n"}, {1024, "slots: 0/1024\n"},
        {1366, "slots: 0/2048\n"}, {5000000, "slots: 0/4194304\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.hint);
        skht_t h = 0;
        ASSERT_EQ(skht_create(&h, c.hint, nullptr, nullptr, 0), 0);
        ASSERT_NE(h, 0u);
        EXPECT_NE(print_of(h, false, 0).find(c.slots), std::string::npos) << print_of(h, false, 0);
        skht_destroy(h, nullptr);
    }
}

TEST(Gkh, SizeHintAboveLimitIsRefusedAndLeavesNoHandle) {
    skht_t h = 12345;
    EXPECT_EQ(skht_create(&h, 5000001, nullptr, nullptr, 0), GKH_TOO_BIG);
    EXPECT_EQ(h, 0u);
    nkht_t n = 12345;
    EXPECT_EQ(nkht_create(&n, 5000001, nullptr), GKH_TOO_BIG);
    EXPECT_EQ(n, 0u);
}

TEST(Gkh, RemovedKeyIsNotFoundButOthersRemain) {
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 8, nullptr, nullptr, 0), 0);
    const char *keys[] = {"http://a/1", "http://a/2", "http://b/1", "x", ""};
    for (long i = 0; i < 5; ++i) {
        void *d = val(100 + i);
        ASSERT_EQ(skht_add(h, keys[i], &d), 0) << keys[i];
    }
    EXPECT_EQ(skht_count(h), 5u);

    void *out = nullptr;
    EXPECT_EQ(skht_rm(h, "http://a/2", &out), 0);
    EXPECT_EQ(out, val(101));
    EXPECT_EQ(skht_count(h), 4u);
    EXPECT_EQ(skht_get(h, "http://a/2", &out), GKH_ABSENT);
    EXPECT_EQ(skht_rm(h, "http://a/2", &out), GKH_ABSENT);
    EXPECT_EQ(skht_count(h), 4u);

    for (long i : {0, 2, 3, 4}) {
        out = nullptr;
        EXPECT_EQ(skht_get(h, keys[i], &out), 0) << keys[i];
        EXPECT_EQ(out, val(100 + i));
    }
    EXPECT_EQ(skht_get(h, "x", nullptr), 0);  // no value wanted
    skht_destroy(h, nullptr);
}

TEST(Gkh, AddingPresentKeyReturns16AndTheStoredValue) {
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 4, nullptr, nullptr, 0), 0);
    void *d = val(1);
    ASSERT_EQ(skht_add(h, "k", &d), 0);
    d = val(2);
    EXPECT_EQ(skht_add(h, "k", &d), GKH_PRESENT);
    EXPECT_EQ(d, val(1));
    EXPECT_EQ(skht_add(h, "k", nullptr), GKH_PRESENT);
    void *out = nullptr;
    ASSERT_EQ(skht_get(h, "k", &out), 0);
    EXPECT_EQ(out, val(1));
    EXPECT_EQ(skht_count(h), 1u);

    // A null data pointer stores a null value.
    ASSERT_EQ(skht_add(h, "n", nullptr), 0);
    out = val(9);
    ASSERT_EQ(skht_get(h, "n", &out), 0);
    EXPECT_EQ(out, nullptr);
    skht_destroy(h, nullptr);
}

TEST(Gkh, LongKeyIsStoredCutAndTheFullKeyNeverMatches) {
    // One bucket, so the cut text can be looked up although the record was
    // placed by the hash of the full key.
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 1, nullptr, nullptr, 0), 0);
    const std::string full(300, 'k');
    const std::string cut(254, 'k');
    ASSERT_EQ(skht_add(h, full.c_str(), nullptr), 0);
    EXPECT_EQ(skht_get(h, full.c_str(), nullptr), GKH_ABSENT);
    EXPECT_EQ(skht_rm(h, full.c_str(), nullptr), GKH_ABSENT);
    EXPECT_EQ(skht_get(h, cut.c_str(), nullptr), 0);

    // The full key again is "new", so a second record with the same stored key.
    EXPECT_EQ(skht_add(h, full.c_str(), nullptr), 0);
    EXPECT_EQ(skht_count(h), 2u);
    std::vector<std::string> keys;
    EXPECT_EQ(skht_iter(h, collect_keys, &keys), 2u);
    ASSERT_EQ(keys.size(), 2u);
    EXPECT_EQ(keys[0], cut);
    EXPECT_EQ(keys[1], cut);

    EXPECT_EQ(skht_rm(h, cut.c_str(), nullptr), 0);
    EXPECT_EQ(skht_count(h), 1u);
    skht_destroy(h, nullptr);
}

TEST(Gkh, OneBucketKeepsTheChainInStrcmpOrder) {
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 1, nullptr, nullptr, 0), 0);
    for (const char *k : {"pear", "apple", "zebra", "Mango", "apple2", "b"})
        ASSERT_EQ(skht_add(h, k, nullptr), 0) << k;
    std::vector<std::string> keys;
    EXPECT_EQ(skht_iter(h, collect_keys, &keys), 6u);
    EXPECT_EQ(keys, (std::vector<std::string>{"Mango", "apple", "apple2", "b", "pear", "zebra"}));

    // Removing from the head, the middle and the end keeps the order.
    EXPECT_EQ(skht_rm(h, "Mango", nullptr), 0);
    EXPECT_EQ(skht_rm(h, "b", nullptr), 0);
    EXPECT_EQ(skht_rm(h, "zebra", nullptr), 0);
    keys.clear();
    skht_iter(h, collect_keys, &keys);
    EXPECT_EQ(keys, (std::vector<std::string>{"apple", "apple2", "pear"}));
    EXPECT_EQ(skht_get(h, "apple2", nullptr), 0);

    std::string p = print_of(h, false, 1);
    EXPECT_NE(p.find("contains: \n\t3 records; slots: 1/1\n"), std::string::npos) << p;
    EXPECT_NE(p.find("Max chain length: 3\n"), std::string::npos) << p;
    EXPECT_NE(p.find("\nHash slots (total=1):\n0:(3:pear);\n"), std::string::npos) << p;
    skht_destroy(h, nullptr);
}

TEST(Gkh, PreloadedKeysHaveNullValuesAndADuplicateFailsCreation) {
    const char *keys[] = {"a", "b", "c"};
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 4, nullptr, keys, 3), 0);
    EXPECT_EQ(skht_count(h), 3u);
    void *out = val(5);
    EXPECT_EQ(skht_get(h, "b", &out), 0);
    EXPECT_EQ(out, nullptr);
    skht_destroy(h, nullptr);

    const char *dup[] = {"a", "b", "a"};
    h = 99;
    EXPECT_EQ(skht_create(&h, 4, nullptr, dup, 3), GKH_PRESENT);
    EXPECT_EQ(h, 0u);
}

TEST(Gkh, NumericKeysEqualInTheirLow32BitsAreTheSameKey) {
    nkht_t h = 0;
    ASSERT_EQ(nkht_create(&h, 16, nullptr), 0);
    void *d = val(5);
    ASSERT_EQ(nkht_add(h, 5, &d), 0);
    const long high = 5 + (1L << 32);
    d = val(6);
    EXPECT_EQ(nkht_add(h, high, &d), GKH_PRESENT);
    EXPECT_EQ(d, val(5));
    void *out = nullptr;
    EXPECT_EQ(nkht_get(h, high, &out), 0);
    EXPECT_EQ(out, val(5));
    EXPECT_EQ(nkht_rm(h, high, &out), 0);
    EXPECT_EQ(nkht_count(h), 0u);
    EXPECT_EQ(nkht_get(h, 5, nullptr), GKH_ABSENT);
    nkht_destroy(h, nullptr);
}

TEST(Gkh, NumericKeyWithoutHashPicksItsOwnBucket) {
    nkht_t h = 0;
    ASSERT_EQ(nkht_create(&h, 16, nullptr), 0);  // 24 -> 16 buckets
    for (long k : {19L, 3L, 35L, 4L}) ASSERT_EQ(nkht_add(h, k, nullptr), 0) << k;
    std::vector<long> keys;
    nkht_iter(
        h,
        [](void *key, void *, void *arg) {
            static_cast<std::vector<long> *>(arg)->push_back(reinterpret_cast<long>(key));
        },
        &keys);
    // Bucket 3 holds 3, 19, 35 in order; bucket 4 holds 4.
    EXPECT_EQ(keys, (std::vector<long>{3, 19, 35, 4}));
    std::string p = print_of(h, true, 1);
    EXPECT_NE(p.find("slots: 2/16\n"), std::string::npos) << p;
    EXPECT_NE(p.find("\n3:(3:"), std::string::npos) << p;
    EXPECT_NE(p.find(");4:(1:"), std::string::npos) << p;
    nkht_destroy(h, nullptr);
}

TEST(Gkh, NumericTableWithTwShiftFindsEveryKey) {
    nkht_t h = 0;
    ASSERT_EQ(nkht_create(&h, 1024, tw_shift), 0);
    for (long k = -50; k < 2000; k += 3) {
        void *d = val(k * 2);
        ASSERT_EQ(nkht_add(h, k, &d), 0) << k;
    }
    EXPECT_EQ(nkht_count(h), 684u);
    for (long k = -50; k < 2000; ++k) {
        void *out = nullptr;
        int rc = nkht_get(h, k, &out);
        if ((k + 50) % 3 == 0) {
            ASSERT_EQ(rc, 0) << k;
            ASSERT_EQ(out, val(k * 2));
        } else {
            ASSERT_EQ(rc, GKH_ABSENT) << k;
        }
    }
    nkht_destroy(h, nullptr);
}

TEST(Gkh, TablesSeededInDifferentSecondsPlaceAKeyInDifferentBuckets) {
    skht_t a = 0;
    ASSERT_EQ(skht_create(&a, 1000, plHash, nullptr, 0), 0);
    time_t made = time(nullptr);
    // Wait for the next second, bounded.
    for (int i = 0; i < 60 && time(nullptr) == made; ++i) usleep(50 * 1000);
    skht_t b = 0;
    ASSERT_EQ(skht_create(&b, 1000, plHash, nullptr, 0), 0);
    ASSERT_EQ(skht_add(a, "http://origin/seg1.ts", nullptr), 0);
    ASSERT_EQ(skht_add(b, "http://origin/seg1.ts", nullptr), 0);

    std::string pa = print_of(a, false, 1);
    std::string pb = print_of(b, false, 1);
    auto seed_of = [](const std::string &p) { return p.substr(p.find("seed="), 16); };
    auto slot_of = [](const std::string &p) { return p.substr(p.find("):\n") + 3); };
    ASSERT_NE(seed_of(pa), seed_of(pb)) << pa << pb;
    // Seeds one second apart move the key by an odd multiple of 101^n, which
    // no power-of-two mask of 1024 buckets can absorb.
    EXPECT_NE(slot_of(pa), slot_of(pb)) << pa << pb;
    skht_destroy(a, nullptr);
    skht_destroy(b, nullptr);
}

TEST(Gkh, HashFunctionsMatchTheirDefinitions) {
    EXPECT_EQ(plHash("", 7), 7u);
    EXPECT_EQ(plHash("ab", 0), 0x26a7u);       // 'a' * 101 + 'b'
    EXPECT_EQ(plHash("\xff", 0), UINT64_MAX);  // signed byte -1
    EXPECT_EQ(plHash("trov", 1700000000), 0x2747c0d45bc7307u);

    EXPECT_EQ(elfHash("abc", 12345), 0x6783u);
    EXPECT_EQ(elfHash("a longer key text", 0), 0x8089a84u);
    EXPECT_EQ(elfHash("\x80", 0), 0xffffffff0fffff70u);  // high bits stay

    auto tw = [](uint64_t k) { return tw_shift(reinterpret_cast<const void *>(k), 99); };
    EXPECT_EQ(tw(0), 0x77cfa1eef01bca90u);
    EXPECT_EQ(tw(1), 0x5bca7c69b794f8ceu);
    EXPECT_EQ(tw(42), 0x0f3db82f1e7b6f7au);
    EXPECT_EQ(tw(UINT64_MAX), 0x1f89206e3f8ec794u);
}

TEST(Gkh, DestroyHandsEveryValueToTheFreeFunction) {
    static int freed;
    freed = 0;
    skht_t h = 0;
    ASSERT_EQ(skht_create(&h, 2, elfHash, nullptr, 0), 0);
    for (int i = 0; i < 10; ++i) {
        void *d = malloc(16);
        ASSERT_EQ(skht_add(h, std::to_string(i).c_str(), &d), 0);
    }
    skht_destroy(h, [](void *p) {
        free(p);
        ++freed;
    });
    EXPECT_EQ(freed, 10);
}

TEST(Gkh, MisuseIsFatal) {
    EXPECT_DEATH((void)skht_get(0, "k", nullptr), "ASSERT at");
    EXPECT_DEATH((void)skht_rm(0, "k", nullptr), "ASSERT at");
    EXPECT_DEATH(skht_destroy(0, nullptr), "ASSERT at");
    EXPECT_DEATH(skht_print(0, stdout, 0), "ASSERT at");
    EXPECT_DEATH((void)nkht_get(0, 1, nullptr), "ASSERT at");
    EXPECT_DEATH((void)skht_create(nullptr, 4, nullptr, nullptr, 0), "ASSERT at");
    skht_t h = 0;
    EXPECT_DEATH((void)skht_create(&h, 0, nullptr, nullptr, 0), "ASSERT at");
    const char *keys[] = {"a"};
    EXPECT_DEATH((void)skht_create(&h, 4, nullptr, keys, 0), "ASSERT at");
}

}  // namespace

// xvdat tests: the lowest-free-slot order, deletion codes, the walks' stop
// rules, growth, and how bound, mapped and embedded lists are sized.
#include "xvdat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

int *ints(void *data) { return static_cast<int *>(data); }

// Records the indices visited; a value above the threshold is a hit.
struct visits {
    std::vector<size_t> seen;
    int threshold;
};

int visit(void *data, size_t i, void *aux) {
    auto *v = static_cast<visits *>(aux);
    v->seen.push_back(i);
    return ints(data)[i] > v->threshold ? ints(data)[i] : 0;
}

TEST(Xvdat, WalksStopOnlyWhenAskedWhereButListFindAlwaysStops) {
    xvec v{};
    xvlst l{};
    for (int x : {1, 8, 3, 9, 7}) {
        ASSERT_EQ(xvec_add(&v, sizeof(int), 4), xvlst_add(&l, sizeof(int), 4));
        ints(v.data)[v.len - 1] = ints(l.data)[l.len - 1] = x;
    }
    visits log{{}, 5};
    size_t at = 99;
    EXPECT_EQ(xvec_each_aux(&v, visit, &log, &at), 8);
    EXPECT_EQ(at, 1u);
    log.seen.clear();  // kept: without a stop pointer the walk goes on, the last result wins
    EXPECT_EQ(xvec_find(&v, &log, visit, nullptr), 7);
    EXPECT_EQ(log.seen.size(), 5u);

    ASSERT_EQ(xvlst_del(&l, 1, nullptr), 0);
    log.seen.clear();
    EXPECT_EQ(xvlst_find(&l, &log, visit, nullptr), 9);
    EXPECT_EQ(log.seen, (std::vector<size_t>{0, 2, 3}));
    xvec_reset(&v);
    xvlst_reset(&l);
    EXPECT_DEATH((void)xvec_reserve(&v, 1, 4, 0), "v && \\(growblk > 0\\)");
}

TEST(Xvdat, SlotsAreReusedLowestFirstAndBadDeletesChangeNothing) {
    xvlst l{};
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 34);  // no storage yet
    for (ssize_t want : {0, 1, 2}) EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), want);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 1);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 5, nullptr), 34);  // above last, which deleting did not lower
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 114);
    for (ssize_t want : {0, 2, 3}) EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), want);

    // A full list grows in blocks, keeps its content, zeroes the new part
    // and resumes at the first new slot.
    ints(l.data)[3] = 33;
    ASSERT_EQ(xvlst_reserve(&l, 5, sizeof(int), 4), 0);
    EXPECT_EQ(l.max_len, 8u);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 4), 4);
    EXPECT_EQ(ints(l.data)[3], 33);
    EXPECT_EQ(ints(l.data)[7], 0);

    ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
    xvlst_purge_all(&l, [](void *data, size_t j) { ints(data)[j] = -1; });  // the storage stays
    EXPECT_EQ(std::vector<int>(ints(l.data), ints(l.data) + 6),
              (std::vector<int>{-1, -1, 0, -1, -1, 0}));
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 4), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 4), 1);
    auto all = [](void *, size_t, void *) { return 1; };
    EXPECT_EQ(xvlst_rmif(&l, nullptr, all, nullptr), 2);
    xvlst_reset(&l);
}

TEST(Xvdat, BoundMappedAndEmbeddedListsAreSizedOnceAndNeverGrow) {
    alignas(8) unsigned char buf[EMBLST_HDR + 100], dst[sizeof buf];
    memset(buf, 0xab, sizeof buf);
    xvlst l{};
    EXPECT_EQ(xvlst_bind(&l, buf, 9, 9), -1);  // one slot would leave no map byte
    ASSERT_EQ(xvlst_bind(&l, buf, 100, 9), 0);
    EXPECT_EQ(l.max_len, 10u);
    EXPECT_EQ(l.taken, reinterpret_cast<char *>(buf + 90));
    EXPECT_EQ(buf[99], 0);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(xvlst_add(&l, 9, 1), i);
    EXPECT_EQ(xvlst_add(&l, 9, 1), XV_EFIXED);
    xvlst_reset(&l);

    ASSERT_EQ(xvlst_mmap_fixed(&l, 1000, 64), 0);
    EXPECT_EQ(l.flags, XV_FIXED | XV_MAPPED);
    EXPECT_EQ(l.taken, static_cast<char *>(l.data) + 64000);
    EXPECT_EQ(xvlst_reserve(&l, 2000, 64, 1), XV_EFIXED);
    xvlst_reset(&l);

    emblst *el = emblst_create(buf, sizeof buf, 9);
    ASSERT_NE(el, nullptr);
    EXPECT_EQ(el->taken_offt, static_cast<off_t>(EMBLST_HDR + 90));  // 10 slots, then their map
    for (int i = 0; i < 10; ++i) ASSERT_EQ(emblst_add(el), i);
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(emblst_del(el, 6, nullptr), 0);
    EXPECT_EQ(emblst_del(el, 6, nullptr), 114);
    EXPECT_EQ(emblst_del(el, 10, nullptr), 34);
    errno = 0;
    EXPECT_EQ(emblst_copy(el, dst, EMBLST_HDR + 99), nullptr);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(emblst_copy(el, dst, sizeof dst), reinterpret_cast<emblst *>(dst));
    memset(buf, 0, sizeof buf);  // the copy stands on its own
    EXPECT_EQ(emblst_add(reinterpret_cast<emblst *>(dst)), 6);
    EXPECT_DEATH((void)emblst_create(buf + 4, 100, 4), "0 == \\(\\(u_long\\)buf % sizeof\\(long");
}

}  // namespace

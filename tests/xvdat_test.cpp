// xvdat tests: vector growth and binding, slot allocation order, deletion
// codes, iteration stop rules, bound/mapped/embedded lists.
#include "xvdat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

int *ints(void *data) { return static_cast<int *>(data); }

// Records every index it is called with; returns the element's value when it
// is in the "hit" set (value > threshold), else 0.
struct visit_log {
    std::vector<size_t> seen;
    int threshold;
};

int visit_aux(void *data, size_t i, void *aux) {
    auto *log = static_cast<visit_log *>(aux);
    log->seen.push_back(i);
    int v = ints(data)[i];
    return v > log->threshold ? v : 0;
}

TEST(Xvdat, XvecReserveRoundsUpToTheGrowthBlockAndZeroesTheNewPart) {
    xvec v{};
    ASSERT_EQ(xvec_reserve(&v, 5, sizeof(int), 4), 0);
    EXPECT_EQ(v.max_len, 8u);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(ints(v.data)[i], 0) << i;
    for (size_t i = 0; i < 8; ++i) ints(v.data)[i] = 7;
    ASSERT_EQ(xvec_reserve(&v, 3, sizeof(int), 4), 0);  // below capacity: nothing
    EXPECT_EQ(v.max_len, 8u);
    ASSERT_EQ(xvec_reserve(&v, 8, sizeof(int), 4), 0);  // exactly capacity: same size again
    EXPECT_EQ(v.max_len, 8u);
    ASSERT_EQ(xvec_reserve(&v, 9, sizeof(int), 4), 0);
    EXPECT_EQ(v.max_len, 12u);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(ints(v.data)[i], 7) << i;
    for (size_t i = 8; i < 12; ++i) EXPECT_EQ(ints(v.data)[i], 0) << i;
    xvec_reset(&v);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(v.max_len, 0u);
}

TEST(Xvdat, XvecAddAppendsAndGrowsByBlocks) {
    xvec v{};
    for (int i = 0; i < 25; ++i) {
        ssize_t j = xvec_add(&v, sizeof(int), 10);
        ASSERT_EQ(j, i);
        ints(v.data)[j] = i * i;
    }
    EXPECT_EQ(v.len, 25u);
    EXPECT_EQ(v.max_len, 30u);
    for (int i = 0; i < 25; ++i) EXPECT_EQ(ints(v.data)[i], i * i);
    ASSERT_EQ(xvec_expand(&v, 10, sizeof(int), 10), 0);  // 35 -> 40
    EXPECT_EQ(v.max_len, 40u);
    xvec_reset(&v);
    EXPECT_EQ(v.len, 0u);
}

TEST(Xvdat, BoundXvecNeverGrowsAndKeepsItsBufferOnReset) {
    alignas(int) unsigned char buf[14];
    memset(buf, 0xee, sizeof buf);
    xvec v{};
    ASSERT_EQ(xvec_bind(&v, buf, sizeof buf, sizeof(int)), 0);
    EXPECT_EQ(v.max_len, 3u);
    EXPECT_EQ(v.flags & XV_FIXED, XV_FIXED);
    for (unsigned char b : buf) EXPECT_EQ(b, 0);
    EXPECT_EQ(xvec_add(&v, sizeof(int), 1), 0);
    EXPECT_EQ(xvec_add(&v, sizeof(int), 1), 1);
    EXPECT_EQ(xvec_add(&v, sizeof(int), 1), 2);
    EXPECT_EQ(xvec_add(&v, sizeof(int), 1), -1);
    EXPECT_EQ(v.len, 3u);
    EXPECT_EQ(xvec_reserve(&v, 10, sizeof(int), 1), XV_EFIXED);
    EXPECT_EQ(xvec_expand(&v, 1, sizeof(int), 1), XV_EFIXED);
    xvec_reset(&v);
    EXPECT_EQ(v.data, static_cast<void *>(buf));
    EXPECT_EQ(v.max_len, 3u);
    EXPECT_EQ(v.len, 0u);
    EXPECT_EQ(xvec_add(&v, sizeof(int), 1), 0);

    xvec small{};
    EXPECT_EQ(xvec_bind(&small, buf, sizeof(int) - 1, sizeof(int)), -1);
}

TEST(Xvdat, XvecWalksStopOnlyWhenAskedWhere) {
    xvec v{};
    for (int x : {1, 5, 2, 9, 3}) {
        ssize_t j = xvec_add(&v, sizeof(int), 4);
        ASSERT_GE(j, 0);
        ints(v.data)[j] = x;
    }
    visit_log log{{}, 4};
    size_t at = 99;
    EXPECT_EQ(xvec_each_aux(&v, visit_aux, &log, &at), 5);
    EXPECT_EQ(at, 1u);
    EXPECT_EQ(log.seen, (std::vector<size_t>{0, 1}));

    // Without a stop pointer the walk goes on; the last call's result wins.
    log.seen.clear();
    EXPECT_EQ(xvec_each_aux(&v, visit_aux, &log, nullptr), 0);
    EXPECT_EQ(log.seen.size(), 5u);

    // xvec_find behaves the same way: no out pointer, no early stop.
    log.seen.clear();
    EXPECT_EQ(xvec_find(&v, &log, visit_aux, nullptr), 0);
    EXPECT_EQ(log.seen.size(), 5u);
    log.seen.clear();
    log.threshold = 6;
    EXPECT_EQ(xvec_find(&v, &log, visit_aux, &at), 9);
    EXPECT_EQ(at, 3u);

    static size_t calls;
    calls = 0;
    EXPECT_EQ(xvec_each(
                  &v,
                  [](void *data, size_t i) {
                      ++calls;
                      return ints(data)[i] == 2 ? 1 : 0;
                  },
                  &at),
              1);
    EXPECT_EQ(at, 2u);
    EXPECT_EQ(calls, 3u);
    xvec_reset(&v);

    xvec empty{};
    EXPECT_EQ(xvec_each_aux(&empty, visit_aux, &log, &at), 0);
}

TEST(Xvdat, AllocationFailureReturnsMinusOneOrAbortsWhenAsked) {
    xvec v{};
    // An element count whose byte size overflows can never be allocated.
    EXPECT_EQ(xvec_reserve(&v, SIZE_MAX / 2, 16, 1), -1);
    EXPECT_EQ(v.max_len, 0u);
    xvlst l{};
    EXPECT_EQ(xvlst_reserve(&l, SIZE_MAX / 2, 16, 1), -1);
    EXPECT_EQ(l.max_len, 0u);
    EXPECT_DEATH(
        {
            xvdat_flags |= XVDAT_ABORT_NOMEM;
            (void)xvec_reserve(&v, SIZE_MAX / 2, 16, 1);
        },
        "Aborting at");
}

TEST(Xvdat, SlotsAreTakenLowestFreeFirst) {
    xvlst l{};
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 1);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 2);
    EXPECT_EQ(xvlst_del(&l, 1, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 1);

    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 0);
    EXPECT_EQ(l.avail, 0);
    EXPECT_EQ(l.last, 2u);  // deleting does not lower it
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 0);
    EXPECT_EQ(l.avail, 2);  // slot 1 is taken, so the search moves on
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 2);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 3);
    EXPECT_EQ(l.len, 4u);
    EXPECT_EQ(l.last, 3u);
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.taken, nullptr);
}

TEST(Xvdat, SlotContentSurvivesGrowthAndFullListResumesAtTheNewPart) {
    xvlst l{};
    ASSERT_EQ(xvlst_add(&l, sizeof(int), 2), 0);
    ASSERT_EQ(xvlst_add(&l, sizeof(int), 2), 1);
    ints(l.data)[0] = 10;
    ints(l.data)[1] = 11;
    EXPECT_EQ(l.max_len, 2u);
    EXPECT_EQ(l.avail, -1);
    ASSERT_EQ(xvlst_reserve(&l, 5, sizeof(int), 2), 0);
    EXPECT_EQ(l.max_len, 6u);
    EXPECT_EQ(l.avail, 2);
    EXPECT_EQ(xvlst_reserve(&l, 6, sizeof(int), 2), 0);  // not above capacity: nothing
    EXPECT_EQ(l.max_len, 6u);
    for (size_t j = 2; j < 6; ++j) EXPECT_EQ(l.taken[j], 0) << j;
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 2), 2);
    EXPECT_EQ(ints(l.data)[0], 10);
    EXPECT_EQ(ints(l.data)[1], 11);
    EXPECT_EQ(ints(l.data)[2], 0);
    xvlst_reset(&l);
}

TEST(Xvdat, DeletingOutOfRangeOrFreeSlotChangesNothing) {
    xvlst l{};
    EXPECT_EQ(xvlst_del(&l, 0, nullptr), 34);  // no storage yet
    for (int i = 0; i < 4; ++i) ASSERT_EQ(xvlst_add(&l, sizeof(int), 8), i);
    ASSERT_EQ(xvlst_del(&l, 2, nullptr), 0);
    EXPECT_EQ(xvlst_del(&l, 5, nullptr), 34);  // above last (3), inside capacity (8)
    EXPECT_EQ(xvlst_del(&l, static_cast<size_t>(-1), nullptr), 34);
    EXPECT_EQ(xvlst_del(&l, 2, nullptr), 114);
    EXPECT_EQ(l.len, 3u);
    EXPECT_EQ(l.avail, 2);
    xvlst_reset(&l);
}

TEST(Xvdat, PurgeAllFreesEveryElementAndRestartsAtSlotZero) {
    xvlst l{};
    for (int i = 0; i < 5; ++i) {
        ssize_t j = xvlst_add(&l, sizeof(int), 4);
        ASSERT_EQ(j, i);
        ints(l.data)[j] = 100 + i;
    }
    ASSERT_EQ(xvlst_del(&l, 3, nullptr), 0);
    static std::vector<int> freed;
    freed.clear();
    xvlst_purge_all(&l, [](void *data, size_t j) { freed.push_back(ints(data)[j]); });
    EXPECT_EQ(freed, (std::vector<int>{100, 101, 102, 104}));
    EXPECT_EQ(l.len, 0u);
    EXPECT_EQ(l.last, 0u);
    EXPECT_EQ(l.max_len, 8u);  // storage kept
    for (size_t j = 0; j < l.max_len; ++j) EXPECT_EQ(l.taken[j], 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 4), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 4), 1);
    xvlst_reset(&l);
}

TEST(Xvdat, ListWalksVisitOccupiedSlotsAndFindAlwaysStops) {
    xvlst l{};
    for (int x : {1, 8, 3, 9, 7}) {
        ssize_t j = xvlst_add(&l, sizeof(int), 4);
        ASSERT_GE(j, 0);
        ints(l.data)[j] = x;
    }
    ASSERT_EQ(xvlst_del(&l, 1, nullptr), 0);

    visit_log log{{}, 5};
    EXPECT_EQ(xvlst_each_aux(&l, &log, visit_aux, nullptr), 7);
    EXPECT_EQ(log.seen, (std::vector<size_t>{0, 2, 3, 4}));

    size_t at = 99;
    log.seen.clear();
    EXPECT_EQ(xvlst_each_aux(&l, &log, visit_aux, &at), 9);
    EXPECT_EQ(at, 3u);

    // Unlike xvec_find, the first match ends the search even without out.
    log.seen.clear();
    EXPECT_EQ(xvlst_find(&l, &log, visit_aux, nullptr), 9);
    EXPECT_EQ(log.seen, (std::vector<size_t>{0, 2, 3}));
    log.threshold = 100;
    EXPECT_EQ(xvlst_find(&l, &log, visit_aux, &at), 0);

    static size_t calls;
    calls = 0;
    EXPECT_EQ(xvlst_each(
                  &l,
                  [](void *, size_t) {
                      ++calls;
                      return 0;
                  },
                  &at),
              0);
    EXPECT_EQ(calls, 4u);
    xvlst_reset(&l);

    xvlst empty{};
    EXPECT_EQ(xvlst_each_aux(&empty, &log, visit_aux, &at), 0);
    EXPECT_EQ(xvlst_find(&empty, &log, visit_aux, &at), 0);
}

TEST(Xvdat, RmifRemovesEveryMatchAndReportsTheCount) {
    xvlst l{};
    for (int x : {4, 7, 2, 9, 7, 1}) {
        ssize_t j = xvlst_add(&l, sizeof(int), 1);
        ASSERT_GE(j, 0);
        ints(l.data)[j] = x;
    }
    int key = 5;
    auto above = [](void *data, size_t j, void *k) {
        return ints(data)[j] > *static_cast<int *>(k) ? 1 : 0;
    };
    EXPECT_EQ(xvlst_rmif(&l, &key, above, nullptr), 3);
    EXPECT_EQ(l.len, 3u);
    EXPECT_EQ(l.avail, 1);
    EXPECT_EQ(xvlst_rmif(&l, &key, above, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 1);
    EXPECT_EQ(xvlst_add(&l, sizeof(int), 1), 3);
    xvlst_reset(&l);

    xvlst empty{};
    EXPECT_EQ(xvlst_rmif(&empty, &key, above, nullptr), 0);
}

TEST(Xvdat, BindFitsSlotsTogetherWithTheirMap) {
    alignas(8) unsigned char buf[100];
    memset(buf, 0xab, sizeof buf);
    xvlst l{};
    ASSERT_EQ(xvlst_bind(&l, buf, sizeof buf, 9), 0);
    EXPECT_EQ(l.max_len, 10u);
    EXPECT_EQ(l.taken, reinterpret_cast<char *>(buf + 90));
    EXPECT_EQ(l.flags, XV_FIXED);
    for (unsigned char b : buf) EXPECT_EQ(b, 0);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(xvlst_add(&l, 9, 1), i);
    EXPECT_EQ(xvlst_add(&l, 9, 1), XV_EFIXED);
    ASSERT_EQ(xvlst_del(&l, 4, nullptr), 0);
    EXPECT_EQ(xvlst_add(&l, 9, 1), 4);
    xvlst_reset(&l);  // the buffer stays the caller's
    EXPECT_EQ(l.data, nullptr);

    EXPECT_EQ(xvlst_bind(&l, buf, 9, 9), -1);  // one slot would leave no map byte
    EXPECT_EQ(xvlst_bind(&l, buf, 10, 9), 0);
    EXPECT_EQ(l.max_len, 1u);
}

TEST(Xvdat, MappedListIsFixedAndReleasedOnReset) {
    xvlst l{};
    ASSERT_EQ(xvlst_mmap_fixed(&l, 1000, 64), 0);
    EXPECT_EQ(l.flags, XV_FIXED | XV_MAPPED);
    EXPECT_EQ(l.meta.num, 64);
    EXPECT_EQ(l.max_len, 1000u);
    EXPECT_EQ(l.taken, static_cast<char *>(l.data) + 64000);
    for (int i = 0; i < 1000; ++i) {
        ssize_t j = xvlst_add(&l, 64, 1);
        ASSERT_EQ(j, i);
        memset(static_cast<char *>(l.data) + j * 64, 0x5a, 64);
    }
    EXPECT_EQ(xvlst_add(&l, 64, 1), XV_EFIXED);
    EXPECT_EQ(xvlst_reserve(&l, 2000, 64, 1), XV_EFIXED);
    xvlst_reset(&l);
    EXPECT_EQ(l.data, nullptr);
    EXPECT_EQ(l.flags, 0u);
    EXPECT_EQ(l.max_len, 0u);
}

TEST(Xvdat, ListMisuseIsFatalWithItsOwnText) {
    EXPECT_DEATH((void)xvec_reserve(nullptr, 1, 4, 1), "v && \\(growblk > 0\\)");
    xvec v{};
    EXPECT_DEATH((void)xvec_reserve(&v, 1, 4, 0), "v && \\(growblk > 0\\)");
    EXPECT_DEATH((void)xvec_expand(&v, 0, 4, 1), "ASSERT at");
    xvlst l{};
    ASSERT_EQ(xvlst_add(&l, sizeof(int), 2), 0);
    l.avail = 2;  // claims a slot beyond capacity
    EXPECT_DEATH((void)xvlst_add(&l, sizeof(int), 2),
                 "\\(0 == l->max_len\\) \\|\\| \\(l->avail < \\(ssize_t\\)l->max_len\\)");
    l.avail = 1;
    xvlst_reset(&l);
    xvlst m{};
    ASSERT_EQ(xvlst_mmap_fixed(&m, 4, 8), 0);
    m.meta.num = 0;
    EXPECT_DEATH(xvlst_reset(&m), "blksz");
    m.meta.num = 8;
    xvlst_reset(&m);
}

TEST(Xvdat, EmbeddedListLaysOutHeaderSlotsAndMap) {
    alignas(8) unsigned char buf[EMBLST_HDR + 100];
    memset(buf, 0xcd, sizeof buf);
    reinterpret_cast<emblst *>(buf)->flags = 0x10;  // whatever the buffer held
    emblst *el = emblst_create(buf, sizeof buf, 9);
    ASSERT_NE(el, nullptr);
    EXPECT_EQ(static_cast<void *>(el), static_cast<void *>(buf));
    EXPECT_EQ(el->max_count, 10u);
    EXPECT_EQ(el->count, 0u);
    EXPECT_EQ(el->avail, 0);
    EXPECT_EQ(el->flags, 0x10u | XV_FIXED);
    EXPECT_EQ(el->taken_offt, static_cast<off_t>(EMBLST_HDR + 90));
    for (size_t i = EMBLST_HDR; i < sizeof buf; ++i) EXPECT_EQ(buf[i], 0) << i;

    for (int i = 0; i < 10; ++i) ASSERT_EQ(emblst_add(el), i);
    EXPECT_EQ(emblst_add(el), -1);
    EXPECT_EQ(el->avail, -1);
    EXPECT_EQ(emblst_del(el, 6, nullptr), 0);
    EXPECT_EQ(emblst_del(el, 6, nullptr), 114);
    EXPECT_EQ(emblst_del(el, 10, nullptr), 34);
    EXPECT_EQ(el->count, 9u);
    EXPECT_EQ(emblst_add(el), 6);

    alignas(8) unsigned char tiny[EMBLST_HDR + 9];
    EXPECT_EQ(emblst_create(tiny, sizeof tiny, 9), nullptr);  // no room for the map byte
    EXPECT_EQ(emblst_create(tiny, EMBLST_HDR - 1, 1), nullptr);
    EXPECT_NE(emblst_create(tiny, sizeof tiny, 8), nullptr);
}

TEST(Xvdat, EmbeddedListCopyIsACompleteIndependentList) {
    alignas(8) unsigned char buf[EMBLST_HDR + 64];
    emblst *el = emblst_create(buf, sizeof buf, sizeof(int));
    ASSERT_NE(el, nullptr);
    ASSERT_EQ(el->max_count, 12u);  // 12 * 4 + 12 = 60 of 64
    for (int i = 0; i < 4; ++i) {
        ssize_t j = emblst_add(el);
        ASSERT_EQ(j, i);
        ints(emblst_data(el))[j] = 10 * i;
    }
    ASSERT_EQ(emblst_del(el, 1, nullptr), 0);

    const size_t need = static_cast<size_t>(el->taken_offt) + el->max_count;
    alignas(8) unsigned char dst[sizeof buf];
    errno = 0;
    EXPECT_EQ(emblst_copy(el, dst, need - 1), nullptr);
    EXPECT_EQ(errno, EINVAL);
    emblst *cp = emblst_copy(el, dst, need);
    ASSERT_EQ(static_cast<void *>(cp), static_cast<void *>(dst));

    // The copy walks the same elements from its own storage.
    static std::vector<int> values;
    values.clear();
    auto collect = [](void *data, size_t j) {
        values.push_back(ints(data)[j]);
        return 0;
    };
    EXPECT_EQ(emblst_each(cp, collect, nullptr), 0);
    EXPECT_EQ(values, (std::vector<int>{0, 20, 30}));

    // And it moves on independently of the original.
    EXPECT_EQ(emblst_add(cp), 1);
    EXPECT_EQ(emblst_add(cp), 4);
    EXPECT_EQ(cp->count, 5u);
    EXPECT_EQ(el->count, 3u);
    EXPECT_EQ(emblst_add(el), 1);

    visit_log log{{}, 15};
    size_t at = 99;
    EXPECT_EQ(emblst_each_aux(el, &log, visit_aux, &at), 20);
    EXPECT_EQ(at, 2u);
}

TEST(Xvdat, EmbeddedListNeedsAnAlignedBuffer) {
    alignas(8) unsigned char buf[EMBLST_HDR + 64];
    EXPECT_DEATH((void)emblst_create(buf + 4, 100, 4),
                 "0 == \\(\\(u_long\\)buf % sizeof\\(long\\)\\)");
}

}  // namespace

// dlep tests: newest-at-head order, removal anywhere, sorted insertion and
// repositioning, verification, purging and the two print formats.
#include "dlep.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct item {
    dlep_elem hdr;
    int v;
};

int val_of(const dlep_elem *e) { return reinterpret_cast<const item *>(e)->v; }

int cmp_items(const dlep_elem *a, const dlep_elem *b) {
    return val_of(a) < val_of(b) ? -1 : (val_of(a) > val_of(b) ? 1 : 0);
}

// Values from head to tail, checked against the walk from tail to head.
std::vector<int> values(const dlep_list *l) {
    std::vector<int> fwd;
    for (const dlep_elem *e = l->head; e != nullptr && fwd.size() <= l->count; e = e->prev)
        fwd.push_back(val_of(e));
    std::vector<int> back;
    for (const dlep_elem *e = l->tail; e != nullptr && back.size() <= l->count; e = e->next)
        back.insert(back.begin(), val_of(e));
    EXPECT_EQ(fwd, back) << "links disagree";
    EXPECT_EQ(fwd.size(), l->count);
    return fwd;
}

std::string print_of(const dlep_list *l, bool debug) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    if (out == nullptr) return "open_memstream failed";
    auto printer = [](FILE *o, const dlep_elem *e) { fprintf(o, "%d", val_of(e)); };
    if (debug)
        dlep_debug_print(out, l, printer);
    else
        dlep_print(out, l, printer);
    fclose(out);
    std::string s(text, len);
    free(text);
    return s;
}

struct list_guard {
    dlep_list *l;
    ~list_guard() { dlep_destroy(l, nullptr); }
};

TEST(Dlep, AppendMakesTheNewestTheHeadAndTheFirstTheTail) {
    int err = 0;
    dlep_list *l = dlep_create(&err);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    EXPECT_EQ(dlep_rmtail(l), nullptr);
    EXPECT_EQ(dlep_rmhead(l), nullptr);
    EXPECT_EQ(dlep_head(l), nullptr);

    item it[4] = {};
    for (int i = 0; i < 4; ++i) {
        it[i].v = i;
        dlep_append(l, &it[i].hdr);
    }
    EXPECT_EQ(dlep_count(l), 4u);
    EXPECT_EQ(dlep_tail(l), &it[0].hdr);
    EXPECT_EQ(dlep_head(l), &it[3].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{3, 2, 1, 0}));

    EXPECT_EQ(dlep_rmtail(l), &it[0].hdr);
    EXPECT_EQ(dlep_rmhead(l), &it[3].hdr);
    EXPECT_EQ(it[0].hdr.prev, nullptr);
    EXPECT_EQ(it[0].hdr.next, nullptr);
    EXPECT_EQ(values(l), (std::vector<int>{2, 1}));
    EXPECT_EQ(dlep_rmtail(l), &it[1].hdr);
    EXPECT_EQ(dlep_rmtail(l), &it[2].hdr);
    EXPECT_EQ(dlep_rmtail(l), nullptr);
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->tail, nullptr);

    // An emptied list takes elements again.
    dlep_append(l, &it[2].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{2}));
    dlep_purge(l, nullptr);
}

TEST(Dlep, RemovingAnywhereKeepsBothDirectionsLinked) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    item it[5] = {};
    for (int i = 0; i < 5; ++i) {
        it[i].v = i;
        dlep_append(l, &it[i].hdr);
    }
    EXPECT_EQ(dlep_rm(l, &it[2].hdr), &it[2].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{4, 3, 1, 0}));
    EXPECT_EQ(dlep_rm(l, &it[0].hdr), &it[0].hdr);  // the tail
    EXPECT_EQ(dlep_tail(l), &it[1].hdr);
    EXPECT_EQ(dlep_rm(l, &it[4].hdr), &it[4].hdr);  // the head
    EXPECT_EQ(dlep_head(l), &it[3].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{3, 1}));
    dlep_purge(l, nullptr);
    EXPECT_EQ(dlep_count(l), 0u);
}

TEST(Dlep, RemovingAnElementNotOnTheListIsFatal) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    item a{}, b{}, stray{};
    dlep_append(l, &a.hdr);
    dlep_append(l, &b.hdr);
    EXPECT_DEATH(dlep_rm(l, &stray.hdr), "l->tail == le");
    dlep_list other{};
    other.tail = &a.hdr;  // a tail without a head
    EXPECT_DEATH(dlep_append(&other, &stray.hdr), "NULL == l->tail");
    dlep_purge(l, nullptr);
}

TEST(Dlep, SortedAddKeepsTheOrderInBothDirections) {
    for (int asc : {1, 0}) {
        SCOPED_TRACE(asc);
        dlep_list *l = dlep_create(nullptr);
        ASSERT_NE(l, nullptr);
        list_guard g{l};
        item it[7] = {};
        const int in[7] = {5, 1, 4, 2, 3, 4, 0};
        for (int i = 0; i < 7; ++i) {
            it[i].v = in[i];
            dlep_sadd(l, &it[i].hdr, asc, cmp_items);
        }
        if (asc == 1) {
            EXPECT_EQ(values(l), (std::vector<int>{0, 1, 2, 3, 4, 4, 5}));
        } else {
            EXPECT_EQ(values(l), (std::vector<int>{5, 4, 4, 3, 2, 1, 0}));
        }
        EXPECT_EQ(dlep_sverify(l, asc, cmp_items), 0);
        EXPECT_EQ(dlep_sverify(l, 1 - asc, cmp_items), -1);

        // A changed key moves back into place.
        it[1].v = 10;  // was 1
        EXPECT_EQ(dlep_sverify(l, asc, cmp_items), -1);
        dlep_repos(l, &it[1].hdr, asc, cmp_items);
        EXPECT_EQ(dlep_sverify(l, asc, cmp_items), 0);
        EXPECT_EQ(asc == 1 ? dlep_tail(l) : dlep_head(l), &it[1].hdr);
        it[1].v = -1;
        dlep_repos(l, &it[1].hdr, asc, cmp_items);
        EXPECT_EQ(asc == 1 ? dlep_head(l) : dlep_tail(l), &it[1].hdr);
        EXPECT_EQ(dlep_sverify(l, asc, cmp_items), 0);
        dlep_purge(l, nullptr);
    }
}

TEST(Dlep, VerifyingAShortListAnswersWithTheDirection) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    EXPECT_EQ(dlep_sverify(l, 1, cmp_items), 1);
    EXPECT_EQ(dlep_sverify(l, 0, cmp_items), 0);
    item a{};
    dlep_append(l, &a.hdr);
    EXPECT_EQ(dlep_sverify(l, 1, cmp_items), 1);
    // A comparison that is not exactly -1, 0 or +1 counts as out of order.
    item b{};
    dlep_append(l, &b.hdr);
    EXPECT_EQ(dlep_sverify(l, 1, [](const dlep_elem *, const dlep_elem *) { return 2; }), -1);
    dlep_purge(l, nullptr);
}

TEST(Dlep, RepositioningThatNeverSettlesIsFatal) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    item it[5] = {};
    for (auto &i : it) dlep_append(l, &i.hdr);
    // Says "move toward the tail", then "stay", then "move toward the head",
    // for ever: the element would bounce between two places.
    auto fickle = [](const dlep_elem *, const dlep_elem *) {
        static int n = 0;
        const int answers[3] = {1, 0, -1};
        return answers[n++ % 3];
    };
    EXPECT_DEATH(dlep_repos(l, &it[2].hdr, 1, fickle), "moves <= l->count");
    EXPECT_DEATH(dlep_repos(l, &it[1].hdr, 2, cmp_items), "asc == 0 \\|\\| asc == 1");
    dlep_purge(l, nullptr);
}

TEST(Dlep, PurgeFreesFromTheTailAndLeavesAnEmptyList) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    for (int i = 0; i < 5; ++i) {
        auto *it = static_cast<item *>(calloc(1, sizeof(item)));
        ASSERT_NE(it, nullptr);
        it->v = i;
        dlep_append(l, &it->hdr);
    }
    static std::vector<int> order;
    order.clear();
    dlep_purge(l, [](dlep_elem *e) {
        order.push_back(val_of(e));
        free(e);  // the walk has read e->next already
    });
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(l->count, 0u);
    EXPECT_EQ(l->head, nullptr);
    EXPECT_EQ(l->tail, nullptr);

    item it[3] = {};
    for (int i = 0; i < 3; ++i) {
        it[i].v = 10 + i;
        dlep_append(l, &it[i].hdr);
    }
    int sum = 0;
    dlep_purge1(
        l, [](dlep_elem *e, void *aux) { *static_cast<int *>(aux) += val_of(e); }, &sum);
    EXPECT_EQ(sum, 33);
    EXPECT_EQ(l->count, 0u);

    for (auto &i : it) dlep_append(l, &i.hdr);
    static int destroyed;
    destroyed = 0;
    dlep_destroy(l, [](dlep_elem *) { ++destroyed; });
    EXPECT_EQ(destroyed, 3);
}

TEST(Dlep, PrintsWalkFromHeadToTail) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    EXPECT_EQ(print_of(l, false), "\n");
    item it[3] = {};
    for (int i = 0; i < 3; ++i) {
        it[i].v = i + 1;
        dlep_append(l, &it[i].hdr);
    }
    EXPECT_EQ(print_of(l, false), "{3} {2} {1} \n");

    char expect[512];
    int n = snprintf(
        expect, sizeof expect,
        "dlep_list:%p count=3 head=%p tail=%p "
        "#0[%p]: {prev=%p next=%p data=3; "
        "#1[%p]: {prev=%p next=%p data=2; "
        "#2[%p]: {prev=%p next=%p data=1; \n",
        static_cast<void *>(l), static_cast<void *>(&it[2]), static_cast<void *>(&it[0]),
        static_cast<void *>(&it[2]), static_cast<void *>(&it[1]), static_cast<void *>(nullptr),
        static_cast<void *>(&it[1]), static_cast<void *>(&it[0]), static_cast<void *>(&it[2]),
        static_cast<void *>(&it[0]), static_cast<void *>(nullptr), static_cast<void *>(&it[1]));
    ASSERT_TRUE(n > 0 && static_cast<size_t>(n) < sizeof expect);
    EXPECT_EQ(print_of(l, true), expect);
    dlep_purge(l, nullptr);
}

TEST(Dlep, DebugPrintOfACountThatDisagreesIsFatal) {
    dlep_list *l = dlep_create(nullptr);
    ASSERT_NE(l, nullptr);
    list_guard g{l};
    item it[2] = {};
    dlep_append(l, &it[0].hdr);
    dlep_append(l, &it[1].hdr);
    l->count = 3;
    EXPECT_DEATH(dlep_debug_print(stderr, l, nullptr),
                 "dlep_debug_print: ERROR: p=.*, i=2, l->count=3");
    l->count = 1;
    EXPECT_DEATH(dlep_debug_print(stderr, l, nullptr), "ERROR: p=0x.*, i=1, l->count=1");
    l->count = 2;
    dlep_purge(l, nullptr);
}

}  // namespace

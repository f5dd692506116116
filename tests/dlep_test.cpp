// dlep tests: newest-at-head order, removal anywhere, sorted insertion and
// repositioning, purging from the tail, and the list's own assertions.
#include "dlep.h"

#include <gtest/gtest.h>

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
    std::vector<int> fwd, back;
    for (const dlep_elem *e = l->head; e && fwd.size() <= l->count; e = e->prev)
        fwd.push_back(val_of(e));
    for (const dlep_elem *e = l->tail; e && back.size() <= l->count; e = e->next)
        back.insert(back.begin(), val_of(e));
    EXPECT_EQ(fwd, back) << "links disagree";
    EXPECT_EQ(fwd.size(), l->count);
    return fwd;
}

TEST(Dlep, NewestIsTheHeadAndRemovalAnywhereKeepsTheLinks) {
    dlep_list list{}, *l = &list;
    EXPECT_EQ(dlep_rmtail(l), nullptr);
    item it[5] = {{{}, 0}, {{}, 1}, {{}, 2}, {{}, 3}, {{}, 4}};
    for (item &i : it) dlep_append(l, &i.hdr);
    EXPECT_EQ(dlep_tail(l), &it[0].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{4, 3, 2, 1, 0}));
    auto fickle = [](const dlep_elem *, const dlep_elem *) {  // would bounce for ever
        static int n = 0;
        return 1 - n++ % 3;  // toward the tail, stay, toward the head, ...
    };
    EXPECT_DEATH(dlep_repos(l, &it[2].hdr, 1, fickle), "moves <= l->count");
    EXPECT_DEATH(dlep_repos(l, &it[2].hdr, 2, cmp_items), "asc == 0 \\|\\| asc == 1");

    EXPECT_EQ(dlep_rm(l, &it[2].hdr), &it[2].hdr);
    EXPECT_EQ(it[2].hdr.prev, nullptr);
    EXPECT_EQ(dlep_rmtail(l), &it[0].hdr);
    EXPECT_EQ(dlep_rmhead(l), &it[4].hdr);
    EXPECT_EQ(values(l), (std::vector<int>{3, 1}));

    item stray{};
    EXPECT_DEATH(dlep_rm(l, &stray.hdr), "l->tail == le");
    dlep_list broken{};
    broken.tail = &it[0].hdr;  // a tail without a head
    EXPECT_DEATH(dlep_append(&broken, &stray.hdr), "NULL == l->tail");
    // Purged from the tail; the callback may free e, so its link is read first.
    dlep_purge(l, [](dlep_elem *e) {
        static int seq = 0;
        reinterpret_cast<item *>(e)->v = ++seq;
        e->next = nullptr;
    });
    EXPECT_EQ(it[3].v, it[1].v + 1);
    EXPECT_EQ(values(l), std::vector<int>{});
}

TEST(Dlep, SortedAddAndRepositionKeepTheOrder) {
    dlep_list l{};
    item it[6] = {{{}, 5}, {{}, 1}, {{}, 4}, {{}, 2}, {{}, 4}, {{}, 0}};
    for (item &i : it) dlep_sadd(&l, &i.hdr, 0, cmp_items);  // descending: largest at the head
    EXPECT_EQ(values(&l), (std::vector<int>{5, 4, 4, 2, 1, 0}));
    EXPECT_EQ(dlep_sverify(&l, 1, cmp_items), -1);
    it[1].v = 10;  // a changed key moves back into place
    dlep_repos(&l, &it[1].hdr, 0, cmp_items);
    it[3].v = -1;
    dlep_repos(&l, &it[3].hdr, 0, cmp_items);
    EXPECT_EQ(values(&l), (std::vector<int>{10, 5, 4, 4, 0, -1}));
    EXPECT_EQ(dlep_sverify(&l, 0, cmp_items), 0);
}

}  // namespace

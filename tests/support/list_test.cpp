#include "support/list.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A list of five nodes a..e whose data points at their own index.
class ListTest : public ::testing::Test {
protected:
    zel_list list{};
    zel_list other{};
    zel_list_node n[5]{};
    int ids[5] = {0, 1, 2, 3, 4};

    void SetUp() override {
        for (int i = 0; i < 5; ++i) n[i].data = &ids[i];
    }
    void fill(int count) {
        for (int i = 0; i < count; ++i) zel_list_push_back(&list, &n[i]);
    }
    static std::vector<int> order(const zel_list& l) {
        std::vector<int> out;
        for (const zel_list_node* p = l.first; p != nullptr; p = p->next) out.push_back(*static_cast<int*>(p->data));
        return out;
    }
    static std::vector<int> reverse(const zel_list& l) {
        std::vector<int> out;
        for (const zel_list_node* p = l.last; p != nullptr; p = p->prev) out.push_back(*static_cast<int*>(p->data));
        return out;
    }
    void expect_consistent(const zel_list& l) {
        const zel_list_node* bad = &n[0];
        EXPECT_EQ(zel_list_check(&l, &bad), ZEL_LIST_OK);
        EXPECT_EQ(bad, nullptr);
        std::vector<int> back = reverse(l);
        std::vector<int> fwd = order(l);
        EXPECT_EQ(std::vector<int>(back.rbegin(), back.rend()), fwd);
    }
};

TEST_F(ListTest, PushFrontAndBack) {
    zel_list_push_back(&list, &n[1]);
    zel_list_push_front(&list, &n[0]);
    EXPECT_EQ(zel_list_push_back(&list, &n[2]), &n[2]);
    EXPECT_EQ(order(list), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(list.count, 3u);
    EXPECT_EQ(n[0].prev, nullptr);
    EXPECT_EQ(n[2].next, nullptr);
    EXPECT_EQ(n[1].list, &list);
    expect_consistent(list);
}

TEST_F(ListTest, PushingALinkedNodeMovesIt) {
    fill(3);
    zel_list_push_back(&other, &n[1]);
    EXPECT_EQ(list.count, 2u);
    EXPECT_EQ(other.count, 1u);
    EXPECT_EQ(order(list), (std::vector<int>{0, 2}));
    EXPECT_EQ(n[1].list, &other);
    zel_list_push_front(&list, &n[2]);  // within the same list
    EXPECT_EQ(order(list), (std::vector<int>{2, 0}));
    EXPECT_EQ(list.count, 2u);
    expect_consistent(list);
    expect_consistent(other);
}

TEST_F(ListTest, RemoveFirstMiddleLastAndUnlinked) {
    fill(5);
    zel_list_remove(&n[2]);
    zel_list_remove(&n[0]);
    zel_list_remove(&n[4]);
    EXPECT_EQ(order(list), (std::vector<int>{1, 3}));
    EXPECT_EQ(list.count, 2u);
    EXPECT_EQ(n[2].list, nullptr);
    EXPECT_EQ(n[2].next, nullptr);
    EXPECT_EQ(n[2].prev, nullptr);
    zel_list_remove(&n[2]);  // in no list: nothing happens
    zel_list_remove(nullptr);
    EXPECT_EQ(list.count, 2u);
    zel_list_remove(&n[1]);
    zel_list_remove(&n[3]);
    EXPECT_EQ(list.first, nullptr);
    EXPECT_EQ(list.last, nullptr);
    EXPECT_EQ(list.count, 0u);
}

TEST_F(ListTest, InsertBeforeAndAfter) {
    zel_list_push_back(&list, &n[1]);
    zel_list_push_back(&list, &n[3]);
    zel_list_insert_before(&n[1], &n[0]);  // before the first: becomes first
    zel_list_insert_after(&n[3], &n[4]);   // after the last: becomes last
    zel_list_insert_before(&n[3], &n[2]);  // in the middle
    EXPECT_EQ(order(list), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(list.first, &n[0]);
    EXPECT_EQ(list.last, &n[4]);
    EXPECT_EQ(list.count, 5u);
    expect_consistent(list);
    zel_list_insert_after(&n[0], &n[4]);  // moves within the list
    EXPECT_EQ(order(list), (std::vector<int>{0, 4, 1, 2, 3}));
    EXPECT_EQ(list.count, 5u);
    expect_consistent(list);
}

TEST_F(ListTest, RefusedLinksChangeNothing) {
    fill(2);
    EXPECT_EQ(zel_list_insert_after(&n[3], &n[4]), nullptr);  // pos in no list
    EXPECT_EQ(zel_list_insert_before(&n[0], &n[0]), nullptr);
    EXPECT_EQ(zel_list_insert_after(nullptr, &n[4]), nullptr);
    EXPECT_EQ(zel_list_push_front(nullptr, &n[4]), nullptr);
    EXPECT_EQ(zel_list_push_back(&list, nullptr), nullptr);
    EXPECT_EQ(list.count, 2u);
    EXPECT_EQ(n[4].list, nullptr);
    expect_consistent(list);
}

// Corruptions of a consistent three-node list, each caught by one check.
struct Corruption {
    const char* name;
    void (*apply)(zel_list& l, zel_list& other, zel_list_node* n);
    int node_index;  // node given to zel_list_check_node
    int node_result;
    int list_result;
    int bad_index;   // node reported by zel_list_check, -1 for none
};

class ListCheck : public ::testing::TestWithParam<Corruption> {};

TEST_P(ListCheck, ReportsTheFirstFailure) {
    const Corruption& c = GetParam();
    zel_list l{};
    zel_list other{};
    zel_list_node n[4]{};
    for (int i = 0; i < 3; ++i) zel_list_push_back(&l, &n[i]);
    zel_list_push_back(&other, &n[3]);
    c.apply(l, other, n);
    EXPECT_EQ(zel_list_check_node(&n[c.node_index]), c.node_result);
    const zel_list_node* bad = &n[3];
    EXPECT_EQ(zel_list_check(&l, &bad), c.list_result);
    EXPECT_EQ(bad, c.bad_index < 0 ? nullptr : &n[c.bad_index]);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ListCheck,
    ::testing::Values(
        Corruption{"Consistent", [](zel_list&, zel_list&, zel_list_node*) {}, 1, 0, 0, -1},
        Corruption{"NodeInNoList", [](zel_list&, zel_list&, zel_list_node* n) { n[1].list = nullptr; }, 1, 3, 3, 1},
        Corruption{"PrevInOtherList", [](zel_list&, zel_list&, zel_list_node* n) { n[0].list = n[3].list; }, 1, 4,
                   5, 0},
        Corruption{"PrevNextWrong", [](zel_list&, zel_list&, zel_list_node* n) { n[1].prev = &n[2]; }, 1, 7, 8, 0},
        Corruption{"FirstHasPrev", [](zel_list&, zel_list&, zel_list_node* n) { n[0].prev = &n[3]; }, 0, 4, 4, 0},
        Corruption{"FirstHasConsistentPrev",
                   [](zel_list&, zel_list&, zel_list_node* n) {
                       n[0].prev = &n[2];
                       n[2].next = &n[0];
                   },
                   0, 5, 5, 0},
        Corruption{"MiddleHasNoPrev",
                   [](zel_list&, zel_list&, zel_list_node* n) {
                       n[1].prev = nullptr;
                   },
                   1, 5, 8, 0},
        Corruption{"LastHasNext", [](zel_list&, zel_list&, zel_list_node* n) { n[2].next = &n[3]; }, 2, 6, 6, 2},
        Corruption{"NotLastNoNext", [](zel_list& l, zel_list&, zel_list_node* n) { l.last = &n[1]; }, 1, 6, 6, 1},
        Corruption{"NextPrevWrong", [](zel_list&, zel_list&, zel_list_node* n) { n[2].prev = &n[0]; }, 1, 8, 8, 1},
        Corruption{"CountOffByOne", [](zel_list& l, zel_list&, zel_list_node*) { ++l.count; }, 1, 0, 9, -1},
        Corruption{"LastWithoutFirst", [](zel_list& l, zel_list&, zel_list_node*) { l.first = nullptr; }, 0, 5, 2,
                   -1},
        Corruption{"FirstWithoutLast", [](zel_list& l, zel_list&, zel_list_node*) { l.last = nullptr; }, 0, 0, 2, -1},
        // A node whose next is itself must end the walk, not spin it.
        Corruption{"SelfLoop", [](zel_list&, zel_list&, zel_list_node* n) { n[1].next = &n[1]; }, 1, 8, 8, 1}),
    [](const ::testing::TestParamInfo<Corruption>& i) { return std::string(i.param.name); });

TEST(ListCheckNull, NullArguments) {
    EXPECT_EQ(zel_list_check_node(nullptr), ZEL_LIST_NULL);
    EXPECT_EQ(zel_list_check(nullptr, nullptr), ZEL_LIST_NULL);
    zel_list empty{};
    EXPECT_EQ(zel_list_check(&empty, nullptr), ZEL_LIST_OK);
}

}  // namespace

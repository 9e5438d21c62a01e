#include "support/list.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Five nodes whose data is their index, two lists to move them between, and
// operations that expect to succeed (they return the node they linked).
struct Nodes {
    zel_list list{}, other{};
    zel_list_node n[5]{};
    int ids[5] = {0, 1, 2, 3, 4};
    Nodes() {
        for (int i = 0; i < 5; ++i) n[i].data = &ids[i];
    }
    void back(int i, zel_list* l = nullptr) { EXPECT_EQ(zel_list_push_back(l ? l : &list, &n[i]), &n[i]); }
    void front(int i) { EXPECT_EQ(zel_list_push_front(&list, &n[i]), &n[i]); }
    void before(int pos, int i) { EXPECT_EQ(zel_list_insert_before(&n[pos], &n[i]), &n[i]); }
    void after(int pos, int i) { EXPECT_EQ(zel_list_insert_after(&n[pos], &n[i]), &n[i]); }
    void fill(int count) {
        for (int i = 0; i < count; ++i) back(i);
    }
};

// The contents walked from `first`; the walk from `last` must meet the same.
std::vector<int> walk(const zel_list& l) {
    std::vector<int> fwd, back;
    for (const zel_list_node* p = l.first; p != nullptr; p = p->next) {
        EXPECT_EQ(p->list, &l);
        fwd.push_back(*static_cast<int*>(p->data));
    }
    for (const zel_list_node* p = l.last; p != nullptr; p = p->prev) {
        back.insert(back.begin(), *static_cast<int*>(p->data));
    }
    EXPECT_EQ(back, fwd);
    return fwd;
}

struct OpCase {
    const char* name;
    void (*ops)(Nodes& s);
    std::vector<int> list, other;  // expected contents afterwards
};
void PrintTo(const OpCase& c, std::ostream* os) { *os << c.name; }

class ListOps : public ::testing::TestWithParam<OpCase> {};

// After every sequence both lists walk the same both ways, pass the check
// (links, ends, count), and every node in neither list is fully unlinked.
TEST_P(ListOps, LeaveConsistentLists) {
    Nodes s;
    GetParam().ops(s);
    const std::pair<const zel_list*, std::vector<int>> lists[] = {{&s.list, GetParam().list},
                                                                   {&s.other, GetParam().other}};
    for (const auto& l : lists) {
        EXPECT_EQ(walk(*l.first), l.second);
        EXPECT_EQ(zel_list_check(l.first, nullptr), ZEL_LIST_OK);
    }
    for (const zel_list_node& node : s.n) {
        EXPECT_TRUE(node.list != nullptr || (node.next == nullptr && node.prev == nullptr)) << node.data;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, ListOps,
    ::testing::Values(
        OpCase{"PushFrontAndBack", [](Nodes& s) { s.back(1), s.front(0), s.back(2); }, {0, 1, 2}, {}},
        OpCase{"PushingALinkedNodeMovesIt", [](Nodes& s) { s.fill(3), s.back(1, &s.other), s.front(2); }, {2, 0}, {1}},
        OpCase{"RemoveFirstMiddleLastTwiceAndNull",
               [](Nodes& s) {
                   s.fill(5);
                   for (int i : {2, 0, 4, 2}) zel_list_remove(&s.n[i]);
                   zel_list_remove(nullptr);
               },
               {1, 3}, {}},
        OpCase{"RemoveAll", [](Nodes& s) { s.fill(2), zel_list_remove(&s.n[1]), zel_list_remove(&s.n[0]); }, {}, {}},
        // Before the first, after the last, in the middle, then a move within.
        OpCase{"Insert",
               [](Nodes& s) { s.back(1), s.back(3), s.before(1, 0), s.after(3, 4), s.before(3, 2), s.after(0, 4); },
               {0, 4, 1, 2, 3}, {}},
        // The node moved is the neighbour on the far side of pos, at the end
        // of the list: once it is unlinked, pos is the end.
        OpCase{"InsertLastAfterItsPredecessor", [](Nodes& s) { s.fill(3), s.after(1, 2); }, {0, 1, 2}, {}},
        OpCase{"InsertFirstBeforeItsSuccessor", [](Nodes& s) { s.fill(3), s.before(1, 0); }, {0, 1, 2}, {}},
        OpCase{"RefusedLinksChangeNothing",
               [](Nodes& s) {
                   s.fill(2);
                   EXPECT_EQ(zel_list_insert_after(&s.n[3], &s.n[4]), nullptr);  // pos in no list
                   EXPECT_EQ(zel_list_insert_before(&s.n[0], &s.n[0]), nullptr);
                   EXPECT_EQ(zel_list_push_front(nullptr, &s.n[4]), nullptr);
                   EXPECT_EQ(zel_list_push_back(&s.list, nullptr), nullptr);
               },
               {0, 1}, {}}),
    [](const ::testing::TestParamInfo<OpCase>& i) { return std::string(i.param.name); });

// Corruptions of a consistent three-node list (n[3] sits alone in another
// list). No product path checks lists: the count its contract names, and the
// loop that must not hang the check the sequences above rely on.
struct Corruption {
    const char* name;
    void (*apply)(zel_list& l, zel_list_node* n);
    int node_index;  // node given to zel_list_check_node
    int node_result, list_result;
    int bad_index;  // node reported by zel_list_check, -1 for none
};
void PrintTo(const Corruption& c, std::ostream* os) { *os << c.name; }

class ListCheck : public ::testing::TestWithParam<Corruption> {};

TEST_P(ListCheck, ReportsTheFirstFailure) {
    const Corruption& c = GetParam();
    zel_list l{}, other{};
    zel_list_node n[4]{};
    for (int i = 0; i < 3; ++i) zel_list_push_back(&l, &n[i]);
    zel_list_push_back(&other, &n[3]);
    c.apply(l, n);
    EXPECT_EQ(zel_list_check_node(&n[c.node_index]), c.node_result);
    const zel_list_node* bad = &n[3];
    EXPECT_EQ(zel_list_check(&l, &bad), c.list_result);
    EXPECT_EQ(bad, c.bad_index < 0 ? nullptr : &n[c.bad_index]);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ListCheck,
    ::testing::Values(
        Corruption{"Consistent", [](zel_list&, zel_list_node*) {}, 1, 0, 0, -1},
        Corruption{"CountOffByOne", [](zel_list& l, zel_list_node*) { ++l.count; }, 1, 0, 9, -1},
        // A node whose next is itself must end the walk, not spin it.
        Corruption{"SelfLoop", [](zel_list&, zel_list_node* n) { n[1].next = &n[1]; }, 1, 8, 8, 1}),
    [](const ::testing::TestParamInfo<Corruption>& i) { return std::string(i.param.name); });

TEST(ListCheckNull, NullArguments) {
    EXPECT_EQ(zel_list_check_node(nullptr), ZEL_LIST_NULL);
    EXPECT_EQ(zel_list_check(nullptr, nullptr), ZEL_LIST_NULL);
    zel_list empty{};
    EXPECT_EQ(zel_list_check(&empty, nullptr), ZEL_LIST_OK);
}

}  // namespace

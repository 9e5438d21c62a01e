// Intrusive doubly linked list. Nodes are embedded in the records they link,
// so the list never allocates and every operation takes constant time. The
// event loop keeps its timers and socket interests on these lists.
//
// Invariants: a node is in at most one list; `list` is null exactly when the
// node is in none, and then `next` and `prev` are null too; first->prev and
// last->next are null; `count` equals the number of nodes reachable from
// `first`. A zero-initialised zel_list is empty and a zero-initialised
// zel_list_node is in no list.
#pragma once

#include <cstdint>

struct zel_list_node;

struct zel_list {
    std::uint32_t count;
    zel_list_node* first;
    zel_list_node* last;
};

struct zel_list_node {
    void* data;  // the containing record; set by the owner, never touched by the list
    zel_list* list;
    zel_list_node* next;
    zel_list_node* prev;
};

// Unlinks `node` from its list; nothing when it (or the node itself) is null.
void zel_list_remove(zel_list_node* node);
// Take `node` out of whatever list it is in and link it as the new first (or
// last) node of `list`. Return `node`; null (and nothing changed) when either
// pointer is null.
zel_list_node* zel_list_push_front(zel_list* list, zel_list_node* node);
zel_list_node* zel_list_push_back(zel_list* list, zel_list_node* node);
// Link `node` just before (after) `pos` in `pos`'s list, taking it out of its
// own list first. Return `node`; null (and nothing changed) when either pointer
// is null, when `pos` is in no list, or when `node` is `pos`.
zel_list_node* zel_list_insert_before(zel_list_node* pos, zel_list_node* node);
zel_list_node* zel_list_insert_after(zel_list_node* pos, zel_list_node* node);

// Results of the consistency checks (the checks' own numbers, not error codes).
enum : int {
    ZEL_LIST_OK = 0,
    ZEL_LIST_NULL = 1,               // null node or list
    ZEL_LIST_BAD_ENDS = 2,           // list: first without last or last without first
    ZEL_LIST_NO_LIST = 3,            // node: in no list
    ZEL_LIST_PREV_FOREIGN = 4,       // node: prev belongs to another list
    ZEL_LIST_BAD_FIRST = 5,          // node: prev present but node is first, or absent but not first
    ZEL_LIST_BAD_LAST = 6,           // node: next absent but node is not last, or present but last
    ZEL_LIST_PREV_NEXT = 7,          // node: prev->next is not the node
    ZEL_LIST_NEXT_PREV = 8,          // node: next->prev is not the node
    ZEL_LIST_BAD_COUNT = 9,          // list: count differs from the nodes reachable
};

// Checks one node against its neighbours and its list; the first failing test
// wins, in the order 1, 3, 4, 7, 5, 6, 8.
int zel_list_check_node(const zel_list_node* node);
// Checks a whole list. `*bad` (when `bad` is given) is set to null, then to
// the node that failed zel_list_check_node; 9 when the walk from `first`
// meets a different number of nodes than `count`.
int zel_list_check(const zel_list* list, const zel_list_node** bad);

#include "support/list.h"

namespace {

void link_first(zel_list* list, zel_list_node* node) {
    node->list = list;
    node->prev = nullptr;
    node->next = list->first;
    if (list->first != nullptr) {
        list->first->prev = node;
    } else {
        list->last = node;
    }
    list->first = node;
    ++list->count;
}

void link_last(zel_list* list, zel_list_node* node) {
    node->list = list;
    node->next = nullptr;
    node->prev = list->last;
    if (list->last != nullptr) {
        list->last->next = node;
    } else {
        list->first = node;
    }
    list->last = node;
    ++list->count;
}

bool can_link_next_to(const zel_list_node* pos, const zel_list_node* node) {
    return pos != nullptr && node != nullptr && pos != node && pos->list != nullptr;
}

}  // namespace

void zel_list_remove(zel_list_node* node) {
    if (node == nullptr || node->list == nullptr) return;
    zel_list* list = node->list;
    if (list->first == node) {
        list->first = node->next;
        if (list->first != nullptr) list->first->prev = nullptr;
    } else if (node->prev != nullptr) {
        node->prev->next = node->next;
    }
    if (list->last == node) {
        list->last = node->prev;
        if (list->last != nullptr) list->last->next = nullptr;
    } else if (node->next != nullptr) {
        node->next->prev = node->prev;
    }
    node->prev = nullptr;
    node->next = nullptr;
    node->list = nullptr;
    --list->count;
}

zel_list_node* zel_list_push_front(zel_list* list, zel_list_node* node) {
    if (list == nullptr || node == nullptr) return nullptr;
    zel_list_remove(node);
    link_first(list, node);
    return node;
}

zel_list_node* zel_list_push_back(zel_list* list, zel_list_node* node) {
    if (list == nullptr || node == nullptr) return nullptr;
    zel_list_remove(node);
    link_last(list, node);
    return node;
}

zel_list_node* zel_list_insert_before(zel_list_node* pos, zel_list_node* node) {
    if (!can_link_next_to(pos, node)) return nullptr;
    // Unlink first: taking `node` out of this same list can make `pos` the
    // first node, and the test below must see the list as it will be.
    zel_list_remove(node);
    if (pos->list->first == pos) {
        link_first(pos->list, node);
        return node;
    }
    node->list = pos->list;
    node->next = pos;
    node->prev = pos->prev;
    pos->prev = node;
    node->prev->next = node;
    ++node->list->count;
    return node;
}

zel_list_node* zel_list_insert_after(zel_list_node* pos, zel_list_node* node) {
    if (!can_link_next_to(pos, node)) return nullptr;
    // Unlink first: taking `node` out of this same list can make `pos` the
    // last node, and the test below must see the list as it will be.
    zel_list_remove(node);
    if (pos->list->last == pos) {
        link_last(pos->list, node);
        return node;
    }
    node->list = pos->list;
    node->prev = pos;
    node->next = pos->next;
    pos->next = node;
    node->next->prev = node;
    ++node->list->count;
    return node;
}

int zel_list_check_node(const zel_list_node* node) {
    if (node == nullptr) return ZEL_LIST_NULL;
    const zel_list* list = node->list;
    if (list == nullptr) return ZEL_LIST_NO_LIST;
    if (node->prev != nullptr && node->prev->list != list) return ZEL_LIST_PREV_FOREIGN;
    if (node->prev != nullptr && node->prev->next != node) return ZEL_LIST_PREV_NEXT;
    if ((node->prev != nullptr) == (list->first == node)) return ZEL_LIST_BAD_FIRST;
    if ((node->next != nullptr) == (list->last == node)) return ZEL_LIST_BAD_LAST;
    if (node->next != nullptr && node->next->prev != node) return ZEL_LIST_NEXT_PREV;
    return ZEL_LIST_OK;
}

int zel_list_check(const zel_list* list, const zel_list_node** bad) {
    if (bad != nullptr) *bad = nullptr;
    if (list == nullptr) return ZEL_LIST_NULL;
    if (list->first == nullptr) return list->last == nullptr ? ZEL_LIST_OK : ZEL_LIST_BAD_ENDS;
    if (list->last == nullptr) return ZEL_LIST_BAD_ENDS;

    // The walk ends even on a corrupted chain: every node that passes its
    // check is the `prev` of its successor, so a chain that came back to a node
    // already visited would give that node two different predecessors, and
    // test 8 (or 5 for the first node) fails before the loop closes.
    std::uint32_t visited = 0;
    for (const zel_list_node* node = list->first; node != nullptr; node = node->next) {
        const int result = zel_list_check_node(node);
        if (result != ZEL_LIST_OK) {
            if (bad != nullptr) *bad = node;
            return result;
        }
        ++visited;
    }
    return visited == list->count ? ZEL_LIST_OK : ZEL_LIST_BAD_COUNT;
}

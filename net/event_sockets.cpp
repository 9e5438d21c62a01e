// Socket interests of the event loop: three slots (read, write, exception),
// one select per turn, and the deferral of additions and removals made while
// socket callbacks run.
#include <cerrno>
#include <memory>
#include <new>

#include "net/event_loop_internal.h"

namespace {

zel_event_socket* entry_of(zel_list_node* node) { return static_cast<zel_event_socket*>(node->data); }

zel_event_socket* find(zel_event_slot& slot, int descriptor) {
    if (!FD_ISSET(descriptor, &slot.bits)) return nullptr;
    for (zel_list_node* n = slot.entries.first; n != nullptr; n = n->next) {
        if (entry_of(n)->descriptor == descriptor) return entry_of(n);
    }
    return nullptr;
}

void release(zel_event_slot& slot, zel_event_socket* entry) {
    zel_list_remove(&entry->node);
    FD_CLR(entry->descriptor, &slot.bits);
    delete entry;
}

void remove_entry(zel_event_loop* loop, unsigned type, zel_event_socket* entry) {
    if (loop->socket_dispatching) {
        entry->state = zel_socket_state::REMOVED;
        loop->purge_mask |= 1u << type;
        return;
    }
    release(loop->slots[type], entry);
}

// Makes deferred additions eligible and releases deferred removals.
void purge(zel_event_loop* loop) {
    for (unsigned type = 0; type < ZEL_EVENT_SLOT_COUNT; ++type) {
        if ((loop->purge_mask & (1u << type)) == 0) continue;
        zel_event_slot& slot = loop->slots[type];
        for (zel_list_node* n = slot.entries.first; n != nullptr;) {
            zel_list_node* next = n->next;
            zel_event_socket* entry = entry_of(n);
            if (entry->state == zel_socket_state::ADDED) {
                entry->state = zel_socket_state::ACTIVE;
            } else if (entry->state == zel_socket_state::REMOVED) {
                release(slot, entry);
            }
            n = next;
        }
    }
    loop->purge_mask = 0;
}

// Clears the dispatching flag however the walk ends.
class DispatchingGuard {
public:
    explicit DispatchingGuard(zel_event_loop* loop) : loop_(loop) { loop_->socket_dispatching = true; }
    ~DispatchingGuard() { loop_->socket_dispatching = false; }
    DispatchingGuard(const DispatchingGuard&) = delete;
    DispatchingGuard& operator=(const DispatchingGuard&) = delete;

private:
    zel_event_loop* loop_;
};

void dispatch(zel_event_loop* loop, fd_set* ready) {
    DispatchingGuard guard(loop);
    for (unsigned type = 0; type < ZEL_EVENT_SLOT_COUNT; ++type) {
        // Entries are only appended or re-marked while callbacks run, never
        // unlinked, so walking by `next` stays valid.
        for (zel_list_node* n = loop->slots[type].entries.first; n != nullptr; n = n->next) {
            zel_event_socket* entry = entry_of(n);
            if (entry->state != zel_socket_state::ACTIVE || !FD_ISSET(entry->descriptor, &ready[type])) continue;
            FD_CLR(entry->descriptor, &ready[type]);
            entry->callback(ZEL_EVENT_CAUSE_FIRED, entry->descriptor, type, entry->context);
        }
    }
}

}  // namespace

zel_error_t zel_event_loop__set_socket(zel_event_loop* loop, int descriptor, int type, zel_event_socket_cb callback,
                                       void* context, int rule) {
    if (loop == nullptr || descriptor < 0 || descriptor >= ZEL_EVENT_MAX_DESCRIPTOR || type < 0 ||
        type >= static_cast<int>(ZEL_EVENT_SLOT_COUNT)) {
        return ZEL_INVALIDPARAMETER;
    }
    zel_event_slot& slot = loop->slots[type];
    zel_event_socket* entry = find(slot, descriptor);

    if (entry != nullptr && entry->state != zel_socket_state::REMOVED) {
        if (rule == ZEL_EVENT_RULE_MUST_NOT_EXIST) return ZEL_ALREADY;
        if (callback == nullptr) {
            remove_entry(loop, static_cast<unsigned>(type), entry);
        } else {
            entry->callback = callback;
            entry->context = context;
        }
        return ZEL_SUCCESS;
    }
    if (entry != nullptr) {  // removal still deferred: revive it in place
        if (rule == ZEL_EVENT_RULE_MUST_EXIST) return ZEL_NOTFOUND;
        if (callback == nullptr) return ZEL_SUCCESS;
        entry->callback = callback;
        entry->context = context;
        entry->state = zel_socket_state::ADDED;
        loop->purge_mask |= 1u << type;
        return ZEL_SUCCESS;
    }

    if (rule == ZEL_EVENT_RULE_MUST_EXIST) return ZEL_NOTFOUND;
    if (callback == nullptr) return ZEL_SUCCESS;
    std::unique_ptr<zel_event_socket> fresh(new (std::nothrow) zel_event_socket{});
    if (!fresh) return ZEL_NOMEMORY;
    fresh->descriptor = descriptor;
    fresh->type = static_cast<std::uint8_t>(type);
    fresh->callback = callback;
    fresh->context = context;
    fresh->node.data = fresh.get();
    if (loop->socket_dispatching) {
        fresh->state = zel_socket_state::ADDED;
        loop->purge_mask |= 1u << type;
    } else {
        fresh->state = zel_socket_state::ACTIVE;
    }
    zel_list_push_back(&slot.entries, &fresh->node);
    FD_SET(descriptor, &slot.bits);
    if (descriptor + 1 > slot.bound) slot.bound = descriptor + 1;
    fresh.release();  // NOLINT(bugprone-unused-return-value): the slot's list owns the record now
    return ZEL_SUCCESS;
}

zel_error_t zel_event_loop_wait_and_dispatch(zel_event_loop* loop, const zel_utime* deadline) {
    fd_set ready[ZEL_EVENT_SLOT_COUNT];
    int nfds = 0;
    for (unsigned type = 0; type < ZEL_EVENT_SLOT_COUNT; ++type) {
        ready[type] = loop->slots[type].bits;
        if (loop->slots[type].bound > nfds) nfds = loop->slots[type].bound;
    }

    zel_utime now;
    const zel_error_t clock = zel_event_loop_clock(&now);
    if (clock != ZEL_SUCCESS) return clock;
    zel_utime timeout = ZEL_UTIME_ZERO;
    if (zel_utime_before(&now, deadline)) {
        timeout = *deadline;
        zel_utime_sub(&timeout, &now);
    }

    if (nfds == 0) return zel_utime_sleep(&timeout);

    zel_utime_normalise(&timeout);
    timeval tv;
    tv.tv_sec = timeout.sec;
    tv.tv_usec = timeout.usec;
    const int rc = select(nfds, &ready[ZEL_EVENT_SOCKET_READ], &ready[ZEL_EVENT_SOCKET_WRITE],
                          &ready[ZEL_EVENT_SOCKET_EXCEPTION], &tv);
    if (rc < 0) return zel_error_from_errno(errno);
    if (rc == 0) return ZEL_SUCCESS;

    dispatch(loop, ready);
    if (loop->purge_mask != 0) purge(loop);
    return ZEL_SUCCESS;
}

void zel_event_loop_free_sockets(zel_event_loop* loop) {
    for (zel_event_slot& slot : loop->slots) {
        while (slot.entries.first != nullptr) release(slot, entry_of(slot.entries.first));
    }
}

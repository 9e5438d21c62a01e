// Records of the event loop, shared by its implementation files (and read by
// its tests). Nothing outside net/event_*.cpp changes them.
#pragma once

#include <cstdint>
#include <sys/select.h>

#include "net/event_loop.h"
#include "support/list.h"

enum class zel_timer_state : std::uint8_t {
    ARMED,           // in the ordered list, eligible to fire
    NEW,             // created during a timer dispatch, waiting in the pending list
    DEAD,            // to be released when the dispatch ends
    FIRED_PERIODIC,  // a periodic timer whose callback ran in this dispatch
    MOVED,           // rescheduled during a dispatch
};

struct zel_event_timer {
    zel_event_loop* owner;
    zel_event_timer_cb callback;
    void* context;
    zel_utime expiry;
    zel_utime period;  // zero for a one-shot timer
    zel_timer_state state;
    zel_list_node node;  // in the ordered list or the pending list; data = this
};

enum class zel_socket_state : std::uint8_t {
    ACTIVE,   // dispatched when ready
    ADDED,    // added during a dispatch; eligible after it
    REMOVED,  // removal deferred until after the dispatch
};

struct zel_event_socket {
    int descriptor;
    std::uint8_t type;
    zel_socket_state state;
    zel_event_socket_cb callback;
    void* context;
    zel_list_node node;  // data = this
};

// One interest type: entries in registration order, the highest descriptor
// ever registered + 1 (it only grows), and a select set mirroring the entries.
struct zel_event_slot {
    zel_list entries;
    int bound;
    fd_set bits;
};

enum : unsigned { ZEL_EVENT_SLOT_COUNT = 3 };

struct zel_event_loop {
    zel_list timers;             // ARMED timers, earliest expiry first
    zel_list* pending;           // only while a timer dispatch runs
    zel_event_slot slots[ZEL_EVENT_SLOT_COUNT];
    bool socket_dispatching;
    unsigned purge_mask;  // bit per slot with deferred additions or removals
    bool running;
};

// The monotonic clock the loop reads; zel_utime_now unless a test replaces it.
extern zel_error_t (*zel_event_loop_clock)(zel_utime* out);

// Implemented in event_timers.cpp.
zel_error_t zel_event_loop_dispatch_timers(zel_event_loop* loop, const zel_utime* now);
void zel_event_loop_free_timers(zel_event_loop* loop);
// Implemented in event_sockets.cpp.
zel_error_t zel_event_loop_wait_and_dispatch(zel_event_loop* loop, const zel_utime* deadline);
void zel_event_loop_free_sockets(zel_event_loop* loop);

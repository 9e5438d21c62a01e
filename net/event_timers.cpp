// Timers of the event loop: an ordered list, earliest expiry first, and the
// deferral rules that keep a running timer dispatch safe from its callbacks.
#include <memory>
#include <new>

#include "net/event_loop_internal.h"

namespace {

zel_event_timer* timer_of(zel_list_node* node) { return static_cast<zel_event_timer*>(node->data); }

bool dispatching(const zel_event_loop* loop) { return loop->pending != nullptr; }

bool is_zero(const zel_utime& t) { return t.sec == 0 && t.usec == 0; }

bool positive_period(const zel_utime& p) { return p.sec > 0 || (p.sec == 0 && p.usec != 0); }

// Inserted after the last timer that does not expire later, so timers with
// equal expiry fire in insertion order. The scan starts at the latest expiry
// because new timers usually expire last.
void insert_ordered(zel_event_loop* loop, zel_event_timer* timer) {
    for (zel_list_node* n = loop->timers.last; n != nullptr; n = n->prev) {
        if (!zel_utime_before(&timer->expiry, &timer_of(n)->expiry)) {
            zel_list_insert_after(n, &timer->node);
            return;
        }
    }
    zel_list_push_front(&loop->timers, &timer->node);
}

void release(zel_event_timer* timer) {
    zel_list_remove(&timer->node);
    delete timer;
}

// (at or now) + delay, or the clock's code when it cannot be read.
zel_error_t expiry_from(const zel_utime* at, const zel_utime* delay, zel_utime* out) {
    zel_utime t;
    if (at != nullptr) {
        t = *at;
        zel_utime_normalise(&t);
    } else {
        const zel_error_t rc = zel_event_loop_clock(&t);
        if (rc != ZEL_SUCCESS) return rc;
    }
    if (delay != nullptr) zel_utime_add(&t, delay);
    *out = t;
    return ZEL_SUCCESS;
}

zel_error_t add(zel_event_loop* loop, zel_event_timer_cb callback, const zel_utime& expiry, const zel_utime& period,
                void* context, zel_event_timer** out) {
    *out = nullptr;
    std::unique_ptr<zel_event_timer> timer(new (std::nothrow) zel_event_timer{});
    if (!timer) return ZEL_NOMEMORY;
    timer->owner = loop;
    timer->callback = callback;
    timer->context = context;
    timer->expiry = expiry;
    timer->period = period;
    timer->node.data = timer.get();
    if (dispatching(loop)) {
        timer->state = zel_timer_state::NEW;
        zel_list_push_back(loop->pending, &timer->node);
    } else {
        timer->state = zel_timer_state::ARMED;
        insert_ordered(loop, timer.get());
    }
    *out = timer.release();
    return ZEL_SUCCESS;
}

// New expiry and period for an existing timer; during a dispatch it keeps its
// place and is re-inserted when the dispatch ends.
void move(zel_event_timer* timer, const zel_utime& expiry, const zel_utime& period) {
    timer->expiry = expiry;
    timer->period = period;
    zel_event_loop* loop = timer->owner;
    if (dispatching(loop)) {
        // A timer still waiting in the pending list is inserted from there anyway.
        if (timer->state != zel_timer_state::NEW) timer->state = zel_timer_state::MOVED;
        return;
    }
    zel_list_remove(&timer->node);
    timer->state = zel_timer_state::ARMED;
    insert_ordered(loop, timer);
}

// The normalised period (which must be positive) and the first expiry of a
// periodic timer: `first`, or now + period without one.
zel_error_t periodic_times(const zel_utime* first, const zel_utime* period, zel_utime* p, zel_utime* expiry) {
    *p = *period;
    zel_utime_normalise(p);
    if (!positive_period(*p)) return ZEL_INVALIDPARAMETER;
    return expiry_from(first, first == nullptr ? p : nullptr, expiry);
}

}  // namespace

zel_error_t zel_event_loop__add_timer(zel_event_loop* loop, zel_event_timer_cb callback, const zel_utime* at,
                                      const zel_utime* delay, void* context, zel_event_timer** out) {
    if (loop == nullptr || out == nullptr || callback == nullptr || (at == nullptr && delay == nullptr)) {
        return ZEL_INVALIDPARAMETER;
    }
    zel_utime expiry;
    const zel_error_t rc = expiry_from(at, delay, &expiry);
    if (rc != ZEL_SUCCESS) return rc;
    return add(loop, callback, expiry, ZEL_UTIME_ZERO, context, out);
}

zel_error_t zel_event_loop__add_periodic_timer(zel_event_loop* loop, zel_event_timer_cb callback,
                                               const zel_utime* first, const zel_utime* period, void* context,
                                               zel_event_timer** out) {
    if (loop == nullptr || out == nullptr || period == nullptr || callback == nullptr) return ZEL_INVALIDPARAMETER;
    zel_utime p, expiry;
    const zel_error_t rc = periodic_times(first, period, &p, &expiry);
    if (rc != ZEL_SUCCESS) return rc;
    return add(loop, callback, expiry, p, context, out);
}

zel_error_t zel_event_timer__reschedule(zel_event_timer* timer, const zel_utime* at, const zel_utime* delay) {
    if (timer == nullptr || (at == nullptr && delay == nullptr)) return ZEL_INVALIDPARAMETER;
    zel_utime expiry;
    const zel_error_t rc = expiry_from(at, delay, &expiry);
    if (rc != ZEL_SUCCESS) return rc;
    move(timer, expiry, ZEL_UTIME_ZERO);
    return ZEL_SUCCESS;
}

zel_error_t zel_event_timer__reschedule_periodic(zel_event_timer* timer, const zel_utime* first,
                                                 const zel_utime* period) {
    if (timer == nullptr || period == nullptr) return ZEL_INVALIDPARAMETER;
    zel_utime p, expiry;
    const zel_error_t rc = periodic_times(first, period, &p, &expiry);
    if (rc != ZEL_SUCCESS) return rc;
    move(timer, expiry, p);
    return ZEL_SUCCESS;
}

zel_error_t zel_event_timer__remove(zel_event_timer* timer) {
    if (timer == nullptr) return ZEL_INVALIDPARAMETER;
    if (dispatching(timer->owner) && timer->node.list != nullptr) {
        timer->state = zel_timer_state::DEAD;
        return ZEL_SUCCESS;
    }
    release(timer);
    return ZEL_SUCCESS;
}

void* zel_event_timer__context(const zel_event_timer* timer) { return timer != nullptr ? timer->context : nullptr; }

zel_error_t zel_event_loop_dispatch_timers(zel_event_loop* loop, const zel_utime* now) {
    zel_list pending{};
    loop->pending = &pending;

    // Callbacks never unlink anything from the ordered list while this walk
    // runs (removal and rescheduling only change states), so the remembered
    // successor stays valid.
    for (zel_list_node* n = loop->timers.first; n != nullptr;) {
        zel_list_node* next = n->next;
        zel_event_timer* timer = timer_of(n);
        n = next;
        if (timer->state != zel_timer_state::ARMED) continue;
        if (zel_utime_before(now, &timer->expiry)) break;
        if (is_zero(timer->period)) {
            timer->state = zel_timer_state::DEAD;
            timer->callback(ZEL_EVENT_CAUSE_FIRED, timer);
        } else {
            timer->state = zel_timer_state::FIRED_PERIODIC;
            timer->callback(ZEL_EVENT_CAUSE_FIRED, timer);
            // A late periodic timer fires once and is next due one period
            // after this turn: missed periods are not caught up. A callback
            // that rescheduled or removed its own timer has the last word.
            if (timer->state == zel_timer_state::FIRED_PERIODIC) {
                timer->expiry = *now;
                zel_utime_add(&timer->expiry, &timer->period);
            }
        }
    }

    for (zel_list_node* n = loop->timers.first; n != nullptr;) {
        zel_list_node* next = n->next;
        zel_event_timer* timer = timer_of(n);
        if (timer->state == zel_timer_state::DEAD) {
            release(timer);
        } else if (timer->state != zel_timer_state::ARMED) {
            zel_list_push_back(&pending, n);
        }
        n = next;
    }

    while (pending.first != nullptr) {
        zel_event_timer* timer = timer_of(pending.first);
        if (timer->state == zel_timer_state::DEAD) {
            release(timer);
        } else {
            zel_list_remove(&timer->node);
            timer->state = zel_timer_state::ARMED;
            insert_ordered(loop, timer);
        }
    }
    loop->pending = nullptr;
    return ZEL_SUCCESS;
}

void zel_event_loop_free_timers(zel_event_loop* loop) {
    while (loop->timers.first != nullptr) release(timer_of(loop->timers.first));
}

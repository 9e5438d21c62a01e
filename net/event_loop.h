// Single-threaded event loop over select: sockets becoming readable, writable
// or exceptional, and one-shot or periodic timers on the monotonic clock.
// Every callback runs inside zel_event_loop__run_once, on the caller's thread.
//
// Callbacks may add, reschedule and remove timers and add or remove socket
// interests on their own loop; such changes are deferred until the dispatch in
// progress ends, so no callback meets a released record and no timer fires
// twice in one turn:
//  - a timer created during a timer dispatch cannot fire in that dispatch,
//    even when it is already due (it fires in a later turn);
//  - a timer removed during a timer dispatch is released when it ends;
//  - a timer rescheduled during a timer dispatch keeps its place for the rest
//    of the walk and is re-inserted when it ends;
//  - a socket interest removed during a socket dispatch is not called again,
//    and one added is called from the next turn on.
//
// All operations return SUCCESS unless said otherwise; a null required pointer
// gives INVALIDPARAMETER and a failed allocation NOMEMORY.
#pragma once

#include "net/time.h"
#include "support/errors.h"

struct zel_event_loop;
struct zel_event_timer;

// The only cause the loop passes to callbacks. Callbacks ignore any other.
enum : unsigned { ZEL_EVENT_CAUSE_FIRED = 0 };

// Interest types (slots), dispatched in this order within one turn.
enum : unsigned { ZEL_EVENT_SOCKET_READ = 0, ZEL_EVENT_SOCKET_WRITE = 1, ZEL_EVENT_SOCKET_EXCEPTION = 2 };

// Rules of zel_event_loop__set_socket.
enum : int { ZEL_EVENT_RULE_DONT_CARE = 0, ZEL_EVENT_RULE_MUST_EXIST = 1, ZEL_EVENT_RULE_MUST_NOT_EXIST = 2 };

// Descriptors 0 to ZEL_EVENT_MAX_DESCRIPTOR - 1 can be watched.
enum : int { ZEL_EVENT_MAX_DESCRIPTOR = 1024 };

typedef void (*zel_event_timer_cb)(unsigned cause, zel_event_timer* timer);
typedef void (*zel_event_socket_cb)(unsigned cause, int descriptor, unsigned type, void* context);

// An empty loop into *out; NOMEMORY when it cannot be allocated (*out untouched).
zel_error_t zel_event_loop__create(zel_event_loop** out);
// Releases every timer and socket interest without calling any callback
// (descriptors are not closed: they belong to their owners), then the loop.
// INVALIDSTATE while the loop is running (from inside a callback).
zel_error_t zel_event_loop__destroy(zel_event_loop* loop);

// One turn: fires the due timers, waits once (until the earliest timer or at
// most `max_wait`, 60 seconds when null) and calls the callbacks of the
// sockets that became ready. INVALIDSTATE when called from inside a callback
// of the same loop; INVALIDPARAMETER for a negative `max_wait`; the code of a
// failing select or of an interrupted sleep (INTERRUPTED) otherwise; the code
// of the monotonic clock when it cannot be read.
zel_error_t zel_event_loop__run_once(zel_event_loop* loop, const zel_utime* max_wait);

// A one-shot timer expiring at `at` (or now when null) plus `delay` (when
// given). At least one of the two is required. The loop releases a one-shot
// timer as soon as its callback returns, unless the callback rescheduled it:
// the owner drops the handle inside the callback and never removes it later.
// On success *out is the timer; after the argument checks *out is set to null
// before allocating, so a NOMEMORY leaves it null; a rejected call leaves it
// untouched.
zel_error_t zel_event_loop__add_timer(zel_event_loop* loop, zel_event_timer_cb callback, const zel_utime* at,
                                      const zel_utime* delay, void* context, zel_event_timer** out);
// A periodic timer: first expiry `first` (or now + period when null), then
// every `period` (required, positive after normalising). A periodic timer that
// fires late fires once and is next due one period after that turn's now; it
// stays until removed. *out as for zel_event_loop__add_timer.
zel_error_t zel_event_loop__add_periodic_timer(zel_event_loop* loop, zel_event_timer_cb callback,
                                               const zel_utime* first, const zel_utime* period, void* context,
                                               zel_event_timer** out);
// Makes the timer one-shot, expiring at (`at` or now) + `delay`. At least one
// of the two is required.
zel_error_t zel_event_timer__reschedule(zel_event_timer* timer, const zel_utime* at, const zel_utime* delay);
// Makes the timer periodic with `period` (required and positive, else
// INVALIDPARAMETER and the timer unchanged), first expiry `first` or now +
// period.
zel_error_t zel_event_timer__reschedule_periodic(zel_event_timer* timer, const zel_utime* first,
                                                 const zel_utime* period);
// Cancels and releases the timer; the handle is invalid afterwards.
zel_error_t zel_event_timer__remove(zel_event_timer* timer);
// The context given at creation (null for a null timer).
void* zel_event_timer__context(const zel_event_timer* timer);

// Adds, changes or removes the interest of `descriptor` (0 to 1023) in `type`
// (READ, WRITE or EXCEPTION); a null `callback` removes it.
//  - an existing interest: ALREADY with MUST_NOT_EXIST; otherwise callback and
//    context are replaced, or the interest removed;
//  - no interest: NOTFOUND with MUST_EXIST; SUCCESS for a removal; otherwise
//    it is added (registration order is dispatch order).
// INVALIDPARAMETER for a null loop, a descriptor outside 0..1023 or a type
// outside 0..2.
zel_error_t zel_event_loop__set_socket(zel_event_loop* loop, int descriptor, int type, zel_event_socket_cb callback,
                                       void* context, int rule);

// The loop object and its turn; timers and sockets live in their own files.
#include <new>

#include "net/event_loop_internal.h"

zel_error_t (*zel_event_loop_clock)(zel_utime* out) = zel_utime_now;

namespace {

// The wait of a turn when the caller gives no maximum.
const zel_utime kDefaultMaxWait = {60, 0};

// Clears the running flag on every way out of a turn.
class RunningGuard {
public:
    explicit RunningGuard(zel_event_loop* loop) : loop_(loop) { loop_->running = true; }
    ~RunningGuard() { loop_->running = false; }
    RunningGuard(const RunningGuard&) = delete;
    RunningGuard& operator=(const RunningGuard&) = delete;

private:
    zel_event_loop* loop_;
};

}  // namespace

zel_error_t zel_event_loop__create(zel_event_loop** out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    zel_event_loop* loop = new (std::nothrow) zel_event_loop{};
    if (loop == nullptr) return ZEL_NOMEMORY;
    for (zel_event_slot& slot : loop->slots) FD_ZERO(&slot.bits);
    *out = loop;
    return ZEL_SUCCESS;
}

zel_error_t zel_event_loop__destroy(zel_event_loop* loop) {
    if (loop == nullptr) return ZEL_INVALIDPARAMETER;
    if (loop->running) return ZEL_INVALIDSTATE;
    zel_event_loop_free_timers(loop);
    zel_event_loop_free_sockets(loop);
    delete loop;
    return ZEL_SUCCESS;
}

zel_error_t zel_event_loop__run_once(zel_event_loop* loop, const zel_utime* max_wait) {
    if (loop == nullptr) return ZEL_INVALIDPARAMETER;
    if (loop->running) return ZEL_INVALIDSTATE;
    zel_utime wait = kDefaultMaxWait;
    if (max_wait != nullptr) {
        wait = *max_wait;
        zel_utime_normalise(&wait);
        if (wait.sec < 0) return ZEL_INVALIDPARAMETER;
    }
    // A turn without a clock cannot tell due timers from future ones; it is
    // refused as a whole and the loop stays as it was.
    zel_utime now;
    const zel_error_t clock = zel_event_loop_clock(&now);
    if (clock != ZEL_SUCCESS) return clock;

    RunningGuard running(loop);
    const zel_error_t timers = zel_event_loop_dispatch_timers(loop, &now);
    if (timers != ZEL_SUCCESS) return timers;

    zel_utime deadline = now;
    zel_utime_add(&deadline, &wait);
    if (loop->timers.first != nullptr) {
        const auto* first = static_cast<const zel_event_timer*>(loop->timers.first->data);
        if (zel_utime_before(&first->expiry, &deadline)) deadline = first->expiry;
    }
    return zel_event_loop_wait_and_dispatch(loop, &deadline);
}

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "event_test_util.h"

namespace {

// A timer's context: a name for the firing log and an optional action run
// inside the callback.
struct Probe {
    std::string name;
    std::vector<std::string>* log;
    std::function<void(zel_event_timer*)> action;
    zel_event_timer* handle = nullptr;
    int fired = 0;
};

void on_timer(unsigned cause, zel_event_timer* timer) {
    auto* p = static_cast<Probe*>(zel_event_timer__context(timer));
    EXPECT_EQ(cause, ZEL_EVENT_CAUSE_FIRED);
    ++p->fired;
    p->log->push_back(p->name);
    if (p->action) p->action(timer);
}

class Timers : public evtest::LoopTest {
protected:
    std::vector<std::string> log;
    std::vector<std::unique_ptr<Probe>> probes;

    Probe* probe(const std::string& name) {
        probes.push_back(std::make_unique<Probe>());
        probes.back()->name = name;
        probes.back()->log = &log;
        return probes.back().get();
    }
    Probe* one_shot(const std::string& name, const zel_utime& at) {
        Probe* p = probe(name);
        EXPECT_EQ(zel_event_loop__add_timer(loop, on_timer, &at, nullptr, p, &p->handle), ZEL_SUCCESS);
        return p;
    }
    // One timer dispatch at a chosen "now", as a turn performs it.
    void dispatch_at(const zel_utime& t) {
        loop->running = true;
        EXPECT_EQ(zel_event_loop_dispatch_timers(loop, &t), ZEL_SUCCESS);
        loop->running = false;
    }
    std::vector<zel_event_timer*> order() const {
        std::vector<zel_event_timer*> out;
        for (zel_list_node* n = loop->timers.first; n != nullptr; n = n->next) {
            out.push_back(static_cast<zel_event_timer*>(n->data));
        }
        return out;
    }
    void expect_list_ok() const { EXPECT_EQ(zel_list_check(&loop->timers, nullptr), ZEL_LIST_OK); }
    const zel_utime base{1000, 0};
};

TEST_F(Timers, OrderedByExpiryEqualOnesInCreationOrder) {
    Probe* b1 = one_shot("b1", {1002, 0});
    Probe* a = one_shot("a", {1001, 0});
    Probe* b2 = one_shot("b2", {1002, 0});
    Probe* c = one_shot("c", {1003, 5});
    Probe* b3 = one_shot("b3", {1002, 0});
    EXPECT_EQ(order(), (std::vector<zel_event_timer*>{a->handle, b1->handle, b2->handle, b3->handle, c->handle}));
    expect_list_ok();
    dispatch_at({1002, 0});  // expiring exactly now fires
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b1", "b2", "b3"}));
    EXPECT_EQ(loop->timers.count, 1u);  // fired one-shots are released
    EXPECT_EQ(order().front(), c->handle);
    dispatch_at({1003, 4});
    EXPECT_EQ(log.size(), 4u);
    dispatch_at({1003, 5});
    EXPECT_EQ(log.back(), "c");
    EXPECT_EQ(loop->timers.count, 0u);
}

TEST_F(Timers, RescheduleFromOwnCallbackKeepsTheTimer) {
    Probe* p = one_shot("p", base);
    p->action = [&](zel_event_timer* t) {
        if (p->fired == 1) {
            const zel_utime later{1005, 0};
            EXPECT_EQ(zel_event_timer__reschedule(t, &later, nullptr), ZEL_SUCCESS);
        }
    };
    dispatch_at(base);
    ASSERT_EQ(loop->timers.count, 1u);
    EXPECT_EQ(order().front()->state, zel_timer_state::ARMED);
    EXPECT_EQ(order().front()->expiry.sec, 1005);
    dispatch_at({1004, 999999});
    EXPECT_EQ(p->fired, 1);
    dispatch_at({1005, 0});
    EXPECT_EQ(p->fired, 2);
    EXPECT_EQ(loop->timers.count, 0u);
}

TEST_F(Timers, TimerCreatedInACallbackWaitsForTheNextDispatch) {
    Probe* child = probe("child");
    Probe* parent = one_shot("parent", base);
    parent->action = [&](zel_event_timer*) {
        const zel_utime past{1, 0};
        EXPECT_EQ(zel_event_loop__add_timer(loop, on_timer, &past, nullptr, child, &child->handle), ZEL_SUCCESS);
        EXPECT_EQ(child->handle->state, zel_timer_state::NEW);
    };
    dispatch_at(base);
    EXPECT_EQ(child->fired, 0);
    ASSERT_EQ(loop->timers.count, 1u);
    EXPECT_EQ(order().front(), child->handle);
    dispatch_at(base);
    EXPECT_EQ(child->fired, 1);
}

TEST_F(Timers, RemovalAndRescheduleDuringDispatchAreDeferred) {
    Probe* first = one_shot("first", base);
    Probe* removed = one_shot("removed", {1000, 1});
    Probe* moved = one_shot("moved", {1000, 2});
    one_shot("last", {1000, 3});
    first->action = [&](zel_event_timer*) {
        EXPECT_EQ(zel_event_timer__remove(removed->handle), ZEL_SUCCESS);
        EXPECT_EQ(removed->handle->state, zel_timer_state::DEAD);
        // Due at once, yet a timer moved during a dispatch waits for the next.
        const zel_utime past{999, 0};
        EXPECT_EQ(zel_event_timer__reschedule(moved->handle, &past, nullptr), ZEL_SUCCESS);
    };
    dispatch_at({1000, 3});
    EXPECT_EQ(log, (std::vector<std::string>{"first", "last"}));
    ASSERT_EQ(loop->timers.count, 1u);
    EXPECT_EQ(order().front(), moved->handle);
    EXPECT_EQ(moved->handle->expiry.sec, 999);
    dispatch_at({1000, 3});
    EXPECT_EQ(moved->fired, 1);
    EXPECT_EQ(loop->timers.count, 0u);
}

TEST_F(Timers, TimerCreatedAndRemovedInOneDispatchIsReleased) {
    Probe* child = probe("child");
    Probe* parent = one_shot("parent", base);
    parent->action = [&](zel_event_timer*) {
        const zel_utime delay{5, 0};
        ASSERT_EQ(zel_event_loop__add_timer(loop, on_timer, nullptr, &delay, child, &child->handle), ZEL_SUCCESS);
        EXPECT_EQ(zel_event_timer__remove(child->handle), ZEL_SUCCESS);
    };
    dispatch_at(base);
    EXPECT_EQ(loop->timers.count, 0u);
}

TEST_F(Timers, LatePeriodicTimerFiresOnceAndIsNotCaughtUp) {
    Probe* p = probe("tick");
    const zel_utime period{1, 0};
    ASSERT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, &base, &period, p, &p->handle), ZEL_SUCCESS);
    const zel_utime late{1010, 500000};  // ten periods late
    dispatch_at(late);
    EXPECT_EQ(p->fired, 1);
    ASSERT_EQ(loop->timers.count, 1u);
    EXPECT_EQ(p->handle->expiry.sec, 1011);
    EXPECT_EQ(p->handle->expiry.usec, 500000);
    EXPECT_EQ(p->handle->state, zel_timer_state::ARMED);
    dispatch_at({1011, 499999});
    EXPECT_EQ(p->fired, 1);
    dispatch_at({1011, 500000});
    EXPECT_EQ(p->fired, 2);
}

TEST_F(Timers, PeriodicCallbackThatReschedulesItselfHasTheLastWord) {
    Probe* p = probe("tick");
    const zel_utime period{1, 0};
    ASSERT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, &base, &period, p, &p->handle), ZEL_SUCCESS);
    p->action = [&](zel_event_timer* t) {
        const zel_utime at{2000, 0};
        EXPECT_EQ(zel_event_timer__reschedule(t, &at, nullptr), ZEL_SUCCESS);
    };
    dispatch_at(base);
    EXPECT_EQ(p->handle->expiry.sec, 2000);
    EXPECT_EQ(p->handle->period.sec, 0);
    p->action = nullptr;
    dispatch_at({2000, 0});
    EXPECT_EQ(p->fired, 2);
    EXPECT_EQ(loop->timers.count, 0u);  // now a one-shot: released
}

TEST_F(Timers, PeriodicCallbackRemovingItselfIsReleased) {
    Probe* p = probe("tick");
    const zel_utime period{0, 1000};
    ASSERT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, &base, &period, p, &p->handle), ZEL_SUCCESS);
    p->action = [&](zel_event_timer* t) { EXPECT_EQ(zel_event_timer__remove(t), ZEL_SUCCESS); };
    dispatch_at(base);
    EXPECT_EQ(loop->timers.count, 0u);
}

TEST_F(Timers, RescheduleOutsideADispatchResorts) {
    Probe* a = one_shot("a", {1001, 0});
    Probe* b = one_shot("b", {1002, 0});
    const zel_utime at{1003, 0};
    ASSERT_EQ(zel_event_timer__reschedule(a->handle, &at, nullptr), ZEL_SUCCESS);
    EXPECT_EQ(order(), (std::vector<zel_event_timer*>{b->handle, a->handle}));
    const zel_utime first{1000, 0}, period{0, 2500000};
    ASSERT_EQ(zel_event_timer__reschedule_periodic(a->handle, &first, &period), ZEL_SUCCESS);
    EXPECT_EQ(order().front(), a->handle);
    EXPECT_EQ(a->handle->period.sec, 2);  // normalised
    EXPECT_EQ(a->handle->period.usec, 500000);
    EXPECT_EQ(zel_event_timer__remove(b->handle), ZEL_SUCCESS);
    EXPECT_EQ(loop->timers.count, 1u);
    expect_list_ok();
}

struct BadTimerArgs {
    const char* name;
    bool loop, callback, out, at, delay;
};

class TimerArgs : public evtest::LoopTest, public ::testing::WithParamInterface<BadTimerArgs> {};

TEST_P(TimerArgs, RejectedAndOutUntouched) {
    const BadTimerArgs& c = GetParam();
    const zel_utime t{1, 0};
    zel_event_timer* sentinel = reinterpret_cast<zel_event_timer*>(0x1);
    zel_event_timer* out = sentinel;
    EXPECT_EQ(zel_event_loop__add_timer(c.loop ? loop : nullptr, c.callback ? on_timer : nullptr, c.at ? &t : nullptr,
                                        c.delay ? &t : nullptr, nullptr, c.out ? &out : nullptr),
              ZEL_INVALIDPARAMETER);
    EXPECT_EQ(out, sentinel);
}

INSTANTIATE_TEST_SUITE_P(Cases, TimerArgs,
                         ::testing::Values(BadTimerArgs{"NoLoop", false, true, true, true, true},
                                           BadTimerArgs{"NoCallback", true, false, true, true, true},
                                           BadTimerArgs{"NoOut", true, true, false, true, true},
                                           BadTimerArgs{"NeitherAtNorDelay", true, true, true, false, false}),
                         [](const ::testing::TestParamInfo<BadTimerArgs>& i) { return std::string(i.param.name); });

TEST_F(Timers, PeriodMustBePositive) {
    zel_event_timer* out = nullptr;
    const zel_utime zero{0, 0}, negative{-1, 500}, one_usec{0, 1};
    EXPECT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, &zero, nullptr, &out), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, &negative, nullptr, &out),
              ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, nullptr, nullptr, &out),
              ZEL_INVALIDPARAMETER);
    EXPECT_EQ(out, nullptr);
    Probe* p = probe("p");
    ASSERT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, &one_usec, p, &out), ZEL_SUCCESS);
    const zel_utime kept = out->expiry;
    EXPECT_EQ(zel_event_timer__reschedule_periodic(out, nullptr, &zero), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(out->expiry.sec, kept.sec);
    EXPECT_EQ(out->expiry.usec, kept.usec);
    EXPECT_EQ(out->period.usec, 1);
    EXPECT_EQ(zel_event_timer__reschedule(out, nullptr, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_timer__reschedule(nullptr, &zero, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_timer__remove(nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_timer__context(out), p);
}

// Whole turns on the real clock.
TEST_F(Timers, TurnWithoutSocketsSleepsUntilTheTimerThenFiresIt) {
    Probe* p = probe("p");
    const zel_utime delay{0, 30000};
    ASSERT_EQ(zel_event_loop__add_timer(loop, on_timer, nullptr, &delay, p, &p->handle), ZEL_SUCCESS);
    const zel_utime max_wait{20, 0};
    const zel_utime start = now();
    ASSERT_EQ(zel_event_loop__run_once(loop, &max_wait), ZEL_SUCCESS);
    const zel_utime after = now();
    EXPECT_EQ(p->fired, 0);  // timers are dispatched before the wait
    const zel_utime bound = plus(start, 10);
    EXPECT_TRUE(zel_utime_before(&after, &bound));  // woke for the timer, not for max_wait
    const zel_utime brief{0, 10000};
    for (int i = 0; i < 100 && p->fired == 0; ++i) ASSERT_EQ(zel_event_loop__run_once(loop, &brief), ZEL_SUCCESS);
    EXPECT_EQ(p->fired, 1);
}

TEST_F(Timers, NestedTurnAndDestroyFromACallbackAreRefused) {
    Probe* p = probe("p");
    zel_error_t nested = ZEL_SUCCESS, destroyed = ZEL_SUCCESS;
    p->action = [&](zel_event_timer*) {
        const zel_utime zero{0, 0};
        nested = zel_event_loop__run_once(loop, &zero);
        destroyed = zel_event_loop__destroy(loop);
    };
    const zel_utime zero{0, 0};
    ASSERT_EQ(zel_event_loop__add_timer(loop, on_timer, nullptr, &zero, p, &p->handle), ZEL_SUCCESS);
    for (int i = 0; i < 100 && p->fired == 0; ++i) ASSERT_EQ(zel_event_loop__run_once(loop, &zero), ZEL_SUCCESS);
    EXPECT_EQ(nested, ZEL_INVALIDSTATE);
    EXPECT_EQ(destroyed, ZEL_INVALIDSTATE);
    EXPECT_FALSE(loop->running);
}

TEST_F(Timers, TurnArguments) {
    const zel_utime negative{-1, 0};
    EXPECT_EQ(zel_event_loop__run_once(loop, &negative), ZEL_INVALIDPARAMETER);
    const zel_utime carried{-1, 1000100};  // normalises to {0, 100}: a valid wait
    Probe* p = probe("p");
    const zel_utime zero{0, 0};
    ASSERT_EQ(zel_event_loop__add_timer(loop, on_timer, nullptr, &zero, p, &p->handle), ZEL_SUCCESS);
    EXPECT_EQ(zel_event_loop__run_once(loop, &carried), ZEL_SUCCESS);
    EXPECT_EQ(zel_event_loop__run_once(nullptr, &zero), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__destroy(nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__create(nullptr), ZEL_INVALIDPARAMETER);
}

zel_error_t broken_clock(zel_utime*) { return ZEL_FAULT; }

// Without a clock a turn cannot tell due timers from future ones: it is
// refused as a whole, nothing fires, and the loop is not left running.
TEST_F(Timers, UnreadableClockFailsTheTurnAndTimerCreation) {
    Probe* p = one_shot("p", base);
    auto* const saved = zel_event_loop_clock;
    zel_event_loop_clock = broken_clock;
    const zel_utime zero{0, 0};
    const zel_utime period{1, 0};
    zel_event_timer* out = nullptr;
    const zel_error_t turn = zel_event_loop__run_once(loop, &zero);
    const zel_error_t relative = zel_event_loop__add_timer(loop, on_timer, nullptr, &zero, nullptr, &out);
    const zel_error_t periodic = zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, &period, nullptr, &out);
    const zel_error_t absolute = zel_event_loop__add_timer(loop, on_timer, &base, nullptr, p, &out);
    zel_event_loop_clock = saved;
    EXPECT_EQ(turn, ZEL_FAULT);
    EXPECT_EQ(relative, ZEL_FAULT);
    EXPECT_EQ(periodic, ZEL_FAULT);
    EXPECT_EQ(absolute, ZEL_SUCCESS);  // needs no clock
    EXPECT_EQ(p->fired, 0);
    EXPECT_FALSE(loop->running);
    EXPECT_EQ(loop->timers.count, 2u);
}

TEST_F(Timers, DestroyReleasesTimersWithoutCallingThem) {
    Probe* p = one_shot("p", base);
    const zel_utime period{1, 0};
    ASSERT_EQ(zel_event_loop__add_periodic_timer(loop, on_timer, nullptr, &period, p, &p->handle), ZEL_SUCCESS);
    ASSERT_EQ(zel_event_loop__destroy(loop), ZEL_SUCCESS);
    loop = nullptr;
    EXPECT_EQ(p->fired, 0);  // the sanitizer build checks nothing leaked
}

}  // namespace

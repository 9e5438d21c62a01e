#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "event_test_util.h"

namespace {

// A timer's context: its name for the firing log and an action run inside its
// first callback.
using Action = std::function<void(zel_event_timer*)>;
struct Probe {
    std::string name;
    std::string* log;
    Action action;
    zel_event_timer* handle = nullptr;
    int fired = 0;
};

void on_timer(unsigned cause, zel_event_timer* timer) {
    auto* p = static_cast<Probe*>(zel_event_timer__context(timer));
    EXPECT_EQ(cause, ZEL_EVENT_CAUSE_FIRED);
    *p->log += p->name + " ";
    if (++p->fired == 1 && p->action) p->action(timer);
}

class Timers : public evtest::LoopTest {
public:
    std::vector<std::unique_ptr<Probe>> probes;

    // A one-shot timer at `when`, or with a `period` a periodic one first due then.
    Probe* at(const std::string& name, zel_utime when, Action action = nullptr, zel_utime period = {0, 0}) {
        probes.push_back(std::make_unique<Probe>(Probe{name, &log, std::move(action)}));
        Probe* p = probes.back().get();
        EXPECT_EQ(period.sec == 0 && period.usec == 0
                      ? zel_event_loop__add_timer(loop, on_timer, &when, nullptr, p, &p->handle)
                      : zel_event_loop__add_periodic_timer(loop, on_timer, &when, &period, p, &p->handle),
                  ZEL_SUCCESS);
        return p;
    }
    // One timer dispatch at a chosen "now", as a turn performs it.
    void dispatch_at(zel_utime now) {
        loop->running = true;
        EXPECT_EQ(zel_event_loop_dispatch_timers(loop, &now), ZEL_SUCCESS);
        loop->running = false;
    }
};

void reschedule(zel_event_timer* timer, zel_utime when) {
    EXPECT_EQ(zel_event_timer__reschedule(timer, &when, nullptr), ZEL_SUCCESS);
}
void remove(zel_event_timer* timer) { EXPECT_EQ(zel_event_timer__remove(timer), ZEL_SUCCESS); }
Action rescheduler(zel_utime when) {
    return [when](zel_event_timer* timer) { reschedule(timer, when); };
}

// Dispatches at the given times; after each, the log so far and the number of
// timers still armed.
struct Step {
    zel_utime now;
    const char* log;
    unsigned left;
};

struct Schedule {
    const char* name;
    void (*setup)(Timers& t);
    std::vector<Step> steps;
};
void PrintTo(const Schedule& c, std::ostream* os) { *os << c.name; }

class TimerSchedule : public Timers, public ::testing::WithParamInterface<Schedule> {};

TEST_P(TimerSchedule, FiresInOrderAndDefersChangesMadeDuringADispatch) {
    GetParam().setup(*this);
    for (const Step& s : GetParam().steps) {
        dispatch_at(s.now);
        EXPECT_EQ(log, s.log) << "at " << s.now.sec << "." << s.now.usec;
        EXPECT_EQ(loop->timers.count, s.left) << "at " << s.now.sec << "." << s.now.usec;
        EXPECT_EQ(zel_list_check(&loop->timers, nullptr), ZEL_LIST_OK);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TimerSchedule,
    ::testing::Values(
        // Expiring exactly now fires; fired one-shots are released.
        Schedule{"EqualExpiryFiresInCreationOrder",
                 [](Timers& t) {
                     t.at("b1", {1002, 0}), t.at("a", {1001, 0}), t.at("b2", {1002, 0});
                     t.at("c", {1003, 5}), t.at("b3", {1002, 0});
                 },
                 {{{1002, 0}, "a b1 b2 b3 ", 1}, {{1003, 4}, "a b1 b2 b3 ", 1}, {{1003, 5}, "a b1 b2 b3 c ", 0}}},
        Schedule{"RescheduleFromOwnCallbackKeepsTheTimer",
                 [](Timers& t) { t.at("p", {1000, 0}, rescheduler({1005, 0})); },
                 {{{1000, 0}, "p ", 1}, {{1004, 999999}, "p ", 1}, {{1005, 0}, "p p ", 0}}},
        // The child sorts behind "later", where the walk would still meet it.
        Schedule{"CreatedDuringADispatchWaitsForTheNextEvenWhenDue",
                 [](Timers& t) {
                     t.at("parent", {1000, 0}, [&t](zel_event_timer*) { t.at("child", {1000, 2}); });
                     t.at("later", {1000, 1});
                 },
                 {{{1000, 3}, "parent later ", 1}, {{1000, 3}, "parent later child ", 0}}},
        Schedule{"CreatedAndRemovedInOneDispatchIsReleased",
                 [](Timers& t) {
                     t.at("parent", {1000, 0}, [&t](zel_event_timer*) { remove(t.at("child", {1, 0})->handle); });
                 },
                 {{{1000, 0}, "parent ", 0}, {{1000, 0}, "parent ", 0}}},
        Schedule{"RemovedDuringADispatchNeverFires",
                 [](Timers& t) {
                     Probe* gone = t.at("gone", {1000, 1});
                     t.at("first", {1000, 0}, [gone](zel_event_timer*) { remove(gone->handle); });
                     t.at("last", {1000, 3});
                 },
                 {{{1000, 3}, "first last ", 0}}},
        Schedule{"RescheduledDuringADispatchWaitsForTheNext",
                 [](Timers& t) {
                     Probe* moved = t.at("moved", {1000, 2});
                     t.at("first", {1000, 0}, [moved](zel_event_timer*) { reschedule(moved->handle, {999, 0}); });
                 },
                 {{{1000, 3}, "first ", 1}, {{1000, 3}, "first moved ", 0}}},
        // A late periodic timer fires once and is next due one period after now.
        Schedule{"LatePeriodicTimerIsNotCaughtUp", [](Timers& t) { t.at("tick", {1000, 0}, nullptr, {1, 0}); },
                 {{{1010, 500000}, "tick ", 1}, {{1011, 499999}, "tick ", 1}, {{1011, 500000}, "tick tick ", 1}}},
        Schedule{"PeriodicRescheduledByItsCallbackBecomesOneShot",
                 [](Timers& t) { t.at("tick", {1000, 0}, rescheduler({2000, 0}), {1, 0}); },
                 {{{1000, 0}, "tick ", 1}, {{1999, 0}, "tick ", 1}, {{2000, 0}, "tick tick ", 0}}},
        Schedule{"PeriodicRemovingItselfIsReleased",
                 [](Timers& t) { t.at("tick", {1000, 0}, remove, {0, 1000}); },
                 {{{1000, 0}, "tick ", 0}, {{1001, 0}, "tick ", 0}}},
        Schedule{"RescheduleOutsideADispatchResorts",
                 [](Timers& t) { reschedule(t.at("a", {1001, 0})->handle, {1003, 0}), t.at("b", {1002, 0}); },
                 {{{1002, 0}, "b ", 1}, {{1003, 0}, "b a ", 0}}},
        Schedule{"ReschedulePeriodicNormalisesThePeriod",
                 [](Timers& t) {
                     const zel_utime first{1000, 0}, period{0, 2500000};
                     zel_event_timer* a = t.at("a", {1001, 0})->handle;
                     EXPECT_EQ(zel_event_timer__reschedule_periodic(a, &first, &period), ZEL_SUCCESS);
                 },
                 {{{1000, 0}, "a ", 1}, {{1002, 499999}, "a ", 1}, {{1002, 500000}, "a a ", 1}}}),
    [](const ::testing::TestParamInfo<Schedule>& i) { return std::string(i.param.name); });

// Whole turns on the real clock.
TEST_F(Timers, TurnSleepsUntilTheTimerAndFiresItNextTurn) {
    Probe p{"p", &log, nullptr};
    const zel_utime delay{0, 30000}, max_wait{20, 0}, brief{0, 10000};
    ASSERT_EQ(zel_event_loop__add_timer(loop, on_timer, nullptr, &delay, &p, &p.handle), ZEL_SUCCESS);
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(zel_event_loop__run_once(loop, &max_wait), ZEL_SUCCESS);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));  // woke for the timer
    EXPECT_EQ(log, "");  // timers are dispatched before the wait
    for (int i = 0; i < 100 && log.empty(); ++i) ASSERT_EQ(zel_event_loop__run_once(loop, &brief), ZEL_SUCCESS);
    EXPECT_EQ(log, "p ");
}

TEST_F(Timers, NestedTurnDestroyFromACallbackAndNegativeWaitAreRefused) {
    zel_error_t nested = ZEL_SUCCESS, destroyed = ZEL_SUCCESS;
    const zel_utime zero{0, 0}, negative{-1, 0}, carried{-1, 1000100};  // carried normalises to {0, 100}
    at("p", {0, 0}, [&](zel_event_timer*) {
        nested = zel_event_loop__run_once(loop, &zero);
        destroyed = zel_event_loop__destroy(loop);
    });
    EXPECT_EQ(zel_event_loop__run_once(loop, &negative), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(log, "");
    ASSERT_EQ(zel_event_loop__run_once(loop, &carried), ZEL_SUCCESS);
    EXPECT_EQ(log, "p ");
    EXPECT_EQ(nested, ZEL_INVALIDSTATE);
    EXPECT_EQ(destroyed, ZEL_INVALIDSTATE);
    EXPECT_FALSE(loop->running);
}

// When the monotonic clock cannot be read, a turn returns the clock's code
// before anything fires and does not leave the loop marked running, so the
// caller can try again.
zel_error_t brokenClock(zel_utime*) { return ZEL_FAULT; }

TEST_F(Timers, UnreadableClockEndsTheTurnWithItsCode) {
    at("p", {0, 0});
    const zel_utime wait{0, 0};
    zel_event_loop_clock = brokenClock;
    const zel_error_t rc = zel_event_loop__run_once(loop, &wait);
    zel_event_loop_clock = zel_utime_now;
    EXPECT_EQ(rc, ZEL_FAULT);
    EXPECT_EQ(log, "");
    EXPECT_FALSE(loop->running);
    ASSERT_EQ(zel_event_loop__run_once(loop, &wait), ZEL_SUCCESS);
    EXPECT_EQ(log, "p ");
}

}  // namespace

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "event_test_util.h"

namespace {

// A socket interest's context: a name for the call log and an optional action.
struct Watch {
    std::string name;
    std::vector<std::string>* log;
    std::function<void()> action;
    int calls = 0;
};

void on_socket(unsigned cause, int, unsigned type, void* context) {
    auto* w = static_cast<Watch*>(context);
    EXPECT_EQ(cause, ZEL_EVENT_CAUSE_FIRED);
    ++w->calls;
    w->log->push_back(w->name + (type == ZEL_EVENT_SOCKET_READ ? ":r" : type == ZEL_EVENT_SOCKET_WRITE ? ":w" : ":x"));
    if (w->action) w->action();
}

class Sockets : public evtest::LoopTest {
protected:
    std::vector<std::string> log;
    // Two datagram socket pairs; [0] of each is made readable by a datagram
    // that nobody reads, so it stays ready on every turn.
    int a[2] = {-1, -1};
    int b[2] = {-1, -1};
    Watch wa{"a", &log, nullptr}, wb{"b", &log, nullptr}, wc{"c", &log, nullptr};
    const zel_utime brief{0, 20000};

    void SetUp() override {
        evtest::LoopTest::SetUp();
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, a), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, b), 0);
        ASSERT_EQ(write(a[1], "x", 1), 1);
        ASSERT_EQ(write(b[1], "x", 1), 1);
    }
    void TearDown() override {
        evtest::LoopTest::TearDown();
        for (int fd : {a[0], a[1], b[0], b[1]}) close(fd);
    }
    zel_error_t watch(int fd, unsigned type, Watch* w, int rule = ZEL_EVENT_RULE_DONT_CARE) {
        return zel_event_loop__set_socket(loop, fd, static_cast<int>(type), on_socket, w, rule);
    }
    zel_error_t unwatch(int fd, unsigned type, int rule = ZEL_EVENT_RULE_DONT_CARE) {
        return zel_event_loop__set_socket(loop, fd, static_cast<int>(type), nullptr, nullptr, rule);
    }
    zel_error_t turn() { return zel_event_loop__run_once(loop, &brief); }
    const zel_event_slot& slot(unsigned type) const { return loop->slots[type]; }
    const zel_event_socket* only_entry(unsigned type) const {
        return slot(type).entries.count == 1 ? static_cast<zel_event_socket*>(slot(type).entries.first->data) : nullptr;
    }
};

TEST_F(Sockets, ArgumentsAndRules) {
    EXPECT_EQ(zel_event_loop__set_socket(loop, 1024, 0, on_socket, &wa, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__set_socket(loop, -1, 0, on_socket, &wa, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__set_socket(loop, a[0], 3, on_socket, &wa, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__set_socket(loop, a[0], -1, on_socket, &wa, 0), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_event_loop__set_socket(nullptr, a[0], 0, on_socket, &wa, 0), ZEL_INVALIDPARAMETER);

    EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);
    EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ, ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa, ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).entries.count, 0u);

    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa, ZEL_EVENT_RULE_MUST_NOT_EXIST), ZEL_SUCCESS);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wb, ZEL_EVENT_RULE_MUST_NOT_EXIST), ZEL_ALREADY);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wb), ZEL_SUCCESS);  // replaces callback and context
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).entries.count, 1u);
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).bound, a[0] + 1);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"b:r"}));

    EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ, ZEL_EVENT_RULE_MUST_EXIST), ZEL_SUCCESS);
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).entries.count, 0u);
    EXPECT_FALSE(FD_ISSET(a[0], &slot(ZEL_EVENT_SOCKET_READ).bits));
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).bound, a[0] + 1);  // the bound only grows
}

TEST_F(Sockets, ReadRunsBeforeWriteAndRegistrationOrderWithinAType) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_WRITE, &wa), ZEL_SUCCESS);
    ASSERT_EQ(watch(b[0], ZEL_EVENT_SOCKET_READ, &wb), ZEL_SUCCESS);
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"b:r", "a:r", "a:w"}));
}

TEST_F(Sockets, CallbackRemovingItsOwnInterestIsNotCalledAgain) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    wa.action = [&] {
        EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);
        ASSERT_NE(only_entry(ZEL_EVENT_SOCKET_READ), nullptr);
        EXPECT_EQ(only_entry(ZEL_EVENT_SOCKET_READ)->state, zel_socket_state::REMOVED);
        EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);  // already going: nothing to do
        EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ, ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
    };
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(wa.calls, 1);
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).entries.count, 0u);
    EXPECT_FALSE(FD_ISSET(a[0], &slot(ZEL_EVENT_SOCKET_READ).bits));
    ASSERT_EQ(turn(), ZEL_SUCCESS);  // a[0] still readable, but no longer watched
    EXPECT_EQ(wa.calls, 1);
}

TEST_F(Sockets, RemoveAndReAddWithinOneDispatchLeavesOneActiveEntry) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    wa.action = [&] {
        EXPECT_EQ(unwatch(a[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);
        EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wc), ZEL_SUCCESS);  // revived with a new context
        EXPECT_EQ(only_entry(ZEL_EVENT_SOCKET_READ)->state, zel_socket_state::ADDED);
    };
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    ASSERT_NE(only_entry(ZEL_EVENT_SOCKET_READ), nullptr);
    EXPECT_EQ(only_entry(ZEL_EVENT_SOCKET_READ)->state, zel_socket_state::ACTIVE);
    EXPECT_TRUE(FD_ISSET(a[0], &slot(ZEL_EVENT_SOCKET_READ).bits));
    EXPECT_EQ(loop->purge_mask, 0u);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"a:r", "c:r"}));
}

TEST_F(Sockets, InterestAddedDuringADispatchWaitsForTheNextTurn) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    wa.action = [&] {
        if (wa.calls == 1) {
            EXPECT_EQ(watch(b[0], ZEL_EVENT_SOCKET_READ, &wb), ZEL_SUCCESS);
        }
    };
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"a:r"}));  // b[0] was ready too
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"a:r", "a:r", "b:r"}));
}

TEST_F(Sockets, InterestRemovedByAnEarlierCallbackIsSkipped) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    ASSERT_EQ(watch(b[0], ZEL_EVENT_SOCKET_READ, &wb), ZEL_SUCCESS);
    wa.action = [&] { EXPECT_EQ(unwatch(b[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS); };
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, (std::vector<std::string>{"a:r"}));
    EXPECT_EQ(slot(ZEL_EVENT_SOCKET_READ).entries.count, 1u);
}

TEST_F(Sockets, NothingReadyTimesOutQuietly) {
    int idle[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, idle), 0);
    ASSERT_EQ(watch(idle[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    EXPECT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(wa.calls, 0);
    ASSERT_EQ(unwatch(idle[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);
    close(idle[0]);
    close(idle[1]);
}

TEST_F(Sockets, SelectFailureIsReturnedAndTheLoopStaysUsable) {
    int gone[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, gone), 0);
    close(gone[1]);
    ASSERT_EQ(watch(gone[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    close(gone[0]);  // its owner closed it without removing the interest
    EXPECT_EQ(turn(), ZEL_BADF);
    EXPECT_FALSE(loop->running);
    ASSERT_EQ(unwatch(gone[0], ZEL_EVENT_SOCKET_READ), ZEL_SUCCESS);
    EXPECT_EQ(turn(), ZEL_SUCCESS);
}

TEST_F(Sockets, DestroyReleasesInterestsWithoutCallingThem) {
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa), ZEL_SUCCESS);
    ASSERT_EQ(watch(a[0], ZEL_EVENT_SOCKET_WRITE, &wa), ZEL_SUCCESS);
    ASSERT_EQ(watch(b[0], ZEL_EVENT_SOCKET_EXCEPTION, &wb), ZEL_SUCCESS);
    ASSERT_EQ(zel_event_loop__destroy(loop), ZEL_SUCCESS);
    loop = nullptr;
    EXPECT_EQ(wa.calls + wb.calls, 0);
    EXPECT_NE(fcntl(a[0], F_GETFD), -1);  // descriptors stay open: they belong to their owners
}

}  // namespace

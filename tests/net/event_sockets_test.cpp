#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "event_test_util.h"

namespace {

// A socket interest's context: a name for the call log and an action run
// inside its first call.
struct Watch {
    std::string name;
    std::string* log;
    std::function<void()> action;
    int calls = 0;
};

void on_socket(unsigned cause, int, unsigned type, void* context) {
    auto* w = static_cast<Watch*>(context);
    EXPECT_EQ(cause, ZEL_EVENT_CAUSE_FIRED);
    *w->log += w->name + (type == ZEL_EVENT_SOCKET_READ ? ":r " : type == ZEL_EVENT_SOCKET_WRITE ? ":w " : ":x ");
    if (++w->calls == 1 && w->action) w->action();
}

class Sockets : public evtest::LoopTest {
public:
    // Two datagram socket pairs; [0] of each is made readable by a datagram
    // that nobody reads, so it stays ready on every turn.
    int a[2] = {-1, -1}, b[2] = {-1, -1};
    Watch wa{"a", &log, nullptr}, wb{"b", &log, nullptr}, wc{"c", &log, nullptr};

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
    void read(int fd, Watch& w, std::function<void()> action = nullptr) {
        w.action = std::move(action);
        EXPECT_EQ(watch(fd, ZEL_EVENT_SOCKET_READ, &w), ZEL_SUCCESS);
    }
    zel_error_t unwatch(int fd, int rule = ZEL_EVENT_RULE_DONT_CARE) {
        return zel_event_loop__set_socket(loop, fd, ZEL_EVENT_SOCKET_READ, nullptr, nullptr, rule);
    }
    zel_error_t turn() {
        const zel_utime brief{0, 20000};
        return zel_event_loop__run_once(loop, &brief);
    }
    unsigned readers() const { return loop->slots[ZEL_EVENT_SOCKET_READ].entries.count; }
};

struct Scenario {
    const char* name;
    void (*setup)(Sockets& s);
    const char *after_first, *after_second;  // the call log after one and two turns
    unsigned readers;                        // read interests left
};
void PrintTo(const Scenario& c, std::ostream* os) { *os << c.name; }

class SocketDeferral : public Sockets, public ::testing::WithParamInterface<Scenario> {};

TEST_P(SocketDeferral, ChangesMadeInCallbacksTakeEffectAfterTheDispatch) {
    GetParam().setup(*this);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, GetParam().after_first);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, GetParam().after_second);
    EXPECT_EQ(readers(), GetParam().readers);
    EXPECT_EQ(loop->purge_mask, 0u);
    const zel_event_slot& slot = loop->slots[ZEL_EVENT_SOCKET_READ];
    for (int fd : {a[0], b[0]}) {  // the select set mirrors the interests left
        int listed = 0;
        for (zel_list_node* n = slot.entries.first; n != nullptr; n = n->next) {
            listed += static_cast<zel_event_socket*>(n->data)->descriptor == fd;
        }
        EXPECT_EQ(FD_ISSET(fd, &slot.bits) != 0, listed == 1) << fd;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SocketDeferral,
    ::testing::Values(
        Scenario{"ReadBeforeWriteThenRegistrationOrder",
                 [](Sockets& s) {
                     EXPECT_EQ(s.watch(s.a[0], ZEL_EVENT_SOCKET_WRITE, &s.wa), ZEL_SUCCESS);
                     s.read(s.b[0], s.wb), s.read(s.a[0], s.wa);
                 },
                 "b:r a:r a:w ", "b:r a:r a:w b:r a:r a:w ", 2},
        Scenario{"CallbackRemovingItsOwnInterestIsNotCalledAgain",
                 [](Sockets& s) {
                     s.read(s.a[0], s.wa, [&s] {
                         EXPECT_EQ(s.unwatch(s.a[0]), ZEL_SUCCESS);
                         EXPECT_EQ(s.unwatch(s.a[0]), ZEL_SUCCESS);  // already going: nothing to do
                         EXPECT_EQ(s.unwatch(s.a[0], ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
                     });
                 },
                 "a:r ", "a:r ", 0},
        Scenario{"RemovedAndReAddedInOneDispatchRevivesWithTheNewContext",
                 [](Sockets& s) {
                     s.read(s.a[0], s.wa, [&s] {
                         EXPECT_EQ(s.unwatch(s.a[0]), ZEL_SUCCESS);
                         s.read(s.a[0], s.wc);
                     });
                 },
                 "a:r ", "a:r c:r ", 1},
        Scenario{"AddedDuringADispatchWaitsForTheNextTurn",
                 [](Sockets& s) { s.read(s.a[0], s.wa, [&s] { s.read(s.b[0], s.wb); }); }, "a:r ", "a:r a:r b:r ", 2},
        Scenario{"RemovedByAnEarlierCallbackIsSkipped",
                 [](Sockets& s) {
                     s.read(s.a[0], s.wa, [&s] { EXPECT_EQ(s.unwatch(s.b[0]), ZEL_SUCCESS); });
                     s.read(s.b[0], s.wb);
                 },
                 "a:r ", "a:r a:r ", 1}),
    [](const ::testing::TestParamInfo<Scenario>& i) { return std::string(i.param.name); });

TEST_F(Sockets, ArgumentsAndRules) {
    EXPECT_EQ(watch(1024, ZEL_EVENT_SOCKET_READ, &wa), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(unwatch(a[0]), ZEL_SUCCESS);
    EXPECT_EQ(unwatch(a[0], ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa, ZEL_EVENT_RULE_MUST_EXIST), ZEL_NOTFOUND);
    EXPECT_EQ(readers(), 0u);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wa, ZEL_EVENT_RULE_MUST_NOT_EXIST), ZEL_SUCCESS);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wb, ZEL_EVENT_RULE_MUST_NOT_EXIST), ZEL_ALREADY);
    EXPECT_EQ(watch(a[0], ZEL_EVENT_SOCKET_READ, &wb), ZEL_SUCCESS);  // replaces callback and context
    EXPECT_EQ(readers(), 1u);
    ASSERT_EQ(turn(), ZEL_SUCCESS);
    EXPECT_EQ(log, "b:r ");
    EXPECT_EQ(unwatch(a[0], ZEL_EVENT_RULE_MUST_EXIST), ZEL_SUCCESS);
    EXPECT_EQ(readers(), 0u);
}

}  // namespace

#include "net/env.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <sys/random.h>
#include <string>

#include "net/random_internal.h"

namespace {

// A scripted kernel: each getrandom call takes the next step (a byte count to
// deliver, or -errno), and sleeps are counted instead of slept.
struct Script {
    std::deque<int> steps;
    int calls = 0;
    int sleeps = 0;
    unsigned char bytes[4] = {0x78, 0x56, 0x34, 0x12};
};
Script* g_script = nullptr;

ssize_t scripted_getrandom(void* buf, std::size_t len, unsigned flags) {
    EXPECT_EQ(flags, static_cast<unsigned>(GRND_NONBLOCK));
    ++g_script->calls;
    const int step = g_script->steps.empty() ? 4 : g_script->steps.front();
    if (!g_script->steps.empty()) g_script->steps.pop_front();
    if (step < 0) {
        errno = -step;
        return -1;
    }
    std::memcpy(buf, g_script->bytes, static_cast<std::size_t>(step) < len ? static_cast<std::size_t>(step) : len);
    return step;
}

unsigned counted_sleep(unsigned seconds) {
    EXPECT_EQ(seconds, 1u);
    ++g_script->sleeps;
    return 0;
}

class Seeding : public ::testing::Test {
protected:
    Script script;
    zel_random_system saved = zel_random_system_calls;
    void SetUp() override {
        g_script = &script;
        zel_random_system_calls = {scripted_getrandom, counted_sleep};
    }
    void TearDown() override {
        zel_random_system_calls = saved;
        g_script = nullptr;
    }
    // The first value rand() gives after srand(seed).
    static int first_value_for(unsigned seed) {
        std::srand(seed);
        return std::rand();
    }
    unsigned scripted_seed() const {
        std::uint32_t v;
        std::memcpy(&v, script.bytes, sizeof v);
        return v;
    }
};

TEST_F(Seeding, InterruptedTwiceThenSeededWithTheBytesRead) {
    script.steps = {-EINTR, -EINTR, 4};
    const int expected = first_value_for(scripted_seed());
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(zel_random_init(), ZEL_SUCCESS);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Retry getrandom due to err[4][Interrupted system call].\n"
                   "Retry getrandom due to err[4][Interrupted system call].\n");
    EXPECT_EQ(script.calls, 3);
    EXPECT_EQ(script.sleeps, 2);
    EXPECT_EQ(zel_random(), expected);
}

TEST_F(Seeding, ShortReadsAndAgainAreRetried) {
    script.steps = {2, 0, -EAGAIN, 4};
    ::testing::internal::CaptureStdout();
    zel_random_init();
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "Retry getrandom due to less than expected data returned [2].\n"
                   "Retry getrandom due to less than expected data returned [0].\n"
                   "Retry getrandom due to err[11][Resource temporarily unavailable].\n");
    EXPECT_EQ(script.sleeps, 3);
}

TEST_F(Seeding, OtherFailuresFallBackToSeedTwo) {
    script.steps = {-ENOSYS};
    const int expected = first_value_for(2);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    zel_random_init();
    const std::string err = ::testing::internal::GetCapturedStderr();
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "Failed to call getrandom on /dev/urandom, err[38][Function not implemented].\n");
    EXPECT_EQ(script.sleeps, 0);
    EXPECT_EQ(zel_random(), expected);
}

TEST_F(Seeding, DefaultEnvironmentIsSharedAndSeededOnce) {
    zel_env* probe = nullptr;
    ASSERT_EQ(zel_env_create(&probe), ZEL_SUCCESS);
    const std::uint32_t held_before = probe->refCount - 1;
    zel_env_release(probe);
    if (held_before != 0) GTEST_SKIP() << "another test of this process holds the default environment";
    script.calls = 0;

    zel_env* a = nullptr;
    zel_env* b = nullptr;
    ASSERT_EQ(zel_env_create(&a), ZEL_SUCCESS);
    zel_log* log = a->log;
    zel_event_loop* loop = a->loop;
    ASSERT_NE(log, nullptr);
    ASSERT_NE(loop, nullptr);
    ASSERT_EQ(zel_env_create(&b), ZEL_SUCCESS);
    EXPECT_EQ(a, b);
    EXPECT_EQ(b->log, log);
    EXPECT_EQ(b->loop, loop);
    EXPECT_EQ(a->refCount, 2u);
    EXPECT_EQ(a->flags, ZEL_ENV_FLAG_OWNS_LOG | ZEL_ENV_FLAG_OWNS_LOOP);
    EXPECT_EQ(script.calls, 1);  // seeded by the first holder only

    int marker = 0;
    zel_env_set_context(a, &marker, nullptr);
    zel_env_release(a);  // one holder left: nothing destroyed
    EXPECT_EQ(a->refCount, 1u);
    EXPECT_EQ(a->log, log);
    zel_env_release(b);
    EXPECT_EQ(a->refCount, 0u);
    EXPECT_EQ(a->log, nullptr);
    EXPECT_EQ(a->loop, nullptr);
    EXPECT_EQ(a->flags, 0u);
    EXPECT_EQ(zel_env_context(a), &marker);  // the context stays
    zel_env_release(a);  // no holder left: ignored
    EXPECT_EQ(a->refCount, 0u);
    zel_env_destroy(a);  // never frees the static default
    zel_env_set_context(a, nullptr, nullptr);

    ASSERT_EQ(zel_env_create(&a), ZEL_SUCCESS);  // starts afresh and seeds again
    EXPECT_EQ(script.calls, 2);
    EXPECT_NE(a->loop, nullptr);
    zel_env_release(a);
}

TEST(Environment, NullOutMakesNothing) {
    EXPECT_EQ(zel_env_create(nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_env_new(nullptr, nullptr, nullptr), ZEL_INVALIDPARAMETER);
    EXPECT_EQ(zel_env_new_flags(6, nullptr), ZEL_INVALIDPARAMETER);
    zel_env_release(nullptr);
    zel_env_destroy(nullptr);
    EXPECT_EQ(zel_env_context(nullptr), nullptr);
}

int g_destroyed = 0;
void count_destruction(void* context) {
    ++g_destroyed;
    EXPECT_EQ(*static_cast<int*>(context), 42);
}

TEST(Environment, HeapEnvironmentWithCallersLogAndLoopLeavesThemAlone) {
    zel_log* log = zel_log_create();
    zel_event_loop* loop = nullptr;
    ASSERT_EQ(zel_event_loop__create(&loop), ZEL_SUCCESS);
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new(&env, log, loop), ZEL_SUCCESS);
    EXPECT_EQ(env->flags, ZEL_ENV_FLAG_HEAP);
    EXPECT_EQ(env->refCount, 1u);
    int value = 42;
    g_destroyed = 0;
    zel_env_set_context(env, &value, count_destruction);
    zel_env_release(env);
    EXPECT_EQ(g_destroyed, 1);
    // Still usable: the sanitizer build would flag a use after free here.
    zel_log_set_level(log, ZEL_LOG_DEST_STDERR, 2);
    EXPECT_EQ(zel_event_loop__destroy(loop), ZEL_SUCCESS);
    zel_log_release(log);
}

TEST(Environment, HeapEnvironmentCreatesWhatItIsNotGiven) {
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new(&env, nullptr, nullptr), ZEL_SUCCESS);
    EXPECT_NE(env->log, nullptr);
    EXPECT_NE(env->loop, nullptr);
    EXPECT_EQ(env->flags, ZEL_ENV_FLAG_HEAP | ZEL_ENV_FLAG_OWNS_LOG | ZEL_ENV_FLAG_OWNS_LOOP);
    zel_env_release(env);  // the sanitizer build checks that log and loop went with it
}

TEST(Environment, MarkedEnvironmentRefusesReleaseUntilDestroyed) {
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new_flags(ZEL_ENV_FLAG_OWNS_LOOP, &env), ZEL_SUCCESS);
    EXPECT_EQ(env->flags, ZEL_ENV_FLAG_HEAP | ZEL_ENV_FLAG_NO_RELEASE | ZEL_ENV_FLAG_OWNS_LOOP);
    EXPECT_EQ(env->log, nullptr);
    EXPECT_NE(env->loop, nullptr);
    EXPECT_EQ(env->refCount, 1u);
    ::testing::internal::CaptureStderr();
    zel_env_release(env);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Error: This env cannot be cleaned up using zel_env_release!\n");
    const zel_utime zero{0, 0};
    EXPECT_EQ(zel_event_loop__run_once(env->loop, &zero), ZEL_SUCCESS);  // left usable
    int value = 42;
    g_destroyed = 0;
    zel_env_set_context(env, &value, count_destruction);
    zel_env_destroy(env);
    EXPECT_EQ(g_destroyed, 1);
}

}  // namespace

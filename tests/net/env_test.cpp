#include "net/env.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>
#include <sys/random.h>

#include "net/random_internal.h"

namespace {

// A scripted kernel: each getrandom call takes the next step (a byte count to
// deliver, or -errno; 4 when the script is used up), and sleeps are counted
// instead of slept.
std::deque<int> g_steps;
int g_calls = 0, g_sleeps = 0;
constexpr unsigned kScriptedSeed = 0x5a5a5a5a;  // the same in either byte order

ssize_t scripted_getrandom(void* buf, std::size_t len, unsigned flags) {
    EXPECT_EQ(flags, static_cast<unsigned>(GRND_NONBLOCK));
    ++g_calls;
    const int step = g_steps.empty() ? 4 : g_steps.front();
    if (!g_steps.empty()) g_steps.pop_front();
    if (step < 0) errno = -step;
    std::memset(buf, 0x5a, step > 0 ? std::min<std::size_t>(static_cast<std::size_t>(step), len) : 0);
    return step < 0 ? -1 : step;
}

unsigned counted_sleep(unsigned seconds) {
    EXPECT_EQ(seconds, 1u);
    ++g_sleeps;
    return 0;
}

class Seeding : public ::testing::Test {
protected:
    const zel_random_system saved = zel_random_system_calls;
    void SetUp() override {
        g_steps.clear();
        g_calls = g_sleeps = 0;
        zel_random_system_calls = {scripted_getrandom, counted_sleep};
    }
    void TearDown() override { zel_random_system_calls = saved; }
};

struct SeedCase {
    const char* name;
    std::deque<int> steps;
    const char *out, *err;
    int sleeps;
    unsigned seed;
};
void PrintTo(const SeedCase& c, std::ostream* os) { *os << c.name; }

class SeedRetries : public Seeding, public ::testing::WithParamInterface<SeedCase> {};

TEST_P(SeedRetries, LinesSleepsAndSeed) {
    const SeedCase& c = GetParam();
    g_steps = c.steps;
    std::srand(c.seed);
    const int expected = std::rand();
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(zel_random_init(), ZEL_SUCCESS);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.out);
    EXPECT_EQ(g_sleeps, c.sleeps);
    EXPECT_EQ(zel_random(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Kernels, SeedRetries,
    ::testing::Values(SeedCase{"InterruptedTwice", {-EINTR, -EINTR, 4},
                               "Retry getrandom due to err[4][Interrupted system call].\n"
                               "Retry getrandom due to err[4][Interrupted system call].\n",
                               "", 2, kScriptedSeed},
                      SeedCase{"ShortReadsAndAgain", {2, 0, -EAGAIN, 4},
                               "Retry getrandom due to less than expected data returned [2].\n"
                               "Retry getrandom due to less than expected data returned [0].\n"
                               "Retry getrandom due to err[11][Resource temporarily unavailable].\n",
                               "", 3, kScriptedSeed},
                      SeedCase{"OtherFailureFallsBackToSeedTwo", {-ENOSYS}, "",
                               "Failed to call getrandom on /dev/urandom, err[38][Function not implemented].\n", 0, 2}),
    [](const ::testing::TestParamInfo<SeedCase>& i) { return std::string(i.param.name); });

TEST_F(Seeding, DefaultEnvironmentIsSharedAndSeededOnce) {
    zel_env* a = nullptr;
    zel_env* b = nullptr;
    ASSERT_EQ(zel_env_create(&a), ZEL_SUCCESS);
    if (a->refCount != 1) {
        zel_env_release(a);
        GTEST_SKIP() << "another test of this process holds the default environment";
    }
    ASSERT_EQ(zel_env_create(&b), ZEL_SUCCESS);
    EXPECT_TRUE(a == b && a->refCount == 2u && a->log != nullptr && a->loop != nullptr);
    EXPECT_EQ(g_calls, 1);  // seeded by the first holder only
    int marker = 0;
    zel_env_set_context(a, &marker, nullptr);
    const zel_log* log = a->log;
    zel_env_release(a);  // one holder left: nothing destroyed
    EXPECT_EQ(a->log, log);
    zel_env_release(b);
    EXPECT_TRUE(a->refCount == 0 && a->log == nullptr && a->loop == nullptr && a->flags == 0);
    EXPECT_EQ(zel_env_context(a), &marker);  // the context stays
    zel_env_release(a);  // no holder left: ignored
    zel_env_destroy(a);  // never frees the static default
    zel_env_set_context(a, nullptr, nullptr);
    ASSERT_EQ(zel_env_create(&a), ZEL_SUCCESS);  // starts afresh and seeds again
    EXPECT_TRUE(g_calls == 2 && a->refCount == 1 && a->loop != nullptr);
    zel_env_release(a);
}

int g_destroyed = 0;
void count_destruction(void* context) {
    ++g_destroyed;
    EXPECT_EQ(*static_cast<int*>(context), 42);
}

TEST(HeapEnvironment, OwnsOnlyWhatItCreated) {
    zel_env* env = nullptr;
    ASSERT_EQ(zel_env_new(&env, nullptr, nullptr), ZEL_SUCCESS);
    EXPECT_TRUE(env->log != nullptr && env->loop != nullptr && env->refCount == 1);
    EXPECT_EQ(env->flags, ZEL_ENV_FLAG_HEAP | ZEL_ENV_FLAG_OWNS_LOG | ZEL_ENV_FLAG_OWNS_LOOP);
    zel_env_release(env);  // the sanitizer build checks that log and loop went with it

    zel_log* log = zel_log_create();
    zel_event_loop* loop = nullptr;
    ASSERT_EQ(zel_event_loop__create(&loop), ZEL_SUCCESS);
    ASSERT_EQ(zel_env_new(&env, log, loop), ZEL_SUCCESS);
    EXPECT_EQ(env->flags, ZEL_ENV_FLAG_HEAP);
    int value = 42;
    g_destroyed = 0;
    zel_env_set_context(env, &value, count_destruction);
    zel_env_release(env);
    EXPECT_EQ(g_destroyed, 1);
    zel_log_set_level(log, ZEL_LOG_DEST_STDERR, 2);  // still usable: the sanitizer build flags a use after free
    EXPECT_EQ(zel_event_loop__destroy(loop), ZEL_SUCCESS);
    zel_log_release(log);
}

}  // namespace

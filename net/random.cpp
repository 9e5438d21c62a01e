// Seeding the C library's generator from the kernel's random source.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/random.h>
#include <unistd.h>

#include "net/env.h"
#include "net/random_internal.h"

zel_random_system zel_random_system_calls = {getrandom, sleep};

namespace {

// Seed used when the kernel cannot give one at all.
constexpr unsigned kFallbackSeed = 2;

}  // namespace

zel_error_t zel_random_init() {
    unsigned seed = kFallbackSeed;
    // No retry limit: on an early-boot system without entropy the start is
    // delayed one second per attempt until the kernel's pool is ready.
    for (;;) {
        unsigned char bytes[4];
        const ssize_t n = zel_random_system_calls.getrandom(bytes, sizeof bytes, GRND_NONBLOCK);
        if (n == static_cast<ssize_t>(sizeof bytes)) {
            std::uint32_t value;
            std::memcpy(&value, bytes, sizeof value);
            seed = value;
            break;
        }
        if (n >= 0) {
            zel_random_system_calls.sleep(1);
            std::printf("Retry getrandom due to less than expected data returned [%zd].\n", n);
            std::fflush(stdout);
            continue;
        }
        const int err = errno;
        if (err == EINTR || err == EAGAIN) {
            zel_random_system_calls.sleep(1);
            std::printf("Retry getrandom due to err[%d][%s].\n", err, std::strerror(err));
            std::fflush(stdout);
            continue;
        }
        std::fprintf(stderr, "Failed to call getrandom on /dev/urandom, err[%d][%s].\n", err, std::strerror(err));
        break;
    }
    std::srand(seed);
    return ZEL_SUCCESS;
}

int zel_random() { return std::rand(); }

// The environment: the root object that bundles the log and the event loop
// the other library objects work with. One process-wide default environment
// is shared by reference counting; separate environments can be made on the
// heap. Not thread-safe.
#pragma once

#include <cstdint>

#include "net/event_loop.h"
#include "net/log.h"
#include "support/errors.h"

// Bits of zel_env::flags.
enum : std::uint32_t {
    ZEL_ENV_FLAG_HEAP = 1,        // allocated on the heap
    ZEL_ENV_FLAG_OWNS_LOG = 2,    // created `log` and releases it
    ZEL_ENV_FLAG_OWNS_LOOP = 4,   // created `loop` and destroys it
    ZEL_ENV_FLAG_NO_RELEASE = 8,  // refused by zel_env_release; use zel_env_destroy
};

struct zel_env {
    void* context;                       // user data, not owned
    void (*contextDestructor)(void*);    // called with `context` when a heap environment goes
    zel_log* log;                        // may be null
    zel_event_loop* loop;                // may be null
    std::uint32_t refCount;              // holders of the default environment; 1 for a heap one
    std::uint32_t flags;                 // ZEL_ENV_FLAG_*
};

// Acquires the default environment. The first holder seeds the random
// generator and creates the log (NOMEMORY) and the event loop (its code);
// a failed creation leaves no holder, so it can be tried again.
// INVALIDPARAMETER for a null `out`.
zel_error_t zel_env_create(zel_env** out);
// Gives up a holder of the default environment (the last one destroys its log
// and loop; the context stays), or destroys a heap environment (context
// destructor, owned loop, owned log). An environment marked
// ZEL_ENV_FLAG_NO_RELEASE is refused with a line on standard error and left
// as it was. Null, and the default environment without holders, are ignored.
void zel_env_release(zel_env* env);
// A heap environment with the given log and loop; a null one is created and
// owned. INVALIDPARAMETER for a null `out`; NOMEMORY; the loop's code.
zel_error_t zel_env_new(zel_env** out, zel_log* log, zel_event_loop* loop);
// A heap environment marked ZEL_ENV_FLAG_NO_RELEASE, with a log when `flags`
// has ZEL_ENV_FLAG_OWNS_LOG and an event loop when it has
// ZEL_ENV_FLAG_OWNS_LOOP. INVALIDPARAMETER for a null `out`; NOMEMORY for any
// failed creation.
zel_error_t zel_env_new_flags(unsigned flags, zel_env** out);
// Destroys a heap environment, marked or not: calls the context destructor
// (when both are set), destroys the owned loop, releases the owned log, frees
// it. Nothing for null or the default environment.
void zel_env_destroy(zel_env* env);

void zel_env_set_context(zel_env* env, void* context, void (*destructor)(void*));
void* zel_env_context(const zel_env* env);

// Seeds the C library's generator (srand) with four bytes from getrandom,
// retrying each second while the kernel has too few or is interrupted; falls
// back to the seed 2 on any other failure. Always SUCCESS.
zel_error_t zel_random_init();
// The next rand() value.
int zel_random();

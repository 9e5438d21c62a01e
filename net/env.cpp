// The default environment (static, reference counted) and heap environments.
#include "net/env.h"

#include <cstdio>
#include <memory>
#include <new>

namespace {

zel_env g_default_env = {};

bool is_default(const zel_env* env) { return env == &g_default_env; }

// Calls the context destructor, destroys the owned loop, releases the owned
// log and frees a heap environment.
void destroy_heap_env(zel_env* env) {
    if (env->context != nullptr && env->contextDestructor != nullptr) env->contextDestructor(env->context);
    env->context = nullptr;
    env->contextDestructor = nullptr;
    if ((env->flags & ZEL_ENV_FLAG_OWNS_LOOP) != 0) {
        zel_event_loop__destroy(env->loop);
        env->loop = nullptr;
    }
    if ((env->flags & ZEL_ENV_FLAG_OWNS_LOG) != 0) {
        zel_log_release(env->log);
        env->log = nullptr;
    }
    delete env;
}

struct HeapEnvFree {
    void operator()(zel_env* env) const { destroy_heap_env(env); }
};
using HeapEnv = std::unique_ptr<zel_env, HeapEnvFree>;

HeapEnv allocate_heap_env(std::uint32_t flags) {
    HeapEnv env(new (std::nothrow) zel_env{});
    if (env) {
        env->flags = flags;
        env->refCount = 1;
    }
    return env;
}

zel_error_t create_owned_log(zel_env* env) {
    env->log = zel_log_create();
    if (env->log == nullptr) return ZEL_NOMEMORY;
    env->flags |= ZEL_ENV_FLAG_OWNS_LOG;
    return ZEL_SUCCESS;
}

zel_error_t create_owned_loop(zel_env* env) {
    const zel_error_t rc = zel_event_loop__create(&env->loop);
    if (rc != ZEL_SUCCESS) {
        env->loop = nullptr;
        return rc;
    }
    env->flags |= ZEL_ENV_FLAG_OWNS_LOOP;
    return ZEL_SUCCESS;
}

}  // namespace

zel_error_t zel_env_create(zel_env** out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    zel_env* env = &g_default_env;
    if (env->refCount == 0) {
        zel_random_init();
        env->log = zel_log_create();
        if (env->log == nullptr) return ZEL_NOMEMORY;
        const zel_error_t rc = zel_event_loop__create(&env->loop);
        if (rc != ZEL_SUCCESS) {
            zel_log_release(env->log);
            env->log = nullptr;
            env->loop = nullptr;
            return rc;
        }
        env->flags |= ZEL_ENV_FLAG_OWNS_LOG | ZEL_ENV_FLAG_OWNS_LOOP;
    }
    ++env->refCount;
    *out = env;
    return ZEL_SUCCESS;
}

void zel_env_release(zel_env* env) {
    if (env == nullptr) return;
    if ((env->flags & ZEL_ENV_FLAG_NO_RELEASE) != 0) {
        std::fputs("Error: This env cannot be cleaned up using zel_env_release!\n", stderr);
        return;
    }
    if ((env->flags & ZEL_ENV_FLAG_HEAP) != 0) {
        destroy_heap_env(env);
        return;
    }
    // Only the default environment is counted; a release without a holder
    // (or of a record this library did not make) changes nothing.
    if (!is_default(env) || env->refCount == 0) return;
    if (--env->refCount > 0) return;
    if ((env->flags & ZEL_ENV_FLAG_OWNS_LOG) != 0) {
        zel_log_release(env->log);
        env->log = nullptr;
        env->flags &= ~ZEL_ENV_FLAG_OWNS_LOG;
    }
    if ((env->flags & ZEL_ENV_FLAG_OWNS_LOOP) != 0) {
        zel_event_loop__destroy(env->loop);
        env->loop = nullptr;
        env->flags &= ~ZEL_ENV_FLAG_OWNS_LOOP;
    }
}

zel_error_t zel_env_new(zel_env** out, zel_log* log, zel_event_loop* loop) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    HeapEnv env = allocate_heap_env(ZEL_ENV_FLAG_HEAP);
    if (!env) return ZEL_NOMEMORY;
    env->log = log;
    if (log == nullptr) {
        const zel_error_t rc = create_owned_log(env.get());
        if (rc != ZEL_SUCCESS) return rc;
    }
    env->loop = loop;
    if (loop == nullptr) {
        const zel_error_t rc = create_owned_loop(env.get());
        if (rc != ZEL_SUCCESS) return rc;
    }
    *out = env.release();
    return ZEL_SUCCESS;
}

zel_error_t zel_env_new_flags(unsigned flags, zel_env** out) {
    if (out == nullptr) return ZEL_INVALIDPARAMETER;
    HeapEnv env = allocate_heap_env(ZEL_ENV_FLAG_HEAP | ZEL_ENV_FLAG_NO_RELEASE);
    if (!env) return ZEL_NOMEMORY;
    if ((flags & ZEL_ENV_FLAG_OWNS_LOG) != 0 && create_owned_log(env.get()) != ZEL_SUCCESS) return ZEL_NOMEMORY;
    if ((flags & ZEL_ENV_FLAG_OWNS_LOOP) != 0 && create_owned_loop(env.get()) != ZEL_SUCCESS) return ZEL_NOMEMORY;
    *out = env.release();
    return ZEL_SUCCESS;
}

void zel_env_destroy(zel_env* env) {
    if (env == nullptr || is_default(env) || (env->flags & ZEL_ENV_FLAG_HEAP) == 0) return;
    destroy_heap_env(env);
}

void zel_env_set_context(zel_env* env, void* context, void (*destructor)(void*)) {
    if (env == nullptr) return;
    env->context = context;
    env->contextDestructor = destructor;
}

void* zel_env_context(const zel_env* env) { return env != nullptr ? env->context : nullptr; }

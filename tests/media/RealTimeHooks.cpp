// Counts allocations and lock acquisitions made on a thread while it is
// marked: the test binary's own malloc family and pthread lock entry points
// stand in front of the C library's. Built only without sanitizers (they
// bring their own).
#include "RealTimeHooks.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {
thread_local bool tMarked = false;
std::atomic<long> gAllocations{0}, gFrees{0}, gLocks{0};

inline void countAllocation()
{
    if (tMarked) gAllocations.fetch_add(1, std::memory_order_relaxed);
}
inline void countLock()
{
    if (tMarked) gLocks.fetch_add(1, std::memory_order_relaxed);
}

template <typename F> F next(char const* name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }

using MutexFn = int (*)(pthread_mutex_t*);
using RwFn = int (*)(pthread_rwlock_t*);
using SpinFn = int (*)(pthread_spinlock_t*);
using CondWaitFn = int (*)(pthread_cond_t*, pthread_mutex_t*);
// Looked up on first use: libraries lock before this file's initialisers run.
#define REAL(type, name)                                            \
    static type real = nullptr;                                     \
    if (!real) real = next<type>(name);
} // namespace

extern "C" {
void* malloc(std::size_t n)
{
    countAllocation();
    return __libc_malloc(n);
}
void* calloc(std::size_t n, std::size_t size)
{
    countAllocation();
    return __libc_calloc(n, size);
}
void* realloc(void* p, std::size_t n)
{
    countAllocation();
    return __libc_realloc(p, n);
}
void* memalign(std::size_t align, std::size_t n)
{
    countAllocation();
    return __libc_memalign(align, n);
}
void* aligned_alloc(std::size_t align, std::size_t n)
{
    countAllocation();
    return __libc_memalign(align, n);
}
int posix_memalign(void** out, std::size_t align, std::size_t n)
{
    countAllocation();
    void* p = __libc_memalign(align, n);
    if (!p) return 12; // ENOMEM
    *out = p;
    return 0;
}
void free(void* p)
{
    if (tMarked && p) gFrees.fetch_add(1, std::memory_order_relaxed);
    __libc_free(p);
}
int pthread_mutex_lock(pthread_mutex_t* m)
{
    countLock();
    REAL(MutexFn, "pthread_mutex_lock")
    return real(m);
}
int pthread_mutex_trylock(pthread_mutex_t* m)
{
    countLock();
    REAL(MutexFn, "pthread_mutex_trylock")
    return real(m);
}
int pthread_rwlock_rdlock(pthread_rwlock_t* l)
{
    countLock();
    REAL(RwFn, "pthread_rwlock_rdlock")
    return real(l);
}
int pthread_rwlock_wrlock(pthread_rwlock_t* l)
{
    countLock();
    REAL(RwFn, "pthread_rwlock_wrlock")
    return real(l);
}
int pthread_spin_lock(pthread_spinlock_t* l)
{
    countLock();
    REAL(SpinFn, "pthread_spin_lock")
    return real(l);
}
int pthread_cond_wait(pthread_cond_t* c, pthread_mutex_t* m)
{
    countLock();
    REAL(CondWaitFn, "pthread_cond_wait")
    return real(c, m);
}
}

namespace realtime {

void mark(bool on) { tMarked = on; }
Counts counts() { return {gAllocations.load(), gFrees.load(), gLocks.load()}; }

} // namespace realtime

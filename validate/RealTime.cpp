#include "validate/RealTime.h"

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

enum Kind {
    kMalloc,
    kCalloc,
    kRealloc,
    kFree,
    kPosixMemalign,
    kAlignedAlloc,
    kMemalign,
    kValloc,
    kNew,
    kDelete,
    kMutexLock,
    kMutexTimedLock,
    kCondWait,
    kCondTimedWait,
    kRwRead,
    kRwWrite,
    kJoin,
    kSemWait,
    kSemTimedWait,
    kNanosleep,
    kClockNanosleep,
    kUsleep,
    kSleep,
    kYield,
    kWrite,
    kWritev,
    kPwrite,
    kSend,
    kSendto,
    kSendmsg,
    kRead,
    kPoll,
    kFwrite,
    kFputs,
    kPuts,
    kFputc,
    kPutchar,
    kPrintf,
    kFprintf,
    kVprintf,
    kVfprintf,
    kFflush,
    kSyscall,
    kKinds
};

constexpr const char* kNames[kKinds] = {"malloc",
                                        "calloc",
                                        "realloc",
                                        "free",
                                        "posix_memalign",
                                        "aligned_alloc",
                                        "memalign",
                                        "valloc",
                                        "operator new",
                                        "operator delete",
                                        "pthread_mutex_lock",
                                        "pthread_mutex_timedlock",
                                        "pthread_cond_wait",
                                        "pthread_cond_timedwait",
                                        "pthread_rwlock_rdlock",
                                        "pthread_rwlock_wrlock",
                                        "pthread_join",
                                        "sem_wait",
                                        "sem_timedwait",
                                        "nanosleep",
                                        "clock_nanosleep",
                                        "usleep",
                                        "sleep",
                                        "sched_yield",
                                        "write",
                                        "writev",
                                        "pwrite",
                                        "send",
                                        "sendto",
                                        "sendmsg",
                                        "read",
                                        "poll",
                                        "fwrite",
                                        "fputs",
                                        "puts",
                                        "fputc",
                                        "putchar",
                                        "printf",
                                        "fprintf",
                                        "vprintf",
                                        "vfprintf",
                                        "fflush",
                                        "syscall"};

// Zero-initialised and trivially destructible: safe to touch from inside malloc.
thread_local bool armed = false;
thread_local std::uint64_t armedCalls = 0;
std::atomic<std::uint64_t> counts[kKinds];
std::atomic<std::uint64_t> stretches{0};

inline void note(Kind kind) {
    if (!armed) return;
    ++armedCalls;
    counts[kind].fetch_add(1, std::memory_order_relaxed);
}

// The next definition of `name` after this program's own: the C library's.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Looked up before main, so the variadic forwarders below never initialise under a guard.
using VfprintfFunction = int (*)(FILE*, const char*, va_list);
using SyscallFunction = long (*)(long, ...);
VfprintfFunction realVfprintf = next<VfprintfFunction>("vfprintf");
SyscallFunction realSyscall = next<SyscallFunction>("syscall");

} // namespace

namespace sr::validate::rt {

Watch::Watch() : wasArmed(armed) {
    if (!wasArmed) stretches.fetch_add(1, std::memory_order_relaxed);
    armed = true;
}

std::uint64_t watched() {
    return stretches.load();
}

Watch::~Watch() {
    armed = wasArmed;
}

std::uint64_t total() {
    std::uint64_t sum = 0;
    for (const auto& c : counts) sum += c.load();
    return sum;
}

std::string summary() {
    std::string text;
    for (int k = 0; k < kKinds; ++k) {
        const std::uint64_t n = counts[k].load();
        if (n == 0) continue;
        if (!text.empty()) text += ", ";
        text += std::string(kNames[k]) + " " + std::to_string(n);
    }
    return text;
}

void reset() {
    for (auto& c : counts) c.store(0);
}

std::uint64_t probe(void (*call)()) {
    // The probe's own calls are not the plug-in's: the tally is put back as it was.
    std::uint64_t before[kKinds];
    for (int k = 0; k < kKinds; ++k) before[k] = counts[k].load();
    const std::uint64_t seen = armedCalls;
    {
        Watch watch;
        call();
    }
    const std::uint64_t made = armedCalls - seen;
    for (int k = 0; k < kKinds; ++k) counts[k].store(before[k]);
    stretches.fetch_sub(1);
    return made;
}

} // namespace sr::validate::rt

// ---- the interposed entry points -----------------------------------------------------------

// Visible to the libraries the program loads, whatever the build's default visibility.
#pragma GCC visibility push(default)

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size) {
    note(kMalloc);
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    note(kCalloc);
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, std::size_t size) {
    note(kRealloc);
    return __libc_realloc(pointer, size);
}
void free(void* pointer) {
    if (pointer) note(kFree);
    __libc_free(pointer);
}
int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    note(kPosixMemalign);
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0) return EINVAL;
    void* p = __libc_memalign(alignment, size);
    if (!p) return ENOMEM;
    *out = p;
    return 0;
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    note(kAlignedAlloc);
    return __libc_memalign(alignment, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
    note(kMemalign);
    return __libc_memalign(alignment, size);
}
void* valloc(std::size_t size) {
    note(kValloc);
    return __libc_memalign(std::size_t(sysconf(_SC_PAGESIZE)), size);
}

// Each forwards to the C library's own definition, looked up while the program starts: a
// lookup later could wait for the loader's lock, which a library's unloading holds while it
// joins its threads. Calls that come before (from other libraries' start-up) look it up then.
#define SR_FORWARD(kind, ret, name, params, args)                                                  \
    void* real_##name = dlsym(RTLD_NEXT, #name);                                                   \
    ret name params {                                                                              \
        note(kind);                                                                                \
        if (!real_##name) real_##name = dlsym(RTLD_NEXT, #name);                                   \
        return reinterpret_cast<ret(*) params>(real_##name) args;                                  \
    }

SR_FORWARD(kMutexLock, int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
SR_FORWARD(kMutexTimedLock, int, pthread_mutex_timedlock,
           (pthread_mutex_t * m, const struct timespec* t), (m, t))
SR_FORWARD(kCondWait, int, pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
SR_FORWARD(kCondTimedWait, int, pthread_cond_timedwait,
           (pthread_cond_t * c, pthread_mutex_t* m, const struct timespec* t), (c, m, t))
SR_FORWARD(kRwRead, int, pthread_rwlock_rdlock, (pthread_rwlock_t * l), (l))
SR_FORWARD(kRwWrite, int, pthread_rwlock_wrlock, (pthread_rwlock_t * l), (l))
SR_FORWARD(kJoin, int, pthread_join, (pthread_t t, void** r), (t, r))
SR_FORWARD(kSemWait, int, sem_wait, (sem_t * s), (s))
SR_FORWARD(kSemTimedWait, int, sem_timedwait, (sem_t * s, const struct timespec* t), (s, t))
SR_FORWARD(kNanosleep, int, nanosleep, (const struct timespec* t, struct timespec* r), (t, r))
SR_FORWARD(kClockNanosleep, int, clock_nanosleep,
           (clockid_t c, int f, const struct timespec* t, struct timespec* r), (c, f, t, r))
SR_FORWARD(kUsleep, int, usleep, (useconds_t u), (u))
SR_FORWARD(kSleep, unsigned, sleep, (unsigned s), (s))
SR_FORWARD(kYield, int, sched_yield, (void), ())
SR_FORWARD(kWrite, ssize_t, write, (int fd, const void* b, size_t n), (fd, b, n))
SR_FORWARD(kWritev, ssize_t, writev, (int fd, const struct iovec* v, int n), (fd, v, n))
SR_FORWARD(kPwrite, ssize_t, pwrite, (int fd, const void* b, size_t n, off_t o), (fd, b, n, o))
SR_FORWARD(kSend, ssize_t, send, (int fd, const void* b, size_t n, int f), (fd, b, n, f))
SR_FORWARD(kSendto, ssize_t, sendto,
           (int fd, const void* b, size_t n, int f, const struct sockaddr* a, socklen_t l),
           (fd, b, n, f, a, l))
SR_FORWARD(kSendmsg, ssize_t, sendmsg, (int fd, const struct msghdr* m, int f), (fd, m, f))
SR_FORWARD(kRead, ssize_t, read, (int fd, void* b, size_t n), (fd, b, n))
SR_FORWARD(kPoll, int, poll, (struct pollfd * p, unsigned long n, int t), (p, n, t))
SR_FORWARD(kFwrite, size_t, fwrite, (const void* b, size_t s, size_t n, FILE* f), (b, s, n, f))
SR_FORWARD(kFputs, int, fputs, (const char* s, FILE* f), (s, f))
SR_FORWARD(kPuts, int, puts, (const char* s), (s))
SR_FORWARD(kFputc, int, fputc, (int c, FILE* f), (c, f))
SR_FORWARD(kPutchar, int, putchar, (int c), (c))
SR_FORWARD(kVprintf, int, vprintf, (const char* f, va_list a), (f, a))
SR_FORWARD(kVfprintf, int, vfprintf, (FILE * s, const char* f, va_list a), (s, f, a))
SR_FORWARD(kFflush, int, fflush, (FILE * f), (f))
#undef SR_FORWARD

int printf(const char* format, ...) {
    note(kPrintf);
    if (!realVfprintf) realVfprintf = next<VfprintfFunction>("vfprintf");
    va_list args;
    va_start(args, format);
    const int n = realVfprintf(stdout, format, args);
    va_end(args);
    return n;
}

int fprintf(FILE* stream, const char* format, ...) {
    note(kFprintf);
    if (!realVfprintf) realVfprintf = next<VfprintfFunction>("vfprintf");
    va_list args;
    va_start(args, format);
    const int n = realVfprintf(stream, format, args);
    va_end(args);
    return n;
}

// Raw system calls (futex waits among them) pass their arguments as six words.
long syscall(long number, ...) {
    note(kSyscall);
    if (!realSyscall) realSyscall = next<SyscallFunction>("syscall");
    va_list args;
    va_start(args, number);
    long a[6];
    for (long& word : a) word = va_arg(args, long);
    va_end(args);
    return realSyscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
} // extern "C"

// ---- operator new and delete ---------------------------------------------------------------

namespace {

void* allocate(std::size_t size) {
    note(kNew);
    if (void* p = __libc_malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}

void* allocate(std::size_t size, std::align_val_t alignment) {
    note(kNew);
    if (void* p = __libc_memalign(std::size_t(alignment), size ? size : 1)) return p;
    throw std::bad_alloc();
}

void release(void* p) {
    if (!p) return;
    note(kDelete);
    __libc_free(p);
}

} // namespace

void* operator new(std::size_t n) {
    return allocate(n);
}
void* operator new[](std::size_t n) {
    return allocate(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return allocate(n);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    try {
        return allocate(n);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t n, std::align_val_t a) {
    return allocate(n, a);
}
void* operator new[](std::size_t n, std::align_val_t a) {
    return allocate(n, a);
}
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    try {
        return allocate(n, a);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    try {
        return allocate(n, a);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* p) noexcept {
    release(p);
}
void operator delete[](void* p) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    release(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
    release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
    release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
    release(p);
}

#pragma GCC visibility pop

#include "alloc_counter.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SR_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
#define SR_SANITIZED 1
#endif
#endif

namespace {

// Plain zero-initialised thread-locals: no dynamic initialisation, so touching them from
// inside malloc cannot recurse into the allocator.
thread_local bool counting = false;
thread_local long events = 0;

inline void note() {
    if (counting) ++events;
}

} // namespace

namespace sr::test {

AllocationCounter::AllocationCounter() : start(events), wasCounting(counting) {
    counting = true;
}

AllocationCounter::~AllocationCounter() {
    counting = wasCounting;
}

long AllocationCounter::count() const {
    return events - start;
}

bool countsMalloc() {
#ifdef SR_SANITIZED
    return false;
#else
    return true;
#endif
}

} // namespace sr::test

#ifndef SR_SANITIZED
// glibc's own entry points, so the replacements below can forward without recursing.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);

void* malloc(std::size_t size) {
    note();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    note();
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, std::size_t size) {
    note();
    return __libc_realloc(pointer, size);
}

void free(void* pointer) {
    if (pointer) note();
    __libc_free(pointer);
}
}

namespace {
void* rawAlloc(std::size_t size) {
    return __libc_malloc(size ? size : 1);
}
void* rawAlignedAlloc(std::size_t size, std::size_t alignment) {
    return __libc_memalign(alignment, size ? size : 1);
}
void rawFree(void* pointer) {
    __libc_free(pointer);
}
} // namespace
#else
namespace {
void* rawAlloc(std::size_t size) {
    return std::malloc(size ? size : 1);
}
void* rawAlignedAlloc(std::size_t size, std::size_t alignment) {
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    return std::aligned_alloc(alignment, rounded ? rounded : alignment);
}
void rawFree(void* pointer) {
    std::free(pointer);
}
} // namespace
#endif

namespace {

void* countedNew(std::size_t size) {
    note();
    if (void* p = rawAlloc(size)) return p;
    throw std::bad_alloc();
}

void* countedAlignedNew(std::size_t size, std::align_val_t alignment) {
    note();
    if (void* p = rawAlignedAlloc(size, static_cast<std::size_t>(alignment))) return p;
    throw std::bad_alloc();
}

void countedDelete(void* pointer) {
    if (!pointer) return;
    note();
    rawFree(pointer);
}

} // namespace

void* operator new(std::size_t size) {
    return countedNew(size);
}
void* operator new[](std::size_t size) {
    return countedNew(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    note();
    return rawAlloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    note();
    return rawAlloc(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return countedAlignedNew(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return countedAlignedNew(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    note();
    return rawAlignedAlloc(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    note();
    return rawAlignedAlloc(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* pointer) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer) noexcept {
    countedDelete(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    countedDelete(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
    countedDelete(pointer);
}
void operator delete(void* pointer, std::align_val_t) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer, std::align_val_t) noexcept {
    countedDelete(pointer);
}
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept {
    countedDelete(pointer);
}
void operator delete(void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    countedDelete(pointer);
}
void operator delete[](void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    countedDelete(pointer);
}

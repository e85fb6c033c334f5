#include "util/Simd.h"

#include <atomic>

namespace sr::simd {

namespace {

bool hasAvx2() {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

const bool kHasAvx2 = hasAvx2();

} // namespace

std::atomic<bool> wideInUse{kHasAvx2};

void allowWideVectors(bool allowed) {
    wideInUse.store(allowed && kHasAvx2, std::memory_order_relaxed);
}

} // namespace sr::simd

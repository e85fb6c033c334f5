// Counts heap allocations and frees made by the current thread while an AllocationCounter is
// alive. The hooks replace the global operator new/delete family and malloc, calloc, realloc
// and free for the whole test executable; outside a counting scope they only forward.
#pragma once

namespace sr::test {

class AllocationCounter {
public:
    // Starts counting on this thread.
    AllocationCounter();
    // Stops counting (restores the enclosing scope's state when nested).
    ~AllocationCounter();
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

    // Allocations plus frees seen on this thread since construction.
    long count() const;

private:
    long start;
    bool wasCounting;
};

// True when malloc and friends are hooked too; under a sanitizer only operator new/delete are,
// since the sanitizer owns malloc.
bool countsMalloc();

} // namespace sr::test

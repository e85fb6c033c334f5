// Watches the calls a real-time thread must never make. This program defines the C library's
// allocation, locking, sleeping and writing entry points itself (exported, so they take the
// place of the C library's for the plug-in it loads) and counts each call made while the
// calling thread is inside a watched plug-in call.
#pragma once

#include <cstdint>
#include <string>

namespace sr::validate::rt {

// Arms the calling thread for its lifetime; nests.
class Watch {
public:
    Watch();
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

private:
    bool wasArmed;
};

// Watched stretches so far (outermost Watch objects).
std::uint64_t watched();
// Calls seen while armed, since the start or the last reset().
std::uint64_t total();
// "malloc 3, pthread_mutex_lock 1" — empty when there were none.
std::string summary();
void reset();

// The watched calls `call` makes, left out of the tally: shows the interposition reaches code in
// shared objects at all.
std::uint64_t probe(void (*call)());

} // namespace sr::validate::rt

// The input of a host's render cycles, handed to an editor that shows its spectrum: the render
// thread copies each cycle's stereo input, as one channel (the mean of left and right), into a
// ring of fixed size, and only while an editor has opened the tap; the editor's side takes the
// newest samples from it on its own thread.
// One writer (the render thread) and one reader. The two meet only in two indices, each
// written by one side and read by the other with acquire/release; the writer never overwrites
// what the reader has not taken (it drops samples instead), so no sample is read while it is
// written. The ring is allocated at construction: writing allocates nothing, takes no lock and
// makes no system call.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>

namespace sr {

class InputTap {
public:
    // 1.36 s at 48 kHz, 170 ms at 384 kHz: a reader that takes samples 30 times a second never
    // finds the ring full.
    static constexpr std::uint32_t kCapacity = 1u << 16;

    InputTap() : ring(std::make_unique<float[]>(kCapacity)) {}
    InputTap(const InputTap&) = delete;
    InputTap& operator=(const InputTap&) = delete;

    // Reader's thread: from now on the render thread copies; what is left from an earlier
    // opening is dropped, so the reader never takes stale samples.
    void open() {
        readIndex.store(writeIndex.load(std::memory_order_acquire), std::memory_order_release);
        opened.store(true, std::memory_order_release);
    }
    // Any thread: nothing is copied from the next cycle on.
    void close() { opened.store(false, std::memory_order_release); }
    bool isOpen() const { return opened.load(std::memory_order_acquire); }

    // Render thread. Copies (left + right) / 2 of `frames` frames while the tap is open.
    void write(const float* left, const float* right, std::uint32_t frames) {
        if (!opened.load(std::memory_order_relaxed) || frames == 0) return;
        const std::uint32_t w = writeIndex.load(std::memory_order_relaxed);
        const std::uint32_t r = readIndex.load(std::memory_order_acquire);
        const std::uint32_t n = std::min(frames, kCapacity - (w - r));
        const std::uint32_t at = w & kMask;
        const std::uint32_t first = std::min(n, kCapacity - at);
        mix(left, right, ring.get() + at, first);
        mix(left + first, right + first, ring.get(), n - first);
        writeIndex.store(w + n, std::memory_order_release);
        dropped_ += frames - n;
    }

    // Reader. Samples written and not yet taken.
    std::uint32_t available() const {
        return writeIndex.load(std::memory_order_acquire) -
               readIndex.load(std::memory_order_relaxed);
    }
    // Reader. Takes the newest min(available(), maxSamples) samples, oldest first, and drops
    // the older ones: visit(pointer, count) is called once or twice (where the ring wraps).
    // Returns how many were taken.
    template <typename Visit>
    std::uint32_t take(std::uint32_t maxSamples, Visit&& visit) {
        const std::uint32_t w = writeIndex.load(std::memory_order_acquire);
        const std::uint32_t r = readIndex.load(std::memory_order_relaxed);
        const std::uint32_t n = std::min(w - r, maxSamples);
        const std::uint32_t at = (w - n) & kMask;
        const std::uint32_t first = std::min(n, kCapacity - at);
        if (first) visit(static_cast<const float*>(ring.get() + at), first);
        if (n > first) visit(static_cast<const float*>(ring.get()), n - first);
        readIndex.store(w, std::memory_order_release);
        return n;
    }

    // Render thread: samples that found the ring full, since the start.
    std::uint64_t dropped() const { return dropped_; }

private:
    static constexpr std::uint32_t kMask = kCapacity - 1;

    // Four frames at a time in vector registers (the compiler's -O2 leaves such loops scalar).
    static void mix(const float* left, const float* right, float* out, std::uint32_t n) {
        using Floats = float __attribute__((vector_size(16)));
        std::uint32_t i = 0;
        for (; i + 4 <= n; i += 4) {
            Floats l, r;
            std::memcpy(&l, left + i, sizeof l);
            std::memcpy(&r, right + i, sizeof r);
            const Floats mean = (l + r) * 0.5f;
            std::memcpy(out + i, &mean, sizeof mean);
        }
        for (; i < n; ++i) out[i] = 0.5f * (left[i] + right[i]);
    }

    std::unique_ptr<float[]> ring;
    std::atomic<bool> opened{false};
    alignas(64) std::atomic<std::uint32_t> writeIndex{0};
    std::uint64_t dropped_ = 0;
    alignas(64) std::atomic<std::uint32_t> readIndex{0};
};

} // namespace sr

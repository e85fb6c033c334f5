// A plug-in with the faults the validator exists to find: it allocates and locks in run(),
// leaves the last output sample of every call unwritten, and exports more than its descriptor.
#include <lv2/core/lv2.h>

#include <cstdint>
#include <mutex>
#include <vector>

namespace {

struct Faulty {
    const float* gain = nullptr;
    const float* in[2] = {};
    float* out[2] = {};
    std::mutex lock;
};

LV2_Handle instantiate(const LV2_Descriptor*, double, const char*, const LV2_Feature* const*) {
    return new Faulty;
}

void connect(LV2_Handle h, std::uint32_t port, void* data) {
    auto* f = static_cast<Faulty*>(h);
    if (port == 0) f->gain = static_cast<const float*>(data);
    if (port == 1 || port == 2) f->in[port - 1] = static_cast<const float*>(data);
    if (port == 3 || port == 4) f->out[port - 3] = static_cast<float*>(data);
}

void run(LV2_Handle h, std::uint32_t n) {
    auto* f = static_cast<Faulty*>(h);
    std::lock_guard<std::mutex> guard(f->lock);
    std::vector<float> gains(n, *f->gain);
    for (int c = 0; c < 2; ++c)
        for (std::uint32_t i = 0; i + 1 < n; ++i) f->out[c][i] = f->in[c][i] * gains[i];
}

void cleanup(LV2_Handle h) {
    delete static_cast<Faulty*>(h);
}

const void* extensionData(const char*) {
    return nullptr;
}

const LV2_Descriptor descriptor{"urn:tav:sr-chorus:validator-test#faulty",
                                instantiate,
                                connect,
                                nullptr,
                                run,
                                nullptr,
                                cleanup,
                                extensionData};

} // namespace

// Exported on purpose, next to the descriptor.
extern "C" __attribute__((visibility("default"))) int faulty_extra_symbol(void) {
    return 1;
}

extern "C" LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor(std::uint32_t index) {
    return index == 0 ? &descriptor : nullptr;
}

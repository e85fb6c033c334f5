// Looking up a host feature, for the plug-in and its editor alike.
#pragma once

#include <cstring>

#include <lv2/core/lv2.h>

namespace sr::lv2 {

// The data of the feature with this URI, or null when the host did not offer it.
inline const void* findFeature(const LV2_Feature* const* features, const char* uri) {
    for (; features && *features; ++features)
        if ((*features)->URI && std::strcmp((*features)->URI, uri) == 0) return (*features)->data;
    return nullptr;
}

} // namespace sr::lv2

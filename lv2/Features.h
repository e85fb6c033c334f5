// Host features the plug-in and its editor both use: finding one, and the host's log.
#pragma once

#include <array>
#include <cstring>
#include <string_view>

#include <lv2/core/lv2.h>
#include <lv2/log/log.h>
#include <lv2/urid/urid.h>

#include "platform/PrintQueue.h"

namespace sr::lv2 {

// The data of the feature with this URI, or null when the host did not offer it.
inline const void* findFeature(const LV2_Feature* const* features, const char* uri) {
    for (; features && *features; ++features)
        if ((*features)->URI && std::strcmp((*features)->URI, uri) == 0) return (*features)->data;
    return nullptr;
}

// The host's log, when it offers one (and URIDs to name the levels with); standard output
// otherwise. Called on the print queue's thread, which the log extension allows.
inline LogChannel::Sink hostLog(const LV2_Log_Log* log, LV2_URID_Map* map) {
    if (!log || !log->printf || !map) return nullptr;
    const std::array<LV2_URID, 4> types{
        map->map(map->handle, LV2_LOG__Trace), map->map(map->handle, LV2_LOG__Note),
        map->map(map->handle, LV2_LOG__Warning), map->map(map->handle, LV2_LOG__Error)};
    return [log, types](LogLevel level, std::string_view text) {
        const bool ended = !text.empty() && text.back() == '\n';
        log->printf(log->handle, types[std::size_t(level)], ended ? "%.*s" : "%.*s\n",
                    int(text.size()), text.data());
    };
}

} // namespace sr::lv2

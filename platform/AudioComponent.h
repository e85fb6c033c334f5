// Component descriptions: how a host names an audio unit (type, subtype, manufacturer as
// four-character codes).
#pragma once

#include <cstdint>
#include <string>

using FourCharCode = std::uint32_t;
using OSType = FourCharCode;
using AudioComponentInstantiationOptions = std::uint32_t;

// 'abcd' without relying on multi-character literals, which are implementation-defined.
constexpr FourCharCode fourCharCode(const char (&code)[5]) {
    return FourCharCode(std::uint8_t(code[0])) << 24 | FourCharCode(std::uint8_t(code[1])) << 16 |
           FourCharCode(std::uint8_t(code[2])) << 8 | FourCharCode(std::uint8_t(code[3]));
}

// The four characters of a code; bytes outside printable ASCII show as '?'.
inline std::string fourCharString(FourCharCode code) {
    std::string text(4, '?');
    for (int i = 0; i < 4; ++i) {
        const auto c = char((code >> (24 - 8 * i)) & 0xFF);
        if (c >= 0x20 && c < 0x7F) text[std::size_t(i)] = c;
    }
    return text;
}

inline constexpr OSType kAudioUnitType_Effect = fourCharCode("aufx");

struct AudioComponentDescription {
    OSType componentType = 0;
    OSType componentSubType = 0;
    OSType componentManufacturer = 0;
    std::uint32_t componentFlags = 0;
    std::uint32_t componentFlagsMask = 0;

    bool operator==(const AudioComponentDescription&) const = default;
};

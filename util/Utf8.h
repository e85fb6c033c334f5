// UTF-8 text walked by code points: for names typed into dialogs, names read from folders and
// descriptions read from files, none of which can be trusted to be well formed.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sr::utf8 {

// The length of the well-formed sequence starting at byte `i` of `s` (1 to 4), or 0 when none
// starts there (a stray continuation byte, a truncated, overlong or surrogate form, a code
// point above U+10FFFF).
inline std::size_t sequenceLength(std::string_view s, std::size_t i) {
    if (i >= s.size()) return 0;
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = byte(i);
    if (c < 0x80) return 1;
    std::size_t n = 0;
    char32_t cp = 0, min = 0;
    if ((c & 0xE0) == 0xC0) {
        n = 2, cp = c & 0x1F, min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        n = 3, cp = c & 0x0F, min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        n = 4, cp = c & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    for (std::size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

// The code point of the sequence at `i`, which must be well formed.
inline char32_t decode(std::string_view s, std::size_t i) {
    const std::size_t n = sequenceLength(s, i);
    const auto c = static_cast<unsigned char>(s[i]);
    if (n <= 1) return c;
    char32_t cp = c & (0x7F >> n);
    for (std::size_t k = 1; k < n; ++k)
        cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
    return cp;
}

inline bool isValid(std::string_view s) {
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = sequenceLength(s, i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

// A control character: C0, DEL or C1.
inline bool isControl(char32_t cp) {
    return cp < 0x20 || (cp >= 0x7F && cp < 0xA0);
}

// The byte index of the code point after the one at `i` (s.size() at the end).
inline std::size_t next(std::string_view s, std::size_t i) {
    if (i >= s.size()) return s.size();
    const std::size_t n = sequenceLength(s, i);
    return i + (n == 0 ? 1 : n);
}

// The byte index of the code point before `i` (0 at the start).
inline std::size_t previous(std::string_view s, std::size_t i) {
    if (i == 0) return 0;
    std::size_t k = i - 1;
    while (k > 0 && i - k < 4 && (static_cast<unsigned char>(s[k]) & 0xC0) == 0x80) --k;
    return sequenceLength(s, k) == i - k ? k : i - 1;
}

inline void append(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

// The text with every ill-formed byte replaced by U+FFFD, for drawing names from a folder.
inline std::string sanitized(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = sequenceLength(s, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(s.substr(i, n));
            i += n;
        }
    }
    return out;
}

} // namespace sr::utf8

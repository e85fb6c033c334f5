// Which texts may name a preset file. A name comes from a host, a dialog or a file list and
// becomes "<folder>/<name>.aupreset", so it must stay a single, visible file name inside that
// folder whatever the user typed.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace sr {

inline constexpr std::size_t kMaxPresetNameBytes = 200;

// Why `name` cannot name a preset, as a sentence to show the user; nullopt when it can. Refused:
// the empty name, "/", "..", control characters, a leading dot (a hidden file, and the
// temporary files of atomic writes), more than kMaxPresetNameBytes bytes, text that is not
// UTF-8.
std::optional<std::string> presetNameProblem(std::string_view name);

// True when a file name ends with `extension` (".AUPRESET", given in capitals) in any letter
// case.
bool hasExtension(std::string_view name, std::string_view extension);
inline bool isPresetFileName(std::string_view name) {
    return hasExtension(name, ".AUPRESET");
}

} // namespace sr

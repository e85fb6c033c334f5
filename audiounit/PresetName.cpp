#include "audiounit/PresetName.h"

#include "util/Utf8.h"

namespace sr {

std::optional<std::string> presetNameProblem(std::string_view name) {
    if (name.empty()) return "Please type a name for the preset.";
    if (name.size() > kMaxPresetNameBytes)
        return "The name is too long: " + std::to_string(name.size()) + " bytes, at most " +
               std::to_string(kMaxPresetNameBytes) + " are possible.";
    if (name.find('/') != std::string_view::npos) return "A preset name cannot contain \"/\".";
    if (name.find("..") != std::string_view::npos) return "A preset name cannot contain \"..\".";
    if (name.front() == '.') return "A preset name cannot begin with a dot.";
    if (!utf8::isValid(name)) return "The name is not valid UTF-8 text.";
    for (std::size_t i = 0; i < name.size(); i = utf8::next(name, i))
        if (utf8::isControl(utf8::decode(name, i)))
            return "A preset name cannot contain control characters.";
    return std::nullopt;
}

bool hasExtension(std::string_view name, std::string_view extension) {
    // A name that is only the extension (".aupreset") has none, as a path's extension goes.
    if (name.size() <= extension.size()) return false;
    const std::string_view tail = name.substr(name.size() - extension.size());
    for (std::size_t i = 0; i < tail.size(); ++i) {
        const char c = tail[i];
        const char up = (c >= 'a' && c <= 'z') ? char(c - 'a' + 'A') : c;
        if (up != extension[i]) return false;
    }
    return true;
}

} // namespace sr

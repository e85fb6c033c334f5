#include "app/StateFile.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "platform/AtomicFile.h"
#include "platform/DocumentsDirectory.h"

namespace sr::app {

namespace {

// Renames without ever replacing a file; false with errno set (EEXIST when the name is taken).
bool renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without the flag: a hard link fails on a taken name just the same.
    if (::link(from.c_str(), to.c_str()) != 0) return false;
    ::unlink(from.c_str());
    return true;
}

} // namespace

StateFile::StateFile(std::string documents)
    : folder(std::move(documents)), path_(folder + kFileName) {}

PropertyList StateFile::toPropertyList(const AppState& state) {
    PropertyList list;
    list.set(kFullStateKey, state.fullState);
    if (!state.presetName.empty()) list.set(kPresetKey, state.presetName);
    return list;
}

std::optional<AppState> StateFile::fromPropertyList(const PropertyList& list, std::string& reason) {
    if (!list.dictionary()) {
        reason = "it is not a dictionary";
        return std::nullopt;
    }
    const PropertyList* fullState = list.find(kFullStateKey);
    if (!fullState || !fullState->dictionary()) {
        reason = std::string("it has no '") + kFullStateKey + "' dictionary";
        return std::nullopt;
    }
    AppState state{*fullState, {}};
    if (const PropertyList* preset = list.find(kPresetKey)) {
        if (!preset->string()) {
            reason = std::string("its '") + kPresetKey + "' is not a string";
            return std::nullopt;
        }
        state.presetName = *preset->string();
    }
    return state;
}

StateFile::Read StateFile::read() const {
    Read result;
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(path_, ec))) return result;
    result.status = Read::Refused;
    const LimitedRead file = readFileLimited(path_, PropertyList::kMaxBytes);
    if (!file.bytes) {
        result.reason = "it cannot be read: " + file.error;
        return result;
    }
    const PropertyListParse parsed = PropertyList::parse(*file.bytes);
    if (!parsed.value) {
        result.reason = "it is not a property list: " + parsed.error;
        return result;
    }
    std::optional<AppState> state = fromPropertyList(*parsed.value, result.reason);
    if (!state) return result;
    result.status = Read::Loaded;
    result.state = std::move(*state);
    return result;
}

std::string StateFile::keepAside(std::string& error) const {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    const std::string stem = folder + "sr-chorus-state.refused-" + stamp;
    for (int n = 1; n < 1000; ++n) {
        const std::string aside = stem + (n > 1 ? "-" + std::to_string(n) : "") + ".plist";
        if (renameNoReplace(path_, aside)) return aside;
        if (errno != EEXIST) break;
    }
    error = std::strerror(errno);
    return {};
}

void StateFile::write(const AppState& state) const {
    std::string error;
    if (!ensureDirectoryExists(folder, error))
        throw FileError("cannot create the folder '" + folder + "': " + error);
    const std::optional<std::string> xml = toPropertyList(state).toXML();
    if (!xml) throw FileError("cannot serialise the state");
    writeFileAtomically(path_, *xml);
}

} // namespace sr::app

// The audio unit's saved state and presets: the state a host stores, the factory presets it
// lists, and the user presets the editor saves and loads by name. Main thread only.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "audiounit/PresetFolders.h"
#include "audiounit/PresetName.h"
#include "audiounit/TAV_SR_Chorus_Extension_AudioUnit.h"
#include "platform/AtomicFile.h"
#include "platform/DocumentsDirectory.h"
#include "platform/PrintQueue.h"

namespace fs = std::filesystem;
using sr::PropertyList;

namespace {

constexpr const char* kPresetsFolder = "Presets/";
constexpr const char* kUserFolder = "Presets/User/";

bool exists(const std::string& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

} // namespace

void TAV_SR_Chorus_Extension_AudioUnit::setDocumentsDirectory(std::string path) {
    if (!path.empty() && path.back() != '/') path += '/';
    documents = std::move(path);
}

std::string TAV_SR_Chorus_Extension_AudioUnit::presetPath(const std::string& folder,
                                                          const std::string& name) const {
    // A name from a host or a dialog must not lead outside the folder.
    if (const std::optional<std::string> problem = sr::presetNameProblem(name)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::presetPath() : ERROR: The preset name '" + name +
            "' is not a file name. " + *problem);
        return {};
    }
    return documents + folder + name + kPresetExtension;
}

// ---- state -------------------------------------------------------------------------------------

std::optional<PropertyList> TAV_SR_Chorus_Extension_AudioUnit::fullState() {
    TAVPreset preset(log_);
    preset.setDescription(componentDescription(), kStateVersion, kStateName);
    if (AUParameterTree* tree = parameterTree()) preset.makeFrom(*tree);
    _fullState = preset.getDictionary();
    return _fullState;
}

bool TAV_SR_Chorus_Extension_AudioUnit::setFullState(const std::optional<PropertyList>& state) {
    std::optional<PropertyList> old = std::move(_fullState);
    _fullState = state;
    // Read without a delegate, so that nothing of a state reaches the parameters before it is
    // known to be whole and of this component.
    TAVPreset preset(log_);
    if (!preset.makeFrom(state)) {
        _fullState = std::move(old);
        return false;
    }
    if (!preset.checkDescription(componentDescription(), kStateVersion)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::fullState : ERROR: The component description of "
            "the patch does not match.");
        _fullState = std::move(old);
        updateParameters();
        return false;
    }
    preset.delegate = this;
    preset.reportParameters();
    _fullState = preset.getDictionary();
    updateParameters();
    return true;
}

void TAV_SR_Chorus_Extension_AudioUnit::onFoundParameter(NSInteger, const std::string&,
                                                         std::uint64_t address, float value) {
    setParameter(std::int32_t(address), value);
}

// ---- factory presets ---------------------------------------------------------------------------

bool TAV_SR_Chorus_Extension_AudioUnit::ensurePresetFolders() {
    return sr::installPresetFolders(documents, factorySource, log_);
}

std::vector<AUAudioUnitPreset> TAV_SR_Chorus_Extension_AudioUnit::factoryPresets() {
    if (!ensurePresetFolders()) {
        log("Vornex_AudioUnit::factoryPresets : ERROR: Could not create required preset "
            "folders.");
        return presets;
    }
    presets.clear();
    std::error_code ec;
    std::vector<fs::path> files, folders;
    for (fs::directory_iterator it(documents + kPresetsFolder, ec), end; !ec && it != end;
         it.increment(ec)) {
        std::error_code kind;
        // Entries whose target is gone (a dangling link) are not counted.
        if (!fs::exists(it->path(), kind)) continue;
        (fs::is_directory(it->path(), kind) ? folders : files).push_back(it->path());
    }
    if (ec) {
        log("Vornex_AudioUnit::factoryPresets : ERROR: Creating factory presets failed: " +
            ec.message());
        presets.clear();
        return presets;
    }
    // A stable order for stable numbers: files by name, then the sub-folders, which still
    // advance the number but no longer push presets past the count hosts check them against.
    std::sort(files.begin(), files.end());
    std::sort(folders.begin(), folders.end());
    files.insert(files.end(), folders.begin(), folders.end());
    NSInteger number = 0;
    for (const fs::path& entry : files) {
        const NSInteger running = number++;
        if (sr::isPresetFileName(entry.filename().string()))
            presets.push_back({running, entry.stem().string()});
    }
    return presets;
}

void TAV_SR_Chorus_Extension_AudioUnit::setCurrentPreset(
    const std::optional<AUAudioUnitPreset>& preset) {
    if (!preset) {
        _currentPreset.reset();
        return;
    }
    if (preset->number < 0) {
        try {
            setFullState(presetState(*preset));
            _currentPreset = preset;
        } catch (const AUAudioUnitError&) {
            log("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: Unable to restore set "
                "for preset " +
                preset->name);
        }
        return;
    }
    if (preset->number >= NSInteger(presets.size())) {
        log("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: The preset number " +
            std::to_string(preset->number) + " is invalid.");
        return;
    }
    const std::string path = presetPath(kPresetsFolder, preset->name);
    if (path.empty()) return;
    if (!exists(path)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::currentPreset : ERROR: The preset file '" +
            preset->name + kPresetExtension + "' does not exist.");
        return;
    }
    // A preset that did not load is not the current one.
    if (loadPresetFile(path)) _currentPreset = preset;
}

PropertyList TAV_SR_Chorus_Extension_AudioUnit::presetState(const AUAudioUnitPreset& preset) {
    const std::string path = presetPath(kPresetsFolder, preset.name);
    if (path.empty() || !exists(path)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::presetState() : ERROR: The preset file '" +
            preset.name + kPresetExtension + "' does not exist.");
        throw AUAudioUnitError(kAudioUnitErr_InvalidFile,
                               "no preset file for '" + preset.name + "'");
    }
    TAVPreset loaded(log_);
    loaded.load(path);
    return loaded.getDictionary();
}

// ---- user presets and files --------------------------------------------------------------------

std::string TAV_SR_Chorus_Extension_AudioUnit::userPresetPath(const std::string& filename) const {
    std::string error;
    if (documents.empty() || !sr::ensureDirectoryExists(documents + kUserFolder, error)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::updateParameters() : ERROR: Could not ceate "
            "preset directory.");
        return {};
    }
    return presetPath(kUserFolder, filename);
}

bool TAV_SR_Chorus_Extension_AudioUnit::savePreset(const std::string& filename) {
    const std::string path = userPresetPath(filename);
    return !path.empty() && savePresetFile(path);
}

bool TAV_SR_Chorus_Extension_AudioUnit::savePresetFile(const std::string& path) {
    TAVPreset preset(log_);
    preset.makeFrom(fullState());
    return preset.save(path);
}

bool TAV_SR_Chorus_Extension_AudioUnit::loadPreset(const std::string& filename) {
    const std::string path = userPresetPath(filename);
    if (path.empty()) return false;
    if (!exists(path)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::updateParameters() : ERROR: The preset does not "
            "exist.");
        return false;
    }
    return loadPresetFile(path);
}

bool TAV_SR_Chorus_Extension_AudioUnit::loadPresetFile(const std::string& path) {
    TAVPreset preset(log_);
    preset.load(path);
    if (!preset.checkDescription(componentDescription(), kStateVersion)) {
        log("TAV_SR_Chorus_Extension_AudioUnit::loadPresetFile() : ERROR: The component "
            "description of the loaded preset does not match.");
        return false;
    }
    setFullState(preset.getDictionary());
    updateParameters();
    return true;
}

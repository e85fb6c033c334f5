#include "audiounit/PresetFolders.h"

#include <filesystem>
#include <system_error>

#include "audiounit/PresetName.h"
#include "platform/AtomicFile.h"
#include "platform/DocumentsDirectory.h"
#include "platform/PrintQueue.h"
#include "platform/PropertyList.h"

namespace fs = std::filesystem;

namespace sr {

bool installPresetFolders(const std::string& documents, const std::string& factorySource,
                          LogChannel& log) {
    if (documents.empty()) return false;
    std::string error;
    for (const char* folder : {"Presets/", "Presets/Factory/", "Presets/User/"})
        if (!ensureDirectoryExists(documents + folder, error)) return false;
    if (factorySource.empty()) return true;

    std::error_code ec;
    for (fs::directory_iterator it(factorySource, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec) || !isPresetFileName(it->path().filename().string())) continue;
        const std::string name = it->path().filename().string();
        for (const char* folder : {"Presets/", "Presets/Factory/"}) {
            const std::string target = documents + folder + name;
            std::error_code there;
            if (fs::exists(fs::symlink_status(target, there))) continue;
            const LimitedRead source =
                readFileLimited(it->path().string(), PropertyList::kMaxBytes);
            try {
                if (!source.bytes || source.bytes->size() > PropertyList::kMaxBytes)
                    throw FileError("cannot read it");
                writeFileAtomically(target, *source.bytes, false);
            } catch (const FileError& e) {
                log.debugprint("TAV_SR_Chorus_Extension_AudioUnit::factoryPresets : ERROR: Could "
                               "not install the factory preset '" +
                               name + "': " + e.what() + "\n");
            }
        }
    }
    return true;
}

} // namespace sr

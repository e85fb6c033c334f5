// The app's saved state: the audio unit's full state and the current preset's name, as one XML
// property list in the documents folder, written atomically on exit and read at start. A file
// that cannot be used is moved aside under a name of its own, never overwritten or deleted.
// Threading: main thread only.
#pragma once

#include <string>

#include "platform/PropertyList.h"

namespace sr::app {

struct AppState {
    PropertyList fullState; // the unit's fullState dictionary
    std::string presetName; // empty when no preset is current
};

class StateFile {
public:
    static constexpr const char* kFileName = "sr-chorus-state.plist";
    // Keys of the file's dictionary.
    static constexpr const char* kFullStateKey = "fullState";
    static constexpr const char* kPresetKey = "currentPreset";

    // `folder` ends with '/'.
    explicit StateFile(std::string folder);
    const std::string& path() const { return path_; }

    struct Read {
        enum Status { Missing, Refused, Loaded } status = Missing;
        AppState state;
        std::string reason; // why it was refused
    };
    // Refused: unreadable, not a property list, or not a dictionary of the keys above.
    Read read() const;
    // Moves the file to "sr-chorus-state.refused-<date>-<time>[-N].plist" in the same folder,
    // a name no file has yet. Returns the new path, or an empty one with the reason in `error`.
    std::string keepAside(std::string& error) const;
    // The whole state, atomically (the folder is created when missing). Throws FileError.
    void write(const AppState& state) const;

    // The file's dictionary for a state, and back (nullopt with the reason when it is not one).
    static PropertyList toPropertyList(const AppState& state);
    static std::optional<AppState> fromPropertyList(const PropertyList& list, std::string& reason);

private:
    std::string folder;
    std::string path_;
};

} // namespace sr::app

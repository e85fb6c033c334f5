// The preset browser's table: the factory or the user folder of the documents folder as rows
// (folders open and close in place, a folder's "info.txt" is its description), choosing a row,
// and deleting the selected user file. The model only: PanelOverlays draws it.
// Threading: the view's thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "editor/FileEnumerator.h"
#include "platform/PrintQueue.h"

namespace sr::editor {

class FileViewControllerPresets;

enum class PresetSet { factory, user };

class FileTableViewPresets {
public:
    static constexpr const char* kFactoryFolder = "Presets/Factory";
    static constexpr const char* kUserFolder = "Presets/User";
    static constexpr const char* kFactoryTitle = "Factory Files";
    static constexpr const char* kUserTitle = "User Files";

    // Makes the table report to `controller` (the screen that hosts it).
    void initialize(FileViewControllerPresets* controller);

    // The documents folder, ending with '/'; empty when there is none.
    std::string documentsDirectory;
    // Where its log lines go (the host's log); must outlive the table.
    LogChannel* logChannel = &standardLog();

    bool loadFactorySet();
    bool loadUserSet();
    // Lists the shown set again; open folders stay open, the selection stays on its file.
    void reloadData();
    // True when the folder exists or could be made, with its parents.
    bool ensureDirectoryExists(const std::string& url);

    // A row chosen: a folder opens or closes, a preset file goes to the hosting screen to be
    // loaded. A row beyond the rows (the list shrank since it was drawn) does nothing.
    void didSelectRowAt(std::size_t row);
    // Removes the file (or folder) of the selected row. Only ever inside the user folder.
    bool deleteFile();

    PresetSet set() const { return set_; }
    const char* sectionTitle() const {
        return set_ == PresetSet::factory ? kFactoryTitle : kUserTitle;
    }
    // The folder of the shown set, ending with '/'.
    std::string folder() const;
    const std::vector<FileItem>& items() const { return items_; }
    std::size_t count() const { return items_.size(); }

    // The row the keys and the buttons act on.
    std::optional<std::size_t> selectedRow;
    const FileItem* selectedItem() const;
    // Selects the row of a path, if it is listed.
    bool selectPath(const std::string& path);

private:
    void note(const std::string& text) const;
    bool loadSet(PresetSet set);
    FileEnumerator::Options options() const;

    FileViewControllerPresets* controller = nullptr;
    PresetSet set_ = PresetSet::factory;
    std::vector<FileItem> items_;
};

} // namespace sr::editor

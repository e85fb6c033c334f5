// The preset browser screen: hosts the table of the factory or user presets, hands a chosen
// file to its delegate (the editor's host controller) for loading, asks before deleting, and
// passes on the save, import and export buttons. The model only: PanelOverlays draws it.
// Threading: the view's thread.
#pragma once

#include <cstdint>
#include <string>

#include "editor/FileTableViewPresets.h"
#include "editor/PanelAlert.h"
#include "platform/PrintQueue.h"

namespace sr::editor {

class FileViewControllerPresetsDelegate {
public:
    virtual ~FileViewControllerPresetsDelegate() = default;
    // A preset file was chosen in the list (its row and path): load it.
    virtual void onPresetFileSelect(std::int64_t index, const std::string& path) = 0;
    // Save the current settings as a new user preset.
    virtual void onPresetFileSave() = 0;
    // Load preset files from anywhere in the home folder.
    virtual void onPresetFileImport() = 0;
    // Copy a preset file to a folder the user picks.
    virtual void onPresetFileExport(const std::string& file) = 0;
};

class FileViewControllerPresets {
public:
    static constexpr const char* kDeleteCaption = "Delete Files";
    static constexpr const char* kDeleteQuestion =
        "Do You really want to delete the file (or folder)? \nThis cannot be undone!";
    static constexpr const char* kFactoryRefusal = "Factory content cannot be deleted.";

    FileViewControllerPresetsDelegate* delegate = nullptr;
    AlertPresenter* alerts = nullptr;
    // Where its and its table's log lines go (the host's log); must outlive them.
    LogChannel* logChannel = &standardLog();
    FileTableViewPresets tableView;
    // The file loaded last, whose row is marked.
    std::string currentPath;

    // Connects the table and lists the set shown last (the factory set at first).
    void viewDidLoad(const std::string& documentsDirectory);
    void showSet(PresetSet set);
    // The list again, after files changed behind it.
    void refresh();

    // From the table: a preset file was chosen.
    void didChooseFile(std::size_t row, const std::string& path);

    // The buttons. Each acts on the selected row where it needs one.
    void onDeleteButton();
    void onSaveButton();
    void onImportButton();
    void onExportButton();
    // Asks the delete question for the selected row; deletes after "OK".
    void alertFileDelete();

private:
    void note(const std::string& text) const;
};

} // namespace sr::editor

#include "editor/FileViewControllerPresets.h"

#include "platform/PrintQueue.h"

namespace sr::editor {

void FileViewControllerPresets::note(const std::string& text) const {
    logChannel->debugprint(text + "\n");
}

void FileViewControllerPresets::viewDidLoad(const std::string& documentsDirectory) {
    tableView.initialize(this);
    tableView.logChannel = logChannel;
    tableView.documentsDirectory = documentsDirectory;
    showSet(tableView.set());
}

void FileViewControllerPresets::showSet(PresetSet set) {
    if (set == PresetSet::factory)
        tableView.loadFactorySet();
    else
        tableView.loadUserSet();
    if (!tableView.selectedRow) tableView.selectPath(currentPath);
}

void FileViewControllerPresets::refresh() {
    tableView.reloadData();
}

void FileViewControllerPresets::didChooseFile(std::size_t row, const std::string& path) {
    if (delegate) delegate->onPresetFileSelect(std::int64_t(row), path);
}

void FileViewControllerPresets::onDeleteButton() {
    alertFileDelete();
}

void FileViewControllerPresets::alertFileDelete() {
    const FileItem* item = tableView.selectedItem();
    if (!item || item->isMore || !alerts) return;
    if (!item->isDeleteble) {
        alerts->alert(kDeleteCaption, kFactoryRefusal);
        return;
    }
    // The question is about this row: if the list changes before the answer, the answer must
    // not delete whatever then lies under the selection.
    const std::string path = item->path;
    alerts->alertQuestion(
        kDeleteCaption, kDeleteQuestion,
        [this, path] {
            note("FileViewControllerPresets::alertFileDelete() : Delete action was permitted.");
            if (!tableView.selectPath(path)) {
                note("FileTableViewPresets::deleteFile() : ERROR: The file for deletion (" + path +
                     ") does not exist.");
                return;
            }
            tableView.deleteFile();
        },
        [this] {
            note("FileViewControllerPresets::alertFileDelete() : Delete action was canceled.");
        });
}

void FileViewControllerPresets::onSaveButton() {
    if (delegate) delegate->onPresetFileSave();
}

void FileViewControllerPresets::onImportButton() {
    if (delegate) delegate->onPresetFileImport();
}

void FileViewControllerPresets::onExportButton() {
    const FileItem* item = tableView.selectedItem();
    if (!item || !item->isLoadable()) {
        if (alerts) alerts->alert("Export", "Please select a preset file to export first.");
        return;
    }
    if (delegate) delegate->onPresetFileExport(item->path);
}

} // namespace sr::editor

#include "editor/FileTableViewPresets.h"

#include <filesystem>
#include <system_error>

#include "editor/FileViewControllerPresets.h"
#include "platform/DocumentsDirectory.h"
#include "platform/PrintQueue.h"

namespace fs = std::filesystem;

namespace sr::editor {

namespace {

// True when `path` lies strictly inside `folder` once "." and ".." are resolved, so a row can
// never name the folder itself or anything beside it.
bool isInside(const std::string& path, const std::string& folder) {
    const fs::path p = fs::path(path).lexically_normal();
    const fs::path f = fs::path(folder).lexically_normal();
    const fs::path relative = p.lexically_relative(f);
    return !relative.empty() && relative != "." && *relative.begin() != "..";
}

} // namespace

void FileTableViewPresets::initialize(FileViewControllerPresets* c) {
    controller = c;
}

void FileTableViewPresets::note(const std::string& text) const {
    logChannel->debugprint(text + "\n");
}

std::string FileTableViewPresets::folder() const {
    return documentsDirectory + (set_ == PresetSet::factory ? kFactoryFolder : kUserFolder) + "/";
}

FileEnumerator::Options FileTableViewPresets::options() const {
    FileEnumerator::Options o;
    o.deletable = set_ == PresetSet::user;
    return o;
}

bool FileTableViewPresets::ensureDirectoryExists(const std::string& url) {
    std::string error;
    if (sr::ensureDirectoryExists(url, error)) return true;
    note("Quillon_AudioUnit::ensureDirectoryExists() : ERROR: Creating required directory '" + url +
         "' failed: " + error);
    return false;
}

bool FileTableViewPresets::loadFactorySet() {
    return loadSet(PresetSet::factory);
}

bool FileTableViewPresets::loadUserSet() {
    return loadSet(PresetSet::user);
}

bool FileTableViewPresets::loadSet(PresetSet set) {
    const bool factory = set == PresetSet::factory;
    if (documentsDirectory.empty()) {
        note(factory ? "FileTableViewPresets::loadFactorySet() : ERROR: Documents directory is nil."
                     : "FileTableViewPresets::loadUserSet() : ERROR: Documents directory is nil.");
        return false;
    }
    const bool changed = set != set_;
    set_ = set;
    if (!ensureDirectoryExists(folder())) {
        note(factory
                 ? "FileTableViewPresets::loadUserSet() : ERROR: The factory preset directory "
                   "could not be created."
                 : "FileTableViewPresets::loadUserSet() : ERROR: The user preset directory could "
                   "not be created.");
        items_.clear();
        selectedRow.reset();
        return false;
    }
    if (changed) {
        items_.clear();
        selectedRow.reset();
    }
    reloadData();
    return true;
}

void FileTableViewPresets::reloadData() {
    const std::string selectedPath = selectedItem() ? selectedItem()->path : std::string();
    const std::optional<std::size_t> oldRow = selectedRow;
    items_ = FileEnumerator::shared().relist(folder(), expandedFolders(items_), options());
    selectedRow.reset();
    if (!selectedPath.empty() && selectPath(selectedPath)) return;
    // The selected file went: the row that took its place, or the last one.
    if (oldRow && !items_.empty()) selectedRow = std::min(*oldRow, items_.size() - 1);
}

const FileItem* FileTableViewPresets::selectedItem() const {
    return selectedRow && *selectedRow < items_.size() ? &items_[*selectedRow] : nullptr;
}

bool FileTableViewPresets::selectPath(const std::string& path) {
    for (std::size_t row = 0; row < items_.size(); ++row)
        if (items_[row].path == path) {
            selectedRow = row;
            return true;
        }
    return false;
}

void FileTableViewPresets::didSelectRowAt(std::size_t row) {
    note("row: " + std::to_string(row));
    note("count: " + std::to_string(items_.size()));
    if (row >= items_.size()) {
        note("FileTableViewPresets::didSelectRowAt : Error: The row exceeds the count of items.");
        return;
    }
    selectedRow = row;
    const FileItem item = items_[row];
    if (item.isMore) return;
    if (item.isFolder()) {
        const std::size_t count = FileEnumerator::shared().toggle(items_, row, options());
        note("new count: " + std::to_string(count));
        return;
    }
    std::error_code ec;
    if (!fs::exists(item.path, ec)) {
        note("FileTableViewPresets::didSelectRowAt : ERROR: The file '" + item.path +
             "' does not exist.");
        return;
    }
    if (!item.isLoadable()) {
        note("FileTableViewPresets::didSelectRowAt : WARNING: The file format is not supported.");
        return;
    }
    if (controller) controller->didChooseFile(row, item.path);
}

bool FileTableViewPresets::deleteFile() {
    const FileItem* item = selectedItem();
    if (!item || item->isMore) return false;
    const std::string path = item->path;
    note("FileTableViewPresets::deleteFile() : The file '" + path + "' is asked to be removed.");
    // Factory rows are never removed, whoever asks; nor anything outside the user folder.
    if (!item->isDeleteble || set_ != PresetSet::user ||
        !isInside(path, documentsDirectory + kUserFolder)) {
        note("FileTableViewPresets::deleteFile() : ERROR: Factory content cannot be deleted.");
        return false;
    }
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(path, ec))) {
        note("FileTableViewPresets::deleteFile() : ERROR: The file for deletion (" + path +
             ") does not exist.");
        reloadData();
        return false;
    }
    // A folder goes with what it holds (the question says so); links are removed, not
    // followed.
    if (item->isFolder() && !fs::is_symlink(path, ec))
        fs::remove_all(path, ec);
    else
        fs::remove(path, ec);
    if (ec) {
        note("FileTableViewPresets::deleteFile() : ERROR: " + ec.message());
        reloadData();
        return false;
    }
    note("FileTableViewPresets::deleteFile() : The file was removed.");
    reloadData();
    return true;
}

} // namespace sr::editor

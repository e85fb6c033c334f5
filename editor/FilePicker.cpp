#include "editor/FilePicker.h"

#include <algorithm>
#include <filesystem>

namespace sr::editor {

FilePicker::FilePicker(Mode mode, const std::string& root, const std::string& rootTitle)
    : mode_(mode) {
    FileItem top;
    top.path = root;
    top.name = rootTitle;
    top.kind = FileKind::folder;
    top.isDeleteble = false;
    rows_.push_back(top);
    FileEnumerator::shared().toggle(rows_, 0, options());
    selectedRow = 0;
}

FileEnumerator::Options FilePicker::options() const {
    FileEnumerator::Options o;
    o.deletable = false;
    o.show = mode_ == Mode::openPresets ? FileEnumerator::Show::presetsAndFolders
                                        : FileEnumerator::Show::foldersOnly;
    return o;
}

void FilePicker::toggleFolder(std::size_t row) {
    if (row >= rows_.size() || !rows_[row].isFolder()) return;
    FileEnumerator::shared().toggle(rows_, row, options());
}

void FilePicker::choose(std::size_t row) {
    if (row >= rows_.size()) return;
    selectedRow = row;
    const FileItem& item = rows_[row];
    if (item.isMore) return;
    if (item.isFolder()) {
        // The root stays open: closing it would leave nothing to choose from.
        if (row != 0) toggleFolder(row);
        return;
    }
    if (mode_ != Mode::openPresets || item.kind != FileKind::preset) return;
    const auto it = std::find(ticked.begin(), ticked.end(), item.path);
    if (it == ticked.end())
        ticked.push_back(item.path);
    else
        ticked.erase(it);
}

bool FilePicker::isTicked(const std::string& path) const {
    return std::find(ticked.begin(), ticked.end(), path) != ticked.end();
}

std::optional<std::string> FilePicker::chosenFolder() const {
    if (!selectedRow || *selectedRow >= rows_.size()) return std::nullopt;
    const FileItem& item = rows_[*selectedRow];
    if (item.isMore) return std::nullopt;
    if (item.isFolder()) return item.path;
    return std::filesystem::path(item.path).parent_path().string();
}

} // namespace sr::editor
